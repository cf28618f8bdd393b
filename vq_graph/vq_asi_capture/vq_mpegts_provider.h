#pragma once
// Data provider for a plain transport stream: every packet runs through the
// transport packet parser, whose error hooks raise alarms, and is packed unchanged.

#include <cstdint>
#include <memory>

#include "mpegcore/BaseMpegParser.h"
#include "vq_asi_capture/vq_alarms_dispatcher.h"
#include "vq_asi_capture/vq_data_provider.h"

class vq_mpegts_provider : public vq_data_provider, mpegcore::CBaseMpegParser {
public:
    vq_mpegts_provider(vq_asi_pad& pad, std::shared_ptr<GstBufferPool> pool, vq_asi_statistics& statistics,
                       vq_alarms_dispatcher& alarms);

    // Parses one packet; the packet is packed whatever errors it carries. Always true.
    bool push_data(unsigned long pts, unsigned char* data, unsigned long size, bool withSync) override;

protected:
    int OnProcess(unsigned int, mpegcore::transport_packet& pkt) override;
    void on_cc_error(unsigned short pid) override;
    // Only analyze_packet fires these two, and this provider does not call it.
    void on_scrambler_pid(unsigned short pid) override;
    void on_tei_pid(unsigned short pid) override;

private:
    uint64_t m_tStamp = 0;
    vq_alarms_dispatcher& m_alarms;
};
