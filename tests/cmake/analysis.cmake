# ts-analyze on the captures and on generated streams, and ts-tables on packed
# sections; the tools run as child processes.
vq_require_package(nlohmann_json nlohmann-json3-dev 3)
vq_add_test_suite(${CMAKE_CURRENT_SOURCE_DIR}/test_tools_ts_analyze.cpp nlohmann_json::nlohmann_json)
target_compile_definitions(test_tools_ts_analyze PRIVATE TS_ANALYZE_PATH="$<TARGET_FILE:ts-analyze>"
                           TS_TABLES_PATH="$<TARGET_FILE:ts-tables>")
add_dependencies(test_tools_ts_analyze ts-analyze ts-tables)
