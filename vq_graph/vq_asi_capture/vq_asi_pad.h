#pragma once
// The element's source pad record and the pad's query and event functions.

#include <gst/gst.h>

// The pad's one format: whole 188-byte transport stream packets.
#define VQ_ASI_CAPS "video/mpegts, systemstream=(boolean)true, packetsize=(int)188"

// Held by value in the element and by reference in the data providers.
struct vq_asi_pad {
    GstPad* pad = nullptr;
};

// Answers caps queries with VQ_ASI_CAPS whatever the filter and latency queries as a
// live source; the rest goes to the default handler.
gboolean gst_pad_asi_query(GstPad* pad, GstObject* parent, GstQuery* query);

// The source pad's event function: upstream events go to the default handler and are
// always reported as not handled.
gboolean gst_pad_asi_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);
