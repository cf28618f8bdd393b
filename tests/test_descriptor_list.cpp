#include <gtest/gtest.h>

#include "mpegcore/vqdescriptorlist.h"
#include "support/descriptor_bytes.h"

using namespace mpegcore;
using vq_test::as;
using vq_test::Bytes;
using vq_test::readLoop;
using vq_test::writeLoop;

TEST(DescriptorList, StartsEmptyWithItsType) {
    VQDescriptorList ts(e_ts_desc_type), scte(e_scte35_desc_type);
    EXPECT_EQ(ts.getType(), e_ts_desc_type);
    EXPECT_EQ(scte.getType(), e_scte35_desc_type);
    EXPECT_TRUE(ts.descriptor.empty());
    EXPECT_EQ(ts.getSize(), 0);
}

TEST(DescriptorList, EmptyAndTinyLoopsReadAsSuccess) {
    for (const Bytes& loop : {Bytes{}, Bytes{0x52}, Bytes{0x52, 0x01}}) {
        VQDescriptorList list(e_ts_desc_type);
        EXPECT_TRUE(readLoop(list, loop)) << loop.size();
        EXPECT_TRUE(list.descriptor.empty());
    }
}

TEST(DescriptorList, TrailingZeroLengthDescriptorIsSkipped) {
    VQDescriptorList list(e_ts_desc_type);
    uint64_t left = 0;
    ASSERT_TRUE(readLoop(list, {0x52, 0x01, 0x07, 0x80, 0x00}, &left));
    ASSERT_EQ(list.descriptor.size(), 1u);
    EXPECT_EQ(list.descriptor.front()->descriptor_tag, 0x52);
    EXPECT_EQ(left, 2u);
}

TEST(DescriptorList, OverlongLengthFailsAndKeepsEarlierDescriptors) {
    VQDescriptorList list(e_ts_desc_type);
    EXPECT_FALSE(readLoop(list, {0x52, 0x01, 0x07, 0x80, 0x05, 0x01, 0x02}));
    ASSERT_EQ(list.descriptor.size(), 1u);
    EXPECT_EQ(as<stream_identifier_descriptor>(list.descriptor.front())->component_tag, 0x07);
}

TEST(DescriptorList, ExtensionTagPicksClassByThirdByte) {
    VQDescriptorList list(e_ts_desc_type);
    ASSERT_TRUE(readLoop(list, {0x7F, 0x06, 0x04, 0x01, 0x00, 0x02, 0x49, 0x54,  //
                                0x7F, 0x03, 0x05, 0xAA, 0xBB}));
    ASSERT_EQ(list.descriptor.size(), 2u);
    auto t2 = as<T2_delivery_system_descriptor>(list.descriptor.front());
    ASSERT_TRUE(t2);
    EXPECT_EQ(t2->descriptor_tag_extension, 0x04);
    EXPECT_EQ(t2->T2_system_id, 0x0002);
    auto ext = as<extension_descriptor>(list.descriptor.back());
    ASSERT_TRUE(ext);
    EXPECT_EQ(ext->descriptor_tag_extension, 0x05);
    EXPECT_EQ(ext->selector_bytes, (Bytes{0xAA, 0xBB}));
}

TEST(DescriptorList, UnknownTagRoundTripsByteForByte) {
    const Bytes loop{0x80, 0x05, 0x01, 0x02, 0x03, 0x04, 0x05, 0xC3, 0x00, 0xFE, 0x01, 0x99};
    VQDescriptorList list(e_ts_desc_type);
    ASSERT_TRUE(readLoop(list, loop));
    ASSERT_EQ(list.descriptor.size(), 3u);
    const auto& raw = list.descriptor.front();
    EXPECT_EQ(typeid(*raw), typeid(base_descriptor));
    EXPECT_EQ(raw->descriptor_data.size(), 5u);
    EXPECT_EQ(raw->descriptor_data.get()[4], 0x05);
    EXPECT_EQ(writeLoop(list), loop);
}

TEST(DescriptorList, GetSizeSumsLengthsPlusHeaders) {
    VQDescriptorList list(e_ts_desc_type);
    ASSERT_TRUE(readLoop(list, {0x80, 0x03, 1, 2, 3, 0x81, 0x00, 0x82, 0x00}));
    ASSERT_EQ(list.descriptor.size(), 2u);  // the final empty descriptor is below the 3-byte limit
    EXPECT_EQ(list.getSize(), 7);
}

TEST(DescriptorList, GetSizeIsKeptIn16Bits) {
    VQDescriptorList list(e_ts_desc_type);
    for (int i = 0; i < 258; ++i) {
        auto raw = std::make_shared<base_descriptor>(0x80);
        raw->descriptor_length = 255;
        list.descriptor.push_back(raw);
    }
    EXPECT_EQ(list.getSize(), static_cast<uint16_t>(258 * 257));
}

TEST(DescriptorList, FindReturnsFirstWithTag) {
    VQDescriptorList list(e_ts_desc_type);
    ASSERT_TRUE(readLoop(list, {0x52, 0x01, 0x0A, 0x40, 0x01, 'N', 0x52, 0x01, 0x0B}));
    auto found = as<stream_identifier_descriptor>(list.find(0x52));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->component_tag, 0x0A);
    EXPECT_FALSE(list.find(0x48));
}

TEST(DescriptorList, FoundDescriptorOutlivesList) {
    std::shared_ptr<base_descriptor> kept;
    {
        VQDescriptorList list(e_ts_desc_type);
        ASSERT_TRUE(readLoop(list, {0x52, 0x01, 0x0A}));
        kept = list.find(0x52);
    }
    EXPECT_EQ(as<stream_identifier_descriptor>(kept)->component_tag, 0x0A);
}

TEST(DescriptorList, CopyToAppendsDeepCopies) {
    VQDescriptorList source(e_ts_desc_type);
    ASSERT_TRUE(readLoop(source, {0x56, 0x05, 'f', 'r', 'a', 0x28, 0x88, 0x80, 0x02, 0xAB, 0xCD}));
    VQDescriptorList target(e_scte35_desc_type);
    ASSERT_TRUE(readLoop(target, {0x7A, 0x00, 0x00}));  // raw in the SCTE 35 tag space
    ASSERT_EQ(target.descriptor.size(), 1u);

    source.copyTo(target);
    ASSERT_EQ(target.descriptor.size(), 3u);
    EXPECT_EQ(target.getType(), e_scte35_desc_type);
    EXPECT_EQ(target.descriptor.front()->descriptor_tag, 0x7A);

    auto original = as<teletext_descriptor>(source.descriptor.front());
    auto copy = as<teletext_descriptor>(*std::next(target.descriptor.begin()));
    ASSERT_TRUE(copy);
    ASSERT_NE(copy, original);
    ASSERT_EQ(copy->teletext_list.size(), 1u);
    EXPECT_NE(copy->teletext_list.front(), original->teletext_list.front());
    copy->teletext_list.front()->teletext_page_number = 0x11;
    copy->teletext_list.clear();
    ASSERT_EQ(original->teletext_list.size(), 1u);
    EXPECT_EQ(original->teletext_list.front()->teletext_page_number, 0x88);

    auto rawOriginal = source.descriptor.back();
    auto rawCopy = target.descriptor.back();
    EXPECT_NE(rawCopy->descriptor_data.get(), rawOriginal->descriptor_data.get());
    rawCopy->descriptor_data.get()[0] = 0;
    EXPECT_EQ(rawOriginal->descriptor_data.get()[0], 0xAB);
}

TEST(DescriptorList, CopyToIgnoresTargetOfAnotherClass) {
    stream_identifier_descriptor source;
    source.component_tag = 9;
    service_descriptor other;
    source.copyTo(&other);
    EXPECT_EQ(other.descriptor_tag, 0x48);
    source.copyTo(nullptr);
}

TEST(DescriptorList, ReadAppendsAndClearEmpties) {
    VQDescriptorList list(e_ts_desc_type);
    ASSERT_TRUE(readLoop(list, {0x52, 0x01, 0x01}));
    ASSERT_TRUE(readLoop(list, {0x52, 0x01, 0x02}));
    EXPECT_EQ(list.descriptor.size(), 2u);
    list.clear();
    EXPECT_TRUE(list.descriptor.empty());
    EXPECT_EQ(list.getSize(), 0);
}

TEST(DescriptorList, UnknownTypeFailsWithoutReading) {
    VQDescriptorList list(static_cast<VQDescriptorType>(7));
    uint64_t left = 0;
    EXPECT_FALSE(readLoop(list, {0x52, 0x01, 0x01}, &left));
    EXPECT_EQ(left, 3u);
    EXPECT_TRUE(list.descriptor.empty());
}

TEST(DescriptorList, TagSpacesDifferForTheSameBytes) {
    const Bytes loop{0x01, 0x06, 'C', 'U', 'E', 'I', 0x10, 0x00, 0x8A, 0x01, 0x01,
                     0x00, 0x08, 'C', 'U', 'E', 'I', 0,    0,    0,    7};
    VQDescriptorList ts(e_ts_desc_type), scte(e_scte35_desc_type);
    ASSERT_TRUE(readLoop(ts, loop));
    ASSERT_TRUE(readLoop(scte, loop));
    ASSERT_EQ(ts.descriptor.size(), 3u);
    ASSERT_EQ(scte.descriptor.size(), 3u);

    auto tsIt = ts.descriptor.begin();
    auto scteIt = scte.descriptor.begin();
    EXPECT_EQ(typeid(**tsIt), typeid(base_descriptor));
    EXPECT_TRUE(as<scte35_dtmf_descriptor>(*scteIt));
    ++tsIt, ++scteIt;
    EXPECT_EQ(as<cue_identifier_descriptor>(*tsIt)->cue_stream_type, 0x01);
    EXPECT_EQ(typeid(**scteIt), typeid(base_descriptor));
    ++tsIt, ++scteIt;
    EXPECT_EQ(as<avail_descriptor>(*tsIt)->provider_avail_id, 7u);
    EXPECT_EQ(as<avail_descriptor>(*scteIt)->provider_avail_id, 7u);

    EXPECT_EQ(writeLoop(ts), loop);
    EXPECT_EQ(writeLoop(scte), loop);
}

TEST(DescriptorList, Scte35TimeDescriptorStaysRaw) {
    const Bytes loop{0x03, 0x10, 'C', 'U', 'E', 'I', 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 37};
    VQDescriptorList list(e_scte35_desc_type);
    ASSERT_TRUE(readLoop(list, loop));
    ASSERT_EQ(list.descriptor.size(), 1u);
    EXPECT_EQ(typeid(*list.descriptor.front()), typeid(base_descriptor));
    EXPECT_EQ(writeLoop(list), loop);
}

TEST(DescriptorList, WriteIntoFullWriterStopsAtItsEnd) {
    VQDescriptorList list(e_ts_desc_type);
    const Bytes loop{0x52, 0x01, 0x01, 0x80, 0x02, 0xAA, 0xBB, 0x52, 0x01, 0x02};
    ASSERT_TRUE(readLoop(list, loop));
    const Bytes partial = writeLoop(list, 5);
    EXPECT_EQ(partial, Bytes(loop.begin(), loop.begin() + 5));
}
