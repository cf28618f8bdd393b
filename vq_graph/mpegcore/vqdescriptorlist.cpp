#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

namespace {

// Below three bytes nothing but a payload-less descriptor or stray bytes can
// remain; they end the loop successfully.
constexpr uint64_t kMinDescriptorBytes = 3;

constexpr uint8_t kT2DeliverySystemExtension = 0x04;

// Tag 0x7F: the third byte, descriptor_tag_extension, picks the class.
bool isT2DeliverySystem(const VQSDK::VQBSReaderT<unsigned char*>& reader) {
    uint32_t head = 0;
    reader.lookBits<24>(head);
    return (head & 0xFF) == kT2DeliverySystemExtension;
}

}  // namespace

bool VQDescriptorList::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    switch (m_type) {
    case e_ts_desc_type: return readTS(reader);
    case e_scte35_desc_type: return readSCTE35(reader);
    }
    return false;
}

bool VQDescriptorList::readTS(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    return readLoop(reader, &VQDescriptorList::addTS);
}

bool VQDescriptorList::readSCTE35(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    return readLoop(reader, &VQDescriptorList::addSCTE35);
}

bool VQDescriptorList::readLoop(VQSDK::VQBSReaderT<unsigned char*>& reader, AddByTag addByTag) {
    while (descriptor_io::bytesLeft(reader) >= kMinDescriptorBytes) {
        uint8_t tag = 0;
        reader.lookBits<8>(tag);
        if (!(this->*addByTag)(tag, reader))
            return false;
    }
    return true;
}

bool VQDescriptorList::addTS(uint8_t tag, VQSDK::VQBSReaderT<unsigned char*>& reader) {
    switch (tag) {
    case 0x00: return add<avail_descriptor>(reader);
    case 0x02: return add<video_stream_descriptor>(reader);
    case 0x03: return add<audio_stream_descriptor>(reader);
    case 0x05: return add<registration_descriptor>(reader);
    case 0x09: return add<CA_descriptor>(reader);
    case 0x0A: return add<ISO_639_language_descriptor>(reader);
    case 0x0C: return add<multiplex_buffer_utilization_descriptor>(reader);
    case 0x10: return add<smoothing_buffer_descriptor>(reader);
    case 0x11: return add<STD_descriptor>(reader);
    case 0x40: return add<network_name_descriptor>(reader);
    case 0x41: return add<service_list_descriptor>(reader);
    case 0x45: return add<VBI_data_descriptor>(reader);
    case 0x46: return add<teletext_descriptor>(reader);
    case 0x47: return add<bouquet_name_descriptor>(reader);
    case 0x48: return add<service_descriptor>(reader);
    case 0x4D: return add<short_event_descriptor>(reader);
    case 0x4E: return add<extended_event_descriptor>(reader);
    case 0x52: return add<stream_identifier_descriptor>(reader);
    case 0x55: return add<parental_rating_descriptor>(reader);
    case 0x56: return add<teletext_descriptor>(reader);
    case 0x58: return add<local_time_offset_descriptor>(reader);
    case 0x59: return add<subtitling_descriptor>(reader);
    case 0x5F: return add<private_data_specifier_descriptor>(reader);
    case 0x6A: return add<ac3_descriptor>(reader);
    case 0x7F:
        return isT2DeliverySystem(reader) ? add<T2_delivery_system_descriptor>(reader)
                                          : add<extension_descriptor>(reader);
    case 0x83: return add<logical_channel_descriptor>(reader);
    case 0x8A: return add<cue_identifier_descriptor>(reader);
    default: return add<base_descriptor>(reader);  // kept raw
    }
}

bool VQDescriptorList::addSCTE35(uint8_t tag, VQSDK::VQBSReaderT<unsigned char*>& reader) {
    switch (tag) {
    case 0x00: return add<avail_descriptor>(reader);
    case 0x01: return add<scte35_dtmf_descriptor>(reader);
    case 0x02: return add<scte35_segmentation_descriptor>(reader);
    default: return add<base_descriptor>(reader);  // kept raw
    }
}

void VQDescriptorList::write(VQSDK::VQBSWriterT<unsigned char*>& writer) const {
    for (const auto& item : descriptor)
        item->write(writer);
}

std::shared_ptr<base_descriptor> VQDescriptorList::find(uint8_t tag) const {
    for (const auto& item : descriptor)
        if (item->descriptor_tag == tag)
            return item;
    return {};
}

uint16_t VQDescriptorList::getSize() const {
    uint16_t size = 0;
    for (const auto& item : descriptor)
        size = static_cast<uint16_t>(size + item->descriptor_length + 2);
    return size;
}

void VQDescriptorList::copyTo(VQDescriptorList& target) const {
    for (const auto& item : descriptor) {
        auto copy = item->create();
        item->copyTo(copy.get());
        target.descriptor.push_back(std::move(copy));
    }
}

}  // namespace mpegcore
