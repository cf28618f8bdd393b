#pragma once
// Event information table (EN 300 468, table_ids 0x4E to 0x6F) and its
// events, with the conversions between SI event times and POSIX time.

#include <cstdint>
#include <ctime>
#include <list>
#include <memory>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

// One event of the event loop.
class CEventInfo {
public:
    virtual ~CEventInfo() = default;

    // Fails when a field or the descriptor loop does not fit in the reader.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader);
    // descriptors_loop_length is taken from the list.
    bool write(VQSDK::VQBSWriterT<unsigned char*>& writer);
    // Fields and descriptors; the target's list is replaced.
    void copyTo(CEventInfo* target) const;
    // Bytes of the event in a section: 12 + its descriptors.
    uint16_t getSize() const;

    // BCD hhmmss: each number's decimal text read as hexadecimal, so 12
    // becomes 0x12; values of 100 or more are not limited.
    static uint32_t time_to_duration(uint64_t hours, uint64_t minutes, uint64_t seconds);
    static uint32_t sec_to_duration(uint64_t seconds);
    // POSIX time as the 40-bit start_time (MJD << 24 | BCD hhmmss).
    static uint64_t time_t_to_start_time(time_t time);
    // The 40-bit start_time back as a POSIX time, the way existing users of
    // this value expect it: the month field gets the one-based month plus one
    // and the year field the full year, so the result lies 1900 years and two
    // months after the instant start_time denotes.
    static time_t start_time_to_time_t(uint64_t start_time);

    uint16_t event_id = 0;
    // Bits 39..24 the MJD, bits 23..0 the UTC time as BCD hhmmss.
    uint64_t start_time = 0;
    // BCD hhmmss.
    uint32_t duration = 0;
    uint8_t running_status = 0;
    uint8_t free_CA_mode = 0;
    uint16_t descriptors_loop_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
};

class CEIT : public CBaseMpegTable {
public:
    CEIT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}

    void Clear() override;
    // table_id is not checked. A failed read keeps the events read so far.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    // The whole section, CRC included, computed over the bytes written here.
    bool write(VQSDK::VQBSWriterT<unsigned char*>& writer) override;
    uint16_t calc_section_length() const override;

    // write() into the table's own buffer.
    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CEIT* target) const;

    uint16_t service_id = 0;
    uint8_t reserved1 = 0;
    uint8_t version_number = 0;
    uint8_t current_next_indicator = 0;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    uint16_t transport_stream_id = 0;
    uint16_t original_network_id = 0;
    uint8_t segment_last_section_number = 0;
    uint8_t last_table_id = 0;
    std::list<std::shared_ptr<CEventInfo>> eventInfo;
    uint32_t CRC = 0;
};

}  // namespace mpegcore
