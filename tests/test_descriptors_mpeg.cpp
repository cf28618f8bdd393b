#include <gtest/gtest.h>

#include <cstring>

#include "mpegcore/vqdescriptorlist.h"
#include "support/descriptor_bytes.h"

using namespace mpegcore;
using vq_test::Bytes;
using vq_test::readDescriptor;
using vq_test::roundTrip;
using vq_test::writeDescriptor;

TEST(VideoStreamDescriptor, RoundTripsAllFields) {
    video_stream_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x02);
    d.descriptor_length = 3;
    d.multiple_frame_rate_flag = 1;
    d.frame_rate_code = 3;
    d.constrained_parameter_flag = 1;
    d.profile_and_level_indication = 0x48;
    d.chroma_format = 1;
    d.frame_rate_extension_flag = 1;
    d.reserved = 0x1F;
    auto back = roundTrip(d, {0x02, 0x03, 0x9A, 0x48, 0x7F});
    EXPECT_EQ(back.multiple_frame_rate_flag, 1);
    EXPECT_EQ(back.frame_rate_code, 3);
    EXPECT_EQ(back.MPEG_1_only_flag, 0);
    EXPECT_EQ(back.constrained_parameter_flag, 1);
    EXPECT_EQ(back.still_picture_flag, 0);
    EXPECT_EQ(back.profile_and_level_indication, 0x48);
    EXPECT_EQ(back.chroma_format, 1);
    EXPECT_EQ(back.frame_rate_extension_flag, 1);
    EXPECT_EQ(back.reserved, 0x1F);
}

TEST(VideoStreamDescriptor, Mpeg1OnlyStopsAfterFirstByte) {
    video_stream_descriptor d;
    d.descriptor_length = 1;
    d.frame_rate_code = 1;
    d.MPEG_1_only_flag = 1;
    d.still_picture_flag = 1;
    d.profile_and_level_indication = 0x55;  // not part of an MPEG-1 only payload
    auto back = roundTrip(d, {0x02, 0x01, 0x0D});
    EXPECT_EQ(back.MPEG_1_only_flag, 1);
    EXPECT_EQ(back.still_picture_flag, 1);
    EXPECT_EQ(back.frame_rate_code, 1);
    EXPECT_EQ(back.profile_and_level_indication, 0);
}

TEST(VideoStreamDescriptor, WithoutMpeg1FlagNeedsThreePayloadBytes) {
    video_stream_descriptor d;
    EXPECT_FALSE(readDescriptor(d, {0x02, 0x01, 0x08}));
    video_stream_descriptor two;
    EXPECT_FALSE(readDescriptor(two, {0x02, 0x02, 0x08, 0x48}));
    video_stream_descriptor three;
    EXPECT_TRUE(readDescriptor(three, {0x02, 0x03, 0x08, 0x48, 0x5F}));
}

TEST(AudioStreamDescriptor, RoundTripsAllFields) {
    audio_stream_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x03);
    d.descriptor_length = 1;
    d.free_format_flag = 1;
    d.ID = 1;
    d.layer = 2;
    d.reserved = 7;
    auto back = roundTrip(d, {0x03, 0x01, 0xE7});
    EXPECT_EQ(back.free_format_flag, 1);
    EXPECT_EQ(back.ID, 1);
    EXPECT_EQ(back.layer, 2);
    EXPECT_EQ(back.variable_rate_audio_indicator, 0);
    EXPECT_EQ(back.reserved, 7);
}

TEST(RegistrationDescriptor, RoundTripsAdditionalInfo) {
    registration_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x05);
    d.descriptor_length = 6;
    d.format_identifier = 0x48444D56;  // "HDMV"
    d.additional_identification_info[0] = 0xAA;
    d.additional_identification_info[1] = 0xBB;
    auto back = roundTrip(d, {0x05, 0x06, 'H', 'D', 'M', 'V', 0xAA, 0xBB});
    EXPECT_EQ(back.format_identifier, 0x48444D56u);
    EXPECT_EQ(0, std::memcmp(back.additional_identification_info, d.additional_identification_info, 188));
}

TEST(RegistrationDescriptor, LengthFourKeepsOnlyFormatIdentifier) {
    registration_descriptor d;
    ASSERT_TRUE(readDescriptor(d, {0x05, 0x04, 'C', 'U', 'E', 'I'}));
    EXPECT_EQ(d.format_identifier, 0x43554549u);
    for (uint8_t byte : d.additional_identification_info)
        EXPECT_EQ(byte, 0);
}

TEST(RegistrationDescriptor, FullArrayFitsAndLongerIsRejected) {
    Bytes fits{0x05, 192, 'A', 'B', 'C', 'D'};
    for (int i = 0; i < 188; ++i)
        fits.push_back(static_cast<uint8_t>(i));
    registration_descriptor d;
    ASSERT_TRUE(readDescriptor(d, fits));
    EXPECT_EQ(d.additional_identification_info[187], 187);
    EXPECT_EQ(writeDescriptor(d), fits);

    Bytes tooLong{0x05, 193, 'A', 'B', 'C', 'D'};
    tooLong.resize(2 + 193, 0x11);
    registration_descriptor rejected;
    EXPECT_FALSE(readDescriptor(rejected, tooLong));

    registration_descriptor built;
    built.descriptor_length = 255;
    bool ok = true;
    EXPECT_TRUE(writeDescriptor(built, &ok).empty());
    EXPECT_FALSE(ok);
}

TEST(CADescriptor, RoundTripsPrivateBytes) {
    CA_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x09);
    d.descriptor_length = 6;
    d.CA_system_ID = 0x0B00;
    d.reserved = 7;
    d.CA_PID = 0x1234;
    d.private_data_byte[0] = 1;
    d.private_data_byte[1] = 2;
    auto back = roundTrip(d, {0x09, 0x06, 0x0B, 0x00, 0xF2, 0x34, 0x01, 0x02});
    EXPECT_EQ(back.CA_system_ID, 0x0B00);
    EXPECT_EQ(back.reserved, 7);
    EXPECT_EQ(back.CA_PID, 0x1234);
    EXPECT_EQ(0, std::memcmp(back.private_data_byte, d.private_data_byte, 188));
}

TEST(CADescriptor, LengthFourHasNoPrivateBytesLengthSixKeepsTwo) {
    CA_descriptor four;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(four, {0x09, 0x04, 0x06, 0x04, 0xE1, 0x00, 0x77}, &left));
    EXPECT_EQ(four.CA_system_ID, 0x0604);
    EXPECT_EQ(four.CA_PID, 0x0100);
    EXPECT_EQ(four.private_data_byte[0], 0);
    EXPECT_EQ(left, 1u);

    CA_descriptor six;
    ASSERT_TRUE(readDescriptor(six, {0x09, 0x06, 0x06, 0x04, 0xE1, 0x00, 0x77, 0x88}, &left));
    EXPECT_EQ(six.private_data_byte[0], 0x77);
    EXPECT_EQ(six.private_data_byte[1], 0x88);
    EXPECT_EQ(six.private_data_byte[2], 0);
    EXPECT_EQ(left, 0u);
}

TEST(CADescriptor, LengthAboveArrayIsRejected) {
    Bytes bytes{0x09, 200};
    bytes.resize(2 + 200, 0x5A);
    CA_descriptor d;
    EXPECT_FALSE(readDescriptor(d, bytes));
    for (uint8_t byte : d.private_data_byte)
        EXPECT_EQ(byte, 0);
}

TEST(ISO639LanguageDescriptor, RoundTripsTwoItems) {
    ISO_639_language_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x0A);
    d.descriptor_length = 8;
    d.language_list.push_back({{'e', 'n', 'g'}, 0});
    d.language_list.push_back({{'q', 'a', 'd'}, 3});
    auto back = roundTrip(d, {0x0A, 0x08, 'e', 'n', 'g', 0x00, 'q', 'a', 'd', 0x03});
    ASSERT_EQ(back.language_list.size(), 2u);
    EXPECT_EQ(std::string(back.language_list.front().ISO_639_language_code, 3), "eng");
    EXPECT_EQ(back.language_list.front().audio_type, 0);
    EXPECT_EQ(std::string(back.language_list.back().ISO_639_language_code, 3), "qad");
    EXPECT_EQ(back.language_list.back().audio_type, 3);
}

TEST(ISO639LanguageDescriptor, LengthZeroHasNoItems) {
    ISO_639_language_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x0A, 0x00, 'e', 'n', 'g', 0x00}, &left));
    EXPECT_TRUE(d.language_list.empty());
    EXPECT_EQ(left, 4u);
}

TEST(ISO639LanguageDescriptor, PartialItemIsReadWholeBeyondLength) {
    ISO_639_language_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x0A, 0x05, 'f', 'r', 'a', 0x00, 'd', 'e', 'u', 0x01, 0x52}, &left));
    ASSERT_EQ(d.language_list.size(), 2u);
    EXPECT_EQ(d.language_list.back().audio_type, 1);
    EXPECT_EQ(left, 1u);
}

TEST(MultiplexBufferUtilizationDescriptor, RoundTripsAllFields) {
    multiplex_buffer_utilization_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x0C);
    d.descriptor_length = 4;
    d.bound_valid_flag = 1;
    d.LTW_offset_lower_bound = 0x1234;
    d.reserved = 1;
    d.LTW_offset_upper_bound = 0x0567;
    auto back = roundTrip(d, {0x0C, 0x04, 0x92, 0x34, 0x85, 0x67});
    EXPECT_EQ(back.bound_valid_flag, 1);
    EXPECT_EQ(back.LTW_offset_lower_bound, 0x1234);
    EXPECT_EQ(back.reserved, 1);
    EXPECT_EQ(back.LTW_offset_upper_bound, 0x0567);
}

TEST(SmoothingBufferDescriptor, RoundTripsAllFields) {
    smoothing_buffer_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x10);
    d.descriptor_length = 6;
    d.reserved = 3;
    d.sb_leak_rate = 0x012345;
    d.reserved1 = 3;
    d.sb_size = 0x2ABCDE;
    auto back = roundTrip(d, {0x10, 0x06, 0xC1, 0x23, 0x45, 0xEA, 0xBC, 0xDE});
    EXPECT_EQ(back.reserved, 3);
    EXPECT_EQ(back.sb_leak_rate, 0x012345u);
    EXPECT_EQ(back.reserved1, 3);
    EXPECT_EQ(back.sb_size, 0x2ABCDEu);
}

TEST(STDDescriptor, RoundTripsAllFields) {
    STD_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x11);
    d.descriptor_length = 1;
    d.reserved = 0x7F;
    d.leak_valid_flag = 0;
    auto back = roundTrip(d, {0x11, 0x01, 0xFE});
    EXPECT_EQ(back.reserved, 0x7F);
    EXPECT_EQ(back.leak_valid_flag, 0);
}

TEST(MpegDescriptors, FixedLayoutLeavesSurplusForTheList) {
    VQDescriptorList list(e_ts_desc_type);
    // An STD descriptor claiming 3 bytes reads one; the two left over become
    // the next descriptor (tag 0x80, length 0) and end the loop below 3 bytes.
    ASSERT_TRUE(vq_test::readLoop(list, {0x11, 0x03, 0xFF, 0x80, 0x00, 0x52, 0x01, 0x04}));
    ASSERT_EQ(list.descriptor.size(), 3u);
    EXPECT_EQ(list.descriptor.back()->descriptor_tag, 0x52);
}

TEST(MpegDescriptors, TruncatedFieldsFailTheRead) {
    multiplex_buffer_utilization_descriptor d;
    EXPECT_FALSE(readDescriptor(d, {0x0C, 0x02, 0x92, 0x34}));
    smoothing_buffer_descriptor s;
    EXPECT_FALSE(readDescriptor(s, {0x10, 0x06, 0xC1, 0x23, 0x45}));
}

TEST(MpegDescriptors, CopyToCopiesMembers) {
    CA_descriptor d;
    d.descriptor_length = 5;
    d.CA_PID = 0x100;
    d.private_data_byte[0] = 9;
    auto copy = d.create();
    d.copyTo(copy.get());
    auto ca = std::dynamic_pointer_cast<CA_descriptor>(copy);
    ASSERT_TRUE(ca);
    EXPECT_EQ(ca->descriptor_length, 5);
    EXPECT_EQ(ca->CA_PID, 0x100);
    EXPECT_EQ(ca->private_data_byte[0], 9);

    ISO_639_language_descriptor l;
    l.language_list.push_back({{'f', 'r', 'a'}, 1});
    auto lcopy = std::dynamic_pointer_cast<ISO_639_language_descriptor>(l.create());
    l.copyTo(lcopy.get());
    lcopy->language_list.clear();
    EXPECT_EQ(l.language_list.size(), 1u);
}
