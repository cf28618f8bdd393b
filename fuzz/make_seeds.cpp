// Writes the seed corpora of the fuzz targets: packets and sections cut from
// the captures in tests/data, sections the captures lack built by hand, and
// T2-MI carriers from the test encapsulator. Each seed is laid out as its
// harness expects (see harnesses.h).
//
//   make_seeds <tests/data directory> <corpus directory>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mpegcore/MpegConstants.h"
#include "mpegcore/PAT.h"
#include "support/section_bytes.h"
#include "support/section_cutter.h"
#include "support/t2mi_encapsulator.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using mpegcore::kTsPacketSize;

constexpr uint8_t kFixLengthAndCrc = 0x03;  // control byte of the table harnesses

Bytes readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

uint16_t pidOf(const uint8_t* packet) { return static_cast<uint16_t>((packet[1] & 0x1F) << 8 | packet[2]); }

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

class Corpus {
public:
    explicit Corpus(fs::path root) : m_root(std::move(root)) {}

    void add(const std::string& target, const std::string& name, const Bytes& bytes) {
        if (!m_seen[target].insert(bytes).second)
            return;  // same bytes already seeded
        const fs::path dir = m_root / target;
        fs::create_directories(dir);
        std::ofstream(dir / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        m_total += bytes.size();
        ++m_files;
    }
    size_t total() const { return m_total; }
    size_t files() const { return m_files; }

private:
    fs::path m_root;
    std::map<std::string, std::set<Bytes>> m_seen;
    size_t m_total = 0;
    size_t m_files = 0;
};

// The table harness and the round trip harness seeds of one section.
const std::map<uint8_t, std::pair<std::string, uint8_t>>& tableOfId() {
    // table_id -> (harness, round trip selector)
    static const std::map<uint8_t, std::pair<std::string, uint8_t>> map = {
        {mpegcore::kTableIdPAT, {"pat", 0}},
        {mpegcore::kTableIdPMT, {"pmt", 1}},
        {mpegcore::kTableIdCAT, {"cat", 2}},
        {mpegcore::kTableIdTSDT, {"tsdt", 3}},
        {mpegcore::kTableIdTDT, {"tdt", 4}},
        {mpegcore::kTableIdTOT, {"tot", 5}},
        {mpegcore::kTableIdNITActual, {"nit", 6}},
        {mpegcore::kTableIdNITOther, {"nit", 6}},
        {mpegcore::kTableIdSDTActual, {"sdt", 7}},
        {mpegcore::kTableIdSDTOther, {"sdt", 7}},
        {mpegcore::kTableIdBAT, {"bat", 8}},
        {mpegcore::kTableIdEITActual, {"eit", 9}},
        {mpegcore::kTableIdEITOther, {"eit", 9}},
        {mpegcore::kTableIdEITActualScheduleFirst, {"eit", 9}},
        {mpegcore::kTableIdEITOtherScheduleFirst, {"eit", 9}},
    };
    return map;
}

void addSection(Corpus& corpus, const std::string& origin, const Bytes& section) {
    const auto it = tableOfId().find(section.at(0));
    if (it == tableOfId().end())
        return;
    const auto& [target, selector] = it->second;
    corpus.add(target, origin, concat({{kFixLengthAndCrc}, section}));
    corpus.add("roundtrip", target + "-" + origin, concat({{selector, kFixLengthAndCrc}, section}));
}

// Descriptor loops of a few real sections, read by hand so that the seeds
// do not depend on the reader under test.
std::vector<Bytes> descriptorLoopsOf(const Bytes& s) {
    std::vector<Bytes> loops;
    auto loop = [&](size_t at, size_t length) {
        if (length && at + length <= s.size())
            loops.emplace_back(s.begin() + at, s.begin() + at + length);
    };
    auto len12 = [&](size_t at) { return size_t(s[at] & 0x0F) << 8 | s[at + 1]; };
    const size_t end = s.size() - 4;
    if (s[0] == 0x02 && s.size() > 16) {  // PMT: program loop, then each stream's loop
        loop(12, len12(10));
        for (size_t at = 12 + len12(10); at + 5 <= end; at += 5 + len12(at + 3))
            loop(at + 5, len12(at + 3));
    } else if ((s[0] == 0x42 || s[0] == 0x46) && s.size() > 15) {  // SDT: each service's loop
        for (size_t at = 11; at + 5 <= end; at += 5 + len12(at + 3))
            loop(at + 5, len12(at + 3));
    }
    return loops;
}

void addCapture(Corpus& corpus, const fs::path& file) {
    const Bytes ts = readFile(file);
    const std::string stem = file.stem().string();

    // PSI sections on the well-known PIDs and the PMT PIDs of the first PAT.
    std::set<uint16_t> sectionPids = {0x0000, 0x0001, 0x0002, 0x0010, 0x0011, 0x0012, 0x0014};
    const auto pats = vq_test::cutSections(ts, 0x0000, 1);
    if (!pats.empty()) {
        Bytes pat = pats.front();
        mpegcore::CPAT table(nullptr, 1024);
        VQSDK::VQBSReaderT<unsigned char*> reader(pat.data(), pat.size());
        if (table.read(reader))
            for (const auto& entry : table.program_map)
                sectionPids.insert(entry.first);
    }
    for (uint16_t pid : sectionPids) {
        size_t n = 0;
        for (const auto& section : vq_test::cutSections(ts, pid, 3)) {
            const std::string origin = stem + "-pid" + std::to_string(pid) + "-" + std::to_string(n++);
            addSection(corpus, origin, section);
            size_t k = 0;
            for (const auto& loop : descriptorLoopsOf(section))
                if (k < 6)
                    corpus.add("descriptors", origin + "-loop" + std::to_string(k++), concat({{0x00}, loop}));
        }
    }

    // Parser: the first section packets and a few others, in stream order.
    Bytes picked;
    size_t psi = 0, other = 0;
    for (size_t pos = 0; pos + kTsPacketSize <= ts.size(); pos += kTsPacketSize) {
        const bool isPsi = sectionPids.count(pidOf(&ts[pos])) != 0;
        if ((isPsi && psi < 24) || (!isPsi && other < 6)) {
            picked.insert(picked.end(), ts.begin() + pos, ts.begin() + pos + kTsPacketSize);
            (isPsi ? psi : other)++;
        }
    }
    corpus.add("parser", stem + "-whole", concat({{0x00}, picked}));
    corpus.add("parser", stem + "-tail-100", concat({{0x01 | 3 << 1}, picked}));
    corpus.add("parser", stem + "-tail-189-clear", concat({{0x01 | 6 << 1 | 0x10}, picked}));
    corpus.add("analyzer", stem + "-raw", concat({{0x00}, picked}));
    corpus.add("analyzer", stem + "-raw-100", concat({{3 << 1}, picked}));
    corpus.add("analyzer", stem + "-packets-rate", concat({{0x01 | 0x10}, picked}));

    // Synchroniser: 60 packets with 10 garbage bytes in front, cut into
    // uneven frames; and 30 packets stretched to 204 bytes.
    const Bytes head(ts.begin(), ts.begin() + std::min(ts.size(), 60 * kTsPacketSize));
    corpus.add("sync", stem + "-188", concat({{0x13, 0x03, 0xE8, 0x00, 0x07, 0x0B, 0xB8}, Bytes(10, 0xA5), head}));
    Bytes rs;
    for (size_t pos = 0; pos + kTsPacketSize <= head.size() && pos < 30 * kTsPacketSize; pos += kTsPacketSize) {
        rs.insert(rs.end(), head.begin() + pos, head.begin() + pos + kTsPacketSize);
        rs.insert(rs.end(), 16, 0x00);  // Reed-Solomon parity stand-in
    }
    corpus.add("sync", stem + "-204", concat({{0x02, 0x0F, 0xA0, 0x00, 0xCC}, rs}));
}

// Sections that the captures do not carry, as table seeds and, carried on
// their PIDs next to a program with PCR, ECM and EMM PIDs, as a parser seed.
void addBuiltSections(Corpus& corpus) {
    using vq_test::makeLongSection;
    const Bytes caDescriptor = {0x09, 0x04, 0x06, 0x04, 0xE1, 0xF1};  // EMM/ECM on PID 0x1F1
    const Bytes registration = {0x05, 0x04, 'H', 'D', 'M', 'V'};
    const Bytes unknown = {0x80, 0x02, 0x01, 0x02};
    const Bytes serviceList = {0x41, 0x06, 0x00, 0x01, 0x01, 0x00, 0x02, 0x19};
    const Bytes networkName = {0x40, 0x04, 'N', 'e', 't', '1'};
    const Bytes bouquetName = {0x47, 0x04, 'B', 'o', 'u', 'q'};
    const Bytes shortEvent = {0x4D, 0x0B, 'e', 'n', 'g', 0x04, 'N', 'e', 'w', 's', 0x02, 'H', 'i'};
    const Bytes localTimeOffset = {0x58, 0x0D, 'G',  'B',  'R',  0x02, 0x01, 0x00,
                                   0xE7, 0x5A, 0x01, 0x00, 0x00, 0x00, 0x00};
    const Bytes t2Delivery = {0x7F, 0x06, 0x04, 0x66, 0x00, 0x01, 0x04, 0x41};

    auto withLength = [](const Bytes& loop) {
        return concat({{static_cast<uint8_t>(0xF0 | loop.size() >> 8), static_cast<uint8_t>(loop.size())}, loop});
    };
    const Bytes tsEntry = concat({{0x00, 0x01, 0x00, 0x02}, withLength(concat({serviceList, t2Delivery}))});
    const Bytes event =
        concat({{0x00, 0x07, 0xEF, 0xAF, 0x19, 0x40, 0x02, 0x01, 0x30, 0x00},
                {static_cast<uint8_t>(0x80 | shortEvent.size() >> 8), static_cast<uint8_t>(shortEvent.size())},
                shortEvent});
    // (PID, section); the TDT has no CRC, the TOT gets its length and CRC from withCrc.
    const std::vector<std::pair<uint16_t, Bytes>> sections = {
        {0x0001, makeLongSection(0x01, 0xFFFF, concat({caDescriptor, unknown}))},
        {0x0002, makeLongSection(0x03, 0xFFFF, concat({registration, unknown}))},
        {0x0010, makeLongSection(0x40, 0x0001, concat({withLength(networkName), withLength(tsEntry)}))},
        {0x0011, makeLongSection(0x4A, 0x0005, concat({withLength(bouquetName), withLength(tsEntry)}))},
        {0x0012, makeLongSection(0x4E, 0x0001, concat({{0x00, 0x01, 0x00, 0x02, 0x00, 0x4E}, event, event}))},
        {0x0014, {0x70, 0x70, 0x05, 0xEF, 0xAF, 0x19, 0x40, 0x02}},
        {0x0014,
         vq_test::withCrc(concat({{0x73, 0x70, 0x00, 0xEF, 0xAF, 0x19, 0x40, 0x02}, withLength(localTimeOffset)}))},
    };
    Bytes stream =
        concat({vq_test::makeSectionPacket(0x0000, 0, vq_test::makePatSection(1, 0x0100)),
                vq_test::makeSectionPacket(
                    0x0100, 0, vq_test::makePmtSection(1, {{0x1B, 0x101}, {0x06, 0x102}}, 0x101, caDescriptor))});
    uint8_t cc = 0;
    for (const auto& [pid, section] : sections) {
        addSection(corpus, "built-" + std::to_string(section[0]), section);
        const Bytes packet = vq_test::makeSectionPacket(pid, cc++, section);
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    // Video with a PCR, private PES, ECM and EMM on the CA PID, a null packet.
    Bytes pcr = {0x47, 0x41, 0x01, 0x30, 0x07, 0x10, 0x12, 0x34, 0x56, 0x78, 0x7E, 0x00, 0x00, 0x00, 0x01, 0xE0};
    pcr.resize(kTsPacketSize, 0xAA);
    stream.insert(stream.end(), pcr.begin(), pcr.end());
    for (const Bytes& packet : {vq_test::makeTsPacket(0x101, 1, false, Bytes(184, 0x55)),
                                vq_test::makeTsPacket(0x102, 0, true, {0x00, 0x00, 0x01, 0xBD, 0x00, 0x10}),
                                vq_test::makeTsPacket(0x1F1, 0, true, Bytes(20, 0x80)),
                                vq_test::makeTsPacket(mpegcore::kPidNull, 0, false, Bytes(184, 0xFF))})
        stream.insert(stream.end(), packet.begin(), packet.end());
    corpus.add("parser", "built-tables", concat({{0x00}, stream}));
    corpus.add("parser", "built-tables-tail-7", concat({{0x01 | 2 << 1}, stream}));
    corpus.add("analyzer", "built-tables-packets", concat({{0x01}, stream}));

    size_t n = 0;
    for (const Bytes& loop : {concat({caDescriptor, registration, unknown}), concat({shortEvent, localTimeOffset}),
                              concat({serviceList, t2Delivery, networkName, bouquetName}), Bytes{0x52, 0x00, 0x0A}})
        corpus.add("descriptors", "built-loop" + std::to_string(n++), concat({{0x00}, loop}));
    const Bytes avail = {0x00, 0x08, 'C', 'U', 'E', 'I', 0x00, 0x00, 0x01, 0x2C};
    const Bytes dtmf = {0x01, 0x08, 'C', 'U', 'E', 'I', 0x32, 0x5F, '1', '2'};
    const Bytes segmentation = {0x02, 0x11, 'C',  'U',  'E',  'I',  0x00, 0x00, 0x00, 0x01, 0x7F,
                                0xFF, 0x00, 0x00, 0x29, 0x32, 0xE0, 0x00, 0x30, 0x01, 0x01};
    corpus.add("descriptors", "built-scte35", concat({{0x01}, avail, dtmf, segmentation}));
}

// T2-MI: the real carrier's first packets, and carriers made by the test
// encapsulator, as raw streams and as harness records.
void addT2mi(Corpus& corpus, const fs::path& data) {
    const Bytes real = readFile(data / "t2mi-plp102.ts");
    corpus.add("t2mi", "t2mi-plp102-head",
               concat({{0x00, 102}, Bytes(real.begin(), real.begin() + std::min(real.size(), 150 * kTsPacketSize))}));

    const Bytes live = readFile(data / "live-012.ts");
    vq_test::PlpInput plp0;
    plp0.plpId = 0;
    plp0.ts.assign(live.begin(), live.begin() + std::min(live.size(), 40 * kTsPacketSize));
    plp0.dflBytes = mpegcore::kTsPacketSizeAfterSync * 7 + 50;  // user packets straddle the frames
    vq_test::PlpInput plp1 = plp0;
    plp1.plpId = 1;
    vq_test::CarrierOptions options;
    options.timestampEvery = 2;
    options.auxiliaryEvery = 3;
    options.l1Every = 4;
    const auto packets = vq_test::encapsulate({plp0, plp1}, options);

    Bytes records;
    for (const auto& packet : packets) {
        const size_t payload = packet.size() - 6 - 4;  // header and CRC-32 are remade by the harness
        records.push_back(packet[0]);
        records.push_back(static_cast<uint8_t>(payload >> 8));
        records.push_back(static_cast<uint8_t>(payload));
        records.insert(records.end(), packet.begin() + 6, packet.end() - 4);
    }
    corpus.add("t2mi", "encapsulated-records", concat({{0x01, 0x00, 0x00}, records}));
    corpus.add("t2mi", "encapsulated-records-packed-plp1", concat({{0x01, 0x01, 0x01}, records}));

    vq_test::CarrierTsOptions carrier;
    carrier.packed = true;
    corpus.add("t2mi", "encapsulated-ts", concat({{0x00, 0x00}, vq_test::wrapIntoTransportStream(packets, carrier)}));
}

// SI texts: one in each character table, with control codes.
void addTexts(Corpus& corpus) {
    const std::vector<std::pair<const char*, Bytes>> texts = {
        {"iso6937", {'C', 'a', 'f', 0xC2, 'e', 0x86, 'N', 0x87, 0x8A, 0xC8, 'a'}},
        {"iso8859-5", {0x01, 0xB0, 0xB1, 0x8A, 0xB2}},
        {"iso8859-nn", {0x10, 0x00, 0x02, 0xB1, 'x'}},
        {"ucs2", {0x11, 0x04, 0x10, 0xE0, 0x8A, 0x00, 'A', 0xD8, 0x00}},
        {"euc-kr", {0x12, 0xC7, 0xD1, 0xB1, 0xDB}},
        {"gb2312", {0x13, 0xD6, 0xD0, 0xE0, 0x8A, 0xCE, 0xC4}},
        {"big5", {0x14, 0xA4, 0xA4, 0xE0, 0x86, 0xA4, 0xE5}},
        {"utf8", {0x15, 0xD0, 0x90, 0xC2, 0x8A, 0xEE, 0x82, 0x86, 0xE2, 0x82, 0xAC, 0xFF}},
    };
    for (const auto& text : texts)
        corpus.add("text", text.first, text.second);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <tests/data directory> <corpus directory>\n", argv[0]);
        return 2;
    }
    const fs::path data = argv[1];
    Corpus corpus(argv[2]);
    for (const char* capture : {"live-012.ts", "live-025.ts", "live-072.ts", "live-139.ts"})
        addCapture(corpus, data / capture);
    addBuiltSections(corpus);
    addT2mi(corpus, data);
    addTexts(corpus);
    std::printf("%zu seeds, %zu bytes\n", corpus.files(), corpus.total());
    return 0;
}
