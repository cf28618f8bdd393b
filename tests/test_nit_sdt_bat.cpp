#include <gtest/gtest.h>

#include <vector>

#include "mpegcore/BAT.h"
#include "mpegcore/DvbDescriptors.h"
#include "mpegcore/NIT.h"
#include "mpegcore/SDT.h"
#include "support/descriptor_bytes.h"
#include "support/section_bytes.h"

using mpegcore::CBAT;
using mpegcore::CNIT;
using mpegcore::CSDT;
using vq_test::readTable;
using vq_test::renderedBytes;
using vq_test::SectionBytes;
using vq_test::withCrc;

namespace {

void append12(SectionBytes& body, uint16_t length) {
    body.push_back(uint8_t(0xF0 | (length >> 8)));
    body.push_back(uint8_t(length));
}

struct StreamEntry {
    uint16_t tsid;
    uint16_t onid;
    SectionBytes descriptors;
};

// NIT (0x40) or BAT (0x4A): id 0x0100, version 3, a first loop and a
// transport stream loop. `loopLength` overrides the stream loop's length.
SectionBytes networkSection(uint8_t tableId, const SectionBytes& first, const std::vector<StreamEntry>& streams,
                            int loopLength = -1) {
    SectionBytes body{tableId, 0xF0, 0x00, 0x01, 0x00, 0xC7, 0x00, 0x00};
    append12(body, uint16_t(first.size()));
    body.insert(body.end(), first.begin(), first.end());
    SectionBytes loop;
    for (const auto& stream : streams) {
        loop.insert(loop.end(),
                    {uint8_t(stream.tsid >> 8), uint8_t(stream.tsid), uint8_t(stream.onid >> 8), uint8_t(stream.onid)});
        append12(loop, uint16_t(stream.descriptors.size()));
        loop.insert(loop.end(), stream.descriptors.begin(), stream.descriptors.end());
    }
    append12(body, uint16_t(loopLength >= 0 ? loopLength : int(loop.size())));
    body.insert(body.end(), loop.begin(), loop.end());
    return withCrc(body);
}

struct ServiceEntry {
    uint16_t id;
    SectionBytes descriptors;
};

SectionBytes sdtSection(const std::vector<ServiceEntry>& services) {
    SectionBytes body{0x42, 0xF0, 0x00, 0x12, 0x34, 0xC3, 0x00, 0x00, 0x00, 0x55, 0xFF};
    for (const auto& service : services) {
        body.insert(body.end(), {uint8_t(service.id >> 8), uint8_t(service.id), 0xFD});
        body.push_back(uint8_t(0x80 | (service.descriptors.size() >> 8)));  // running, free CA 0
        body.push_back(uint8_t(service.descriptors.size()));
        body.insert(body.end(), service.descriptors.begin(), service.descriptors.end());
    }
    return withCrc(body);
}

// service_descriptor: type 1, provider "P", name.
SectionBytes serviceDescriptor(const std::string& name) {
    SectionBytes d{0x48, uint8_t(4 + name.size()), 0x01, 0x01, 'P', uint8_t(name.size())};
    for (char c : name)
        d.push_back(uint8_t(c));
    return d;
}

const SectionBytes kServiceList{0x41, 0x06, 0x00, 0x01, 0x01, 0x00, 0x02, 0x02};

}  // namespace

TEST(NIT, ReadsNetworkAndTransportStreams) {
    CNIT nit(nullptr, 1024);
    ASSERT_TRUE(
        readTable(nit, networkSection(0x40, {0x40, 0x03, 'N', 'e', 't'}, {{1, 0x55, kServiceList}, {2, 0x55, {}}})));
    EXPECT_EQ(nit.network_id, 0x0100);
    EXPECT_EQ(nit.version_number, 3);
    EXPECT_EQ(nit.reserved_future_use, 0xF);
    EXPECT_EQ(nit.network_descriptors_length, 5);
    ASSERT_EQ(nit.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(nit.descriptors.descriptor.front()->descriptor_tag, 0x40);
    EXPECT_EQ(nit.transport_stream_loop_length, 6 + 8 + 6);
    ASSERT_EQ(nit.transport_stream.size(), 2u);
    const auto& first = nit.transport_stream.front();
    EXPECT_EQ(first->transport_stream_id, 1);
    EXPECT_EQ(first->original_network_id, 0x55);
    EXPECT_EQ(first->network_descriptors_length, 8);
    auto list = vq_test::as<mpegcore::service_list_descriptor>(first->descriptors.find(0x41));
    ASSERT_TRUE(list);
    EXPECT_EQ(list->services.size(), 2u);
    EXPECT_TRUE(nit.transport_stream.back()->descriptors.descriptor.empty());
}

TEST(NIT, StreamLoopLength5HasNoEntries) {
    // Five bytes of a would-be entry stand in the loop.
    SectionBytes body{0x40, 0xF0, 0x00, 0x01, 0x00, 0xC7, 0x00, 0x00, 0xF0, 0x00, 0xF0, 0x05, 0, 1, 0, 2, 0xF0};
    CNIT nit(nullptr, 1024);
    ASSERT_TRUE(readTable(nit, withCrc(body)));
    EXPECT_EQ(nit.transport_stream_loop_length, 5);
    EXPECT_TRUE(nit.transport_stream.empty());
}

TEST(NIT, FailingDescriptorListIsNotExamined) {
    // The network loop holds a descriptor that claims more bytes than the loop.
    CNIT nit(nullptr, 1024);
    ASSERT_TRUE(readTable(nit, networkSection(0x40, {0x80, 0x09, 0x00}, {{7, 8, {}}})));
    EXPECT_TRUE(nit.descriptors.descriptor.empty());
    ASSERT_EQ(nit.transport_stream.size(), 1u);
    EXPECT_EQ(nit.transport_stream.front()->transport_stream_id, 7);
}

TEST(NIT, DescriptorLoopPastTheDataFails) {
    SectionBytes section = networkSection(0x40, {}, {{1, 2, {0x80, 0x01, 0x00}}});
    section[12 + 5] = 0x60;  // the entry's loop length -> 0x060
    vq_test::fixSectionCrc(section);
    CNIT nit(nullptr, 1024);
    EXPECT_FALSE(readTable(nit, section));
}

TEST(NIT, AlteredLastCrcByteFails) {
    SectionBytes section = networkSection(0x40, {}, {{1, 2, {}}});
    section.back() ^= 0xFF;
    CNIT nit(nullptr, 1024);
    EXPECT_FALSE(readTable(nit, section));
}

// A NIT (0x40) or BAT (0x4A) section of section_length 11 that ends after
// its first loop length: the stream loop length and the CRC field are read
// from its CRC bytes. The id is chosen so that the loop length read there is
// 5 or less (no entries), leaving 2 bytes for the 32-bit CRC field.
SectionBytes sectionEndingAfterFirstLoop(uint8_t tableId) {
    for (unsigned id = 0; id <= 0xFFFF; ++id) {
        SectionBytes section =
            withCrc({tableId, 0xF0, 0x00, uint8_t(id >> 8), uint8_t(id), 0xC1, 0x00, 0x00, 0xF0, 0x00});
        if ((((section[10] & 0x0F) << 8) | section[11]) <= 5)
            return section;
    }
    return {};
}

TEST(NIT, FieldsRunningPastTheDataStillRead) {
    const SectionBytes section = sectionEndingAfterFirstLoop(0x40);
    ASSERT_EQ(section.size(), 14u);
    CNIT nit(nullptr, 1024);
    EXPECT_TRUE(readTable(nit, section));
    EXPECT_EQ(nit.section_length, 11);
    EXPECT_EQ(nit.network_id, (section[3] << 8) | section[4]);
    EXPECT_TRUE(nit.transport_stream.empty());
}

TEST(BAT, FieldsRunningPastTheDataFail) {
    const SectionBytes section = sectionEndingAfterFirstLoop(0x4A);
    ASSERT_EQ(section.size(), 14u);
    CBAT bat(nullptr, 4096);
    EXPECT_FALSE(readTable(bat, section));
}

TEST(NIT, RenderThenReadBackAndCopy) {
    CNIT nit(nullptr, 1024);
    ASSERT_TRUE(readTable(nit, networkSection(0x41, {0x40, 0x03, 'N', 'e', 't'},
                                              {{1, 0x55, kServiceList}, {2, 0x56, {0x80, 0x00, 0x81, 0x01, 9}}})));
    auto extra = std::make_shared<mpegcore::CBaseTransportStream>();
    extra->transport_stream_id = 3;
    extra->original_network_id = 0x57;
    extra->reserved_future_use = 0xF;
    ASSERT_TRUE(vq_test::readLoop(extra->descriptors, {0x82, 0x02, 1, 2}));
    nit.transport_stream.push_back(extra);
    nit.RenderTable();
    EXPECT_EQ(nit.calc_transport_stream_loop_length(), 14 + 11 + 10);
    EXPECT_EQ(nit.transport_stream_loop_length, 35);
    EXPECT_EQ(nit.section_length, 13 + 5 + 35);
    const SectionBytes bytes = renderedBytes(nit);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);

    CNIT back(nullptr, 1024);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_EQ(back.table_id, 0x41);
    EXPECT_EQ(back.network_id, nit.network_id);
    EXPECT_EQ(back.CRC, nit.CRC);
    EXPECT_EQ(vq_test::writeLoop(back.descriptors), vq_test::writeLoop(nit.descriptors));
    ASSERT_EQ(back.transport_stream.size(), 3u);
    auto it = nit.transport_stream.begin();
    for (const auto& stream : back.transport_stream) {
        EXPECT_EQ(stream->transport_stream_id, (*it)->transport_stream_id);
        EXPECT_EQ(stream->original_network_id, (*it)->original_network_id);
        EXPECT_EQ(stream->network_descriptors_length, (*it)->network_descriptors_length);
        EXPECT_EQ(vq_test::writeLoop(stream->descriptors), vq_test::writeLoop((*it)->descriptors));
        ++it;
    }

    CNIT copy(nullptr, 1024);
    back.copyTo(&copy);
    back.Clear();
    EXPECT_TRUE(back.transport_stream.empty());
    EXPECT_TRUE(back.descriptors.descriptor.empty());
    copy.RenderTable();
    EXPECT_EQ(renderedBytes(copy), bytes);
}

TEST(SDT, ReadsServices) {
    CSDT sdt(nullptr, 1024);
    ASSERT_TRUE(readTable(sdt, sdtSection({{0x10, serviceDescriptor("One")}, {0x20, {}}})));
    EXPECT_EQ(sdt.transport_stream_id, 0x1234);
    EXPECT_EQ(sdt.version_number, 1);
    EXPECT_EQ(sdt.original_network_id, 0x0055);
    EXPECT_EQ(sdt.reserved_future_use1, 0xFF);
    ASSERT_EQ(sdt.sds.size(), 2u);
    const auto& one = sdt.sds.at(0x10);
    EXPECT_EQ(one->reserved_future_use, 0x3F);
    EXPECT_EQ(one->EIT_schedule_flag, 0);
    EXPECT_EQ(one->EIT_present_following_flag, 1);
    EXPECT_EQ(one->running_status, 4);
    EXPECT_EQ(one->free_CA_mode, 0);
    EXPECT_EQ(one->descriptors_loop_length, 9);
    auto service = vq_test::as<mpegcore::service_descriptor>(one->descriptors.find(0x48));
    ASSERT_TRUE(service);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(service->service_name), service->service_name_length), "One");
}

TEST(SDT, TwoServicesWithTheSameIdKeepTheSecond) {
    CSDT sdt(nullptr, 1024);
    ASSERT_TRUE(readTable(sdt, sdtSection({{7, serviceDescriptor("First")}, {7, serviceDescriptor("Second")}})));
    ASSERT_EQ(sdt.sds.size(), 1u);
    auto service = vq_test::as<mpegcore::service_descriptor>(sdt.sds.at(7)->descriptors.find(0x48));
    ASSERT_TRUE(service);
    EXPECT_EQ(service->service_name_length, 6);
}

TEST(SDT, ServicesRenderInAscendingIdOrder) {
    CSDT sdt(nullptr, 1024);
    ASSERT_TRUE(readTable(sdt, sdtSection({{5, serviceDescriptor("Five")}, {3, {}}})));
    sdt.RenderTable();
    const SectionBytes bytes = renderedBytes(sdt);
    EXPECT_EQ((bytes[11] << 8) | bytes[12], 3);
    EXPECT_EQ(bytes, sdtSection({{3, {}}, {5, serviceDescriptor("Five")}}));
}

TEST(SDT, EmptyTableIsTwelve) {
    CSDT sdt(nullptr, 1024);
    EXPECT_EQ(sdt.calc_section_length(), 12);
    ASSERT_TRUE(readTable(sdt, sdtSection({})));
    EXPECT_TRUE(sdt.sds.empty());
}

TEST(SDT, DescriptorLoopPastTheDataFailsAndAlteredCrcFails) {
    SectionBytes section = sdtSection({{1, {0x80, 0x01, 0}}});
    SectionBytes bad = section;
    bad[11 + 4] = 0x40;
    vq_test::fixSectionCrc(bad);
    CSDT sdt(nullptr, 1024);
    EXPECT_FALSE(readTable(sdt, bad));
    section.back() ^= 1;
    CSDT other(nullptr, 1024);
    EXPECT_FALSE(readTable(other, section));
}

TEST(SDT, FieldsRunningPastTheDataStillRead) {
    // section_length 9: original_network_id and the reserved byte come from
    // the CRC bytes and the 32-bit CRC field finds one byte left.
    const SectionBytes section = withCrc({0x42, 0xF0, 0x00, 0x12, 0x34, 0xC1, 0x00, 0x00});
    CSDT sdt(nullptr, 1024);
    EXPECT_TRUE(readTable(sdt, section));
    EXPECT_EQ(sdt.transport_stream_id, 0x1234);
    EXPECT_TRUE(sdt.sds.empty());
}

TEST(SDT, CutSectionStillFails) {
    SectionBytes section = withCrc({0x42, 0xF0, 0x00, 0x12, 0x34, 0xC1, 0x00, 0x00});
    section.pop_back();
    CSDT sdt(nullptr, 1024);
    EXPECT_FALSE(readTable(sdt, section));
}

TEST(SDT, RenderThenReadBackAndCopy) {
    CSDT sdt(nullptr, 1024);
    ASSERT_TRUE(readTable(sdt, sdtSection({{0x10, serviceDescriptor("One")}, {0x20, {0x80, 0x01, 0x00}}})));
    auto extra = std::make_shared<mpegcore::CServiceDescriptionSection>();
    extra->service_id = 0x15;
    extra->reserved_future_use = 0x3F;
    extra->EIT_schedule_flag = 1;
    extra->running_status = 2;
    extra->free_CA_mode = 1;
    ASSERT_TRUE(vq_test::readLoop(extra->descriptors, serviceDescriptor("Fifteen")));
    sdt.sds[0x15] = extra;
    sdt.RenderTable();
    EXPECT_EQ(sdt.section_length, 12 + (5 + 9) + (5 + 3) + (5 + 13));
    const SectionBytes bytes = renderedBytes(sdt);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);
    CSDT back(nullptr, 1024);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_EQ(back.CRC, sdt.CRC);
    ASSERT_EQ(back.sds.size(), 3u);
    for (const auto& [id, service] : sdt.sds) {
        const auto& other = back.sds.at(id);
        EXPECT_EQ(other->EIT_schedule_flag, service->EIT_schedule_flag);
        EXPECT_EQ(other->EIT_present_following_flag, service->EIT_present_following_flag);
        EXPECT_EQ(other->running_status, service->running_status);
        EXPECT_EQ(other->free_CA_mode, service->free_CA_mode);
        EXPECT_EQ(other->descriptors_loop_length, service->descriptors_loop_length);
        EXPECT_EQ(vq_test::writeLoop(other->descriptors), vq_test::writeLoop(service->descriptors));
    }
    CSDT copy(nullptr, 1024);
    back.copyTo(&copy);
    back.Clear();
    copy.RenderTable();
    EXPECT_EQ(renderedBytes(copy), bytes);
}

TEST(BAT, StreamDescriptorsGoToTheTablesList) {
    CBAT bat(nullptr, 4096);
    ASSERT_TRUE(readTable(bat, networkSection(0x4A, {0x47, 0x02, 'B', 'q'}, {{1, 0x55, kServiceList}})));
    EXPECT_EQ(bat.bouquet_id, 0x0100);
    EXPECT_EQ(bat.bouquet_descriptors_length, 4);
    ASSERT_EQ(bat.descriptors.descriptor.size(), 2u);
    EXPECT_EQ(bat.descriptors.descriptor.front()->descriptor_tag, 0x47);
    auto list = vq_test::as<mpegcore::service_list_descriptor>(bat.descriptors.find(0x41));
    ASSERT_TRUE(list);
    EXPECT_EQ(list->services.size(), 2u);
    ASSERT_EQ(bat.BouquetAssociationStreamList.size(), 1u);
    const auto* stream = bat.BouquetAssociationStreamList.front();
    EXPECT_EQ(stream->transport_stream_id, 1);
    EXPECT_EQ(stream->original_network_id, 0x55);
    EXPECT_EQ(stream->transport_descriptors_length, 8);
    EXPECT_TRUE(stream->descriptors.descriptor.empty());
    EXPECT_TRUE(stream->descriptor.empty());
}

TEST(BAT, FailingDescriptorListFailsTheTable) {
    CBAT bouquetLoop(nullptr, 4096);
    EXPECT_FALSE(readTable(bouquetLoop, networkSection(0x4A, {0x80, 0x09, 0x00}, {})));
    CBAT streamLoop(nullptr, 4096);
    EXPECT_FALSE(readTable(streamLoop, networkSection(0x4A, {}, {{1, 2, {0x80, 0x09, 0x00}}})));
    EXPECT_TRUE(streamLoop.BouquetAssociationStreamList.empty());
}

TEST(BAT, LoopRunsWhileSixBytesRemain) {
    CBAT bat(nullptr, 4096);
    ASSERT_TRUE(readTable(bat, networkSection(0x4A, {}, {{1, 2, {}}, {3, 4, {}}})));
    EXPECT_EQ(bat.BouquetAssociationStreamList.size(), 2u);
}

TEST(BAT, AlteredCrcFails) {
    SectionBytes section = networkSection(0x4A, {}, {{1, 2, {}}});
    section[section.size() - 4] ^= 0x01;
    CBAT bat(nullptr, 4096);
    EXPECT_FALSE(readTable(bat, section));
}

TEST(BAT, RenderThenReadBackAndCopy) {
    CBAT bat(nullptr, 4096);
    bat.table_id = 0x4A;
    bat.section_syntax_indicator = 1;
    bat.zero = 1;
    bat.reserved = 3;
    bat.bouquet_id = 0x4321;
    bat.reserved1 = 3;
    bat.version_number = 21;
    bat.current_next_indicator = 1;
    bat.reserved_future_use2 = 0xF;
    bat.reserved_future_use3 = 0xF;
    ASSERT_TRUE(vq_test::readLoop(bat.descriptors, {0x47, 0x02, 'B', 'q'}));
    for (uint16_t i = 1; i <= 3; ++i) {
        auto* stream = new mpegcore::CBouquetAssociationStream();
        stream->transport_stream_id = i;
        stream->original_network_id = uint16_t(0x100 + i);
        stream->reserved_future_use = 0xF;
        bat.BouquetAssociationStreamList.push_back(stream);
    }
    ASSERT_TRUE(vq_test::readLoop(bat.BouquetAssociationStreamList.back()->descriptors, kServiceList));
    EXPECT_EQ(bat.calc_transport_stream_loop_length(), 18 + 8);
    bat.RenderTable();
    EXPECT_EQ(bat.section_length, 13 + 4 + 26);
    const SectionBytes bytes = renderedBytes(bat);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);

    CBAT back(nullptr, 4096);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_EQ(back.bouquet_id, 0x4321);
    EXPECT_EQ(back.version_number, 21);
    EXPECT_EQ(back.CRC, bat.CRC);
    ASSERT_EQ(back.BouquetAssociationStreamList.size(), 3u);
    EXPECT_EQ(back.BouquetAssociationStreamList.back()->transport_descriptors_length, 8);
    // The last stream's service list moved into the table's own list.
    EXPECT_EQ(back.descriptors.descriptor.size(), 2u);
    EXPECT_TRUE(back.descriptors.find(0x41));

    CBAT copy(nullptr, 4096);
    bat.copyTo(&copy);
    bat.Clear();
    EXPECT_TRUE(bat.BouquetAssociationStreamList.empty());
    ASSERT_EQ(copy.BouquetAssociationStreamList.size(), 3u);
    EXPECT_EQ(copy.BouquetAssociationStreamList.back()->descriptors.descriptor.size(), 1u);
    copy.RenderTable();
    EXPECT_EQ(renderedBytes(copy), bytes);
}
