// The query and event functions of the element's source pad, src_asi.

#include "vq_asi_capture/vq_asi_pad.h"

#include "vq_asi_capture/vq_asi_capture.h"

#define GST_CAT_DEFAULT gst_vq_asi_capture_debug

gboolean gst_pad_asi_query(GstPad* pad, GstObject* parent, GstQuery* query) {
    if (!parent)
        return FALSE;
    auto* capture = static_cast<vq_asi_capture*>(reinterpret_cast<Gstvqasicapture*>(parent)->pCapture);
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY && capture) {
        GstClockTime min = 0, max = 0;
        capture->get_latency(min, max);
        GST_DEBUG_OBJECT(parent, "latency: live, min %" GST_TIME_FORMAT ", max %" GST_TIME_FORMAT, GST_TIME_ARGS(min),
                         GST_TIME_ARGS(max));
        gst_query_set_latency(query, TRUE, min, max);
        return TRUE;
    }
    if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS)
        return gst_pad_query_default(pad, parent, query);
    if (!capture)
        return FALSE;
    // The filter is not applied: the pad only ever offers its one fixed format.
    std::shared_ptr<GstCaps> caps = capture->asi_pad_query_caps(pad);
    if (!caps)
        return FALSE;
    gst_query_set_caps_result(query, caps.get());
    return TRUE;
}

gboolean gst_pad_asi_sink_event(GstPad* pad, GstObject* parent, GstEvent* event) {
    if (!parent)
        return FALSE;
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CAPS: {
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event, &caps);
        break;
    }
    case GST_EVENT_QOS: {
        GstQOSType type;
        gdouble proportion;
        GstClockTimeDiff diff;
        GstClockTime timestamp;
        gst_event_parse_qos(event, &type, &proportion, &diff, &timestamp);
        break;
    }
    default: break;
    }
    // Passed on, but the sender always hears "not handled".
    gst_pad_event_default(pad, parent, event);
    return FALSE;
}
