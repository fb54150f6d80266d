# Data model benchmarks.
#   kivreg_gen_documents <megabytes> <document.xml> <symbols.properties>
#       writes a deterministic supplier document of about that size
#   kivreg_bench_model <document.xml> <symbols.properties>
#       loads, validates, substitutes and renders it, printing time and peak memory per phase
add_executable(kivreg_gen_documents ${CMAKE_CURRENT_LIST_DIR}/gen_documents.cpp)
target_link_libraries(kivreg_gen_documents PRIVATE kivreg_flags)

add_executable(kivreg_bench_model ${CMAKE_CURRENT_LIST_DIR}/bench_model.cpp)
target_link_libraries(kivreg_bench_model PRIVATE kivreg_core)

#   kivreg_bench_symbols
#       symbol substitution on hostile tables, next to one replacement pass
add_executable(kivreg_bench_symbols ${CMAKE_CURRENT_LIST_DIR}/bench_symbols.cpp)
target_link_libraries(kivreg_bench_symbols PRIVATE kivreg_core)
