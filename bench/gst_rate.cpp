// Runs one GStreamer pipeline and reports how long it took to move its bytes,
// for bench/compare.sh. The pipeline's sink must be named "sink"; the run ends
// at end of stream, on an error, once --bytes have reached the sink, or after
// --seconds. Printed on one line: sink bytes, wall seconds and the process's
// CPU seconds (user + system), all measured from the switch to PLAYING to the
// end of the run.

#include <gst/gst.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace {

using steady = std::chrono::steady_clock;

struct run_state {
    uint64_t stopAtBytes = 0;  // 0: no byte limit
    std::atomic<uint64_t> bytes{0};
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    bool failed = false;
    std::string error;
};

void finish(run_state& run, bool failed, const std::string& error = std::string()) {
    std::lock_guard<std::mutex> lock(run.mutex);
    if (run.finished)
        return;
    run.finished = true;
    run.failed = failed;
    run.error = error;
    run.done.notify_all();
}

GstPadProbeReturn count_bytes(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto& run = *static_cast<run_state*>(data);
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    if (!buffer)
        return GST_PAD_PROBE_OK;
    const uint64_t total = run.bytes.fetch_add(gst_buffer_get_size(buffer)) + gst_buffer_get_size(buffer);
    if (run.stopAtBytes && total >= run.stopAtBytes)
        finish(run, false);
    return GST_PAD_PROBE_OK;
}

GstBusSyncReply watch_bus(GstBus*, GstMessage* message, gpointer data) {
    auto& run = *static_cast<run_state*>(data);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        finish(run, false);
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        finish(run, true, error ? error->message : "unknown error");
        g_clear_error(&error);
    }
    return GST_BUS_PASS;
}

double cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

int usage() {
    std::fputs("Usage: gst_rate [--bytes N] [--seconds S] PIPELINE...\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    run_state run;
    double seconds = 600;
    std::string description;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--bytes" && i + 1 < argc)
            run.stopAtBytes = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--seconds" && i + 1 < argc)
            seconds = std::atof(argv[++i]);
        else
            description += (description.empty() ? "" : " ") + a;
    }
    if (description.empty())
        return usage();

    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    if (!pipeline || error) {
        std::fprintf(stderr, "gst_rate: %s\n", error ? error->message : "cannot build the pipeline");
        g_clear_error(&error);
        return 1;
    }
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    if (!sink) {
        std::fputs("gst_rate: the pipeline has no element named \"sink\"\n", stderr);
        gst_object_unref(pipeline);
        return 1;
    }
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, count_bytes, &run, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_bus_set_sync_handler(bus, watch_bus, &run, nullptr);

    const double cpu0 = cpu_seconds();
    const steady::time_point t0 = steady::now();
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        finish(run, true, "the pipeline does not start");
    {
        std::unique_lock<std::mutex> lock(run.mutex);
        run.done.wait_for(lock, std::chrono::duration<double>(seconds), [&run] { return run.finished; });
    }
    const double wall = std::chrono::duration<double>(steady::now() - t0).count();
    const double cpu = cpu_seconds() - cpu0;
    const uint64_t bytes = run.bytes.load();
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    gst_object_unref(bus);
    gst_object_unref(pipeline);

    if (run.failed) {
        std::fprintf(stderr, "gst_rate: %s\n", run.error.c_str());
        return 1;
    }
    std::printf("bytes=%llu seconds=%.6f cpu_seconds=%.6f\n", static_cast<unsigned long long>(bytes), wall, cpu);
    return 0;
}
