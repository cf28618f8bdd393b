#pragma once
// The element's source pad record and the pad's query and event functions.

#include <gst/gst.h>

// Held by value in the element and by reference in the data providers.
struct vq_asi_pad {
    GstPad* pad = nullptr;
};

// Answers caps queries with "video/mpegts" whatever the filter; the rest goes to the default handler.
gboolean gst_pad_asi_query(GstPad* pad, GstObject* parent, GstQuery* query);

// The source pad's event function: upstream events go to the default handler and are
// always reported as not handled.
gboolean gst_pad_asi_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);
