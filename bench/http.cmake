# Posting a 100 MB body to a local sink server, with our client and with curl.
add_executable(kivreg_bench_http ${CMAKE_CURRENT_LIST_DIR}/bench_http.cpp)
target_link_libraries(kivreg_bench_http PRIVATE kivreg_core benchmark::benchmark)
