#pragma once
// Transport stream description table (ISO/IEC 13818-1, table_id 0x03): a
// descriptor loop describing the whole stream.

#include "mpegcore/DescriptorLoopTable.h"

namespace mpegcore {

class CTSDT : public CDescriptorLoopTable {
public:
    using CDescriptorLoopTable::CDescriptorLoopTable;
};

}  // namespace mpegcore
