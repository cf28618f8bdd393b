#include "mpegcore/MpegDescriptors.h"

namespace mpegcore {

using descriptor_io::put;
using descriptor_io::readBytes;
using descriptor_io::writeBytes;

namespace {

// Bytes of a payload beyond its first `fixed` bytes; none when it is shorter.
size_t bytesAfter(uint8_t descriptor_length, size_t fixed) {
    return descriptor_length > fixed ? descriptor_length - fixed : 0;
}

}  // namespace

bool video_stream_descriptor::read(descriptor_reader& reader) {
    if (!readHeader(reader))
        return false;
    if (!(reader.getBits<1>(multiple_frame_rate_flag) && reader.getBits<4>(frame_rate_code) &&
          reader.getBits<1>(MPEG_1_only_flag) && reader.getBits<1>(constrained_parameter_flag) &&
          reader.getBits<1>(still_picture_flag)))
        return false;
    if (MPEG_1_only_flag)
        return true;
    return reader.getBits<8>(profile_and_level_indication) && reader.getBits<2>(chroma_format) &&
           reader.getBits<1>(frame_rate_extension_flag) && reader.getBits<5>(reserved);
}

bool video_stream_descriptor::write(descriptor_writer& writer) {
    writeHeader(writer);
    if (!(put<1>(writer, multiple_frame_rate_flag) && put<4>(writer, frame_rate_code) &&
          put<1>(writer, MPEG_1_only_flag) && put<1>(writer, constrained_parameter_flag) &&
          put<1>(writer, still_picture_flag)))
        return false;
    if (MPEG_1_only_flag)
        return true;
    return put<8>(writer, profile_and_level_indication) && put<2>(writer, chroma_format) &&
           put<1>(writer, frame_rate_extension_flag) && put<5>(writer, reserved);
}

bool audio_stream_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<1>(free_format_flag) && reader.getBits<1>(ID) &&
           reader.getBits<2>(layer) && reader.getBits<1>(variable_rate_audio_indicator) && reader.getBits<3>(reserved);
}

bool audio_stream_descriptor::write(descriptor_writer& writer) {
    writeHeader(writer);
    return put<1>(writer, free_format_flag) && put<1>(writer, ID) && put<2>(writer, layer) &&
           put<1>(writer, variable_rate_audio_indicator) && put<3>(writer, reserved);
}

bool registration_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && descriptor_length <= kMaxLength && reader.getBits<32>(format_identifier) &&
           readBytes(reader, additional_identification_info, bytesAfter(descriptor_length, 4));
}

bool registration_descriptor::write(descriptor_writer& writer) {
    return descriptor_length <= kMaxLength && writeHeader(writer) && put<32>(writer, format_identifier) &&
           writeBytes(writer, additional_identification_info, bytesAfter(descriptor_length, 4));
}

bool CA_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && descriptor_length <= kMaxLength && reader.getBits<16>(CA_system_ID) &&
           reader.getBits<3>(reserved) && reader.getBits<13>(CA_PID) &&
           readBytes(reader, private_data_byte, bytesAfter(descriptor_length, 4));
}

bool CA_descriptor::write(descriptor_writer& writer) {
    return descriptor_length <= kMaxLength && writeHeader(writer) && put<16>(writer, CA_system_ID) &&
           put<3>(writer, reserved) && put<13>(writer, CA_PID) &&
           writeBytes(writer, private_data_byte, bytesAfter(descriptor_length, 4));
}

bool ISO_639_language_descriptor::read(descriptor_reader& reader) {
    if (!readHeader(reader))
        return false;
    return descriptor_io::readCountingUp(descriptor_length, 4, [&] {
        language_item item;
        if (!(readBytes(reader, item.ISO_639_language_code, 3) && reader.getBits<8>(item.audio_type)))
            return false;
        language_list.push_back(item);
        return true;
    });
}

bool ISO_639_language_descriptor::write(descriptor_writer& writer) {
    writeHeader(writer);
    for (const auto& item : language_list)
        if (!(writeBytes(writer, item.ISO_639_language_code, 3) && put<8>(writer, item.audio_type)))
            return false;
    return true;
}

bool multiplex_buffer_utilization_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<1>(bound_valid_flag) && reader.getBits<15>(LTW_offset_lower_bound) &&
           reader.getBits<1>(reserved) && reader.getBits<15>(LTW_offset_upper_bound);
}

bool multiplex_buffer_utilization_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<1>(writer, bound_valid_flag) && put<15>(writer, LTW_offset_lower_bound) &&
           put<1>(writer, reserved) && put<15>(writer, LTW_offset_upper_bound);
}

bool smoothing_buffer_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<2>(reserved) && reader.getBits<22>(sb_leak_rate) &&
           reader.getBits<2>(reserved1) && reader.getBits<22>(sb_size);
}

bool smoothing_buffer_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<2>(writer, reserved) && put<22>(writer, sb_leak_rate) &&
           put<2>(writer, reserved1) && put<22>(writer, sb_size);
}

bool STD_descriptor::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<7>(reserved) && reader.getBits<1>(leak_valid_flag);
}

bool STD_descriptor::write(descriptor_writer& writer) {
    return writeHeader(writer) && put<7>(writer, reserved) && put<1>(writer, leak_valid_flag);
}

}  // namespace mpegcore
