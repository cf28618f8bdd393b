#include "mpegcore/DataAccumulator.h"

#include <cstring>

namespace mpegcore {

CDataAccumulator::CDataAccumulator(size_t size)
    : m_pData(new unsigned char[size ? size : grow_step]), m_Size(size ? size : grow_step) {}

void CDataAccumulator::addData(const unsigned char* data, size_t size) {
    if (!data || size == 0)
        return;
    if (m_Length + size > m_Size) {
        const size_t newSize = size + m_Length + grow_step;
        std::unique_ptr<unsigned char[]> grown(new unsigned char[newSize]);
        std::memcpy(grown.get(), m_pData.get(), m_Length);
        m_pData = std::move(grown);
        m_Size = newSize;
    }
    std::memcpy(m_pData.get() + m_Length, data, size);
    m_Length += size;
}

}  // namespace mpegcore
