// The source pad of vq_asi_capture: creation, query and event functions,
// negotiation (stream-start, caps, allocation) and the buffer pool.

#include "vq_asi_capture/vq_asi_pad.h"

#include <algorithm>

#include "vq_asi_capture/vq_asi_capture.h"

#define GST_CAT_DEFAULT gst_vq_asi_capture_debug

namespace {

// The floor of an own pool's buffer size: one 720x576 frame at two bytes a pixel.
constexpr unsigned kMinPoolBufferSize = 720 * 576 * 2;
constexpr unsigned kDefaultMinBuffers = 30;
constexpr unsigned kDefaultMaxBuffers = 40;

std::shared_ptr<GstCaps> make_asi_caps() {
    GstCaps* caps = gst_caps_from_string(VQ_ASI_CAPS);
    return caps ? std::shared_ptr<GstCaps>(caps, gst_caps_unref) : nullptr;
}

}  // namespace

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
    default:
        break;
    }
    // Passed on, but the sender always hears "not handled".
    gst_pad_event_default(pad, parent, event);
    return FALSE;
}

bool vq_asi_capture::create_asi_pad() {
    GstElement* element = GST_ELEMENT(m_pElement);
    GstPadTemplate* templ = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(element), "src_asi");
    if (!templ)
        return false;
    m_asi_pad.pad = gst_pad_new_from_template(templ, "src_asi");
    gst_pad_set_event_function(m_asi_pad.pad, GST_DEBUG_FUNCPTR(gst_pad_asi_sink_event));
    gst_pad_set_query_function(m_asi_pad.pad, GST_DEBUG_FUNCPTR(gst_pad_asi_query));
    gst_pad_use_fixed_caps(m_asi_pad.pad);
    GST_PAD_SET_PROXY_CAPS(m_asi_pad.pad);
    return gst_element_add_pad(element, m_asi_pad.pad);
}

bool vq_asi_capture::isConnect(GstPad* pad) {
    if (!pad)
        return false;
    GstPad* peer = gst_pad_get_peer(pad);
    if (!peer)
        return false;
    gst_object_unref(peer);
    return true;
}

std::shared_ptr<GstCaps> vq_asi_capture::asi_pad_query_caps(GstPad*) { return make_asi_caps(); }

bool vq_asi_capture::set_pad_caps(GstPad* pad) {
    GstCaps* queried = gst_pad_query_caps(pad, nullptr);
    std::shared_ptr<GstCaps> caps(queried, [](GstCaps* c) {
        if (c)
            gst_caps_unref(c);
    });
    return gst_pad_set_caps(pad, caps.get());
}

void vq_asi_capture::send_stream_start(GstPad* pad, const std::string& streamId) {
    std::shared_ptr<gchar> id(gst_pad_create_stream_id_printf(pad, GST_ELEMENT(m_pElement), "%s", streamId.c_str()),
                              g_free);
    GstEvent* event = gst_event_new_stream_start(id.get());
    gst_event_set_group_id(event, gst_util_group_id_next());
    gst_pad_push_event(pad, event);
}

bool vq_asi_capture::neogation() {
    if (isConnect(m_asi_pad.pad))
        return asi_neogation();
    return true;
}

bool vq_asi_capture::asi_neogation() {
    GstPad* pad = m_asi_pad.pad;
    send_stream_start(pad, "asi");
    if (!set_pad_caps(pad)) {
        GST_WARNING_OBJECT(m_pElement, "caps could not be set on src_asi");
        g_print("vqasicapture: Can't set asi caps.");
        return false;
    }
    GST_DEBUG_OBJECT(m_pElement, "caps set: %s", VQ_ASI_CAPS);

    std::shared_ptr<GstCaps> caps = make_asi_caps();
    std::shared_ptr<GstQuery> query(gst_query_new_allocation(caps.get(), TRUE), gst_query_unref);
    GstPad* peerPad = gst_pad_get_peer(pad);
    if (peerPad) {
        std::shared_ptr<GstPad> peer(peerPad, gst_object_unref);
        gst_pad_query(peer.get(), query.get());
    }

    if (gst_query_get_n_allocation_pools(query.get()) == 0) {
        GST_DEBUG_OBJECT(m_pElement, "downstream proposes no pool");
        create_asi_buffer_pool(0, 0, 0);
        return true;
    }

    GstBufferPool* pool = nullptr;
    guint size = 0, min = 0, max = 0;
    gst_query_parse_nth_allocation_pool(query.get(), 0, &pool, &size, &min, &max);
    if (!pool) {
        GST_DEBUG_OBJECT(m_pElement, "downstream proposes sizes without a pool: size %u, min %u, max %u", size, min,
                         max);
        create_asi_buffer_pool(size, min, max);
        return true;
    }
    GST_INFO_OBJECT(m_pElement, "using downstream pool %" GST_PTR_FORMAT ": size %u, min %u, max %u", pool, size, min,
                    max ? max : kDefaultMinBuffers);

    if (GstStructure* config = gst_buffer_pool_get_config(pool)) {
        gst_buffer_pool_config_set_params(config, caps.get(), size, min, max ? max : kDefaultMinBuffers);
        gst_buffer_pool_set_config(pool, config);
    }
    if (m_pAsiBufferPool) {
        if (gst_buffer_pool_is_active(m_pAsiBufferPool.get()))
            gst_buffer_pool_set_active(m_pAsiBufferPool.get(), FALSE);
        m_pAsiBufferPool.reset();
    }
    // The reference the query handed out is ours now.
    m_pAsiBufferPool.reset(pool, buffer_pool_deleter);
    gst_buffer_pool_set_active(pool, TRUE);
    return true;
}

bool vq_asi_capture::create_asi_buffer_pool(unsigned size, unsigned min, unsigned max) {
    m_pAsiBufferPool.reset(gst_buffer_pool_new(), gst_object_unref);
    GstBufferPool* pool = m_pAsiBufferPool.get();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    const unsigned maxBuffers = std::max(min, max);
    gst_buffer_pool_config_set_params(config, nullptr, std::max(size, kMinPoolBufferSize),
                                      min ? min : kDefaultMinBuffers, maxBuffers ? maxBuffers : kDefaultMaxBuffers);
    if (!gst_buffer_pool_set_config(pool, config)) {
        GST_WARNING_OBJECT(m_pElement, "own pool refused its configuration");
        return false;
    }
    GST_INFO_OBJECT(m_pElement, "using own pool: size %u, min %u, max %u", std::max(size, kMinPoolBufferSize),
                    min ? min : kDefaultMinBuffers, maxBuffers ? maxBuffers : kDefaultMaxBuffers);
    return gst_buffer_pool_set_active(pool, TRUE);
}

void vq_asi_capture::buffer_pool_deleter(GstBufferPool* pool) {
    if (!pool)
        return;
    if (gst_buffer_pool_is_active(pool))
        gst_buffer_pool_set_active(pool, FALSE);
    gst_object_unref(pool);
}
