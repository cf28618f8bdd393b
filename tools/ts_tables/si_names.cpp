#include "si_names.h"

#include <cstdio>

#include "mpegcore/MpegConstants.h"
#include "mpegcore/MpegMisc.h"
#include "mpegcore/VQStringUtils.h"

namespace si_names {

namespace {

struct code_name {
    unsigned code;
    const char* name;
};

template <size_t N>
std::string find_name(const code_name (&names)[N], unsigned code, const char* otherwise) {
    for (const auto& entry : names)
        if (entry.code == code)
            return entry.name;
    return otherwise;
}

const code_name kStreamTypes[] = {
    {0x01, "MPEG-1 video"},
    {0x02, "MPEG-2 video"},
    {0x03, "MPEG-1 audio"},
    {0x04, "MPEG-2 audio"},
    {0x05, "private sections"},
    {0x06, "PES private data"},
    {0x07, "MHEG"},
    {0x08, "DSM-CC"},
    {0x09, "H.222.1"},
    {0x0A, "DSM-CC multi-protocol encapsulation"},
    {0x0B, "DSM-CC U-N messages"},
    {0x0C, "DSM-CC stream descriptors"},
    {0x0D, "DSM-CC sections"},
    {0x0E, "auxiliary"},
    {0x0F, "AAC audio (ADTS)"},
    {0x10, "MPEG-4 visual"},
    {0x11, "AAC audio (LATM)"},
    {0x12, "MPEG-4 SL in PES"},
    {0x13, "MPEG-4 SL in sections"},
    {0x14, "DSM-CC synchronized download"},
    {0x15, "metadata in PES"},
    {0x16, "metadata in sections"},
    {0x17, "metadata in data carousel"},
    {0x18, "metadata in object carousel"},
    {0x19, "metadata in synchronized download"},
    {0x1A, "IPMP"},
    {0x1B, "AVC video (H.264)"},
    {0x1C, "MPEG-4 audio"},
    {0x1D, "MPEG-4 text"},
    {0x1E, "auxiliary video"},
    {0x1F, "SVC video"},
    {0x20, "MVC video"},
    {0x21, "JPEG 2000 video"},
    {0x22, "MPEG-2 stereoscopic video"},
    {0x23, "AVC stereoscopic video"},
    {0x24, "HEVC video (H.265)"},
    {0x25, "HEVC temporal video subset"},
    {0x2D, "MPEG-H 3D audio"},
    {0x2E, "MPEG-H 3D audio auxiliary"},
    {0x32, "JPEG XS video"},
    {0x33, "VVC video (H.266)"},
    {0x7F, "IPMP stream"},
    {0x81, "AC-3 audio"},
    {0x82, "SCTE 27 subtitles"},
    {0x86, "SCTE 35 splice information"},
    {0x87, "E-AC-3 audio"},
};

const code_name kHdmvStreamTypes[] = {
    {0x80, "LPCM audio (HDMV)"},
    {0x81, "AC-3 audio (HDMV)"},
    {0x82, "DTS audio (HDMV)"},
    {0x83, "Dolby TrueHD audio (HDMV)"},
    {0x84, "E-AC-3 audio (HDMV)"},
    {0x85, "DTS-HD High Resolution Audio (HDMV)"},
    {0x86, "DTS-HD Master Audio (HDMV)"},
    {0x90, "presentation graphics subtitles (HDMV)"},
    {0x91, "interactive graphics (HDMV)"},
    {0x92, "text subtitles (HDMV)"},
};

const code_name kDescriptorTags[] = {
    {0x00, "avail"},  // SCTE 35
    {0x02, "video_stream"},
    {0x03, "audio_stream"},
    {0x04, "hierarchy"},
    {0x05, "registration"},
    {0x06, "data_stream_alignment"},
    {0x07, "target_background_grid"},
    {0x08, "video_window"},
    {0x09, "CA"},
    {0x0A, "ISO_639_language"},
    {0x0B, "system_clock"},
    {0x0C, "multiplex_buffer_utilization"},
    {0x0D, "copyright"},
    {0x0E, "maximum_bitrate"},
    {0x0F, "private_data_indicator"},
    {0x10, "smoothing_buffer"},
    {0x11, "STD"},
    {0x12, "IBP"},
    {0x13, "carousel_identifier"},
    {0x14, "association_tag"},
    {0x15, "deferred_association_tags"},
    {0x1B, "MPEG-4_video"},
    {0x1C, "MPEG-4_audio"},
    {0x1D, "IOD"},
    {0x1E, "SL"},
    {0x1F, "FMC"},
    {0x20, "external_ES_ID"},
    {0x21, "MuxCode"},
    {0x22, "FmxBufferSize"},
    {0x23, "multiplexbuffer"},
    {0x24, "content_labeling"},
    {0x25, "metadata_pointer"},
    {0x26, "metadata"},
    {0x27, "metadata_STD"},
    {0x28, "AVC_video"},
    {0x29, "IPMP"},
    {0x2A, "AVC_timing_and_HRD"},
    {0x2B, "MPEG-2_AAC_audio"},
    {0x2C, "FlexMuxTiming"},
    {0x2D, "MPEG-4_text"},
    {0x2E, "MPEG-4_audio_extension"},
    {0x2F, "auxiliary_video_stream"},
    {0x30, "SVC_extension"},
    {0x31, "MVC_extension"},
    {0x32, "J2K_video"},
    {0x33, "MVC_operation_point"},
    {0x34, "MPEG2_stereoscopic_video_format"},
    {0x35, "stereoscopic_program_info"},
    {0x36, "stereoscopic_video_info"},
    {0x37, "transport_profile"},
    {0x38, "HEVC_video"},
    {0x3F, "MPEG_extension"},
    {0x40, "network_name"},
    {0x41, "service_list"},
    {0x42, "stuffing"},
    {0x43, "satellite_delivery_system"},
    {0x44, "cable_delivery_system"},
    {0x45, "VBI_data"},
    {0x46, "VBI_teletext"},
    {0x47, "bouquet_name"},
    {0x48, "service"},
    {0x49, "country_availability"},
    {0x4A, "linkage"},
    {0x4B, "NVOD_reference"},
    {0x4C, "time_shifted_service"},
    {0x4D, "short_event"},
    {0x4E, "extended_event"},
    {0x4F, "time_shifted_event"},
    {0x50, "component"},
    {0x51, "mosaic"},
    {0x52, "stream_identifier"},
    {0x53, "CA_identifier"},
    {0x54, "content"},
    {0x55, "parental_rating"},
    {0x56, "teletext"},
    {0x57, "telephone"},
    {0x58, "local_time_offset"},
    {0x59, "subtitling"},
    {0x5A, "terrestrial_delivery_system"},
    {0x5B, "multilingual_network_name"},
    {0x5C, "multilingual_bouquet_name"},
    {0x5D, "multilingual_service_name"},
    {0x5E, "multilingual_component"},
    {0x5F, "private_data_specifier"},
    {0x60, "service_move"},
    {0x61, "short_smoothing_buffer"},
    {0x62, "frequency_list"},
    {0x63, "partial_transport_stream"},
    {0x64, "data_broadcast"},
    {0x65, "scrambling"},
    {0x66, "data_broadcast_id"},
    {0x67, "transport_stream"},
    {0x68, "DSNG"},
    {0x69, "PDC"},
    {0x6A, "AC-3"},
    {0x6B, "ancillary_data"},
    {0x6C, "cell_list"},
    {0x6D, "cell_frequency_link"},
    {0x6E, "announcement_support"},
    {0x6F, "application_signalling"},
    {0x70, "adaptation_field_data"},
    {0x71, "service_identifier"},
    {0x72, "service_availability"},
    {0x73, "default_authority"},
    {0x74, "related_content"},
    {0x75, "TVA_id"},
    {0x76, "content_identifier"},
    {0x77, "time_slice_fec_identifier"},
    {0x78, "ECM_repetition_rate"},
    {0x79, "S2_satellite_delivery_system"},
    {0x7A, "enhanced_AC-3"},
    {0x7B, "DTS"},
    {0x7C, "AAC"},
    {0x7D, "XAIT_location"},
    {0x7E, "FTA_content_management"},
    {0x7F, "extension"},
    {0x83, "logical_channel"},
    {0x8A, "cue_identifier"},  // SCTE 35
};

const code_name kRunningStatus[] = {
    {0, "undefined"}, {1, "not running"}, {2, "starts in a few seconds"},
    {3, "pausing"},   {4, "running"},     {5, "service off-air"},
};

const code_name kServiceTypes[] = {
    {0x01, "digital television service"},
    {0x02, "digital radio sound service"},
    {0x03, "Teletext service"},
    {0x04, "NVOD reference service"},
    {0x05, "NVOD time-shifted service"},
    {0x06, "mosaic service"},
    {0x07, "FM radio service"},
    {0x08, "DVB SRM service"},
    {0x0A, "advanced codec digital radio sound service"},
    {0x0B, "H.264/AVC mosaic service"},
    {0x0C, "data broadcast service"},
    {0x0D, "common interface usage"},
    {0x0E, "RCS Map"},
    {0x0F, "RCS FLS"},
    {0x10, "DVB MHP service"},
    {0x11, "MPEG-2 HD digital television service"},
    {0x16, "H.264/AVC SD digital television service"},
    {0x17, "H.264/AVC SD NVOD time-shifted service"},
    {0x18, "H.264/AVC SD NVOD reference service"},
    {0x19, "H.264/AVC HD digital television service"},
    {0x1A, "H.264/AVC HD NVOD time-shifted service"},
    {0x1B, "H.264/AVC HD NVOD reference service"},
    {0x1C, "H.264/AVC frame compatible plano-stereoscopic HD digital television service"},
    {0x1F, "HEVC digital television service"},
    {0x20, "HEVC UHD digital television service"},
};

const code_name kTableIds[] = {
    {mpegcore::kTableIdPAT, "PAT"},
    {mpegcore::kTableIdCAT, "CAT"},
    {mpegcore::kTableIdPMT, "PMT"},
    {mpegcore::kTableIdTSDT, "TSDT"},
    {mpegcore::kTableIdNITActual, "NIT actual"},
    {mpegcore::kTableIdNITOther, "NIT other"},
    {mpegcore::kTableIdSDTActual, "SDT actual"},
    {mpegcore::kTableIdSDTOther, "SDT other"},
    {mpegcore::kTableIdBAT, "BAT"},
    {mpegcore::kTableIdEITActual, "EIT actual present/following"},
    {mpegcore::kTableIdEITOther, "EIT other present/following"},
    {mpegcore::kTableIdTDT, "TDT"},
    {mpegcore::kTableIdTOT, "TOT"},
};

}  // namespace

std::string stream_type(uint8_t type, bool hdmv) {
    if (hdmv && type >= 0x80 && type <= 0x92) {
        const std::string name = find_name(kHdmvStreamTypes, type, "");
        if (!name.empty())
            return name;
    }
    if (type >= 0x80)
        return find_name(kStreamTypes, type, "user private");
    return find_name(kStreamTypes, type, "reserved");
}

std::string descriptor_tag(uint8_t tag) {
    const std::string name = find_name(kDescriptorTags, tag, "");
    if (!name.empty())
        return name + "_descriptor";
    return tag >= 0x80 ? "user defined" : "reserved";
}

std::string running_status(uint8_t status) { return find_name(kRunningStatus, status, "reserved"); }

std::string service_type(uint8_t type) {
    return find_name(kServiceTypes, type, type >= 0x80 && type <= 0xFE ? "user defined" : "reserved");
}

std::string table_id(uint8_t id) {
    if (id >= mpegcore::kTableIdEITActualScheduleFirst && id <= mpegcore::kTableIdEITActualScheduleLast)
        return "EIT actual schedule";
    if (id >= mpegcore::kTableIdEITOtherScheduleFirst && id <= mpegcore::kTableIdEITOtherScheduleLast)
        return "EIT other schedule";
    return find_name(kTableIds, id, "");
}

std::string language_code(const char code[3]) {
    std::string out;
    for (int i = 0; i < 3; ++i) {
        const unsigned char c = static_cast<unsigned char>(code[i]);
        out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    }
    return out;
}

std::string four_cc(uint32_t value) {
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned char c = static_cast<unsigned char>(value >> shift);
        out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    }
    return out;
}

std::string utc_time(uint64_t utcTime) {
    if ((utcTime & 0xFFFFFFFFFFULL) == 0xFFFFFFFFFFULL)
        return "undefined";
    const time_t posix = mpegcore::CMpegMisc::utc_time_to_time_t(utcTime);
    return VQSDK::toString("yyyy-MM-dd hh:mm:ss", posix, true) + " UTC";
}

std::string bcd_duration(uint32_t duration) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x", (duration >> 16) & 0xFF, (duration >> 8) & 0xFF,
                  duration & 0xFF);
    return text;
}

std::string hex_bytes(const unsigned char* data, size_t size) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < size; ++i) {
        std::snprintf(byte, sizeof byte, i ? " %02X" : "%02X", data[i]);
        out += byte;
    }
    return out;
}

}  // namespace si_names
