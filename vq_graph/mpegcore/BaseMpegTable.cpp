#include "mpegcore/BaseMpegTable.h"

#include <cstring>

namespace mpegcore {

CBaseMpegTable::CBaseMpegTable(unsigned char* buffer, unsigned long size) : m_pDataTable(buffer), m_lMaxSize(size) {
    if (!buffer) {
        m_pDataTable = new unsigned char[size ? size : 1]();
        m_bSelfAlloc = 1;
    }
}

CBaseMpegTable::~CBaseMpegTable() {
    if (m_bSelfAlloc)
        delete[] m_pDataTable;
}

void CBaseMpegTable::Clear() {
    if (m_pDataTable)
        std::memset(m_pDataTable, 0, m_lMaxSize);
    m_lSizeTable = 0;
}

bool CBaseMpegTable::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    if (reader.m_sizeCache == 0)
        return true;
    table_id = 0;
    if (reader.getBits<8>(table_id) && reader.getBits<1>(section_syntax_indicator) && reader.getBits<1>(zero) &&
        reader.getBits<2>(reserved) && reader.getBits<12>(section_length))
        section_length &= 0xFFF;
    return true;
}

bool CBaseMpegTable::write(VQSDK::VQBSWriterT<unsigned char*>& writer) {
    // The writer does not mask, so each value is cut to its field here.
    section_length = calc_section_length();
    writer.putBits<8>(table_id);
    writer.putBits<1>(uint8_t(section_syntax_indicator & 0x1));
    writer.putBits<1>(uint8_t(zero & 0x1));
    writer.putBits<2>(uint8_t(reserved & 0x3));
    writer.putBits<12>(uint16_t(section_length & 0xFFF));
    return true;
}

uint16_t CBaseMpegTable::calc_section_length() const { return section_length; }

bool CBaseMpegTable::sameSectionHeader(const CBaseMpegTable& other) const {
    return table_id == other.table_id && section_syntax_indicator == other.section_syntax_indicator &&
           zero == other.zero && section_length == other.section_length;
}

BOOL CBaseMpegTable::AddData(const unsigned char* data, unsigned long size) {
    if (!m_pDataTable || m_lSizeTable + size >= m_lMaxSize)
        return 0;
    std::memcpy(m_pDataTable + m_lSizeTable, data, size);
    m_lSizeTable += size;
    return 1;
}

bool CBaseMpegTable::isCompleteWithValidCRC(const unsigned char* start,
                                            const VQSDK::VQBSReaderT<unsigned char*>& reader) const {
    if (section_length > reader.getLength())
        return false;
    // A header cut short leaves fewer than 3 bytes behind start: never read past the data.
    const size_t available = size_t(reader.m_data + reader.m_length - start);
    const size_t sectionSize = size_t(section_length) + 3;
    if (sectionSize > available)
        return false;
    return crc32_mpeg2(start, sectionSize) == 0;
}

bool CBaseMpegTable::finishRender(VQSDK::VQBSWriterT<unsigned char*>& writer, uint32_t& crc) {
    writer.flush();
    // The CRC covers header and body: section_length + 3 - 4 bytes, bounded by the buffer.
    size_t covered = section_length >= 1 ? size_t(section_length) - 1 : 0;
    if (covered > m_lMaxSize)
        covered = m_lMaxSize;
    crc = crc32_mpeg2(m_pDataTable, covered);
    const size_t crcAt = size_t(section_length) - 1;
    for (size_t i = 0; i < 4; ++i)
        if (section_length >= 1 && crcAt + i < m_lMaxSize)
            m_pDataTable[crcAt + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
    return setRenderedSize();
}

bool CBaseMpegTable::setRenderedSize() {
    const size_t sectionSize = size_t(section_length) + 3;
    const bool fits = section_length <= 0xFFF && sectionSize <= m_lMaxSize;
    m_lSizeTable = sectionSize <= m_lMaxSize ? sectionSize : m_lMaxSize;
    return fits;
}

}  // namespace mpegcore
