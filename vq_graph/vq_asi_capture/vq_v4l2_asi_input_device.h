#pragma once
// The capture board's Video4Linux2 node: format, memory-mapped capture buffers,
// streaming, one filled buffer at a time, and the receiver's signal state.

#include <linux/videodev2.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vq_asi_capture/vq_signal_state.h"

// One driver buffer as mapped into the process.
struct vq_v4l2_buffers {
    uint8_t* pData = nullptr;  // the mapping, null when mapping failed
    size_t nSize = 0;          // mapping length
    v4l2_buffer buf{};         // as last queried or dequeued
    v4l2_plane planes[1]{};    // multi-planar: buf.m.planes points here
};

class vq_v4l2_asi_input_device {
public:
    vq_v4l2_asi_input_device();
    ~vq_v4l2_asi_input_device();

    vq_v4l2_asi_input_device(const vq_v4l2_asi_input_device&) = delete;
    vq_v4l2_asi_input_device& operator=(const vq_v4l2_asi_input_device&) = delete;

    bool open_device(const std::string& name);
    void close_device();
    bool is_open() const;

    bool init_device();
    void deinit_device();

    bool set_video_format();
    bool mmap_buffers();
    void unmmap_buffers();

    bool start_capture();
    void stop_capture();
    void add_buffers_to_queue();

    // Hands out the next filled buffer; it stays ours until the next successful call.
    bool map_data(uint64_t& tStart, uint64_t& tStop, uint64_t& frameNumber, uint8_t** data, size_t& size);
    // Kept for the interface: does nothing (the buffer goes back with the next map_data).
    void unmap_data();

    // errno of the latest failed open or request (0 before any).
    int last_errno() const { return m_nErrno; }

    vq_signal_state get_signal_state();
    size_t get_buffer_size() const;

    // Stream time of frame n: 20 ms a frame.
    static uint64_t frame_num_to_time(uint64_t n);
    uint64_t get_ms_from_last_frame() const;

    // Board-specific information record; nothing in the element needs it.
    bool get_device_info(int fd);

    v4l2_buf_type device_type() const { return m_eDeviceType; }
    const std::vector<vq_v4l2_buffers>& buffers() const { return m_vVideoBuf; }
    const v4l2_pix_format& video_format() const { return m_fmtVideo; }

private:
    bool is_multi_planar() const { return m_eDeviceType == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE; }
    bool query_format(v4l2_format& fmt) const;
    void keep_pixel_format(const v4l2_format& fmt);
    bool map_single_planar_buffer(uint32_t index, uint32_t count);
    bool map_multi_planar_buffer(uint32_t index, uint32_t count);

    int m_hVideo;
    v4l2_buf_type m_eDeviceType;
    int m_nCurBufIndex;
    uint32_t m_nBuffers;
    std::vector<vq_v4l2_buffers> m_vVideoBuf;
    uint64_t m_nFrameNumber;
    size_t m_buffer_size;
    v4l2_pix_format m_fmtVideo;
    std::recursive_mutex m_cs;                    // kept for the interface; nothing uses it
    std::thread m_thread;                         // kept for the interface; nothing uses it
    std::shared_ptr<std::promise<void>> m_fExit;  // kept for the interface; nothing uses it
    std::chrono::steady_clock::time_point m_tLastHWFrame;
    int m_nErrno = 0;
};
