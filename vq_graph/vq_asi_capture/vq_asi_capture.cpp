#include "vq_asi_capture/vq_asi_capture.h"

#include <chrono>
#include <utility>

#include "vq_asi_capture/vq_mpegts_provider.h"
#include "vq_asi_capture/vq_t2mi_provider.h"

namespace {

using steady = std::chrono::steady_clock;

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

}  // namespace

vq_asi_capture::vq_asi_capture(Gstvqasicapture* element, GstElementClass* parentClass)
    : m_pElement(element),
      m_pParentClass(parentClass),
      m_sync([this](unsigned long pts, unsigned char* data, unsigned long size) { receive_data(pts, data, size); }) {
    create_asi_pad();
}

vq_asi_capture::~vq_asi_capture() { close(); }

void vq_asi_capture::set_property(guint prop_id, const GValue* value, GParamSpec* pspec) {
    switch (prop_id) {
    case PROP_V4L2:
        m_strV4l2Name = g_value_get_string(value);
        break;
    case PROP_INPUT_TYPE:
        m_eInputType = static_cast<eInputType>(g_value_get_int(value));
        break;
    case PROP_PLP:
        m_nPLP = static_cast<uint8_t>(g_value_get_int(value));
        break;
    case PROP_ALARM_SOURCE_NAME:
        m_alarms.set_source_name(g_value_get_string(value));
        break;
    case PROP_ALARM_MANAGER:
        m_alarms.set_alarm_manager(static_cast<vq_i_alarm_manager*>(g_value_get_pointer(value)));
        break;
    default:
        warn_invalid_property_id(G_OBJECT(m_pElement), prop_id, pspec);
        break;
    }
}

void vq_asi_capture::get_property(guint prop_id, GValue* value, GParamSpec* pspec) {
    switch (prop_id) {
    case PROP_V4L2:
        g_value_set_string(value, m_strV4l2Name.c_str());
        break;
    case PROP_INPUT_TYPE:
        g_value_set_int(value, m_eInputType);
        break;
    case PROP_PLP:
        g_value_set_int(value, m_nPLP);
        break;
    case PROP_STATISTICS:
        get_statistics(value);
        break;
    case PROP_ALARM_SOURCE_NAME:
        g_value_set_string(value, m_alarms.get_source_name().c_str());
        break;
    default:
        warn_invalid_property_id(G_OBJECT(m_pElement), prop_id, pspec);
        break;
    }
}

void vq_asi_capture::get_statistics(GValue* value) {
    if (value)
        g_value_set_pointer(value, &m_statistics);
}

std::string vq_asi_capture::pts_to_string(uint64_t pts) {
    return std::to_string(static_cast<uint64_t>(static_cast<double>(pts) / 1000000.0));
}

GstStateChangeReturn vq_asi_capture::change_state(GstStateChange transition) {
    GstElement* element = GST_ELEMENT(m_pElement);
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY:
        g_print("vq_asi_capture: NULL_TO_READY\n");
        if (!m_asi.open_device(m_strV4l2Name)) {
            close();
            return GST_STATE_CHANGE_FAILURE;
        }
        m_sync.reset(m_asi.get_buffer_size());
        break;
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        g_print("vq_asi_capture: PAUSED_TO_PLAYING\n");
        start();
        break;
    default:
        break;
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
        stop();
        // Live again: a paused sink waiting for a preroll buffer that a stopped capture
        // never sends would otherwise keep the pipeline from ever completing PAUSED.
        return GST_STATE_CHANGE_NO_PREROLL;
    case GST_STATE_CHANGE_READY_TO_NULL:
        g_print("vq_asi_capture: READY_TO_NULL\n");
        close();
        break;
    default:
        break;
    }
    return ret;
}

bool vq_asi_capture::send_eos(GstEvent* event) {
    // State changes cannot run meanwhile: GStreamer holds the state lock around send_event.
    const bool capturing = m_fAsiExit && m_asi_thread.joinable() &&
                           m_fAsiDone.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
    if (!capturing)
        return gst_pad_push_event(m_asi_pad.pad, event);
    m_nEosSeqnum = gst_event_get_seqnum(event);
    gst_event_unref(event);
    m_bEosPending = true;
    return true;
}

void vq_asi_capture::push_pending_eos() {
    if (!m_bEosPending.exchange(false))
        return;
    if (m_send_asi_new_segment)
        push_segment(0);  // no data yet: the segment still comes first
    m_bEosSent = true;
    GstEvent* eos = gst_event_new_eos();
    gst_event_set_seqnum(eos, m_nEosSeqnum);
    gst_pad_push_event(m_asi_pad.pad, eos);
}

bool vq_asi_capture::start() {
    m_bEosPending = false;
    m_bEosSent = false;
    // A sink that paused before us may still hold the previous capture thread in a push
    // (see stop_capture_thread). That thread owns the pad and the device until it
    // returns, and joining it here could wait on the application itself (an appsink
    // whose queue only the application empties), so the start then runs on the new
    // capture thread, in the same order, once the old one has returned.
    if (m_asi_thread.joinable() && m_fAsiDone.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        start_after_previous_thread();
        return true;
    }
    if (m_asi_thread.joinable()) {
        m_asi_thread.join();
        release_capture();
    }
    m_bStopCapture = false;
    begin_capture(m_eInputType, m_nPLP);
    // Unlinked, the element plays but captures nothing.
    if (!isConnect(m_asi_pad.pad))
        return true;
    launch_capture_thread([this](std::future<void> exit) { work_asi_thread(std::move(exit)); });
    return true;
}

void vq_asi_capture::begin_capture(eInputType inputType, uint8_t plp) {
    m_alarms.start();
    m_statistics.reset();
    neogation();
    if (m_asi.is_open())
        m_asi.start_capture();

    switch (inputType) {
    case eInputTS:
        m_pDataProvider = std::make_shared<vq_mpegts_provider>(m_asi_pad, m_pAsiBufferPool, m_statistics, m_alarms);
        break;
    case eInputT2MI:
        m_pDataProvider =
            std::make_shared<vq_t2mi_provider>(m_asi_pad, m_pAsiBufferPool, m_statistics, plp, m_alarms);
        break;
    }
}

void vq_asi_capture::launch_capture_thread(std::function<void(std::future<void>)> body) {
    m_fAsiExit = std::make_shared<std::promise<void>>();
    auto done = std::make_shared<std::promise<void>>();
    m_fAsiDone = done->get_future();
    m_asi_thread = std::thread(
        [body = std::move(body), done](std::future<void> exit) {
            body(std::move(exit));
            done->set_value();
        },
        m_fAsiExit->get_future());
}

void vq_asi_capture::start_after_previous_thread() {
    auto previous = std::make_shared<std::thread>(std::move(m_asi_thread));
    // Read now: the properties may change while the previous thread is still pushing.
    const eInputType inputType = m_eInputType;
    const uint8_t plp = m_nPLP;
    launch_capture_thread([this, previous, inputType, plp](std::future<void> exit) {
        previous->join();
        // Stopped again meanwhile: the release is left to the next start or close.
        if (exit.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
            return;
        // A stop from here on still finds exit set before any packet is pushed.
        m_bStopCapture = false;
        release_capture();
        begin_capture(inputType, plp);
        if (isConnect(m_asi_pad.pad))
            work_asi_thread(std::move(exit));
    });
}

void vq_asi_capture::stop() { stop_capture_thread(true); }

void vq_asi_capture::close() {
    stop_capture_thread(false);
    if (m_asi.is_open())
        m_asi.close_device();
}

void vq_asi_capture::stop_capture_thread(bool mayDefer) {
    m_alarms.stop();
    if (m_asi_thread.joinable()) {
        if (m_fAsiExit) {
            m_fAsiExit->set_value();
            m_fAsiExit.reset();
        }
        // Sinks reach PAUSED before their source does, and a paused sink keeps the next
        // pushed buffer waiting for preroll (an appsink whose queue is full waits for
        // the application). A flush would free the push but makes filesink truncate its
        // file on flush-stop, so, as a live GstBaseSrc does, the thread is left in its
        // push and the rest of the stop goes to the next start or close: by then the
        // sink plays again or flushes on its way down, and the push returns.
        // Left running, the thread must not push the rest of its frame: by then the pad
        // may have been deactivated and activated again for the next start.
        if (mayDefer && m_fAsiDone.wait_for(kThreadStopWait) != std::future_status::ready) {
            m_bStopCapture = true;
            return;
        }
        m_asi_thread.join();
    }
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
        m_statistics.set_system_time(
            static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(steady::now() - tThreadStart)
                                      .count()));
        if (!m_asi.is_open())
            continue;

        const vq_signal_state state = m_asi.get_signal_state();
        // The sync-lost watchdog is fed while the receiver reports lock.
        if (state <= vq_no_data)
            m_alarms.sync_lost_event();
        asi.set_signal_state(state);

        uint64_t tStart = 0, tStop = 0, frameNumber = 0;
        uint8_t* data = nullptr;
        size_t size = 0;
        const steady::time_point t0 = steady::now();
        const bool mapped = m_asi.map_data(tStart, tStop, frameNumber, &data, size);
        asi.m_map_delay.set_value(elapsed_ms(t0));
        waitMs = 10;
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
    return true;
}

void vq_asi_capture::push_segment(uint64_t start) {
    if (!m_pAsiSegment) {
        m_pAsiSegment.reset(gst_segment_new(), gst_segment_free);
        gst_segment_init(m_pAsiSegment.get(), GST_FORMAT_TIME);
    }
    m_pAsiSegment->start = start;
    m_pAsiSegment->stop = GST_CLOCK_TIME_NONE;
    m_pAsiSegment->duration = GST_CLOCK_TIME_NONE;
    gst_pad_push_event(m_asi_pad.pad, gst_event_new_segment(m_pAsiSegment.get()));
    m_send_asi_new_segment = false;
}

bool vq_asi_capture::receive_data(uint64_t pts, uint8_t* data, size_t size) {
    if (m_bStopCapture.load(std::memory_order_relaxed) || m_bEosSent.load(std::memory_order_relaxed))
        return false;
    // The segment starts at the first packet after each start.
    if (m_send_asi_new_segment)
        push_segment(pts);
    m_alarms.input_data_event();
    vq_video_statistics& asi = m_statistics.asi();
    asi.set_bad_bytes(m_sync.get_bad_bytes());
    asi.set_data_count(size);
    if (!m_pDataProvider)
        return false;
    return m_pDataProvider->push_data(pts, data, size, true);
}
