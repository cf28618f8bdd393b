#pragma once
// Conditional access table (ISO/IEC 13818-1, table_id 0x01): a loop of CA
// descriptors.

#include "mpegcore/DescriptorLoopTable.h"

namespace mpegcore {

class CCAT : public CDescriptorLoopTable {
public:
    using CDescriptorLoopTable::CDescriptorLoopTable;
};

}  // namespace mpegcore
