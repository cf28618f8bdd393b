#pragma once
// Data provider for a T2-MI stream: the decapsulator rebuilds the transport
// stream of one PLP, whose packets get their sync byte back and are packed.

#include <cstdint>
#include <memory>

#include "mpegcore/T2MIToTS.h"
#include "vq_asi_capture/vq_alarms_dispatcher.h"
#include "vq_asi_capture/vq_data_provider.h"

class vq_t2mi_provider : public vq_data_provider, mpegcore::CT2MIToTS {
public:
    vq_t2mi_provider(vq_asi_pad& pad, std::shared_ptr<GstBufferPool> pool, vq_asi_statistics& statistics, uint8_t plp,
                     vq_alarms_dispatcher& alarms);

    // Feeds one carrier packet to the decapsulator. Always true.
    bool push_data(unsigned long pts, unsigned char* data, unsigned long size, bool withSync) override;

protected:
    void on_cc_error(unsigned short pid) override;
    void on_scrambler_pid(unsigned short pid) override;
    void on_tei_pid(unsigned short pid) override;
    // One rebuilt packet without its sync byte; packets of other PLPs are dropped.
    void OnTS(unsigned char plpId, unsigned char* data, unsigned long size) override;

private:
    uint64_t m_tStamp = 0;
    uint8_t m_plp;
    vq_alarms_dispatcher& m_alarms;
};
