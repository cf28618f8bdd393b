# Table suite checked against libdvbpsi, an independent PSI/SI implementation
# (used by the tests only).
pkg_check_modules(DVBPSI REQUIRED IMPORTED_TARGET libdvbpsi)
list(APPEND VQ_CUSTOM_SUITES test_tables_dvbpsi)
vq_add_test_suite(${CMAKE_CURRENT_SOURCE_DIR}/test_tables_dvbpsi.cpp PkgConfig::DVBPSI)
