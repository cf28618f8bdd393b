// libFuzzer entry of one harness, chosen at build time by VQ_FUZZ_TARGET.
// A broken check aborts, so libFuzzer keeps the input as a crash.

#include <cstdio>
#include <cstdlib>

#include "harnesses.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const vq_fuzz::Target* const target = vq_fuzz::findTarget(VQ_FUZZ_TARGET);
    if (!target) {
        std::fprintf(stderr, "no fuzz harness named %s\n", VQ_FUZZ_TARGET);
        std::abort();
    }
    const std::string problem = target->run(data, size);
    if (!problem.empty()) {
        std::fprintf(stderr, "fuzz_%s: %s\n", target->name, problem.c_str());
        std::abort();
    }
    return 0;
}
