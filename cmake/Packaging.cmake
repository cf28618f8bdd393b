# One quick local Debian package of the plug-in, the tools, the libraries and
# the headers (the release packages come from debian/ with dpkg-buildpackage):
#   cmake -S . -B build-deb -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DVQ_BUILD_TESTS=OFF -DVQ_BUILD_BENCH=OFF
#   cmake --build build-deb && (cd build-deb && cpack -G DEB)
# The prefix must be /usr at configure time: GNUInstallDirs then picks the
# multiarch library folder (lib/<triplet>), so the plug-in lands in
# /usr/lib/<triplet>/gstreamer-1.0, where Debian's GStreamer looks for plug-ins.
set(CPACK_PACKAGE_NAME "gstreamer1.0-vqasicapture")
set(CPACK_PACKAGE_VENDOR "vq_graph")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "GStreamer DVB-ASI capture element (vqasicapture) and MPEG-TS tools")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "The vqasicapture source element captures DVB-ASI transport streams (plain\n"
    "TS or T2-MI) from a V4L2 capture board, with capture statistics and alarms.\n"
    "Includes vqasi-monitor, ts-tables, ts-analyze, t2mi-extract, the board\n"
    "simulator, the mpegcore library and headers.")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "vq_graph maintainers <maintainers@users.noreply.c-seed-5fce56d9.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION "video")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libgstreamer1.0-0 (>= 1.14)")
# udpsink (vqasi-monitor --udp) and the GStreamer command-line tools.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "gstreamer1.0-plugins-good, gstreamer1.0-tools")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libgstreamer1.0-dev")

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(STATUS "Packaging: configure with -DCMAKE_INSTALL_PREFIX=/usr for a Debian package whose "
                 "plug-in GStreamer finds (now ${CMAKE_INSTALL_PREFIX}, libdir ${CMAKE_INSTALL_LIBDIR})")
endif()

include(CPack)
