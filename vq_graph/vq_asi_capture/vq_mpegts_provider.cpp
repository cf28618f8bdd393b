#include "vq_asi_capture/vq_mpegts_provider.h"

#include <utility>

vq_mpegts_provider::vq_mpegts_provider(vq_asi_pad& pad, std::shared_ptr<GstBufferPool> pool,
                                       vq_asi_statistics& statistics, vq_alarms_dispatcher& alarms)
    : vq_data_provider(pad, std::move(pool), statistics), CBaseMpegParser(true), m_alarms(alarms) {}

bool vq_mpegts_provider::push_data(unsigned long pts, unsigned char* data, unsigned long size, bool) {
    m_tStamp = pts;
    Process(data, size);
    return true;
}

int vq_mpegts_provider::OnProcess(unsigned int, mpegcore::transport_packet& pkt) {
    vq_data_provider::push_data(m_tStamp, pkt.pStartDataPkt, static_cast<unsigned long>(pkt.lSizePkt), true);
    return 0;
}

void vq_mpegts_provider::on_cc_error(unsigned short pid) { m_alarms.cc_event(pid); }

void vq_mpegts_provider::on_scrambler_pid(unsigned short pid) { m_alarms.scrambled_event(pid); }

void vq_mpegts_provider::on_tei_pid(unsigned short pid) { m_alarms.tei_event(pid); }
