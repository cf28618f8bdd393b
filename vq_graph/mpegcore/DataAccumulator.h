#pragma once
// A growable byte buffer that collects the payload of one PID.

#include <cstddef>
#include <memory>

namespace mpegcore {

class CDataAccumulator {
public:
    static constexpr size_t grow_step = 4095;

    // A capacity of 0 means grow_step.
    explicit CDataAccumulator(size_t size = grow_step);
    virtual ~CDataAccumulator() = default;

    CDataAccumulator(const CDataAccumulator&) = delete;
    CDataAccumulator& operator=(const CDataAccumulator&) = delete;

    // Appends; a full buffer is replaced by one of size + held + grow_step bytes.
    void addData(const unsigned char* data, size_t size);
    void clear() { m_Length = 0; }
    unsigned char* get() const { return m_pData.get(); }
    size_t getSize() const { return m_Size; }
    size_t getLength() const { return m_Length; }

    std::unique_ptr<unsigned char[]> m_pData;
    size_t m_Size;
    size_t m_Length = 0;
};

}  // namespace mpegcore
