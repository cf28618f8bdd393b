# Each installed program answers --version with "<program> <version>" alone,
# the line help2man puts into its manual page.
foreach(program ts-tables ts-analyze t2mi-extract vqasi-monitor)
  add_test(NAME version_${program} COMMAND ${program} --version)
  string(REPLACE "." "\\." version_pattern "${PROJECT_VERSION}")
  set_tests_properties(version_${program} PROPERTIES
    PASS_REGULAR_EXPRESSION "^${program} ${version_pattern}\n$"
    ENVIRONMENT "GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/version-registry.bin;${VQ_ELEMENT_ASAN_OPTIONS}")
endforeach()
