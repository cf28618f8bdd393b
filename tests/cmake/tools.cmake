# Suites of the command-line tools: they run the built tools as child
# processes (their paths come in as compile definitions) and read their JSON
# with nlohmann-json.
vq_require_package(nlohmann_json nlohmann-json3-dev 3)
vq_add_test_suite(${CMAKE_CURRENT_SOURCE_DIR}/test_tools_ts_tables.cpp nlohmann_json::nlohmann_json)
target_compile_definitions(test_tools_ts_tables PRIVATE TS_TABLES_PATH="$<TARGET_FILE:ts-tables>")
add_dependencies(test_tools_ts_tables ts-tables)
vq_add_test_suite(${CMAKE_CURRENT_SOURCE_DIR}/test_tools_t2mi_extract.cpp)
target_compile_definitions(test_tools_t2mi_extract PRIVATE T2MI_EXTRACT_PATH="$<TARGET_FILE:t2mi-extract>")
add_dependencies(test_tools_t2mi_extract t2mi-extract)

# The monitor runs the plug-in on the simulated board with the runtime set-up
# of the element suites (element.cmake, included before this file): the
# simulator, behind the ASan runtime in sanitizer builds, is preloaded into the
# monitor only, through the command line the suite builds.
add_executable(test_tools_monitor ${CMAKE_CURRENT_SOURCE_DIR}/test_tools_monitor.cpp)
target_link_libraries(test_tools_monitor PRIVATE vq_test_support GTest::gtest_main nlohmann_json::nlohmann_json)
target_compile_definitions(test_tools_monitor PRIVATE VQ_MONITOR_PATH="$<TARGET_FILE:vqasi-monitor>"
                           VQ_MONITOR_PRELOAD="${VQ_ELEMENT_PRELOAD}")
add_dependencies(test_tools_monitor vqasi-monitor gstvqasicapture vqasisim)
# scripts/demo.sh runs this build's programs, with the simulator alone preloaded.
if(NOT VQ_SANITIZE AND NOT VQ_TSAN)
  target_compile_definitions(test_tools_monitor PRIVATE VQ_DEMO_SCRIPT="${PROJECT_SOURCE_DIR}/scripts/demo.sh"
                             VQ_BUILD_DIR="${CMAKE_BINARY_DIR}")
endif()
vq_set_warnings(test_tools_monitor)
add_test(NAME test_tools_monitor COMMAND test_tools_monitor WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/data)
set_tests_properties(test_tools_monitor PROPERTIES TIMEOUT 300 ENVIRONMENT
  "GST_PLUGIN_PATH=${VQASI_PLUGIN_DIR};GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/monitor-registry.bin;${VQ_ELEMENT_ASAN_OPTIONS}")

# The monitor as a probe: two simulated boards, its HTTP side read with curl,
# the metrics checked by promtool, the API parsed with nlohmann-json.
# A real Prometheus server scrapes it in the second suite.
foreach(suite test_tools_monitor_probe test_tools_monitor_prometheus)
  add_executable(${suite} ${CMAKE_CURRENT_SOURCE_DIR}/${suite}.cpp)
  target_link_libraries(${suite} PRIVATE vq_test_support GTest::gtest_main nlohmann_json::nlohmann_json)
  target_compile_definitions(${suite} PRIVATE VQ_MONITOR_PATH="$<TARGET_FILE:vqasi-monitor>"
                             VQ_MONITOR_PRELOAD="${VQ_ELEMENT_PRELOAD}"
                             VQ_CONTRIB_DIR="${PROJECT_SOURCE_DIR}/contrib/vqasi-monitor")
  add_dependencies(${suite} vqasi-monitor gstvqasicapture vqasisim)
  vq_set_warnings(${suite})
  add_test(NAME ${suite} COMMAND ${suite} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/data)
  set_tests_properties(${suite} PROPERTIES TIMEOUT 300 ENVIRONMENT
    "GST_PLUGIN_PATH=${VQASI_PLUGIN_DIR};GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/monitor-registry.bin;${VQ_ELEMENT_ASAN_OPTIONS}")
endforeach()

# Load and faults: four simulated boards at the full ASI rate, each with its
# own fault, for VQ_MONITOR_SOAK_SECONDS (a longer run: configure with a larger
# value). The sanitizer build runs less and at a lower rate.
if(VQ_SANITIZE)
  set(VQ_MONITOR_SOAK_SECONDS 20 CACHE STRING "Seconds of the monitor's load-and-fault soak")
  # Instrumented, four ports resynchronising after garbage need room on a loaded machine.
  set(VQ_MONITOR_SOAK_BITRATE 20000000)
else()
  set(VQ_MONITOR_SOAK_SECONDS 60 CACHE STRING "Seconds of the monitor's load-and-fault soak")
  set(VQ_MONITOR_SOAK_BITRATE 213000000)
endif()
get_property(VQ_SIM_INCLUDE_DIR GLOBAL PROPERTY VQASISIM_INCLUDE_DIR)
add_executable(test_tools_monitor_soak ${CMAKE_CURRENT_SOURCE_DIR}/test_tools_monitor_soak.cpp)
target_include_directories(test_tools_monitor_soak PRIVATE ${VQ_SIM_INCLUDE_DIR})
target_link_libraries(test_tools_monitor_soak PRIVATE vq_test_support GTest::gtest_main nlohmann_json::nlohmann_json)
target_compile_definitions(test_tools_monitor_soak PRIVATE VQ_MONITOR_PATH="$<TARGET_FILE:vqasi-monitor>"
                           VQ_MONITOR_PRELOAD="${VQ_ELEMENT_PRELOAD}")
add_dependencies(test_tools_monitor_soak vqasi-monitor gstvqasicapture vqasisim)
vq_set_warnings(test_tools_monitor_soak)
add_test(NAME test_tools_monitor_soak COMMAND test_tools_monitor_soak WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/data)
math(EXPR VQ_MONITOR_SOAK_TIMEOUT "${VQ_MONITOR_SOAK_SECONDS} + 240")
set_tests_properties(test_tools_monitor_soak PROPERTIES TIMEOUT ${VQ_MONITOR_SOAK_TIMEOUT} ENVIRONMENT
  "GST_PLUGIN_PATH=${VQASI_PLUGIN_DIR};GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/monitor-registry.bin;VQ_SOAK_SECONDS=${VQ_MONITOR_SOAK_SECONDS};VQ_SOAK_BITRATE=${VQ_MONITOR_SOAK_BITRATE};${VQ_ELEMENT_ASAN_OPTIONS}")

# The shipped monitoring extras: alert rules under promtool's unit tests, the
# systemd unit under systemd-analyze (skipped where either is missing).
find_program(VQ_PROMTOOL promtool)
if(VQ_PROMTOOL)
  add_test(NAME contrib_alert_rules COMMAND ${VQ_PROMTOOL} test rules ${CMAKE_CURRENT_SOURCE_DIR}/contrib/vqasi-alerts-test.yml)
else()
  message(STATUS "promtool not found: the alert rules are not tested (Debian package prometheus)")
endif()
add_test(NAME contrib_systemd_unit COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/contrib/check_systemd_unit.sh
         ${PROJECT_SOURCE_DIR}/contrib/vqasi-monitor/vqasi-monitor@.service $<TARGET_FILE:vqasi-monitor>)
set_tests_properties(contrib_systemd_unit PROPERTIES SKIP_RETURN_CODE 77)
