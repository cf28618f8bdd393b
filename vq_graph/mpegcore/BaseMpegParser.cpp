#include "mpegcore/BaseMpegParser.h"

#include <cstdio>
#include <cstring>

#include "mpegcore/MpegConstants.h"
#include "mpegcore/MpegDescriptors.h"

namespace mpegcore {

namespace {

constexpr unsigned long kTablePSIBuffer = 1024;
constexpr unsigned long kTableSIBuffer = 4096;
constexpr size_t kTailAlign = 8;
constexpr uint8_t kCATag = 0x09;

// The CA descriptors of the list that point at pid.
unsigned countCaDescriptors(const VQDescriptorList& list, uint16_t pid) {
    unsigned count = 0;
    for (const auto& d : list.descriptor) {
        if (d->descriptor_tag != kCATag)
            continue;
        const auto* ca = dynamic_cast<const CA_descriptor*>(d.get());
        if (ca && ca->CA_PID == pid)
            ++count;
    }
    return count;
}

}  // namespace

CBaseMpegParser::CBaseMpegParser(bool useTail)
    : m_PAT(kTablePSIBuffer, &m_nRouteGeneration),
      m_CAT(kTablePSIBuffer, &m_nRouteGeneration),
      m_TSDT(kTablePSIBuffer),
      m_EIT_Actual(kTableSIBuffer),
      m_EIT_Other(kTableSIBuffer),
      m_EIT_Actual_Shedule(kTableSIBuffer),
      m_EIT_Other_Shedule(kTableSIBuffer),
      m_SDT_Actual(kTablePSIBuffer),
      m_SDT_Other(kTablePSIBuffer),
      m_BAT(kTableSIBuffer),
      m_NIT_Actual(kTablePSIBuffer),
      m_NIT_Other(kTablePSIBuffer),
      m_TDT(kTablePSIBuffer),
      m_TOT(kTablePSIBuffer),
      m_pPIDs(new CBasePID[pid_count]),
      m_bUseTail(useTail) {
    m_pTailData.alloc(transport_packet::size - 1, kTailAlign);
    for (size_t pid = 0; pid < pid_count; ++pid)
        m_pPIDs[pid].set_alarm_event(this);
}

CBaseMpegParser::~CBaseMpegParser() = default;

unsigned long CBaseMpegParser::Process(unsigned char* data, unsigned long size) {
    if (!data || size == 0)
        return 0;
    unsigned char* run = data;
    size_t length = size;
    if (m_bUseTail && m_lTailLength) {
        keepTail(data, size);  // appended behind the held bytes
        run = m_pTailData.get();
        length = m_lTailLength;
        m_lTailLength = 0;
    }
    // One packet record serves the whole run: building a fresh one zeroes its
    // 300-byte adaptation field for every packet, which cost more than the
    // rest of the header. A nested call (from a callback) gets its own record.
    std::unique_ptr<transport_packet> nested;
    transport_packet* record = &m_packet;
    if (m_bInProcess) {
        nested.reset(new transport_packet);
        record = nested.get();
    }
    const bool outer = !m_bInProcess;
    m_bInProcess = true;
    size_t pos = 0;
    while (length - pos >= static_cast<size_t>(transport_packet::size)) {
        unsigned char* p = run + pos;
        if (p[0] != kSyncByte) {
            on_sync_byte_error();
            ++pos;
            continue;
        }
        transport_packet& packet = *record;
        // A record that carried an adaptation field is blanked again, so that
        // every packet without one still shows an all-zero field.
        if (record != &m_packet || m_bAfDirty) {
            packet.af = adaptation_field();
            m_bAfDirty = false;
        }
        packet.transport_error_indicator = p[1] >> 7;
        packet.payload_unit_start_indicator = (p[1] >> 6) & 1;
        packet.transport_priority = (p[1] >> 5) & 1;
        packet.PID = static_cast<uint16_t>(((p[1] & 0x1F) << 8) | p[2]);
        packet.transport_scrambling_control = p[3] >> 6;
        packet.adaptation_field_control = (p[3] >> 4) & 3;
        packet.continuity_counter = p[3] & 0x0F;
        packet.pStartDataPkt = p;
        packet.lSizePkt = transport_packet::size;
        packet.pCurrDataPkt = p + 4;
        packet.lCurrSizePkt = transport_packet::size - 4;
        if (record == &m_packet && packet.hasAdaptationField())
            m_bAfDirty = true;
        OnPreProcess(0, packet);
        ParserData(packet);
        OnProcess(0, packet);
        pos += transport_packet::size;
    }
    if (outer)
        m_bInProcess = false;
    if (m_bUseTail && length > pos)
        keepTail(run + pos, length - pos);
    return static_cast<unsigned long>(pos);
}

void CBaseMpegParser::keepTail(const unsigned char* from, size_t size) {
    const size_t needed = m_lTailLength + size;
    if (needed > m_pTailData.size() || !m_pTailData.isValid()) {
        VQSDK::VQAlignMemory<unsigned char> grown;
        grown.alloc(static_cast<unsigned long>(needed), kTailAlign);
        if (m_lTailLength)
            std::memcpy(grown.get(), m_pTailData.get(), m_lTailLength);
        m_pTailData = std::move(grown);
    }
    if (size)
        std::memmove(m_pTailData.get() + m_lTailLength, from, size);
    m_lTailLength += size;
}

bool CBaseMpegParser::ParserData(transport_packet& packet) {
    if (packet.PID >= pid_count)
        return false;
    if (packet.hasAdaptationField() && !parseAdaptationField(packet))
        return false;
    CDataAccumulator* completed = m_pPIDs[packet.PID].putPacket(packet);
    switch (packet.PID) {
    case kPidPAT:
    case kPidCAT:
    case kPidTSDT:
    case kPidNIT:
    case kPidSDT:
    case kPidEIT:
    case kPidTDT: routeSectionPid(packet); return true;
    case transport_packet::null_PID: OnNULL(&packet); return true;
    default: routeOtherPid(packet, completed); return true;
    }
}

bool CBaseMpegParser::parseAdaptationField(transport_packet& packet) {
    VQSDK::VQBSReaderT<unsigned char*> r(packet.pCurrDataPkt, static_cast<unsigned long>(packet.lCurrSizePkt));
    adaptation_field& af = packet.af;
    af = adaptation_field();
    r.getBits<8>(af.adaptation_field_length);
    if (af.adaptation_field_length > transport_packet::size - 5)
        return false;
    if (af.adaptation_field_length) {
        r.getBits<1>(af.discontinuity_indicator);
        r.getBits<1>(af.random_access_indicator);
        r.getBits<1>(af.elementary_stream_priority_indicator);
        r.getBits<1>(af.PCR_flag);
        r.getBits<1>(af.OPCR_flag);
        r.getBits<1>(af.splicing_point_flag);
        r.getBits<1>(af.transport_private_data_flag);
        r.getBits<1>(af.adaptation_field_extension_flag);
        if (af.PCR_flag) {
            r.getBits<33>(af.program_clock_reference_base);
            r.getBits<6>(af.reserved);
            r.getBits<9>(af.program_clock_reference_extension);
        }
        if (af.OPCR_flag) {
            r.getBits<33>(af.original_program_clock_reference_base);
            r.getBits<6>(af.reserved1);
            r.getBits<9>(af.original_program_clock_reference_extension);
        }
        if (af.splicing_point_flag)
            r.getBits<8>(af.splice_countdown);
        if (af.transport_private_data_flag) {
            r.getBits<8>(af.transport_private_data_length);
            if (af.transport_private_data_length > sizeof(af.private_data_byte))
                return false;
            for (unsigned i = 0; i < af.transport_private_data_length; ++i)
                r.getBits<8>(af.private_data_byte[i]);
        }
        if (af.adaptation_field_extension_flag) {
            r.getBits<8>(af.adaptation_field_extension_length);
            r.getBits<1>(af.ltw_flag);
            r.getBits<1>(af.piecewise_rate_flag);
            r.getBits<1>(af.seamless_splice_flag);
            r.getBits<5>(af.reserved2);
            if (af.ltw_flag) {
                r.getBits<1>(af.ltw_valid_flag);
                r.getBits<15>(af.ltw_offset);
            }
            if (af.piecewise_rate_flag) {
                r.getBits<2>(af.reserved3);
                r.getBits<22>(af.piecewise_rate);
            }
            if (af.seamless_splice_flag) {
                r.getBits<4>(af.splice_type);
                r.getBits<3>(af.DTS_next_AU);
                r.getBits<1>(af.marker_bit);
                r.getBits<15>(af.DTS_next_AU1);
                r.getBits<1>(af.marker_bit1);
                r.getBits<15>(af.DTS_next_AU2);
                r.getBits<1>(af.marker_bit2);
            }
        }
    }
    if (packet.adaptation_field_control == 3) {
        packet.pCurrDataPkt += af.adaptation_field_length + 1;
        packet.lCurrSizePkt -= af.adaptation_field_length + 1;
    }
    if (af.adaptation_field_length && af.PCR_flag)
        OnPCR(&packet);
    return true;
}

template <class T>
bool CBaseMpegParser::parseCollected(uint16_t pid, CPacketWrapper<T>& wrapper) {
    CDataAccumulator* section = m_pPIDs[pid].getCurData();
    if (!section || section->getLength() < 3)
        return false;
    VQSDK::VQBSReaderT<unsigned char*> reader(section->get(), static_cast<unsigned long>(section->getLength()));
    reader.skipBytes(1);  // pointer_field: the section is expected right after it
    return wrapper.Parser(reader);
}

template <class T, class Report>
void CBaseMpegParser::readSection(const transport_packet& packet, CPacketWrapper<T>& wrapper, Report onTable) {
    std::lock_guard<std::mutex> lock(m_cs);
    if (parseCollected(packet.PID, wrapper))
        onTable(wrapper.m_pLast.get());
}

void CBaseMpegParser::routeSectionPid(const transport_packet& packet) {
    const CDataAccumulator* section = m_pPIDs[packet.PID].getCurData();
    const bool enough = section && section->getLength() >= 3;
    if (!enough) {
        if (packet.PID == kPidEIT)
            std::puts("mpegcore: eit pkt skip");
        return;
    }
    const uint8_t table_id = section->get()[1];
    switch (packet.PID) {
    case kPidPAT:
        readSection(packet, m_PAT, [this](CPAT* pat) {
            ClearPMT(*pat);
            OnPAT(pat);
        });
        break;
    case kPidCAT: readSection(packet, m_CAT, [this](CCAT* cat) { OnCAT(cat); }); break;
    case kPidTSDT: readSection(packet, m_TSDT, [this](CTSDT* tsdt) { OnTSDT(tsdt); }); break;
    case kPidNIT:
        if (table_id == kTableIdNITActual)
            readSection(packet, m_NIT_Actual, [this](CNIT* nit) { OnNIT(nit); });
        else if (table_id == kTableIdNITOther)
            readSection(packet, m_NIT_Other, [this](CNIT* nit) { OnNIT(nit); });
        break;
    case kPidSDT:
        if (table_id == kTableIdSDTActual)
            readSection(packet, m_SDT_Actual, [this](CSDT* sdt) { OnSDT(sdt); });
        else if (table_id == kTableIdSDTOther)
            readSection(packet, m_SDT_Other, [this](CSDT* sdt) { OnSDT(sdt); });
        else if (table_id == kTableIdBAT)
            readSection(packet, m_BAT, [this](CBAT* bat) { OnBAT(bat); });
        break;
    case kPidEIT: {
        auto report = [this](CEIT* eit) { OnEIT(eit); };
        if (table_id == kTableIdEITActual)
            readSection(packet, m_EIT_Actual, report);
        else if (table_id == kTableIdEITOther)
            readSection(packet, m_EIT_Other, report);
        else if (table_id >= kTableIdEITActualScheduleFirst && table_id <= kTableIdEITActualScheduleLast)
            readSection(packet, m_EIT_Actual_Shedule, report);
        else if (table_id >= kTableIdEITOtherScheduleFirst && table_id <= kTableIdEITOtherScheduleLast)
            readSection(packet, m_EIT_Other_Shedule, report);
        break;
    }
    case kPidTDT:
        if (table_id == kTableIdTOT)
            readSection(packet, m_TOT, [this](CTOT* tot) { OnTOT(tot); });
        else if (table_id == kTableIdTDT)
            readSection(packet, m_TDT, [this](CTDT* tdt) { OnTDT(tdt); });
        break;
    default: break;
    }
}

void CBaseMpegParser::readPMT(const transport_packet& packet, CBaseMpegProgram& program) {
    std::lock_guard<std::mutex> lock(m_cs);
    auto& wrapper = m_MapPMT[packet.PID];
    if (!wrapper) {
        wrapper = std::make_shared<CPacketWrapper<CPMT>>(kTablePSIBuffer, &m_nRouteGeneration);
        ++m_nRouteGeneration;
    }
    if (parseCollected(packet.PID, *wrapper))
        OnPMT(&program, wrapper->m_pLast.get());
}

inline const CBaseMpegParser::pid_route& CBaseMpegParser::routeOf(uint16_t pid) {
    const uint16_t slot = m_routeSlot.empty() ? 0 : m_routeSlot[pid];
    if (slot && m_routes[slot - 1].generation == m_nRouteGeneration)
        return m_routes[slot - 1];
    return buildRoute(pid);
}

const CBaseMpegParser::pid_route& CBaseMpegParser::buildRoute(uint16_t pid) {
    if (m_routeSlot.empty())
        m_routeSlot.assign(pid_count, 0);
    if (m_routeSlot[pid] == 0) {
        m_routes.emplace_back();
        m_routeSlot[pid] = static_cast<uint16_t>(m_routes.size());
    }
    pid_route& route = m_routes[m_routeSlot[pid] - 1];
    route.generation = m_nRouteGeneration;
    route.program = nullptr;
    route.pmtUses.clear();
    route.emmDescriptors = 0;
    auto program = m_PAT.m_pLast->program_map.find(pid);
    if (program != m_PAT.m_pLast->program_map.end()) {
        route.program = &program->second;
        return route;
    }
    for (auto& entry : m_MapPMT) {
        CPMT& pmt = *entry.second->m_pLast;
        auto stream = pmt.stream_map.find(pid);
        if (stream != pmt.stream_map.end())
            route.pmtUses.push_back({pid_route::pmt_use::elementary, entry.first, &pmt, stream->second.get(), 0});
        else if (pid == pmt.PCR_PID)
            route.pmtUses.push_back({pid_route::pmt_use::pcr, entry.first, &pmt, nullptr, 0});
        else if (unsigned n = countCaDescriptors(pmt.descriptors, pid))
            route.pmtUses.push_back({pid_route::pmt_use::ecm, entry.first, &pmt, nullptr, n});
    }
    if (m_CAT.IsValid())
        route.emmDescriptors = countCaDescriptors(m_CAT.m_pLast->descriptors, pid);
    return route;
}

inline void CBaseMpegParser::reportPmtUse(const pid_route::pmt_use& use, transport_packet& packet,
                                          CDataAccumulator* completed) {
    // The stream and its PMT die with a change of the tables made by a callback.
    const uint64_t generation = m_nRouteGeneration;
    auto unchanged = [this, generation] { return generation == m_nRouteGeneration; };
    switch (use.kind) {
    case pid_route::pmt_use::elementary:
        if (completed && completed->getLength())
            OnPES(use.pmtPid, use.stream, completed->get(), static_cast<unsigned long>(completed->getLength()));
        if (unchanged())
            OnPES(use.pmtPid, static_cast<const CBaseStreamTypeMap*>(use.stream), &packet);
        if (unchanged())
            OnPES(use.pmtPid, use.pmt->program_number, use.stream, &packet);
        break;
    case pid_route::pmt_use::pcr:
        if (packet.hasAdaptationField() && packet.af.adaptation_field_length >= 7 && packet.af.PCR_flag) {
            for (const auto& es : use.pmt->stream_map)
                if (es.first < pid_count)
                    m_pPIDs[es.first].putPCR(packet);
            OnPES(use.pmtPid, static_cast<const CBaseStreamTypeMap*>(nullptr), &packet);
        }
        break;
    case pid_route::pmt_use::ecm:
        for (unsigned i = 0; i < use.caDescriptors && unchanged(); ++i)
            OnECM(&packet);
        break;
    }
}

void CBaseMpegParser::routeOtherPid(transport_packet& packet, CDataAccumulator* completed) {
    if (m_PAT.IsValid()) {
        const pid_route& route = routeOf(packet.PID);
        if (route.program) {
            readPMT(packet, *route.program);
            return;
        }
        // A callback that changes the tables (Clear, or a nested Process that
        // reads a new PAT) ends the walk: the PMTs it was following are gone.
        const uint64_t generation = m_nRouteGeneration;
        for (size_t i = 0; i < route.pmtUses.size() && generation == m_nRouteGeneration; ++i)
            reportPmtUse(route.pmtUses[i], packet, completed);
        for (unsigned i = 0; i < route.emmDescriptors && generation == m_nRouteGeneration; ++i)
            OnEMM(&packet);
    }
    onOtherPid(&packet);
}

void CBaseMpegParser::ClearPMT(const CPAT& newPAT) {
    for (auto it = m_MapPMT.begin(); it != m_MapPMT.end();) {
        if (newPAT.program_map.count(it->first)) {
            ++it;
            continue;
        }
        m_pPIDs[it->first].clear();
        for (const auto& es : it->second->m_pLast->stream_map)
            if (es.first < pid_count)
                m_pPIDs[es.first].clear();
        it = m_MapPMT.erase(it);
        ++m_nRouteGeneration;
    }
}

void CBaseMpegParser::analyze_packet(transport_packet& packet) {
    if (packet.transport_scrambling_control == 1)
        on_scrambler_pid(packet.PID);
    if (packet.transport_error_indicator == 1)
        on_tei_pid(packet.PID);
}

bool CBaseMpegParser::ParcerPESPacket(unsigned char*) { return true; }

void CBaseMpegParser::Clear() { _clear(); }

void CBaseMpegParser::_clear() {
    {
        std::lock_guard<std::mutex> lock(m_cs);
        m_PAT.Clear();
        m_CAT.Clear();
        m_TSDT.Clear();
        m_EIT_Actual.Clear();
        m_EIT_Other.Clear();
        m_EIT_Actual_Shedule.Clear();
        m_EIT_Other_Shedule.Clear();
        m_SDT_Actual.Clear();
        m_SDT_Other.Clear();
        m_BAT.Clear();
        m_NIT_Actual.Clear();
        m_NIT_Other.Clear();
        m_TDT.Clear();
        m_TOT.Clear();
        m_MapPMT.clear();
        ++m_nRouteGeneration;
    }
    m_pTailData.dealloc();
    m_lTailLength = 0;
    for (size_t pid = 0; pid < pid_count; ++pid)
        m_pPIDs[pid].clear();
}

}  // namespace mpegcore
