// Plug-in and element registration. Every instance function passes straight on
// to the vq_asi_capture object the instance owns.

#include "vq_asi_capture/vq_gst_asi_capture.h"

#include "vq_asi_capture/vq_asi_capture.h"

namespace {

GstElementClass* parent_class = nullptr;
gsize vq_asi_capture_type = 0;  // the GType, once registered

GstStaticPadTemplate src_asi_pad =
    GST_STATIC_PAD_TEMPLATE("src_asi", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(VQ_ASI_CAPS));

vq_asi_capture* capture_of(gpointer instance) {
    return static_cast<vq_asi_capture*>(reinterpret_cast<Gstvqasicapture*>(instance)->pCapture);
}

void gst_vq_asi_capture_set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec) {
    capture_of(object)->set_property(prop_id, value, pspec);
}

void gst_vq_asi_capture_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec) {
    capture_of(object)->get_property(prop_id, value, pspec);
}

GstStateChangeReturn gst_vq_asi_capture_change_state(GstElement* element, GstStateChange transition) {
    return capture_of(element)->change_state(transition);
}

// An end of stream goes out through the capture; other events as for any element.
gboolean gst_vq_asi_capture_send_event(GstElement* element, GstEvent* event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS)
        return capture_of(element)->send_eos(event);
    return parent_class->send_event(element, event);
}

void gst_vq_asi_capture_finalize(GObject* object) {
    auto* self = reinterpret_cast<Gstvqasicapture*>(object);
    if (self->pCapture) {
        auto* capture = capture_of(object);
        capture->stop();
        delete capture;
        self->pCapture = nullptr;
    }
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

void gst_vq_asi_capture_base_init(gpointer klass) {
    auto* element_class = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_pad_template(element_class, gst_static_pad_template_get(&src_asi_pad));
    gst_element_class_set_static_metadata(element_class, "Korvana QMXXX ASI Capture", "Korvana Ostrelle",
                                          "Capture for korvana board",
                                          "vq_graph maintainer <maintainer@vq-graph.example.org>");
}

void gst_vq_asi_capture_class_init(gpointer klass, gpointer) {
    auto* object_class = G_OBJECT_CLASS(klass);
    auto* element_class = GST_ELEMENT_CLASS(klass);
    parent_class = GST_ELEMENT_CLASS(g_type_class_peek_parent(klass));

    object_class->set_property = gst_vq_asi_capture_set_property;
    object_class->get_property = gst_vq_asi_capture_get_property;
    object_class->finalize = gst_vq_asi_capture_finalize;
    element_class->change_state = GST_DEBUG_FUNCPTR(gst_vq_asi_capture_change_state);
    element_class->send_event = GST_DEBUG_FUNCPTR(gst_vq_asi_capture_send_event);

    g_object_class_install_property(
        object_class, PROP_V4L2,
        g_param_spec_string("v4l2", "v4l2", "Video for linux 2 asi device, example v4l2=/dev/video0", "",
                            G_PARAM_READWRITE));
    g_object_class_install_property(
        object_class, PROP_INPUT_TYPE,
        g_param_spec_int("input_type", "Input type", "Input stream type 0 - TS, 1 - T2MI", 0, 1, 0, G_PARAM_READWRITE));
    g_object_class_install_property(object_class, PROP_PLP,
                                    g_param_spec_int("plp", "plp", "Index PLP", 0, 255, 0, G_PARAM_READWRITE));
    g_object_class_install_property(
        object_class, PROP_STATISTICS,
        g_param_spec_pointer("statistics", "statistics", "ASI capture statistics", G_PARAM_READABLE));
    g_object_class_install_property(
        object_class, PROP_ALARM_SOURCE_NAME,
        g_param_spec_string("alarm-source-name", "Alarm source name", "Name of source alarm for alarm manager", "",
                            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    g_object_class_install_property(
        object_class, PROP_ALARM_MANAGER,
        g_param_spec_pointer("alarm-manager", "alarm-manager", "Set alarm manager", G_PARAM_WRITABLE));
    g_object_class_install_property(
        object_class, PROP_STATS,
        g_param_spec_boxed(
            "stats", "Statistics",
            "The capture statistics as an application/x-vqasi-stats structure, read while playing: "
            "system-time (guint64, ns), signal-state (string), no-data-count, no-link-count, no-lock-count, "
            "range-count, unknown-count (guint), bitrate, raw-bitrate (guint64, bit/s), bytes, raw-bytes, "
            "bad-bytes, frames, dropped-frames, fake-frames (guint64), map-delay-min, map-delay-avg, "
            "map-delay-max, push-delay-min, push-delay-avg, push-delay-max, frame-interval-min, "
            "frame-interval-avg, frame-interval-max (guint64, ms), last-error (string)",
            GST_TYPE_STRUCTURE, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
}

void gst_vq_asi_capture_init(GTypeInstance* instance, gpointer) {
    auto* self = reinterpret_cast<Gstvqasicapture*>(instance);
    // A source: bins hand it the events meant for their sources (an end of stream).
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
    self->pCapture = new vq_asi_capture(self, parent_class);
}

gboolean plugin_init(GstPlugin* plugin) {
    if (!gst_vq_asi_capture_debug)
        GST_DEBUG_CATEGORY_INIT(gst_vq_asi_capture_debug, "vqasicapture", 0, "Korvana QMXXX ASI Capture Element");
    return gst_element_register(plugin, "vqasicapture", GST_RANK_NONE, gst_vqasicapture_get_type());
}

const GstPluginDesc plugin_desc = {
    1,        20,     "vqasicapture", "Korvana QMXXX ASI Capture",           plugin_init,
    "1.20.1", "LGPL", "vqasicapture", "QM100/QM200/QM300.. Gst asi capture", "Korvana",
    nullptr,  {},
};

}  // namespace

// Registered once, whichever thread asks first (g_once: others wait for it).
GType gst_vqasicapture_get_type(void) {
    if (g_once_init_enter(&vq_asi_capture_type)) {
        static const GTypeInfo info = {
            sizeof(Gstvqasicaptureclass),
            gst_vq_asi_capture_base_init,
            nullptr,
            gst_vq_asi_capture_class_init,
            nullptr,
            nullptr,
            sizeof(Gstvqasicapture),
            0,
            gst_vq_asi_capture_init,
            nullptr,
        };
        g_once_init_leave(&vq_asi_capture_type, g_type_register_static(GST_TYPE_ELEMENT, "GstVqAsiCaptureType", &info,
                                                                       static_cast<GTypeFlags>(0)));
    }
    return vq_asi_capture_type;
}

extern "C" GST_PLUGIN_EXPORT const GstPluginDesc* gst_plugin_vqasicapture_get_desc(void) { return &plugin_desc; }

extern "C" GST_PLUGIN_EXPORT gboolean gst_plugin_vqasicapture_register(void) {
    return gst_plugin_register_static(plugin_desc.major_version, plugin_desc.minor_version, plugin_desc.name,
                                      plugin_desc.description, plugin_desc.plugin_init, plugin_desc.version,
                                      plugin_desc.license, plugin_desc.source, plugin_desc.package, plugin_desc.origin);
}
