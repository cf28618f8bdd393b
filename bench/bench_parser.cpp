// Throughput of the synchroniser, the transport packet parser and the T2-MI
// decapsulator over ~100 MB in memory (VQ_BENCH_MB overrides the size), built
// by repeating real captures.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/T2MIToTS.h"
#include "mpegcore/vq_mpegts_sync.h"

namespace {

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
BENCHMARK(BM_Sync)->Arg(188 * 348)->Arg(65536)->Unit(benchmark::kMillisecond);

void BM_Parser(benchmark::State& state) {
    auto& data = plainStream();
    mpegcore::CBaseMpegParser parser(true);
    for (auto _ : state)
        benchmark::DoNotOptimize(parser.Process(data.data(), static_cast<unsigned long>(data.size())));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
BENCHMARK(BM_Parser)->Unit(benchmark::kMillisecond);

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
BENCHMARK(BM_SyncAndParser)->Arg(188 * 348)->Arg(65536)->Unit(benchmark::kMillisecond);

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
        for (size_t pos = 0; pos + 188 <= data.size(); pos += 188)
            decapsulator.Process(data.data() + pos, 188);
    benchmark::DoNotOptimize(decapsulator.packets);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
BENCHMARK(BM_T2MI)->Unit(benchmark::kMillisecond);

}  // namespace
