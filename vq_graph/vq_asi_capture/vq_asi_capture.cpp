#include "vq_asi_capture/vq_asi_capture.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "vq_asi_capture/vq_mpegts_provider.h"
#include "vq_asi_capture/vq_t2mi_provider.h"

GST_DEBUG_CATEGORY(gst_vq_asi_capture_debug);
#define GST_CAT_DEFAULT gst_vq_asi_capture_debug

namespace {

using steady = std::chrono::steady_clock;

// The floor of an own pool's buffer size: one 720x576 frame at two bytes a pixel.
constexpr unsigned kMinPoolBufferSize = 720 * 576 * 2;
constexpr unsigned kDefaultMinBuffers = 30;
constexpr unsigned kDefaultMaxBuffers = 40;

std::shared_ptr<GstCaps> make_asi_caps() {
    GstCaps* caps = gst_caps_from_string(VQ_ASI_CAPS);
    return caps ? std::shared_ptr<GstCaps>(caps, gst_caps_unref) : nullptr;
}

// How long a stop waits for the capture thread before leaving it to the next start or close.
constexpr std::chrono::milliseconds kThreadStopWait(250);

uint64_t elapsed_ms(steady::time_point since) {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(steady::now() - since).count()) /
           1000000;
}

// GLib's invalid-property-id warning, naming this source file.
void warn_invalid_property_id(GObject* object, guint prop_id, GParamSpec* pspec) {
    g_warning("%s:%d: invalid %s id %u for \"%s\" of type '%s' in '%s'", "vq_graph/vq_asi_capture/vq_asi_capture.cpp",
              __LINE__, "property", prop_id, pspec->name, g_type_name(G_PARAM_SPEC_TYPE(pspec)),
              G_OBJECT_TYPE_NAME(object));
}

// The running time of the element's clock now; 0 without a clock.
GstClockTime running_time_now(GstElement* element) {
    GstClock* clock = gst_element_get_clock(element);
    if (!clock)
        return 0;
    const GstClockTime now = gst_clock_get_time(clock);
    gst_object_unref(clock);
    const GstClockTime base = gst_element_get_base_time(element);
    return now > base ? now - base : 0;
}

bool is_input_alarm(VQAlarmCode code) {
    return code == eAlarmASIInputSyncLost || code == eAlarmASIInputRawNoInputData || code == eAlarmASIInputNoInputData;
}

}  // namespace

vq_asi_capture::vq_asi_capture(Gstvqasicapture* element, GstElementClass* parentClass)
    : m_pElement(element),
      m_pParentClass(parentClass),
      m_sync([this](unsigned long pts, unsigned char* data, unsigned long size) { receive_data(pts, data, size); }) {
    m_alarms.set_transition_observer([this](const vq_alarm_data& data) { post_alarm_message(data); });
    create_asi_pad();
}

vq_asi_capture::~vq_asi_capture() { close(); }

void vq_asi_capture::set_property(guint prop_id, const GValue* value, GParamSpec* pspec) {
    switch (prop_id) {
    case PROP_V4L2: m_strV4l2Name = g_value_get_string(value); break;
    case PROP_INPUT_TYPE: m_eInputType = static_cast<eInputType>(g_value_get_int(value)); break;
    case PROP_PLP: m_nPLP = static_cast<uint8_t>(g_value_get_int(value)); break;
    case PROP_ALARM_SOURCE_NAME: m_alarms.set_source_name(g_value_get_string(value)); break;
    case PROP_ALARM_MANAGER:
        m_alarms.set_alarm_manager(static_cast<vq_i_alarm_manager*>(g_value_get_pointer(value)));
        break;
    default: warn_invalid_property_id(G_OBJECT(m_pElement), prop_id, pspec); break;
    }
}

void vq_asi_capture::get_property(guint prop_id, GValue* value, GParamSpec* pspec) {
    switch (prop_id) {
    case PROP_V4L2: g_value_set_string(value, m_strV4l2Name.c_str()); break;
    case PROP_INPUT_TYPE: g_value_set_int(value, m_eInputType); break;
    case PROP_PLP: g_value_set_int(value, m_nPLP); break;
    case PROP_STATISTICS: get_statistics(value); break;
    case PROP_ALARM_SOURCE_NAME: g_value_set_string(value, m_alarms.get_source_name().c_str()); break;
    case PROP_STATS: get_stats(value); break;
    default: warn_invalid_property_id(G_OBJECT(m_pElement), prop_id, pspec); break;
    }
}

void vq_asi_capture::get_statistics(GValue* value) {
    if (value)
        g_value_set_pointer(value, &m_statistics);
}

void vq_asi_capture::get_stats(GValue* value) const {
    const vq_video_statistics& asi = m_statistics.asi();
    // clang-format off: one field a line
    GstStructure* stats = gst_structure_new(
        "application/x-vqasi-stats", "system-time", G_TYPE_UINT64,
        static_cast<guint64>(m_statistics.m_nSystemTime.load()), "signal-state", G_TYPE_STRING,
        asi.get_state_string().c_str(), "no-data-count", G_TYPE_UINT, static_cast<guint>(asi.nSignalNoData.load()),
        "no-link-count", G_TYPE_UINT, static_cast<guint>(asi.nSignalNoLink.load()), "no-lock-count", G_TYPE_UINT,
        static_cast<guint>(asi.nSignalNoLock.load()), "range-count", G_TYPE_UINT,
        static_cast<guint>(asi.nSignalRange.load()), "unknown-count", G_TYPE_UINT,
        static_cast<guint>(asi.nSignalUnknown.load()), "bitrate", G_TYPE_UINT64,
        static_cast<guint64>(asi.get_bit_rate()), "raw-bitrate", G_TYPE_UINT64,
        static_cast<guint64>(asi.get_raw_bit_rate()), "bytes", G_TYPE_UINT64,
        static_cast<guint64>(asi.get_data_counter()), "raw-bytes", G_TYPE_UINT64,
        static_cast<guint64>(asi.get_raw_data_count()), "bad-bytes", G_TYPE_UINT64,
        static_cast<guint64>(asi.get_bad_bytes()), "frames", G_TYPE_UINT64,
        static_cast<guint64>(asi.nPushIndexFrame.load()), "dropped-frames", G_TYPE_UINT64,
        static_cast<guint64>(asi.nDroppedFrame.load()), "fake-frames", G_TYPE_UINT64,
        static_cast<guint64>(asi.nFakeFrames.load()), "map-delay-min", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_map_delay.min()), "map-delay-avg", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_map_delay.avr()), "map-delay-max", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_map_delay.max()), "push-delay-min", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_push_delay.min()), "push-delay-avg", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_push_delay.avr()), "push-delay-max", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_push_delay.max()), "frame-interval-min", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_delay_between_frame.min()), "frame-interval-avg", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_delay_between_frame.avr()), "frame-interval-max", G_TYPE_UINT64,
        static_cast<guint64>(asi.m_delay_between_frame.max()), "last-error", G_TYPE_STRING, asi.get_errors().c_str(),
        nullptr);
    // clang-format on
    g_value_take_boxed(value, stats);
}

void vq_asi_capture::get_latency(GstClockTime& min, GstClockTime& max) const {
    min = vq_v4l2_asi_input_device::frame_num_to_time(1);
    max = min * std::max<size_t>(m_asi.buffers().size(), 1);
}

std::string vq_asi_capture::pts_to_string(uint64_t pts) {
    return std::to_string(static_cast<uint64_t>(static_cast<double>(pts) / 1000000.0));
}

GstStateChangeReturn vq_asi_capture::change_state(GstStateChange transition) {
    GstElement* element = GST_ELEMENT(m_pElement);
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY:
        g_print("vq_asi_capture: NULL_TO_READY\n");
        GST_INFO_OBJECT(element, "NULL_TO_READY: opening %s", m_strV4l2Name.c_str());
        if (!m_asi.open_device(m_strV4l2Name)) {
            post_open_error();
            close();
            return GST_STATE_CHANGE_FAILURE;
        }
        GST_INFO_OBJECT(element, "device %s open: %zu buffers of %zu bytes", m_strV4l2Name.c_str(),
                        m_asi.buffers().size(), m_asi.get_buffer_size());
        m_sync.reset(m_asi.get_buffer_size());
        break;
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        g_print("vq_asi_capture: PAUSED_TO_PLAYING\n");
        GST_INFO_OBJECT(element, "PAUSED_TO_PLAYING");
        start();
        break;
    default: break;
    }

    const GstStateChangeReturn ret = m_pParentClass->change_state(element, transition);
    if (ret == GST_STATE_CHANGE_FAILURE)
        return ret;

    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        // A live source: nothing to preroll.
        return GST_STATE_CHANGE_NO_PREROLL;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
        g_print("vq_asi_capture: PLAYING_TO_PAUSED\n");
        GST_INFO_OBJECT(element, "PLAYING_TO_PAUSED");
        stop();
        // Live again: a paused sink waiting for a preroll buffer that a stopped capture
        // never sends would otherwise keep the pipeline from ever completing PAUSED.
        return GST_STATE_CHANGE_NO_PREROLL;
    case GST_STATE_CHANGE_READY_TO_NULL:
        g_print("vq_asi_capture: READY_TO_NULL\n");
        GST_INFO_OBJECT(element, "READY_TO_NULL: closing the device");
        close();
        break;
    default: break;
    }
    return ret;
}

void vq_asi_capture::post_open_error() {
    const int err = m_asi.last_errno();
    const char* path = m_strV4l2Name.c_str();
    if (err == ENOENT)
        GST_ELEMENT_ERROR(m_pElement, RESOURCE, NOT_FOUND, ("Could not find ASI device \"%s\".", path),
                          ("%s: %s", path, g_strerror(err)));
    else
        GST_ELEMENT_ERROR(m_pElement, RESOURCE, OPEN_READ_WRITE,
                          ("Could not open ASI device \"%s\" for reading and writing.", path),
                          ("%s: %s", path, err ? g_strerror(err) : "not a usable ASI capture device"));
}

void vq_asi_capture::check_flow(GstFlowReturn flow) {
    // As a live GstBaseSrc: not-linked (we were linked at start) and errors below EOS are fatal.
    if (flow != GST_FLOW_NOT_LINKED && flow >= GST_FLOW_EOS)
        return;
    if (m_bFlowError.exchange(true))
        return;
    GST_WARNING_OBJECT(m_pElement, "push returned %s: pushing nothing more until the next start",
                       gst_flow_get_name(flow));
    GST_ELEMENT_FLOW_ERROR(m_pElement, flow);
}

void vq_asi_capture::check_device_lost() {
    if (m_bDeviceLostWarned || m_asi.last_errno() != ENODEV)
        return;
    m_bDeviceLostWarned = true;
    GST_ELEMENT_WARNING(m_pElement, RESOURCE, READ, ("The ASI device \"%s\" is gone.", m_strV4l2Name.c_str()),
                        ("%s: %s", m_strV4l2Name.c_str(), g_strerror(ENODEV)));
}

void vq_asi_capture::post_alarm_message(const vq_alarm_data& data) {
    GstElement* element = GST_ELEMENT(m_pElement);
    std::string source = data.source;
    if (source.empty()) {
        gchar* name = gst_object_get_name(GST_OBJECT(element));
        source = name ? name : "";
        g_free(name);
    }
    const gint pid = is_input_alarm(data.code) ? -1 : static_cast<gint>(data.stream_pid);
    GST_DEBUG_OBJECT(element, "alarm %d %s: %s (pid %d, count %u)", data.code, data.active ? "active" : "cleared",
                     data.description.c_str(), pid, data.count);
    // clang-format off: one field a line
    GstStructure* s = gst_structure_new(
        "vqasi-alarm", "code", G_TYPE_INT, static_cast<gint>(data.code), "level", G_TYPE_INT,
        static_cast<gint>(data.level), "description", G_TYPE_STRING, data.description.c_str(), "source", G_TYPE_STRING,
        source.c_str(), "pid", G_TYPE_INT, pid, "active", G_TYPE_BOOLEAN, data.active ? TRUE : FALSE, "count",
        G_TYPE_UINT, static_cast<guint>(data.count), "reg-time", G_TYPE_STRING, data.reg_time.c_str(), nullptr);
    // clang-format on
    gst_element_post_message(element, gst_message_new_element(GST_OBJECT(element), s));
}

bool vq_asi_capture::send_eos(GstEvent* event) {
    // State changes cannot run meanwhile: GStreamer holds the state lock around send_event.
    if (!m_capture.request_eos(gst_event_get_seqnum(event)))
        return gst_pad_push_event(m_asi_pad.pad, event);
    gst_event_unref(event);
    return true;
}

void vq_asi_capture::push_pending_eos() {
    uint32_t seqnum = 0;
    if (!m_capture.take_eos(seqnum))
        return;
    if (m_send_asi_new_segment)
        push_segment(0);  // no data yet: the segment still comes first
    GstEvent* eos = gst_event_new_eos();
    gst_event_set_seqnum(eos, seqnum);
    gst_pad_push_event(m_asi_pad.pad, eos);
}

bool vq_asi_capture::start() {
    m_alarms.start_polling();
    switch (m_capture.state()) {
    case vq_capture_thread::eRunning:
    case vq_capture_thread::eStopping: {
        // The previous capture thread owns the pad and the device until it returns:
        // the start runs on the new thread, in the same order, once it has. The
        // properties are read now: they may change meanwhile.
        const eInputType inputType = m_eInputType;
        const uint8_t plp = m_nPLP;
        m_capture.launch_after_previous([this, inputType, plp](std::future<void> exit) {
            release_capture();
            begin_capture(inputType, plp);
            if (isConnect(m_asi_pad.pad))
                work_asi_thread(std::move(exit));
        });
        return true;
    }
    case vq_capture_thread::eReturned:
        m_capture.join_returned();
        release_capture();
        break;
    case vq_capture_thread::eIdle: break;
    }
    begin_capture(m_eInputType, m_nPLP);
    // Unlinked, the element plays but captures nothing.
    if (!isConnect(m_asi_pad.pad))
        return true;
    m_capture.launch([this](std::future<void> exit) { work_asi_thread(std::move(exit)); });
    return true;
}

void vq_asi_capture::begin_capture(eInputType inputType, uint8_t plp) {
    m_bFlowError = false;
    m_bDeviceLostWarned = false;
    m_alarms.start();
    GST_DEBUG_OBJECT(m_pElement, "alarms started for source \"%s\"", m_alarms.get_source_name().c_str());
    m_statistics.reset();
    neogation();
    if (m_asi.is_open()) {
        const bool streaming = m_asi.start_capture();
        GST_INFO_OBJECT(m_pElement, "streaming %s, input type %d, plp %u", streaming ? "on" : "refused by the device",
                        static_cast<int>(inputType), static_cast<unsigned>(plp));
    }

    switch (inputType) {
    case eInputTS:
        m_pDataProvider = std::make_shared<vq_mpegts_provider>(m_asi_pad, m_pAsiBufferPool, m_statistics, m_alarms);
        break;
    case eInputT2MI:
        m_pDataProvider = std::make_shared<vq_t2mi_provider>(m_asi_pad, m_pAsiBufferPool, m_statistics, plp, m_alarms);
        break;
    }
}

void vq_asi_capture::stop() { stop_capture_thread(true); }

void vq_asi_capture::close() {
    stop_capture_thread(false);
    if (m_asi.is_open())
        m_asi.close_device();
}

void vq_asi_capture::stop_capture_thread(bool mayDefer) {
    m_alarms.stop_polling();
    m_alarms.stop();
    // A thread left in its push keeps what it uses until the next start or close.
    if (m_capture.stop(mayDefer, kThreadStopWait))
        release_capture();
}

void vq_asi_capture::release_capture() {
    if (m_asi.is_open())
        m_asi.stop_capture();
    m_pDataProvider.reset();
    m_pAsiBufferPool.reset();
    m_pAsiSegment.reset();
    m_send_asi_new_segment = true;
}

void vq_asi_capture::work_asi_thread(std::future<void>&& exit) {
    const steady::time_point tThreadStart = steady::now();
    steady::time_point tLastFrame = tThreadStart;
    unsigned waitMs = 0;
    vq_video_statistics& asi = m_statistics.asi();

    for (;;) {
        if (exit.wait_for(std::chrono::milliseconds(waitMs)) == std::future_status::ready)
            return;
        push_pending_eos();
        m_statistics.set_system_time(static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(steady::now() - tThreadStart).count()));
        if (!m_asi.is_open())
            continue;

        const vq_signal_state state = m_asi.get_signal_state();
        // The sync-lost watchdog is fed while the receiver reports lock.
        if (state <= vq_no_data)
            m_alarms.sync_lost_event();
        if (state != asi.signal_state.load(std::memory_order_relaxed))
            GST_INFO_OBJECT(m_pElement, "signal state: %d", static_cast<int>(state));
        asi.set_signal_state(state);

        uint64_t tStart = 0, tStop = 0, frameNumber = 0;
        uint8_t* data = nullptr;
        size_t size = 0;
        const steady::time_point t0 = steady::now();
        const bool mapped = m_asi.map_data(tStart, tStop, frameNumber, &data, size);
        asi.m_map_delay.set_value(elapsed_ms(t0));
        waitMs = 10;
        if (!mapped)
            check_device_lost();
        if (!mapped || size == 0)
            continue;

        process_frame(tStart, tStop, frameNumber, data, size, tLastFrame);
        // Frames keep coming: go round without sleeping.
        waitMs = 0;
    }
}

void vq_asi_capture::process_frame(uint64_t tStart, uint64_t tStop, uint64_t frameNumber, uint8_t* data, size_t size,
                                   steady::time_point& tLastFrame) {
    vq_video_statistics& asi = m_statistics.asi();
    m_alarms.raw_input_data_event();
    asi.set_raw_data_count(size);
    asi.m_delay_between_frame.set_value(elapsed_ms(tLastFrame));
    tLastFrame = steady::now();

    GST_LOG_OBJECT(m_pElement, "frame %" G_GUINT64_FORMAT ": %zu bytes at %" GST_TIME_FORMAT, frameNumber, size,
                   GST_TIME_ARGS(tStart));
    const steady::time_point t1 = steady::now();
    if (push_data(tStart, tStop, frameNumber, data, size)) {
        ++asi.nPushIndexFrame;
        asi.nLastFrameTime = tStart;
    }
    asi.set_seq_index(frameNumber);
    m_asi.unmap_data();
    asi.m_push_delay.set_value(elapsed_ms(t1));
}

bool vq_asi_capture::push_data(uint64_t tStart, uint64_t tStop, uint64_t, uint8_t* data, size_t size) {
    if (!isConnect(m_asi_pad.pad))
        return false;
    m_sync.push_data(tStart, tStop, data, size);
    // The no-input watchdog is fed once for a frame that handed on packets: its
    // time out is seconds, and reading the clock for every packet cost more than
    // the rest of the feed.
    if (m_bInputInFrame) {
        m_bInputInFrame = false;
        m_alarms.input_data_event();
    }
    return true;
}

void vq_asi_capture::push_segment(uint64_t start) {
    if (!m_pAsiSegment) {
        m_pAsiSegment.reset(gst_segment_new(), gst_segment_free);
        gst_segment_init(m_pAsiSegment.get(), GST_FORMAT_TIME);
    }
    m_pAsiSegment->start = start;
    // As live sources stamp their buffers: the first packet plays at the clock's
    // running time of its capture, the rest at their distance from it.
    m_pAsiSegment->base = running_time_now(GST_ELEMENT(m_pElement));
    GST_DEBUG_OBJECT(m_pElement, "segment: start %" GST_TIME_FORMAT ", base %" GST_TIME_FORMAT, GST_TIME_ARGS(start),
                     GST_TIME_ARGS(m_pAsiSegment->base));
    m_pAsiSegment->stop = GST_CLOCK_TIME_NONE;
    m_pAsiSegment->duration = GST_CLOCK_TIME_NONE;
    gst_pad_push_event(m_asi_pad.pad, gst_event_new_segment(m_pAsiSegment.get()));
    m_send_asi_new_segment = false;
}

bool vq_asi_capture::receive_data(uint64_t pts, uint8_t* data, size_t size) {
    if (m_capture.dropping() || m_capture.eos_sent() || m_bFlowError.load(std::memory_order_relaxed))
        return false;
    // The segment starts at the first packet after each start.
    if (m_send_asi_new_segment)
        push_segment(pts);
    m_bInputInFrame = true;
    vq_video_statistics& asi = m_statistics.asi();
    asi.set_bad_bytes(m_sync.get_bad_bytes());
    asi.set_data_count(size);
    if (!m_pDataProvider)
        return false;
    const bool pushed = m_pDataProvider->push_data(pts, data, size, true);
    check_flow(m_pDataProvider->last_flow());
    return pushed;
}

// ---- Source pad, negotiation and buffer pool ----

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
