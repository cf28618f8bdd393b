// A minimal application of the vqasicapture element: it captures an ASI input
// into a fakesink for a few seconds, attaches its own alarm manager and reads
// the capture statistics once a second.
//
//   asi_capture_example [DEVICE [SECONDS]]

#include <gst/gst.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "vq_asi_capture/vq_base_statistics.h"
#include "vq_asi_capture/vq_i_alarm_manager.h"

// The element registers its alarms here; the application polls them.
class example_alarm_manager : public vq_i_alarm_manager {
public:
    void reg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_alarms.push_back(std::move(alarm));
    }
    void unreg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        for (auto it = m_alarms.begin(); it != m_alarms.end(); ++it)
            if (*it == alarm) {
                m_alarms.erase(it);
                break;
            }
    }
    // check() every alarm and print the active ones.
    void poll() {
        std::lock_guard<std::mutex> lock(m_cs);
        for (const auto& alarm : m_alarms) {
            alarm->check();
            if (alarm->active())
                std::printf("  alarm: %s\n", alarm->get_log_message().c_str());
        }
    }

private:
    std::mutex m_cs;
    std::vector<std::shared_ptr<vq_i_alarm_event>> m_alarms;
};

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    const char* device = argc > 1 ? argv[1] : "/dev/video0";
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 5;

    GstElement* pipeline = gst_pipeline_new("example");
    GstElement* source = gst_element_factory_make("vqasicapture", "source");
    GstElement* sink = gst_element_factory_make("fakesink", "sink");
    if (!source || !sink) {
        std::fprintf(stderr, "vqasicapture or fakesink is not installed\n");
        return 1;
    }
    gst_bin_add_many(GST_BIN(pipeline), source, sink, nullptr);
    gst_element_link(source, sink);

    example_alarm_manager alarms;
    g_object_set(source, "v4l2", device, "alarm-source-name", "example", "alarm-manager",
                 static_cast<vq_i_alarm_manager*>(&alarms), nullptr);
    gpointer pointer = nullptr;
    g_object_get(source, "statistics", &pointer, nullptr);
    const auto* statistics = static_cast<const vq_base_statistics*>(pointer);

    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        std::fprintf(stderr, "cannot start capturing from %s\n", device);
        gst_object_unref(pipeline);
        return 1;
    }
    for (int second = 1; second <= seconds; ++second) {
        g_usleep(G_USEC_PER_SEC);
        std::printf("after %d s:\n", second);
        for (const auto& item : statistics->get_items())
            std::printf("  %-32s %s\n", item.first.c_str(), item.second.c_str());
        alarms.poll();
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    g_object_set(source, "alarm-manager", nullptr, nullptr);
    gst_object_unref(pipeline);
    return 0;
}
