#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mpegcore/vqdescriptorlist.h"
#include "support/descriptor_bytes.h"

using namespace mpegcore;
using vq_test::as;
using vq_test::Bytes;
using vq_test::readDescriptor;
using vq_test::readLoop;
using vq_test::roundTrip;
using vq_test::writeDescriptor;

namespace {

std::string text(const void* bytes, size_t size) { return std::string(static_cast<const char*>(bytes), size); }

std::string text(const std::vector<uint8_t>& bytes) { return std::string(bytes.begin(), bytes.end()); }

template <size_t N>
void setText(unsigned char (&target)[N], const std::string& value) {
    std::memcpy(target, value.data(), value.size());
}

}  // namespace

TEST(NetworkNameDescriptor, RoundTrips) {
    network_name_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x40);
    d.descriptor_length = 5;
    setText(d.char_, "Net 1");
    auto back = roundTrip(d, {0x40, 0x05, 'N', 'e', 't', ' ', '1'});
    EXPECT_EQ(text(back.char_, 5), "Net 1");
    EXPECT_EQ(back.char_[5], 0);
}

TEST(NetworkNameDescriptor, NameOf255BytesIsKeptWhole) {
    Bytes bytes{0x40, 0xFF};
    for (int i = 0; i < 255; ++i)
        bytes.push_back(static_cast<uint8_t>(i + 1));
    network_name_descriptor d;
    ASSERT_TRUE(readDescriptor(d, bytes));
    EXPECT_EQ(d.char_[0], 1);
    EXPECT_EQ(d.char_[254], 255);
    EXPECT_EQ(writeDescriptor(d), bytes);
}

TEST(ServiceListDescriptor, RoundTrips) {
    service_list_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x41);
    d.descriptor_length = 6;
    d.services.push_back({0x0001, 0x01});
    d.services.push_back({0x0002, 0x19});
    auto back = roundTrip(d, {0x41, 0x06, 0x00, 0x01, 0x01, 0x00, 0x02, 0x19});
    ASSERT_EQ(back.services.size(), 2u);
    EXPECT_EQ(back.services.front().service_id, 1);
    EXPECT_EQ(back.services.front().service_type, 1);
    EXPECT_EQ(back.services.back().service_id, 2);
    EXPECT_EQ(back.services.back().service_type, 0x19);
}

TEST(ServiceListDescriptor, LengthSevenYieldsTwoServicesAndLeavesOneByte) {
    service_list_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x41, 0x07, 0x00, 0x01, 0x01, 0x00, 0x02, 0x02, 0xEE}, &left));
    EXPECT_EQ(d.services.size(), 2u);
    EXPECT_EQ(left, 1u);
}

TEST(ServiceListDescriptor, LengthBelowOneItemGivesEmptyList) {
    service_list_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x41, 0x02, 0x00, 0x01}, &left));
    EXPECT_TRUE(d.services.empty());
    EXPECT_EQ(left, 2u);
}

TEST(VBIDataDescriptor, RoundTripsServices) {
    VBI_data_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x45);
    d.descriptor_length = 12;
    auto first = std::make_shared<VBI_data_descriptor::service>();
    first->data_service_id = 1;
    first->data_service_descriptor_length = 8;
    const uint8_t lines[8] = {0xE7, 0xC7, 0xE8, 0xC8, 0xE9, 0xC9, 0xEA, 0xCA};
    std::memcpy(first->service_data, lines, 8);
    auto second = std::make_shared<VBI_data_descriptor::service>();
    second->data_service_id = 4;
    d.service_list = {first, second};
    auto back = roundTrip(d, {0x45, 0x0C, 0x01, 0x08, 0xE7, 0xC7, 0xE8, 0xC8, 0xE9, 0xC9, 0xEA, 0xCA, 0x04, 0x00});
    ASSERT_EQ(back.service_list.size(), 2u);
    EXPECT_EQ(back.service_list.front()->data_service_id, 1);
    EXPECT_EQ(back.service_list.front()->data_service_descriptor_length, 8);
    EXPECT_EQ(0, std::memcmp(back.service_list.front()->service_data, first->service_data, 255));
    EXPECT_EQ(back.service_list.back()->data_service_id, 4);
    EXPECT_EQ(back.service_list.back()->data_service_descriptor_length, 0);
}

TEST(VBIDataDescriptor, ServiceLongerThanRemainderFails) {
    VBI_data_descriptor d;
    EXPECT_FALSE(readDescriptor(d, {0x45, 0x04, 0x01, 0x03, 0xAA, 0xBB, 0xCC}));
    VBI_data_descriptor odd;
    EXPECT_FALSE(readDescriptor(odd, {0x45, 0x01, 0x01, 0x00}));
}

TEST(TeletextDescriptor, RoundTripsItems) {
    teletext_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x56);
    d.descriptor_length = 10;
    d.teletext_list.push_back(std::make_shared<teletext_descriptor::teletext_item>(
        teletext_descriptor::teletext_item{{'f', 'r', 'a'}, 5, 0, 0x88}));
    d.teletext_list.push_back(std::make_shared<teletext_descriptor::teletext_item>(
        teletext_descriptor::teletext_item{{'d', 'e', 'u'}, 1, 7, 0x00}));
    auto back = roundTrip(d, {0x56, 0x0A, 'f', 'r', 'a', 0x28, 0x88, 'd', 'e', 'u', 0x0F, 0x00});
    ASSERT_EQ(back.teletext_list.size(), 2u);
    const auto& a = *back.teletext_list.front();
    const auto& b = *back.teletext_list.back();
    EXPECT_EQ(text(a.ISO_639_language_code, 3), "fra");
    EXPECT_EQ(a.teletext_type, 5);
    EXPECT_EQ(a.teletext_magazine_number, 0);
    EXPECT_EQ(a.teletext_page_number, 0x88);
    EXPECT_EQ(text(b.ISO_639_language_code, 3), "deu");
    EXPECT_EQ(b.teletext_type, 1);
    EXPECT_EQ(b.teletext_magazine_number, 7);
    EXPECT_EQ(b.teletext_page_number, 0);
}

TEST(TeletextDescriptor, VbiTeletextTagIsKeptAndWrittenBack) {
    teletext_descriptor d;
    d.descriptor_tag = 0x46;
    d.descriptor_length = 5;
    d.teletext_list.push_back(std::make_shared<teletext_descriptor::teletext_item>(
        teletext_descriptor::teletext_item{{'e', 'n', 'g'}, 2, 1, 0x01}));
    auto back = roundTrip(d, {0x46, 0x05, 'e', 'n', 'g', 0x11, 0x01});
    EXPECT_EQ(back.descriptor_tag, 0x46);
}

TEST(TeletextDescriptor, CountingUpReadsLastItemWhole) {
    teletext_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x56, 0x07, 'f', 'r', 'a', 0x08, 0x01, 'e', 'n', 'g', 0x08, 0x02, 0x33}, &left));
    EXPECT_EQ(d.teletext_list.size(), 2u);
    EXPECT_EQ(left, 1u);
    teletext_descriptor empty;
    ASSERT_TRUE(readDescriptor(empty, {0x56, 0x00, 'f', 'r', 'a'}, &left));
    EXPECT_TRUE(empty.teletext_list.empty());
}

TEST(BouquetNameDescriptor, RoundTrips) {
    bouquet_name_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x47);
    d.descriptor_length = 3;
    d.character = {'B', 'Q', '1'};
    auto back = roundTrip(d, {0x47, 0x03, 'B', 'Q', '1'});
    EXPECT_EQ(text(back.character), "BQ1");
}

TEST(BouquetNameDescriptor, WriteRefusesLengthBeyondItsBytes) {
    bouquet_name_descriptor d;
    d.descriptor_length = 4;
    d.character = {'B', 'Q'};
    bool ok = true;
    writeDescriptor(d, &ok);
    EXPECT_FALSE(ok);
}

TEST(ServiceDescriptor, RoundTrips) {
    service_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x48);
    d.descriptor_length = 10;
    d.service_type = 1;
    d.service_provider_name_length = 3;
    setText(d.service_provider_name, "DVB");
    d.service_name_length = 4;
    setText(d.service_name, "P1.1");
    auto back = roundTrip(d, {0x48, 0x0A, 0x01, 0x03, 'D', 'V', 'B', 0x04, 'P', '1', '.', '1'});
    EXPECT_EQ(back.service_type, 1);
    EXPECT_EQ(text(back.service_provider_name, back.service_provider_name_length), "DVB");
    EXPECT_EQ(text(back.service_name, back.service_name_length), "P1.1");
    EXPECT_EQ(back.service_name[4], 0);
}

TEST(ServiceDescriptor, EmptyNamesHaveThreeBytePayload) {
    service_descriptor d;
    ASSERT_TRUE(readDescriptor(d, {0x48, 0x03, 0x19, 0x00, 0x00}));
    EXPECT_EQ(d.service_type, 0x19);
    EXPECT_EQ(d.service_provider_name_length, 0);
    EXPECT_EQ(d.service_name_length, 0);
}

TEST(ServiceDescriptor, NameOf255BytesIsKeptWholeUncheckedAgainstLength) {
    Bytes bytes{0x48, 0x03, 0x01, 0x00, 0xFF};
    for (int i = 0; i < 255; ++i)
        bytes.push_back(static_cast<uint8_t>(0x20 + i % 90));
    service_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, bytes, &left));
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(d.service_name_length, 255);
    EXPECT_EQ(0, std::memcmp(d.service_name, bytes.data() + 5, 255));
    EXPECT_EQ(writeDescriptor(d), bytes);
}

TEST(ShortEventDescriptor, RoundTrips) {
    short_event_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x4D);
    d.descriptor_length = 13;
    std::memcpy(d.ISO_639_language_code, "eng", 3);
    d.event_name_length = 5;
    setText(d.event_name_char, "News!");
    d.text_length = 3;
    setText(d.text_char, "abc");
    auto back = roundTrip(d, {0x4D, 0x0D, 'e', 'n', 'g', 0x05, 'N', 'e', 'w', 's', '!', 0x03, 'a', 'b', 'c'});
    EXPECT_EQ(text(back.ISO_639_language_code, 3), "eng");
    EXPECT_EQ(text(back.event_name_char, back.event_name_length), "News!");
    EXPECT_EQ(text(back.text_char, back.text_length), "abc");
}

TEST(ExtendedEventDescriptor, RoundTripsItemsAndText) {
    extended_event_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x4E);
    d.descriptor_length = 20;
    d.descriptor_number = 1;
    d.last_descriptor_number = 2;
    std::memcpy(d.ISO_639_language_code, "deu", 3);
    d.length_of_items = 10;
    d.items.push_back({3, {'D', 'i', 'r'}, 2, {'M', 'e'}});
    d.items.push_back({0, {}, 1, {'x'}});
    d.text_length = 4;
    d.text_char = {'T', 'e', 'x', 't'};
    auto back = roundTrip(d, {0x4E, 0x14, 0x12, 'd',  'e',  'u', 0x0A, 0x03, 'D', 'i', 'r',
                              0x02, 'M',  'e',  0x00, 0x01, 'x', 0x04, 'T',  'e', 'x', 't'});
    EXPECT_EQ(back.descriptor_number, 1);
    EXPECT_EQ(back.last_descriptor_number, 2);
    EXPECT_EQ(text(back.ISO_639_language_code, 3), "deu");
    EXPECT_EQ(back.length_of_items, 10);
    ASSERT_EQ(back.items.size(), 2u);
    EXPECT_EQ(back.items[0].item_description_length, 3);
    EXPECT_EQ(text(back.items[0].item_description_char), "Dir");
    EXPECT_EQ(back.items[0].item_length, 2);
    EXPECT_EQ(text(back.items[0].item_char), "Me");
    EXPECT_EQ(back.items[1].item_description_length, 0);
    EXPECT_TRUE(back.items[1].item_description_char.empty());
    EXPECT_EQ(text(back.items[1].item_char), "x");
    EXPECT_EQ(back.text_length, 4);
    EXPECT_EQ(text(back.text_char), "Text");
}

TEST(ExtendedEventDescriptor, NoItemsReadsTextDirectly) {
    extended_event_descriptor d;
    ASSERT_TRUE(readDescriptor(d, {0x4E, 0x08, 0x00, 'e', 'n', 'g', 0x00, 0x02, 'h', 'i'}));
    EXPECT_TRUE(d.items.empty());
    EXPECT_EQ(text(d.text_char), "hi");
}

TEST(StreamIdentifierDescriptor, RoundTrips) {
    stream_identifier_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x52);
    d.descriptor_length = 1;
    d.component_tag = 7;
    EXPECT_EQ(roundTrip(d, {0x52, 0x01, 0x07}).component_tag, 7);
}

TEST(ParentalRatingDescriptor, LengthZeroReadsWithoutEntries) {
    parental_rating_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x55, 0x00, 'F', 'R', 'A', 0x0C}, &left));
    EXPECT_TRUE(d.parentals.empty());
    EXPECT_EQ(left, 4u);
}

TEST(ParentalRatingDescriptor, ReadsEntriesToTheEndOfTheReaderThenFails) {
    parental_rating_descriptor d;
    d.descriptor_length = 4;
    d.parentals.push_back({{'F', 'R', 'A'}, 0x0C});
    bool ok = false;
    const Bytes bytes = writeDescriptor(d, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(bytes, (Bytes{0x55, 0x04, 'F', 'R', 'A', 0x0C}));

    parental_rating_descriptor back;
    uint64_t left = 1;
    EXPECT_FALSE(readDescriptor(back, bytes, &left));  // the reader runs dry at an entry boundary
    EXPECT_EQ(left, 0u);
    ASSERT_EQ(back.parentals.size(), 1u);
    EXPECT_EQ(text(back.parentals[0].country_code, 3), "FRA");
    EXPECT_EQ(back.parentals[0].rating, 0x0C);
    EXPECT_EQ(writeDescriptor(back), bytes);
}

TEST(ParentalRatingDescriptor, SwallowsTheRestOfTheLoopAndFailsIt) {
    VQDescriptorList list(e_ts_desc_type);
    uint64_t left = 9;
    EXPECT_FALSE(readLoop(
        list, {0x52, 0x01, 0x03, 0x55, 0x04, 'D', 'E', 'U', 0x10, 0x52, 0x01, 0x04, 0x40, 0x01, 'N', 0x00}, &left));
    ASSERT_EQ(list.descriptor.size(), 1u);
    EXPECT_EQ(list.descriptor.front()->descriptor_tag, 0x52);
    EXPECT_EQ(left, 0u);
}

TEST(LocalTimeOffsetDescriptor, RoundTripsEntries) {
    local_time_offset_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x58);
    d.descriptor_length = 13;
    auto entry = std::make_shared<local_time_offset_descriptor::local_time_offset_entry>();
    std::memcpy(entry->country_code, "DEU", 3);
    entry->country_region_id = 0;
    entry->reserved = 1;
    entry->local_time_offset_polarity = 0;
    entry->local_time_offset = 0x0100;
    entry->time_of_change = 0xE4C5020000ull;
    entry->next_time_offset = 0x0200;
    d.m_listEntry.push_back(entry);
    auto back = roundTrip(d, {0x58, 0x0D, 'D', 'E', 'U', 0x02, 0x01, 0x00, 0xE4, 0xC5, 0x02, 0x00, 0x00, 0x02, 0x00});
    ASSERT_EQ(back.m_listEntry.size(), 1u);
    const auto& e = *back.m_listEntry.front();
    EXPECT_EQ(text(e.country_code, 3), "DEU");
    EXPECT_EQ(e.country_region_id, 0);
    EXPECT_EQ(e.reserved, 1);
    EXPECT_EQ(e.local_time_offset_polarity, 0);
    EXPECT_EQ(e.local_time_offset, 0x0100);
    EXPECT_EQ(e.time_of_change, 0xE4C5020000ull);
    EXPECT_EQ(e.next_time_offset, 0x0200u);
}

TEST(LocalTimeOffsetDescriptor, SurplusStaysAndOverlongLengthFails) {
    Bytes bytes{0x58, 0x0E, 'G', 'B', 'R', 0x03, 0x00, 0x00, 0xE4, 0xC5, 0x01, 0x00, 0x00, 0x01, 0x00, 0x77};
    local_time_offset_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, bytes, &left));
    EXPECT_EQ(d.m_listEntry.size(), 1u);
    EXPECT_EQ(d.m_listEntry.front()->country_region_id, 0);
    EXPECT_EQ(d.m_listEntry.front()->local_time_offset_polarity, 1);
    EXPECT_EQ(left, 1u);

    bytes[1] = 0x1A;
    local_time_offset_descriptor overlong;
    EXPECT_FALSE(readDescriptor(overlong, bytes));
    EXPECT_TRUE(overlong.m_listEntry.empty());
}

TEST(SubtitlingDescriptor, RoundTripsItems) {
    subtitling_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x59);
    d.descriptor_length = 8;
    d.subtitling_list.push_back(std::make_shared<subtitling_descriptor::subtitling_item>(
        subtitling_descriptor::subtitling_item{{'e', 'n', 'g'}, 0x10, 0x0001, 0x0002}));
    auto back = roundTrip(d, {0x59, 0x08, 'e', 'n', 'g', 0x10, 0x00, 0x01, 0x00, 0x02});
    ASSERT_EQ(back.subtitling_list.size(), 1u);
    const auto& s = *back.subtitling_list.front();
    EXPECT_EQ(text(s.ISO_639_language_code, 3), "eng");
    EXPECT_EQ(s.subtitling_type, 0x10);
    EXPECT_EQ(s.composition_page_id, 1);
    EXPECT_EQ(s.ancillary_page_id, 2);
}

TEST(PrivateDataSpecifierDescriptor, RoundTrips) {
    private_data_specifier_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x5F);
    d.descriptor_length = 4;
    d.private_data_specifier = 0x28;
    EXPECT_EQ(roundTrip(d, {0x5F, 0x04, 0x00, 0x00, 0x00, 0x28}).private_data_specifier, 0x28u);
}

TEST(AC3Descriptor, RoundTripsOptionalBytesAndAdditionalInfo) {
    ac3_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x6A);
    d.descriptor_length = 5;
    d.component_type_flag = 1;
    d.bsid_flag = 1;
    d.reserved_flags = 0xF;
    d.component_type = 0x42;
    d.bsid = 0x08;
    d.additional_info_byte = {0xAA, 0xBB};
    auto back = roundTrip(d, {0x6A, 0x05, 0xCF, 0x42, 0x08, 0xAA, 0xBB});
    EXPECT_EQ(back.component_type_flag, 1);
    EXPECT_EQ(back.bsid_flag, 1);
    EXPECT_EQ(back.mainid_flag, 0);
    EXPECT_EQ(back.asvc_flag, 0);
    EXPECT_EQ(back.reserved_flags, 0xF);
    EXPECT_EQ(back.component_type, 0x42);
    EXPECT_EQ(back.bsid, 0x08);
    EXPECT_EQ(back.mainid, 0);
    EXPECT_EQ(back.additional_info_byte, (Bytes{0xAA, 0xBB}));
}

TEST(AC3Descriptor, AdditionalInfoCountsFlaggedBytes) {
    ac3_descriptor all;
    ASSERT_TRUE(readDescriptor(all, {0x6A, 0x05, 0xF0, 1, 2, 3, 4}));
    EXPECT_EQ(all.asvc, 4);
    EXPECT_TRUE(all.additional_info_byte.empty());
    ac3_descriptor none;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(none, {0x6A, 0x00, 0x00, 0x99}, &left));  // flag byte beyond the length
    EXPECT_TRUE(none.additional_info_byte.empty());
    EXPECT_EQ(left, 1u);
}

TEST(ExtensionDescriptor, RoundTripsSelectorBytes) {
    extension_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x7F);
    d.descriptor_length = 3;
    d.descriptor_tag_extension = 0x05;
    d.selector_bytes = {0xAA, 0xBB};
    auto back = roundTrip(d, {0x7F, 0x03, 0x05, 0xAA, 0xBB});
    EXPECT_EQ(back.descriptor_tag_extension, 0x05);
    EXPECT_EQ(back.selector_bytes, (Bytes{0xAA, 0xBB}));
}

TEST(T2DeliverySystemDescriptor, RoundTripsFixedFields) {
    T2_delivery_system_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x7F);
    EXPECT_EQ(d.descriptor_tag_extension, 0x04);
    d.descriptor_length = 6;
    d.plp_id = 1;
    d.T2_system_id = 2;
    d.SISO_MISO = 1;
    d.bandwidth = 2;
    d.guard_interval = 2;
    d.transmission_mode = 3;
    d.other_frequency_flag = 1;
    auto back = roundTrip(d, {0x7F, 0x06, 0x04, 0x01, 0x00, 0x02, 0x48, 0x4E});
    EXPECT_EQ(back.plp_id, 1);
    EXPECT_EQ(back.T2_system_id, 2);
    EXPECT_EQ(back.SISO_MISO, 1);
    EXPECT_EQ(back.bandwidth, 2);
    EXPECT_EQ(back.reserved_future_use, 0);
    EXPECT_EQ(back.guard_interval, 2);
    EXPECT_EQ(back.transmission_mode, 3);
    EXPECT_EQ(back.other_frequency_flag, 1);
    EXPECT_EQ(back.tfs_flag, 0);
}

TEST(T2DeliverySystemDescriptor, LengthFourIsStillReadAsSixBytes) {
    T2_delivery_system_descriptor d;
    uint64_t left = 0;
    ASSERT_TRUE(readDescriptor(d, {0x7F, 0x04, 0x04, 0x09, 0x12, 0x34, 0x48, 0x4E, 0x52}, &left));
    EXPECT_EQ(d.plp_id, 9);
    EXPECT_EQ(d.T2_system_id, 0x1234);
    EXPECT_EQ(d.transmission_mode, 3);
    EXPECT_EQ(left, 1u);
}

TEST(T2DeliverySystemDescriptor, IgnoresLengthCheckButFailsWhenDataEnds) {
    T2_delivery_system_descriptor d;
    EXPECT_TRUE(readDescriptor(d, {0x7F, 0x40, 0x04, 0x09, 0x12, 0x34, 0x48, 0x4E}));
    T2_delivery_system_descriptor cut;
    EXPECT_FALSE(readDescriptor(cut, {0x7F, 0x06, 0x04, 0x09, 0x12}));
}

TEST(T2DeliverySystemDescriptor, CellBytesStayInTheLoop) {
    VQDescriptorList list(e_ts_desc_type);
    // Length 8: two cell bytes follow the six read; they become a zero-length
    // descriptor of tag 0x00 that the 3-byte rule skips.
    EXPECT_TRUE(readLoop(list, {0x7F, 0x08, 0x04, 0x01, 0x00, 0x02, 0x48, 0x4E, 0x00, 0x00}));
    EXPECT_EQ(list.descriptor.size(), 1u);
}

TEST(LogicalChannelDescriptor, RoundTripsServices) {
    logical_channel_descriptor d;
    EXPECT_EQ(d.descriptor_tag, 0x83);
    d.descriptor_length = 8;
    d.m_listService.push_back({0x0001, 1, 0x1F, 0x005});
    d.m_listService.push_back({0x0002, 0, 0x1F, 0x3FF});
    auto back = roundTrip(d, {0x83, 0x08, 0x00, 0x01, 0xFC, 0x05, 0x00, 0x02, 0x7F, 0xFF});
    ASSERT_EQ(back.m_listService.size(), 2u);
    EXPECT_EQ(back.m_listService.front().service_id, 1);
    EXPECT_EQ(back.m_listService.front().visible_service_flag, 1);
    EXPECT_EQ(back.m_listService.front().reserved, 0x1F);
    EXPECT_EQ(back.m_listService.front().logical_channel_number, 5);
    EXPECT_EQ(back.m_listService.back().visible_service_flag, 0);
    EXPECT_EQ(back.m_listService.back().logical_channel_number, 0x3FF);
}

TEST(DvbDescriptors, CopyToMakesNewRecordsForSharedLists) {
    VQDescriptorList source(e_ts_desc_type);
    ASSERT_TRUE(readLoop(source, {0x45, 0x03, 0x01, 0x01, 0xAA,  //
                                  0x58, 0x0D, 'D',  'E',  'U',  0x02, 0x01, 0x00, 0xE4, 0xC5, 0x02, 0x00, 0x00,
                                  0x02, 0x00, 0x59, 0x08, 'e',  'n',  'g',  0x10, 0x00, 0x01, 0x00, 0x02,  //
                                  0x4E, 0x0A, 0x00, 'e',  'n',  'g',  0x03, 0x00, 0x01, 'x',  0x01, 'y'}));
    ASSERT_EQ(source.descriptor.size(), 4u);
    const Bytes before = vq_test::writeLoop(source);
    VQDescriptorList copy(e_ts_desc_type);
    source.copyTo(copy);
    ASSERT_EQ(vq_test::writeLoop(copy), before);

    auto it = copy.descriptor.begin();
    auto vbi = as<VBI_data_descriptor>(*it++);
    vbi->service_list.front()->service_data[0] = 0;
    vbi->service_list.clear();
    as<local_time_offset_descriptor>(*it++)->m_listEntry.front()->local_time_offset = 0;
    as<subtitling_descriptor>(*it++)->subtitling_list.front()->composition_page_id = 9;
    as<extended_event_descriptor>(*it++)->items.front().item_char[0] = 'z';
    EXPECT_EQ(vq_test::writeLoop(source), before);
}
