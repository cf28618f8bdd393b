#pragma once
// Common section header of the PSI/SI tables, their render buffer and CRC.

#include <cstddef>
#include <cstdint>

#include "mpegcore/MpegCRC32.h"
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
    // For derived reads: true when the section starting at `start` is complete
    // in the reader and its CRC over section_length + 3 bytes checks to 0.
    bool isCompleteWithValidCRC(const unsigned char* start,
                                const VQSDK::VQBSReaderT<unsigned char*>& reader) const;
    // For RenderTable: flushes the writer, computes the CRC over the section
    // without its last 4 bytes, stores it big-endian there and sets
    // m_lSizeTable. Returns the CRC.
    uint32_t finishRender(VQSDK::VQBSWriterT<unsigned char*>& writer);
};

}  // namespace mpegcore
