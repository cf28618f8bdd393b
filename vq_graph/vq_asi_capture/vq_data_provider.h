#pragma once
// Packs transport packets, seven to a buffer, into buffers of the element's pool
// and pushes each full buffer out of the source pad.

#include <gst/gst.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "mpegcore/MpegConstants.h"
#include "vq_asi_capture/vq_asi_pad.h"
#include "vq_asi_capture/vq_asi_statistics.h"

class vq_data_provider {
public:
    vq_data_provider(vq_asi_pad& pad, std::shared_ptr<GstBufferPool> pool, vq_asi_statistics& statistics);
    // A partly filled buffer is dropped, not pushed.
    virtual ~vq_data_provider();

    vq_data_provider(const vq_data_provider&) = delete;
    vq_data_provider& operator=(const vq_data_provider&) = delete;

    // Adds one packet; withSync false means the data lacks its 0x47, which is then written in front.
    // False when no buffer could be taken from the pool (the packet is lost).
    virtual bool push_data(unsigned long pts, unsigned char* data, unsigned long size, bool withSync);

    // What downstream answered to the latest push (GST_FLOW_OK before any).
    GstFlowReturn last_flow() const { return m_eLastFlow; }

    static constexpr size_t ts_packet_size = mpegcore::kTsPacketSize;

protected:
    // Null without a pool or when the pool refuses (inactive, flushing).
    GstBuffer* get_free_buffer(std::shared_ptr<GstBufferPool>& pool);

    vq_asi_pad& m_asi_pad;
    std::shared_ptr<GstBufferPool> m_pAsiBufferPool;
    GstBuffer* m_pGstBuffer = nullptr;
    GstMapInfo m_map{};
    size_t m_gstBufferSize = 0;
    uint64_t m_nDataCounter = 0;
    vq_asi_statistics& m_statistics;
    uint32_t m_nPacketCount = 7;
    GstFlowReturn m_eLastFlow = GST_FLOW_OK;

private:
    bool begin_buffer(unsigned long pts);
    bool map_for_writing(GstBuffer* buffer);
    static void set_buffer_size(GstBuffer* buffer, size_t size);
    void push_buffer();
};
