#include "vq_asi_capture/vq_asi_statistics.h"

#include "mpegcore/VQStringUtils.h"

void vq_video_statistics::set_seq_index(uint64_t sequence) {
    const uint64_t previous = nSeqFromDevice;
    if (previous != 0) {
        // |sequence - previous - 1| without leaving unsigned arithmetic.
        nDroppedFrame += sequence > previous ? sequence - previous - 1 : previous + 1 - sequence;
    }
    nSeqFromDevice = sequence;
}

void vq_video_statistics::set_signal_state(vq_signal_state state) {
    if (state != signal_state) {
        switch (state) {
        case vq_no_data: ++nSignalNoData; break;
        case vq_no_link: ++nSignalNoLink; break;
        case vq_no_lock: ++nSignalNoLock; break;
        case vq_range: ++nSignalRange; break;
        case vq_unknown: ++nSignalUnknown; break;
        default: break;
        }
    }
    signal_state = state;
}

std::string vq_video_statistics::get_state_string() const {
    switch (signal_state.load()) {
    case vq_ok: return "Ok";
    case vq_no_data: return "No data";
    case vq_no_link: return "No link";
    case vq_no_lock: return "No lock";
    case vq_range: return "No range";
    case vq_unknown: return "Unknown";
    }
    return std::string();
}

std::string vq_video_statistics::get_state_counter() const {
    return std::to_string(nSignalNoData) + "/" + std::to_string(nSignalNoLink) + "/" + std::to_string(nSignalNoLock) +
           "/" + std::to_string(nSignalRange) + "/" + std::to_string(nSignalUnknown);
}

void vq_video_statistics::set_error(const std::string& error) {
    std::lock_guard<std::mutex> lock(m_cs);
    strLastError = error;
}

std::string vq_video_statistics::get_errors() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return strLastError;
}

void vq_video_statistics::reset() {
    nPushIndexFrame = 0;
    nSeqFromDevice = 0;
    nDroppedFrame = 0;
    nFakeFrames = 0;
    nLastFrameTime = 0;
    m_push_delay.reset();
    m_delay_between_frame.reset();
    m_map_delay.reset();
    nDataCount.clear();
    nRawDataCount.clear();
    nBadBytesCount = 0;
    signal_state = vq_ok;
    nSignalNoData = 0;
    nSignalNoLink = 0;
    nSignalNoLock = 0;
    nSignalRange = 0;
    nSignalUnknown = 0;
}

std::vector<std::pair<std::string, std::string>> vq_asi_statistics::get_items() const {
    const int64_t systemTime = static_cast<int64_t>(m_nSystemTime.load());
    return {
        {"System time", VQSDK::toString("hhh:mm:ss.ccc", systemTime)},
        {"Signal state", m_asi.get_state_string()},
        {"No data/link/lock/range/unknown", m_asi.get_state_counter()},
        {"Bit rate [bit/sec]", std::to_string(m_asi.get_bit_rate())},
        {"Data counter", std::to_string(m_asi.get_data_counter())},
        {"Raw bit rate [bit/sec]", std::to_string(m_asi.get_raw_bit_rate())},
        {"Raw data counter", std::to_string(m_asi.get_raw_data_count())},
        {"Bad bytes", std::to_string(m_asi.get_bad_bytes())},
        {"Asi capture frames", std::to_string(m_asi.nPushIndexFrame.load())},
        {"Asi dropped frames", std::to_string(m_asi.nDroppedFrame.load())},
        {"Asi fake frames", std::to_string(m_asi.nFakeFrames.load())},
        {"Asi map delay [ms]", m_asi.m_map_delay.to_string()},
        {"Asi push delay [ms]", m_asi.m_push_delay.to_string()},
        {"Asi delay between frames [ms]", m_asi.m_delay_between_frame.to_string()},
        {"Asi last error", m_asi.get_errors()},
    };
}

void vq_asi_statistics::reset() { m_asi.reset(); }
