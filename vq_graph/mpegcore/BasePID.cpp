#include "mpegcore/BasePID.h"

#include <cmath>
#include <utility>

namespace mpegcore {

void CBasePID::clear() {
    continuity_counter = no_counter;
    data_counter = 0;
    lastPCR = 0;
    m_bPayload = false;
    if (m_pCurrent)
        m_pCurrent->clear();
    if (m_pLast)
        m_pLast->clear();
}

CDataAccumulator* CBasePID::putPacket(const transport_packet& packet) {
    data_counter += static_cast<uint64_t>(packet.lCurrSizePkt);
    if (packet.PID == transport_packet::null_PID)
        return nullptr;
    counter(packet);
    return accumulation(packet);
}

void CBasePID::counter(const transport_packet& packet) {
    if (continuity_counter != no_counter) {
        // An adaptation-only packet repeats the counter; duplicates and
        // discontinuities are counted as errors all the same.
        const uint8_t expected = packet.adaptation_field_control == 2 ? continuity_counter : continuity_counter + 1;
        if (((expected ^ packet.continuity_counter) & 0x0F) != 0) {
            ++continuity_counter_error;
            if (m_p_mpeg_alarm_event)
                m_p_mpeg_alarm_event->on_cc_error(packet.PID);
        }
    }
    continuity_counter = packet.continuity_counter;
}

CDataAccumulator* CBasePID::accumulation(const transport_packet& packet) {
    if (!m_pCurrent) {
        m_pCurrent.reset(new CDataAccumulator(CDataAccumulator::grow_step));
        m_pLast.reset(new CDataAccumulator(CDataAccumulator::grow_step));
    }
    if (!packet.hasPayload())
        return nullptr;
    CDataAccumulator* completed = nullptr;
    if (packet.payload_unit_start_indicator) {
        std::swap(m_pCurrent, m_pLast);
        m_pCurrent->clear();
        completed = m_pLast.get();
        m_bPayload = true;
    }
    if (m_bPayload && packet.lCurrSizePkt > 0)
        m_pCurrent->addData(packet.pCurrDataPkt, static_cast<size_t>(packet.lCurrSizePkt));
    return completed;
}

void CBasePID::putPCR(const transport_packet& packet) {
    const uint64_t pcr27MHz =
        packet.af.program_clock_reference_base * 300 + packet.af.program_clock_reference_extension;
    const int64_t time = static_cast<int64_t>(pcr27MHz * 10 / 27);
    const double seconds = static_cast<double>(time - lastPCR) / 10000000.0;
    const double rate = static_cast<double>(data_counter) * 8.0 / seconds;
    // Two equal PCRs give no rate; the previous one is kept.
    if (std::isfinite(rate) && std::fabs(rate) < 9.2e18)
        data_rate_pcr = static_cast<int64_t>(rate);
    data_counter = 0;
    lastPCR = time;
}

}  // namespace mpegcore
