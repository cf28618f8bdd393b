#pragma once
// Descriptors of ISO/IEC 13818-1 (2.6) kept as typed members.

#include <cstdint>
#include <list>

#include "mpegcore/BaseDescriptor.h"

namespace mpegcore {

// Tag 0x02. When MPEG_1_only_flag is 1 only the first payload byte exists.
class video_stream_descriptor : public descriptor_of<video_stream_descriptor> {
public:
    video_stream_descriptor() : descriptor_of(0x02) {}
    // The fields are written even when the header was refused.
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t multiple_frame_rate_flag = 0;
    uint8_t frame_rate_code = 0;
    uint8_t MPEG_1_only_flag = 0;
    uint8_t constrained_parameter_flag = 0;
    uint8_t still_picture_flag = 0;
    uint8_t profile_and_level_indication = 0;
    uint8_t chroma_format = 0;
    uint8_t frame_rate_extension_flag = 0;
    uint8_t reserved = 0;
};

// Tag 0x03, one payload byte.
class audio_stream_descriptor : public descriptor_of<audio_stream_descriptor> {
public:
    audio_stream_descriptor() : descriptor_of(0x03) {}
    // The fields are written even when the header was refused.
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t free_format_flag = 0;
    uint8_t ID = 0;
    uint8_t layer = 0;
    uint8_t variable_rate_audio_indicator = 0;
    uint8_t reserved = 0;
};

// Tag 0x05. The descriptor_length - 4 bytes after format_identifier go to
// additional_identification_info. A descriptor whose extra bytes would not fit
// the array (descriptor_length above 4 + 188) is rejected by read and write
// alike, so nothing is ever copied past the array and a written descriptor
// always carries the bytes its length announces.
class registration_descriptor : public descriptor_of<registration_descriptor> {
public:
    static constexpr uint8_t kMaxLength = 4 + 188;

    registration_descriptor() : descriptor_of(0x05) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint32_t format_identifier = 0;
    uint8_t additional_identification_info[188] = {};
};

// Tag 0x09. The descriptor_length - 4 bytes after CA_PID go to
// private_data_byte; as for registration_descriptor, a length above 4 + 188 is
// rejected by read and write.
class CA_descriptor : public descriptor_of<CA_descriptor> {
public:
    static constexpr uint8_t kMaxLength = 4 + 188;

    CA_descriptor() : descriptor_of(0x09) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint16_t CA_system_ID = 0;
    uint8_t reserved = 0;
    uint16_t CA_PID = 0;
    uint8_t private_data_byte[188] = {};
};

// Tag 0x0A. Items of 4 bytes are read whole until their count reaches
// descriptor_length; a length that is not a multiple of 4 reads the last item
// whole, beyond the descriptor.
class ISO_639_language_descriptor : public descriptor_of<ISO_639_language_descriptor> {
public:
    struct language_item {
        char ISO_639_language_code[3] = {};
        uint8_t audio_type = 0;
    };

    ISO_639_language_descriptor() : descriptor_of(0x0A) {}
    // The items are written even when the header was refused.
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::list<language_item> language_list;
};

// Tag 0x0C, four payload bytes.
class multiplex_buffer_utilization_descriptor : public descriptor_of<multiplex_buffer_utilization_descriptor> {
public:
    multiplex_buffer_utilization_descriptor() : descriptor_of(0x0C) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t bound_valid_flag = 0;
    uint16_t LTW_offset_lower_bound = 0;
    uint8_t reserved = 0;
    uint16_t LTW_offset_upper_bound = 0;
};

// Tag 0x10, six payload bytes.
class smoothing_buffer_descriptor : public descriptor_of<smoothing_buffer_descriptor> {
public:
    smoothing_buffer_descriptor() : descriptor_of(0x10) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t reserved = 0;
    uint32_t sb_leak_rate = 0;
    uint8_t reserved1 = 0;
    uint32_t sb_size = 0;
};

// Tag 0x11, one payload byte.
class STD_descriptor : public descriptor_of<STD_descriptor> {
public:
    STD_descriptor() : descriptor_of(0x11) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t reserved = 0;
    uint8_t leak_valid_flag = 0;
};

// Records of further ISO/IEC 13818-1 descriptors. The list never creates them:
// their descriptors arrive as raw base_descriptor payloads.
struct hierarchy_descriptor {
    uint8_t reserved = 0;
    uint8_t hierarchy_type = 0;
    uint8_t reserved1 = 0;
    uint8_t hierarchy_layer_index = 0;
    uint8_t reserved2 = 0;
    uint8_t hierarchy_embedded_layer_index = 0;
    uint8_t reserved3 = 0;
    uint8_t hierarchy_channel = 0;
};

struct data_stream_alignment_descriptor {
    uint8_t alignment_type = 0;
};

struct target_background_grid_descriptor {
    uint16_t horizontal_size = 0;
    uint16_t vertical_size = 0;
    uint8_t aspect_ratio_information = 0;
};

struct video_window_descriptor {
    uint16_t horizontal_offset = 0;
    uint16_t vertical_offset = 0;
    uint8_t window_priority = 0;
};

struct system_clock_descriptor {
    uint8_t external_clock_reference_indicator = 0;
    uint8_t reserved = 0;
    uint8_t clock_accuracy_integer = 0;
    uint8_t clock_accuracy_exponent = 0;
    uint8_t reserved1 = 0;
};

struct maximum_bitrate_descriptor {
    uint8_t reserved = 0;
    uint32_t maximum_bitrate = 0;
};

struct private_data_indicator_descriptor {
    uint32_t private_data_indicator = 0;
};

struct ibp_descriptor {
    uint8_t closed_gop_flag = 0;
    uint8_t identical_gop_flag = 0;
    uint16_t max_gop_length = 0;
};

}  // namespace mpegcore
