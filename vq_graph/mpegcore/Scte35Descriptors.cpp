#include "mpegcore/Scte35Descriptors.h"

namespace mpegcore {

using descriptor_io::put;
using descriptor_io::readBytes;
using descriptor_io::writeBytes;

namespace {
// What the count leaves for the three fields after the UPID when the
// sub-segment fields are absent.
constexpr int kBytesWithoutSubSegments = 3;
}  // namespace

bool avail_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<32>(identifier) && reader.getBits<32>(provider_avail_id);
}

bool avail_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<32>(writer, identifier) && put<32>(writer, provider_avail_id);
}

bool scte35_dtmf_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<32>(identifier) && reader.getBits<8>(preroll) &&
           reader.getBits<3>(dtmf_count) && reader.getBits<5>(reserved) && readBytes(reader, DTMF_chars, dtmf_count);
}

bool scte35_dtmf_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<32>(writer, identifier) && put<8>(writer, preroll) &&
           put<3>(writer, dtmf_count) && put<5>(writer, reserved) && writeBytes(writer, DTMF_chars, dtmf_count);
}

int scte35_segmentation_descriptor::bytesAfterUpid() const {
    int count = program_segmentation_flag ? descriptor_length - 10 : descriptor_length - 11 - 6 * component_count;
    if (segmentation_duration_flag)
        count -= 5;
    return count - 2 - segmentation_upid_length;
}

bool scte35_segmentation_descriptor::read(descriptor_reader& reader) {
    if (!(readHeader(reader) && reader.getBits<32>(identifier) && reader.getBits<32>(segmentation_event_id) &&
          reader.getBits<1>(segmentation_event_cancel_indicator) && reader.getBits<7>(reserved1)))
        return false;
    if (segmentation_event_cancel_indicator)
        return true;
    if (!(reader.getBits<1>(program_segmentation_flag) && reader.getBits<1>(segmentation_duration_flag) &&
          reader.getBits<1>(delivery_not_restricted_flag)))
        return false;
    const bool restrictionsRead = delivery_not_restricted_flag ? reader.getBits<5>(reserved2)
                                                               : reader.getBits<1>(web_delivery_allowed_flag) &&
                                                                     reader.getBits<1>(no_regional_blackout_flag) &&
                                                                     reader.getBits<1>(archive_allowed_flag) &&
                                                                     reader.getBits<2>(device_restrictions);
    if (!restrictionsRead)
        return false;
    if (!program_segmentation_flag) {
        if (!reader.getBits<8>(component_count))
            return false;
        for (unsigned i = 0; i < component_count; ++i) {
            component entry;
            if (!(reader.getBits<8>(entry.component_tag) && reader.getBits<7>(entry.reserved) &&
                  reader.getBits<33>(entry.pts_offset)))
                return false;
            components.push_back(entry);
        }
    }
    if (segmentation_duration_flag && !reader.getBits<40>(segmentation_duration))
        return false;
    if (!(reader.getBits<8>(segmentation_upid_type) && reader.getBits<8>(segmentation_upid_length) &&
          readBytes(reader, segmentation_upid, segmentation_upid_length) && reader.getBits<8>(segmentation_type_id) &&
          reader.getBits<8>(segment_num) && reader.getBits<8>(segments_expected)))
        return false;
    if (bytesAfterUpid() == kBytesWithoutSubSegments)
        return true;
    return reader.getBits<8>(sub_segment_num) && reader.getBits<8>(sub_segments_expected);
}

bool scte35_segmentation_descriptor::write(descriptor_writer& writer) {
    if (!(writeHeader(writer) && put<32>(writer, identifier) && put<32>(writer, segmentation_event_id) &&
          put<1>(writer, segmentation_event_cancel_indicator) && put<7>(writer, reserved1)))
        return false;
    if (segmentation_event_cancel_indicator)
        return true;
    if (!(put<1>(writer, program_segmentation_flag) && put<1>(writer, segmentation_duration_flag) &&
          put<1>(writer, delivery_not_restricted_flag)))
        return false;
    const bool restrictionsPut = delivery_not_restricted_flag
                                     ? put<5>(writer, reserved2)
                                     : put<1>(writer, web_delivery_allowed_flag) &&
                                           put<1>(writer, no_regional_blackout_flag) &&
                                           put<1>(writer, archive_allowed_flag) && put<2>(writer, device_restrictions);
    if (!restrictionsPut)
        return false;
    if (!program_segmentation_flag) {
        if (!put<8>(writer, component_count) || components.size() < component_count)
            return false;
        for (unsigned i = 0; i < component_count; ++i)
            if (!(put<8>(writer, components[i].component_tag) && put<7>(writer, components[i].reserved) &&
                  put<33>(writer, components[i].pts_offset)))
                return false;
    }
    if (segmentation_duration_flag && !put<40>(writer, segmentation_duration))
        return false;
    if (!(put<8>(writer, segmentation_upid_type) && put<8>(writer, segmentation_upid_length) &&
          writeBytes(writer, segmentation_upid, segmentation_upid_length) && put<8>(writer, segmentation_type_id) &&
          put<8>(writer, segment_num) && put<8>(writer, segments_expected)))
        return false;
    if (static_cast<uint8_t>(bytesAfterUpid()) == kBytesWithoutSubSegments)
        return true;
    return put<8>(writer, sub_segment_num) && put<8>(writer, sub_segments_expected);
}

bool cue_identifier_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<8>(cue_stream_type);
}

bool cue_identifier_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<8>(writer, cue_stream_type);
}

}  // namespace mpegcore
