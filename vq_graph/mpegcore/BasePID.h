#pragma once
// Parsed transport packet records (ISO/IEC 13818-1) and the state the parser
// keeps for one PID: continuity counter, payload accumulation, PCR rate.

#include <cstdint>
#include <memory>

#include "mpegcore/DataAccumulator.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/vq_mpeg_alarm_event.h"

namespace mpegcore {

struct adaptation_field {
    uint8_t adaptation_field_length = 0;
    uint8_t discontinuity_indicator = 0;
    uint8_t random_access_indicator = 0;
    uint8_t elementary_stream_priority_indicator = 0;
    uint8_t PCR_flag = 0;
    uint8_t OPCR_flag = 0;
    uint8_t splicing_point_flag = 0;
    uint8_t transport_private_data_flag = 0;
    uint8_t adaptation_field_extension_flag = 0;
    uint64_t program_clock_reference_base = 0;
    uint8_t reserved = 0;
    uint16_t program_clock_reference_extension = 0;
    int64_t original_program_clock_reference_base = 0;
    uint8_t reserved1 = 0;
    uint16_t original_program_clock_reference_extension = 0;
    uint8_t splice_countdown = 0;
    uint8_t transport_private_data_length = 0;
    uint8_t private_data_byte[kTsPacketSize] = {};
    uint8_t adaptation_field_extension_length = 0;
    uint8_t ltw_flag = 0;
    uint8_t piecewise_rate_flag = 0;
    uint8_t seamless_splice_flag = 0;
    uint8_t reserved2 = 0;
    uint8_t ltw_valid_flag = 0;
    uint16_t ltw_offset = 0;
    uint8_t reserved3 = 0;
    uint32_t piecewise_rate = 0;
    uint8_t splice_type = 0;
    uint8_t DTS_next_AU = 0;
    uint8_t marker_bit = 0;
    uint16_t DTS_next_AU1 = 0;
    uint8_t marker_bit1 = 0;
    uint16_t DTS_next_AU2 = 0;
    uint8_t marker_bit2 = 0;
};

struct transport_packet {
    static constexpr long size = kTsPacketSize;
    static constexpr uint16_t null_PID = kPidNull;

    uint8_t sync_byte = kSyncByte;
    uint8_t transport_error_indicator = 0;
    uint8_t payload_unit_start_indicator = 0;
    uint8_t transport_priority = 0;
    uint16_t PID = 0;
    uint8_t transport_scrambling_control = 0;
    uint8_t adaptation_field_control = 0;
    uint8_t continuity_counter = 0;
    adaptation_field af;  // valid when adaptation_field_control is 2 or 3
    unsigned char* pStartDataPkt = nullptr;
    int64_t lSizePkt = 0;
    unsigned char* pCurrDataPkt = nullptr;  // payload start
    int64_t lCurrSizePkt = 0;               // bytes from pCurrDataPkt to the packet's end

    bool hasAdaptationField() const { return adaptation_field_control & 2; }
    bool hasPayload() const { return adaptation_field_control & 1; }
};

// PES header fields; declared for users, the parser does not fill them.
struct pes_packet {
    uint32_t packet_start_code_prefix = 0;
    uint8_t stream_id = 0;
    uint16_t PES_packet_length = 0;
    uint8_t PES_scrambling_control = 0;
    uint8_t PES_priority = 0;
    uint8_t data_alignment_indicator = 0;
    uint8_t copyright = 0;
    uint8_t original_or_copy = 0;
    uint8_t PTS_DTS_flags = 0;
    uint8_t ESCR_flag = 0;
    uint8_t ES_rate_flag = 0;
    uint8_t DSM_trick_mode_flag = 0;
    uint8_t additional_copy_info_flag = 0;
    uint8_t PES_CRC_flag = 0;
    uint8_t PES_extension_flag = 0;
    uint8_t PES_header_data_length = 0;
    uint8_t PTS_32_30 = 0;
    uint8_t marker_bit = 0;
    uint16_t PTS_29_15 = 0;
    uint8_t marker_bit1 = 0;
    uint16_t PTS_14_0 = 0;
    uint8_t marker_bit2 = 0;
    uint8_t DTS_32_30 = 0;
    uint8_t marker_bit3 = 0;
    uint16_t DTS_29_15 = 0;
    uint8_t marker_bit4 = 0;
    uint16_t DTS_14_0 = 0;
    uint8_t marker_bit5 = 0;
    uint8_t ESCR_base_32_30 = 0;
    uint16_t ESCR_base_29_15 = 0;
    uint16_t ESCR_base_14_0 = 0;
    uint16_t ESCR_extension = 0;
    uint32_t ES_rate = 0;
    uint8_t trick_mode_control = 0;
    uint8_t field_id = 0;
    uint8_t intra_slice_refresh = 0;
    uint8_t frequency_truncation = 0;
    uint8_t rep_cntrl = 0;
    uint8_t additional_copy_info = 0;
    uint16_t previous_PES_packet_CRC = 0;
};

class CBasePID {
public:
    CBasePID() = default;
    virtual ~CBasePID() = default;

    CBasePID(const CBasePID&) = delete;
    CBasePID& operator=(const CBasePID&) = delete;

    // Back to "nothing seen"; the error count and the measured rate are kept.
    virtual void clear();
    // Counts, checks continuity and accumulates one packet; returns the
    // accumulator that this packet's unit start completed, or null.
    virtual CDataAccumulator* putPacket(const transport_packet& packet);
    // Measures the rate since the previous PCR from the bytes counted.
    virtual void putPCR(const transport_packet& packet);

    void counter(const transport_packet& packet);
    CDataAccumulator* accumulation(const transport_packet& packet);
    CDataAccumulator* getCurData() const { return m_pCurrent.get(); }
    void set_alarm_event(vq_mpeg_alarm_event* sink) { m_p_mpeg_alarm_event = sink; }

    static constexpr uint8_t no_counter = 255;

    uint8_t continuity_counter = no_counter;
    uint64_t data_counter = 0;
    int64_t continuity_counter_error = 0;
    int64_t lastPCR = 0;        // 100 ns units
    int64_t data_rate_pcr = 0;  // bits per second
    std::unique_ptr<CDataAccumulator> m_pCurrent;
    std::unique_ptr<CDataAccumulator> m_pLast;
    vq_mpeg_alarm_event* m_p_mpeg_alarm_event = nullptr;
    bool m_bPayload = false;
};

}  // namespace mpegcore
