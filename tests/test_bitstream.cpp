#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "mpegcore/VQAlignMemory.h"
#include "mpegcore/VQBSReader.h"
#include "mpegcore/VQBSWriter.h"

using VQSDK::VQAlignMemory;
using Reader = VQSDK::VQBSReaderT<unsigned char*>;
using Writer = VQSDK::VQBSWriterT<unsigned char*>;

namespace {

// A buffer whose usable start sits at a chosen offset from an 8-byte boundary.
struct OffsetBuffer {
    OffsetBuffer(size_t size, size_t offset) : storage(size + 16) {
        const auto base = reinterpret_cast<uintptr_t>(storage.data());
        start = storage.data() + ((8 - base % 8) % 8) + offset;
    }
    std::vector<unsigned char> storage;
    unsigned char* start;
};

}  // namespace

TEST(BitReader, MaskTableHoldsLowBitMasks) {
    EXPECT_EQ(VQSDK::g_bitMask[0], 0u);
    EXPECT_EQ(VQSDK::g_bitMask[1], 1u);
    EXPECT_EQ(VQSDK::g_bitMask[13], 0x1FFFu);
    EXPECT_EQ(VQSDK::g_bitMask[63], 0x7FFFFFFFFFFFFFFFull);
    EXPECT_EQ(VQSDK::g_bitMask[64], ~0ull);
}

TEST(BitReader, FirstLoadStopsAtFourByteBoundary) {
    OffsetBuffer buf(16, 1);
    const unsigned char bytes[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    std::memcpy(buf.start, bytes, sizeof bytes);
    Reader reader(buf.start, sizeof bytes);
    EXPECT_EQ(reader.m_sizeCache, 24u);
    EXPECT_EQ(reader.getBits(32), 0x11223344u);
    EXPECT_EQ(reader.getBits(16), 0x5566u);
}

TEST(BitReader, AlignedStartLoadsEightBytes) {
    OffsetBuffer buf(16, 0);
    Reader reader(buf.start, 16);
    EXPECT_EQ(reader.m_sizeCache, 64u);
    EXPECT_EQ(reader.m_length, 8u);
}

TEST(BitReader, FirstLoadIsLimitedByLength) {
    OffsetBuffer buf(16, 0);
    Reader reader(buf.start, 3);
    EXPECT_EQ(reader.m_sizeCache, 24u);
    EXPECT_EQ(reader.m_length, 0u);
}

TEST(BitReader, EmptyReaderIsExhaustedFromTheStart) {
    unsigned char byte = 0xFF;
    Reader reader(&byte, 0);
    unsigned char value = 1;
    EXPECT_FALSE((reader.getBits<8, unsigned char>(value)));
    EXPECT_EQ(value, 0);
    EXPECT_EQ(reader.getBits(1), 0u);
}

TEST(BitReader, ReadingPastTheEndFailsAndExhausts) {
    unsigned char byte = 0xAB;
    Reader reader(&byte, 1);
    EXPECT_EQ(reader.getBits(12), 0u);
    EXPECT_EQ(reader.m_sizeCache, 0u);
    unsigned char value = 0;
    EXPECT_FALSE((reader.getBits<1, unsigned char>(value)));
}

TEST(BitReader, TypedReadPastTheEndKeepsBitsReadShifted) {
    unsigned char byte = 0xAB;
    Reader reader(&byte, 1);
    unsigned short value = 0;
    EXPECT_FALSE((reader.getBits<12, unsigned short>(value)));
    EXPECT_EQ(value, 0xAB0);
}

TEST(BitReader, SixtyFourBitsOverEightBytesAreOneBigEndianValue) {
    OffsetBuffer buf(8, 0);
    const unsigned char bytes[] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
    std::memcpy(buf.start, bytes, 8);
    Reader reader(buf.start, 8);
    EXPECT_EQ(reader.getBits(64), 0x0123456789ABCDEFull);
    EXPECT_EQ(reader.m_sizeCache, 0u);
}

TEST(BitReader, SixtyFourBitsAcrossAReload) {
    OffsetBuffer buf(16, 3);
    for (int i = 0; i < 10; ++i)
        buf.start[i] = static_cast<unsigned char>(0x10 + i);
    Reader reader(buf.start, 10);
    EXPECT_EQ(reader.getBits(4), 0x1u);
    EXPECT_EQ(reader.getBits(64), 0x0111213141516171ull);
    EXPECT_EQ(reader.getBits(12), 0x819u);
}

TEST(BitReader, SkipBytesDropsTheRestOfAPartlyReadByte) {
    OffsetBuffer buf(8, 0);
    const unsigned char bytes[] = {0xFF, 0x5A, 0x77};
    std::memcpy(buf.start, bytes, 3);
    Reader reader(buf.start, 3);
    reader.getBits(3);
    reader.skipBytes(1);
    EXPECT_EQ(reader.getBits(8), 0x5Au);
}

TEST(BitReader, SkipBytesPastTheEndChangesNothing) {
    OffsetBuffer buf(8, 0);
    const unsigned char bytes[] = {0x12, 0x34, 0x56};
    std::memcpy(buf.start, bytes, 3);
    Reader reader(buf.start, 3);
    reader.getBits(4);
    const Reader before = reader;
    reader.skipBytes(4);
    EXPECT_EQ(reader.m_Cache, before.m_Cache);
    EXPECT_EQ(reader.m_sizeCache, before.m_sizeCache);
    EXPECT_EQ(reader.m_data, before.m_data);
    EXPECT_EQ(reader.m_length, before.m_length);
    EXPECT_EQ(reader.getBits(4), 0x2u);
}

TEST(BitReader, SkipBytesToTheVeryEndExhausts) {
    OffsetBuffer buf(8, 0);
    Reader reader(buf.start, 3);
    reader.skipBytes(3);
    EXPECT_EQ(reader.m_sizeCache, 0u);
}

TEST(BitReader, LookBitsPeeksAcrossAReloadWithoutConsuming) {
    OffsetBuffer buf(8, 3);
    const unsigned char bytes[] = {0xA1, 0xB2, 0xC3};
    std::memcpy(buf.start, bytes, 3);
    Reader reader(buf.start, 3);
    reader.getBits(4);  // first load holds one byte; the peek straddles the reload
    unsigned char peek = 0;
    EXPECT_TRUE((reader.lookBits<8, unsigned char>(peek)));
    EXPECT_EQ(peek, 0x1B);
    EXPECT_EQ(reader.getBits(8), 0x1Bu);
}

TEST(BitReader, LookBitsOnExhaustedReaderFails) {
    unsigned char byte = 0;
    Reader reader(&byte, 0);
    unsigned char peek = 7;
    EXPECT_FALSE((reader.lookBits<8, unsigned char>(peek)));
}

TEST(BitReader, GetDataAndLengthFollowTheNextUnreadByte) {
    OffsetBuffer buf(32, 2);
    Reader reader(buf.start, 20);
    reader.getBits(8);
    EXPECT_EQ(reader.getData(), buf.start + 1);
    EXPECT_EQ(reader.getLength(), 19u);
    reader.getBits(3);
    EXPECT_EQ(reader.getData(), buf.start + 1);
    EXPECT_EQ(reader.getLength(), 18u);
    reader.alignByte();
    EXPECT_EQ(reader.getData(), buf.start + 2);
}

// Every width and type the table readers instantiate.
template <unsigned N, class T>
void checkTypedRead() {
    OffsetBuffer buf(16, 0);
    for (int i = 0; i < 16; ++i)
        buf.start[i] = static_cast<unsigned char>(0x9D ^ (i * 37));
    Reader reader(buf.start, 16);
    Reader untyped(buf.start, 16);
    T value{};
    ASSERT_TRUE((reader.getBits<N, T>(value))) << "N=" << N;
    EXPECT_EQ(static_cast<uint64_t>(value) & VQSDK::g_bitMask[N > sizeof(T) * 8 ? sizeof(T) * 8 : N],
              untyped.getBits(N) & VQSDK::g_bitMask[N > sizeof(T) * 8 ? sizeof(T) * 8 : N])
        << "N=" << N;
}

template <class T>
void checkTypedReadsUpTo16() {
    checkTypedRead<1, T>();
    checkTypedRead<2, T>();
    checkTypedRead<3, T>();
    checkTypedRead<4, T>();
    checkTypedRead<5, T>();
    checkTypedRead<6, T>();
    checkTypedRead<7, T>();
    checkTypedRead<8, T>();
}

TEST(BitReader, FixedWidthFormsForEveryListedWidthAndType) {
    checkTypedReadsUpTo16<unsigned char>();
    checkTypedReadsUpTo16<char>();
    checkTypedReadsUpTo16<unsigned short>();
    checkTypedReadsUpTo16<unsigned int>();
    checkTypedReadsUpTo16<unsigned long>();
    checkTypedRead<10, unsigned short>();
    checkTypedRead<12, unsigned short>();
    checkTypedRead<13, unsigned short>();
    checkTypedRead<14, unsigned short>();
    checkTypedRead<15, unsigned short>();
    checkTypedRead<16, unsigned short>();
    checkTypedRead<12, unsigned int>();
    checkTypedRead<16, unsigned int>();
    checkTypedRead<22, unsigned int>();
    checkTypedRead<28, unsigned int>();
    checkTypedRead<32, unsigned int>();
    checkTypedRead<16, unsigned long>();
    checkTypedRead<22, unsigned long>();
    checkTypedRead<32, unsigned long>();
    checkTypedRead<33, unsigned long>();
    checkTypedRead<40, unsigned long>();
    checkTypedRead<48, unsigned long>();
}

TEST(BitWriter, SixteenBitsIntoTwoBytesAreStoredAtOnce) {
    unsigned char out[2] = {0, 0};
    Writer writer(out, 2);
    EXPECT_TRUE(writer.putBits<unsigned short>(0xBEEF, 16));
    EXPECT_EQ(writer.getWritedBytes(), 2u);
    EXPECT_EQ(out[0], 0xBE);
    EXPECT_EQ(out[1], 0xEF);
}

TEST(BitWriter, TwelveBitsIntoTwoBytesWaitForFlush) {
    unsigned char out[2] = {0x55, 0x55};
    Writer writer(out, 2);
    EXPECT_TRUE(writer.putBits<unsigned short>(0xABC, 12));
    EXPECT_EQ(writer.getWritedBytes(), 0u);
    EXPECT_EQ(out[0], 0x55);
    writer.flush();
    EXPECT_EQ(writer.getWritedBytes(), 2u);
    EXPECT_EQ(out[0], 0xAB);
    EXPECT_EQ(out[1], 0xC0);
}

TEST(BitWriter, ValueWiderThanItsWidthCorruptsTheBitBefore) {
    unsigned char out[4] = {};
    Writer writer(out, 4);
    writer.putBits<1, unsigned char>(0);
    writer.putBits<unsigned short>(0x1FF, 8);
    writer.flush();
    // The ninth bit of 0x1FF lands on the zero bit written first.
    EXPECT_EQ(out[0], 0xFF);
    EXPECT_EQ(out[1], 0x80);
}

TEST(BitWriter, FullBufferRefusesFurtherBits) {
    unsigned char out[3] = {};
    Writer writer(out, 2);
    EXPECT_TRUE((writer.putBits<8, unsigned char>(0x12)));
    EXPECT_TRUE((writer.putBits<8, unsigned char>(0x34)));
    EXPECT_EQ(writer.getWritedBytes(), 2u);
    EXPECT_TRUE(writer.putBits<unsigned short>(0x5, 4));  // held, nowhere to go
    EXPECT_FALSE(writer.putBits<unsigned long>(0xFFFFFFFFFFFFFFFFul, 64));
    writer.flush();
    EXPECT_EQ(writer.getWritedBytes(), 2u);
    EXPECT_EQ(out[2], 0);
}

TEST(BitWriter, SixtyFourBitsIntoFourBytesStopAtTheEnd) {
    std::vector<unsigned char> out(8, 0);
    Writer writer(out.data(), 4);
    // All 64 bits were taken; only the four that fit were stored.
    EXPECT_TRUE(writer.putBits<unsigned long>(0x0102030405060708ul, 64));
    EXPECT_EQ(writer.getWritedBytes(), 4u);
    EXPECT_EQ(writer.m_length, 0u);
    EXPECT_EQ(out[3], 0x04);
    EXPECT_EQ(out[4], 0x00);
}

TEST(BitWriter, DestructorStoresHeldBytes) {
    unsigned char out[2] = {};
    {
        Writer writer(out, 2);
        writer.putBits<4, unsigned char>(0xA);
    }
    EXPECT_EQ(out[0], 0xA0);
}

TEST(BitWriter, FlushOfFullCacheStoresEightBytes) {
    std::vector<unsigned char> out(16, 0);
    Writer writer(out.data(), 16);
    writer.putBits<unsigned long>(0x1122334455667788ul, 64);
    EXPECT_EQ(writer.getWritedBytes(), 8u);
    writer.putBits<unsigned int>(0x99AABBCC, 32);
    writer.flush();
    EXPECT_EQ(writer.getWritedBytes(), 12u);
    EXPECT_EQ(out[11], 0xCC);
}

TEST(BitStream, RandomFieldsRoundTripAtEveryAlignment) {
    std::mt19937_64 rng(20261121);
    constexpr size_t kFields = 100000;
    std::vector<std::pair<unsigned, uint64_t>> fields(kFields);
    uint64_t totalBits = 0;
    for (auto& field : fields) {
        field.first = 1 + rng() % 64;
        field.second = rng() & VQSDK::g_bitMask[field.first];
        totalBits += field.first;
    }
    const size_t bytes = (totalBits + 7) / 8;
    for (size_t offset = 0; offset < 8; ++offset) {
        OffsetBuffer buf(bytes + 8, offset);
        Writer writer(buf.start, bytes);
        for (const auto& field : fields)
            ASSERT_TRUE(writer.putBits<unsigned long>(field.second, static_cast<unsigned char>(field.first)));
        writer.flush();
        ASSERT_EQ(writer.getWritedBytes(), bytes);

        Reader reader(buf.start, bytes);
        for (size_t i = 0; i < kFields; ++i)
            ASSERT_EQ(reader.getBits(fields[i].first), fields[i].second) << "field " << i << " offset " << offset;
    }
}

TEST(AlignMemory, SmallerAllocWithSameAlignmentKeepsBlockAndContents) {
    VQAlignMemory<unsigned char> mem;
    unsigned char* first = mem.alloc(200, 8);
    first[0] = 0x42;
    first[99] = 0x43;
    unsigned char* second = mem.alloc(100, 8);
    EXPECT_EQ(first, second);
    EXPECT_EQ(mem.size(), 100u);
    EXPECT_EQ(mem.m_fullSize, 200u);
    EXPECT_EQ(second[0], 0x42);
    EXPECT_EQ(second[99], 0x43);
}

TEST(AlignMemory, OtherAlignmentMakesANewBlock) {
    VQAlignMemory<unsigned char> mem;
    mem.alloc(200, 8);
    const auto oldBlock = mem.m_p;
    unsigned char* p = mem.alloc(100, 16);
    EXPECT_NE(mem.m_p, oldBlock);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    EXPECT_EQ(mem.m_align, 16u);
    EXPECT_EQ(mem.m_fullSize, 100u);
}

TEST(AlignMemory, UnalignedBlockStartsAtTheAllocation) {
    VQAlignMemory<unsigned char> mem;
    unsigned char* p = mem.alloc(10, 0);
    EXPECT_EQ(p, mem.m_p.get());
}

TEST(AlignMemory, CopiesShareAndMoveEmptiesTheSource) {
    VQAlignMemory<unsigned char> a;
    a.alloc(64, 8);
    VQAlignMemory<unsigned char> copy = a;
    EXPECT_EQ(copy.get(), a.get());
    EXPECT_EQ(a.m_p.use_count(), 2);

    VQAlignMemory<unsigned char> moved;
    moved = std::move(a);
    EXPECT_EQ(moved.get(), copy.get());
    EXPECT_FALSE(a.isValid());
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_EQ(a.size(), 0u);
    EXPECT_EQ(a.m_fullSize, 0u);
    EXPECT_EQ(a.m_align, 0u);
}

TEST(AlignMemory, WindowArithmeticStaysInsideTheBlock) {
    VQAlignMemory<unsigned char> mem;
    unsigned char* start = mem.alloc(10, 8);
    mem += 4;
    EXPECT_EQ(mem.get(), start + 4);
    EXPECT_EQ(mem.size(), 6u);
    mem += 100;
    EXPECT_EQ(mem.get(), start + 10);
    EXPECT_EQ(mem.size(), 0u);
    mem -= 100;
    EXPECT_EQ(mem.get(), start);
    EXPECT_EQ(mem.size(), 10u);
}

TEST(AlignMemory, AttachBorrowsWithoutFreeing) {
    unsigned char external[4] = {1, 2, 3, 4};
    {
        VQAlignMemory<unsigned char> mem;
        mem.attach(external, 4);
        EXPECT_EQ(mem.get(), external);
        EXPECT_EQ(mem.size(), 4u);
    }
    EXPECT_EQ(external[3], 4);
}
