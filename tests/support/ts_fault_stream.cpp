#include "ts_fault_stream.h"

#include <algorithm>
#include <map>

#include "section_bytes.h"

namespace vq_test {

namespace {

constexpr uint64_t kPcrStart = 27000000ULL * 1000;  // 1,000 s
constexpr uint64_t kPtsStart = 90000ULL * 1000;
constexpr uint64_t kPcrPerPacket = 10800;  // 0.4 ms at 27 MHz
constexpr uint64_t kPtsPerPacket = 36;     // 0.4 ms at 90 kHz

std::vector<uint8_t> patSection() { return withCrc({0x00, 0xB0, 0, 0x00, 0x01, 0xC1, 0, 0, 0x00, 0x01, 0xE1, 0x00}); }
std::vector<uint8_t> pmtSection() {
    return withCrc({0x02, 0xB0, 0,    0x00, 0x01, 0xC1, 0,    0,    0xE1, 0x01, 0xF0, 0x00,  //
                    0x02, 0xE1, 0x01, 0xF0, 0x00, 0x06, 0xE1, 0x02, 0xF0, 0x00});
}
std::vector<uint8_t> catSection() { return withCrc({0x01, 0xB0, 0, 0xFF, 0xFF, 0xC1, 0, 0}); }
std::vector<uint8_t> nitSection() { return withCrc({0x40, 0xF0, 0, 0x00, 0x01, 0xC1, 0, 0, 0xF0, 0x00, 0xF0, 0x00}); }
std::vector<uint8_t> eitSection(uint8_t number) {
    return withCrc({0x4E, 0xF0, 0, 0x00, 0x01, 0xC1, number, 1, 0x00, 0x01, 0x00, 0x01, 1, 0x4E});
}
std::vector<uint8_t> tdtSection() { return {0x70, 0x70, 0x05, 0xE9, 0x3C, 0x12, 0x00, 0x00}; }

}  // namespace

std::vector<uint8_t> ts_fault_stream::sdt_section() {
    return withCrc({0x42, 0xF0, 0, 0x00, 0x01, 0xC1, 0, 0, 0x00, 0x01, 0xFF,  //
                    0x00, 0x01, 0xFC, 0x80, 0x00});
}

ts_fault_stream::ts_fault_stream(size_t packets) : m_slots(packets) {
    for (size_t k = 0; k < packets; ++k) {
        slot& s = m_slots[k];
        if (k % 250 == 0)
            setSection(s, 0, patSection());
        else if (k % 250 == 1)
            setSection(s, pmt_pid, pmtSection());
        else if (k % 100 >= 2 && k % 100 <= 40)
            setVideo(s, k, k % 100 == 2);
        else if (k % 1250 == 5)
            setSection(s, 0x11, sdt_section());
        else if (k % 2500 == 56)
            setSection(s, 0x10, nitSection());
        else if (k % 1250 == 7 || k % 1250 == 8)
            setSection(s, 0x12, eitSection(static_cast<uint8_t>(k % 1250 - 7)));
        else if (k % 2500 == 59)
            setSection(s, 0x14, tdtSection());
        else if (k % 250 == 50) {
            // Private PES without PTS.
            s.bytes.fill(0xAA);
            const uint8_t head[] = {
                0x47, 0x40 | (data_pid >> 8), data_pid & 0xFF, 0x10, 0x00, 0x00, 0x01, 0xBD, 0x00, 0x00, 0x80, 0x00,
                0x00};
            std::copy(std::begin(head), std::end(head), s.bytes.begin());
        } else
            setNull(s);
    }
}

uint16_t ts_fault_stream::pidOf(const slot& s) {
    return static_cast<uint16_t>(((s.bytes[1] & 0x1F) << 8) | s.bytes[2]);
}

void ts_fault_stream::setNull(slot& s) {
    s.bytes.fill(0xFF);
    s.bytes[0] = mpegcore::kSyncByte;
    s.bytes[1] = 0x1F;
    s.bytes[2] = 0xFF;
    s.bytes[3] = 0x10;
    s.cc = slot::next;
}

void ts_fault_stream::setSection(slot& s, uint16_t pid, const std::vector<uint8_t>& section) {
    s.bytes.fill(0xFF);
    s.bytes[0] = mpegcore::kSyncByte;
    s.bytes[1] = static_cast<uint8_t>(0x40 | (pid >> 8));
    s.bytes[2] = static_cast<uint8_t>(pid);
    s.bytes[3] = 0x10;
    s.bytes[4] = 0;  // pointer field
    std::copy(section.begin(), section.end(), s.bytes.begin() + 5);
}

void ts_fault_stream::writePcr(slot& s, uint64_t pcr, bool discontinuity) {
    const uint64_t base = pcr / 300, ext = pcr % 300;
    s.bytes[5] = static_cast<uint8_t>(0x10 | (discontinuity ? 0x80 : 0));
    s.bytes[6] = static_cast<uint8_t>(base >> 25);
    s.bytes[7] = static_cast<uint8_t>(base >> 17);
    s.bytes[8] = static_cast<uint8_t>(base >> 9);
    s.bytes[9] = static_cast<uint8_t>(base >> 1);
    s.bytes[10] = static_cast<uint8_t>(((base & 1) << 7) | 0x7E | (ext >> 8));
    s.bytes[11] = static_cast<uint8_t>(ext);
}

uint64_t ts_fault_stream::readPcr(const slot& s) const {
    const uint64_t base = (uint64_t(s.bytes[6]) << 25) | (uint64_t(s.bytes[7]) << 17) | (uint64_t(s.bytes[8]) << 9) |
                          (uint64_t(s.bytes[9]) << 1) | (s.bytes[10] >> 7);
    return base * 300 + (((s.bytes[10] & 1) << 8) | s.bytes[11]);
}

void ts_fault_stream::setVideo(slot& s, size_t index, bool start) {
    s.bytes.fill(0xAA);
    s.bytes[0] = mpegcore::kSyncByte;
    s.bytes[1] = static_cast<uint8_t>((start ? 0x40 : 0) | (video_pid >> 8));
    s.bytes[2] = video_pid & 0xFF;
    s.bytes[3] = 0x10;
    if (!start)
        return;
    s.bytes[3] = 0x30;  // adaptation field and payload
    s.bytes[4] = 7;
    writePcr(s, kPcrStart + index * kPcrPerPacket, false);
    const uint64_t pts = kPtsStart + index * kPtsPerPacket;
    const uint8_t pes[] = {0x00,
                           0x00,
                           0x01,
                           0xE0,
                           0x00,
                           0x00,
                           0x80,
                           0x80,
                           0x05,
                           static_cast<uint8_t>(0x21 | ((pts >> 29) & 0x0E)),
                           static_cast<uint8_t>(pts >> 22),
                           static_cast<uint8_t>(((pts >> 14) & 0xFE) | 1),
                           static_cast<uint8_t>(pts >> 7),
                           static_cast<uint8_t>(((pts << 1) & 0xFE) | 1)};
    std::copy(std::begin(pes), std::end(pes), s.bytes.begin() + 12);
}

std::vector<uint8_t> ts_fault_stream::bytes() const {
    std::vector<uint8_t> out;
    out.reserve(m_slots.size() * mpegcore::kTsPacketSize);
    std::map<uint16_t, uint8_t> next;
    for (const slot& s : m_slots) {
        std::array<uint8_t, mpegcore::kTsPacketSize> b = s.bytes;
        const uint16_t pid = pidOf(s);
        if (pid != mpegcore::kPidNull) {
            auto found = next.find(pid);
            uint8_t cc = found == next.end() ? 0 : found->second;
            if (s.cc == slot::skip_one)
                cc = (cc + 1) & 0x0F;
            else if (s.cc == slot::repeat)
                cc = (cc + 15) & 0x0F;
            b[3] = static_cast<uint8_t>((b[3] & 0xF0) | cc);
            next[pid] = (cc + 1) & 0x0F;
        }
        out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

size_t ts_fault_stream::find(uint16_t pid, size_t from) const {
    for (size_t k = from; k < m_slots.size(); ++k)
        if (pidOf(m_slots[k]) == pid)
            return k;
    return m_slots.size();
}

size_t ts_fault_stream::find_pcr(size_t from) const {
    for (size_t k = from; k < m_slots.size(); ++k)
        if (pidOf(m_slots[k]) == video_pid && (m_slots[k].bytes[3] & 0x20) && (m_slots[k].bytes[5] & 0x10))
            return k;
    return m_slots.size();
}

bool ts_fault_stream::is_null(size_t k) const { return pidOf(m_slots[k]) == mpegcore::kPidNull; }

void ts_fault_stream::lose_packet(size_t k) {
    const uint16_t pid = pidOf(m_slots[k]);
    setNull(m_slots[k]);
    const size_t after = find(pid, k + 1);
    if (after < m_slots.size())
        m_slots[after].cc = slot::skip_one;
}

void ts_fault_stream::send_again(size_t k, int copies) {
    for (int i = 1; i <= copies; ++i) {
        m_slots[k + i] = m_slots[k];
        m_slots[k + i].cc = slot::repeat;
    }
}

void ts_fault_stream::break_sync_byte(size_t k) { m_slots[k].bytes[0] = 0x46; }

void ts_fault_stream::drop_pid(uint16_t pid, size_t from, size_t to) {
    for (size_t k = from; k < to && k < m_slots.size(); ++k)
        if (pidOf(m_slots[k]) == pid)
            setNull(m_slots[k]);
}

void ts_fault_stream::drop_pcrs(size_t from, size_t to) {
    for (size_t k = find_pcr(from); k < to && k < m_slots.size(); k = find_pcr(k + 1)) {
        m_slots[k].bytes[5] = 0;
        std::fill(m_slots[k].bytes.begin() + 6, m_slots[k].bytes.begin() + 12, 0xFF);
    }
}

void ts_fault_stream::drop_pts(size_t from, size_t to) {
    for (size_t k = find_pcr(from); k < to && k < m_slots.size(); k = find_pcr(k + 1)) {
        m_slots[k].bytes[12 + 7] = 0x00;  // PTS_DTS_flags
        m_slots[k].bytes[12 + 8] = 0x00;  // header data length
    }
}

void ts_fault_stream::set_tei(size_t k) { m_slots[k].bytes[1] |= 0x80; }

void ts_fault_stream::break_crc(size_t k) {
    slot& s = m_slots[k];
    const size_t length = ((s.bytes[6] & 0x0F) << 8) | s.bytes[7];
    s.bytes[5 + 3 + length - 1] ^= 0x01;
}

void ts_fault_stream::shift_pcrs(size_t from, int64_t ticks, bool announce) {
    bool first = true;
    for (size_t k = find_pcr(from); k < m_slots.size(); k = find_pcr(k + 1)) {
        writePcr(m_slots[k], readPcr(m_slots[k]) + static_cast<uint64_t>(ticks), announce && first);
        first = false;
    }
}

void ts_fault_stream::offset_pcr(size_t k, int64_t ticks) {
    writePcr(m_slots[k], readPcr(m_slots[k]) + static_cast<uint64_t>(ticks), false);
}

void ts_fault_stream::scramble(size_t k) {
    m_slots[k].bytes[3] = static_cast<uint8_t>((m_slots[k].bytes[3] & 0x3F) | 0x80);
}

void ts_fault_stream::add_cat() {
    for (size_t k = 0; k < m_slots.size(); k += 1250)
        setSection(m_slots[k + 45], 1, catSection());
}

void ts_fault_stream::add_section(size_t k, uint16_t pid, std::vector<uint8_t> section) {
    setSection(m_slots[k], pid, section);
}

void ts_fault_stream::add_unreferenced_pid() {
    for (size_t k = 60; k < m_slots.size(); k += 250) {
        slot& s = m_slots[k];
        s.bytes.fill(0x55);
        s.bytes[0] = mpegcore::kSyncByte;
        s.bytes[1] = unreferenced_pid >> 8;
        s.bytes[2] = unreferenced_pid & 0xFF;
        s.bytes[3] = 0x10;
    }
}

void ts_fault_stream::drop_eit_section(uint8_t number) {
    for (size_t k = 7 + number; k < m_slots.size(); k += 1250)
        setNull(m_slots[k]);
}

}  // namespace vq_test
