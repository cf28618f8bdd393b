#include "mpegcore/TsAnalyzer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>

#include "mpegcore/MpegCRC32.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/MpegDescriptors.h"

namespace mpegcore {

namespace {

constexpr uint64_t kMs = CTsAnalyzer::ms;
constexpr uint64_t kSecond = 1000 * kMs;
constexpr uint64_t kPsiLimit = 500 * kMs;  // PAT, PMT, unreferenced PIDs
constexpr uint64_t kPcrLimit = 100 * kMs;
constexpr uint64_t kPtsLimit = 700 * kMs;
constexpr uint64_t kMinSpacing = 25 * kMs;
constexpr uint64_t kScanPeriod = 10 * kMs;
constexpr uint64_t kPcrWrap = (uint64_t(1) << 33) * 300;  // PCR period in 27 MHz ticks
constexpr uint64_t kPcrTicksPerSecond = 27000000;
constexpr uint64_t kPcrJumpTicks = kPcrTicksPerSecond / 10;  // 100 ms
constexpr long double kPcrAccuracyTicks = 13.5L;             // 500 ns
constexpr unsigned kGoodToRegain = 5;
constexpr unsigned kBadToLose = 2;
constexpr uint8_t kCaTag = 9;

enum reference_kind : uint8_t { kPmtPid = 1, kEsPid = 2, kPcrPid = 4, kCaPid = 8 };

struct check_info {
    const char* name;
    int priority;
};
constexpr check_info kChecks[tr101290_check_count] = {
    {"TS_sync_loss", 1},
    {"Sync_byte_error", 1},
    {"PAT_error", 1},
    {"PAT_error_2", 1},
    {"Continuity_count_error", 1},
    {"PMT_error", 1},
    {"PMT_error_2", 1},
    {"PID_error", 1},
    {"Transport_error", 2},
    {"CRC_error", 2},
    {"PCR_error", 2},
    {"PCR_repetition_error", 2},
    {"PCR_discontinuity_indicator_error", 2},
    {"PCR_accuracy_error", 2},
    {"PTS_error", 2},
    {"CAT_error", 2},
    {"NIT_error", 3},
    {"NIT_actual_error", 3},
    {"NIT_other_error", 3},
    {"SI_repetition_error", 3},
    {"Unreferenced_PID", 3},
    {"SDT_error", 3},
    {"SDT_actual_error", 3},
    {"SDT_other_error", 3},
    {"EIT_error", 3},
    {"EIT_actual_error", 3},
    {"EIT_other_error", 3},
    {"EIT_PF_error", 3},
    {"RST_error", 3},
    {"TDT_error", 3},
};

uint64_t pcrDiff(uint64_t later, uint64_t earlier) { return (later + kPcrWrap - earlier) % kPcrWrap; }

// Reads a table from one complete section.
template <class Table>
bool readTableFrom(Table& table, const unsigned char* section, size_t size) {
    VQSDK::VQBSReaderT<unsigned char*> reader(const_cast<unsigned char*>(section), static_cast<unsigned long>(size));
    return table.read(reader);
}

void addCaPids(const VQDescriptorList& list, std::vector<uint16_t>& pids) {
    for (const auto& d : list.descriptor)
        if (d->descriptor_tag == kCaTag)
            if (const auto* ca = dynamic_cast<const CA_descriptor*>(d.get()))
                pids.push_back(ca->CA_PID);
}

// The CRC_32 field at the end of a section (tells a changed section).
uint32_t storedCrc(const unsigned char* section, size_t size) {
    return uint32_t(section[size - 4]) << 24 | uint32_t(section[size - 3]) << 16 | uint32_t(section[size - 2]) << 8 |
           section[size - 1];
}

// PES stream ids without the optional header (and so without PTS/DTS).
bool hasPesHeader(uint8_t streamId) {
    switch (streamId) {
    case 0xBC:
    case 0xBE:
    case 0xBF:
    case 0xF0:
    case 0xF1:
    case 0xF2:
    case 0xF8:
    case 0xFF: return false;
    default: return true;
    }
}

}  // namespace

const char* tr101290_name(tr101290_check check) { return kChecks[static_cast<size_t>(check)].name; }
int tr101290_priority(tr101290_check check) { return kChecks[static_cast<size_t>(check)].priority; }

bool CTsAnalyzer::subtable_key::operator<(const subtable_key& o) const {
    return std::tie(pid, table_id, ext, section_number) < std::tie(o.pid, o.table_id, o.ext, o.section_number);
}

CTsAnalyzer::CTsAnalyzer() : CTsAnalyzer(options()) {}

CTsAnalyzer::CTsAnalyzer(const options& opts)
    : CBaseMpegParser(false),
      m_options(opts),
      m_pids(new pid_state[pid_count]),
      m_sections([this](uint16_t pid, const unsigned char* section, size_t size) { onSection(pid, section, size); }),
      m_referenced(pid_count, 0),
      m_service(pid_count, -1) {}

CTsAnalyzer::~CTsAnalyzer() = default;

bool CTsAnalyzer::has_errors(int priority) const {
    for (size_t i = 0; i < tr101290_check_count; ++i)
        if (kChecks[i].priority == priority && m_counts[i])
            return true;
    return false;
}

void CTsAnalyzer::report(tr101290_check check, uint16_t pid, uint64_t time, const char* detail) {
    ++m_counts[static_cast<size_t>(check)];
    switch (check) {
    case tr101290_check::TS_sync_loss: on_ts_sync_lost(); break;
    case tr101290_check::Sync_byte_error: on_sync_byte_error(); break;
    case tr101290_check::PAT_error: on_pat_error(0); break;
    case tr101290_check::PMT_error: on_pmt_error(pid, pid); break;
    case tr101290_check::PID_error: on_pid_error(pid); break;
    case tr101290_check::PCR_repetition_error:
    case tr101290_check::PCR_discontinuity_indicator_error:
        ++m_counts[static_cast<size_t>(tr101290_check::PCR_error)];
        break;
    default: break;
    }
    on_error(check, pid, time, detail);
}

void CTsAnalyzer::seen(interval& iv, uint64_t limit, tr101290_check check, uint16_t pid, const char* detail) {
    if (iv.armed && !iv.counted && m_tNow > iv.last + limit)
        report(check, pid, m_tNow, detail);
    iv.last = m_tNow;
    iv.armed = true;
    iv.counted = false;
}

void CTsAnalyzer::expire(interval& iv, uint64_t now, uint64_t limit, tr101290_check check, uint16_t pid,
                         const char* detail) {
    if (iv.armed && !iv.counted && now > iv.last + limit) {
        iv.counted = true;
        report(check, pid, now, detail);
    }
}

// ---- Entry points and synchronisation ----

bool CTsAnalyzer::syncBad(uint64_t time) {
    if (!m_bInSync)
        return false;
    report(tr101290_check::Sync_byte_error, no_pid, time, "sync byte not 0x47");
    if (++m_nBadInRow < kBadToLose)
        return true;
    m_bInSync = false;
    report(tr101290_check::TS_sync_loss, no_pid, time, "two bad sync bytes in a row");
    restartReferences();
    return false;
}

void CTsAnalyzer::syncGood() { m_nBadInRow = 0; }

void CTsAnalyzer::restartReferences() {
    for (const uint16_t pid : m_seenPids) {
        pid_state& st = m_pids[pid];
        st.continuity_counter = 0xFF;
        st.copies = 0;
        st.has_pcr = false;
        st.has_reference = false;
        st.has_rate_point = false;
    }
    m_sections.reset();
}

void CTsAnalyzer::push_packet(uint64_t time, const uint8_t* packet, size_t size) {
    if (!packet || size < kTsPacketSize)
        return;
    const uint64_t pos = m_nPos + (m_bStarted ? size : 0);
    if (packet[0] == kSyncByte) {
        if (m_bInSync) {
            syncGood();
            analyse(time, pos, packet);
        } else {
            // Regaining: the good packets are held until there are five.
            m_regain.emplace_back(packet, packet + kTsPacketSize);
            m_regainTimes.push_back(time);
            if (m_regain.size() == kGoodToRegain) {
                m_bInSync = true;
                m_nBadInRow = 0;
                const uint64_t first = pos - (kGoodToRegain - 1) * size;
                for (size_t i = 0; i < m_regain.size(); ++i)
                    analyse(m_regainTimes[i], first + i * size, m_regain[i].data());
                m_regain.clear();
                m_regainTimes.clear();
            }
        }
    } else if (syncBad(time)) {
        uint8_t fixed[kTsPacketSize];
        std::memcpy(fixed, packet, kTsPacketSize);
        fixed[0] = kSyncByte;
        analyse(time, pos, fixed);
    } else {
        m_regain.clear();
        m_regainTimes.clear();
    }
    m_nPos = pos;
    m_bStarted = true;
}

void CTsAnalyzer::push_raw(uint64_t tStart, uint64_t tStop, const uint8_t* data, size_t size) {
    if (!data || size == 0)
        return;
    m_tRunStart = tStart;
    m_tRunStop = tStop;
    m_nRunSize = size;
    size_t offset = 0;  // bytes of data already taken
    if (!m_raw.empty()) {
        // A held partial packet is completed with the first bytes of data;
        // anything else held (a search in progress) is joined with all of it.
        const size_t need = m_bRawAligned && m_raw.size() < m_nPacketSize ? m_nPacketSize - m_raw.size() : size;
        if (size < need) {
            m_raw.insert(m_raw.end(), data, data + size);
            return;
        }
        const size_t carried = m_raw.size();
        m_raw.insert(m_raw.end(), data, data + need);
        const size_t used = scanRun(m_raw.data(), m_raw.size(), -static_cast<ptrdiff_t>(carried));
        m_nRawPos += used;
        m_raw.erase(m_raw.begin(), m_raw.begin() + static_cast<ptrdiff_t>(used));
        offset = need;
        if (!m_raw.empty() && offset < size) {
            // Still searching: join the rest too.
            const size_t held = m_raw.size();
            m_raw.insert(m_raw.end(), data + offset, data + size);
            const size_t more =
                scanRun(m_raw.data(), m_raw.size(), static_cast<ptrdiff_t>(offset) - static_cast<ptrdiff_t>(held));
            m_nRawPos += more;
            m_raw.erase(m_raw.begin(), m_raw.begin() + static_cast<ptrdiff_t>(more));
            return;
        }
    }
    // The rest is read in place; only what is left over is kept.
    const size_t used = scanRun(data + offset, size - offset, static_cast<ptrdiff_t>(offset));
    m_nRawPos += used;
    m_raw.insert(m_raw.end(), data + offset + used, data + size);
}

size_t CTsAnalyzer::scanRun(const uint8_t* run, size_t n, ptrdiff_t chunkOffset) {
    // A packet is timed by its last byte, placed in the current chunk's span.
    // (double, not long double: the x87 conversion cost more than the rest of the packet)
    const double nsPerByte = static_cast<double>(m_tRunStop - m_tRunStart) / static_cast<double>(m_nRunSize);
    auto timeOfEnd = [&](size_t end) {
        const ptrdiff_t inChunk = chunkOffset + static_cast<ptrdiff_t>(end);
        const double part = inChunk > 0 ? static_cast<double>(inChunk) : 0.0;
        return m_tRunStart + static_cast<uint64_t>(nsPerByte * part + 0.5);
    };
    auto alignedAt = [&](size_t at, size_t packetSize) {
        for (unsigned k = 0; k < kGoodToRegain; ++k)
            if (run[at + k * packetSize] != kSyncByte)
                return false;
        return true;
    };
    size_t pos = 0;
    while (pos < n) {
        if (!m_bRawAligned) {
            // Search for five sync bytes in a row, 188 bytes apart, else 204.
            const size_t span188 = (kGoodToRegain - 1) * kTsPacketSize + 1;
            const size_t span204 = (kGoodToRegain - 1) * kRsPacketSize + 1;
            bool found = false, undecided = false;
            for (; pos < n; ++pos) {
                if (run[pos] != kSyncByte)
                    continue;
                if (pos + span188 > n || pos + span204 > n) {
                    if (pos + span188 <= n && alignedAt(pos, kTsPacketSize)) {
                        m_nPacketSize = kTsPacketSize;
                        found = true;
                    } else {
                        undecided = true;
                    }
                    break;
                }
                if (alignedAt(pos, kTsPacketSize) || alignedAt(pos, kRsPacketSize)) {
                    m_nPacketSize = alignedAt(pos, kTsPacketSize) ? kTsPacketSize : kRsPacketSize;
                    found = true;
                    break;
                }
            }
            if (!found || undecided)
                break;
            m_bRawAligned = true;
            m_bInSync = true;
            m_nBadInRow = 0;
        }
        if (pos + m_nPacketSize > n)
            break;
        const uint8_t* packet = run + pos;
        const uint64_t time = timeOfEnd(pos + m_nPacketSize);
        if (packet[0] == kSyncByte) {
            syncGood();
            analyse(time, m_nRawPos + pos, packet);
        } else if (syncBad(time)) {
            uint8_t fixed[kTsPacketSize];
            std::memcpy(fixed, packet, kTsPacketSize);
            fixed[0] = kSyncByte;
            analyse(time, m_nRawPos + pos, fixed);
        } else {
            m_bRawAligned = false;
            ++pos;
            continue;
        }
        pos += m_nPacketSize;
    }
    return std::min(pos, n);
}

void CTsAnalyzer::analyse(uint64_t time, uint64_t pos, const uint8_t* packet) {
    m_tNow = time;
    m_nPos = pos;
    if (m_nPackets == 0) {
        m_tFirst = time;
        m_tLastScan = time;
        for (interval* iv :
             {&m_patPackets, &m_patSections2, &m_nit, &m_nitActual, &m_sdtActual, &m_eitActual, &m_tdt}) {
            iv->last = time;
            iv->armed = true;
        }
    }
    m_tLast = time;
    ++m_nPackets;
    Process(const_cast<unsigned char*>(packet), kTsPacketSize);
    if (time >= m_tLastScan + kScanPeriod)
        check_timers(time);
}

// ---- Per packet ----

int CTsAnalyzer::OnProcess(unsigned int, transport_packet& packet) {
    const uint16_t pid = packet.PID;
    pid_state& st = m_pids[pid];
    if (!st.seen) {
        st.seen = true;
        st.first_seen = m_tNow;
        m_seenPids.push_back(pid);
    }
    ++st.packets;
    analyze_packet(packet);
    if (packet.transport_error_indicator) {
        ++st.tei;
        report(tr101290_check::Transport_error, pid, m_tNow, "transport_error_indicator set");
    }
    const bool scrambled = packet.transport_scrambling_control != 0;
    if (pid == transport_packet::null_PID)
        return 0;
    if (scrambled) {
        ++st.scrambled;
        if (!m_bHasCat)
            report(tr101290_check::CAT_error, pid, m_tNow, "scrambled packet without a CAT");
    }
    const uint8_t kind = m_referenced[pid];
    if (pid == kPidPAT) {
        seen(m_patPackets, kPsiLimit, tr101290_check::PAT_error, kPidPAT, "no PAT PID packet for 500 ms");
        if (scrambled) {
            report(tr101290_check::PAT_error, kPidPAT, m_tNow, "scrambled PAT PID packet");
            report(tr101290_check::PAT_error_2, kPidPAT, m_tNow, "scrambled PAT PID packet");
        }
    } else if (kind & kPmtPid) {
        auto program = m_programs.find(pid);
        if (program != m_programs.end())
            seen(program->second.packets, kPsiLimit, tr101290_check::PMT_error, pid, "no PMT PID packet for 500 ms");
        if (scrambled) {
            report(tr101290_check::PMT_error, pid, m_tNow, "scrambled PMT PID packet");
            report(tr101290_check::PMT_error_2, pid, m_tNow, "scrambled PMT PID packet");
        }
    }
    bool duplicate = false;
    checkContinuity(st, packet, duplicate);
    if (duplicate)
        return 0;
    if (st.presence.armed)
        seen(st.presence, m_options.pid_timeout, tr101290_check::PID_error, pid, "referenced PID absent");
    if (packet.hasAdaptationField() && packet.af.adaptation_field_length >= 7 && packet.af.PCR_flag)
        checkPCR(st, packet);
    if (isSectionPid(pid))
        m_sections.push_packet(packet);
    else if (packet.payload_unit_start_indicator && packet.hasPayload() && !scrambled)
        checkPES(st, packet);
    return 0;
}

bool CTsAnalyzer::isSectionPid(uint16_t pid) const {
    return pid <= kPidTSDT || (pid >= kPidNIT && pid <= kPidTDT) || (m_referenced[pid] & kPmtPid);
}

void CTsAnalyzer::checkContinuity(pid_state& st, const transport_packet& packet, bool& duplicate) {
    const uint8_t cc = packet.continuity_counter;
    const bool payload = packet.hasPayload();
    const uint8_t last = st.continuity_counter;
    st.continuity_counter = cc;
    if (last == 0xFF || (packet.hasAdaptationField() && packet.af.discontinuity_indicator)) {
        st.copies = 0;
        return;
    }
    const uint8_t expected = payload ? ((last + 1) & 0x0F) : last;
    if (cc == expected) {
        if (payload)
            st.copies = 0;
        return;
    }
    if (payload && cc == last) {
        duplicate = true;
        ++st.duplicates;
        if (st.copies++ == 0)
            return;  // one repeat is allowed
        ++st.cc_errors;
        report(tr101290_check::Continuity_count_error, packet.PID, m_tNow, "packet sent more than twice");
        return;
    }
    st.copies = 0;
    ++st.cc_errors;
    report(tr101290_check::Continuity_count_error, packet.PID, m_tNow, "unexpected continuity counter");
}

void CTsAnalyzer::checkPCR(pid_state& st, const transport_packet& packet) {
    const uint64_t pcr = packet.af.program_clock_reference_base * 300 + packet.af.program_clock_reference_extension;
    const uint16_t pid = packet.PID;
    ++st.pcr;
    seen(st.pcr_gap, kPcrLimit, tr101290_check::PCR_repetition_error, pid, "PCR interval over 100 ms");
    bool restart = packet.af.discontinuity_indicator != 0;
    if (st.has_pcr && !restart) {
        const uint64_t diff = pcrDiff(pcr, st.last_pcr);
        if (diff > kPcrJumpTicks) {
            report(tr101290_check::PCR_discontinuity_indicator_error, pid, m_tNow,
                   "PCR jump without discontinuity_indicator");
            restart = true;
        } else {
            m_pcrBits += static_cast<long double>(m_nPos - st.last_pcr_pos) * 8;
            m_pcrTicks += diff;
        }
    }
    st.has_pcr = true;
    st.last_pcr = pcr;
    st.last_pcr_pos = m_nPos;
    if (restart || !st.has_reference) {
        st.has_reference = true;
        st.has_rate_point = false;
        st.ref_pcr = pcr;
        st.ref_pos = m_nPos;
        return;
    }
    const long double bytes = static_cast<long double>(m_nPos - st.ref_pos);
    long double expected;
    if (m_options.transport_rate) {
        expected = bytes * 8 * kPcrTicksPerSecond / m_options.transport_rate;
    } else if (st.has_rate_point && st.rate_pos > st.ref_pos) {
        expected = bytes * pcrDiff(st.rate_pcr, st.ref_pcr) / static_cast<long double>(st.rate_pos - st.ref_pos);
    } else {
        st.has_rate_point = true;
        st.rate_pcr = pcr;
        st.rate_pos = m_nPos;
        return;
    }
    const long double error = static_cast<long double>(pcrDiff(pcr, st.ref_pcr)) - expected;
    if (std::fabs(error) > kPcrAccuracyTicks) {
        report(tr101290_check::PCR_accuracy_error, pid, m_tNow, "PCR more than 500 ns off");
        return;  // an inaccurate PCR does not move the rate estimate
    }
    st.has_rate_point = true;
    st.rate_pcr = pcr;
    st.rate_pos = m_nPos;
}

void CTsAnalyzer::checkPES(pid_state& st, const transport_packet& packet) {
    const unsigned char* p = packet.pCurrDataPkt;
    if (!p || packet.lCurrSizePkt < 9 || p[0] != 0 || p[1] != 0 || p[2] != 1 || !hasPesHeader(p[3]))
        return;
    const uint8_t flags = p[7] >> 6;
    if (flags & 2) {
        ++st.pts;
        seen(st.pts_gap, kPtsLimit, tr101290_check::PTS_error, packet.PID, "PTS interval over 700 ms");
    }
    if (flags == 3)
        ++st.dts;
}

// ---- Sections ----

void CTsAnalyzer::onSection(uint16_t pid, const unsigned char* section, size_t size) {
    const uint8_t tableId = section[0];
    const bool longForm = section[1] & 0x80;
    if (longForm || tableId == kTableIdTOT) {
        if (size < 8 || crc32_mpeg2(section, size) != 0) {
            report(tr101290_check::CRC_error, pid, m_tNow, "section CRC wrong");
            return;
        }
    }
    // The PAT, CAT and PMT have the long form; a short one is not read.
    const bool psi = pid <= kPidCAT || (m_referenced[pid] & kPmtPid);
    if (psi && !longForm) {
        if (pid == kPidPAT && tableId != kTableIdPAT) {
            report(tr101290_check::PAT_error, kPidPAT, m_tNow, "table_id not 0 on the PAT PID");
            report(tr101290_check::PAT_error_2, kPidPAT, m_tNow, "table_id not 0 on the PAT PID");
        } else if (pid == kPidCAT && tableId != kTableIdCAT) {
            report(tr101290_check::CAT_error, kPidCAT, m_tNow, "table_id not 1 on the CAT PID");
        }
        return;
    }
    const uint16_t ext = longForm ? static_cast<uint16_t>((section[3] << 8) | section[4]) : 0;
    const uint8_t sectionNumber = longForm ? section[6] : 0;

    table_state& table = m_tables[{pid, tableId, ext, 0}];
    ++table.sections;
    if (table.first_section < 0)
        table.first_section = sectionNumber;
    if (sectionNumber == table.first_section) {
        if (table.repeated) {
            const int64_t gap = static_cast<int64_t>((m_tNow - table.last_time + kMs / 2) / kMs);  // nearest ms
            table.min_ms = table.min_ms < 0 ? gap : std::min(table.min_ms, gap);
            table.max_ms = std::max(table.max_ms, gap);
        }
        table.repeated = true;
        table.last_time = m_tNow;
    }

    if (pid == kPidPAT) {
        if (tableId != kTableIdPAT) {
            report(tr101290_check::PAT_error, kPidPAT, m_tNow, "table_id not 0 on the PAT PID");
            report(tr101290_check::PAT_error_2, kPidPAT, m_tNow, "table_id not 0 on the PAT PID");
            return;
        }
        seen(m_patSections2, kPsiLimit, tr101290_check::PAT_error_2, kPidPAT, "no PAT for 500 ms");
        onPAT(section, size);
    } else if (pid == kPidCAT) {
        if (tableId != kTableIdCAT)
            report(tr101290_check::CAT_error, kPidCAT, m_tNow, "table_id not 1 on the CAT PID");
        else
            onCAT(section, size);
    } else if (m_referenced[pid] & kPmtPid) {
        if (tableId == kTableIdPMT)
            onPMT(pid, section, size);
    } else if (pid >= kPidNIT && pid <= kPidTDT) {
        checkSI(pid, tableId, ext, sectionNumber, section, size);
    }
}

void CTsAnalyzer::minSpacing(const subtable_key& key, tr101290_check check, uint16_t pid) {
    auto found = m_lastSection.find(key);
    if (found != m_lastSection.end() && m_tNow < found->second + kMinSpacing) {
        report(tr101290_check::SI_repetition_error, pid, m_tNow, "section repeated within 25 ms");
        if (check != tr101290_check::SI_repetition_error)
            report(check, pid, m_tNow, "section repeated within 25 ms");
    }
    m_lastSection[key] = m_tNow;
}

void CTsAnalyzer::checkSI(uint16_t pid, uint8_t tableId, uint16_t ext, uint8_t sectionNumber,
                          const unsigned char* section, size_t size) {
    using C = tr101290_check;
    const subtable_key key{pid, tableId, ext, sectionNumber};
    const uint32_t subKey = (uint32_t(ext) << 8) | sectionNumber;
    if (tableId == kTableIdST)
        return;  // stuffing table, allowed on every SI PID
    switch (pid) {
    case kPidNIT:
        if (tableId == kTableIdNITActual) {
            seen(m_nit, 10 * kSecond, C::NIT_error, pid, "no NIT for 10 s");
            seen(m_nitActual, 10 * kSecond, C::NIT_actual_error, pid, "no NIT actual for 10 s");
            minSpacing(key, C::NIT_actual_error, pid);
        } else if (tableId == kTableIdNITOther) {
            seen(m_nit, 10 * kSecond, C::NIT_error, pid, "no NIT for 10 s");
            seen(m_nitOther[subKey], 10 * kSecond, C::NIT_other_error, pid, "no NIT other for 10 s");
            minSpacing(key, C::SI_repetition_error, pid);
        } else {
            report(C::NIT_error, pid, m_tNow, "table_id not a NIT on the NIT PID");
        }
        break;
    case kPidSDT:
        if (tableId == kTableIdSDTActual) {
            seen(m_sdtActual, 2 * kSecond, C::SDT_actual_error, pid, "no SDT actual for 2 s");
            minSpacing(key, C::SDT_actual_error, pid);
        } else if (tableId == kTableIdSDTOther) {
            seen(m_sdtOther[ext], 10 * kSecond, C::SDT_other_error, pid, "no SDT other for 10 s");
            minSpacing(key, C::SI_repetition_error, pid);
        } else if (tableId == kTableIdBAT) {
            seen(m_bat[subKey], 10 * kSecond, C::SI_repetition_error, pid, "no BAT for 10 s");
            minSpacing(key, C::SI_repetition_error, pid);
        } else {
            report(C::SDT_error, pid, m_tNow, "table_id not an SDT or BAT on the SDT PID");
        }
        break;
    case kPidEIT: {
        if (tableId < kTableIdEITActual || tableId > kTableIdEITOtherScheduleLast) {
            report(C::EIT_error, pid, m_tNow, "table_id not an EIT on the EIT PID");
            break;
        }
        const uint32_t service = size >= 14 ? (uint32_t(section[8]) << 24 | uint32_t(section[9]) << 16 | ext) : ext;
        if (tableId == kTableIdEITActual && sectionNumber == 0) {
            seen(m_eitActual, 2 * kSecond, C::EIT_actual_error, pid, "no EIT p/f actual for 2 s");
            minSpacing(key, C::EIT_actual_error, pid);
        } else {
            if (tableId == kTableIdEITOther && sectionNumber == 0)
                seen(m_eitOther[service], 10 * kSecond, C::EIT_other_error, pid, "no EIT p/f other for 10 s");
            minSpacing(key, C::SI_repetition_error, pid);
        }
        if ((tableId == kTableIdEITActual || tableId == kTableIdEITOther) && sectionNumber <= 1) {
            pf_state& pf = m_pf[{static_cast<uint16_t>(service >> 16), tableId, ext, 0}];
            if (!pf.seen[0] && !pf.seen[1])
                pf.first = m_tNow;
            pf.seen[sectionNumber] = true;
        }
        break;
    }
    case kPidRST:
        if (tableId == kTableIdRST)
            minSpacing(key, C::RST_error, pid);
        else
            report(C::RST_error, pid, m_tNow, "table_id not an RST on the RST PID");
        break;
    case kPidTDT:
        if (tableId == kTableIdTDT) {
            seen(m_tdt, 30 * kSecond, C::TDT_error, pid, "no TDT for 30 s");
            minSpacing(key, C::TDT_error, pid);
        } else if (tableId == kTableIdTOT) {
            seen(m_tot[0], 30 * kSecond, C::SI_repetition_error, pid, "no TOT for 30 s");
            minSpacing(key, C::SI_repetition_error, pid);
        } else {
            report(C::TDT_error, pid, m_tNow, "table_id not a TDT or TOT on the TDT PID");
        }
        break;
    default: break;
    }
}

void CTsAnalyzer::onPAT(const unsigned char* section, size_t size) {
    const uint8_t sectionNumber = section[6];
    const uint32_t crc = storedCrc(section, size);
    if (m_bHasPat && m_patSections.count(sectionNumber) && crc == m_patCrcs[sectionNumber])
        return;
    CPAT pat(nullptr, 1024);
    if (!readTableFrom(pat, section, size))
        return;
    m_patCrcs[sectionNumber] = crc;
    auto& programs = m_patSections[sectionNumber];
    programs.clear();
    for (const auto& entry : pat.program_map)
        if (entry.second.program_number != 0)
            programs[entry.first] = entry.second.program_number;
    m_bHasPat = true;
    std::map<uint16_t, uint16_t> listed;
    for (const auto& part : m_patSections)
        listed.insert(part.second.begin(), part.second.end());
    for (auto it = m_programs.begin(); it != m_programs.end();)
        it = listed.count(it->first) ? std::next(it) : m_programs.erase(it);
    for (const auto& entry : listed) {
        auto inserted = m_programs.emplace(entry.first, program_info());
        program_info& program = inserted.first->second;
        if (inserted.second || program.program_number != entry.second) {
            program = program_info();
            program.program_number = entry.second;
            program.packets = {m_tNow, true, false};
            program.sections = {m_tNow, true, false};
        }
    }
    rebuildReferences();
}

void CTsAnalyzer::onPMT(uint16_t pid, const unsigned char* section, size_t size) {
    auto found = m_programs.find(pid);
    if (found == m_programs.end())
        return;
    program_info& program = found->second;
    seen(program.sections, kPsiLimit, tr101290_check::PMT_error_2, pid, "no PMT for 500 ms");
    const uint32_t crc = storedCrc(section, size);
    if (program.has_pmt && crc == program.crc)
        return;
    CPMT pmt(nullptr, 1024);
    if (!readTableFrom(pmt, section, size))
        return;
    program.crc = crc;
    program.has_pmt = true;
    program.pcr_pid = pmt.PCR_PID;
    program.pids.clear();
    program.ca_pids.clear();
    addCaPids(pmt.descriptors, program.ca_pids);
    for (const auto& stream : pmt.stream_map) {
        program.pids.push_back(stream.first);
        addCaPids(stream.second->descriptors, program.ca_pids);
    }
    rebuildReferences();
}

void CTsAnalyzer::onCAT(const unsigned char* section, size_t size) {
    const uint32_t crc = storedCrc(section, size);
    if (m_bHasCat && crc == m_nCatCrc)
        return;
    CCAT cat(nullptr, 1024);
    if (!readTableFrom(cat, section, size))
        return;
    m_bHasCat = true;
    m_nCatCrc = crc;
    std::vector<uint16_t> pids;
    addCaPids(cat.descriptors, pids);
    m_emmPids.assign(pids.begin(), pids.end());
    rebuildReferences();
}

void CTsAnalyzer::rebuildReferences() {
    std::fill(m_referenced.begin(), m_referenced.end(), 0);
    std::fill(m_service.begin(), m_service.end(), -1);
    auto mark = [&](uint16_t pid, uint8_t kind, int service) {
        pid &= 0x1FFF;
        m_referenced[pid] |= kind;
        if (m_service[pid] < 0)
            m_service[pid] = service;
    };
    for (const auto& entry : m_programs) {
        const program_info& program = entry.second;
        mark(entry.first, kPmtPid, program.program_number);
        if (!program.has_pmt)
            continue;
        mark(program.pcr_pid, kPcrPid, program.program_number);
        for (const uint16_t pid : program.pids)
            mark(pid, kEsPid, program.program_number);
        for (const uint16_t pid : program.ca_pids)
            mark(pid, kCaPid, program.program_number);
    }
    for (const uint16_t pid : m_emmPids)
        mark(pid, kCaPid, -1);
    for (size_t pid = 0; pid < pid_count; ++pid) {
        interval& presence = m_pids[pid].presence;
        if (!(m_referenced[pid] & kEsPid))
            presence.armed = false;
        else if (!presence.armed)
            presence = {m_tNow, true, false};
    }
}

// ---- Timers and figures ----

void CTsAnalyzer::check_timers(uint64_t now) {
    using C = tr101290_check;
    m_tLastScan = now;
    expire(m_patPackets, now, kPsiLimit, C::PAT_error, kPidPAT, "no PAT PID packet for 500 ms");
    expire(m_patSections2, now, kPsiLimit, C::PAT_error_2, kPidPAT, "no PAT for 500 ms");
    expire(m_nit, now, 10 * kSecond, C::NIT_error, kPidNIT, "no NIT for 10 s");
    expire(m_nitActual, now, 10 * kSecond, C::NIT_actual_error, kPidNIT, "no NIT actual for 10 s");
    expire(m_sdtActual, now, 2 * kSecond, C::SDT_actual_error, kPidSDT, "no SDT actual for 2 s");
    expire(m_eitActual, now, 2 * kSecond, C::EIT_actual_error, kPidEIT, "no EIT p/f actual for 2 s");
    expire(m_tdt, now, 30 * kSecond, C::TDT_error, kPidTDT, "no TDT for 30 s");
    for (auto& e : m_nitOther)
        expire(e.second, now, 10 * kSecond, C::NIT_other_error, kPidNIT, "no NIT other for 10 s");
    for (auto& e : m_sdtOther)
        expire(e.second, now, 10 * kSecond, C::SDT_other_error, kPidSDT, "no SDT other for 10 s");
    for (auto& e : m_eitOther)
        expire(e.second, now, 10 * kSecond, C::EIT_other_error, kPidEIT, "no EIT p/f other for 10 s");
    for (auto& e : m_bat)
        expire(e.second, now, 10 * kSecond, C::SI_repetition_error, kPidSDT, "no BAT for 10 s");
    for (auto& e : m_tot)
        expire(e.second, now, 30 * kSecond, C::SI_repetition_error, kPidTDT, "no TOT for 30 s");
    for (auto& e : m_programs) {
        expire(e.second.packets, now, kPsiLimit, C::PMT_error, e.first, "no PMT PID packet for 500 ms");
        expire(e.second.sections, now, kPsiLimit, C::PMT_error_2, e.first, "no PMT for 500 ms");
        for (const uint16_t pid : e.second.pids)
            expire(m_pids[pid].presence, now, m_options.pid_timeout, C::PID_error, pid, "referenced PID absent");
    }
    for (auto& e : m_pf) {
        pf_state& pf = e.second;
        const uint64_t limit = e.first.table_id == kTableIdEITActual ? 2 * kSecond : 10 * kSecond;
        if (!pf.counted && pf.seen[0] != pf.seen[1] && now > pf.first + limit) {
            pf.counted = true;
            report(C::EIT_PF_error, kPidEIT, now, "EIT p/f section 0 or 1 missing");
        }
    }
    for (const uint16_t pid : m_seenPids) {
        pid_state& st = m_pids[pid];
        expire(st.pcr_gap, now, kPcrLimit, C::PCR_repetition_error, pid, "PCR interval over 100 ms");
        expire(st.pts_gap, now, kPtsLimit, C::PTS_error, pid, "PTS interval over 700 ms");
        if (!st.unreferenced_counted && pid > 0x1F && pid != transport_packet::null_PID && !m_referenced[pid] &&
            now > st.first_seen + kPsiLimit) {
            st.unreferenced_counted = true;
            report(C::Unreferenced_PID, pid, now, "PID not referenced");
        }
    }
}

void CTsAnalyzer::finish() {
    if (m_nPackets)
        check_timers(m_tLast);
}

ts_stream_figures CTsAnalyzer::stream_figures() const {
    ts_stream_figures figures;
    figures.packets = m_nPackets;
    if (m_pcrTicks > 0)
        figures.bitrate = static_cast<uint64_t>(std::llround(m_pcrBits * kPcrTicksPerSecond / m_pcrTicks));
    else
        figures.bitrate = m_options.transport_rate;
    figures.duration_ms = m_nPackets ? (m_tLast - m_tFirst) / kMs : 0;
    return figures;
}

std::vector<ts_pid_figures> CTsAnalyzer::pid_figures() const {
    const ts_stream_figures stream = stream_figures();
    std::vector<uint16_t> pids = m_seenPids;
    std::sort(pids.begin(), pids.end());
    std::vector<ts_pid_figures> out;
    out.reserve(pids.size());
    for (const uint16_t pid : pids) {
        const pid_state& st = m_pids[pid];
        ts_pid_figures f;
        f.pid = pid;
        f.packets = st.packets;
        f.bitrate =
            m_nPackets ? static_cast<uint64_t>(static_cast<long double>(st.packets) * stream.bitrate / m_nPackets) : 0;
        f.cc_errors = st.cc_errors;
        f.duplicates = st.duplicates;
        f.scrambled = st.scrambled;
        f.tei = st.tei;
        f.pcr = st.pcr;
        f.pts = st.pts;
        f.dts = st.dts;
        f.service = m_service[pid];
        out.push_back(f);
    }
    return out;
}

std::vector<ts_table_figures> CTsAnalyzer::table_figures() const {
    std::vector<ts_table_figures> out;
    for (const auto& e : m_tables) {
        ts_table_figures f;
        f.pid = e.first.pid;
        f.table_id = e.first.table_id;
        f.table_id_ext = e.first.ext;
        f.sections = e.second.sections;
        f.repetition_ms_min = e.second.min_ms;
        f.repetition_ms_max = e.second.max_ms;
        out.push_back(f);
    }
    return out;
}

std::vector<ts_service_figures> CTsAnalyzer::service_figures() const {
    std::vector<ts_service_figures> out;
    for (const auto& e : m_programs) {
        ts_service_figures f;
        f.service_id = e.second.program_number;
        f.pmt_pid = e.first;
        f.pcr_pid = e.second.pcr_pid;
        f.pids = e.second.pids;
        out.push_back(f);
    }
    std::sort(out.begin(), out.end(),
              [](const ts_service_figures& a, const ts_service_figures& b) { return a.service_id < b.service_id; });
    return out;
}

}  // namespace mpegcore
