// The machine's memory copy bandwidth: the ceiling for any processing that
// touches every byte of a stream held in memory.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

// Far larger than the caches, so every copy goes to main memory and back.
void BM_Memcpy(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0)) << 20;
    std::vector<unsigned char> from(size, 0x47);
    std::vector<unsigned char> to(size, 0);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), size);
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(to.data());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}
BENCHMARK(BM_Memcpy)->Arg(64)->Unit(benchmark::kMillisecond);

}  // namespace
