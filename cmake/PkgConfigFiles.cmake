# Installs lib/pkgconfig/<name>.pc from cmake/<name>.pc.in. The prefix is
# relative to the .pc file, so `cmake --install --prefix X` works for any X.
function(vq_install_pkgconfig name)
  file(RELATIVE_PATH PC_REL_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" PC_REL_PREFIX "${PC_REL_PREFIX}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
