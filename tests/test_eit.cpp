#include <gtest/gtest.h>

#include <ctime>
#include <vector>

#include "mpegcore/EIT.h"
#include "support/descriptor_bytes.h"
#include "support/section_bytes.h"

using mpegcore::CEIT;
using mpegcore::CEventInfo;
using vq_test::readTable;
using vq_test::renderedBytes;
using vq_test::SectionBytes;
using vq_test::utcTime;
using vq_test::withCrc;

namespace {

// EIT p/f actual of service 0x0102 on ts 0x0304 / onid 0x0506, up to the event loop.
SectionBytes eitHead() { return {0x4E, 0xF0, 0x00, 0x01, 0x02, 0xC5, 0x00, 0x01, 0x03, 0x04, 0x05, 0x06, 0x01, 0x4F}; }

void appendEvent(SectionBytes& body, uint16_t id, const SectionBytes& descriptors) {
    // 1993-10-13 12:45:00, 1:30:00, running, not scrambled.
    body.insert(body.end(), {uint8_t(id >> 8), uint8_t(id), 0xC0, 0x79, 0x12, 0x45, 0x00, 0x01, 0x30, 0x00,
                             uint8_t(0x80 | (descriptors.size() >> 8)), uint8_t(descriptors.size())});
    body.insert(body.end(), descriptors.begin(), descriptors.end());
}

const SectionBytes kShortEvent{0x4D, 0x0B, 'e', 'n', 'g', 0x04, 'N', 'e', 'w', 's', 0x02, 'h', 'i'};

SectionBytes twoEventSection() {
    SectionBytes body = eitHead();
    appendEvent(body, 0x1001, kShortEvent);
    appendEvent(body, 0x1002, {});
    return withCrc(body);
}

}  // namespace

TEST(EventTimes, StandardExample) {
    const uint64_t start = CEventInfo::time_t_to_start_time(utcTime(1993, 10, 13, 12, 45, 0));
    EXPECT_EQ(start >> 24, 49273u);
    EXPECT_EQ(start >> 24, 0xC079u);
    EXPECT_EQ(start & 0xFFFFFF, 0x124500u);
}

TEST(EventTimes, November2026) {
    const uint64_t start = CEventInfo::time_t_to_start_time(utcTime(2026, 11, 15, 19, 40, 2));
    EXPECT_EQ(start >> 24, 61359u);
    EXPECT_EQ(start & 0xFFFFFF, 0x194002u);
}

TEST(EventTimes, Durations) {
    EXPECT_EQ(CEventInfo::sec_to_duration(5400), 0x013000u);
    EXPECT_EQ(CEventInfo::sec_to_duration(0), 0u);
    EXPECT_EQ(CEventInfo::sec_to_duration(86399), 0x235959u);
    EXPECT_EQ(CEventInfo::time_to_duration(12, 34, 56), 0x123456u);
    EXPECT_EQ(CEventInfo::time_to_duration(123, 0, 0), 0x1230000u);  // beyond 24 bits
    EXPECT_EQ(CEventInfo::sec_to_duration(100 * 3600 + 61), 0x1000101u);
}

TEST(EventTimes, StartTimeToTimeTIsOffsetBy1900YearsAndTwoMonths) {
    const uint64_t start = (uint64_t(49273) << 24) | 0x124500;
    EXPECT_EQ(CEventInfo::start_time_to_time_t(start), utcTime(3893, 12, 13, 12, 45, 0));
    // A date in November: the month field overflows into January of the next year.
    const uint64_t november = CEventInfo::time_t_to_start_time(utcTime(2026, 11, 15, 19, 40, 2));
    EXPECT_EQ(CEventInfo::start_time_to_time_t(november), utcTime(3927, 1, 15, 19, 40, 2));
    // January takes the K branch of the date formula.
    const uint64_t january = CEventInfo::time_t_to_start_time(utcTime(2024, 1, 31, 0, 0, 5));
    EXPECT_EQ(CEventInfo::start_time_to_time_t(january), utcTime(3924, 3, 31, 0, 0, 5));
}

TEST(EventTimes, BcdDigitsAreReadAsDecimalText) {
    // 0x1A minutes: hex text "1a" reads as decimal 1.
    const uint64_t start = (uint64_t(49273) << 24) | 0x121A05;
    EXPECT_EQ(CEventInfo::start_time_to_time_t(start), utcTime(3893, 12, 13, 12, 1, 5));
}

TEST(EIT, ReadsHeaderAndEvents) {
    CEIT eit(nullptr, 4096);
    ASSERT_TRUE(readTable(eit, twoEventSection()));
    EXPECT_EQ(eit.table_id, 0x4E);
    EXPECT_EQ(eit.service_id, 0x0102);
    EXPECT_EQ(eit.reserved1, 3);
    EXPECT_EQ(eit.version_number, 2);
    EXPECT_EQ(eit.current_next_indicator, 1);
    EXPECT_EQ(eit.section_number, 0);
    EXPECT_EQ(eit.last_section_number, 1);
    EXPECT_EQ(eit.transport_stream_id, 0x0304);
    EXPECT_EQ(eit.original_network_id, 0x0506);
    EXPECT_EQ(eit.segment_last_section_number, 1);
    EXPECT_EQ(eit.last_table_id, 0x4F);
    ASSERT_EQ(eit.eventInfo.size(), 2u);
    const auto& first = eit.eventInfo.front();
    EXPECT_EQ(first->event_id, 0x1001);
    EXPECT_EQ(first->start_time, 0xC079124500ull);
    EXPECT_EQ(first->duration, 0x013000u);
    EXPECT_EQ(first->running_status, 4);
    EXPECT_EQ(first->free_CA_mode, 0);
    EXPECT_EQ(first->descriptors_loop_length, 13);
    ASSERT_EQ(first->descriptors.descriptor.size(), 1u);
    EXPECT_EQ(first->descriptors.descriptor.front()->descriptor_tag, 0x4D);
    EXPECT_EQ(eit.eventInfo.back()->event_id, 0x1002);
}

TEST(EIT, EmptyEventLoop) {
    CEIT eit(nullptr, 4096);
    EXPECT_EQ(eit.calc_section_length(), 15);
    ASSERT_TRUE(readTable(eit, withCrc(eitHead())));
    EXPECT_EQ(eit.section_length, 15);
    EXPECT_TRUE(eit.eventInfo.empty());
}

TEST(EIT, RemainderBelowTwelveEndsTheLoop) {
    for (uint8_t extra = 1; extra <= 11; ++extra) {
        SectionBytes body = eitHead();
        appendEvent(body, 1, {});
        for (uint8_t i = 0; i < extra; ++i)
            body.push_back(uint8_t(0xA0 + i));
        const SectionBytes section = withCrc(body);
        CEIT eit(nullptr, 4096);
        ASSERT_TRUE(readTable(eit, section)) << int(extra);
        EXPECT_EQ(eit.eventInfo.size(), 1u) << int(extra);
        // The CRC field is read right after the last event, from the ignored bytes onwards.
        const size_t at = 14 + 12;
        EXPECT_EQ(eit.CRC,
                  uint32_t(section[at] << 24 | section[at + 1] << 16 | section[at + 2] << 8 | section[at + 3]));
    }
}

TEST(EIT, CorruptedByteAnywhereFailsBeforeTheTablesFields) {
    const SectionBytes good = twoEventSection();
    for (size_t i = 0; i < good.size(); ++i) {
        SectionBytes bad = good;
        bad[i] ^= 0x04;
        CEIT eit(nullptr, 4096);
        eit.service_id = 0xABCD;
        eit.last_table_id = 0x11;
        EXPECT_FALSE(readTable(eit, bad)) << "byte " << i;
        EXPECT_EQ(eit.service_id, 0xABCD) << "byte " << i;
        EXPECT_EQ(eit.last_table_id, 0x11) << "byte " << i;
        EXPECT_TRUE(eit.eventInfo.empty()) << "byte " << i;
    }
}

TEST(EIT, EventLoopPastTheDataFailsKeepingEarlierEvents) {
    SectionBytes body = eitHead();
    appendEvent(body, 1, {});
    appendEvent(body, 2, {0x80, 0x01, 0x00});
    SectionBytes section = withCrc(body);
    section[14 + 12 + 11] = 0x40;  // second event's loop length -> 64
    vq_test::fixSectionCrc(section);
    CEIT eit(nullptr, 4096);
    EXPECT_FALSE(readTable(eit, section));
    ASSERT_EQ(eit.eventInfo.size(), 1u);
    EXPECT_EQ(eit.eventInfo.front()->event_id, 1);
}

TEST(EIT, RenderThenReadBack) {
    CEIT eit(nullptr, 4096);
    ASSERT_TRUE(readTable(eit, twoEventSection()));
    auto event = std::make_shared<CEventInfo>();
    event->event_id = 0xFFFF;
    event->start_time = CEventInfo::time_t_to_start_time(utcTime(2026, 11, 15, 19, 40, 2));
    event->duration = CEventInfo::sec_to_duration(5400);
    event->running_status = 1;
    event->free_CA_mode = 1;
    ASSERT_TRUE(vq_test::readLoop(event->descriptors, {0x80, 0x02, 1, 2, 0x54, 0x02, 0x12, 0x34}));
    eit.eventInfo.push_back(event);
    eit.version_number = 31;
    eit.RenderTable();
    EXPECT_EQ(eit.section_length, 15 + (12 + 13) + 12 + (12 + 8));
    EXPECT_EQ(event->descriptors_loop_length, 8);
    const SectionBytes bytes = renderedBytes(eit);
    ASSERT_EQ(bytes.size(), eit.section_length + 3u);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);

    CEIT back(nullptr, 4096);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_EQ(back.version_number, 31);
    EXPECT_EQ(back.last_table_id, 0x4F);
    EXPECT_EQ(back.CRC, eit.CRC);
    ASSERT_EQ(back.eventInfo.size(), 3u);
    auto it = eit.eventInfo.begin();
    for (const auto& other : back.eventInfo) {
        EXPECT_EQ(other->event_id, (*it)->event_id);
        EXPECT_EQ(other->start_time, (*it)->start_time);
        EXPECT_EQ(other->duration, (*it)->duration);
        EXPECT_EQ(other->running_status, (*it)->running_status);
        EXPECT_EQ(other->free_CA_mode, (*it)->free_CA_mode);
        EXPECT_EQ(other->descriptors_loop_length, (*it)->descriptors_loop_length);
        EXPECT_EQ(vq_test::writeLoop(other->descriptors), vq_test::writeLoop((*it)->descriptors));
        ++it;
    }
    // The original section comes back byte for byte.
    CEIT plain(nullptr, 4096);
    ASSERT_TRUE(readTable(plain, twoEventSection()));
    plain.RenderTable();
    EXPECT_EQ(renderedBytes(plain), twoEventSection());
}

TEST(EIT, WriteIntoAWriterAfterOtherBytes) {
    CEIT eit(nullptr, 4096);
    ASSERT_TRUE(readTable(eit, twoEventSection()));
    SectionBytes out(200, 0);
    VQSDK::VQBSWriterT<unsigned char*> writer(out.data(), out.size());
    writer.putBits<8>(0x00);  // e.g. a pointer field
    ASSERT_TRUE(eit.write(writer));
    writer.flush();
    const SectionBytes section = twoEventSection();
    ASSERT_EQ(writer.getWritedBytes(), 1 + section.size());
    EXPECT_EQ(SectionBytes(out.begin() + 1, out.begin() + 1 + section.size()), section);
}

TEST(EIT, WriteStopsWhenTheWriterIsFull) {
    CEIT eit(nullptr, 4096);
    ASSERT_TRUE(readTable(eit, twoEventSection()));
    SectionBytes memory(40, 0xEE);
    CEIT small(memory.data() + 4, 20);
    eit.copyTo(&small);
    small.RenderTable();
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(memory[i], 0xEE);
    for (size_t i = 24; i < memory.size(); ++i)
        EXPECT_EQ(memory[i], 0xEE) << "byte " << i;
    EXPECT_EQ(memory[4], 0x4E);
}

TEST(EIT, CopyToIsDeep) {
    CEIT a(nullptr, 4096), b(nullptr, 4096);
    ASSERT_TRUE(readTable(a, twoEventSection()));
    ASSERT_TRUE(readTable(b, twoEventSection()));
    a.copyTo(&b);
    EXPECT_EQ(b.eventInfo.size(), 2u);  // replaced, not appended
    EXPECT_NE(b.eventInfo.front(), a.eventInfo.front());
    a.eventInfo.front()->descriptors.clear();
    EXPECT_EQ(b.eventInfo.front()->descriptors.descriptor.size(), 1u);
    b.RenderTable();
    EXPECT_EQ(renderedBytes(b), twoEventSection());
    b.Clear();
    EXPECT_TRUE(b.eventInfo.empty());
}

TEST(EventInfo, CopyToTakesTheLoopLengthFromTheCopiedList) {
    CEventInfo a, b;
    a.event_id = 9;
    a.descriptors_loop_length = 100;  // stale
    ASSERT_TRUE(vq_test::readLoop(a.descriptors, {0x80, 0x01, 0x05}));
    ASSERT_TRUE(vq_test::readLoop(b.descriptors, {0x81, 0x00, 0x82, 0x00}));
    a.copyTo(&b);
    EXPECT_EQ(b.event_id, 9);
    EXPECT_EQ(b.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(b.descriptors_loop_length, 3);
    EXPECT_EQ(b.getSize(), 15);
}

TEST(EventInfo, ReadFailsWhenFieldsRunOut) {
    CEventInfo event;
    SectionBytes bytes{0x00, 0x01, 0xC0, 0x79, 0x12, 0x45, 0x00, 0x01, 0x30, 0x00, 0x80};
    VQSDK::VQBSReaderT<unsigned char*> reader(bytes.data(), bytes.size());
    EXPECT_FALSE(event.read(reader));
}
