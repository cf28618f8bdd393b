#pragma once
// Transport stream analysis after ETSI TR 101 290: the priority 1 and 2 checks
// and the SI checks of priority 3, with per-PID, per-table and stream figures.
//
// Two ways in: push_raw() takes raw bytes with their arrival time and finds
// the packets itself (so the sync checks see real sync bytes); push_packet()
// takes packets that are already aligned (the capture path). Every error is
// counted and reported once through on_error(); where an alarm hook of the
// parser matches it fires too (on_ts_sync_lost, on_sync_byte_error,
// on_pat_error, on_pmt_error, on_pid_error, and on_tei_pid /
// on_scrambler_pid through analyze_packet).
//
// Counting rules:
// - An interval check counts once per gap over its limit: live when the limit
//   passes (checked as packets arrive and in check_timers()), and in finish()
//   for a gap still open at the end.
// - Per-packet and per-section checks count each packet or section.
// - Continuity: a packet counts when its counter is neither the expected one
//   nor a first repeat of the previous packet; a packet sent more than twice
//   counts once per extra copy; the discontinuity indicator resets the check.
// - Sync: two consecutive bad sync bytes lose sync (one TS_sync_loss), five
//   good ones regain it; Sync_byte_error counts bad sync bytes seen while in
//   sync. A packet with one bad sync byte is still analysed; packets while
//   sync is lost are not, and after a loss the continuity and PCR references
//   start afresh.
// - PTS_error is checked on unscrambled PES only.
// - PCR_accuracy_error counts PCRs more than 500 ns from the value expected
//   from their byte position at the transport rate (given, or measured from
//   the earlier PCRs of the PID since the reference); the reference restarts
//   after any PCR discontinuity, announced or not, and after a loss of sync.
//   PCR_error is the sum of PCR_repetition_error and
//   PCR_discontinuity_indicator_error.
// - Unreferenced_PID counts PIDs.
// - SI_repetition_error counts SI sections repeated within 25 ms of the
//   previous section of the same sub-table and section number, and gaps over
//   10 s in a BAT and over 30 s in the TOT; the actual-table checks count
//   their own 25 ms repeats as well.
// - EIT_PF_error counts a present/following sub-table once when one of its
//   sections 0 and 1 has been seen for its limit (2 s actual, 10 s other)
//   without the other.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/SectionAssembler.h"

namespace mpegcore {

// The checks, in the guideline's order (priority 1, 2, then 3).
enum class tr101290_check : uint8_t {
    TS_sync_loss,
    Sync_byte_error,
    PAT_error,
    PAT_error_2,
    Continuity_count_error,
    PMT_error,
    PMT_error_2,
    PID_error,
    Transport_error,
    CRC_error,
    PCR_error,
    PCR_repetition_error,
    PCR_discontinuity_indicator_error,
    PCR_accuracy_error,
    PTS_error,
    CAT_error,
    NIT_error,
    NIT_actual_error,
    NIT_other_error,
    SI_repetition_error,
    Unreferenced_PID,
    SDT_error,
    SDT_actual_error,
    SDT_other_error,
    EIT_error,
    EIT_actual_error,
    EIT_other_error,
    EIT_PF_error,
    RST_error,
    TDT_error,
};
constexpr size_t tr101290_check_count = static_cast<size_t>(tr101290_check::TDT_error) + 1;

// The guideline's name ("PAT_error_2") and priority (1, 2 or 3).
const char* tr101290_name(tr101290_check check);
int tr101290_priority(tr101290_check check);

struct ts_pid_figures {
    uint16_t pid = 0;
    uint64_t packets = 0;
    uint64_t bitrate = 0;  // bit/s, share of the stream's PCR-based rate
    uint64_t cc_errors = 0;
    uint64_t duplicates = 0;
    uint64_t scrambled = 0;
    uint64_t tei = 0;
    uint64_t pcr = 0;
    uint64_t pts = 0;
    uint64_t dts = 0;
    int service = -1;  // program number of the first program naming the PID, -1 none
};

struct ts_table_figures {
    uint16_t pid = 0;
    uint8_t table_id = 0;
    uint16_t table_id_ext = 0;
    uint64_t sections = 0;
    // Between repeats of the table's first section number; -1 before a repeat.
    int64_t repetition_ms_min = -1;
    int64_t repetition_ms_max = -1;
};

struct ts_service_figures {
    uint16_t service_id = 0;
    uint16_t pmt_pid = 0;
    uint16_t pcr_pid = kPidNull;
    std::vector<uint16_t> pids;  // elementary PIDs
};

struct ts_stream_figures {
    uint64_t packets = 0;
    uint64_t bitrate = 0;  // PCR-based, bit/s; 0 without two PCRs
    uint64_t duration_ms = 0;
};

class CTsAnalyzer : public CBaseMpegParser {
public:
    static constexpr uint16_t no_pid = 0xFFFF;  // pid of a stream-wide error
    static constexpr uint64_t ms = 1000000;     // nanoseconds

    struct options {
        uint64_t pid_timeout = 5000 * ms;  // PID_error: a referenced PID absent this long
        uint64_t transport_rate = 0;       // bit/s for PCR accuracy; 0: measured from the PCRs
    };

    CTsAnalyzer();
    explicit CTsAnalyzer(const options& opts);
    ~CTsAnalyzer() override;

    // Raw bytes that arrived over [tStart, tStop] nanoseconds; a packet is
    // timed by its last byte, placed linearly in that span.
    void push_raw(uint64_t tStart, uint64_t tStop, const uint8_t* data, size_t size);
    // One aligned packet (188 bytes, or 204 of which the first 188 count)
    // received at `time` nanoseconds.
    void push_packet(uint64_t time, const uint8_t* packet, size_t size = kTsPacketSize);
    // Counts the interval checks whose limit has passed by `now`.
    void check_timers(uint64_t now);
    // The end of the stream: counts the gaps still open at the last packet.
    void finish();

    uint64_t count(tr101290_check check) const { return m_counts[static_cast<size_t>(check)]; }
    // Whether any check of priority 1 (or 2) counted.
    bool has_errors(int priority) const;
    std::vector<ts_pid_figures> pid_figures() const;  // the PIDs seen, by PID
    std::vector<ts_table_figures> table_figures() const;
    std::vector<ts_service_figures> service_figures() const;
    ts_stream_figures stream_figures() const;

    // One call per counted error: the check, the PID (no_pid when the error
    // is not about one), the time in nanoseconds and a short detail.
    virtual void on_error(tr101290_check /*check*/, uint16_t /*pid*/, uint64_t /*time*/, const char* /*detail*/) {}

    int OnProcess(unsigned int, transport_packet& packet) override;

private:
    struct interval {
        uint64_t last = 0;
        bool armed = false;
        bool counted = false;
    };
    struct pid_state {
        uint64_t packets = 0, cc_errors = 0, duplicates = 0, scrambled = 0, tei = 0, pcr = 0, pts = 0, dts = 0;
        uint64_t first_seen = 0;
        uint8_t continuity_counter = 0xFF;
        uint8_t copies = 0;  // repeats of the last packet
        bool seen = false;
        bool unreferenced_counted = false;
        // PCR
        bool has_pcr = false;
        uint64_t last_pcr = 0, last_pcr_pos = 0;
        bool has_reference = false, has_rate_point = false;
        uint64_t ref_pcr = 0, ref_pos = 0;
        uint64_t rate_pcr = 0, rate_pos = 0;  // last accepted PCR since the reference
        interval pcr_gap, pts_gap, presence;
    };
    struct program_info {
        uint16_t program_number = 0;
        bool has_pmt = false;
        uint16_t pcr_pid = kPidNull;
        std::vector<uint16_t> pids;     // elementary PIDs
        std::vector<uint16_t> ca_pids;  // ECM PIDs of its CA descriptors
        interval packets, sections;     // PMT_error, PMT_error_2
        uint32_t crc = 0;
    };
    struct subtable_key {
        uint16_t pid;
        uint8_t table_id;
        uint16_t ext;
        uint8_t section_number;
        bool operator<(const subtable_key& o) const;
    };
    struct table_state {
        uint64_t sections = 0;
        int first_section = -1;
        uint64_t last_time = 0;
        bool repeated = false;
        int64_t min_ms = -1, max_ms = -1;
    };
    struct pf_state {
        uint64_t first = 0;
        bool seen[2] = {false, false};
        bool counted = false;
    };

    void report(tr101290_check check, uint16_t pid, uint64_t time, const char* detail);
    void analyse(uint64_t time, uint64_t pos, const uint8_t* packet);
    // Analyses the packets of run (m_nRawPos is the stream offset of its
    // first byte, chunkOffset its offset from the current chunk's start);
    // returns the bytes it is done with.
    size_t scanRun(const uint8_t* run, size_t n, ptrdiff_t chunkOffset);
    void syncGood();
    bool syncBad(uint64_t time);  // false when sync is lost
    void restartReferences();
    void checkContinuity(pid_state& st, const transport_packet& packet, bool& duplicate);
    void checkPCR(pid_state& st, const transport_packet& packet);
    void checkPES(pid_state& st, const transport_packet& packet);
    void onSection(uint16_t pid, const unsigned char* section, size_t size);
    void onPAT(const unsigned char* section, size_t size);
    void onPMT(uint16_t pid, const unsigned char* section, size_t size);
    void onCAT(const unsigned char* section, size_t size);
    void checkSI(uint16_t pid, uint8_t tableId, uint16_t ext, uint8_t sectionNumber, const unsigned char* section,
                 size_t size);
    void minSpacing(const subtable_key& key, tr101290_check check, uint16_t pid);
    void rebuildReferences();
    bool isSectionPid(uint16_t pid) const;
    // Marks an interval seen at m_tNow, counting the gap if it was over limit.
    void seen(interval& iv, uint64_t limit, tr101290_check check, uint16_t pid, const char* detail);
    void expire(interval& iv, uint64_t now, uint64_t limit, tr101290_check check, uint16_t pid, const char* detail);

    options m_options;
    std::array<uint64_t, tr101290_check_count> m_counts{};
    std::unique_ptr<pid_state[]> m_pids;
    std::vector<uint16_t> m_seenPids;
    CSectionAssembler m_sections;

    // Time and position of the packet being analysed.
    uint64_t m_tNow = 0;
    uint64_t m_nPos = 0;
    uint64_t m_tFirst = 0, m_tLast = 0;
    uint64_t m_nPackets = 0;
    bool m_bStarted = false;
    uint64_t m_tLastScan = 0;

    // Sync state (both entry points).
    bool m_bInSync = true;
    unsigned m_nBadInRow = 0;
    size_t m_nPacketSize = kTsPacketSize;
    std::vector<uint8_t> m_raw;                // raw bytes carried to the next call
    uint64_t m_nRawPos = 0;                    // stream offset of m_raw's first byte
    uint64_t m_tRunStart = 0, m_tRunStop = 0;  // the current chunk's time span
    size_t m_nRunSize = 0;                     // and size
    bool m_bRawAligned = false;
    std::vector<std::vector<uint8_t>> m_regain;  // packet mode: good packets while regaining
    std::vector<uint64_t> m_regainTimes;

    // Structure from the PAT, PMTs and CAT.
    std::map<uint16_t, program_info> m_programs;                    // by PMT PID
    std::map<uint8_t, std::map<uint16_t, uint16_t>> m_patSections;  // section -> PMT PID -> program
    std::map<uint8_t, uint32_t> m_patCrcs;                          // section -> its CRC
    bool m_bHasPat = false;
    std::vector<uint16_t> m_emmPids;
    bool m_bHasCat = false;
    uint32_t m_nCatCrc = 0;
    std::vector<uint8_t> m_referenced;  // by PID: named by a PMT, the PAT or the CAT
    std::vector<int> m_service;         // by PID: program number, -1 none

    // Stream-wide intervals.
    interval m_patPackets, m_patSections2, m_nit, m_nitActual, m_sdtActual, m_eitActual, m_tdt;
    std::map<uint32_t, interval> m_nitOther, m_sdtOther, m_eitOther, m_bat, m_tot;
    std::map<subtable_key, uint64_t> m_lastSection;  // for the 25 ms spacing
    std::map<subtable_key, table_state> m_tables;    // section_number 0 in the key
    std::map<subtable_key, pf_state> m_pf;

    // PCR-based stream rate: bits and 27 MHz ticks between consecutive PCRs.
    long double m_pcrBits = 0, m_pcrTicks = 0;
};

}  // namespace mpegcore
