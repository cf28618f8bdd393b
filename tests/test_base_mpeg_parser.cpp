#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mpegcore/BaseMpegParser.h"
#include "support/t2mi_encapsulator.h"
#include "support/test_data.h"

using namespace mpegcore;
using vq_test::makeLongSection;
using vq_test::makePatSection;
using vq_test::makePmtSection;
using vq_test::makeSectionPacket;
using vq_test::makeTsPacket;

namespace {

using Bytes = std::vector<uint8_t>;

// Records what the parser reports.
class RecordingParser : public CBaseMpegParser {
public:
    explicit RecordingParser(bool useTail = true) : CBaseMpegParser(useTail) {}

    void on_sync_byte_error() override { ++syncErrors; }
    void on_cc_error(unsigned short pid) override { ccErrors.push_back(pid); }
    void on_scrambler_pid(unsigned short pid) override { scrambled.push_back(pid); }
    void on_tei_pid(unsigned short pid) override { tei.push_back(pid); }
    int OnPreProcess(unsigned int, const transport_packet& p) override {
        ++preProcessed;
        lastPreProcessedPid = p.PID;
        return 0;
    }
    int OnProcess(unsigned int, transport_packet& p) override {
        ++packetsPerPid[p.PID];
        return 0;
    }
    void OnPAT(CPAT* pat) override {
        ++pats;
        tableCallbackHeldLock = tableCallbackHeldLock && !m_cs.try_lock();
        lastPatPrograms = pat->program_map.size();
    }
    void OnPMT(CBaseMpegProgram* program, CPMT* pmt) override {
        ++pmts;
        pmtPids.insert(program->map_PID.program_map_PID);
        pcrPids[program->map_PID.program_map_PID] = pmt->PCR_PID;
        for (const auto& s : pmt->stream_map)
            esPids[program->map_PID.program_map_PID].insert(s.first);
    }
    void OnCAT(CCAT*) override { tables.push_back("CAT"); }
    void OnTSDT(CTSDT*) override { tables.push_back("TSDT"); }
    void OnSDT(CSDT* sdt) override { tables.push_back("SDT" + std::to_string(sdt->table_id)); }
    void OnEIT(CEIT* eit) override { tables.push_back("EIT" + std::to_string(eit->table_id)); }
    void OnNIT(CNIT* nit) override { tables.push_back("NIT" + std::to_string(nit->table_id)); }
    void OnTDT(CTDT*) override { tables.push_back("TDT"); }
    void OnTOT(CTOT*) override { tables.push_back("TOT"); }
    void OnBAT(CBAT*) override { tables.push_back("BAT"); }
    void OnPES(unsigned short pmtPid, const CBaseStreamTypeMap* stream, transport_packet* p) override {
        if (m_cs.try_lock()) {
            m_cs.unlock();
        } else {
            packetCallbackHeldLock = true;
        }
        pes.push_back({pmtPid, stream ? stream->elementary_PID : uint16_t(0xFFFF), p->PID});
    }
    void OnPES(unsigned short, CBaseStreamTypeMap* stream, unsigned char* data, unsigned long size) override {
        units.push_back({stream->elementary_PID, Bytes(data, data + size)});
    }
    void OnPES(unsigned short, unsigned short programNumber, const CBaseStreamTypeMap*, transport_packet*) override {
        programNumbers.push_back(programNumber);
    }
    void OnPCR(transport_packet* p) override { pcrs.push_back(p->af.program_clock_reference_base); }
    void OnEMM(transport_packet* p) override { emm.push_back(p->PID); }
    void OnECM(transport_packet* p) override { ecm.push_back(p->PID); }
    void OnNULL(transport_packet*) override { ++nulls; }
    void onOtherPid(transport_packet* p) override { others.push_back(p->PID); }

    unsigned long feed(Bytes& data) { return Process(data.data(), static_cast<unsigned long>(data.size())); }

    struct PesCall {
        uint16_t pmtPid, esPid, pid;
    };
    struct Unit {
        uint16_t pid;
        Bytes bytes;
    };
    int syncErrors = 0, preProcessed = 0, pats = 0, pmts = 0, nulls = 0;
    uint16_t lastPreProcessedPid = 0;
    size_t lastPatPrograms = 0;
    bool tableCallbackHeldLock = true, packetCallbackHeldLock = false;
    std::vector<unsigned short> ccErrors, scrambled, tei, emm, ecm, others, programNumbers;
    std::map<uint16_t, size_t> packetsPerPid;
    std::set<uint16_t> pmtPids;
    std::map<uint16_t, uint16_t> pcrPids;
    std::map<uint16_t, std::set<uint16_t>> esPids;
    std::vector<std::string> tables;
    std::vector<PesCall> pes;
    std::vector<Unit> units;
    std::vector<uint64_t> pcrs;
};

void append(Bytes& out, const Bytes& packet) { out.insert(out.end(), packet.begin(), packet.end()); }

// A packet with an adaptation field of afLength bytes (flags byte, then the
// given field bytes, then stuffing) and payload filling the rest.
Bytes packetWithAdaptation(uint16_t pid, uint8_t cc, uint8_t control, uint8_t afLength, const Bytes& afBytes,
                           uint8_t payloadFill = 0xAB, bool unitStart = false) {
    Bytes p = {0x47, static_cast<uint8_t>((unitStart ? 0x40 : 0) | (pid >> 8)), static_cast<uint8_t>(pid),
               static_cast<uint8_t>((control << 4) | cc)};
    p.push_back(afLength);
    Bytes field = afBytes;
    field.resize(afLength, 0xFF);
    p.insert(p.end(), field.begin(), field.end());
    p.resize(188, payloadFill);
    return p;
}

// Adaptation field bytes carrying a PCR (flags 0x10, base, 6 reserved bits, extension).
Bytes pcrField(uint64_t base, uint16_t extension) {
    const uint64_t v = (base << 15) | (uint64_t(0x3F) << 9) | extension;
    Bytes f = {0x10};
    for (int shift = 40; shift >= 0; shift -= 8)
        f.push_back(static_cast<uint8_t>(v >> shift));
    return f;
}

Bytes payloadPacket(uint16_t pid, uint8_t cc, bool unitStart, uint8_t fill) {
    return makeTsPacket(pid, cc, unitStart, Bytes(184, fill));
}

// PAT (program 1 on PMT PID 0x100) and PMT (video 0x101, audio 0x102, PCR on pcrPid).
Bytes programStart(uint16_t pcrPid = 0x101, const Bytes& programDescriptors = {}) {
    Bytes out;
    append(out, makeSectionPacket(0, 0, makePatSection(1, 0x100)));
    append(out,
           makeSectionPacket(0x100, 0, makePmtSection(1, {{0x02, 0x101}, {0x04, 0x102}}, pcrPid, programDescriptors)));
    return out;
}

Bytes ca_descriptor(uint16_t caPid) {
    return {0x09, 4, 0x0B, 0x00, static_cast<uint8_t>(0xE0 | (caPid >> 8)), static_cast<uint8_t>(caPid)};
}

}  // namespace

TEST(BaseMpegParser, StrayByteBeforeTwoPacketsKeepsTheRestAsTail) {
    RecordingParser parser;
    Bytes data = {0x00};
    append(data, payloadPacket(0x300, 0, false, 1));
    append(data, payloadPacket(0x300, 1, false, 2));
    data.resize(376);
    EXPECT_EQ(parser.feed(data), 189u);
    EXPECT_EQ(parser.syncErrors, 1);
    EXPECT_EQ(parser.packetsPerPid[0x300], 1u);
    EXPECT_EQ(parser.m_lTailLength, 187u);

    RecordingParser noTail(false);
    EXPECT_EQ(noTail.feed(data), 189u);
    EXPECT_EQ(noTail.m_lTailLength, 0u);
}

TEST(BaseMpegParser, TailJoinsCallsOf100And88Bytes) {
    RecordingParser parser;
    Bytes packet = payloadPacket(0x300, 0, false, 7);
    EXPECT_EQ(parser.Process(packet.data(), 100), 0u);
    EXPECT_EQ(parser.preProcessed, 0);
    EXPECT_EQ(parser.Process(packet.data() + 100, 88), 188u);
    EXPECT_EQ(parser.preProcessed, 1);
    EXPECT_EQ(parser.packetsPerPid[0x300], 1u);
    EXPECT_EQ(parser.m_lTailLength, 0u);
}

TEST(BaseMpegParser, TailSurvivesManySmallCalls) {
    RecordingParser parser;
    Bytes data;
    for (uint8_t i = 0; i < 20; ++i)
        append(data, payloadPacket(0x300, i & 15, false, i));
    for (size_t pos = 0; pos < data.size(); pos += 7)
        parser.Process(data.data() + pos, static_cast<unsigned long>(std::min<size_t>(7, data.size() - pos)));
    EXPECT_EQ(parser.packetsPerPid[0x300], 20u);
    EXPECT_EQ(parser.syncErrors, 0);
    EXPECT_TRUE(parser.ccErrors.empty());
}

TEST(BaseMpegParser, ContinuityCounterRules) {
    RecordingParser parser;
    Bytes data;
    append(data, payloadPacket(0x300, 3, false, 0));
    append(data, payloadPacket(0x300, 3, false, 0));  // duplicate: an error
    append(data, payloadPacket(0x301, 3, false, 0));
    append(data, packetWithAdaptation(0x301, 3, 2, 183, {0x00}));  // adaptation only: same counter expected
    append(data, payloadPacket(0x302, 15, false, 0));
    append(data, payloadPacket(0x302, 0, false, 0));  // wraps
    append(data, payloadPacket(0x303, 4, false, 0));
    append(data, payloadPacket(0x303, 9, false, 0));  // a jump
    parser.feed(data);
    ASSERT_EQ(parser.ccErrors.size(), 2u);
    EXPECT_EQ(parser.ccErrors[0], 0x300);
    EXPECT_EQ(parser.ccErrors[1], 0x303);
    EXPECT_EQ(parser.m_pPIDs[0x300].continuity_counter_error, 1);
    EXPECT_EQ(parser.m_pPIDs[0x301].continuity_counter_error, 0);
    EXPECT_EQ(parser.m_pPIDs[0x302].continuity_counter_error, 0);
    EXPECT_EQ(parser.m_pPIDs[0x303].continuity_counter, 9);
}

TEST(BaseMpegParser, DiscontinuityIndicatorIsStillAnErrorButNotAfterClear) {
    RecordingParser parser;
    Bytes data;
    append(data, payloadPacket(0x300, 3, false, 0));
    append(data, packetWithAdaptation(0x300, 8, 3, 1, {0x80}));  // discontinuity_indicator set
    parser.feed(data);
    EXPECT_EQ(parser.ccErrors.size(), 1u);
    parser.Clear();
    Bytes again = payloadPacket(0x300, 12, false, 0);
    parser.feed(again);
    EXPECT_EQ(parser.ccErrors.size(), 1u) << "the first packet after a clear is never an error";
    EXPECT_EQ(parser.m_pPIDs[0x300].continuity_counter_error, 1) << "the count survives Clear";
}

TEST(BaseMpegParser, PatSpreadOverTwoPacketsIsDeliveredWithTheSecond) {
    RecordingParser parser;
    Bytes body;
    for (uint16_t program = 1; program <= 50; ++program) {
        body.push_back(static_cast<uint8_t>(program >> 8));
        body.push_back(static_cast<uint8_t>(program));
        body.push_back(static_cast<uint8_t>(0xE0 | ((0x100 + program) >> 8)));
        body.push_back(static_cast<uint8_t>(0x100 + program));
    }
    Bytes section = makeLongSection(0x00, 1, body);
    ASSERT_GT(section.size(), 183u);
    Bytes first = {0x00};
    first.insert(first.end(), section.begin(), section.begin() + 183);
    Bytes second(section.begin() + 183, section.end());
    second.resize(184, 0xFF);
    Bytes p1 = makeTsPacket(0, 0, true, first), p2 = makeTsPacket(0, 1, false, second);
    parser.feed(p1);
    EXPECT_EQ(parser.pats, 0);
    parser.feed(p2);
    EXPECT_EQ(parser.pats, 1);
    EXPECT_EQ(parser.lastPatPrograms, 50u);
    EXPECT_TRUE(parser.tableCallbackHeldLock) << "OnPAT runs with m_cs held";
    // The section stays complete in the accumulator: a further packet on PID 0 delivers it again.
    Bytes p3 = makeTsPacket(0, 2, false, Bytes(184, 0xFF));
    parser.feed(p3);
    EXPECT_EQ(parser.pats, 2);
}

TEST(BaseMpegParser, RepeatedOnePacketPatIsReportedEveryTime) {
    RecordingParser parser;
    Bytes data;
    for (uint8_t i = 0; i < 5; ++i)
        append(data, makeSectionPacket(0, i, makePatSection(1, 0x100)));
    parser.feed(data);
    EXPECT_EQ(parser.pats, 5);
    EXPECT_TRUE(parser.m_PAT.IsValid());
}

TEST(BaseMpegParser, NonZeroPointerFieldYieldsNoTable) {
    RecordingParser parser;
    Bytes section = makePatSection(1, 0x100);
    Bytes payload = {0x05, 1, 2, 3, 4, 5};  // five bytes of a previous section first
    payload.insert(payload.end(), section.begin(), section.end());
    payload.resize(184, 0xFF);
    Bytes packet = makeTsPacket(0, 0, true, payload);
    parser.feed(packet);
    EXPECT_EQ(parser.pats, 0);
    EXPECT_FALSE(parser.m_PAT.IsValid());
}

TEST(BaseMpegParser, PmtIsFollowedFromThePatAndStreamsReported) {
    RecordingParser parser;
    Bytes data = programStart(0x103);
    append(data, payloadPacket(0x101, 0, true, 0x11));
    append(data, payloadPacket(0x101, 1, false, 0x12));
    append(data, payloadPacket(0x101, 2, true, 0x13));  // completes the first unit
    append(data, payloadPacket(0x200, 0, false, 0));    // not in the program
    parser.feed(data);
    EXPECT_EQ(parser.pats, 1);
    EXPECT_EQ(parser.pmts, 1);
    EXPECT_EQ(parser.pmtPids, std::set<uint16_t>({0x100}));
    EXPECT_EQ(parser.esPids[0x100], std::set<uint16_t>({0x101, 0x102}));
    EXPECT_EQ(parser.pcrPids[0x100], 0x103);
    ASSERT_EQ(parser.pes.size(), 3u);
    EXPECT_EQ(parser.pes[0].pmtPid, 0x100);
    EXPECT_EQ(parser.pes[0].esPid, 0x101);
    EXPECT_EQ(parser.programNumbers, std::vector<unsigned short>({1, 1, 1}));
    ASSERT_EQ(parser.units.size(), 1u);
    Bytes expected(184, 0x11);
    expected.insert(expected.end(), 184, 0x12);
    EXPECT_EQ(parser.units[0].bytes, expected);
    EXPECT_FALSE(parser.packetCallbackHeldLock);
    // The PMT packet is done after the PMT; the others all reach onOtherPid.
    EXPECT_EQ(parser.others, std::vector<unsigned short>({0x101, 0x101, 0x101, 0x200}));
}

TEST(BaseMpegParser, PacketsBeforeAnyPatGoStraightToOnOtherPid) {
    RecordingParser parser;
    Bytes data = payloadPacket(0x101, 0, true, 0);
    append(data, makeSectionPacket(0x100, 0, makePmtSection(1, {{0x02, 0x101}})));
    parser.feed(data);
    EXPECT_EQ(parser.others, std::vector<unsigned short>({0x101, 0x100}));
    EXPECT_EQ(parser.pmts, 0);
    EXPECT_TRUE(parser.pes.empty());
}

TEST(BaseMpegParser, PatDroppingAProgramRemovesItsPmtAndResetsItsPids) {
    RecordingParser parser;
    Bytes data = programStart();
    append(data, payloadPacket(0x101, 5, true, 0));
    append(data, payloadPacket(0x102, 9, true, 0));
    parser.feed(data);
    ASSERT_EQ(parser.m_MapPMT.count(0x100), 1u);
    EXPECT_EQ(parser.m_pPIDs[0x101].continuity_counter, 5);

    Bytes newPat = makeSectionPacket(0, 1, makePatSection(2, 0x180));
    parser.feed(newPat);
    EXPECT_EQ(parser.m_MapPMT.count(0x100), 0u);
    EXPECT_EQ(parser.m_pPIDs[0x100].continuity_counter, CBasePID::no_counter);
    EXPECT_EQ(parser.m_pPIDs[0x101].continuity_counter, CBasePID::no_counter);
    EXPECT_EQ(parser.m_pPIDs[0x102].continuity_counter, CBasePID::no_counter);
    EXPECT_FALSE(parser.m_pPIDs[0x101].m_bPayload);
}

TEST(BaseMpegParser, PatKeepingAProgramKeepsItsPmt) {
    RecordingParser parser;
    Bytes data = programStart();
    append(data, makeSectionPacket(0, 1, makePatSection(1, 0x100)));
    parser.feed(data);
    EXPECT_EQ(parser.m_MapPMT.count(0x100), 1u);
    EXPECT_TRUE(parser.m_MapPMT[0x100]->IsValid());
}

TEST(BaseMpegParser, PcrPidThatIsAlsoVideoTakesThePesBranch) {
    RecordingParser parser;
    Bytes data = programStart(0x101);
    append(data, packetWithAdaptation(0x101, 0, 3, 7, pcrField(90000, 0)));
    parser.feed(data);
    ASSERT_EQ(parser.pes.size(), 1u);
    EXPECT_EQ(parser.pes[0].esPid, 0x101) << "PES callbacks, not the PCR branch's OnPES(nullptr)";
    EXPECT_EQ(parser.m_pPIDs[0x102].lastPCR, 0) << "putPCR was not applied";
    EXPECT_EQ(parser.pcrs, std::vector<uint64_t>({90000}));
}

TEST(BaseMpegParser, SeparatePcrPidMeasuresRatesOfTheProgramStreams) {
    RecordingParser parser;
    Bytes data = programStart(0x103);
    append(data, packetWithAdaptation(0x103, 0, 2, 183, pcrField(900000, 0)));  // 10 s
    for (uint8_t i = 0; i < 10; ++i)
        append(data, payloadPacket(0x101, i, i == 0, 0));
    append(data, packetWithAdaptation(0x103, 0, 2, 183, pcrField(990000, 150)));  // 1 s + 150/27 us later
    parser.feed(data);
    ASSERT_EQ(parser.pes.size(), 12u);
    EXPECT_EQ(parser.pes[0].esPid, 0xFFFF) << "the PCR branch reports with a null stream";
    const int64_t t2 = int64_t((990000ull * 300 + 150) * 10 / 27);
    EXPECT_EQ(parser.m_pPIDs[0x101].lastPCR, t2);
    EXPECT_EQ(parser.m_pPIDs[0x101].data_counter, 0u);
    const int64_t t1 = int64_t(900000ull * 300 * 10 / 27);
    EXPECT_EQ(parser.m_pPIDs[0x101].data_rate_pcr, int64_t(10 * 184 * 8 / (double(t2 - t1) / 1e7)));
    EXPECT_EQ(parser.m_pPIDs[0x102].lastPCR, t2);
    EXPECT_EQ(parser.m_pPIDs[0x102].data_rate_pcr, 0);
}

TEST(BaseMpegParser, ShortAdaptationFieldWithPcrFlagIsNotAPcrForTheProgram) {
    RecordingParser parser;
    Bytes data = programStart(0x103);
    append(data, packetWithAdaptation(0x103, 0, 3, 1, {0x10}));  // flag set, field too short for a PCR
    parser.feed(data);
    EXPECT_TRUE(parser.pes.empty());
    EXPECT_EQ(parser.pcrs.size(), 1u) << "OnPCR only looks at the flag";
}

TEST(BaseMpegParser, AdaptationFieldOf184BytesDropsThePacket) {
    RecordingParser parser;
    Bytes data = programStart();
    append(data, packetWithAdaptation(0x101, 0, 3, 184, {}));
    parser.feed(data);
    EXPECT_EQ(parser.preProcessed, 3);
    EXPECT_EQ(parser.packetsPerPid[0x101], 1u) << "OnProcess still sees it";
    EXPECT_TRUE(parser.pes.empty());
    EXPECT_TRUE(parser.others.empty());
    EXPECT_EQ(parser.m_pPIDs[0x101].data_counter, 0u);
    EXPECT_EQ(parser.m_pPIDs[0x101].continuity_counter, CBasePID::no_counter);
}

TEST(BaseMpegParser, PrivateDataLongerThan188DropsThePacket) {
    RecordingParser parser;
    Bytes data = packetWithAdaptation(0x300, 0, 3, 183, {0x02, 200});
    parser.feed(data);
    EXPECT_TRUE(parser.others.empty());
    EXPECT_EQ(parser.m_pPIDs[0x300].continuity_counter, CBasePID::no_counter);
}

TEST(BaseMpegParser, AdaptationFieldIsParsedAndPayloadShortened) {
    struct Probe : RecordingParser {
        transport_packet seen;
        void onOtherPid(transport_packet* p) override { seen = *p; }
    } parser;
    // PCR, OPCR, splice countdown, 2 private bytes, extension with ltw and piecewise rate.
    Bytes af = {0xDE};
    Bytes pcr = pcrField(0x1FFFFFFFFull, 0x1FF);
    af.insert(af.end(), pcr.begin() + 1, pcr.end());
    Bytes opcr = pcrField(12345, 7);
    af.insert(af.end(), opcr.begin() + 1, opcr.end());
    af.push_back(0xFD);                                            // splice_countdown -3
    af.insert(af.end(), {2, 0xAA, 0xBB});                          // private data
    af.insert(af.end(), {6, 0xDF, 0x81, 0x23, 0xC1, 0x23, 0x45});  // ltw, piecewise, no seamless
    Bytes packet = packetWithAdaptation(0x300, 0, 3, static_cast<uint8_t>(af.size() + 2), af);
    parser.feed(packet);
    const adaptation_field& f = parser.seen.af;
    EXPECT_EQ(f.adaptation_field_length, af.size() + 2);
    EXPECT_EQ(f.discontinuity_indicator, 1);
    EXPECT_EQ(f.random_access_indicator, 1);
    EXPECT_EQ(f.elementary_stream_priority_indicator, 0);
    EXPECT_EQ(f.PCR_flag, 1);
    EXPECT_EQ(f.OPCR_flag, 1);
    EXPECT_EQ(f.splicing_point_flag, 1);
    EXPECT_EQ(f.transport_private_data_flag, 1);
    EXPECT_EQ(f.adaptation_field_extension_flag, 0);
    EXPECT_EQ(f.program_clock_reference_base, 0x1FFFFFFFFull);
    EXPECT_EQ(f.program_clock_reference_extension, 0x1FF);
    EXPECT_EQ(f.original_program_clock_reference_base, 12345);
    EXPECT_EQ(f.original_program_clock_reference_extension, 7);
    EXPECT_EQ(f.splice_countdown, 0xFD);
    EXPECT_EQ(f.transport_private_data_length, 2);
    EXPECT_EQ(f.private_data_byte[0], 0xAA);
    EXPECT_EQ(f.private_data_byte[1], 0xBB);
    EXPECT_EQ(parser.seen.pCurrDataPkt, parser.seen.pStartDataPkt + 4 + 1 + f.adaptation_field_length);
    EXPECT_EQ(parser.seen.lCurrSizePkt, 184 - 1 - f.adaptation_field_length);

    // The same field with the extension flag set reads the extension too.
    Probe withExtension;
    Bytes afx = af;
    afx[0] |= 0x01;
    Bytes packet2 = packetWithAdaptation(0x300, 0, 3, static_cast<uint8_t>(afx.size() + 2), afx);
    withExtension.feed(packet2);
    const adaptation_field& g = withExtension.seen.af;
    EXPECT_EQ(g.adaptation_field_extension_length, 6);
    EXPECT_EQ(g.ltw_flag, 1);
    EXPECT_EQ(g.piecewise_rate_flag, 1);
    EXPECT_EQ(g.seamless_splice_flag, 0);
    EXPECT_EQ(g.ltw_valid_flag, 1);
    EXPECT_EQ(g.ltw_offset, 0x0123);
    EXPECT_EQ(g.reserved3, 3);
    EXPECT_EQ(g.piecewise_rate, 0x012345u);
}

TEST(BaseMpegParser, NullPacketsOnlyFireOnNullAndAreCounted) {
    RecordingParser parser;
    Bytes data = payloadPacket(0x1FFF, 0, false, 0xFF);
    append(data, payloadPacket(0x1FFF, 0, false, 0xFF));
    parser.feed(data);
    EXPECT_EQ(parser.nulls, 2);
    EXPECT_TRUE(parser.others.empty());
    EXPECT_TRUE(parser.ccErrors.empty());
    EXPECT_EQ(parser.m_pPIDs[0x1FFF].data_counter, 2u * 184);
}

TEST(BaseMpegParser, EcmFromProgramCaDescriptorAndEmmFromCat) {
    RecordingParser parser;
    Bytes data = programStart(0x101, ca_descriptor(0x150));
    // CAT: its 18 reserved bits take the place of the table id extension.
    append(data, makeSectionPacket(0x001, 0, makeLongSection(0x01, 0xFFFF, ca_descriptor(0x160))));
    append(data, payloadPacket(0x150, 0, true, 0));
    append(data, payloadPacket(0x160, 0, true, 0));
    append(data, payloadPacket(0x170, 0, true, 0));
    parser.feed(data);
    EXPECT_EQ(parser.tables, std::vector<std::string>({"CAT"}));
    EXPECT_EQ(parser.ecm, std::vector<unsigned short>({0x150}));
    EXPECT_EQ(parser.emm, std::vector<unsigned short>({0x160}));
    EXPECT_EQ(parser.others, std::vector<unsigned short>({0x150, 0x160, 0x170}));
}

TEST(BaseMpegParser, EveryCaDescriptorNamingThePidFiresItsOwnCallback) {
    RecordingParser parser;
    Bytes programCa = ca_descriptor(0x150);
    append(programCa, ca_descriptor(0x150));
    Bytes catCa = ca_descriptor(0x160);
    append(catCa, ca_descriptor(0x160));
    append(catCa, ca_descriptor(0x161));
    Bytes data = programStart(0x101, programCa);
    append(data, makeSectionPacket(0x001, 0, makeLongSection(0x01, 0xFFFF, catCa)));
    append(data, payloadPacket(0x150, 0, true, 0));
    append(data, payloadPacket(0x160, 0, true, 0));
    parser.feed(data);
    EXPECT_EQ(parser.ecm, std::vector<unsigned short>({0x150, 0x150}));
    EXPECT_EQ(parser.emm, std::vector<unsigned short>({0x160, 0x160}));
}

namespace {

// A PAT listing (program number, PMT PID) pairs.
Bytes patOf(const std::vector<std::pair<uint16_t, uint16_t>>& programs) {
    Bytes body;
    for (const auto& program : programs) {
        body.push_back(static_cast<uint8_t>(program.first >> 8));
        body.push_back(static_cast<uint8_t>(program.first));
        body.push_back(static_cast<uint8_t>(0xE0 | (program.second >> 8)));
        body.push_back(static_cast<uint8_t>(program.second));
    }
    return makeLongSection(0x00, 1, body);
}

// Two programs (PMT PIDs 0x100 and 0x200) that share the stream 0x101.
Bytes twoProgramsSharingAStream() {
    Bytes data = makeSectionPacket(0, 0, patOf({{1, 0x100}, {2, 0x200}}));
    append(data, makeSectionPacket(0x200, 0, makePmtSection(2, {{0x02, 0x101}, {0x04, 0x202}})));
    append(data, makeSectionPacket(0x100, 0, makePmtSection(1, {{0x02, 0x101}, {0x04, 0x102}})));
    return data;
}

}  // namespace

TEST(BaseMpegParser, StreamOfTwoProgramsIsReportedForEachInPmtPidOrder) {
    RecordingParser parser;
    Bytes data = twoProgramsSharingAStream();
    append(data, payloadPacket(0x101, 0, true, 0));
    append(data, payloadPacket(0x202, 0, true, 0));
    parser.feed(data);
    ASSERT_EQ(parser.pes.size(), 3u);
    EXPECT_EQ(parser.pes[0].pmtPid, 0x100);
    EXPECT_EQ(parser.pes[1].pmtPid, 0x200);
    EXPECT_EQ(parser.pes[2].pmtPid, 0x200);
    EXPECT_EQ(parser.pes[2].pid, 0x202);
    EXPECT_EQ(parser.programNumbers, std::vector<unsigned short>({1, 2, 2}));
}

TEST(BaseMpegParser, StreamsFollowEachNewPmtAndPat) {
    RecordingParser parser;
    Bytes data = programStart();
    append(data, payloadPacket(0x103, 0, true, 0));  // not in the program yet
    parser.feed(data);
    EXPECT_TRUE(parser.pes.empty());

    // A new PMT adds 0x103 and drops 0x102.
    Bytes next = makeSectionPacket(0x100, 1, makePmtSection(1, {{0x02, 0x101}, {0x04, 0x103}}, 0x101));
    append(next, payloadPacket(0x103, 1, false, 0));
    append(next, payloadPacket(0x102, 0, true, 0));
    parser.feed(next);
    ASSERT_EQ(parser.pes.size(), 1u);
    EXPECT_EQ(parser.pes[0].pid, 0x103);

    // A PAT without the program: its streams are ordinary PIDs again.
    Bytes pat = makeSectionPacket(0, 1, makePatSection(2, 0x180));
    append(pat, payloadPacket(0x101, 0, true, 0));
    append(pat, payloadPacket(0x103, 2, false, 0));
    parser.feed(pat);
    EXPECT_EQ(parser.pes.size(), 1u);
    EXPECT_EQ(parser.others.back(), 0x103);
}

TEST(BaseMpegParser, PatSetByTheApplicationIsFollowed) {
    RecordingParser parser;
    Bytes data = makeSectionPacket(0x100, 0, makePmtSection(1, {{0x02, 0x101}}));
    parser.feed(data);
    EXPECT_EQ(parser.pmts, 0) << "no PAT yet";

    CPAT pat(nullptr, 1024);
    CBaseMpegProgram program;
    program.map_PID.program_map_PID = 0x100;
    pat.program_map[0x100] = program;  // keyed by PMT PID
    parser.m_PAT.set(pat);
    Bytes again = makeSectionPacket(0x100, 1, makePmtSection(1, {{0x02, 0x101}}));
    append(again, payloadPacket(0x101, 0, true, 0));
    parser.feed(again);
    EXPECT_EQ(parser.pmts, 1);
    EXPECT_EQ(parser.pes.size(), 1u);

    parser.m_PAT.Clear();
    Bytes after = payloadPacket(0x101, 1, false, 0);
    parser.feed(after);
    EXPECT_EQ(parser.pes.size(), 1u) << "no valid PAT: straight to onOtherPid";
    EXPECT_EQ(parser.others.back(), 0x101);
}

TEST(BaseMpegParser, PmtEditedInPlaceIsFollowedOnlyOnceSetThroughItsWrapper) {
    RecordingParser parser;
    Bytes data = programStart();
    append(data, payloadPacket(0x105, 0, true, 0));  // 0x105 is no stream of the program
    parser.feed(data);
    EXPECT_TRUE(parser.pes.empty());

    // Added in place, outside a table callback: the route worked out for 0x105 stays.
    auto& wrapper = *parser.m_MapPMT.at(0x100);
    auto stream = std::make_shared<CBaseStreamTypeMap>();
    stream->stream_type = 0x06;
    stream->elementary_PID = 0x105;
    wrapper.m_pLast->stream_map[0x105] = stream;
    Bytes inPlace = payloadPacket(0x105, 1, false, 0);
    parser.feed(inPlace);
    EXPECT_TRUE(parser.pes.empty());
    EXPECT_EQ(parser.others.back(), 0x105);

    // The same table set through the wrapper is followed.
    CPMT edited(nullptr, 1024);
    wrapper.m_pLast->copyTo(&edited);
    wrapper.set(edited);
    Bytes afterSet = payloadPacket(0x105, 2, false, 0);
    parser.feed(afterSet);
    ASSERT_EQ(parser.pes.size(), 1u);
    EXPECT_EQ(parser.pes[0].pid, 0x105);
    EXPECT_EQ(parser.pes[0].pmtPid, 0x100);
}

TEST(BaseMpegParser, CallbackThatClearsTheParserEndsTheReportsOfThatPacket) {
    // Clears the parser from inside the first report of the shared stream.
    class ClearingParser : public RecordingParser {
    public:
        void OnPES(unsigned short pmtPid, const CBaseStreamTypeMap* stream, transport_packet* p) override {
            RecordingParser::OnPES(pmtPid, stream, p);
            if (p->PID == 0x101)
                Clear();
        }
    } parser;
    Bytes data = twoProgramsSharingAStream();
    append(data, payloadPacket(0x101, 0, true, 0));
    append(data, payloadPacket(0x101, 1, false, 0));
    parser.feed(data);
    ASSERT_EQ(parser.pes.size(), 1u);
    EXPECT_EQ(parser.pes[0].pmtPid, 0x100);
    EXPECT_TRUE(parser.programNumbers.empty()) << "the program its PMT named is gone";
    EXPECT_EQ(parser.others, std::vector<unsigned short>({0x101, 0x101}));
}

TEST(BaseMpegParser, SiTablesAreRoutedByPidAndTableId) {
    RecordingParser parser;
    Bytes data;
    uint8_t cc[0x20] = {};
    auto put = [&](uint16_t pid, const Bytes& section) { append(data, makeSectionPacket(pid, cc[pid]++, section)); };
    const Bytes emptyLoops = {0xF0, 0x00, 0xF0, 0x00};
    put(0x10, makeLongSection(0x40, 1, emptyLoops));                            // NIT actual
    put(0x10, makeLongSection(0x41, 2, emptyLoops));                            // NIT other
    put(0x10, makeLongSection(0x42, 2, emptyLoops));                            // not a NIT id: ignored
    put(0x11, makeLongSection(0x42, 1, {0x00, 0x01, 0xFF}));                    // SDT actual
    put(0x11, makeLongSection(0x46, 1, {0x00, 0x01, 0xFF}));                    // SDT other
    put(0x11, makeLongSection(0x4A, 1, emptyLoops));                            // BAT
    put(0x12, makeLongSection(0x4E, 1, {0x00, 0x01, 0x00, 0x01, 0x00, 0x4E}));  // EIT p/f actual
    put(0x12, makeLongSection(0x4F, 1, {0x00, 0x01, 0x00, 0x01, 0x00, 0x4F}));  // EIT p/f other
    put(0x12, makeLongSection(0x50, 1, {0x00, 0x01, 0x00, 0x01, 0x00, 0x50}));  // EIT schedule actual
    put(0x12, makeLongSection(0x6F, 1, {0x00, 0x01, 0x00, 0x01, 0x00, 0x6F}));  // EIT schedule other
    put(0x14, {0x70, 0x70, 0x05, 0xE5, 0x50, 0x12, 0x34, 0x56});                // TDT
    Bytes tot = {0x73, 0xB0, 0x0B, 0xE5, 0x50, 0x12, 0x34, 0x56, 0xF0, 0x00};
    const uint32_t crc = crc32_mpeg2(tot.data(), tot.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        tot.push_back(static_cast<uint8_t>(crc >> shift));
    put(0x14, tot);                                // TOT
    put(0x02, makeLongSection(0x03, 0xFFFF, {}));  // TSDT
    parser.feed(data);
    EXPECT_EQ(parser.tables, std::vector<std::string>({"NIT64", "NIT65", "SDT66", "SDT70", "BAT", "EIT78", "EIT79",
                                                       "EIT80", "EIT111", "TDT", "TOT", "TSDT"}));
    EXPECT_TRUE(parser.m_NIT_Actual.IsValid());
    EXPECT_TRUE(parser.m_NIT_Other.IsValid());
    EXPECT_TRUE(parser.m_SDT_Actual.IsValid());
    EXPECT_TRUE(parser.m_SDT_Other.IsValid());
    EXPECT_TRUE(parser.m_BAT.IsValid());
    EXPECT_TRUE(parser.m_EIT_Actual.IsValid());
    EXPECT_TRUE(parser.m_EIT_Other.IsValid());
    EXPECT_TRUE(parser.m_EIT_Actual_Shedule.IsValid());
    EXPECT_TRUE(parser.m_EIT_Other_Shedule.IsValid());
    EXPECT_TRUE(parser.m_TDT.IsValid());
    EXPECT_TRUE(parser.m_TOT.IsValid());
    EXPECT_TRUE(parser.m_TSDT.IsValid());
    EXPECT_EQ(parser.m_TDT.m_pLast->UTC_time, 0xE550123456ull);
    EXPECT_TRUE(parser.others.empty()) << "section PIDs never reach onOtherPid";
}

TEST(BaseMpegParser, EitPidWithoutCollectedDataPrintsTheSkipMessage) {
    RecordingParser parser;
    Bytes data = payloadPacket(0x12, 0, false, 0x00);  // no unit start seen yet
    testing::internal::CaptureStdout();
    parser.feed(data);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "mpegcore: eit pkt skip\n");
}

TEST(BaseMpegParser, CorruptedSectionIsRetriedAndLastGoodTableKept) {
    RecordingParser parser;
    Bytes bad = makePatSection(1, 0x100);
    bad.back() ^= 1;
    Bytes data = makeSectionPacket(0, 0, makePatSection(1, 0x100));
    append(data, makeSectionPacket(0, 1, bad));
    parser.feed(data);
    EXPECT_EQ(parser.pats, 1);
    EXPECT_TRUE(parser.m_PAT.IsValid());
    EXPECT_EQ(parser.m_PAT.m_pLast->program_map.count(0x100), 1u);
}

TEST(BaseMpegParser, ClearReturnsToTheInitialState) {
    RecordingParser parser;
    Bytes data = programStart();
    append(data, payloadPacket(0x101, 0, true, 0));
    append(data, payloadPacket(0x101, 0, false, 0));  // error
    append(data, payloadPacket(0x101, 1, false, 0));
    parser.Process(data.data(), static_cast<unsigned long>(data.size() - 50));
    EXPECT_EQ(parser.m_lTailLength, 138u);
    parser.Clear();
    EXPECT_FALSE(parser.m_PAT.IsValid());
    EXPECT_TRUE(parser.m_MapPMT.empty());
    EXPECT_EQ(parser.m_lTailLength, 0u);
    EXPECT_EQ(parser.m_pPIDs[0x101].continuity_counter, CBasePID::no_counter);
    EXPECT_EQ(parser.m_pPIDs[0x101].continuity_counter_error, 1);
    Bytes next = payloadPacket(0x101, 7, true, 0);
    parser.feed(next);
    EXPECT_EQ(parser.others.back(), 0x101);
    EXPECT_EQ(parser.pes.size(), 2u) << "no PAT after Clear: no more PES calls";
}

TEST(BaseMpegParser, AnalyzePacketReportsScramblingAndTransportErrors) {
    RecordingParser parser;
    transport_packet p;
    p.PID = 0x44;
    p.transport_scrambling_control = 1;
    p.transport_error_indicator = 1;
    parser.analyze_packet(p);
    p.transport_scrambling_control = 2;
    p.transport_error_indicator = 0;
    parser.analyze_packet(p);
    EXPECT_EQ(parser.scrambled, std::vector<unsigned short>({0x44}));
    EXPECT_EQ(parser.tei, std::vector<unsigned short>({0x44}));

    // Process itself does not call it.
    Bytes data = payloadPacket(0x45, 0, false, 0);
    data[1] |= 0x80;
    data[3] |= 0x40;
    parser.feed(data);
    EXPECT_EQ(parser.scrambled.size(), 1u);
    EXPECT_EQ(parser.tei.size(), 1u);
}

TEST(DataAccumulator, GrowsByHeldPlusNewPlusStep) {
    CDataAccumulator acc(10);
    Bytes a(8, 1), b(5, 2);
    acc.addData(a.data(), a.size());
    EXPECT_EQ(acc.getSize(), 10u);
    acc.addData(b.data(), b.size());
    EXPECT_EQ(acc.getSize(), 5u + 8u + 4095u);
    ASSERT_EQ(acc.getLength(), 13u);
    EXPECT_EQ(Bytes(acc.get(), acc.get() + 13), Bytes({1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2}));
    CDataAccumulator defaulted(0);
    EXPECT_EQ(defaulted.getSize(), 4095u);
}

TEST(BasePID, PutPacketCountsAdaptationOnlyPacketsAs184AndSwapsOnUnitStart) {
    CBasePID state;
    Bytes raw = payloadPacket(0x300, 0, true, 0x55);
    transport_packet p;
    p.PID = 0x300;
    p.adaptation_field_control = 2;
    p.pCurrDataPkt = raw.data() + 4;
    p.lCurrSizePkt = 184;
    EXPECT_EQ(state.putPacket(p), nullptr);
    EXPECT_EQ(state.data_counter, 184u);
    p.adaptation_field_control = 1;
    p.payload_unit_start_indicator = 1;
    CDataAccumulator* done = state.putPacket(p);
    ASSERT_NE(done, nullptr);
    EXPECT_EQ(done->getLength(), 0u);
    EXPECT_EQ(state.getCurData()->getLength(), 184u);
    p.payload_unit_start_indicator = 0;
    p.continuity_counter = 1;
    EXPECT_EQ(state.putPacket(p), nullptr);
    EXPECT_EQ(state.getCurData()->getLength(), 368u);
    EXPECT_TRUE(state.m_bPayload);
    state.clear();
    EXPECT_EQ(state.getCurData()->getLength(), 0u);
    EXPECT_FALSE(state.m_bPayload);
    EXPECT_EQ(state.data_counter, 0u);
}

TEST(BasePID, PayloadBeforeAnyUnitStartIsNotCollected) {
    CBasePID state;
    Bytes raw(188, 0x10);
    transport_packet p;
    p.PID = 0x300;
    p.adaptation_field_control = 1;
    p.pCurrDataPkt = raw.data() + 4;
    p.lCurrSizePkt = 184;
    state.putPacket(p);
    EXPECT_EQ(state.getCurData()->getLength(), 0u);
}

TEST(BasePID, EqualPcrsKeepThePreviousRate) {
    CBasePID state;
    transport_packet p;
    p.af.program_clock_reference_base = 27000;
    state.data_counter = 1000;
    state.putPCR(p);
    const int64_t rate = state.data_rate_pcr;
    EXPECT_NE(rate, 0);
    state.data_counter = 1000;
    state.putPCR(p);
    EXPECT_EQ(state.data_rate_pcr, rate);
    EXPECT_EQ(state.data_counter, 0u);
}

namespace {

// Per-PID packet counts and the service of an analysis file.
struct Analysis {
    std::map<uint16_t, size_t> packets;
    uint16_t pmtPid = 0;
    int pcrPid = -1;  // -1: none given
    std::set<uint16_t> esPids;
};

std::string field(const std::string& line, const std::string& name) {
    const std::string key = ":" + name + "=";
    const size_t at = line.find(key);
    if (at == std::string::npos)
        return "";
    const size_t start = at + key.size();
    return line.substr(start, line.find(':', start) - start);
}

Analysis readAnalysis(const std::string& name) {
    std::ifstream in(vq_test::dataPath(name));
    EXPECT_TRUE(in.good()) << name;
    Analysis a;
    std::string line, pidList;
    std::set<uint16_t> pcrOnly;
    while (std::getline(in, line)) {
        if (line.rfind("pid:", 0) == 0) {
            const uint16_t pid = static_cast<uint16_t>(std::stoi(field(line, "pid")));
            a.packets[pid] = std::stoul(field(line, "packets"));
            if (line.find("description=PCR (not otherwise referenced)") != std::string::npos)
                pcrOnly.insert(pid);
        } else if (line.rfind("service:", 0) == 0) {
            a.pmtPid = static_cast<uint16_t>(std::stoi(field(line, "pmtpid")));
            const std::string pcr = field(line, "pcrpid");
            if (!pcr.empty())
                a.pcrPid = std::stoi(pcr);
            pidList = field(line, "pidlist");
        }
    }
    std::stringstream list(pidList);
    for (std::string item; std::getline(list, item, ',');) {
        const uint16_t pid = static_cast<uint16_t>(std::stoi(item));
        if (pid != a.pmtPid && !pcrOnly.count(pid))
            a.esPids.insert(pid);
    }
    return a;
}

class RealCapture : public ::testing::TestWithParam<std::string> {};

TEST_P(RealCapture, AgreesWithTheIndependentAnalysis) {
    Bytes data = vq_test::readDataFile(GetParam() + ".ts");
    const Analysis expected = readAnalysis(GetParam() + ".analysis.txt");
    ASSERT_FALSE(expected.packets.empty());
    RecordingParser parser;
    // Cut into uneven calls so that the tail is used too.
    for (size_t pos = 0; pos < data.size(); pos += 1000)
        parser.Process(data.data() + pos, static_cast<unsigned long>(std::min<size_t>(1000, data.size() - pos)));
    EXPECT_EQ(parser.syncErrors, 0);
    EXPECT_TRUE(parser.ccErrors.empty()) << parser.ccErrors.size() << " continuity errors";
    EXPECT_EQ(parser.m_lTailLength, 0u);

    std::map<uint16_t, size_t> listed;
    for (const auto& entry : expected.packets)
        if (entry.second)
            listed[entry.first] = entry.second;
    EXPECT_EQ(parser.packetsPerPid, listed);

    EXPECT_EQ(parser.pats, int(expected.packets.at(0)));
    EXPECT_EQ(parser.pmts, int(expected.packets.at(expected.pmtPid)));
    EXPECT_EQ(parser.pmtPids, std::set<uint16_t>({expected.pmtPid}));
    EXPECT_EQ(parser.esPids[expected.pmtPid], expected.esPids);
    EXPECT_EQ(parser.pcrPids[expected.pmtPid], expected.pcrPid < 0 ? 0x1FFF : expected.pcrPid);
}

INSTANTIATE_TEST_SUITE_P(Captures, RealCapture, ::testing::Values("live-012", "live-025", "live-072", "live-139"),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param.substr(5); });

}  // namespace
