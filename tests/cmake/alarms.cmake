# Statistics, alarm and capture-thread suites: they link the element-side library,
# and the multi-threaded ones carry the label "tsan" for the ThreadSanitizer run.
set(VQ_ALARMS_SUITES
  test_statistics
  test_statistics_rates
  test_alarm_event
  test_alarm_event_timing
  test_alarms_dispatcher
  test_alarms_dispatcher_timing)
set(VQ_ALARMS_TSAN_SUITES
  test_capture_thread
  test_statistics_concurrency
  test_alarms_stress
  test_polling_alarm_manager)

foreach(suite ${VQ_ALARMS_SUITES})
  vq_add_test_suite(${CMAKE_CURRENT_SOURCE_DIR}/${suite}.cpp vqasicapture_core)
endforeach()

foreach(suite ${VQ_ALARMS_TSAN_SUITES})
  add_executable(${suite} ${CMAKE_CURRENT_SOURCE_DIR}/${suite}.cpp)
  target_link_libraries(${suite} PRIVATE vq_test_support GTest::gtest_main vqasicapture_core
                        vq_polling_alarm_manager)
  vq_set_warnings(${suite})
  gtest_discover_tests(${suite} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/data
                       DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS tsan)
  add_dependencies(tsan_suites ${suite})
endforeach()
