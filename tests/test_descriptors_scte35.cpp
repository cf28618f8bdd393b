#include <gtest/gtest.h>

#include "mpegcore/vqdescriptorlist.h"
#include "support/descriptor_bytes.h"

using namespace mpegcore;
using vq_test::Bytes;
using vq_test::readDescriptor;
using vq_test::roundTrip;
using vq_test::writeDescriptor;

namespace {

constexpr uint32_t kCUEI = 0x43554549;

// Program segmentation, no duration, delivery not restricted, empty UPID.
Bytes programSegmentation(uint8_t length) {
    Bytes bytes{0x02, length, 'C', 'U', 'E', 'I', 0x00, 0x00, 0x00, 0x02, 0x7F, 0xBF, 0x09, 0x00, 0x34, 0x01, 0x02};
    for (uint8_t extra = 15; extra < length; ++extra)
        bytes.push_back(static_cast<uint8_t>(extra - 14));
    return bytes;
}

}  // namespace

TEST(AvailDescriptor, RoundTripsInBothTagSpaces) {
    avail_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x00);
    d.descriptor_length = 8;
    d.identifier = kCUEI;
    d.provider_avail_id = 7;
    const Bytes bytes{0x00, 0x08, 'C', 'U', 'E', 'I', 0x00, 0x00, 0x00, 0x07};
    auto scte = roundTrip(d, bytes, e_scte35_desc_type);
    EXPECT_EQ(scte.identifier, kCUEI);
    EXPECT_EQ(scte.provider_avail_id, 7u);
    EXPECT_EQ(roundTrip(d, bytes, e_ts_desc_type).provider_avail_id, 7u);
}

TEST(AvailDescriptor, ForeignIdentifierStillReads) {
    avail_descriptor d;
    ASSERT_TRUE(readDescriptor(d, {0x00, 0x08, 'A', 'B', 'C', 'D', 0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(d.identifier, 0x41424344u);
    EXPECT_EQ(d.provider_avail_id, 0x12345678u);
}

TEST(Scte35DtmfDescriptor, RoundTripsCharacters) {
    scte35_dtmf_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x01);
    d.descriptor_length = 9;
    d.identifier = kCUEI;
    d.preroll = 0x40;
    d.dtmf_count = 3;
    d.reserved = 0x1F;
    d.DTMF_chars = {'*', '1', '2'};
    auto back = roundTrip(d, {0x01, 0x09, 'C', 'U', 'E', 'I', 0x40, 0x7F, '*', '1', '2'}, e_scte35_desc_type);
    EXPECT_EQ(back.identifier, kCUEI);
    EXPECT_EQ(back.preroll, 0x40);
    EXPECT_EQ(back.dtmf_count, 3);
    EXPECT_EQ(back.reserved, 0x1F);
    EXPECT_EQ(back.DTMF_chars, (Bytes{'*', '1', '2'}));
}

TEST(Scte35DtmfDescriptor, CountZeroGivesNoCharacters) {
    scte35_dtmf_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x01, 0x06, 'C', 'U', 'E', 'I', 0x10, 0x1F, '#'}, &left));
    EXPECT_EQ(d.dtmf_count, 0);
    EXPECT_TRUE(d.DTMF_chars.empty());
    EXPECT_EQ(left, 1u);
}

TEST(Scte35SegmentationDescriptor, CancelIndicatorEndsAfterNineBytes) {
    scte35_segmentation_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x02);
    d.descriptor_length = 9;
    d.identifier = kCUEI;
    d.segmentation_event_id = 1;
    d.segmentation_event_cancel_indicator = 1;
    d.reserved1 = 0x7F;
    d.segmentation_type_id = 0x34;  // not part of a cancelled event
    auto back = roundTrip(d, {0x02, 0x09, 'C', 'U', 'E', 'I', 0x00, 0x00, 0x00, 0x01, 0xFF}, e_scte35_desc_type);
    EXPECT_EQ(back.segmentation_event_cancel_indicator, 1);
    EXPECT_EQ(back.reserved1, 0x7F);
    EXPECT_EQ(back.segmentation_event_id, 1u);
    EXPECT_EQ(back.segmentation_type_id, 0);
}

TEST(Scte35SegmentationDescriptor, LengthFifteenHasNoSubSegments) {
    scte35_segmentation_descriptor d;
    uint64_t left = 0;
    Bytes bytes = programSegmentation(15);
    bytes.push_back(0xEE);
    ASSERT_TRUE(readDescriptor(d, bytes, &left));
    EXPECT_EQ(left, 1u);
    EXPECT_EQ(d.program_segmentation_flag, 1);
    EXPECT_EQ(d.delivery_not_restricted_flag, 1);
    EXPECT_EQ(d.reserved2, 0x1F);
    EXPECT_EQ(d.segmentation_upid_type, 0x09);
    EXPECT_EQ(d.segmentation_type_id, 0x34);
    EXPECT_EQ(d.segment_num, 1);
    EXPECT_EQ(d.segments_expected, 2);
    EXPECT_EQ(d.sub_segment_num, 0);
    EXPECT_EQ(d.sub_segments_expected, 0);
    bytes.pop_back();
    EXPECT_EQ(writeDescriptor(d), bytes);
}

TEST(Scte35SegmentationDescriptor, LengthSeventeenHasBothSubSegmentFields) {
    scte35_segmentation_descriptor d;
    const Bytes bytes = programSegmentation(17);
    uint64_t left = 9;
    ASSERT_TRUE(readDescriptor(d, bytes, &left));
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(d.segmentation_type_id, 0x34);  // a type without sub-segments in SCTE 35, read by length
    EXPECT_EQ(d.sub_segment_num, 1);
    EXPECT_EQ(d.sub_segments_expected, 2);
    EXPECT_EQ(writeDescriptor(d), bytes);
}

TEST(Scte35SegmentationDescriptor, RoundTripsComponentsDurationAndUpid) {
    scte35_segmentation_descriptor d;
    d.descriptor_length = 39;
    d.identifier = kCUEI;
    d.segmentation_event_id = 0x01020304;
    d.reserved1 = 0x7F;
    d.segmentation_duration_flag = 1;
    d.web_delivery_allowed_flag = 1;
    d.archive_allowed_flag = 1;
    d.device_restrictions = 2;
    d.component_count = 2;
    d.components = {{0x21, 0x7F, 0x123456789ull}, {0x22, 0x7F, 1}};
    d.segmentation_duration = 0x5265C0ull;
    d.segmentation_upid_type = 0x0C;
    d.segmentation_upid_length = 4;
    d.segmentation_upid = {0xDE, 0xAD, 0xBE, 0xEF};
    d.segmentation_type_id = 0x30;
    d.segment_num = 1;
    d.segments_expected = 1;
    d.sub_segment_num = 2;
    d.sub_segments_expected = 3;
    auto back = roundTrip(d, {0x02, 0x27, 'C',  'U',  'E',  'I',  0x01, 0x02, 0x03, 0x04, 0x7F, 0x56, 0x02, 0x21,
                              0xFF, 0x23, 0x45, 0x67, 0x89, 0x22, 0xFE, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x52,
                              0x65, 0xC0, 0x0C, 0x04, 0xDE, 0xAD, 0xBE, 0xEF, 0x30, 0x01, 0x01, 0x02, 0x03},
                          e_scte35_desc_type);
    EXPECT_EQ(back.segmentation_event_id, 0x01020304u);
    EXPECT_EQ(back.program_segmentation_flag, 0);
    EXPECT_EQ(back.segmentation_duration_flag, 1);
    EXPECT_EQ(back.delivery_not_restricted_flag, 0);
    EXPECT_EQ(back.web_delivery_allowed_flag, 1);
    EXPECT_EQ(back.no_regional_blackout_flag, 0);
    EXPECT_EQ(back.archive_allowed_flag, 1);
    EXPECT_EQ(back.device_restrictions, 2);
    EXPECT_EQ(back.reserved2, 0);
    EXPECT_EQ(back.component_count, 2);
    ASSERT_EQ(back.components.size(), 2u);
    EXPECT_EQ(back.components[0].component_tag, 0x21);
    EXPECT_EQ(back.components[0].reserved, 0x7F);
    EXPECT_EQ(back.components[0].pts_offset, 0x123456789ull);
    EXPECT_EQ(back.components[1].component_tag, 0x22);
    EXPECT_EQ(back.components[1].pts_offset, 1u);
    EXPECT_EQ(back.segmentation_duration, 0x5265C0ull);
    EXPECT_EQ(back.segmentation_upid_type, 0x0C);
    EXPECT_EQ(back.segmentation_upid_length, 4);
    EXPECT_EQ(back.segmentation_upid, (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
    EXPECT_EQ(back.segmentation_type_id, 0x30);
    EXPECT_EQ(back.segment_num, 1);
    EXPECT_EQ(back.segments_expected, 1);
    EXPECT_EQ(back.sub_segment_num, 2);
    EXPECT_EQ(back.sub_segments_expected, 3);
}

TEST(Scte35SegmentationDescriptor, WriteComparesCountIn8Bits) {
    // descriptor_length 0 with 40 components leaves a count of -253, which is
    // 3 in 8 bits: write leaves out the sub-segment fields.
    scte35_segmentation_descriptor d;
    d.descriptor_length = 0;
    d.component_count = 40;
    d.components.resize(40);
    d.sub_segment_num = 1;
    bool ok = false;
    const Bytes bytes = writeDescriptor(d, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(bytes.size(), 2u + 10u + 1u + 40u * 6u + 2u + 3u);
}

TEST(Scte35SegmentationDescriptor, WriteRefusesMissingComponentsAndUpidBytes) {
    scte35_segmentation_descriptor d;
    d.descriptor_length = 17;
    d.component_count = 1;
    bool ok = true;
    writeDescriptor(d, &ok);
    EXPECT_FALSE(ok);

    scte35_segmentation_descriptor upid;
    upid.program_segmentation_flag = 1;
    upid.segmentation_upid_length = 2;
    upid.segmentation_upid = {1};
    ok = true;
    writeDescriptor(upid, &ok);
    EXPECT_FALSE(ok);
}

TEST(Scte35SegmentationDescriptor, TruncatedPayloadFails) {
    Bytes bytes = programSegmentation(17);
    bytes.resize(bytes.size() - 1);
    bytes[1] = 14;
    scte35_segmentation_descriptor d;
    EXPECT_FALSE(readDescriptor(d, bytes));
}

TEST(CueIdentifierDescriptor, RoundTripsInTsTagSpace) {
    cue_identifier_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x8A);
    d.descriptor_length = 1;
    d.cue_stream_type = 0x01;
    EXPECT_EQ(roundTrip(d, {0x8A, 0x01, 0x01}).cue_stream_type, 0x01);
}
