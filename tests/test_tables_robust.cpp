// Fixed-seed robustness run: random and mutated sections, their CRC fixed up
// so that the readers get past it, read by every table class and rendered
// back. Meant for the sanitizer build, where any access outside a buffer
// stops the run.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>
#include <vector>

#include "mpegcore/BAT.h"
#include "mpegcore/CAT.h"
#include "mpegcore/EIT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "support/descriptor_bytes.h"
#include "support/section_bytes.h"

using vq_test::SectionBytes;

namespace {

constexpr int kSections = 100000;

// A short descriptor loop mixing typed and unknown tags.
const SectionBytes kLoop{0x48, 0x05, 0x01, 0x01, 'P',  0x01, 'N',  0x41, 0x03, 0x00,
                         0x01, 0x01, 0x80, 0x02, 0xAA, 0xBB, 0x52, 0x01, 0x07};

template <class Table>
SectionBytes render(Table& table) {
    table.RenderTable();
    return vq_test::renderedBytes(table);
}

// Valid sections of every kind to mutate.
std::vector<SectionBytes> seedSections() {
    std::vector<SectionBytes> seeds;
    {
        mpegcore::CPAT pat(nullptr, 1024);
        pat.section_syntax_indicator = 1;
        for (uint16_t i = 0; i < 6; ++i) {
            mpegcore::CBaseMpegProgram program;
            program.program_number = i;
            program.map_PID.program_map_PID = uint16_t(0x100 + i);
            pat.program_map[program.map_PID.program_map_PID] = program;
        }
        seeds.push_back(render(pat));
    }
    {
        mpegcore::CPMT pmt(nullptr, 1024);
        pmt.table_id = 0x02;
        pmt.section_syntax_indicator = 1;
        vq_test::readLoop(pmt.descriptors, kLoop);
        for (uint16_t pid : {0x101, 0x102, 0x103}) {
            auto stream = std::make_shared<mpegcore::CBaseStreamTypeMap>();
            stream->elementary_PID = pid;
            vq_test::readLoop(stream->descriptors, kLoop);
            pmt.stream_map[pid] = stream;
        }
        seeds.push_back(render(pmt));
    }
    for (uint8_t tableId : {0x01, 0x03}) {
        mpegcore::CCAT cat(nullptr, 1024);
        cat.table_id = tableId;
        vq_test::readLoop(cat.descriptors, kLoop);
        seeds.push_back(render(cat));
    }
    {
        mpegcore::CTDT tdt(0xC079124500ull, nullptr, 16);
        seeds.push_back(render(tdt));
        mpegcore::CTOT tot(nullptr, 1024);
        tot.table_id = 0x73;
        vq_test::readLoop(tot.descriptors, kLoop);
        seeds.push_back(render(tot));
    }
    {
        mpegcore::CNIT nit(nullptr, 1024);
        nit.table_id = 0x40;
        vq_test::readLoop(nit.descriptors, kLoop);
        for (int i = 0; i < 3; ++i) {
            auto stream = std::make_shared<mpegcore::CBaseTransportStream>();
            vq_test::readLoop(stream->descriptors, kLoop);
            nit.transport_stream.push_back(stream);
        }
        seeds.push_back(render(nit));
        nit.table_id = 0x4A;  // the BAT shares the layout
        seeds.push_back(render(nit));
    }
    {
        mpegcore::CSDT sdt(nullptr, 1024);
        sdt.table_id = 0x42;
        for (uint16_t id : {1, 2, 3}) {
            auto service = std::make_shared<mpegcore::CServiceDescriptionSection>();
            service->service_id = id;
            vq_test::readLoop(service->descriptors, kLoop);
            sdt.sds[id] = service;
        }
        seeds.push_back(render(sdt));
    }
    {
        mpegcore::CEIT eit(nullptr, 4096);
        eit.table_id = 0x4E;
        for (uint16_t id : {1, 2, 3}) {
            auto event = std::make_shared<mpegcore::CEventInfo>();
            event->event_id = id;
            vq_test::readLoop(event->descriptors, kLoop);
            eit.eventInfo.push_back(event);
        }
        seeds.push_back(render(eit));
    }
    return seeds;
}

SectionBytes mutate(const std::vector<SectionBytes>& seeds, std::mt19937& rng) {
    auto pick = [&](size_t n) { return size_t(rng() % n); };
    SectionBytes bytes;
    switch (pick(6)) {
    case 0:  // random bytes, random length
        bytes.resize(pick(300));
        for (auto& b : bytes)
            b = uint8_t(rng());
        break;
    case 1:  // truncated seed
        bytes = seeds[pick(seeds.size())];
        bytes.resize(pick(bytes.size() + 1));
        break;
    case 2:  // seed with a rewritten section_length
        bytes = seeds[pick(seeds.size())];
        bytes[1] = uint8_t((bytes[1] & 0xF0) | pick(16));
        bytes[2] = uint8_t(rng());
        break;
    default:  // seed with flipped bytes, sometimes grown with junk
        bytes = seeds[pick(seeds.size())];
        for (size_t n = 1 + pick(4); n; --n)
            bytes[pick(bytes.size())] ^= uint8_t(1 + pick(255));
        if (pick(4) == 0)
            for (size_t n = pick(40); n; --n)
                bytes.push_back(uint8_t(rng()));
        break;
    }
    if (pick(10) != 0)
        vq_test::fixSectionCrc(bytes);
    return bytes;
}

// One table class under test, reused from section to section as the parser
// reuses its tables: cleared, then read.
template <class Table>
class Exerciser {
public:
    // Reads the section into the table with the large or the small render
    // buffer, renders what was read and reads the rendered section back.
    // True when the first read succeeded.
    bool run(unsigned char* data, size_t size, bool smallBuffer) {
        Table& table = smallBuffer ? m_small : m_large;
        table.Clear();
        VQSDK::VQBSReaderT<unsigned char*> reader(data, size);
        if (!table.read(reader))
            return false;
        table.RenderTable();
        const SectionBytes rendered = vq_test::renderedBytes(table);
        m_again.Clear();
        vq_test::readTable(m_again, rendered);
        return true;
    }

private:
    Table m_large{nullptr, 1024};
    Table m_small{nullptr, 40};
    Table m_again{nullptr, 1024};
};

}  // namespace

TEST(TablesRobustness, RandomAndMutatedSections) {
    const std::vector<SectionBytes> seeds = seedSections();
    std::mt19937 rng(20240611);
    Exerciser<mpegcore::CPAT> pat;
    Exerciser<mpegcore::CPMT> pmt;
    Exerciser<mpegcore::CCAT> cat;
    Exerciser<mpegcore::CTSDT> tsdt;
    Exerciser<mpegcore::CTDT> tdt;
    Exerciser<mpegcore::CTOT> tot;
    Exerciser<mpegcore::CNIT> nit;
    Exerciser<mpegcore::CSDT> sdt;
    Exerciser<mpegcore::CBAT> bat;
    Exerciser<mpegcore::CEIT> eit;
    std::array<int, 10> accepted{};
    for (int i = 0; i < kSections; ++i) {
        const SectionBytes bytes = mutate(seeds, rng);
        // An exactly sized heap copy, so that any read past the section is caught.
        std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size() ? bytes.size() : 1]);
        std::copy(bytes.begin(), bytes.end(), exact.get());
        const bool small = rng() % 4 == 0;
        accepted[0] += pat.run(exact.get(), bytes.size(), small);
        accepted[1] += pmt.run(exact.get(), bytes.size(), small);
        accepted[2] += cat.run(exact.get(), bytes.size(), small);
        accepted[3] += tsdt.run(exact.get(), bytes.size(), small);
        accepted[4] += tdt.run(exact.get(), bytes.size(), small);
        accepted[5] += tot.run(exact.get(), bytes.size(), small);
        accepted[6] += nit.run(exact.get(), bytes.size(), small);
        accepted[7] += sdt.run(exact.get(), bytes.size(), small);
        accepted[8] += bat.run(exact.get(), bytes.size(), small);
        accepted[9] += eit.run(exact.get(), bytes.size(), small);
    }
    // The run only means something when every reader got past its checks
    // into its loops often enough.
    for (size_t t = 0; t < accepted.size(); ++t) {
        RecordProperty("accepted_" + std::to_string(t), accepted[t]);
        EXPECT_GT(accepted[t], kSections / 50) << "table class " << t;
    }
}
