# Replays the fuzz seed corpora and the kept fuzz findings through the
# harness bodies of fuzz/ (the libFuzzer targets themselves are built by
# scripts/fuzz.sh with clang).
vq_add_test_suite(${CMAKE_CURRENT_SOURCE_DIR}/test_fuzz_regressions.cpp)
target_sources(test_fuzz_regressions PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/../fuzz/harnesses.cpp)
target_include_directories(test_fuzz_regressions PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/../fuzz)
target_compile_definitions(test_fuzz_regressions PRIVATE
  VQ_FUZZ_CORPUS_DIR="${CMAKE_CURRENT_SOURCE_DIR}/../fuzz/corpus")
