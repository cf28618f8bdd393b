#pragma once
// One entry of the program association table.

#include <cstdint>

#include "mpegcore/BaseMpegTable.h"

namespace mpegcore {

// The entry's PID: the network PID for program 0, the PMT PID otherwise.
union MAP_PID {
    uint16_t network_PID;
    uint16_t program_map_PID;
};

class CBaseMpegProgram {
public:
    CBaseMpegProgram() { map_PID.program_map_PID = 0; }
    virtual ~CBaseMpegProgram() = default;

    // Copies the entry's fields; the target's validity flag is left alone.
    void copyTo(CBaseMpegProgram* target) const;

    BOOL IsValid() const { return m_bValid; }
    void SetValid(int valid) { m_bValid = valid; }

    uint16_t program_number = 0;
    uint8_t reserved = 0;
    MAP_PID map_PID;
    BOOL m_bValid = 0;
};

}  // namespace mpegcore
