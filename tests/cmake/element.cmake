# Suites of the vqasicapture element. They load the built plug-in through
# GST_PLUGIN_PATH (with a registry of their own) and run it on the simulated board
# (libvqasisim.so preloaded). In sanitizer builds the ASan runtime is preloaded in
# front of the simulator, so that child processes (gst-inspect-1.0, the plug-in
# scanner) can load the instrumented plug-in too. test_element_static links the
# plug-in's registration code instead and runs without GST_PLUGIN_PATH.
vq_require_pkgconfig(GST_CHECK "libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev" gstreamer-check-1.0
                     gstreamer-app-1.0)
get_property(VQ_SIM_INCLUDE_DIR GLOBAL PROPERTY VQASISIM_INCLUDE_DIR)

set(VQ_ELEMENT_PRELOAD $<TARGET_FILE:vqasisim>)
set(VQ_ELEMENT_ASAN_OPTIONS "")
if(VQ_SANITIZE)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
                  OUTPUT_VARIABLE VQ_LIBASAN OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(VQ_ELEMENT_PRELOAD "${VQ_LIBASAN}:${VQ_ELEMENT_PRELOAD}")
  set(VQ_ELEMENT_ASAN_OPTIONS
      "ASAN_OPTIONS=verify_asan_link_order=0:halt_on_error=1:abort_on_error=1:detect_leaks=1;LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/element/lsan.supp:fast_unwind_on_malloc=0")
endif()

# In the ThreadSanitizer build (VQ_TSAN) the TSan runtime likewise comes first.
set(VQ_ELEMENT_TSAN_OPTIONS "")
if(VQ_TSAN)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libtsan.so
                  OUTPUT_VARIABLE VQ_LIBTSAN OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(VQ_ELEMENT_PRELOAD "${VQ_LIBTSAN}:${VQ_ELEMENT_PRELOAD}")
  set(VQ_ELEMENT_TSAN_OPTIONS "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")
endif()

# Multi-threaded suites that pass under ThreadSanitizer carry the label "tsan". The
# capture and pause suites hand buffers through GStreamer's queues, whose futex-based
# GLib locks TSan cannot see: it reports GStreamer freeing what the capture thread wrote.
# The alarm-message suite hands messages through the bus, a GLib queue as well.
set(VQ_ELEMENT_TSAN_CLEAN test_element_alarms test_element_static test_element_stats)

set(VQ_ELEMENT_SUITES test_element_plugin test_element_capture test_element_alarms test_element_provider
                      test_element_pause test_element_eos test_element_static test_element_analysis
                      test_element_interop test_element_live test_element_messages test_element_stats)
foreach(suite ${VQ_ELEMENT_SUITES})
  add_executable(${suite} ${CMAKE_CURRENT_SOURCE_DIR}/${suite}.cpp)
  target_link_libraries(${suite} PRIVATE vq_test_support GTest::gtest_main vqasicapture_core PkgConfig::GST_CHECK)
  target_include_directories(${suite} PRIVATE ${VQ_SIM_INCLUDE_DIR})
  add_dependencies(${suite} gstvqasicapture vqasisim)
  vq_set_warnings(${suite})
  if(suite STREQUAL "test_element_alarms" OR suite STREQUAL "test_element_messages")
    target_link_libraries(${suite} PRIVATE vq_polling_alarm_manager)
  endif()
  add_test(NAME ${suite} COMMAND ${suite} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/data)
  set(plugin_env "GST_PLUGIN_PATH=${VQASI_PLUGIN_DIR};GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/element-registry.bin")
  if(suite STREQUAL "test_element_static")
    # Registered from inside the program: no plug-in path, a registry of its own.
    target_sources(${suite} PRIVATE ${PROJECT_SOURCE_DIR}/vq_graph/vq_asi_capture/vq_gst_asi_capture.cpp)
    set(plugin_env "GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/element-static-registry.bin")
  endif()
  set_tests_properties(${suite} PROPERTIES TIMEOUT 600 ENVIRONMENT
    "${plugin_env};LD_PRELOAD=${VQ_ELEMENT_PRELOAD};VQ_TEST_BINARY_DIR=${CMAKE_BINARY_DIR};${VQ_ELEMENT_ASAN_OPTIONS};${VQ_ELEMENT_TSAN_OPTIONS}")
  if(suite IN_LIST VQ_ELEMENT_TSAN_CLEAN)
    set_tests_properties(${suite} PROPERTIES LABELS tsan)
    add_dependencies(tsan_suites ${suite})
  endif()
endforeach()

# The Python example (PyGObject) on the simulated board. Python's own allocations are
# not ours to check for leaks.
add_test(NAME python_monitor_example
         COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/element/check_python_monitor.sh
                 ${PROJECT_SOURCE_DIR}/examples/python/monitor.py)
set(VQ_PYTHON_ASAN_OPTIONS "")
if(VQ_SANITIZE)
  set(VQ_PYTHON_ASAN_OPTIONS "ASAN_OPTIONS=verify_asan_link_order=0:halt_on_error=1:detect_leaks=0")
endif()
set_tests_properties(python_monitor_example PROPERTIES TIMEOUT 60 ENVIRONMENT
  "GST_PLUGIN_PATH=${VQASI_PLUGIN_DIR};GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/python-registry.bin;LD_PRELOAD=${VQ_ELEMENT_PRELOAD};VQASISIM_DEVICE=/dev/video0;VQASISIM_INPUT=${CMAKE_CURRENT_SOURCE_DIR}/data/live-025.ts;VQASISIM_BITRATE=1504000;VQASISIM_SIGNAL=nolink:2.5,ok;VQASISIM_CC_ERRORS=100;${VQ_PYTHON_ASAN_OPTIONS}")
