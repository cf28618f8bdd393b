#include "vq_asi_capture/vq_data_provider.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

namespace {
const char kNoFreeBuffers[] = "No free buffers in the buffer pool";
const char kCantPush[] = "Can't push buffer, err = ";
}  // namespace

vq_data_provider::vq_data_provider(vq_asi_pad& pad, std::shared_ptr<GstBufferPool> pool, vq_asi_statistics& statistics)
    : m_asi_pad(pad), m_pAsiBufferPool(std::move(pool)), m_statistics(statistics) {}

vq_data_provider::~vq_data_provider() {
    if (m_pGstBuffer) {
        gst_buffer_unmap(m_pGstBuffer, &m_map);
        gst_buffer_unref(m_pGstBuffer);
    }
}

GstBuffer* vq_data_provider::get_free_buffer(std::shared_ptr<GstBufferPool>& pool) {
    if (!pool)
        return nullptr;
    GstBuffer* buffer = nullptr;
    // Sinks may hold many buffers before they release any (filesink collects 64 KiB
    // before writing, more than the 40 buffers of our own pool carry): waiting for
    // the pool would then wait for ever. A pool that is merely exhausted is bridged
    // with a buffer of our own; downstream still paces us by blocking the push.
    GstBufferPoolAcquireParams params{};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    const GstFlowReturn ret = gst_buffer_pool_acquire_buffer(pool.get(), &buffer, &params);
    if (ret == GST_FLOW_EOS && gst_buffer_pool_is_active(pool.get()))
        return gst_buffer_new_allocate(nullptr, m_nPacketCount * ts_packet_size, nullptr);
    return ret == GST_FLOW_OK ? buffer : nullptr;
}

bool vq_data_provider::begin_buffer(unsigned long pts) {
    GstBuffer* buffer = get_free_buffer(m_pAsiBufferPool);
    if (buffer) {
        buffer = gst_buffer_make_writable(buffer);
        if (!map_for_writing(buffer)) {
            gst_buffer_unref(buffer);
            buffer = nullptr;
        } else if (m_map.size < m_nPacketCount * ts_packet_size) {
            // A pool of buffers too small for seven packets is as good as an empty one.
            gst_buffer_unmap(buffer, &m_map);
            gst_buffer_unref(buffer);
            buffer = nullptr;
        }
    }
    if (!buffer) {
        m_statistics.asi().set_error(kNoFreeBuffers);
        return false;
    }
    GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_LIVE);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = GST_CLOCK_TIME_NONE;
    // Nominal byte offsets: every buffer counts as seven full packets.
    GST_BUFFER_OFFSET(buffer) = m_nDataCounter;
    m_nDataCounter += m_nPacketCount * ts_packet_size;
    GST_BUFFER_OFFSET_END(buffer) = m_nDataCounter;
    m_pGstBuffer = buffer;
    m_gstBufferSize = 0;
    return true;
}

bool vq_data_provider::push_data(unsigned long pts, unsigned char* data, unsigned long size, bool withSync) {
    if (!m_pGstBuffer && !begin_buffer(pts))
        return false;

    unsigned char* out = m_map.data + m_gstBufferSize;
    size_t room = m_map.size - m_gstBufferSize;
    size_t written = 0;
    if (!withSync && room > 0) {
        *out++ = mpegcore::kSyncByte;
        --room;
        written = 1;
    }
    // A 204-byte packet loses its parity bytes here; a packet without its sync byte
    // contributes at most the 187 bytes that follow it.
    const size_t packet = withSync ? ts_packet_size : mpegcore::kTsPacketSizeAfterSync;
    const size_t n = std::min({static_cast<size_t>(size), packet, room});
    if (n == ts_packet_size && data)
        std::memcpy(out, data, ts_packet_size);  // the usual case, as fixed-size moves
    else if (n > 0 && data)
        std::memcpy(out, data, n);
    m_gstBufferSize += written + n;

    if (m_gstBufferSize < m_nPacketCount * ts_packet_size)
        return true;
    push_buffer();
    return true;
}

// Buffers of one memory (the pool's and our own always are) have that memory mapped
// and resized directly: the buffer-level calls check the writability of buffer and
// memory again on every call, which cost more than copying the packets in. The
// buffer has just been made writable, so its memory is ours alone.
bool vq_data_provider::map_for_writing(GstBuffer* buffer) {
    if (gst_buffer_n_memory(buffer) != 1)
        return gst_buffer_map(buffer, &m_map, GST_MAP_WRITE);
    // A reference for the mapping, as gst_buffer_map takes: gst_buffer_unmap drops it.
    GstMemory* memory = gst_buffer_get_memory(buffer, 0);
    if (gst_memory_map(memory, &m_map, GST_MAP_WRITE))
        return true;
    gst_memory_unref(memory);
    return false;
}

void vq_data_provider::set_buffer_size(GstBuffer* buffer, size_t size) {
    if (gst_buffer_get_size(buffer) == size)
        return;
    if (gst_buffer_n_memory(buffer) == 1)
        gst_memory_resize(gst_buffer_peek_memory(buffer, 0), 0, size);
    else
        gst_buffer_set_size(buffer, static_cast<gssize>(size));
}

void vq_data_provider::push_buffer() {
    GstBuffer* buffer = std::exchange(m_pGstBuffer, nullptr);
    gst_buffer_unmap(buffer, &m_map);
    set_buffer_size(buffer, m_gstBufferSize);
    m_gstBufferSize = 0;
    const GstFlowReturn ret = gst_pad_push(m_asi_pad.pad, buffer);
    m_eLastFlow = ret;
    if (ret != GST_FLOW_OK)
        m_statistics.asi().set_error(kCantPush + std::to_string(static_cast<int>(ret)));
}
