#pragma once
// One simulated ASI capture node: the part of a V4L2 capture driver that the
// capture element and the V4L2 tools use, with faults injected on request.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vqasisim_config.h"
#include "vqasisim_stream.h"

namespace vqasisim {

class sim_device {
public:
    explicit sim_device(std::string path);
    ~sim_device();
    sim_device(const sim_device&) = delete;
    sim_device& operator=(const sim_device&) = delete;

    const std::string& path() const { return m_path; }
    bool is_open() const { return !m_fds.empty(); }

    // A new descriptor for this node, or -errno. `index`: the node's place in VQASISIM_DEVICE.
    int open(int flags, size_t index);
    // Forgets `fd` (the caller closes it). True when this was the last one: the session ended.
    bool close(int fd);
    // 0 or -errno. `lock` guards every device; a blocking DQBUF releases it while it waits.
    int ioctl(int fd, unsigned long request, void* arg, std::unique_lock<std::mutex>& lock);
    // The mapping of a buffer, or MAP_FAILED with `error` set.
    void* mmap(void* addr, size_t length, int prot, int flags, off_t offset, int& error);
    // Forgets the mappings of this node's buffers inside [addr, addr + length); returns how many.
    size_t forget_mappings(void* addr, size_t length);
    size_t live_mappings() const { return m_mappings.size(); }

    const std::string& summary_path() const { return m_config.summary_path; }
    // Frames, bytes, faults and ioctls of the current (or last) session.
    std::string summary() const;

private:
    enum class buffer_state { dequeued, queued, done };
    struct buffer {
        buffer_state state = buffer_state::dequeued;
        uint32_t bytesused = 0;
        uint32_t sequence = 0;
        uint64_t timestamp_ns = 0;
        bool mapped = false;
    };
    struct mapping {
        uintptr_t begin;
        size_t length;
        uint32_t index;
    };
    struct tally {
        uint64_t calls = 0;
        uint64_t failed = 0;
    };
    struct counters {
        uint64_t stream_starts = 0;
        uint64_t frames = 0;
        uint64_t data_frames = 0;
        uint64_t empty_frames = 0;
        uint64_t frames_dequeued = 0;
        uint64_t bytes = 0;
        uint64_t overruns = 0;
        uint64_t seq_gaps = 0;
        uint64_t seq_gap_frames = 0;
        uint64_t idle_slots = 0;        // frame slots that passed without signal
        uint64_t data_gaps = 0;         // spans without data while the signal was ok
        uint64_t gap_slots = 0;         // frame slots that passed in them
        uint64_t removed_failures = 0;  // requests refused because the device was gone
        uint64_t signal_answers[6] = {};
        uint64_t signal_entries[6] = {};  // answers that differ from the one before
        uint64_t mappings_left = 0;
    };

    void start_session();
    bool injected_failure(const std::string& name, int& error);
    int handle(int fd, unsigned long request, void* arg, std::unique_lock<std::mutex>& lock);

    int query_cap(void* arg);
    int enum_fmt(void* arg);
    int get_fmt(void* arg);
    int set_fmt(void* arg);
    int req_bufs(int fd, void* arg);
    int query_buf(void* arg);
    int queue_buf(int fd, void* arg);
    int dequeue_buf(int fd, void* arg, std::unique_lock<std::mutex>& lock);
    int stream_on(int fd, void* arg);
    int stream_off(int fd, void* arg);
    int query_dv_timings(void* arg);
    int enum_input(void* arg);
    int device_info(void* arg);

    bool type_ok(uint32_t type) const;
    int check_owner(int fd);
    void free_buffers();
    void stop_streaming();
    void produce(uint64_t now);
    void fill_slot(uint64_t due);
    // Prefilled mode: every buffer once from the input, at stream-on.
    void prefill_buffers();
    void log_marks(const std::vector<stream_mark>& marks, uint64_t frame);
    void fill_v4l2_buffer(uint32_t index, void* arg) const;
    void rearm_timer();
    signal_kind signal_now(uint64_t now) const;
    double seconds_since_open(uint64_t now) const;
    // Whether frames may come at `when`: the signal is ok and no data gap is on.
    bool data_flows(uint64_t when);
    // The device has been removed: every request fails with ENODEV.
    bool removed(uint64_t now);
    void add_event(const std::string& text);

    std::string m_path;
    size_t m_index = 0;
    config m_config;
    stream_source m_source;
    std::vector<int> m_fds;
    uint64_t m_openedNs = 0;
    std::map<std::string, uint64_t> m_failCalls;

    // Buffers and streaming.
    int m_owner = -1;
    // The last setting of the owner's timer descriptor.
    struct armed_timer {
        int fd = -1;
        int flags = 0;
        time_t sec = 0;
        long nsec = 0;
        bool operator==(const armed_timer& o) const {
            return fd == o.fd && flags == o.flags && sec == o.sec && nsec == o.nsec;
        }
    };
    armed_timer m_armed;
    int m_memfd = -1;
    uint8_t* m_memory = nullptr;
    size_t m_stride = 0;
    uint32_t m_length = 0;
    std::vector<buffer> m_buffers;
    std::vector<uint32_t> m_prefilledBytes;  // prefilled mode: valid bytes of each buffer
    std::vector<mapping> m_mappings;
    std::deque<uint32_t> m_incoming;
    std::deque<uint32_t> m_done;
    bool m_streaming = false;
    uint64_t m_sequence = 0;
    uint64_t m_nextDue = 0;
    uint64_t m_framesSinceGap = 0;
    uint64_t m_dataSinceEmpty = 0;
    uint64_t m_emptyLeft = 0;
    signal_kind m_lastAnswer = signal_kind::ok;
    bool m_inDataGap = false;
    bool m_removed = false;

    counters m_counters;
    std::map<std::pair<std::string, int>, tally> m_ioctls;
    std::vector<std::string> m_events;
    uint64_t m_eventsDropped = 0;
};

// The monotonic clock in nanoseconds, as the driver stamps buffers.
uint64_t monotonic_ns();

}  // namespace vqasisim
