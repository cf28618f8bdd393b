#pragma once
// SCTE 35 splice descriptors kept as typed members, and the cue identifier
// descriptor of a PMT's ES_info loop.

#include <cstdint>
#include <vector>

#include "mpegcore/BaseDescriptor.h"

namespace mpegcore {

// Tag 0x00 (read in both tag spaces). identifier is kept as it stands.
class avail_descriptor : public descriptor_of<avail_descriptor> {
public:
    avail_descriptor() : descriptor_of(0x00) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint32_t identifier = 0;
    uint32_t provider_avail_id = 0;
};

// Tag 0x01: dtmf_count characters follow the count.
class scte35_dtmf_descriptor : public descriptor_of<scte35_dtmf_descriptor> {
public:
    scte35_dtmf_descriptor() : descriptor_of(0x01) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint32_t identifier = 0;
    uint8_t preroll = 0;
    uint8_t dtmf_count = 0;
    uint8_t reserved = 0;
    std::vector<uint8_t> DTMF_chars;
};

// Tag 0x02. Whether sub_segment_num and sub_segments_expected are present is
// decided by the payload bytes left after segments_expected (none when exactly
// 3 were expected there), not by segmentation_type_id. Write counts those
// bytes in 8 bits.
class scte35_segmentation_descriptor : public descriptor_of<scte35_segmentation_descriptor> {
public:
    struct component {
        uint8_t component_tag = 0;
        uint8_t reserved = 0;
        uint64_t pts_offset = 0;
    };

    scte35_segmentation_descriptor() : descriptor_of(0x02) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint32_t identifier = 0;
    uint32_t segmentation_event_id = 0;
    uint8_t segmentation_event_cancel_indicator = 0;
    uint8_t reserved1 = 0;
    uint8_t program_segmentation_flag = 0;
    uint8_t segmentation_duration_flag = 0;
    uint8_t delivery_not_restricted_flag = 0;
    uint8_t web_delivery_allowed_flag = 0;
    uint8_t no_regional_blackout_flag = 0;
    uint8_t archive_allowed_flag = 0;
    uint8_t device_restrictions = 0;
    uint8_t reserved2 = 0;
    uint8_t component_count = 0;
    std::vector<component> components;
    uint64_t segmentation_duration = 0;
    uint8_t segmentation_upid_type = 0;
    uint8_t segmentation_upid_length = 0;
    std::vector<uint8_t> segmentation_upid;
    uint8_t segmentation_type_id = 0;
    uint8_t segment_num = 0;
    uint8_t segments_expected = 0;
    uint8_t sub_segment_num = 0;
    uint8_t sub_segments_expected = 0;

private:
    // Payload bytes expected after segmentation_upid, counted as read and
    // write both do from descriptor_length.
    int bytesAfterUpid() const;
};

// Tag 0x8A, in the TS tag space (PMT ES_info loop).
class cue_identifier_descriptor : public descriptor_of<cue_identifier_descriptor> {
public:
    cue_identifier_descriptor() : descriptor_of(0x8A) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t cue_stream_type = 0;
};

// Record of the SCTE 35 time descriptor. The list never creates it: tag 0x03
// arrives as a raw base_descriptor payload.
struct scte35_time_descriptor {
    uint32_t identifier = 0;
    uint64_t TAI_seconds = 0;
    uint32_t TAI_ns = 0;
    uint16_t UTC_offset = 0;
};

}  // namespace mpegcore
