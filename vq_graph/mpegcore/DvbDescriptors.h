#pragma once
// Descriptors of ETSI EN 300 468 kept as typed members, plus the private
// logical channel descriptor. Texts stay raw bytes as transmitted (character
// table byte included, no terminating zero added).

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "mpegcore/BaseDescriptor.h"

namespace mpegcore {

// Tag 0x40: descriptor_length bytes of name.
class network_name_descriptor : public descriptor_of<network_name_descriptor> {
public:
    network_name_descriptor() : descriptor_of(0x40) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    unsigned char char_[256] = {};
};

// Tag 0x41: 3-byte items while a whole one remains; surplus bytes stay unread.
class service_list_descriptor : public descriptor_of<service_list_descriptor> {
public:
    struct service {
        uint16_t service_id = 0;
        uint8_t service_type = 0;
    };

    service_list_descriptor() : descriptor_of(0x41) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::list<service> services;
};

// Tag 0x45: each service takes 2 + data_service_descriptor_length bytes, kept raw.
class VBI_data_descriptor : public descriptor_of<VBI_data_descriptor> {
public:
    struct service {
        uint8_t data_service_id = 0;
        uint8_t data_service_descriptor_length = 0;
        uint8_t service_data[255] = {};
    };

    VBI_data_descriptor() : descriptor_of(0x45) {}
    void copyTo(base_descriptor* target) const override;
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::list<std::shared_ptr<service>> service_list;
};

// Tags 0x56 (teletext) and 0x46 (VBI teletext) share this class; read keeps
// the tag it found and write puts it back. 5-byte items read whole while their
// count stays below descriptor_length.
class teletext_descriptor : public descriptor_of<teletext_descriptor> {
public:
    struct teletext_item {
        char ISO_639_language_code[3] = {};
        uint8_t teletext_type = 0;
        uint8_t teletext_magazine_number = 0;
        uint8_t teletext_page_number = 0;
    };

    teletext_descriptor() : descriptor_of(0x56) {}
    void copyTo(base_descriptor* target) const override;
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::list<std::shared_ptr<teletext_item>> teletext_list;
};

// Tag 0x47: descriptor_length bytes of name.
class bouquet_name_descriptor : public descriptor_of<bouquet_name_descriptor> {
public:
    bouquet_name_descriptor() : descriptor_of(0x47) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::vector<uint8_t> character;
};

// Tag 0x48. The two name lengths are taken as they stand, not checked
// against descriptor_length.
class service_descriptor : public descriptor_of<service_descriptor> {
public:
    service_descriptor() : descriptor_of(0x48) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t service_type = 0;
    uint8_t service_provider_name_length = 0;
    unsigned char service_provider_name[256] = {};
    uint8_t service_name_length = 0;
    unsigned char service_name[256] = {};
};

// Tag 0x4D. Text lengths are not checked against descriptor_length.
class short_event_descriptor : public descriptor_of<short_event_descriptor> {
public:
    short_event_descriptor() : descriptor_of(0x4D) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    char ISO_639_language_code[3] = {};
    uint8_t event_name_length = 0;
    unsigned char event_name_char[256] = {};
    uint8_t text_length = 0;
    unsigned char text_char[256] = {};
};

// Tag 0x4E. Items are read whole while their bytes stay below length_of_items.
class extended_event_descriptor : public descriptor_of<extended_event_descriptor> {
public:
    struct item {
        uint8_t item_description_length = 0;
        std::vector<uint8_t> item_description_char;
        uint8_t item_length = 0;
        std::vector<uint8_t> item_char;
    };

    extended_event_descriptor() : descriptor_of(0x4E) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t descriptor_number = 0;
    uint8_t last_descriptor_number = 0;
    char ISO_639_language_code[3] = {};
    uint8_t length_of_items = 0;
    std::vector<item> items;
    uint8_t text_length = 0;
    std::vector<uint8_t> text_char;
};

// Tag 0x52.
class stream_identifier_descriptor : public descriptor_of<stream_identifier_descriptor> {
public:
    stream_identifier_descriptor() : descriptor_of(0x52) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t component_tag = 0;
};

// Tag 0x55. A non-zero length makes read take 4-byte entries until the reader
// runs dry, regardless of descriptor_length, and then fail: inside a loop it
// swallows the rest of the loop. Only a zero length reads successfully.
class parental_rating_descriptor : public descriptor_of<parental_rating_descriptor> {
public:
    struct parental {
        char country_code[3] = {};
        uint8_t rating = 0;
    };

    parental_rating_descriptor() : descriptor_of(0x55) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::vector<parental> parentals;
};

// Tag 0x58: 13-byte entries while a whole one remains; times stay MJD/BCD.
class local_time_offset_descriptor : public descriptor_of<local_time_offset_descriptor> {
public:
    struct local_time_offset_entry {
        char country_code[3] = {};
        uint8_t country_region_id = 0;
        uint8_t reserved = 0;
        uint8_t local_time_offset_polarity = 0;
        uint16_t local_time_offset = 0;
        uint64_t time_of_change = 0;
        uint64_t next_time_offset = 0;
    };

    local_time_offset_descriptor() : descriptor_of(0x58) {}
    void copyTo(base_descriptor* target) const override;
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::list<std::shared_ptr<local_time_offset_entry>> m_listEntry;
};

// Tag 0x59: 8-byte items read whole while their count stays below descriptor_length.
class subtitling_descriptor : public descriptor_of<subtitling_descriptor> {
public:
    struct subtitling_item {
        char ISO_639_language_code[3] = {};
        uint8_t subtitling_type = 0;
        uint16_t composition_page_id = 0;
        uint16_t ancillary_page_id = 0;
    };

    subtitling_descriptor() : descriptor_of(0x59) {}
    void copyTo(base_descriptor* target) const override;
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::list<std::shared_ptr<subtitling_item>> subtitling_list;
};

// Tag 0x5F.
class private_data_specifier_descriptor : public descriptor_of<private_data_specifier_descriptor> {
public:
    private_data_specifier_descriptor() : descriptor_of(0x5F) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint32_t private_data_specifier = 0;
};

// Tag 0x6A. Optional bytes follow their flags; what descriptor_length leaves
// after them is additional info.
class ac3_descriptor : public descriptor_of<ac3_descriptor> {
public:
    ac3_descriptor() : descriptor_of(0x6A) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t component_type_flag = 0;
    uint8_t bsid_flag = 0;
    uint8_t mainid_flag = 0;
    uint8_t asvc_flag = 0;
    uint8_t reserved_flags = 0;
    uint8_t component_type = 0;
    uint8_t bsid = 0;
    uint8_t mainid = 0;
    uint8_t asvc = 0;
    std::vector<uint8_t> additional_info_byte;

private:
    // Bytes of additional info that descriptor_length leaves after the flags.
    int additionalInfoCount() const;
};

// Tag 0x7F with any extension but 0x04: descriptor_length - 1 selector bytes.
class extension_descriptor : public descriptor_of<extension_descriptor, base_descriptor_extension> {
public:
    extension_descriptor() = default;
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::vector<uint8_t> selector_bytes;
};

// Tag 0x7F, extension 0x04. Read ignores the header's length check and always
// takes the six bytes up to tfs_flag; the cell loop is never read, so a longer
// descriptor leaves its cell bytes in the reader.
class T2_delivery_system_descriptor : public descriptor_of<T2_delivery_system_descriptor, base_descriptor_extension> {
public:
    T2_delivery_system_descriptor() : descriptor_of(0x04) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t plp_id = 0;
    uint16_t T2_system_id = 0;
    uint8_t SISO_MISO = 0;
    uint8_t bandwidth = 0;
    uint8_t reserved_future_use = 0;
    uint8_t guard_interval = 0;
    uint8_t transmission_mode = 0;
    uint8_t other_frequency_flag = 0;
    uint8_t tfs_flag = 0;
};

// Tag 0x83: 4-byte items while a whole one remains.
class logical_channel_descriptor : public descriptor_of<logical_channel_descriptor> {
public:
    struct service {
        uint16_t service_id = 0;
        uint8_t visible_service_flag = 0;
        uint8_t reserved = 0;
        uint16_t logical_channel_number = 0;
    };

    logical_channel_descriptor() : descriptor_of(0x83) {}
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    std::list<service> m_listService;
};

// Records of further EN 300 468 descriptors. The list never creates them:
// their descriptors arrive as raw base_descriptor payloads.
struct satellite_delivery_system_descriptor {
    uint32_t frequency = 0;
    uint16_t orbital_position = 0;
    uint8_t west_east_flag = 0;
    uint8_t polarization = 0;
    uint8_t roll_off = 0;
    uint8_t modulation_system = 0;
    uint8_t modulation_type = 0;
    uint32_t symbol_rate = 0;
    uint8_t FEC_inner = 0;
};

struct cable_delivery_system_descriptor {
    uint32_t frequency = 0;
    uint16_t reserved_future_use = 0;
    uint8_t FEC_outer = 0;
    uint8_t modulation = 0;
    uint32_t symbol_rate = 0;
    uint8_t FEC_inner = 0;
};

struct terrestrial_delivery_system_descriptor {
    uint32_t centre_frequency = 0;
    uint8_t bandwidth = 0;
    uint8_t priority = 0;
    uint8_t Time_Slicing_indicator = 0;
    uint8_t MPE_FEC_indicator = 0;
    uint8_t reserved_future_use = 0;
    uint8_t constellation = 0;
    uint8_t hierarchy_information = 0;
    uint8_t code_rate_HP_stream = 0;
    uint8_t code_rate_LP_stream = 0;
    uint8_t guard_interval = 0;
    uint8_t transmission_mode = 0;
    uint8_t other_frequency_flag = 0;
    uint32_t reserved_future_use1 = 0;
};

struct component_descriptor {
    uint8_t stream_content_ext = 0;
    uint8_t stream_content = 0;
    uint8_t component_type = 0;
    uint8_t component_tag = 0;
    char ISO_639_language_code[3] = {};
    std::vector<uint8_t> text_char;
};

}  // namespace mpegcore
