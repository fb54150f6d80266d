# Runs at install time: CMAKE_INSTALL_PREFIX is then the prefix being installed to.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${KIVREG_${dir}}")
    set(KIVREG_PC_${dir} "${KIVREG_${dir}}")
  else()
    set(KIVREG_PC_${dir} "\${prefix}/${KIVREG_${dir}}")
  endif()
endforeach()
configure_file("${KIVREG_PC_IN}" "${KIVREG_PC_OUT}" @ONLY)
