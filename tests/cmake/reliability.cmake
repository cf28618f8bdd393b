# Reliability suites of the vqasicapture element: a soak run at full ASI rate
# under a fault script, and state/property abuse. They run like the element
# suites (built plug-in through GST_PLUGIN_PATH, simulator preloaded, the ASan
# runtime in front of it in sanitizer builds); element.cmake sets that up.
# Seconds of the soak per input type (rounded to whole 20 s rounds of its fault
# script), its rate, and the state transitions of the abuse suite.
# The sanitizer build runs less, and its instrumented T2-MI path cannot keep up
# with the full ASI rate, so it is fed at 40 Mbit/s.
if(VQ_SANITIZE)
  set(VQ_SOAK_SECONDS 20)
  set(VQ_SOAK_BITRATE 40000000)
  set(VQ_ABUSE_TRANSITIONS 200)
else()
  set(VQ_SOAK_SECONDS 60)
  set(VQ_SOAK_BITRATE 213000000)
  set(VQ_ABUSE_TRANSITIONS 1000)
endif()

get_property(VQ_SIM_INCLUDE_DIR GLOBAL PROPERTY VQASISIM_INCLUDE_DIR)
foreach(suite test_element_soak test_element_abuse)
  add_executable(${suite} ${CMAKE_CURRENT_SOURCE_DIR}/${suite}.cpp)
  target_include_directories(${suite} PRIVATE ${VQ_SIM_INCLUDE_DIR})
  target_link_libraries(${suite} PRIVATE vq_test_support vq_polling_alarm_manager vqasicapture_core
                        PkgConfig::GST_CHECK)
  if(suite STREQUAL "test_element_soak")
    target_link_libraries(${suite} PRIVATE GTest::gtest)  # its own main: --duration
  else()
    target_link_libraries(${suite} PRIVATE GTest::gtest_main)
  endif()
  add_dependencies(${suite} gstvqasicapture vqasisim)
  vq_set_warnings(${suite})
  add_test(NAME ${suite} COMMAND ${suite} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/data)
  set_tests_properties(${suite} PROPERTIES TIMEOUT 900 ENVIRONMENT
    "GST_PLUGIN_PATH=${VQASI_PLUGIN_DIR};GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/element-registry.bin;LD_PRELOAD=${VQ_ELEMENT_PRELOAD};VQ_TEST_BINARY_DIR=${CMAKE_BINARY_DIR};VQ_SOAK_SECONDS=${VQ_SOAK_SECONDS};VQ_SOAK_BITRATE=${VQ_SOAK_BITRATE};VQ_ABUSE_TRANSITIONS=${VQ_ABUSE_TRANSITIONS};${VQ_ELEMENT_ASAN_OPTIONS}")
endforeach()
