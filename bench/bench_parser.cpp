// Throughput of the synchroniser, the transport packet parser and the T2-MI
// decapsulator over ~100 MB in memory (VQ_BENCH_MB overrides the size), built
// by repeating real captures, and of the parser on a generated multiplex of
// many programs (the captures carry one program each); and of the stream
// analysis on both.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/T2MIToTS.h"
#include "mpegcore/TsAnalyzer.h"
#include "mpegcore/vq_mpegts_sync.h"

namespace {

using mpegcore::kTsPacketSize;

size_t targetBytes() {
    const char* mb = std::getenv("VQ_BENCH_MB");
    const long value = mb ? std::atol(mb) : 0;
    return (value > 0 ? static_cast<size_t>(value) : 100u) << 20;
}

std::vector<uint8_t> repeatCapture(const std::string& name) {
    std::ifstream in(std::string(VQ_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<uint8_t> out;
    if (file.empty())
        return out;
    const size_t target = targetBytes();
    out.reserve(target + file.size());
    while (out.size() < target)
        out.insert(out.end(), file.begin(), file.end());
    return out;
}

std::vector<uint8_t>& plainStream() {
    static std::vector<uint8_t> data = repeatCapture("live-025.ts");
    return data;
}

std::vector<uint8_t>& t2miStream() {
    static std::vector<uint8_t> data = repeatCapture("t2mi-plp102.ts");
    return data;
}

// Pushes the stream as device frames of frameSize bytes.
template <class Sync>
void pushFrames(Sync& sync, std::vector<uint8_t>& data, size_t frameSize) {
    uint64_t t = 0;
    for (size_t pos = 0; pos < data.size(); pos += frameSize) {
        const size_t n = std::min(frameSize, data.size() - pos);
        sync.push_data(t, t + 20000000, data.data() + pos, n);
        t += 20000000;
    }
}

void BM_Sync(benchmark::State& state) {
    auto& data = plainStream();
    const size_t frameSize = static_cast<size_t>(state.range(0));
    size_t packets = 0;
    mpegcore::vq_mpegts_sync sync([&packets](unsigned long, unsigned char*, unsigned long) { ++packets; });
    sync.reset(frameSize);
    for (auto _ : state)
        pushFrames(sync, data, frameSize);
    benchmark::DoNotOptimize(packets);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
// Frames of 348 whole packets are delivered in place; 64 KiB frames carry a tail.
BENCHMARK(BM_Sync)->Arg(kTsPacketSize * 348)->Arg(65536)->Unit(benchmark::kMillisecond);

// The whole stream through one parser in a single call.
void parseWhole(benchmark::State& state, std::vector<uint8_t>& data) {
    mpegcore::CBaseMpegParser parser(true);
    for (auto _ : state)
        benchmark::DoNotOptimize(parser.Process(data.data(), static_cast<unsigned long>(data.size())));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}

void BM_Parser(benchmark::State& state) { parseWhole(state, plainStream()); }
BENCHMARK(BM_Parser)->Unit(benchmark::kMillisecond);

// Packets of one PID with running continuity counters.
class PacketMaker {
public:
    explicit PacketMaker(std::vector<uint8_t>& out) : m_out(out) {}

    // One packet carrying a whole section (up to 183 bytes) after a zero pointer field.
    void section(uint16_t pid, const mpegcore::CBaseMpegTable& table) {
        const uint8_t* bytes = table.GetBuffer();
        std::vector<uint8_t> payload = {0};
        payload.insert(payload.end(), bytes, bytes + table.GetSizeBuffer());
        packet(pid, true, payload);
    }
    void payload(uint16_t pid, bool unitStart) { packet(pid, unitStart, std::vector<uint8_t>(184, 0x5A)); }

private:
    void packet(uint16_t pid, bool unitStart, std::vector<uint8_t> payload) {
        payload.resize(184, 0xFF);
        m_out.push_back(mpegcore::kSyncByte);
        m_out.push_back(static_cast<uint8_t>((unitStart ? 0x40 : 0) | (pid >> 8)));
        m_out.push_back(static_cast<uint8_t>(pid));
        m_out.push_back(static_cast<uint8_t>(0x10 | (m_cc[pid]++ & 0x0F)));
        m_out.insert(m_out.end(), payload.begin(), payload.end());
    }

    std::vector<uint8_t>& m_out;
    std::map<uint16_t, uint8_t> m_cc;
};

// A multiplex of 16 programs, each a PMT with a CA descriptor and three
// streams (PCR on the video), a payload unit every 20 packets of a stream;
// the PAT and every PMT once per 1,000 packets.
std::vector<uint8_t>& multiplexStream() {
    static std::vector<uint8_t> data = [] {
        constexpr uint16_t kPrograms = 16;
        mpegcore::CPAT pat(nullptr, 1024);
        pat.section_syntax_indicator = 1;
        pat.current_next_indicator = 1;
        std::vector<std::unique_ptr<mpegcore::CPMT>> pmts;
        std::vector<uint16_t> streams;
        for (uint16_t n = 1; n <= kPrograms; ++n) {
            const uint16_t pmtPid = static_cast<uint16_t>(0x100 * n);
            mpegcore::CBaseMpegProgram program;
            program.program_number = n;
            program.map_PID.program_map_PID = pmtPid;
            pat.program_map[pmtPid] = program;

            auto pmt = std::make_unique<mpegcore::CPMT>(nullptr, 1024);
            pmt->table_id = mpegcore::kTableIdPMT;
            pmt->section_syntax_indicator = 1;
            pmt->current_next_indicator = 1;
            pmt->program_number = n;
            pmt->PCR_PID = static_cast<uint16_t>(pmtPid + 1);
            const uint8_t ca[] = {0x09,
                                  4,
                                  0x0B,
                                  0x00,
                                  static_cast<uint8_t>(0xE0 | ((pmtPid + 9) >> 8)),
                                  static_cast<uint8_t>(pmtPid + 9)};
            VQSDK::VQBSReaderT<unsigned char*> reader(const_cast<uint8_t*>(ca), sizeof ca);
            pmt->descriptors.read(reader);
            const uint8_t types[] = {0x02, 0x04, 0x06};
            for (uint16_t s = 0; s < 3; ++s) {
                auto stream = std::make_shared<mpegcore::CBaseStreamTypeMap>();
                stream->stream_type = types[s];
                stream->elementary_PID = static_cast<uint16_t>(pmtPid + 1 + s);
                pmt->stream_map[stream->elementary_PID] = stream;
                streams.push_back(stream->elementary_PID);
            }
            pmt->RenderTable();
            pmts.push_back(std::move(pmt));
        }
        pat.RenderTable();

        std::vector<uint8_t> out;
        const size_t target = targetBytes();
        out.reserve(target + 1000 * kTsPacketSize);
        PacketMaker maker(out);
        while (out.size() < target) {
            maker.section(mpegcore::kPidPAT, pat);
            for (const auto& pmt : pmts)
                maker.section(static_cast<uint16_t>(pmt->PCR_PID - 1), *pmt);
            for (size_t i = 0; i < 1000 - 1 - pmts.size(); ++i)
                maker.payload(streams[i % streams.size()], (i / streams.size()) % 20 == 0);
        }
        return out;
    }();
    return data;
}

// The parser following 16 programs and 48 streams.
void BM_ParserMultiplex(benchmark::State& state) { parseWhole(state, multiplexStream()); }
BENCHMARK(BM_ParserMultiplex)->Unit(benchmark::kMillisecond);

// The element's path: every aligned packet goes to the parser on its own.
void BM_SyncAndParser(benchmark::State& state) {
    auto& data = plainStream();
    const size_t frameSize = static_cast<size_t>(state.range(0));
    mpegcore::CBaseMpegParser parser(true);
    mpegcore::vq_mpegts_sync sync(
        [&parser](unsigned long, unsigned char* p, unsigned long n) { parser.Process(p, n); });
    sync.reset(frameSize);
    for (auto _ : state)
        pushFrames(sync, data, frameSize);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
BENCHMARK(BM_SyncAndParser)->Arg(kTsPacketSize * 348)->Arg(65536)->Unit(benchmark::kMillisecond);

// The stream analysis over raw bytes in runs of 64 KiB, timed by byte
// position at 40 Mbit/s; the analyzer runs on across iterations, so times
// keep growing.
void analyseWhole(benchmark::State& state, std::vector<uint8_t>& data) {
    mpegcore::CTsAnalyzer analyzer;
    const size_t run = 65536;
    uint64_t position = 0;
    for (auto _ : state) {
        for (size_t pos = 0; pos < data.size(); pos += run) {
            const size_t n = std::min(run, data.size() - pos);
            analyzer.push_raw(position * 200, (position + n) * 200, data.data() + pos, n);
            position += n;
        }
    }
    benchmark::DoNotOptimize(analyzer.count(mpegcore::tr101290_check::Continuity_count_error));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}

void BM_AnalyzerRaw(benchmark::State& state) { analyseWhole(state, plainStream()); }
BENCHMARK(BM_AnalyzerRaw)->Unit(benchmark::kMillisecond);

void BM_AnalyzerMultiplex(benchmark::State& state) { analyseWhole(state, multiplexStream()); }
BENCHMARK(BM_AnalyzerMultiplex)->Unit(benchmark::kMillisecond);

class CountingDecapsulator : public mpegcore::CT2MIToTS {
public:
    CountingDecapsulator() : CT2MIToTS(true) { SetPLPID(102); }
    void OnTS(unsigned char, unsigned char*, unsigned long) override { ++packets; }
    size_t packets = 0;
};

// The T2-MI provider's path: one carrier packet per call.
void BM_T2MI(benchmark::State& state) {
    auto& data = t2miStream();
    CountingDecapsulator decapsulator;
    for (auto _ : state)
        for (size_t pos = 0; pos + kTsPacketSize <= data.size(); pos += kTsPacketSize)
            decapsulator.Process(data.data() + pos, kTsPacketSize);
    benchmark::DoNotOptimize(decapsulator.packets);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
BENCHMARK(BM_T2MI)->Unit(benchmark::kMillisecond);

}  // namespace
