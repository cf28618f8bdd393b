#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <vector>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/BasePID.h"
#include "mpegcore/MpegMisc.h"
#include "mpegcore/vqdescriptorlist.h"
#include "support/section_bytes.h"

using mpegcore::CMpegMisc;
using vq_test::utcTime;

TEST(MpegMiscBcd, DecimalTextReadAsHex) {
    EXPECT_EQ(CMpegMisc::decimal_to_bcd(0), 0x0u);
    EXPECT_EQ(CMpegMisc::decimal_to_bcd(12), 0x12u);
    EXPECT_EQ(CMpegMisc::decimal_to_bcd(59), 0x59u);
    EXPECT_EQ(CMpegMisc::decimal_to_bcd(123), 0x123u);
}

TEST(MpegMiscBcd, HexTextReadAsDecimalStopsAtALetter) {
    EXPECT_EQ(CMpegMisc::bcd_to_decimal(0x00), 0);
    EXPECT_EQ(CMpegMisc::bcd_to_decimal(0x05), 5);
    EXPECT_EQ(CMpegMisc::bcd_to_decimal(0x59), 59);
    EXPECT_EQ(CMpegMisc::bcd_to_decimal(0x1A), 1);
    EXPECT_EQ(CMpegMisc::bcd_to_decimal(0xA1), 0);
    EXPECT_EQ(CMpegMisc::bcd_to_decimal(0xFF), 0);
}

TEST(MpegMiscBcd, TimeToBcdShiftsHoursAndMinutes) {
    EXPECT_EQ(CMpegMisc::time_to_bcd(12, 45, 0), 0x124500u);
    EXPECT_EQ(CMpegMisc::time_to_bcd(19, 40, 2), 0x194002u);
    EXPECT_EQ(CMpegMisc::time_to_bcd(123, 0, 0), 0x1230000u);  // not limited to 24 bits
}

TEST(MpegMiscDate, StandardExampleDateGivesMjd49273) {
    EXPECT_EQ(CMpegMisc::date_to_mjd(93, 9, 13), 49273u);
    int year = 0, month = 0, day = 0;
    CMpegMisc::mjd_to_date(49273, year, month, day);
    EXPECT_EQ(year, 93);
    EXPECT_EQ(month, 10);
    EXPECT_EQ(day, 13);
}

TEST(MpegMiscDate, UtcTimeOfStandardExample) {
    const time_t t = utcTime(1993, 10, 13, 12, 45, 0);
    EXPECT_EQ(CMpegMisc::time_t_to_utc_time(t), (uint64_t(0xC079) << 24) | 0x124500);
    EXPECT_EQ(CMpegMisc::utc_time_to_time_t((uint64_t(0xC079) << 24) | 0x124500), t);
}

TEST(MpegMiscDate, UtcTimeRoundTripsEveryDayUpToTheLastSixteenBitMjd) {
    // January and February take the year-before branch of both conversions.
    // MJD 65535 is 2038-04-22, the last day the 16-bit field can hold.
    for (time_t t = utcTime(1990, 1, 1, 0, 0, 0); t < utcTime(2038, 4, 23, 0, 0, 0); t += 86400 + 3661) {
        const uint64_t si = CMpegMisc::time_t_to_utc_time(t);
        ASSERT_EQ(CMpegMisc::utc_time_to_time_t(si), t) << "at " << t;
    }
}

TEST(MpegMiscDate, LeapDayAndYearEnds) {
    for (time_t t : {utcTime(2024, 2, 29, 23, 59, 59), utcTime(2023, 12, 31, 0, 0, 1), utcTime(2000, 3, 1, 1, 2, 3),
                     utcTime(2036, 2, 29, 10, 0, 0), utcTime(2038, 4, 22, 23, 59, 59)})
        EXPECT_EQ(CMpegMisc::utc_time_to_time_t(CMpegMisc::time_t_to_utc_time(t)), t);
}

TEST(MpegMiscDate, TimeThatCannotBeBrokenDownGivesZero) {
    EXPECT_EQ(CMpegMisc::time_t_to_utc_time(std::numeric_limits<time_t>::max()), 0u);
}

TEST(MpegMiscSection, HeaderNeedsThreeBytes) {
    mpegcore::CBaseMpegTable table(nullptr, 16);
    std::vector<uint8_t> two{0x00, 0xB0};
    VQSDK::VQBSReaderT<unsigned char*> shortReader(two.data(), two.size());
    EXPECT_FALSE(CMpegMisc::read_section_header(table, shortReader));
    std::vector<uint8_t> three{0x02, 0xB0, 0x17};
    VQSDK::VQBSReaderT<unsigned char*> reader(three.data(), three.size());
    EXPECT_TRUE(CMpegMisc::read_section_header(table, reader));
    EXPECT_EQ(table.table_id, 0x02);
    EXPECT_EQ(table.section_length, 0x017);
}

TEST(MpegMiscSection, DescriptorLoopIsReadFromExactlyItsBytes) {
    // Two descriptors, then a byte that belongs to the next field.
    std::vector<uint8_t> bytes{0x80, 0x01, 0xAA, 0x81, 0x00, 0x5C};
    VQSDK::VQBSReaderT<unsigned char*> reader(bytes.data(), bytes.size());
    mpegcore::VQDescriptorList list(mpegcore::e_ts_desc_type);
    EXPECT_EQ(CMpegMisc::read_descriptor_loop(reader, 5, list), CMpegMisc::loop_result::ok);
    // The zero-length descriptor in the loop's last two bytes is skipped by the list.
    ASSERT_EQ(list.descriptor.size(), 1u);
    EXPECT_EQ(list.descriptor.front()->descriptor_tag, 0x80);
    EXPECT_EQ(reader.getBits(8), 0x5Cu);
}

TEST(MpegMiscSection, DescriptorLoopLongerThanTheDataReadsNothing) {
    std::vector<uint8_t> bytes{0x80, 0x01, 0xAA};
    VQSDK::VQBSReaderT<unsigned char*> reader(bytes.data(), bytes.size());
    mpegcore::VQDescriptorList list(mpegcore::e_ts_desc_type);
    EXPECT_EQ(CMpegMisc::read_descriptor_loop(reader, 4, list), CMpegMisc::loop_result::too_long);
    EXPECT_TRUE(list.descriptor.empty());
    EXPECT_EQ(reader.getLength(), 3u);
}

TEST(MpegMiscSection, FailingListStillMovesPastTheLoop) {
    // The descriptor claims 9 payload bytes inside a 4-byte loop.
    std::vector<uint8_t> bytes{0x80, 0x09, 0xAA, 0xBB, 0x77};
    VQSDK::VQBSReaderT<unsigned char*> reader(bytes.data(), bytes.size());
    mpegcore::VQDescriptorList list(mpegcore::e_ts_desc_type);
    EXPECT_EQ(CMpegMisc::read_descriptor_loop(reader, 4, list), CMpegMisc::loop_result::list_failed);
    EXPECT_EQ(reader.getBits(8), 0x77u);
}

TEST(MpegMiscSection, GetOrZeroZeroesAFieldThatRunsOut) {
    std::vector<uint8_t> bytes{0xAB, 0xCD};
    VQSDK::VQBSReaderT<unsigned char*> reader(bytes.data(), bytes.size());
    uint32_t field = 0x1234;
    EXPECT_TRUE(CMpegMisc::get_or_zero<8>(reader, field));
    EXPECT_EQ(field, 0xABu);
    EXPECT_FALSE(CMpegMisc::get_or_zero<16>(reader, field));
    EXPECT_EQ(field, 0u);
}

TEST(MpegMiscSection, PutBitsCutsValuesToTheField) {
    std::vector<uint8_t> bytes(2);
    {
        VQSDK::VQBSWriterT<unsigned char*> writer(bytes.data(), bytes.size());
        CMpegMisc::put_bits<4>(writer, 0xFF);  // must not spill into the next field
        CMpegMisc::put_bits<4>(writer, 0x0);
        CMpegMisc::put_bits<8>(writer, 0x1FF);
        writer.flush();
    }
    EXPECT_EQ(bytes[0], 0xF0);
    EXPECT_EQ(bytes[1], 0xFF);
}

TEST(MpegMiscStream, BitsWrittenAtAnyOffsetReadBack) {
    unsigned char data[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    ASSERT_TRUE(mpegcore::CMpegMisc::AddBitToStream(data, sizeof data, 3, 0x1234, 13));
    EXPECT_EQ(data[0], 0xF2);  // 111 + 10010 ...
    EXPECT_EQ(data[1], 0x34);
    EXPECT_EQ(data[2], 0xFF);  // bits around the field stay
    uint64_t value = 0;
    ASSERT_TRUE(mpegcore::CMpegMisc::GetBitsFromStream(data, sizeof data, 3, 13, value));
    EXPECT_EQ(value, 0x1234u);
}

TEST(MpegMiscStream, FieldsPastTheEndAreRefused) {
    unsigned char data[2] = {0, 0};
    EXPECT_FALSE(mpegcore::CMpegMisc::AddBitToStream(data, sizeof data, 10, 0x7F, 7));
    EXPECT_EQ(data[1], 0);
    uint64_t value = 1;
    EXPECT_FALSE(mpegcore::CMpegMisc::GetBitsFromStream(data, sizeof data, 17, 1, value));
    EXPECT_EQ(value, 0u);
    EXPECT_FALSE(mpegcore::CMpegMisc::GetBitsFromStream(data, sizeof data, 0, 65, value));
    EXPECT_TRUE(mpegcore::CMpegMisc::GetBitsFromStream(data, sizeof data, 9, 7, value));
}

TEST(MpegMiscPcr, RawAndParsedPacketsAgree) {
    unsigned char packet[188] = {0x47, 0x01, 0x00, 0x30, 7, 0x10};
    EXPECT_TRUE(mpegcore::CMpegMisc::HasPCR(packet, sizeof packet));
    packet[5] = 0x00;
    EXPECT_FALSE(mpegcore::CMpegMisc::HasPCR(packet, sizeof packet));
    packet[5] = 0x10;
    packet[3] = 0x10;  // payload only: the byte after the header is no adaptation field
    EXPECT_FALSE(mpegcore::CMpegMisc::HasPCR(packet, sizeof packet));
    EXPECT_FALSE(mpegcore::CMpegMisc::HasPCR(packet, 5));

    mpegcore::transport_packet parsed;
    parsed.adaptation_field_control = 2;
    parsed.af.adaptation_field_length = 7;
    parsed.af.PCR_flag = 1;
    EXPECT_TRUE(mpegcore::CMpegMisc::hasPCR(parsed));
    parsed.af.adaptation_field_length = 0;
    EXPECT_FALSE(mpegcore::CMpegMisc::hasPCR(parsed));
}

TEST(MpegMiscPcr, PcrToNanoseconds) {
    EXPECT_EQ(mpegcore::CMpegMisc::pcrToNanosecond(90000, 0), 1000000000u);  // one second
    EXPECT_EQ(mpegcore::CMpegMisc::pcrToNanosecond(0, 27), 1000u);
    // The largest 33-bit base does not overflow: about 26.5 hours.
    EXPECT_EQ(mpegcore::CMpegMisc::pcrToNanosecond((uint64_t(1) << 33) - 1, 299) / 1000000000u, 95443u);
}

TEST(MpegMiscStreamType, VideoTypes) {
    for (uint8_t type : {0x01, 0x02, 0x10, 0x1B, 0x24, 0xEA})
        EXPECT_TRUE(mpegcore::CMpegMisc::is_video_stream_type(type)) << int(type);
    for (uint8_t type : {0x03, 0x04, 0x06, 0x0F, 0x11, 0x81, 0x86})
        EXPECT_FALSE(mpegcore::CMpegMisc::is_video_stream_type(type)) << int(type);
}
