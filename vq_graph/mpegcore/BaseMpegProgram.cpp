#include "mpegcore/BaseMpegProgram.h"

namespace mpegcore {

void CBaseMpegProgram::copyTo(CBaseMpegProgram* target) const {
    target->program_number = program_number;
    target->reserved = reserved;
    target->map_PID = map_PID;
}

}  // namespace mpegcore
