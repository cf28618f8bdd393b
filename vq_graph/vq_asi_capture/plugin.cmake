# The GStreamer plug-in module libgstvqasicapture.so: the registration glue over
# vqasicapture_core. Built into its own folder so GST_PLUGIN_PATH can point at it.
add_library(gstvqasicapture MODULE ${CMAKE_CURRENT_LIST_DIR}/vq_gst_asi_capture.cpp)
target_link_libraries(gstvqasicapture PRIVATE vqasicapture_core)
set_target_properties(gstvqasicapture PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/gst-plugins
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
vq_set_warnings(gstvqasicapture)
set(VQASI_PLUGIN_DIR ${CMAKE_BINARY_DIR}/gst-plugins CACHE INTERNAL "Folder of the built vqasicapture plug-in")

install(TARGETS gstvqasicapture LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0)
