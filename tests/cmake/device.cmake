# The V4L2 device class and the board simulator. Both suites carry the
# simulator inside the test program (the device code still calls the C
# library's names: open, ioctl, mmap...), so sanitizer builds cover it too.

foreach(suite test_v4l2_device test_simulator)
  add_executable(${suite} ${CMAKE_CURRENT_SOURCE_DIR}/${suite}.cpp)
  target_link_libraries(${suite} PRIVATE vq_test_support vqasicapture_core GTest::gtest_main)
  vqasisim_link_into(${suite})
  vq_set_warnings(${suite})
  gtest_discover_tests(${suite} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/data
                       DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endforeach()

# v4l2-ctl from v4l-utils, under the preloaded simulator through the wrapper.
add_test(NAME vqasisim_v4l2_ctl
         COMMAND sh ${CMAKE_SOURCE_DIR}/tools/vqasisim/check_v4l2_ctl.sh
                 $<TARGET_FILE_DIR:vqasisim>/vqasi-sim ${CMAKE_CURRENT_BINARY_DIR})
set_tests_properties(vqasisim_v4l2_ctl PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 60)
