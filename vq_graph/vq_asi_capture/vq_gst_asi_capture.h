#pragma once
// GObject side of the vqasicapture element: the instance and class structures,
// the property ids and the plug-in entry points.

#include <gst/gst.h>

G_BEGIN_DECLS

struct Gstvqasicapture {
    GstElement element;
    void* pCapture;  // the owned vq_asi_capture; null before init and after finalize
};

struct Gstvqasicaptureclass {
    GstElementClass parent_class;
};

// Property ids, in installation order.
enum {
    PROP_0,
    PROP_V4L2,
    PROP_INPUT_TYPE,
    PROP_PLP,
    PROP_STATISTICS,
    PROP_ALARM_SOURCE_NAME,
    PROP_ALARM_MANAGER,
    PROP_STATS,
};

// The element's debug category "vqasicapture", the default of the element-side files.
GST_DEBUG_CATEGORY_EXTERN(gst_vq_asi_capture_debug);

GType gst_vqasicapture_get_type(void);

// For applications that link the plug-in instead of loading it from the plug-in path.
gboolean gst_plugin_vqasicapture_register(void);
const GstPluginDesc* gst_plugin_vqasicapture_get_desc(void);

G_END_DECLS
