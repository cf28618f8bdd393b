#include "harnesses.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <typeinfo>
#include <utility>

#include "mpegcore/BAT.h"
#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/CAT.h"
#include "mpegcore/DvbText.h"
#include "mpegcore/EIT.h"
#include "mpegcore/MpegCRC32.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/T2MIToTS.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "mpegcore/TsAnalyzer.h"
#include "mpegcore/vq_mpegts_sync.h"
#include "mpegcore/vqdescriptorlist.h"
#include "support/t2mi_encapsulator.h"

namespace vq_fuzz {

namespace {

using namespace mpegcore;

using Reader = VQSDK::VQBSReaderT<unsigned char*>;
using Writer = VQSDK::VQBSWriterT<unsigned char*>;
using Bytes = std::vector<uint8_t>;

// A heap copy of exactly the given bytes, so that the address sanitizer sees
// any access past either end (the library takes non-const pointers).
class ExactCopy {
public:
    ExactCopy(const uint8_t* data, size_t size) : m_data(new unsigned char[size ? size : 1]), m_size(size) {
        if (size)
            std::memcpy(m_data.get(), data, size);
    }
    unsigned char* data() const { return m_data.get(); }
    size_t size() const { return m_size; }

private:
    std::unique_ptr<unsigned char[]> m_data;
    size_t m_size;
};

// Collects the first broken check.
class Findings {
public:
    void check(bool ok, const char* what) {
        if (!ok && m_first.empty())
            m_first = what;
    }
    const std::string& first() const { return m_first; }

private:
    std::string m_first;
};

bool within(const void* p, size_t n, const void* begin, size_t size) {
    const auto* q = static_cast<const unsigned char*>(p);
    const auto* b = static_cast<const unsigned char*>(begin);
    return b && q >= b && q <= b + size && n <= size_t(b + size - q);
}

// Reads every byte so that the sanitizers check the whole range.
volatile unsigned g_sink = 0;
void touch(const unsigned char* p, size_t n) {
    unsigned sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum += p[i];
    g_sink = g_sink + sum;
}

uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

// ---------------------------------------------------------------------------
// Descriptors

void checkDescriptors(const VQDescriptorList& list, Findings& findings) {
    for (const auto& item : list.descriptor) {
        findings.check(item != nullptr, "descriptor list holds a null entry");
        if (!item)
            continue;
        // Only descriptors of unknown tags keep their payload raw, exactly
        // descriptor_length bytes of it.
        const base_descriptor& d = *item;
        if (typeid(d) == typeid(base_descriptor)) {
            const size_t held = item->descriptor_data.isValid() ? item->descriptor_data.size() : 0;
            findings.check(held == item->descriptor_length, "raw descriptor payload size differs from its length");
            if (item->descriptor_data.isValid())
                touch(item->descriptor_data.get(), held);
        }
    }
}

Bytes writeList(const VQDescriptorList& list, size_t capacity) {
    Bytes out(capacity);
    Writer writer(out.data(), static_cast<unsigned long>(out.size()));
    list.write(writer);
    writer.flush();
    out.resize(writer.getWritedBytes());
    return out;
}

// A descriptor that reads back as itself once written: it writes exactly its
// tag, length and descriptor_length payload bytes, and is not a payload-less
// descriptor ending its loop (such a one is skipped when the loop is read).
bool writesStably(base_descriptor& item, bool lastInLoop) {
    if (lastInLoop && item.descriptor_length == 0)
        return false;
    Bytes scratch(4096 + 16);
    Writer writer(scratch.data(), static_cast<unsigned long>(scratch.size()));
    item.write(writer);
    writer.flush();
    return writer.getWritedBytes() == size_t(item.descriptor_length) + 2;
}

bool listWritesStably(const VQDescriptorList& list) {
    size_t index = 0;
    for (const auto& item : list.descriptor)
        if (!writesStably(*item, ++index == list.descriptor.size()))
            return false;
    return true;
}

// ---------------------------------------------------------------------------
// Tables

// Sets section_length from the bytes present and writes a valid CRC, as the
// control byte asks, so that the readers get past their length and CRC tests.
void fixSection(Bytes& section, uint8_t control) {
    if (section.size() < 3)
        return;
    if (control & 1) {
        const size_t length = std::min<size_t>(section.size() - 3, 0xFFF);
        section[1] = static_cast<uint8_t>((section[1] & 0xF0) | (length >> 8));
        section[2] = static_cast<uint8_t>(length);
    }
    const size_t length = size_t(section[1] & 0x0F) << 8 | section[2];
    if ((control & 2) && length >= 4 && length + 3 <= section.size()) {
        const uint32_t crc = crc32_mpeg2(section.data(), length - 1);
        for (size_t i = 0; i < 4; ++i)
            section[length - 1 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
    }
}

// Render buffer sizes as the parser gives them to its tables.
template <class T>
constexpr unsigned long bufferSize() {
    return 1024;
}
template <>
constexpr unsigned long bufferSize<CBAT>() {
    return 4096;
}
template <>
constexpr unsigned long bufferSize<CEIT>() {
    return 4096;
}

// Every descriptor list of a table, and the checks of its keyed containers.
template <class Visit>
void forEachList(const CPAT&, Visit) {}
template <class Visit>
void forEachList(const CTDT&, Visit) {}
template <class Visit>
void forEachList(const CDescriptorLoopTable& table, Visit visit) {
    visit(table.descriptors);
}
template <class Visit>
void forEachList(const CTOT& table, Visit visit) {
    visit(table.descriptors);
}
template <class Visit>
void forEachList(const CPMT& table, Visit visit) {
    visit(table.descriptors);
    for (const auto& stream : table.stream_map)
        visit(stream.second->descriptors);
}
template <class Visit>
void forEachList(const CNIT& table, Visit visit) {
    visit(table.descriptors);
    for (const auto& stream : table.transport_stream)
        visit(stream->descriptors);
}
template <class Visit>
void forEachList(const CSDT& table, Visit visit) {
    for (const auto& service : table.sds)
        visit(service.second->descriptors);
}
template <class Visit>
void forEachList(const CBAT& table, Visit visit) {
    visit(table.descriptors);
    for (const auto* stream : table.BouquetAssociationStreamList) {
        visit(*stream);
        visit(stream->descriptors);
    }
}
template <class Visit>
void forEachList(const CEIT& table, Visit visit) {
    for (const auto& event : table.eventInfo)
        visit(event->descriptors);
}

void checkKeys(const CBaseMpegTable&, Findings&) {}
void checkKeys(const CPAT& table, Findings& findings) {
    for (const auto& entry : table.program_map)
        findings.check(entry.first == entry.second.map_PID.program_map_PID && entry.first < kPidCount,
                       "PAT entry stored under another PID");
}
void checkKeys(const CPMT& table, Findings& findings) {
    for (const auto& stream : table.stream_map)
        findings.check(stream.second && stream.first == stream.second->elementary_PID && stream.first < kPidCount,
                       "PMT stream stored under another PID");
}
void checkKeys(const CSDT& table, Findings& findings) {
    for (const auto& service : table.sds)
        findings.check(service.second && service.first == service.second->service_id,
                       "SDT service stored under another id");
}

template <class T>
void checkTable(const T& table, Findings& findings) {
    checkKeys(table, findings);
    forEachList(table, [&](const VQDescriptorList& list) { checkDescriptors(list, findings); });
}

Bytes rendered(const CBaseMpegTable& table) {
    const size_t size = std::min(table.GetSizeBuffer(), table.m_lMaxSize);
    return Bytes(table.GetBuffer(), table.GetBuffer() + size);
}

template <class T>
bool readTable(T& table, Bytes& section) {
    Reader reader(section.data(), static_cast<unsigned long>(section.size()));
    return table.read(reader);
}

// [control] [section]: the section in an exact heap copy, fixed up.
Bytes sectionOf(const uint8_t* data, size_t size) {
    if (size < 1)
        return {};
    Bytes section(data + 1, data + size);
    fixSection(section, data[0]);
    return section;
}

template <class T>
std::string fuzzTable(const uint8_t* data, size_t size) {
    if (size < 1)
        return {};
    Bytes fixed = sectionOf(data, size);
    ExactCopy section(fixed.data(), fixed.size());
    Findings findings;
    T table(nullptr, bufferSize<T>());
    Reader reader(section.data(), static_cast<unsigned long>(section.size()));
    if (table.read(reader)) {
        checkTable(table, findings);
        table.RenderTable();
        touch(table.GetBuffer(), std::min(table.GetSizeBuffer(), table.m_lMaxSize));
    }
    // A failed read may leave anything behind; clearing and reusing the
    // object is what the parser does with it.
    table.Clear();
    Reader again(section.data(), static_cast<unsigned long>(section.size()));
    table.read(again);
    return findings.first();
}

// Read, copy, render; a section rendered from stable contents reads back
// and renders to the same bytes.
template <class T>
std::string roundTrip(Bytes section) {
    Findings findings;
    T first(nullptr, bufferSize<T>());
    if (!readTable(first, section))
        return {};
    T copy(nullptr, bufferSize<T>());
    first.copyTo(&copy);

    bool stable = true;
    forEachList(first, [&](const VQDescriptorList& list) { stable = stable && listWritesStably(list); });

    // A table read from a short section may hold more than its buffer takes
    // (entries whose fields ran out of data); a truncated render is not a section.
    const bool fits = first.RenderTable();
    Bytes firstBytes = rendered(first);
    copy.RenderTable();
    findings.check(rendered(copy) == firstBytes, "a copy of the table renders differently");

    if (stable && fits) {
        T second(nullptr, bufferSize<T>());
        findings.check(readTable(second, firstBytes), "a rendered section does not read back");
        second.RenderTable();
        findings.check(rendered(second) == firstBytes, "a rendered section renders differently when read back");
    }
    return findings.first();
}

// ---------------------------------------------------------------------------
// Transport stream synchroniser

class SyncProbe : public vq_mpegts_sync {
public:
    explicit SyncProbe(vq_mpegts_callback callback) : vq_mpegts_sync(std::move(callback)) {}

    // Inside the run that processing works on when a tail was carried.
    bool inWorkRun(const unsigned char* p, size_t n) const { return within(p, n, m_pTail.get(), m_nSize); }
    size_t packetSize() const { return m_nPacketSize; }
    bool tailFits() const { return m_nTailSize <= m_nMaxTailSize; }
};

// ---------------------------------------------------------------------------
// Transport packet parser

// Checks every packet against the bytes handed to Process and touches every
// range and table the parser reports.
class ParserProbe : public CBaseMpegParser {
public:
    ParserProbe(bool useTail, Findings& findings) : CBaseMpegParser(useTail), m_findings(findings) {}

    void setCall(const unsigned char* data, size_t size) {
        m_pCall = data;
        m_nCall = size;
    }

    // Packets seen, an FNV-1a digest of their bytes, and the errors reported.
    size_t m_nPackets = 0;
    uint64_t m_nDigest = 14695981039346656037ull;
    size_t m_nSyncErrors = 0;
    size_t m_nCcErrors = 0;

    int OnPreProcess(unsigned int, const transport_packet& packet) override {
        if (!checkPacket(packet))
            return 0;
        // What was parsed, independent of how the bytes were cut into calls.
        ++m_nPackets;
        for (size_t i = 0; i < kTsPacketSize; ++i)
            m_nDigest = (m_nDigest ^ packet.pStartDataPkt[i]) * 1099511628211ull;
        return 0;
    }
    void on_sync_byte_error() override { m_nSyncErrors++; }
    void on_cc_error(unsigned short) override { m_nCcErrors++; }
    int OnProcess(unsigned int, transport_packet& packet) override {
        checkPacket(packet);
        const unsigned char* end = packet.pStartDataPkt + kTsPacketSize;
        m_findings.check(packet.pCurrDataPkt >= packet.pStartDataPkt + 4 && packet.pCurrDataPkt <= end &&
                             packet.lCurrSizePkt >= 0 && packet.pCurrDataPkt + packet.lCurrSizePkt == end,
                         "payload range leaves the packet");
        return 0;
    }
    void OnPAT(CPAT* pat) override { tableReported(*pat); }
    void OnPMT(CBaseMpegProgram* program, CPMT* pmt) override {
        m_findings.check(program != nullptr, "OnPMT without its program");
        tableReported(*pmt);
    }
    void OnCAT(CCAT* cat) override { tableReported(*cat); }
    void OnTSDT(CTSDT* tsdt) override { tableReported(*tsdt); }
    void OnSDT(CSDT* sdt) override { tableReported(*sdt); }
    void OnEIT(CEIT* eit) override { tableReported(*eit); }
    void OnNIT(CNIT* nit) override { tableReported(*nit); }
    void OnTDT(CTDT* tdt) override { tableReported(*tdt); }
    void OnTOT(CTOT* tot) override { tableReported(*tot); }
    void OnBAT(CBAT* bat) override { tableReported(*bat); }
    void OnPES(unsigned short, const CBaseStreamTypeMap*, transport_packet* packet) override { checkPacket(*packet); }
    void OnPES(unsigned short, CBaseStreamTypeMap* stream, unsigned char* data, unsigned long size) override {
        m_findings.check(stream != nullptr && (data != nullptr || size == 0), "payload unit without stream or data");
        if (data)
            touch(data, size);
    }
    void OnPES(unsigned short, unsigned short, const CBaseStreamTypeMap* stream, transport_packet* packet) override {
        m_findings.check(stream != nullptr, "program OnPES without stream");
        checkPacket(*packet);
    }
    void OnPCR(transport_packet* packet) override { checkPacket(*packet); }
    void OnEMM(transport_packet* packet) override { checkPacket(*packet); }
    void OnECM(transport_packet* packet) override { checkPacket(*packet); }
    void OnNULL(transport_packet* packet) override { checkPacket(*packet); }
    void onOtherPid(transport_packet* packet) override { checkPacket(*packet); }

private:
    // False when the packet lies outside the bytes given to Process.
    bool checkPacket(const transport_packet& packet) {
        const unsigned char* p = packet.pStartDataPkt;
        const bool inCall = within(p, kTsPacketSize, m_pCall, m_nCall);
        const bool inTail = within(p, kTsPacketSize, m_pTailData.get(), m_pTailData.size());
        m_findings.check(inCall || inTail, "packet outside the bytes given to Process");
        if (!inCall && !inTail)
            return false;
        m_findings.check(p[0] == kSyncByte && packet.lSizePkt == long(kTsPacketSize) && packet.PID < kPidCount,
                         "packet record does not match its bytes");
        touch(p, kTsPacketSize);
        return true;
    }

    // The table is checked, then copied and rendered as a user keeping it would.
    template <class T>
    void tableReported(const T& table) {
        checkTable(table, m_findings);
        T copy(nullptr, table.m_lMaxSize);
        table.copyTo(&copy);
        copy.RenderTable();
        touch(copy.GetBuffer(), std::min(copy.GetSizeBuffer(), copy.m_lMaxSize));
    }

    Findings& m_findings;
    const unsigned char* m_pCall = nullptr;
    size_t m_nCall = 0;
};

constexpr size_t kParserChunks[8] = {0, 1, 7, 100, 187, 188, 189, 1316};  // 0: all at once

// ---------------------------------------------------------------------------
// T2-MI decapsulator

constexpr uint16_t kPmtPid = 0x0020;
constexpr uint16_t kT2miPid = 0x0040;

class T2miProbe : public CT2MIToTS {
public:
    explicit T2miProbe(Findings& findings) : CT2MIToTS(true), m_findings(findings) {}

    void OnTS(unsigned char plp, unsigned char* data, unsigned long size) override {
        m_findings.check(size == user_packet_size, "user packet not 187 bytes");
        m_findings.check(plp == m_plp_id, "user packet of another PLP");
        const bool inPacket = within(data, size, m_pT2MIData.get(), m_T2MIDataLen);
        const bool inPartial = within(data, size, arrayTSPacket[plp].pData.get(), user_packet_size);
        m_findings.check(inPacket || inPartial, "user packet outside the T2-MI packet and the partial buffer");
        if (inPacket || inPartial)
            touch(data, size);
        ++m_nPackets;
    }
    void OnBBFrame(T2MIBBFrame* frame) override {
        m_findings.check(frame->plp_id == m_plp_id, "baseband frame of another PLP reported");
        const bool ok = frame->lBBFrameSize >= 0 &&
                        within(frame->pBBFrameData, size_t(frame->lBBFrameSize), m_pT2MIData.get(), m_T2MIDataLen);
        m_findings.check(ok, "baseband data field outside the T2-MI packet");
        if (ok)
            touch(frame->pBBFrameData, size_t(frame->lBBFrameSize));
    }
    void OnAuxiliaryStream(T2MIAuxiliaryStream* aux) override {
        const bool ok =
            aux->lStartAuxSreamDataSize >= 0 && aux->lAuxSreamDataSize >= 0 &&
            within(aux->pStartAuxSreamData, size_t(aux->lStartAuxSreamDataSize), m_pT2MIData.get(), m_T2MIDataLen) &&
            within(aux->pAuxSreamData, size_t(aux->lAuxSreamDataSize), m_pT2MIData.get(), m_T2MIDataLen);
        m_findings.check(ok, "auxiliary stream data outside the T2-MI packet");
        if (ok)
            touch(aux->pStartAuxSreamData, size_t(aux->lStartAuxSreamDataSize));
    }

    size_t m_nPackets = 0;

private:
    Findings& m_findings;
};

// Records [type][length 16][payload] as T2-MI packets.
std::vector<Bytes> t2miPacketsOf(const uint8_t* data, size_t size, bool fixHeaderCrc) {
    constexpr size_t kFramePrefix = 3;  // frame_idx, plp_id, intl_frame_start + rfu
    constexpr size_t kBBHeaderCrcSpan = 9;
    std::vector<Bytes> packets;
    size_t pos = 0;
    uint8_t count = 0;
    while (size - pos >= 3) {
        const uint8_t type = data[pos];
        const size_t length = std::min<size_t>(be16(data + pos + 1), size - pos - 3);
        Bytes payload(data + pos + 3, data + pos + 3 + length);
        pos += 3 + length;
        if (type == 0x00 && fixHeaderCrc && payload.size() > kFramePrefix + kBBHeaderCrcSpan) {
            uint8_t* header = payload.data() + kFramePrefix;
            // Keep the mode bit (normal or high efficiency) the input chose.
            header[kBBHeaderCrcSpan] =
                static_cast<uint8_t>(vq_test::crc8DvbT2(header, kBBHeaderCrcSpan) ^ (header[kBBHeaderCrcSpan] & 1));
        }
        packets.push_back(vq_test::makeT2miPacket(type, count++, 0, payload));
    }
    return packets;
}

}  // namespace

// ---------------------------------------------------------------------------

std::string fuzzSync(const uint8_t* data, size_t size) {
    if (size < 1)
        return {};
    const size_t splits = data[0] & 0x0F;
    const bool resetFirst = (data[0] & 0x10) != 0;
    if (size < 1 + 2 * splits)
        return {};
    std::vector<size_t> sizes;
    for (size_t i = 0; i < splits; ++i)
        sizes.push_back(be16(data + 1 + 2 * i));
    const uint8_t* stream = data + 1 + 2 * splits;
    const size_t streamSize = size - 1 - 2 * splits;

    Findings findings;
    const unsigned char* frame = nullptr;
    size_t frameSize = 0;
    uint64_t tStart = 0, tStop = 0;
    size_t delivered = 0;
    SyncProbe* probe = nullptr;
    SyncProbe sync([&](unsigned long t, unsigned char* packet, unsigned long n) {
        findings.check(n == kTsPacketSize || n == kRsPacketSize, "packet size neither 188 nor 204");
        findings.check(n == probe->packetSize(), "packet size differs from the locked size");
        const bool inside = within(packet, n, frame, frameSize) || probe->inWorkRun(packet, n);
        findings.check(inside, "packet outside the frame and the carried-over run");
        if (!inside)
            return;
        findings.check(packet[0] == kSyncByte, "packet without sync byte");
        findings.check(t >= tStart && t <= tStop, "timestamp outside the frame's span");
        touch(packet, n);
        delivered += n;
    });
    probe = &sync;
    sync.push_data(0, 0, nullptr, 1);  // a null frame is ignored
    if (resetFirst && !sizes.empty())
        sync.reset(sizes[0]);

    constexpr uint64_t kFrameNs = 20000000;
    size_t pos = 0, pushed = 0, index = 0, emptyInARow = 0;
    size_t badBefore = sync.get_bad_bytes();
    while (pos < streamSize) {
        size_t n = sizes.empty() ? streamSize : sizes[index % sizes.size()];
        ++index;
        n = std::min(n, streamSize - pos);
        if (n == 0 && ++emptyInARow > sizes.size())
            n = streamSize - pos;  // only empty frames left in the cycle
        if (n)
            emptyInARow = 0;
        ExactCopy copy(stream + pos, n);
        frame = copy.data();
        frameSize = n;
        tStart = index * kFrameNs;
        tStop = tStart + kFrameNs;
        sync.push_data(tStart, tStop, copy.data(), n);
        pos += n;
        pushed += n;
        findings.check(sync.tailFits(), "tail larger than the work buffer");
        findings.check(sync.get_bad_bytes() >= badBefore, "bad byte count went down");
        badBefore = sync.get_bad_bytes();
        findings.check(delivered + sync.get_bad_bytes() <= pushed, "more bytes delivered and skipped than pushed");
    }
    return findings.first();
}

std::string fuzzParser(const uint8_t* data, size_t size) {
    if (size < 1)
        return {};
    const uint8_t control = data[0];
    const bool useTail = control & 1;
    const size_t chunk = kParserChunks[(control >> 1) & 7];
    const bool clearAfterFirst = (control & 0x10) != 0;
    const uint8_t* stream = data + 1;
    const size_t streamSize = size - 1;

    Findings findings;
    ParserProbe parser(useTail, findings);
    size_t held = 0;
    for (size_t pos = 0; pos < streamSize;) {
        const size_t n = chunk ? std::min(chunk, streamSize - pos) : streamSize;
        ExactCopy copy(stream + pos, n);
        parser.setCall(copy.data(), n);
        const size_t joined = held + n;
        const size_t done = parser.Process(copy.data(), static_cast<unsigned long>(n));
        findings.check(done <= joined && joined - done < kTsPacketSize, "Process stopped before the last whole packet");
        held = useTail ? joined - std::min(done, joined) : 0;
        findings.check(parser.m_lTailLength == held, "tail length differs from the bytes left over");
        if (clearAfterFirst && pos == 0) {
            parser.Clear();
            held = 0;
        }
        pos += n;
    }
    // With the tail kept, cutting the stream into calls changes nothing.
    if (useTail && chunk && !clearAfterFirst && findings.first().empty()) {
        Findings wholeFindings;
        ParserProbe whole(true, wholeFindings);
        ExactCopy copy(stream, streamSize);
        whole.setCall(copy.data(), copy.size());
        whole.Process(copy.data(), static_cast<unsigned long>(copy.size()));
        findings.check(whole.m_nPackets == parser.m_nPackets && whole.m_nDigest == parser.m_nDigest,
                       "the tail changes the packets parsed");
        findings.check(whole.m_nSyncErrors == parser.m_nSyncErrors && whole.m_nCcErrors == parser.m_nCcErrors,
                       "the tail changes the errors reported");
    }
    return findings.first();
}

std::string fuzzT2MI(const uint8_t* data, size_t size) {
    if (size < 2)
        return {};
    const uint8_t mode = data[0];
    const uint8_t plp = data[1];
    Bytes ts;
    if (mode & 1) {
        if (size < 3)
            return {};
        const uint8_t flags = data[2];
        vq_test::CarrierTsOptions options;
        options.pmtPid = kPmtPid;
        options.t2miPid = kT2miPid;
        options.packed = (flags & 1) != 0;
        ts = vq_test::wrapIntoTransportStream(t2miPacketsOf(data + 3, size - 3, (flags & 2) == 0), options);
    } else {
        auto append = [&ts](const Bytes& packet) { ts.insert(ts.end(), packet.begin(), packet.end()); };
        append(vq_test::makeSectionPacket(0x0000, 0, vq_test::makePatSection(1, kPmtPid)));
        append(vq_test::makeSectionPacket(kPmtPid, 0, vq_test::makePmtSection(1, {{0x06, kT2miPid}})));
        ts.insert(ts.end(), data + 2, data + size);
    }

    Findings findings;
    T2miProbe t2mi(findings);
    t2mi.SetPLPID(plp);
    // Two calls, split off the packet grid, so the tail path runs too.
    const size_t split = std::min(ts.size(), size_t(2 * kTsPacketSize + 100));
    ExactCopy head(ts.data(), split);
    ExactCopy rest(ts.data() + split, ts.size() - split);
    t2mi.Process(head.data(), static_cast<unsigned long>(head.size()));
    t2mi.Process(rest.data(), static_cast<unsigned long>(rest.size()));
    return findings.first();
}

std::string fuzzDescriptors(const uint8_t* data, size_t size) {
    if (size < 1)
        return {};
    const auto type = (data[0] & 1) ? e_scte35_desc_type : e_ts_desc_type;
    ExactCopy loop(data + 1, size - 1);
    Findings findings;
    VQDescriptorList list(type);
    Reader reader(loop.data(), static_cast<unsigned long>(loop.size()));
    list.read(reader);
    checkDescriptors(list, findings);

    const Bytes written = writeList(list, 8192);
    VQDescriptorList copy(type);
    list.copyTo(copy);
    findings.check(copy.descriptor.size() == list.descriptor.size() && copy.getSize() == list.getSize(),
                   "a copy of the list differs in count or size");
    findings.check(writeList(copy, 8192) == written, "a copy of the list writes differently");
    if (!list.descriptor.empty())
        findings.check(list.find(list.descriptor.front()->descriptor_tag) == list.descriptor.front(),
                       "find does not return the first descriptor of a tag");

    // A loop written from stable descriptors reads back to the same loop.
    if (listWritesStably(list)) {
        ExactCopy again(written.data(), written.size());
        VQDescriptorList reread(type);
        Reader readerAgain(again.data(), static_cast<unsigned long>(again.size()));
        findings.check(reread.read(readerAgain), "a written loop does not read back");
        findings.check(writeList(reread, 8192) == written, "a written loop writes differently when read back");
    }
    // A writer too small for the loop never writes past its end.
    if (!written.empty()) {
        ExactCopy small(written.data(), written.size() / 2);
        Writer writer(small.data(), static_cast<unsigned long>(small.size()));
        list.write(writer);
        writer.flush();
        findings.check(writer.getWritedBytes() <= small.size(), "writer stored more than its room");
    }
    return findings.first();
}

std::string fuzzPAT(const uint8_t* data, size_t size) { return fuzzTable<CPAT>(data, size); }
std::string fuzzPMT(const uint8_t* data, size_t size) { return fuzzTable<CPMT>(data, size); }
std::string fuzzCAT(const uint8_t* data, size_t size) { return fuzzTable<CCAT>(data, size); }
std::string fuzzTSDT(const uint8_t* data, size_t size) { return fuzzTable<CTSDT>(data, size); }
std::string fuzzTDT(const uint8_t* data, size_t size) { return fuzzTable<CTDT>(data, size); }
std::string fuzzTOT(const uint8_t* data, size_t size) { return fuzzTable<CTOT>(data, size); }
std::string fuzzNIT(const uint8_t* data, size_t size) { return fuzzTable<CNIT>(data, size); }
std::string fuzzSDT(const uint8_t* data, size_t size) { return fuzzTable<CSDT>(data, size); }
std::string fuzzBAT(const uint8_t* data, size_t size) { return fuzzTable<CBAT>(data, size); }
std::string fuzzEIT(const uint8_t* data, size_t size) { return fuzzTable<CEIT>(data, size); }

std::string fuzzRoundTrip(const uint8_t* data, size_t size) {
    if (size < 2)
        return {};
    Bytes section = sectionOf(data + 1, size - 1);
    switch (data[0] % 10) {
    case 0: return roundTrip<CPAT>(std::move(section));
    case 1: return roundTrip<CPMT>(std::move(section));
    case 2: return roundTrip<CCAT>(std::move(section));
    case 3: return roundTrip<CTSDT>(std::move(section));
    case 4: return roundTrip<CTDT>(std::move(section));
    case 5: return roundTrip<CTOT>(std::move(section));
    case 6: return roundTrip<CNIT>(std::move(section));
    case 7: return roundTrip<CSDT>(std::move(section));
    case 8: return roundTrip<CBAT>(std::move(section));
    default: return roundTrip<CEIT>(std::move(section));
    }
}

std::string fuzzText(const uint8_t* data, size_t size) {
    const ExactCopy text(data, size);
    const std::string utf8 = DvbText::to_utf8(text.data(), text.size());
    if (utf8.empty())
        return {};
    // Decoded again, to UTF-32, by iconv: any invalid sequence stops it.
    const iconv_t cd = iconv_open("UTF-32BE", "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1))
        return "iconv cannot convert UTF-8 to UTF-32";
    std::vector<unsigned char> codePoints(utf8.size() * 4);
    char* in = const_cast<char*>(utf8.data());
    size_t inLeft = utf8.size();
    char* out = reinterpret_cast<char*>(codePoints.data());
    size_t outLeft = codePoints.size();
    const size_t result = iconv(cd, &in, &inLeft, &out, &outLeft);
    iconv_close(cd);
    Findings findings;
    findings.check(result != static_cast<size_t>(-1) && inLeft == 0, "the text is not valid UTF-8");
    const size_t count = (codePoints.size() - outLeft) / 4;
    for (size_t i = 0; i < count; ++i) {
        const uint32_t c = static_cast<uint32_t>(codePoints[4 * i] << 24 | codePoints[4 * i + 1] << 16 |
                                                 codePoints[4 * i + 2] << 8 | codePoints[4 * i + 3]);
        findings.check(
            c == '\n' || (c >= 0x20 && c != 0x7F && !(c >= 0x80 && c <= 0x9F) && !(c >= 0xE080 && c <= 0xE09F)),
            "the text holds a control character");
    }
    return findings.first();
}

// ---------------------------------------------------------------------------
// Stream analyzer

std::string fuzzAnalyzer(const uint8_t* data, size_t size) {
    if (size < 1)
        return {};
    const uint8_t control = data[0];
    const bool packetMode = control & 1;
    const size_t run = kParserChunks[(control >> 1) & 7];
    mpegcore::CTsAnalyzer::options opts;
    if (control & 0x10)
        opts.transport_rate = 3760000;
    const uint8_t* stream = data + 1;
    const size_t streamSize = size - 1;

    Findings findings;
    mpegcore::CTsAnalyzer analyzer(opts);
    size_t pushed = 0;
    if (packetMode) {
        for (size_t pos = 0; pos + kTsPacketSize <= streamSize; pos += kTsPacketSize) {
            ExactCopy copy(stream + pos, kTsPacketSize);
            analyzer.push_packet(pos * 400, copy.data());
            ++pushed;
        }
    } else {
        for (size_t pos = 0; pos < streamSize;) {
            const size_t n = run ? std::min(run, streamSize - pos) : streamSize;
            ExactCopy copy(stream + pos, n);
            analyzer.push_raw(pos * 400, (pos + n) * 400, copy.data(), n);
            pos += n;
        }
        pushed = streamSize / kTsPacketSize;
    }
    analyzer.finish();
    const auto ts = analyzer.stream_figures();
    findings.check(ts.packets <= pushed, "more packets analysed than were given");
    uint64_t sum = 0;
    for (const auto& pid : analyzer.pid_figures()) {
        sum += pid.packets;
        findings.check(pid.pid < kPidCount, "PID out of range");
        findings.check(pid.cc_errors <= pid.packets && pid.duplicates <= pid.packets && pid.pcr <= pid.packets &&
                           pid.pts <= pid.packets && pid.dts <= pid.pts,
                       "per-PID figures exceed the packets");
    }
    findings.check(sum == ts.packets, "per-PID packets do not add up to the stream's");
    using C = mpegcore::tr101290_check;
    findings.check(analyzer.count(C::PCR_error) ==
                       analyzer.count(C::PCR_repetition_error) + analyzer.count(C::PCR_discontinuity_indicator_error),
                   "PCR_error is not the sum of its two checks");
    findings.check(analyzer.count(C::Sync_byte_error) >= analyzer.count(C::TS_sync_loss) * 2,
                   "a sync loss without two bad sync bytes");
    return findings.first();
}

const std::vector<Target>& targets() {
    static const std::vector<Target> all = {
        {"sync", fuzzSync},
        {"parser", fuzzParser},
        {"t2mi", fuzzT2MI},
        {"descriptors", fuzzDescriptors},
        {"pat", fuzzPAT},
        {"pmt", fuzzPMT},
        {"cat", fuzzCAT},
        {"tsdt", fuzzTSDT},
        {"tdt", fuzzTDT},
        {"tot", fuzzTOT},
        {"nit", fuzzNIT},
        {"sdt", fuzzSDT},
        {"bat", fuzzBAT},
        {"eit", fuzzEIT},
        {"roundtrip", fuzzRoundTrip},
        {"text", fuzzText},
        {"analyzer", fuzzAnalyzer},
    };
    return all;
}

const Target* findTarget(const std::string& name) {
    for (const auto& target : targets())
        if (name == target.name)
            return &target;
    return nullptr;
}

}  // namespace vq_fuzz
