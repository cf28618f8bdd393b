# Table suite checked against libdvbpsi, an independent PSI/SI implementation
# (used by the tests only).
vq_require_pkgconfig(DVBPSI libdvbpsi-dev libdvbpsi)
vq_add_test_suite(${CMAKE_CURRENT_SOURCE_DIR}/test_tables_dvbpsi.cpp PkgConfig::DVBPSI)
