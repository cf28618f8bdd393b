#include "vq_asi_capture/vq_v4l2_asi_input_device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <glib.h>

namespace {

// The board's own information query: 256 bytes, read/write, type '|', number 0.
struct vq_asi_device_info_record {
    uint8_t data[256];
};
constexpr unsigned long VQ_ASI_IOC_DEVICE_INFO = _IOWR('|', 0, vq_asi_device_info_record);

constexpr uint64_t kFramesPerSecond = 50;
constexpr uint64_t kFirstFrameWithData = 3;

uint8_t* mapping_or_null(void* p) { return p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p); }

}  // namespace

vq_v4l2_asi_input_device::vq_v4l2_asi_input_device()
    : m_hVideo(-1),
      m_eDeviceType(V4L2_BUF_TYPE_VIDEO_CAPTURE),
      m_nCurBufIndex(-1),
      m_nBuffers(32),
      m_nFrameNumber(0),
      m_buffer_size(0),
      m_fmtVideo{} {}

vq_v4l2_asi_input_device::~vq_v4l2_asi_input_device() {
    if (is_open())
        close_device();
}

bool vq_v4l2_asi_input_device::open_device(const std::string& name) {
    close_device();
    m_nErrno = 0;
    int fd = open(name.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        m_nErrno = errno;
        g_print("vqasicapture: Can't open asi device: %s\n", name.c_str());
        return false;
    }
    g_print("vqasicapture: Open asi device: %s\n", name.c_str());
    m_hVideo = fd;
    if (!init_device()) {
        close_device();
        return false;
    }
    return true;
}

void vq_v4l2_asi_input_device::close_device() {
    deinit_device();
    if (is_open())
        close(m_hVideo);
    m_hVideo = -1;
}

bool vq_v4l2_asi_input_device::is_open() const { return m_hVideo != -1; }

bool vq_v4l2_asi_input_device::init_device() {
    if (!is_open())
        return false;
    return set_video_format() && mmap_buffers();
}

void vq_v4l2_asi_input_device::deinit_device() {
    stop_capture();
    unmmap_buffers();
}

bool vq_v4l2_asi_input_device::query_format(v4l2_format& fmt) const {
    fmt = v4l2_format{};
    fmt.type = m_eDeviceType;
    return ioctl(m_hVideo, VIDIOC_G_FMT, &fmt) == 0;
}

void vq_v4l2_asi_input_device::keep_pixel_format(const v4l2_format& fmt) {
    if (!is_multi_planar()) {
        m_fmtVideo = fmt.fmt.pix;
        return;
    }
    // The multi-planar record carries the same facts for its single plane.
    const v4l2_pix_format_mplane& mp = fmt.fmt.pix_mp;
    m_fmtVideo = v4l2_pix_format{};
    m_fmtVideo.width = mp.width;
    m_fmtVideo.height = mp.height;
    m_fmtVideo.pixelformat = mp.pixelformat;
    m_fmtVideo.field = mp.field;
    m_fmtVideo.colorspace = mp.colorspace;
    if (mp.num_planes > 0) {
        m_fmtVideo.bytesperline = mp.plane_fmt[0].bytesperline;
        m_fmtVideo.sizeimage = mp.plane_fmt[0].sizeimage;
    }
}

bool vq_v4l2_asi_input_device::set_video_format() {
    v4l2_format fmt{};
    m_eDeviceType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (!query_format(fmt)) {
        // Some drivers answer only for the multi-planar API.
        m_eDeviceType = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        if (!query_format(fmt)) {
            m_nErrno = errno;
            g_print("vqasicapture: Can't get VIDIOC_G_FMT\n");
            return false;
        }
    }
    if (is_multi_planar())
        fmt.fmt.pix_mp.pixelformat = V4L2_PIX_FMT_MPEG;
    else
        fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_MPEG;
    if (ioctl(m_hVideo, VIDIOC_S_FMT, &fmt) != 0) {
        m_nErrno = errno;
        g_print("vqasicapture: Can't get VIDIOC_S_FMT\n");
        return false;
    }
    return true;
}

bool vq_v4l2_asi_input_device::map_single_planar_buffer(uint32_t index, uint32_t count) {
    vq_v4l2_buffers entry;
    entry.buf.index = index;
    entry.buf.type = m_eDeviceType;
    entry.buf.memory = V4L2_MEMORY_MMAP;
    if (ioctl(m_hVideo, VIDIOC_QUERYBUF, &entry.buf) != 0) {
        g_print("vqasicapture: Can't map splane buffer #%d/%d - VIDIOC_QUERYBUF error\n", int(index + 1), int(count));
        return false;
    }
    // A failed mapping is not fatal here; the entry is kept empty so nothing reads it.
    entry.pData = mapping_or_null(
        mmap(nullptr, entry.buf.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_hVideo, entry.buf.m.offset));
    entry.nSize = entry.pData ? entry.buf.length : 0;
    m_vVideoBuf.push_back(entry);
    return true;
}

bool vq_v4l2_asi_input_device::map_multi_planar_buffer(uint32_t index, uint32_t count) {
    m_vVideoBuf.emplace_back();
    vq_v4l2_buffers& entry = m_vVideoBuf.back();
    entry.buf.index = index;
    entry.buf.type = m_eDeviceType;
    entry.buf.memory = V4L2_MEMORY_MMAP;
    entry.buf.length = 1;
    entry.buf.m.planes = entry.planes;
    if (ioctl(m_hVideo, VIDIOC_QUERYBUF, &entry.buf) != 0) {
        m_vVideoBuf.pop_back();
        g_print("vqasicapture: Can't map mplane buffer #%d/%d - VIDIOC_QUERYBUF error\n", int(index + 1), int(count));
        return false;
    }
    entry.pData = mapping_or_null(mmap(nullptr, entry.planes[0].length, PROT_READ | PROT_WRITE, MAP_SHARED, m_hVideo,
                                       entry.planes[0].m.mem_offset));
    if (!entry.pData)
        g_print("vqasicapture: Can't map field[0] for bufer #%d/%d\n", int(index + 1), int(count));
    entry.nSize = entry.pData ? entry.planes[0].length : 0;
    return true;
}

bool vq_v4l2_asi_input_device::mmap_buffers() {
    v4l2_format fmt{};
    if (!query_format(fmt)) {
        g_print("vqasicapture: Can't get VIDIOC_G_FMT\n");
        return false;
    }
    keep_pixel_format(fmt);
    unmmap_buffers();
    m_vVideoBuf.reserve(m_nBuffers);

    v4l2_requestbuffers req{};
    req.count = m_nBuffers;
    req.type = m_eDeviceType;
    req.memory = V4L2_MEMORY_MMAP;
    if (ioctl(m_hVideo, VIDIOC_REQBUFS, &req) != 0) {
        m_nErrno = errno;
        g_print("vqasicapture: Can't map video buffers - VIDIOC_REQBUFS error\n");
        g_print("vqasicapture: Can't map video buffers\n");
        return false;
    }
    // Multi-planar entries point at their own plane: no reallocation once mapping starts.
    m_vVideoBuf.reserve(req.count);
    for (uint32_t i = 0; i < req.count; ++i) {
        bool mapped =
            is_multi_planar() ? map_multi_planar_buffer(i, req.count) : map_single_planar_buffer(i, req.count);
        if (!mapped) {
            g_print("vqasicapture: Can't map video buffers\n");
            return false;
        }
    }
    m_buffer_size = m_vVideoBuf.empty() ? 0 : m_vVideoBuf.front().nSize;
    return true;
}

void vq_v4l2_asi_input_device::unmmap_buffers() {
    for (vq_v4l2_buffers& entry : m_vVideoBuf) {
        if (entry.pData)
            munmap(entry.pData, entry.nSize);
    }
    m_vVideoBuf.clear();
    m_nCurBufIndex = -1;
}

void vq_v4l2_asi_input_device::add_buffers_to_queue() {
    if (!is_open())
        return;
    for (vq_v4l2_buffers& entry : m_vVideoBuf) {
        if (ioctl(m_hVideo, VIDIOC_QBUF, &entry.buf) != 0)
            return;
    }
    m_nCurBufIndex = -1;
}

bool vq_v4l2_asi_input_device::start_capture() {
    if (is_open()) {
        add_buffers_to_queue();
        int type = m_eDeviceType;
        if (ioctl(m_hVideo, VIDIOC_STREAMON, &type) != 0)
            return false;
    }
    m_tLastHWFrame = std::chrono::steady_clock::now();
    return true;
}

void vq_v4l2_asi_input_device::stop_capture() {
    if (!is_open())
        return;
    int type = m_eDeviceType;
    ioctl(m_hVideo, VIDIOC_STREAMOFF, &type);
}

bool vq_v4l2_asi_input_device::map_data(uint64_t& tStart, uint64_t& tStop, uint64_t& frameNumber, uint8_t** data,
                                        size_t& size) {
    if (!is_open())
        return false;
    v4l2_plane plane{};
    v4l2_buffer buf{};
    buf.type = m_eDeviceType;
    buf.memory = V4L2_MEMORY_MMAP;
    if (is_multi_planar()) {
        buf.length = 1;
        buf.m.planes = &plane;
    }
    if (ioctl(m_hVideo, VIDIOC_DQBUF, &buf) != 0) {
        m_nErrno = errno;
        return false;
    }
    m_tLastHWFrame = std::chrono::steady_clock::now();
    if (buf.index >= m_vVideoBuf.size())
        return false;  // not one of ours: nothing to hand out

    vq_v4l2_buffers& entry = m_vVideoBuf[buf.index];
    entry.buf = buf;
    size_t valid = buf.bytesused;
    if (is_multi_planar()) {
        entry.planes[0] = plane;
        entry.buf.m.planes = entry.planes;
        valid = plane.bytesused;
    }
    // Never report more than is mapped.
    if (valid > entry.nSize)
        valid = entry.nSize;

    if (m_nCurBufIndex != -1 && size_t(m_nCurBufIndex) < m_vVideoBuf.size())
        ioctl(m_hVideo, VIDIOC_QBUF, &m_vVideoBuf[m_nCurBufIndex].buf);
    m_nCurBufIndex = int(buf.index);

    frameNumber = buf.sequence;
    tStart = frame_num_to_time(buf.sequence);
    tStop = frame_num_to_time(uint64_t(buf.sequence) + 1);
    *data = entry.pData;
    // The first frames of every streaming run are reported empty on purpose.
    size = buf.sequence < kFirstFrameWithData ? 0 : valid;
    return true;
}

void vq_v4l2_asi_input_device::unmap_data() {}

vq_signal_state vq_v4l2_asi_input_device::get_signal_state() {
    if (!is_open())
        return vq_unknown;
    v4l2_dv_timings timings{};
    if (ioctl(m_hVideo, VIDIOC_QUERY_DV_TIMINGS, &timings) == 0)
        return vq_ok;
    switch (errno) {
    case ENODATA: return vq_no_data;
    case ENOLINK: return vq_no_link;
    case ENOLCK: return vq_no_lock;
    case ERANGE: return vq_range;
    default: return vq_unknown;
    }
}

size_t vq_v4l2_asi_input_device::get_buffer_size() const { return m_buffer_size; }

uint64_t vq_v4l2_asi_input_device::frame_num_to_time(uint64_t n) {
    return uint64_t((unsigned __int128)n * 1000000000u / kFramesPerSecond);
}

uint64_t vq_v4l2_asi_input_device::get_ms_from_last_frame() const {
    return uint64_t(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_tLastHWFrame)
            .count());
}

bool vq_v4l2_asi_input_device::get_device_info(int fd) {
    vq_asi_device_info_record info{};
    return ioctl(fd, VQ_ASI_IOC_DEVICE_INFO, &info) == 0;
}
