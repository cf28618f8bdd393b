#pragma once
// Builds constant-rate transport streams with exactly known faults, for the
// analysis suites: 2,500 packets a second (3,760,000 bit/s), a PAT and a PMT
// every 100 ms, a video PID with a PCR and a PTS every 40 ms, a private PES
// PID every 100 ms, SDT, EIT present/following, NIT and TDT every second, the
// rest null packets. Faults replace packets or change their
// contents in place, so that every byte keeps its time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "mpegcore/MpegConstants.h"

namespace vq_test {

class ts_fault_stream {
public:
    static constexpr uint64_t bitrate = 3760000;
    static constexpr uint64_t packet_ns = 400000;  // one packet at the bit rate
    static constexpr uint16_t pmt_pid = 0x100;
    static constexpr uint16_t video_pid = 0x101;  // PCR and PTS
    static constexpr uint16_t data_pid = 0x102;   // PES without PTS
    static constexpr uint16_t unreferenced_pid = 0x200;

    // A clean stream of `packets` packets (7,500: three seconds).
    explicit ts_fault_stream(size_t packets = 7500);

    // The stream, continuity counters assigned per PID.
    std::vector<uint8_t> bytes() const;
    size_t size() const { return m_slots.size(); }

    // Faults; `slot` counts packets from the start.
    void lose_packet(size_t slot);             // a video packet becomes a null packet
    void send_again(size_t slot, int copies);  // copies of a video packet in the null slots after it
    void break_sync_byte(size_t slot);
    void drop_pid(uint16_t pid, size_t from, size_t to);  // its packets in [from, to) become null
    void drop_pcrs(size_t from, size_t to);
    void drop_pts(size_t from, size_t to);
    void set_tei(size_t slot);
    void break_crc(size_t slot);                                 // a section packet's CRC
    void shift_pcrs(size_t from, int64_t ticks, bool announce);  // every PCR from slot `from` on
    void offset_pcr(size_t slot, int64_t ticks);                 // one PCR
    void scramble(size_t slot);
    void add_cat();                                                             // a CAT every 500 ms
    void add_section(size_t slot, uint16_t pid, std::vector<uint8_t> section);  // in a null slot
    void add_unreferenced_pid();  // packets on unreferenced_pid every 100 ms
    void drop_eit_section(uint8_t number);

    // Slot of the first packet at or after `from` on pid (size() if none).
    size_t find(uint16_t pid, size_t from) const;
    // Slot of the first PCR packet at or after `from`.
    size_t find_pcr(size_t from) const;
    // Whether the slot holds a null packet.
    bool is_null(size_t slot) const;

    // Sections used by the stream, with their CRC.
    static std::vector<uint8_t> sdt_section();

private:
    struct slot {
        std::array<uint8_t, mpegcore::kTsPacketSize> bytes{};
        enum cc_rule : uint8_t { next, skip_one, repeat } cc = next;
    };
    void setNull(slot& s);
    void setSection(slot& s, uint16_t pid, const std::vector<uint8_t>& section);
    void setVideo(slot& s, size_t index, bool start);
    void writePcr(slot& s, uint64_t pcr, bool discontinuity);
    uint64_t readPcr(const slot& s) const;
    static uint16_t pidOf(const slot& s);

    std::vector<slot> m_slots;
};

}  // namespace vq_test
