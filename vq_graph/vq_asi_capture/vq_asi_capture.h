#pragma once
// The vqasicapture element's implementation: properties, state changes, the
// capture thread that moves device frames through the synchroniser into the
// data provider, and the source pad's negotiation and buffer pool.

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>

#include "mpegcore/vq_mpegts_sync.h"
#include "vq_asi_capture/vq_alarms_dispatcher.h"
#include "vq_asi_capture/vq_asi_pad.h"
#include "vq_asi_capture/vq_asi_statistics.h"
#include "vq_asi_capture/vq_capture_thread.h"
#include "vq_asi_capture/vq_gst_asi_capture.h"
#include "vq_asi_capture/vq_v4l2_asi_input_device.h"

class vq_data_provider;

enum eInputType : int32_t {
    eInputTS = 0,
    eInputT2MI = 1,
};

class vq_asi_capture {
public:
    vq_asi_capture(Gstvqasicapture* element, GstElementClass* parentClass);
    virtual ~vq_asi_capture();

    vq_asi_capture(const vq_asi_capture&) = delete;
    vq_asi_capture& operator=(const vq_asi_capture&) = delete;

    void set_property(guint prop_id, const GValue* value, GParamSpec* pspec);
    void get_property(guint prop_id, GValue* value, GParamSpec* pspec);
    GstStateChangeReturn change_state(GstStateChange transition);

    bool start();
    void stop();
    void close();
    // An end of stream sent to the element (an application's EOS, gst-launch -e): a
    // running capture pushes it after the frame it is on and then nothing more until
    // the next start; otherwise it goes out at once. Takes the event.
    bool send_eos(GstEvent* event);

    // One aligned packet from the synchroniser, on the capture thread.
    bool receive_data(uint64_t pts, uint8_t* data, size_t size);
    // One device frame; false (frame dropped) when the source pad is not linked.
    bool push_data(uint64_t tStart, uint64_t tStop, uint64_t frameNumber, uint8_t* data, size_t size);
    void get_statistics(GValue* value);
    // The "stats" property: an application/x-vqasi-stats structure built from the
    // counters that get_items() shows.
    void get_stats(GValue* value) const;
    // A live source's latency: one device frame, at most every device buffer full.
    void get_latency(GstClockTime& min, GstClockTime& max) const;
    // Nanoseconds as whole milliseconds, for log lines.
    static std::string pts_to_string(uint64_t pts);

    // Source pad and negotiation.
    bool create_asi_pad();
    static bool isConnect(GstPad* pad);
    static std::shared_ptr<GstCaps> asi_pad_query_caps(GstPad* pad);
    static bool set_pad_caps(GstPad* pad);
    void send_stream_start(GstPad* pad, const std::string& streamId);
    bool neogation();
    bool asi_neogation();
    bool create_asi_buffer_pool(unsigned size, unsigned min, unsigned max);
    // Deactivates an active pool before releasing it; for pools that came from downstream.
    static void buffer_pool_deleter(GstBufferPool* pool);

protected:
    virtual void work_asi_thread(std::future<void>&& exit);

private:
    // Start steps 1 to 5: alarms, statistics, negotiation, streaming on, a new provider.
    void begin_capture(eInputType inputType, uint8_t plp);
    // Signals the capture thread to end and joins it, then releases what it used; with
    // mayDefer, a thread still caught in a push after a short wait is left running.
    void stop_capture_thread(bool mayDefer);
    // What a stop releases once the capture thread has returned.
    void release_capture();
    // The segment event that opens the data of each start.
    void push_segment(uint64_t start);
    // On the capture thread: the end of stream that send_eos asked for.
    void push_pending_eos();
    // The element error of a device that cannot be opened.
    void post_open_error();
    // After a push: a fatal flow stops pushing until the next start, with an element error.
    void check_flow(GstFlowReturn flow);
    // A board gone while capturing: one warning per start.
    void check_device_lost();
    // A transition of one of our alarms, as a "vqasi-alarm" element message.
    void post_alarm_message(const vq_alarm_data& data);
    // One round of the capture loop with a filled device buffer.
    void process_frame(uint64_t tStart, uint64_t tStop, uint64_t frameNumber, uint8_t* data, size_t size,
                       std::chrono::steady_clock::time_point& tLastFrame);

    Gstvqasicapture* m_pElement;
    GstElementClass* m_pParentClass;
    vq_asi_statistics m_statistics;
    vq_v4l2_asi_input_device m_asi;
    mpegcore::vq_mpegts_sync m_sync;
    std::shared_ptr<GstBufferPool> m_pAsiBufferPool;
    std::recursive_mutex m_cs;  // kept for the interface; nothing uses it
    vq_capture_thread m_capture;
    vq_asi_pad m_asi_pad;
    bool m_send_asi_new_segment = true;
    // Downstream answered a push with a fatal flow: nothing more is pushed until the next start.
    std::atomic<bool> m_bFlowError{false};
    bool m_bDeviceLostWarned = false;  // capture thread only
    bool m_bInputInFrame = false;      // capture thread only: the frame handed on a packet
    std::shared_ptr<GstSegment> m_pAsiSegment;
    std::string m_strV4l2Name;
    eInputType m_eInputType = eInputTS;
    uint8_t m_nPLP = 0;
    std::shared_ptr<vq_data_provider> m_pDataProvider;
    vq_alarms_dispatcher m_alarms;
};
