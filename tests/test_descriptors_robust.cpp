// Random and mutated descriptor loops: whatever the bytes, a list read either
// succeeds or fails without touching memory outside the loop, and writing the
// result back never passes the end of a bounded buffer. The sanitizer build
// turns any stray access into a failure.

#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "mpegcore/vqdescriptorlist.h"
#include "support/descriptor_bytes.h"
#include "support/sanitizer.h"

using namespace mpegcore;
using vq_test::Bytes;

namespace {

// The unoptimised sanitizer build runs about a hundred times slower, so it
// takes a fixed-seed eighth of the loops.
#ifdef VQ_UNDER_ASAN
constexpr int kLoops = 25000;
#else
constexpr int kLoops = 200000;
#endif

// Tags the two factories model, so that random loops reach the typed readers.
const uint8_t kTags[] = {0x00, 0x01, 0x02, 0x03, 0x05, 0x09, 0x0A, 0x0C, 0x10, 0x11, 0x40, 0x41, 0x45, 0x46,
                         0x47, 0x48, 0x4D, 0x4E, 0x52, 0x55, 0x56, 0x58, 0x59, 0x5F, 0x6A, 0x7F, 0x83, 0x8A};

// Well-formed loops to mutate.
const Bytes kSeeds[] = {
    {0x0A, 0x08, 'e', 'n', 'g', 0x00, 'q', 'a', 'd', 0x03, 0x52, 0x01, 0x07},
    {0x56, 0x0A, 'f',  'r',  'a',  0x28, 0x88, 'f',  'r',  'a',  0x10, 0x89,
     0x45, 0x0A, 0x01, 0x08, 0xE7, 0xC7, 0xE8, 0xC8, 0xE9, 0xC9, 0xEA, 0xCA},
    {0x48, 0x0C, 0x01, 0x04, 0x03, 'D', 'V', 'B', 0x05, 0x04, 'P', '1', '.', '1'},
    {0x4E, 0x14, 0x12, 'd',  'e',  'u', 0x0A, 0x03, 'D', 'i', 'r',
     0x02, 'M',  'e',  0x00, 0x01, 'x', 0x04, 'T',  'e', 'x', 't'},
    {0x05, 0x04, 'H', 'D', 'M', 'V', 0x88, 0x04, 0x0F, 0xFF, 0xFC, 0xFC, 0x09, 0x06, 0x0B, 0x00, 0xF2, 0x34, 1, 2},
    {0x7F, 0x06, 0x04, 0x01, 0x00, 0x02, 0x48, 0x4E, 0x7F, 0x03, 0x05, 0xAA, 0xBB, 0x83, 0x04, 0x00, 0x01, 0xFC, 0x05},
    {0x58, 0x0D, 'D', 'E', 'U', 0x02, 0x01, 0x00, 0xE4, 0xC5, 0x02, 0x00, 0x00, 0x02, 0x00, 0x6A, 0x03, 0xC0, 1, 2},
    {0x02, 0x27, 'C',  'U',  'E',  'I',  0x01, 0x02, 0x03, 0x04, 0x7F, 0x56, 0x02, 0x21, 0xFF, 0x23, 0x45, 0x67,
     0x89, 0x22, 0xFE, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x52, 0x65, 0xC0, 0x0C, 0x04, 0xDE, 0xAD, 0xBE, 0xEF,
     0x30, 0x01, 0x01, 0x02, 0x03, 0x01, 0x09, 'C',  'U',  'E',  'I',  0x40, 0x7F, '*',  '1',  '2'},
    {0x59, 0x08, 'e', 'n', 'g', 0x10, 0x00, 0x01, 0x00, 0x02, 0x41, 0x06, 0x00, 0x01, 0x01, 0x00, 0x02, 0x19},
};

Bytes randomLoop(std::mt19937& rng) {
    Bytes loop;
    const size_t target = rng() % 300;
    while (loop.size() < target) {
        const bool knownTag = rng() % 4 != 0;
        loop.push_back(knownTag ? kTags[rng() % sizeof(kTags)] : static_cast<uint8_t>(rng()));
        const uint8_t length = rng() % 3 == 0 ? static_cast<uint8_t>(rng()) : static_cast<uint8_t>(rng() % 24);
        loop.push_back(length);
        for (unsigned i = 0; i < length && loop.size() < target; ++i)
            loop.push_back(static_cast<uint8_t>(rng()));
    }
    return loop;
}

Bytes mutatedLoop(std::mt19937& rng) {
    Bytes loop = kSeeds[rng() % (sizeof(kSeeds) / sizeof(kSeeds[0]))];
    const int edits = 1 + rng() % 4;
    for (int i = 0; i < edits && !loop.empty(); ++i) {
        switch (rng() % 5) {
        case 0:  // flip bits of one byte
            loop[rng() % loop.size()] ^= static_cast<uint8_t>(1u << (rng() % 8));
            break;
        case 1:  // replace a byte, often a length
            loop[rng() % loop.size()] = static_cast<uint8_t>(rng());
            break;
        case 2:  // cut the end
            loop.resize(rng() % loop.size());
            break;
        case 3:  // grow with random bytes
            for (int n = rng() % 16; n > 0; --n)
                loop.push_back(static_cast<uint8_t>(rng()));
            break;
        default:  // duplicate a slice
        {
            const size_t from = rng() % loop.size();
            const size_t count = rng() % (loop.size() - from + 1);
            loop.insert(loop.end(), loop.begin() + from, loop.begin() + from + count);
        }
        }
    }
    return loop;
}

// Reads `loop` from a heap block of exactly its size, so any read past it is
// caught by the sanitizer, then writes into a block of `capacity` bytes.
void exercise(const Bytes& loop, VQDescriptorType space, size_t capacity, int& succeeded) {
    std::unique_ptr<unsigned char[]> input(new unsigned char[loop.size() ? loop.size() : 1]);
    std::copy(loop.begin(), loop.end(), input.get());
    VQDescriptorList list(space);
    descriptor_reader reader(input.get(), loop.size());
    const bool ok = list.read(reader);
    const uint64_t left = descriptor_io::bytesLeft(reader);
    ASSERT_LE(left, loop.size());
    if (ok) {
        ++succeeded;
        ASSERT_LT(left, 3u);
    }

    std::unique_ptr<unsigned char[]> output(new unsigned char[capacity ? capacity : 1]);
    {
        descriptor_writer writer(output.get(), capacity);
        list.write(writer);
        writer.flush();
        ASSERT_LE(writer.getWritedBytes(), capacity);
    }

    VQDescriptorList copy(space);
    list.copyTo(copy);
    ASSERT_EQ(copy.descriptor.size(), list.descriptor.size());
    ASSERT_EQ(copy.getSize(), list.getSize());
}

}  // namespace

TEST(DescriptorRobustness, RandomAndMutatedLoopsStayInBounds) {
    std::mt19937 rng(20240611);
    int succeeded[2] = {0, 0};
    for (int i = 0; i < kLoops; ++i) {
        const Bytes loop = i % 2 ? mutatedLoop(rng) : randomLoop(rng);
        const size_t capacity = rng() % 2 ? loop.size() : rng() % 64;
        exercise(loop, e_ts_desc_type, capacity, succeeded[0]);
        exercise(loop, e_scte35_desc_type, capacity, succeeded[1]);
        if (HasFatalFailure())
            FAIL() << "loop " << i;
    }
    // Both outcomes must occur, or the inputs do not reach the readers.
    EXPECT_GT(succeeded[0], kLoops / 20);
    EXPECT_LT(succeeded[0], kLoops);
    EXPECT_GT(succeeded[1], kLoops / 20);
    EXPECT_LT(succeeded[1], kLoops);
    std::printf("successful reads: ts %d, scte35 %d of %d loops\n", succeeded[0], succeeded[1], kLoops);
}

TEST(DescriptorRobustness, OversizedLengthsAgainstFixedArrays) {
    // Every length for the two 188-byte array descriptors, with the payload
    // present: lengths up to 192 read, longer ones are rejected.
    for (int length = 1; length <= 255; ++length) {
        for (uint8_t tag : {uint8_t(0x05), uint8_t(0x09)}) {
            Bytes loop{tag, static_cast<uint8_t>(length)};
            loop.resize(2 + length, 0xA5);
            VQDescriptorList list(e_ts_desc_type);
            const bool ok = vq_test::readLoop(list, loop);
            EXPECT_EQ(ok, length >= 4 && length <= 192) << int(tag) << " " << length;
            if (ok) {
                EXPECT_EQ(vq_test::writeLoop(list), loop);
            }
        }
    }
}
