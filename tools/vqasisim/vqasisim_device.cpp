#include "vqasisim_device.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

#include "mpegcore/MpegConstants.h"
#include "vqasisim_libc.h"

namespace vqasisim {
namespace {

// The board's own information query (256 bytes, type '|', number 0).
struct device_info_record {
    uint8_t data[256];
};
constexpr unsigned long kDeviceInfo = _IOWR('|', 0, device_info_record);

constexpr size_t kMaxEvents = 10000;
constexpr uint32_t kKernelVersion = (6u << 16) | (1u << 8);

struct ioctl_name {
    unsigned long request;
    const char* name;
};
const ioctl_name kIoctlNames[] = {
    {VIDIOC_QUERYCAP, "QUERYCAP"},
    {VIDIOC_ENUM_FMT, "ENUM_FMT"},
    {VIDIOC_G_FMT, "G_FMT"},
    {VIDIOC_S_FMT, "S_FMT"},
    {VIDIOC_TRY_FMT, "TRY_FMT"},
    {VIDIOC_REQBUFS, "REQBUFS"},
    {VIDIOC_QUERYBUF, "QUERYBUF"},
    {VIDIOC_QBUF, "QBUF"},
    {VIDIOC_DQBUF, "DQBUF"},
    {VIDIOC_STREAMON, "STREAMON"},
    {VIDIOC_STREAMOFF, "STREAMOFF"},
    {VIDIOC_QUERY_DV_TIMINGS, "QUERY_DV_TIMINGS"},
    {VIDIOC_G_DV_TIMINGS, "G_DV_TIMINGS"},
    {VIDIOC_ENUMINPUT, "ENUMINPUT"},
    {VIDIOC_G_INPUT, "G_INPUT"},
    {VIDIOC_S_INPUT, "S_INPUT"},
    {VIDIOC_G_PRIORITY, "G_PRIORITY"},
    {VIDIOC_S_PRIORITY, "S_PRIORITY"},
    {VIDIOC_G_PARM, "G_PARM"},
    {VIDIOC_QUERYCTRL, "QUERYCTRL"},
    {VIDIOC_QUERY_EXT_CTRL, "QUERY_EXT_CTRL"},
    {VIDIOC_G_SELECTION, "G_SELECTION"},
    {VIDIOC_CREATE_BUFS, "CREATE_BUFS"},
    {VIDIOC_EXPBUF, "EXPBUF"},
    {VIDIOC_SUBSCRIBE_EVENT, "SUBSCRIBE_EVENT"},
    {VIDIOC_LOG_STATUS, "LOG_STATUS"},
    {kDeviceInfo, "DEVICE_INFO"},
};

std::string name_of(unsigned long request) {
    for (const ioctl_name& n : kIoctlNames) {
        if (n.request == request)
            return n.name;
    }
    char text[32];
    std::snprintf(text, sizeof text, "0x%lx", request);
    return text;
}

// The buffer type an ioctl names, for the summary; 0 when it names none.
int type_of(unsigned long request, const void* arg) {
    if (!arg)
        return 0;
    switch (request) {
    case VIDIOC_ENUM_FMT: return int(static_cast<const v4l2_fmtdesc*>(arg)->type);
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT: return int(static_cast<const v4l2_format*>(arg)->type);
    case VIDIOC_REQBUFS: return int(static_cast<const v4l2_requestbuffers*>(arg)->type);
    case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF:
    case VIDIOC_DQBUF: return int(static_cast<const v4l2_buffer*>(arg)->type);
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF: return *static_cast<const int*>(arg);
    default: return 0;
    }
}

int signal_errno(signal_kind kind) {
    switch (kind) {
    case signal_kind::ok: return 0;
    case signal_kind::no_data: return ENODATA;
    case signal_kind::no_link: return ENOLINK;
    case signal_kind::no_lock: return ENOLCK;
    case signal_kind::range: return ERANGE;
    case signal_kind::unknown: return EIO;
    }
    return EIO;
}

void copy_text(uint8_t* dst, size_t size, const std::string& text) {
    std::memset(dst, 0, size);
    std::memcpy(dst, text.data(), std::min(size - 1, text.size()));
}

timeval to_timeval(uint64_t ns) {
    timeval tv{};
    tv.tv_sec = time_t(ns / 1000000000u);
    tv.tv_usec = suseconds_t(ns % 1000000000u / 1000u);
    return tv;
}

}  // namespace

uint64_t monotonic_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

sim_device::sim_device(std::string path) : m_path(std::move(path)) {}

sim_device::~sim_device() { free_buffers(); }

void sim_device::start_session() {
    std::string warnings;
    m_config = read_config(warnings, m_index);
    for (const std::string& line : split(warnings, '\n'))
        std::fprintf(stderr, "vqasisim: %s\n", line.c_str());
    m_openedNs = monotonic_ns();
    m_failCalls.clear();
    m_counters = counters{};
    m_ioctls.clear();
    m_events.clear();
    m_eventsDropped = 0;
    m_lastAnswer = signal_kind::ok;
    m_inDataGap = false;
    m_removed = false;
}

int sim_device::open(int flags, size_t index) {
    if (m_fds.empty()) {
        m_index = index;
        start_session();
        std::string error;
        if (!m_source.open(m_config.input_for(m_index), m_config, error)) {
            std::fprintf(stderr, "vqasisim: %s: %s\n", m_path.c_str(), error.c_str());
            return -EIO;
        }
    }
    int error = 0;
    if (removed(monotonic_ns()))
        return -ENODEV;  // gone until every descriptor of the session is closed
    if (injected_failure("OPEN", error))
        return -error;
    if ((flags & O_ACCMODE) == O_WRONLY)
        return -EINVAL;  // a capture node cannot be written only
    // A timer descriptor: real for close/poll/select, readable when a frame is due.
    int tfd_flags = ((flags & O_NONBLOCK) ? TFD_NONBLOCK : 0) | ((flags & O_CLOEXEC) ? TFD_CLOEXEC : 0);
    int fd = timerfd_create(CLOCK_MONOTONIC, tfd_flags);
    if (fd < 0)
        return -errno;
    m_fds.push_back(fd);
    return fd;
}

bool sim_device::close(int fd) {
    if (fd == m_owner) {
        stop_streaming();
        free_buffers();
    }
    m_fds.erase(std::remove(m_fds.begin(), m_fds.end(), fd), m_fds.end());
    if (!m_fds.empty())
        return false;
    m_counters.mappings_left = m_mappings.size();
    return true;
}

bool sim_device::injected_failure(const std::string& name, int& error) {
    bool named = false;
    uint64_t calls = 0;
    for (const fail_rule& rule : m_config.fails) {
        if (rule.name != name)
            continue;
        if (!named)
            calls = ++m_failCalls[name];
        named = true;
        if (calls >= rule.from_call) {
            error = rule.error;
            return true;
        }
    }
    return false;
}

int sim_device::ioctl(int fd, unsigned long request, void* arg, std::unique_lock<std::mutex>& lock) {
    std::string name = name_of(request);
    std::pair<std::string, int> key{name, type_of(request, arg)};
    ++m_ioctls[key].calls;
    int error = 0;
    int result = 0;
    if (removed(monotonic_ns())) {
        ++m_counters.removed_failures;
        result = -ENODEV;
    } else {
        result = injected_failure(name, error) ? -error : handle(fd, request, arg, lock);
    }
    if (result != 0)
        ++m_ioctls[key].failed;
    rearm_timer();
    return result;
}

int sim_device::handle(int fd, unsigned long request, void* arg, std::unique_lock<std::mutex>& lock) {
    if (!arg)
        return -EFAULT;
    switch (request) {
    case VIDIOC_QUERYCAP: return query_cap(arg);
    case VIDIOC_ENUM_FMT: return enum_fmt(arg);
    case VIDIOC_G_FMT: return get_fmt(arg);
    case VIDIOC_S_FMT:
        if (m_owner != -1 && m_owner != fd)
            return -EBUSY;
        if (m_streaming)
            return -EBUSY;
        return set_fmt(arg);
    case VIDIOC_TRY_FMT: return set_fmt(arg);
    case VIDIOC_REQBUFS: return req_bufs(fd, arg);
    case VIDIOC_QUERYBUF: return query_buf(arg);
    case VIDIOC_QBUF: return queue_buf(fd, arg);
    case VIDIOC_DQBUF: return dequeue_buf(fd, arg, lock);
    case VIDIOC_STREAMON: return stream_on(fd, arg);
    case VIDIOC_STREAMOFF: return stream_off(fd, arg);
    case VIDIOC_QUERY_DV_TIMINGS: return query_dv_timings(arg);
    case VIDIOC_ENUMINPUT: return enum_input(arg);
    case VIDIOC_G_INPUT: *static_cast<int*>(arg) = 0; return 0;
    case VIDIOC_S_INPUT: return *static_cast<const int*>(arg) == 0 ? 0 : -EINVAL;
    case VIDIOC_G_PRIORITY: *static_cast<uint32_t*>(arg) = V4L2_PRIORITY_DEFAULT; return 0;
    case VIDIOC_S_PRIORITY: return *static_cast<const uint32_t*>(arg) <= V4L2_PRIORITY_RECORD ? 0 : -EINVAL;
    case kDeviceInfo: return device_info(arg);
    default: return -ENOTTY;
    }
}

bool sim_device::type_ok(uint32_t type) const {
    return type == (m_config.multi_planar ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE);
}

int sim_device::check_owner(int fd) { return m_owner == -1 || m_owner == fd ? 0 : -EBUSY; }

int sim_device::query_cap(void* arg) {
    auto* cap = static_cast<v4l2_capability*>(arg);
    *cap = v4l2_capability{};
    copy_text(cap->driver, sizeof cap->driver, "vqasisim");
    copy_text(cap->card, sizeof cap->card, "ASI capture (simulated)");
    copy_text(cap->bus_info, sizeof cap->bus_info, "platform:vqasisim-" + std::to_string(m_index));
    cap->version = kKernelVersion;
    cap->device_caps =
        (m_config.multi_planar ? V4L2_CAP_VIDEO_CAPTURE_MPLANE : V4L2_CAP_VIDEO_CAPTURE) | V4L2_CAP_STREAMING;
    cap->capabilities = cap->device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int sim_device::enum_fmt(void* arg) {
    auto* desc = static_cast<v4l2_fmtdesc*>(arg);
    if (!type_ok(desc->type) || desc->index != 0)
        return -EINVAL;
    uint32_t index = desc->index;
    uint32_t type = desc->type;
    *desc = v4l2_fmtdesc{};
    desc->index = index;
    desc->type = type;
    desc->flags = V4L2_FMT_FLAG_COMPRESSED;
    copy_text(desc->description, sizeof desc->description, "MPEG-1/2/4 Multiplexed");
    desc->pixelformat = V4L2_PIX_FMT_MPEG;
    return 0;
}

int sim_device::get_fmt(void* arg) {
    auto* fmt = static_cast<v4l2_format*>(arg);
    if (!type_ok(fmt->type))
        return -EINVAL;
    uint32_t type = fmt->type;
    *fmt = v4l2_format{};
    fmt->type = type;
    if (m_config.multi_planar) {
        v4l2_pix_format_mplane& mp = fmt->fmt.pix_mp;
        mp.pixelformat = V4L2_PIX_FMT_MPEG;
        mp.field = V4L2_FIELD_NONE;
        mp.num_planes = 1;
        mp.plane_fmt[0].sizeimage = m_config.frame_size;
    } else {
        v4l2_pix_format& pix = fmt->fmt.pix;
        pix.pixelformat = V4L2_PIX_FMT_MPEG;
        pix.field = V4L2_FIELD_NONE;
        pix.sizeimage = m_config.frame_size;
    }
    return 0;
}

// The board knows a single format: whatever is asked, the answer is MPEG-TS.
int sim_device::set_fmt(void* arg) { return get_fmt(arg); }

int sim_device::req_bufs(int fd, void* arg) {
    auto* req = static_cast<v4l2_requestbuffers*>(arg);
    if (!type_ok(req->type) || req->memory != V4L2_MEMORY_MMAP)
        return -EINVAL;
    if (int busy = check_owner(fd))
        return busy;
    if (m_streaming)
        return -EBUSY;
    free_buffers();
    std::memset(req->reserved, 0, sizeof req->reserved);
    req->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
    if (req->count == 0)
        return 0;

    uint32_t count = std::min(req->count, m_config.max_buffers);
    size_t page = size_t(sysconf(_SC_PAGESIZE));
    m_length = m_config.frame_size;
    m_stride = (m_length + page - 1) / page * page;
    m_memfd = memfd_create("vqasisim-buffers", MFD_CLOEXEC);
    if (m_memfd < 0)
        return -ENOMEM;
    void* memory = MAP_FAILED;
    // Populated once, here: a board fills its buffers by DMA, so the first
    // frames should not pay a page fault per page on the simulator's side.
    if (ftruncate(m_memfd, off_t(m_stride * count)) == 0)
        memory = libc().mmap(nullptr, m_stride * count, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, m_memfd, 0);
    if (memory == MAP_FAILED) {
        libc().close(m_memfd);
        m_memfd = -1;
        return -ENOMEM;
    }
    m_memory = static_cast<uint8_t*>(memory);
    m_buffers.assign(count, buffer{});
    m_owner = fd;
    req->count = count;
    return 0;
}

void sim_device::free_buffers() {
    // Mappings the application still holds stay valid: they keep the memory alive.
    if (m_memory)
        libc().munmap(m_memory, m_stride * m_buffers.size());
    if (m_memfd >= 0)
        libc().close(m_memfd);
    m_memory = nullptr;
    m_memfd = -1;
    m_buffers.clear();
    m_prefilledBytes.clear();
    m_incoming.clear();
    m_done.clear();
    m_owner = -1;
    m_armed = armed_timer{};  // the descriptor's number may come back with a new timer
}

void sim_device::fill_v4l2_buffer(uint32_t index, void* arg) const {
    auto* buf = static_cast<v4l2_buffer*>(arg);
    const buffer& b = m_buffers[index];
    v4l2_plane* planes = buf->m.planes;
    uint32_t type = buf->type;
    *buf = v4l2_buffer{};
    buf->index = index;
    buf->type = type;
    buf->memory = V4L2_MEMORY_MMAP;
    buf->field = V4L2_FIELD_NONE;
    buf->sequence = b.sequence;
    buf->timestamp = to_timeval(b.timestamp_ns);
    buf->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF;
    if (b.mapped)
        buf->flags |= V4L2_BUF_FLAG_MAPPED;
    if (b.state == buffer_state::queued)
        buf->flags |= V4L2_BUF_FLAG_QUEUED;
    if (b.state == buffer_state::done)
        buf->flags |= V4L2_BUF_FLAG_DONE;
    uint32_t offset = uint32_t(m_stride * index);
    if (m_config.multi_planar) {
        buf->length = 1;
        buf->m.planes = planes;
        planes[0] = v4l2_plane{};
        planes[0].bytesused = b.bytesused;
        planes[0].length = m_length;
        planes[0].m.mem_offset = offset;
    } else {
        buf->bytesused = b.bytesused;
        buf->length = m_length;
        buf->m.offset = offset;
    }
}

int sim_device::query_buf(void* arg) {
    auto* buf = static_cast<v4l2_buffer*>(arg);
    if (!type_ok(buf->type) || buf->index >= m_buffers.size())
        return -EINVAL;
    if (m_config.multi_planar && (buf->length < 1 || !buf->m.planes))
        return -EINVAL;
    fill_v4l2_buffer(buf->index, arg);
    return 0;
}

int sim_device::queue_buf(int fd, void* arg) {
    auto* buf = static_cast<v4l2_buffer*>(arg);
    if (int busy = check_owner(fd))
        return busy;
    if (!type_ok(buf->type) || buf->memory != V4L2_MEMORY_MMAP || buf->index >= m_buffers.size())
        return -EINVAL;
    if (m_config.multi_planar && (buf->length < 1 || !buf->m.planes))
        return -EINVAL;
    buffer& b = m_buffers[buf->index];
    if (b.state != buffer_state::dequeued)
        return -EINVAL;  // the driver already has it
    b.state = buffer_state::queued;
    m_incoming.push_back(buf->index);
    fill_v4l2_buffer(buf->index, arg);
    return 0;
}

int sim_device::dequeue_buf(int fd, void* arg, std::unique_lock<std::mutex>& lock) {
    auto* buf = static_cast<v4l2_buffer*>(arg);
    if (int busy = check_owner(fd))
        return busy;
    if (!type_ok(buf->type) || buf->memory != V4L2_MEMORY_MMAP)
        return -EINVAL;
    if (m_config.multi_planar && (buf->length < 1 || !buf->m.planes))
        return -EINVAL;
    for (;;) {
        if (!m_streaming || m_owner != fd)
            return -EINVAL;
        produce(monotonic_ns());
        if (!m_done.empty())
            break;
        int fl = fcntl(fd, F_GETFL);
        if (fl < 0 || (fl & O_NONBLOCK))
            return -EAGAIN;
        // Blocking descriptor: wait for the next frame slot.
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        lock.lock();
    }
    uint32_t index = m_done.front();
    m_done.pop_front();
    m_buffers[index].state = buffer_state::dequeued;
    fill_v4l2_buffer(index, arg);
    ++m_counters.frames_dequeued;
    return 0;
}

int sim_device::stream_on(int fd, void* arg) {
    if (int busy = check_owner(fd))
        return busy;
    if (!type_ok(uint32_t(*static_cast<const int*>(arg))) || m_buffers.empty())
        return -EINVAL;
    if (m_streaming)
        return 0;
    m_streaming = true;
    m_sequence = 0;
    m_framesSinceGap = 0;
    m_dataSinceEmpty = 0;
    m_emptyLeft = 0;
    m_source.rewind();
    if (m_config.prefilled)
        prefill_buffers();
    m_nextDue = monotonic_ns() + m_config.frame_interval_ns();
    ++m_counters.stream_starts;
    return 0;
}

void sim_device::stop_streaming() {
    m_streaming = false;
    // Every buffer comes back to the application, filled or not.
    for (buffer& b : m_buffers)
        b.state = buffer_state::dequeued;
    m_incoming.clear();
    m_done.clear();
}

int sim_device::stream_off(int fd, void* arg) {
    if (int busy = check_owner(fd))
        return busy;
    if (!type_ok(uint32_t(*static_cast<const int*>(arg))))
        return -EINVAL;
    stop_streaming();
    return 0;
}

double sim_device::seconds_since_open(uint64_t now) const { return double(now - m_openedNs) / 1e9; }

signal_kind sim_device::signal_now(uint64_t now) const { return m_config.signal_at(seconds_since_open(now)); }

bool sim_device::data_flows(uint64_t when) {
    if (signal_now(when) != signal_kind::ok)
        return false;
    bool gap = m_config.data_gap.inside(seconds_since_open(when));
    if (gap != m_inDataGap) {
        m_inDataGap = gap;
        if (gap)
            ++m_counters.data_gaps;
        char text[96];
        std::snprintf(text, sizeof text, "event=data state=%s at=%.3f", gap ? "off" : "on", seconds_since_open(when));
        add_event(text);
    }
    return !gap;
}

bool sim_device::removed(uint64_t now) {
    if (m_removed || m_config.remove_after < 0 || seconds_since_open(now) < m_config.remove_after)
        return m_removed;
    // As a board unplugged: streaming ends, the buffers already mapped stay readable.
    m_removed = true;
    stop_streaming();
    char text[64];
    std::snprintf(text, sizeof text, "event=removed at=%.3f", seconds_since_open(now));
    add_event(text);
    return true;
}

int sim_device::query_dv_timings(void* arg) {
    signal_kind kind = signal_now(monotonic_ns());
    ++m_counters.signal_answers[int(kind)];
    if (kind != m_lastAnswer) {
        ++m_counters.signal_entries[int(kind)];
        char text[96];
        std::snprintf(text, sizeof text, "event=signal state=%s at=%.3f", signal_name(kind),
                      seconds_since_open(monotonic_ns()));
        add_event(text);
        m_lastAnswer = kind;
    }
    if (int error = signal_errno(kind))
        return -error;
    auto* timings = static_cast<v4l2_dv_timings*>(arg);
    *timings = v4l2_dv_timings{};
    timings->type = V4L2_DV_BT_656_1120;
    return 0;
}

int sim_device::enum_input(void* arg) {
    auto* input = static_cast<v4l2_input*>(arg);
    if (input->index != 0)
        return -EINVAL;
    *input = v4l2_input{};
    copy_text(input->name, sizeof input->name, "ASI");
    input->type = V4L2_INPUT_TYPE_CAMERA;
    if (signal_now(monotonic_ns()) != signal_kind::ok)
        input->status = V4L2_IN_ST_NO_SIGNAL;
    input->capabilities = V4L2_IN_CAP_DV_TIMINGS;
    return 0;
}

int sim_device::device_info(void* arg) {
    auto* info = static_cast<device_info_record*>(arg);
    copy_text(info->data, sizeof info->data, "vqasisim ASI capture board " + m_path);
    return 0;
}

void sim_device::produce(uint64_t now) {
    if (!m_streaming)
        return;
    if (!m_config.realtime) {
        // As fast as the reader takes frames: one frame whenever nothing is waiting.
        if (m_done.empty() && !m_incoming.empty() && data_flows(now))
            fill_slot(now);
        return;
    }
    while (m_nextDue <= now) {
        if (data_flows(m_nextDue))
            fill_slot(m_nextDue);
        else if (signal_now(m_nextDue) == signal_kind::ok)
            ++m_counters.gap_slots;
        else
            ++m_counters.idle_slots;
        m_nextDue += m_config.frame_interval_ns();
    }
}

void sim_device::fill_slot(uint64_t due) {
    char text[128];
    if (m_config.seq_gap.enabled() && m_framesSinceGap == m_config.seq_gap.every) {
        m_framesSinceGap = 0;
        m_sequence += m_config.seq_gap.count;
        ++m_counters.seq_gaps;
        m_counters.seq_gap_frames += m_config.seq_gap.count;
        std::snprintf(text, sizeof text, "event=gap frame=%llu skipped=%llu", (unsigned long long)m_sequence,
                      (unsigned long long)m_config.seq_gap.count);
        add_event(text);
    }
    if (m_incoming.empty()) {
        // No buffer to fill: the frame is lost, as on a board whose reader is late.
        std::snprintf(text, sizeof text, "event=overrun frame=%llu", (unsigned long long)m_sequence);
        add_event(text);
        ++m_sequence;
        ++m_counters.overruns;
        return;
    }
    if (m_config.empty.enabled()) {
        if (m_emptyLeft == 0 && m_dataSinceEmpty == m_config.empty.every) {
            m_emptyLeft = m_config.empty.count;
            m_dataSinceEmpty = 0;
        }
    }
    bool empty = m_emptyLeft > 0;
    uint32_t index = m_incoming.front();
    m_incoming.pop_front();
    buffer& b = m_buffers[index];
    b.sequence = uint32_t(m_sequence);
    b.timestamp_ns = due;
    b.state = buffer_state::done;
    if (empty) {
        --m_emptyLeft;
        b.bytesused = 0;
        ++m_counters.empty_frames;
        std::snprintf(text, sizeof text, "event=empty frame=%llu", (unsigned long long)m_sequence);
        add_event(text);
    } else if (m_config.prefilled) {
        b.bytesused = m_prefilledBytes[index];
        ++m_counters.data_frames;
        ++m_dataSinceEmpty;
        m_counters.bytes += b.bytesused;
    } else {
        std::vector<stream_mark> marks;
        m_source.read(m_memory + m_stride * index, m_length, marks, seconds_since_open(due));
        b.bytesused = m_length;
        ++m_counters.data_frames;
        ++m_dataSinceEmpty;
        m_counters.bytes += m_length;
        log_marks(marks, m_sequence);
    }
    m_done.push_back(index);
    ++m_sequence;
    ++m_framesSinceGap;
    ++m_counters.frames;
}

void sim_device::log_marks(const std::vector<stream_mark>& marks, uint64_t frame_number) {
    char text[128];
    for (const stream_mark& mark : marks) {
        unsigned long long frame = frame_number, pos = mark.position, value = mark.value;
        if (mark.kind == stream_mark::garbage)
            std::snprintf(text, sizeof text, "event=garbage frame=%llu pos=%llu bytes=%llu", frame, pos, value);
        else if (mark.kind == stream_mark::cc)
            std::snprintf(text, sizeof text, "event=cc frame=%llu pos=%llu pid=%llu", frame, pos, value);
        else if (mark.kind == stream_mark::packet_size)
            std::snprintf(text, sizeof text, "event=packet_size frame=%llu pos=%llu size=%llu", frame, pos, value);
        else
            std::snprintf(text, sizeof text, "event=loop frame=%llu pos=%llu", frame, pos);
        add_event(text);
    }
}

void sim_device::prefill_buffers() {
    // Buffer i holds the i-th frame of the stream as the copying mode would serve
    // it, and keeps it: frames then come from the buffers in the order they are
    // queued, with no copy. The span ends on a whole 188-byte packet (the last
    // buffer is served a little short), so each round repeats the same bytes and
    // the seam joins two whole packets.
    const size_t count = m_buffers.size();
    m_prefilledBytes.assign(count, m_length);
    for (size_t i = 0; i < count; ++i) {
        std::vector<stream_mark> marks;
        m_source.read(m_memory + m_stride * i, m_length, marks, 0.0);
        log_marks(marks, i);
    }
    const size_t cut = (uint64_t(m_length) * count) % mpegcore::kTsPacketSize;
    if (cut < m_length)
        m_prefilledBytes.back() = uint32_t(m_length - cut);
}

void sim_device::rearm_timer() {
    if (m_owner == -1)
        return;
    itimerspec timer{};
    int flags = 0;
    if (m_removed || (m_streaming && !m_done.empty())) {
        timer.it_value.tv_nsec = 1;
    } else if (m_streaming && m_config.realtime) {
        timer.it_value.tv_sec = time_t(m_nextDue / 1000000000u);
        timer.it_value.tv_nsec = long(m_nextDue % 1000000000u);
        flags = TFD_TIMER_ABSTIME;
    } else if (m_streaming && !m_incoming.empty()) {
        timer.it_value.tv_nsec = 1;
    }
    // Setting a timer costs a system call per ioctl, as much as the capture of a
    // frame itself in a VM; the same setting again changes nothing (a fired timer
    // stays readable), so it is made only when it differs.
    const armed_timer wanted{m_owner, flags, timer.it_value.tv_sec, timer.it_value.tv_nsec};
    if (wanted == m_armed)
        return;
    m_armed = wanted;
    timerfd_settime(m_owner, flags, &timer, nullptr);
}

void* sim_device::mmap(void* addr, size_t length, int prot, int flags, off_t offset, int& error) {
    error = 0;
    if (removed(monotonic_ns())) {
        error = ENODEV;
        return MAP_FAILED;
    }
    if (injected_failure("MMAP", error))
        return MAP_FAILED;
    if (m_stride == 0 || offset < 0 || size_t(offset) % m_stride != 0 ||
        size_t(offset) / m_stride >= m_buffers.size() || length == 0 || length > m_stride || !(flags & MAP_SHARED)) {
        error = EINVAL;
        return MAP_FAILED;
    }
    // Populated at once, so the reader takes no page fault on its first round of frames.
    void* p = libc().mmap(addr, length, prot, flags | MAP_POPULATE, m_memfd, offset);
    if (p == MAP_FAILED) {
        error = errno;
        return MAP_FAILED;
    }
    uint32_t index = uint32_t(size_t(offset) / m_stride);
    m_buffers[index].mapped = true;
    m_mappings.push_back({reinterpret_cast<uintptr_t>(p), length, index});
    return p;
}

size_t sim_device::forget_mappings(void* addr, size_t length) {
    uintptr_t begin = reinterpret_cast<uintptr_t>(addr);
    size_t before = m_mappings.size();
    auto overlaps = [&](const mapping& m) { return m.begin < begin + length && begin < m.begin + m.length; };
    for (const mapping& m : m_mappings) {
        if (overlaps(m) && m.index < m_buffers.size())
            m_buffers[m.index].mapped = false;
    }
    m_mappings.erase(std::remove_if(m_mappings.begin(), m_mappings.end(), overlaps), m_mappings.end());
    return before - m_mappings.size();
}

void sim_device::add_event(const std::string& text) {
    if (m_events.size() < kMaxEvents)
        m_events.push_back(text);
    else
        ++m_eventsDropped;
}

std::string sim_device::summary() const {
    std::string s;
    auto line = [&s](const char* key, unsigned long long value) {
        s += key;
        s += '=';
        s += std::to_string(value);
        s += '\n';
    };
    s += "device=" + m_path + "\n";
    std::string input = m_config.input_for(m_index);
    s += "input=" + (input.empty() ? std::string("(null packets)") : input) + "\n";
    s += std::string("driver=") + (m_config.multi_planar ? "multi-planar" : "single-planar") + "\n";
    s += std::string("pacing=") + (m_config.realtime ? "realtime" : "fast") + "\n";
    s += std::string("filling=") + (m_config.prefilled ? "prefilled" : "copy") + "\n";
    line("frame_size", m_config.frame_size);
    line("frame_interval_ns", m_config.frame_interval_ns());
    line("packet_size", m_config.packet_size);
    line("stream_starts", m_counters.stream_starts);
    line("frames", m_counters.frames);
    line("data_frames", m_counters.data_frames);
    line("empty_frames", m_counters.empty_frames);
    line("frames_dequeued", m_counters.frames_dequeued);
    line("bytes", m_counters.bytes);
    line("overruns", m_counters.overruns);
    line("seq_gaps", m_counters.seq_gaps);
    line("seq_gap_frames", m_counters.seq_gap_frames);
    line("idle_slots", m_counters.idle_slots);
    line("data_gaps", m_counters.data_gaps);
    line("gap_slots", m_counters.gap_slots);
    line("removed_failures", m_counters.removed_failures);
    const stream_counters& sc = m_source.counters();
    line("file_bytes", sc.file_bytes);
    line("loops", sc.loops);
    line("packets", sc.packets);
    line("garbage_insertions", sc.garbage_insertions);
    line("garbage_bytes", sc.garbage_bytes);
    line("cc_errors", sc.cc_errors);
    line("parity_bytes", sc.parity_bytes);
    line("packet_size_switches", sc.packet_size_switches);
    for (int k = 0; k < 6; ++k)
        line(("signal_" + std::string(signal_name(signal_kind(k)))).c_str(), m_counters.signal_answers[k]);
    for (int k = 0; k < 6; ++k)
        line(("signal_entries_" + std::string(signal_name(signal_kind(k)))).c_str(), m_counters.signal_entries[k]);
    line("mappings_left", is_open() ? m_mappings.size() : m_counters.mappings_left);
    for (const auto& entry : m_ioctls) {
        s += "ioctl=" + entry.first.first;
        if (entry.first.second != 0)
            s += " type=" + std::to_string(entry.first.second);
        s += " calls=" + std::to_string(entry.second.calls) + " failed=" + std::to_string(entry.second.failed) + "\n";
    }
    for (const std::string& e : m_events)
        s += e + "\n";
    line("events_dropped", m_eventsDropped);
    return s;
}

}  // namespace vqasisim
