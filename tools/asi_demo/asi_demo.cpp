// Runs a vqasicapture pipeline for a number of seconds, printing the statistics
// items as they change and the alarm manager's lines, and reports the byte rate
// that reached the sink. With --compare FILE it then plays FILE through
// "filesrc blocksize=1316 ! fakesink" to give the same rate for reading a file.

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include "vq_asi_capture/vq_base_statistics.h"
#include "vq_polling_alarm_manager.h"

namespace {

struct options {
    std::string device = "/dev/video0";
    double seconds = 10;
    std::string output;  // filesink location; fakesink when empty
    int inputType = 0;
    int plp = 0;
    std::string sourceName = "asi-demo";
    std::string compare;
    bool quiet = false;
};

void usage() {
    std::puts(
        "Usage: asi_demo [--device PATH] [--seconds S] [--output FILE] [--input-type 0|1] [--plp N]\n"
        "                [--source-name NAME] [--compare TS_FILE] [--quiet]");
}

bool parse(int argc, char** argv, options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "--device" && hasValue) o.device = argv[++i];
        else if (a == "--seconds" && hasValue) o.seconds = std::atof(argv[++i]);
        else if (a == "--output" && hasValue) o.output = argv[++i];
        else if (a == "--input-type" && hasValue) o.inputType = std::atoi(argv[++i]);
        else if (a == "--plp" && hasValue) o.plp = std::atoi(argv[++i]);
        else if (a == "--source-name" && hasValue) o.sourceName = argv[++i];
        else if (a == "--compare" && hasValue) o.compare = argv[++i];
        else if (a == "--quiet") o.quiet = true;
        else return false;
    }
    return true;
}

GstPadProbeReturn count_bytes(GstPad*, GstPadProbeInfo* info, gpointer counter) {
    if (GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info))
        static_cast<std::atomic<uint64_t>*>(counter)->fetch_add(gst_buffer_get_size(buffer));
    return GST_PAD_PROBE_OK;
}

void count_sink_bytes(GstElement* pipeline, std::atomic<uint64_t>& counter) {
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, count_bytes, &counter, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);
}

double mb_per_s(uint64_t bytes, std::chrono::steady_clock::duration d) {
    return static_cast<double>(bytes) / 1e6 / std::chrono::duration<double>(d).count();
}

void print_changed_items(const vq_base_statistics& statistics, std::map<std::string, std::string>& shown) {
    for (const auto& item : statistics.get_items()) {
        auto it = shown.find(item.first);
        if (it != shown.end() && it->second == item.second)
            continue;
        std::printf("  %-32s %s\n", item.first.c_str(), item.second.c_str());
        shown[item.first] = item.second;
    }
    std::fflush(stdout);
}

int run_capture(const options& o) {
    const std::string sink =
        o.output.empty() ? "fakesink name=sink" : "filesink name=sink location=\"" + o.output + "\"";
    const std::string description = "vqasicapture name=src v4l2=\"" + o.device + "\" input_type=" +
                                    std::to_string(o.inputType) + " plp=" + std::to_string(o.plp) + " ! " + sink;
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    if (!pipeline) {
        std::fprintf(stderr, "asi_demo: %s\n", error ? error->message : "cannot build the pipeline");
        g_clear_error(&error);
        return 1;
    }
    std::printf("pipeline: %s\n", description.c_str());

    vq_polling_alarm_manager alarms(std::chrono::milliseconds(200), [](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    });
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    g_object_set(src, "alarm-source-name", o.sourceName.c_str(), "alarm-manager",
                 static_cast<vq_i_alarm_manager*>(&alarms), nullptr);
    gpointer pointer = nullptr;
    g_object_get(src, "statistics", &pointer, nullptr);
    const auto* statistics = static_cast<const vq_base_statistics*>(pointer);

    std::atomic<uint64_t> bytes{0};
    count_sink_bytes(pipeline, bytes);
    const auto started = std::chrono::steady_clock::now();
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        std::fprintf(stderr, "asi_demo: the pipeline does not start (device %s)\n", o.device.c_str());
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(src);
        gst_object_unref(pipeline);
        return 1;
    }

    std::map<std::string, std::string> shown;
    const auto end = started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                   std::chrono::duration<double>(o.seconds));
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        if (!o.quiet) {
            std::printf("statistics after %.0f s:\n",
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
            print_changed_items(*statistics, shown);
        }
    }
    const auto elapsed = std::chrono::steady_clock::now() - started;
    gst_element_set_state(pipeline, GST_STATE_NULL);
    std::printf("capture: %llu bytes reached the sink in %.2f s: %.1f MB/s\n",
                static_cast<unsigned long long>(bytes.load()), std::chrono::duration<double>(elapsed).count(),
                mb_per_s(bytes.load(), elapsed));
    g_object_set(src, "alarm-manager", nullptr, nullptr);
    gst_object_unref(src);
    gst_object_unref(pipeline);
    return 0;
}

// Plays the file once; returns the bytes that reached the sink and adds the time taken.
uint64_t play_file_once(const std::string& file, std::chrono::steady_clock::duration& took) {
    const std::string description = "filesrc location=\"" + file + "\" blocksize=1316 ! fakesink name=sink";
    GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
    if (!pipeline)
        return 0;
    std::atomic<uint64_t> bytes{0};
    count_sink_bytes(pipeline, bytes);
    const auto started = std::chrono::steady_clock::now();
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* msg = gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE,
                                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    took += std::chrono::steady_clock::now() - started;
    gst_message_unref(msg);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return bytes.load();
}

// The file is played again and again for about a second, for a stable rate.
int run_file_reference(const std::string& file) {
    std::chrono::steady_clock::duration took{};
    uint64_t bytes = 0;
    int plays = 0;
    while (took < std::chrono::seconds(1)) {
        const uint64_t once = play_file_once(file, took);
        if (once == 0)
            return 1;
        bytes += once;
        ++plays;
    }
    std::printf("reference: %s (filesrc blocksize=1316 ! fakesink), %d plays: %llu bytes in %.3f s: %.1f MB/s\n",
                file.c_str(), plays, static_cast<unsigned long long>(bytes), std::chrono::duration<double>(took).count(),
                mb_per_s(bytes, took));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    options o;
    if (!parse(argc, argv, o)) {
        usage();
        return 2;
    }
    int rc = run_capture(o);
    if (rc == 0 && !o.compare.empty())
        rc = run_file_reference(o.compare);
    return rc;
}
