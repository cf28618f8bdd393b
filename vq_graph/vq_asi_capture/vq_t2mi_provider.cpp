#include "vq_asi_capture/vq_t2mi_provider.h"

#include <utility>

vq_t2mi_provider::vq_t2mi_provider(vq_asi_pad& pad, std::shared_ptr<GstBufferPool> pool, vq_asi_statistics& statistics,
                                   uint8_t plp, vq_alarms_dispatcher& alarms)
    : vq_data_provider(pad, std::move(pool), statistics), CT2MIToTS(true), m_plp(plp), m_alarms(alarms) {
    SetPLPID(plp);
}

bool vq_t2mi_provider::push_data(unsigned long pts, unsigned char* data, unsigned long size, bool) {
    m_tStamp = pts;
    Process(data, size);
    return true;
}

void vq_t2mi_provider::OnTS(unsigned char plpId, unsigned char* data, unsigned long size) {
    if (plpId == m_plp)
        vq_data_provider::push_data(m_tStamp, data, size, false);
}

void vq_t2mi_provider::on_cc_error(unsigned short pid) { m_alarms.cc_event(pid); }

void vq_t2mi_provider::on_scrambler_pid(unsigned short pid) { m_alarms.scrambled_event(pid); }

void vq_t2mi_provider::on_tei_pid(unsigned short pid) { m_alarms.tei_event(pid); }
