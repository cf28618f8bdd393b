// The data providers driven directly through their public interface: packing
// into pool buffers, timestamps and offsets, sync bytes, the last-error texts, the
// TS provider's continuity alarms and the T2-MI provider's PLP filter.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "element/element_test_util.h"
#include "support/recording_alarm_manager.h"
#include "vq_asi_capture/vq_alarm_data.h"
#include "vq_asi_capture/vq_alarms_dispatcher.h"
#include "vq_asi_capture/vq_asi_capture.h"
#include "vq_asi_capture/vq_asi_statistics.h"
#include "vq_asi_capture/vq_data_provider.h"
#include "vq_asi_capture/vq_mpegts_provider.h"
#include "vq_asi_capture/vq_t2mi_provider.h"

namespace {

constexpr size_t kPacket = 188;
constexpr size_t kBufferBytes = 7 * kPacket;

// A source pad linked to a sink pad that keeps every buffer it receives.
class pad_pair {
public:
    pad_pair() {
        vq_element_test::init_gstreamer();
        m_pad.pad = gst_pad_new("src", GST_PAD_SRC);
        m_sink = gst_pad_new("sink", GST_PAD_SINK);
        gst_pad_set_chain_function(m_sink, &pad_pair::chain);
        g_object_set_data(G_OBJECT(m_sink), "pair", this);
        gst_pad_link(m_pad.pad, m_sink);
        gst_pad_set_active(m_sink, TRUE);
        gst_pad_set_active(m_pad.pad, TRUE);
        gst_pad_push_event(m_pad.pad, gst_event_new_stream_start("provider-test"));
        GstCaps* caps = gst_caps_new_empty_simple("video/mpegts");
        gst_pad_push_event(m_pad.pad, gst_event_new_caps(caps));
        gst_caps_unref(caps);
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_pad_push_event(m_pad.pad, gst_event_new_segment(&segment));
    }
    ~pad_pair() {
        for (GstBuffer* b : received)
            gst_buffer_unref(b);
        gst_pad_set_active(m_pad.pad, FALSE);
        gst_pad_set_active(m_sink, FALSE);
        gst_object_unref(m_pad.pad);
        gst_object_unref(m_sink);
    }
    pad_pair(const pad_pair&) = delete;
    pad_pair& operator=(const pad_pair&) = delete;

    vq_asi_pad& pad() { return m_pad; }
    GstPad* sink() { return m_sink; }
    std::vector<uint8_t> bytes(size_t index) const {
        GstMapInfo map;
        gst_buffer_map(received.at(index), &map, GST_MAP_READ);
        std::vector<uint8_t> out(map.data, map.data + map.size);
        gst_buffer_unmap(received.at(index), &map);
        return out;
    }

    std::vector<GstBuffer*> received;

private:
    static GstFlowReturn chain(GstPad* pad, GstObject*, GstBuffer* buffer) {
        static_cast<pad_pair*>(g_object_get_data(G_OBJECT(pad), "pair"))->received.push_back(buffer);
        return GST_FLOW_OK;
    }
    vq_asi_pad m_pad;
    GstPad* m_sink;
};

// An active pool of `count` buffers of `size` bytes.
std::shared_ptr<GstBufferPool> make_pool(guint size, guint count = 8) {
    vq_element_test::init_gstreamer();
    std::shared_ptr<GstBufferPool> pool(gst_buffer_pool_new(), vq_asi_capture::buffer_pool_deleter);
    GstStructure* config = gst_buffer_pool_get_config(pool.get());
    gst_buffer_pool_config_set_params(config, nullptr, size, 1, count);
    EXPECT_TRUE(gst_buffer_pool_set_config(pool.get(), config));
    EXPECT_TRUE(gst_buffer_pool_set_active(pool.get(), TRUE));
    return pool;
}

std::string last_error(const vq_asi_statistics& statistics) {
    const auto items = statistics.get_items();
    EXPECT_EQ(items.back().first, "Asi last error");
    return items.back().second;
}

// A 188-byte packet of PID 0x100 whose payload bytes are all `fill`.
std::vector<uint8_t> packet(uint8_t fill, uint8_t cc = 0, size_t size = kPacket) {
    std::vector<uint8_t> p(size, fill);
    p[0] = 0x47;
    p[1] = 0x01;
    p[2] = 0x00;
    p[3] = static_cast<uint8_t>(0x10 | (cc & 0x0F));
    return p;
}

TEST(ElementProvider, WithoutAPoolEveryPacketIsLostWithTheNoFreeBuffersError) {
    pad_pair pads;
    vq_asi_statistics statistics;
    vq_data_provider provider(pads.pad(), nullptr, statistics);
    std::vector<uint8_t> p = packet(1);
    for (int i = 0; i < 8; ++i)
        EXPECT_FALSE(provider.push_data(1000, p.data(), p.size(), true));
    EXPECT_TRUE(pads.received.empty());
    EXPECT_EQ(last_error(statistics), "No free buffers in the buffer pool");
}

TEST(ElementProvider, SevenPacketsMakeOneBufferStampedWithTheFirstPacketsTime) {
    pad_pair pads;
    vq_asi_statistics statistics;
    auto pool = make_pool(kBufferBytes);
    vq_data_provider provider(pads.pad(), pool, statistics);
    std::vector<uint8_t> expected;
    for (uint8_t i = 0; i < 14; ++i) {
        std::vector<uint8_t> p = packet(i, i);
        expected.insert(expected.end(), p.begin(), p.end());
        EXPECT_TRUE(provider.push_data(1000000ul * (i + 1), p.data(), p.size(), true));
        EXPECT_EQ(pads.received.size(), (i + 1u) / 7) << int(i);
    }
    ASSERT_EQ(pads.received.size(), 2u);
    for (size_t b = 0; b < 2; ++b) {
        SCOPED_TRACE(b);
        GstBuffer* buffer = pads.received[b];
        EXPECT_EQ(gst_buffer_get_size(buffer), kBufferBytes);
        EXPECT_EQ(GST_BUFFER_PTS(buffer), 1000000u * (7 * b + 1));
        EXPECT_EQ(GST_BUFFER_DTS(buffer), GST_BUFFER_PTS(buffer));
        EXPECT_EQ(GST_BUFFER_DURATION(buffer), GST_CLOCK_TIME_NONE);
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer), kBufferBytes * b);
        EXPECT_EQ(GST_BUFFER_OFFSET_END(buffer), kBufferBytes * (b + 1));
        EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_LIVE));
        EXPECT_EQ(buffer->pool, pool.get());
        const std::vector<uint8_t> got = pads.bytes(b);
        EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.begin() + static_cast<long>(kBufferBytes * b)));
    }
    EXPECT_EQ(last_error(statistics), "");
}

TEST(ElementProvider, A204BytePacketContributesItsFirst188Bytes) {
    pad_pair pads;
    vq_asi_statistics statistics;
    vq_data_provider provider(pads.pad(), make_pool(kBufferBytes), statistics);
    std::vector<uint8_t> expected;
    for (uint8_t i = 0; i < 7; ++i) {
        std::vector<uint8_t> p = packet(i, i, 204);
        std::fill(p.begin() + kPacket, p.end(), 0xEE);  // where the parity would be
        expected.insert(expected.end(), p.begin(), p.begin() + kPacket);
        provider.push_data(0, p.data(), p.size(), true);
    }
    ASSERT_EQ(pads.received.size(), 1u);
    EXPECT_EQ(pads.bytes(0), expected);
}

TEST(ElementProvider, PacketsWithoutSyncByteGetItBack) {
    pad_pair pads;
    vq_asi_statistics statistics;
    vq_data_provider provider(pads.pad(), make_pool(kBufferBytes), statistics);
    for (uint8_t i = 0; i < 7; ++i) {
        std::vector<uint8_t> p = packet(i, i);
        provider.push_data(0, p.data() + 1, kPacket - 1, false);
    }
    ASSERT_EQ(pads.received.size(), 1u);
    const std::vector<uint8_t> got = pads.bytes(0);
    ASSERT_EQ(got.size(), kBufferBytes);
    for (size_t i = 0; i < 7; ++i)
        EXPECT_EQ(std::vector<uint8_t>(got.begin() + static_cast<long>(i * kPacket),
                                       got.begin() + static_cast<long>((i + 1) * kPacket)),
                  packet(static_cast<uint8_t>(i), static_cast<uint8_t>(i)));
}

TEST(ElementProvider, OversizedInputNeverWritesPastTheBuffer) {
    pad_pair pads;
    vq_asi_statistics statistics;
    vq_data_provider provider(pads.pad(), make_pool(kBufferBytes), statistics);
    // Longer than a packet, with and without sync: at most one packet's worth each (ASan watches).
    std::vector<uint8_t> big(4096, 0x5A);
    for (int i = 0; i < 7; ++i)
        provider.push_data(0, big.data(), big.size(), i % 2 == 0);
    ASSERT_EQ(pads.received.size(), 1u);
    EXPECT_EQ(gst_buffer_get_size(pads.received[0]), kBufferBytes);
}

TEST(ElementProvider, APoolOfTooSmallOrInactiveBuffersIsAsGoodAsNone) {
    auto inactive = make_pool(kBufferBytes);
    gst_buffer_pool_set_active(inactive.get(), FALSE);
    for (const auto& pool : {make_pool(1000), inactive}) {
        pad_pair pads;
        vq_asi_statistics statistics;
        vq_data_provider provider(pads.pad(), pool, statistics);
        std::vector<uint8_t> p = packet(1);
        EXPECT_FALSE(provider.push_data(0, p.data(), p.size(), true));
        EXPECT_EQ(last_error(statistics), "No free buffers in the buffer pool");
    }
}

TEST(ElementProvider, PushFailuresAreRecordedWithTheFlowValue) {
    pad_pair pads;
    vq_asi_statistics statistics;
    vq_data_provider provider(pads.pad(), make_pool(kBufferBytes), statistics);
    std::vector<uint8_t> p = packet(1);
    // A flushing peer: GST_FLOW_FLUSHING (-2). The packet is still taken.
    gst_pad_set_active(pads.sink(), FALSE);
    for (int i = 0; i < 7; ++i)
        EXPECT_TRUE(provider.push_data(0, p.data(), p.size(), true));
    EXPECT_EQ(last_error(statistics), "Can't push buffer, err = -2");
    // No peer at all: GST_FLOW_NOT_LINKED (-1).
    gst_pad_unlink(pads.pad().pad, pads.sink());
    for (int i = 0; i < 7; ++i)
        EXPECT_TRUE(provider.push_data(0, p.data(), p.size(), true));
    EXPECT_EQ(last_error(statistics), "Can't push buffer, err = -1");
    EXPECT_TRUE(pads.received.empty());
}

TEST(ElementProvider, APartlyFilledBufferIsDroppedWithTheProvider) {
    pad_pair pads;
    vq_asi_statistics statistics;
    auto pool = make_pool(kBufferBytes, 1);
    {
        vq_data_provider provider(pads.pad(), pool, statistics);
        std::vector<uint8_t> p = packet(1);
        for (int i = 0; i < 6; ++i)
            provider.push_data(0, p.data(), p.size(), true);
    }
    EXPECT_TRUE(pads.received.empty());
    // The buffer went back to the pool: its only buffer can be taken again.
    GstBuffer* buffer = nullptr;
    GstBufferPoolAcquireParams params{};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    ASSERT_EQ(gst_buffer_pool_acquire_buffer(pool.get(), &buffer, &params), GST_FLOW_OK);
    gst_buffer_unref(buffer);
}

TEST(ElementProvider, TsProviderRaisesOneCcAlarmPerBreakAndPushesEveryPacket) {
    pad_pair pads;
    vq_asi_statistics statistics;
    vq_alarms_dispatcher alarms;
    vq_test::recording_alarm_manager manager;
    alarms.set_alarm_manager(&manager);
    vq_mpegts_provider provider(pads.pad(), make_pool(kBufferBytes), statistics, alarms);
    // Continuity counters 0 1 2 5 6 9 10: two breaks on PID 0x100.
    for (uint8_t cc : {0, 1, 2, 5, 6, 9, 10}) {
        std::vector<uint8_t> p = packet(cc, cc);
        EXPECT_TRUE(provider.push_data(42, p.data(), p.size(), true));
    }
    ASSERT_EQ(pads.received.size(), 1u);
    EXPECT_EQ(GST_BUFFER_PTS(pads.received[0]), 42u);
    const auto held = manager.held();
    ASSERT_EQ(held.size(), 1u);
    const vq_alarm_data d = held[0]->get_data();
    EXPECT_EQ(d.code, eAlarmRemuxerInputCC);
    EXPECT_EQ(d.stream_pid, 0x100u);
    EXPECT_EQ(d.count, 2u);
    EXPECT_EQ(d.description, "CC error on PID 256");
    alarms.stop();
}

// The T2-MI provider with its decapsulator's packet callback in reach.
class t2mi_provider_probe : public vq_t2mi_provider {
public:
    using vq_t2mi_provider::OnTS;
    using vq_t2mi_provider::vq_t2mi_provider;
};

TEST(ElementProvider, T2miProviderKeepsItsPlpAndRestoresTheSyncByte) {
    pad_pair pads;
    vq_asi_statistics statistics;
    vq_alarms_dispatcher alarms;
    t2mi_provider_probe provider(pads.pad(), make_pool(kBufferBytes), statistics, 3, alarms);
    std::vector<uint8_t> expected;
    for (uint8_t i = 0; i < 7; ++i) {
        std::vector<uint8_t> other = packet(0xA0);
        provider.OnTS(0, other.data() + 1, kPacket - 1);
        std::vector<uint8_t> mine = packet(i, i);
        expected.insert(expected.end(), mine.begin(), mine.end());
        provider.OnTS(3, mine.data() + 1, kPacket - 1);
    }
    ASSERT_EQ(pads.received.size(), 1u);
    EXPECT_EQ(pads.bytes(0), expected);
}

}  // namespace
