#pragma once
// Common section header of the PSI/SI tables, their render buffer and CRC.

#include <cstddef>
#include <cstdint>

#include "mpegcore/MpegCRC32.h"
#include "mpegcore/MpegMisc.h"
#include "mpegcore/VQBSReader.h"
#include "mpegcore/VQBSWriter.h"

namespace mpegcore {

using BOOL = int32_t;

class CBaseMpegTable {
public:
    // With a null buffer, size bytes are allocated and owned; otherwise the
    // caller's buffer is borrowed and never freed here.
    CBaseMpegTable(unsigned char* buffer, unsigned long size);
    virtual ~CBaseMpegTable();

    CBaseMpegTable(const CBaseMpegTable&) = delete;
    CBaseMpegTable& operator=(const CBaseMpegTable&) = delete;

    // Zeroes the buffer and forgets its contents.
    virtual void Clear();
    // Reads the common header; true in every case (derived reads do the checks).
    virtual bool read(VQSDK::VQBSReaderT<unsigned char*>& reader);
    // Writes the common header with section_length from calc_section_length().
    virtual bool write(VQSDK::VQBSWriterT<unsigned char*>& writer);
    // The section_length the current contents need.
    virtual uint16_t calc_section_length() const;

    // Appends to the buffer. Fails when m_lSizeTable + size >= m_lMaxSize, so
    // the buffer's last byte is never filled this way.
    BOOL AddData(const unsigned char* data, unsigned long size);

    unsigned char* GetBuffer() { return m_pDataTable; }
    const unsigned char* GetBuffer() const { return m_pDataTable; }
    size_t GetSizeBuffer() const { return m_lSizeTable; }

    uint8_t table_id = 0;
    uint8_t section_syntax_indicator = 0;
    uint8_t zero = 0;
    uint8_t reserved = 0;
    uint16_t section_length = 0;

    unsigned char* m_pDataTable = nullptr;
    size_t m_lSizeTable = 0;
    size_t m_lMaxSize = 0;
    BOOL m_bSelfAlloc = 0;

protected:
    // The long-section fields that follow section_length: the table's own
    // 16-bit id (transport_stream_id, network_id, ...), then reserved1,
    // version_number, current_next_indicator, section_number and
    // last_section_number, which every long table names alike. Every field
    // is read even after one has failed; false when any did.
    template <class Table>
    static bool readLongHeader(VQSDK::VQBSReaderT<unsigned char*>& reader, uint16_t& id, Table& table) {
        bool read = reader.getBits<16>(id);
        read &= reader.getBits<2>(table.reserved1);
        read &= reader.getBits<5>(table.version_number);
        read &= reader.getBits<1>(table.current_next_indicator);
        read &= reader.getBits<8>(table.section_number);
        read &= reader.getBits<8>(table.last_section_number);
        return read;
    }
    template <class Table>
    static bool writeLongHeader(VQSDK::VQBSWriterT<unsigned char*>& writer, uint16_t id, const Table& table) {
        return CMpegMisc::put_bits<16>(writer, id) && CMpegMisc::put_bits<2>(writer, table.reserved1) &&
               CMpegMisc::put_bits<5>(writer, table.version_number) &&
               CMpegMisc::put_bits<1>(writer, table.current_next_indicator) &&
               CMpegMisc::put_bits<8>(writer, table.section_number) &&
               CMpegMisc::put_bits<8>(writer, table.last_section_number);
    }
    // Copies the common header and the long-section fields but the id.
    template <class Table>
    static void copyLongHeader(const Table& from, Table& to) {
        CMpegMisc::copy_section_header(from, to);
        to.reserved1 = from.reserved1;
        to.version_number = from.version_number;
        to.current_next_indicator = from.current_next_indicator;
        to.section_number = from.section_number;
        to.last_section_number = from.last_section_number;
    }
    // Whether table_id, the two flags after it and section_length agree.
    bool sameSectionHeader(const CBaseMpegTable& other) const;
    // Whether version_number, current_next_indicator and last_section_number agree.
    template <class Table>
    static bool sameVersion(const Table& a, const Table& b) {
        return a.version_number == b.version_number && a.current_next_indicator == b.current_next_indicator &&
               a.last_section_number == b.last_section_number;
    }

    // For derived reads: true when the section starting at `start` is complete
    // in the reader and its CRC over section_length + 3 bytes checks to 0.
    bool isCompleteWithValidCRC(const unsigned char* start, const VQSDK::VQBSReaderT<unsigned char*>& reader) const;
    // For RenderTable: flushes the writer, computes the CRC over the section
    // without its last 4 bytes, stores it big-endian there and in crc, and
    // sets m_lSizeTable as setRenderedSize does.
    bool finishRender(VQSDK::VQBSWriterT<unsigned char*>& writer, uint32_t& crc);
    // Sets m_lSizeTable to section_length + 3 and returns true when the
    // section fits the buffer and its 12-bit length field; otherwise the
    // section is truncated: m_lSizeTable becomes the buffer's size and the
    // result is false.
    bool setRenderedSize();
};

}  // namespace mpegcore
