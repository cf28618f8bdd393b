// Throughput of the bit reader, the bit writer and the CRC-32/MPEG-2.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "mpegcore/MpegCRC32.h"
#include "mpegcore/VQBSReader.h"
#include "mpegcore/VQBSWriter.h"

namespace {

// Field widths as they come in PSI/SI sections: flags, PIDs, lengths, CRCs.
const unsigned kWidths[] = {8, 1, 1, 2, 12, 16, 2, 5, 1, 8, 8, 3, 13, 4, 12, 32};
constexpr size_t kWidthCount = sizeof kWidths / sizeof kWidths[0];

std::vector<unsigned char> randomBytes(size_t size) {
    std::mt19937 rng(7);
    std::vector<unsigned char> data(size);
    for (auto& b : data)
        b = static_cast<unsigned char>(rng());
    return data;
}

void BM_BitReaderFields(benchmark::State& state) {
    auto data = randomBytes(1 << 16);
    uint64_t fields = 0;
    for (auto _ : state) {
        VQSDK::VQBSReaderT<unsigned char*> reader(data.data(), data.size());
        uint64_t sum = 0;
        size_t i = 0;
        while (reader.m_sizeCache) {
            sum += reader.getBits(kWidths[i]);
            i = (i + 1) % kWidthCount;
            ++fields;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.counters["fields/s"] = benchmark::Counter(double(fields), benchmark::Counter::kIsRate);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}
BENCHMARK(BM_BitReaderFields);

void BM_BitWriterFields(benchmark::State& state) {
    std::vector<unsigned char> out(1 << 16);
    uint64_t fields = 0;
    for (auto _ : state) {
        VQSDK::VQBSWriterT<unsigned char*> writer(out.data(), out.size());
        size_t i = 0;
        uint64_t value = 0x5A5A5A5A;
        while (writer.m_length) {
            const unsigned width = kWidths[i];
            writer.putBits<uint64_t>(value & VQSDK::g_bitMask[width], static_cast<unsigned char>(width));
            value = value * 6364136223846793005ull + 1;
            i = (i + 1) % kWidthCount;
            ++fields;
        }
        writer.flush();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["fields/s"] = benchmark::Counter(double(fields), benchmark::Counter::kIsRate);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(out.size()));
}
BENCHMARK(BM_BitWriterFields);

void BM_Crc32(benchmark::State& state) {
    auto data = randomBytes(size_t(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(mpegcore::crc32_mpeg2(data.data(), data.size()));
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Crc32)->Arg(1024)->Arg(4096)->Arg(1 << 20);

// The byte-at-a-time table, as the baseline the fast CRC is measured against.
void BM_Crc32ByteTable(benchmark::State& state) {
    auto data = randomBytes(size_t(state.range(0)));
    for (auto _ : state) {
        uint32_t crc = 0xFFFFFFFFu;
        for (unsigned char byte : data)
            crc = (crc << 8) ^ mpegcore::g_MPEG2_PSI_CRC_32_Lookup[(crc >> 24) ^ byte];
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Crc32ByteTable)->Arg(4096)->Arg(1 << 20);

}  // namespace
