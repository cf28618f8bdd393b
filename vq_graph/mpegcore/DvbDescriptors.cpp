#include "mpegcore/DvbDescriptors.h"

namespace mpegcore {

using descriptor_io::deepCopy;
using descriptor_io::put;
using descriptor_io::readBytes;
using descriptor_io::readCountingDown;
using descriptor_io::readCountingUp;
using descriptor_io::writeBytes;

bool network_name_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readBytes(reader, char_, descriptor_length);
}

bool network_name_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && writeBytes(writer, char_, descriptor_length);
}

bool service_list_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readCountingDown(descriptor_length, 3, [&] {
               service item;
               if (!(reader.getBits<16>(item.service_id) && reader.getBits<8>(item.service_type)))
                   return false;
               services.push_back(item);
               return true;
           });
}

bool service_list_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    for (const auto& item : services)
        if (!(put<16>(writer, item.service_id) && put<8>(writer, item.service_type)))
            return false;
    return true;
}

void VBI_data_descriptor::copyTo(base_descriptor* target) const {
    if (auto* copy = sameClass<VBI_data_descriptor>(target)) {
        *copy = *this;
        copy->service_list = deepCopy(service_list);
    }
}

bool VBI_data_descriptor::read(descriptor_reader& reader) {
    if (!readHeader(reader))
        return false;
    for (int remaining = descriptor_length; remaining >= 1;) {
        auto item = std::make_shared<service>();
        if (!(reader.getBits<8>(item->data_service_id) && reader.getBits<8>(item->data_service_descriptor_length)))
            return false;
        if (item->data_service_descriptor_length > remaining - 2)
            return false;
        if (!readBytes(reader, item->service_data, item->data_service_descriptor_length))
            return false;
        service_list.push_back(item);
        remaining -= 2 + item->data_service_descriptor_length;
    }
    return true;
}

bool VBI_data_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    for (const auto& item : service_list)
        if (!(put<8>(writer, item->data_service_id) && put<8>(writer, item->data_service_descriptor_length) &&
              writeBytes(writer, item->service_data, item->data_service_descriptor_length)))
            return false;
    return true;
}

void teletext_descriptor::copyTo(base_descriptor* target) const {
    if (auto* copy = sameClass<teletext_descriptor>(target)) {
        *copy = *this;
        copy->teletext_list = deepCopy(teletext_list);
    }
}

bool teletext_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readCountingUp(descriptor_length, 5, [&] {
               auto item = std::make_shared<teletext_item>();
               if (!(readBytes(reader, item->ISO_639_language_code, 3) && reader.getBits<5>(item->teletext_type) &&
                     reader.getBits<3>(item->teletext_magazine_number) &&
                     reader.getBits<8>(item->teletext_page_number)))
                   return false;
               teletext_list.push_back(item);
               return true;
           });
}

bool teletext_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    for (const auto& item : teletext_list)
        if (!(writeBytes(writer, item->ISO_639_language_code, 3) && put<5>(writer, item->teletext_type) &&
              put<3>(writer, item->teletext_magazine_number) && put<8>(writer, item->teletext_page_number)))
            return false;
    return true;
}

bool bouquet_name_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readBytes(reader, character, descriptor_length);
}

bool bouquet_name_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && writeBytes(writer, character, descriptor_length);
}

bool service_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<8>(service_type) && reader.getBits<8>(service_provider_name_length) &&
           readBytes(reader, service_provider_name, service_provider_name_length) &&
           reader.getBits<8>(service_name_length) && readBytes(reader, service_name, service_name_length);
}

bool service_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<8>(writer, service_type) && put<8>(writer, service_provider_name_length) &&
           writeBytes(writer, service_provider_name, service_provider_name_length) &&
           put<8>(writer, service_name_length) && writeBytes(writer, service_name, service_name_length);
}

bool short_event_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readBytes(reader, ISO_639_language_code, 3) && reader.getBits<8>(event_name_length) &&
           readBytes(reader, event_name_char, event_name_length) && reader.getBits<8>(text_length) &&
           readBytes(reader, text_char, text_length);
}

bool short_event_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && writeBytes(writer, ISO_639_language_code, 3) && put<8>(writer, event_name_length) &&
           writeBytes(writer, event_name_char, event_name_length) && put<8>(writer, text_length) &&
           writeBytes(writer, text_char, text_length);
}

bool extended_event_descriptor::read(descriptor_reader& reader) {
    if (!(readHeader(reader) && reader.getBits<4>(descriptor_number) && reader.getBits<4>(last_descriptor_number) &&
          readBytes(reader, ISO_639_language_code, 3) && reader.getBits<8>(length_of_items)))
        return false;
    for (unsigned count = 0; count < length_of_items;) {
        item entry;
        if (!(reader.getBits<8>(entry.item_description_length) &&
              readBytes(reader, entry.item_description_char, entry.item_description_length) &&
              reader.getBits<8>(entry.item_length) && readBytes(reader, entry.item_char, entry.item_length)))
            return false;
        count += 2u + entry.item_description_length + entry.item_length;
        items.push_back(std::move(entry));
    }
    return reader.getBits<8>(text_length) && readBytes(reader, text_char, text_length);
}

bool extended_event_descriptor::write(descriptor_writer& writer) {
    if (!(writeHeader(writer) && put<4>(writer, descriptor_number) && put<4>(writer, last_descriptor_number) &&
          writeBytes(writer, ISO_639_language_code, 3) && put<8>(writer, length_of_items)))
        return false;
    for (const auto& entry : items)
        if (!(put<8>(writer, entry.item_description_length) &&
              writeBytes(writer, entry.item_description_char, entry.item_description_length) &&
              put<8>(writer, entry.item_length) && writeBytes(writer, entry.item_char, entry.item_length)))
            return false;
    return put<8>(writer, text_length) && writeBytes(writer, text_char, text_length);
}

bool stream_identifier_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<8>(component_tag);
}

bool stream_identifier_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<8>(writer, component_tag);
}

bool parental_rating_descriptor::read(descriptor_reader& reader) {
    if (!readHeader(reader))
        return false;
    if (descriptor_length == 0)
        return true;
    for (;;) {
        parental entry;
        if (!(readBytes(reader, entry.country_code, 3) && reader.getBits<8>(entry.rating)))
            return false;
        parentals.push_back(entry);
    }
}

bool parental_rating_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    for (const auto& entry : parentals)
        if (!(writeBytes(writer, entry.country_code, 3) && put<8>(writer, entry.rating)))
            return false;
    return true;
}

void local_time_offset_descriptor::copyTo(base_descriptor* target) const {
    if (auto* copy = sameClass<local_time_offset_descriptor>(target)) {
        *copy = *this;
        copy->m_listEntry = deepCopy(m_listEntry);
    }
}

bool local_time_offset_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readCountingDown(descriptor_length, 13, [&] {
               auto entry = std::make_shared<local_time_offset_entry>();
               if (!(readBytes(reader, entry->country_code, 3) && reader.getBits<6>(entry->country_region_id) &&
                     reader.getBits<1>(entry->reserved) && reader.getBits<1>(entry->local_time_offset_polarity) &&
                     reader.getBits<16>(entry->local_time_offset) && reader.getBits<40>(entry->time_of_change) &&
                     reader.getBits<16>(entry->next_time_offset)))
                   return false;
               m_listEntry.push_back(entry);
               return true;
           });
}

bool local_time_offset_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    for (const auto& entry : m_listEntry)
        if (!(writeBytes(writer, entry->country_code, 3) && put<6>(writer, entry->country_region_id) &&
              put<1>(writer, entry->reserved) && put<1>(writer, entry->local_time_offset_polarity) &&
              put<16>(writer, entry->local_time_offset) && put<40>(writer, entry->time_of_change) &&
              put<16>(writer, entry->next_time_offset)))
            return false;
    return true;
}

void subtitling_descriptor::copyTo(base_descriptor* target) const {
    if (auto* copy = sameClass<subtitling_descriptor>(target)) {
        *copy = *this;
        copy->subtitling_list = deepCopy(subtitling_list);
    }
}

bool subtitling_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readCountingUp(descriptor_length, 8, [&] {
               auto item = std::make_shared<subtitling_item>();
               if (!(readBytes(reader, item->ISO_639_language_code, 3) && reader.getBits<8>(item->subtitling_type) &&
                     reader.getBits<16>(item->composition_page_id) && reader.getBits<16>(item->ancillary_page_id)))
                   return false;
               subtitling_list.push_back(item);
               return true;
           });
}

bool subtitling_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    for (const auto& item : subtitling_list)
        if (!(writeBytes(writer, item->ISO_639_language_code, 3) && put<8>(writer, item->subtitling_type) &&
              put<16>(writer, item->composition_page_id) && put<16>(writer, item->ancillary_page_id)))
            return false;
    return true;
}

bool private_data_specifier_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<32>(private_data_specifier);
}

bool private_data_specifier_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<32>(writer, private_data_specifier);
}

int ac3_descriptor::additionalInfoCount() const {
    return descriptor_length - 1 - component_type_flag - bsid_flag - mainid_flag - asvc_flag;
}

bool ac3_descriptor::read(descriptor_reader& reader) {
    if (!(readHeader(reader) && reader.getBits<1>(component_type_flag) && reader.getBits<1>(bsid_flag) &&
          reader.getBits<1>(mainid_flag) && reader.getBits<1>(asvc_flag) && reader.getBits<4>(reserved_flags)))
        return false;
    if ((component_type_flag && !reader.getBits<8>(component_type)) || (bsid_flag && !reader.getBits<8>(bsid)) ||
        (mainid_flag && !reader.getBits<8>(mainid)) || (asvc_flag && !reader.getBits<8>(asvc)))
        return false;
    const int count = additionalInfoCount();
    return count < 1 || readBytes(reader, additional_info_byte, static_cast<size_t>(count));
}

bool ac3_descriptor::write(descriptor_writer& writer) {
    if (!(writeHeader(writer) && put<1>(writer, component_type_flag) && put<1>(writer, bsid_flag) &&
          put<1>(writer, mainid_flag) && put<1>(writer, asvc_flag) && put<4>(writer, reserved_flags)))
        return false;
    if ((component_type_flag && !put<8>(writer, component_type)) || (bsid_flag && !put<8>(writer, bsid)) ||
        (mainid_flag && !put<8>(writer, mainid)) || (asvc_flag && !put<8>(writer, asvc)))
        return false;
    const int count = additionalInfoCount();
    return count < 1 || writeBytes(writer, additional_info_byte, static_cast<size_t>(count));
}

bool extension_descriptor::read(descriptor_reader& reader) {
    return base_descriptor_extension::read(reader) &&
           (descriptor_length < 2 || readBytes(reader, selector_bytes, descriptor_length - 1u));
}

bool extension_descriptor::write(descriptor_writer& writer) {
    return base_descriptor_extension::write(writer) &&
           (descriptor_length < 2 || writeBytes(writer, selector_bytes, descriptor_length - 1u));
}

bool T2_delivery_system_descriptor::read(descriptor_reader& reader) {
    readHeader(reader);  // the length check is deliberately not applied
    return reader.getBits<8>(descriptor_tag_extension) && reader.getBits<8>(plp_id) &&
           reader.getBits<16>(T2_system_id) && reader.getBits<2>(SISO_MISO) && reader.getBits<4>(bandwidth) &&
           reader.getBits<2>(reserved_future_use) && reader.getBits<3>(guard_interval) &&
           reader.getBits<3>(transmission_mode) && reader.getBits<1>(other_frequency_flag) &&
           reader.getBits<1>(tfs_flag);
}

bool T2_delivery_system_descriptor::write(descriptor_writer& writer) {
    return base_descriptor_extension::write(writer) && put<8>(writer, plp_id) && put<16>(writer, T2_system_id) &&
           put<2>(writer, SISO_MISO) && put<4>(writer, bandwidth) && put<2>(writer, reserved_future_use) &&
           put<3>(writer, guard_interval) && put<3>(writer, transmission_mode) &&
           put<1>(writer, other_frequency_flag) && put<1>(writer, tfs_flag);
}

bool logical_channel_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && readCountingDown(descriptor_length, 4, [&] {
               service item;
               if (!(reader.getBits<16>(item.service_id) && reader.getBits<1>(item.visible_service_flag) &&
                     reader.getBits<5>(item.reserved) && reader.getBits<10>(item.logical_channel_number)))
                   return false;
               m_listService.push_back(item);
               return true;
           });
}

bool logical_channel_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    for (const auto& item : m_listService)
        if (!(put<16>(writer, item.service_id) && put<1>(writer, item.visible_service_flag) &&
              put<5>(writer, item.reserved) && put<10>(writer, item.logical_channel_number)))
            return false;
    return true;
}

}  // namespace mpegcore
