// Runs GStreamer pipelines and reports how long they took to move their bytes,
// for bench/compare.sh. Each pipeline's sink must be named "sink"; the run ends
// when every pipeline has reached end of stream, on an error, once --bytes have
// reached the sinks in all, or after --seconds. Printed on one line: sink bytes,
// wall seconds and the process's CPU seconds (user + system), all measured from
// the switch to PLAYING to the end of the run.
//
// --copies N runs N pipelines in the process, each made from the description
// with "@N@" replaced by its number (0 to N-1). The element "vqmemsrc"
// (property "location") pushes a file from memory: the file is read when the
// pipeline is built, and each buffer of the base source's blocksize wraps a
// slice of it, so that the run pays no read and no copy.

#include <gst/base/gstbasesrc.h>
#include <gst/gst.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;

// vqmemsrc: a source over a file held in memory.
struct MemSrc {
    GstBaseSrc parent;
    gchar* location;
    gchar* data;
    gsize size;
    gsize position;
};
struct MemSrcClass {
    GstBaseSrcClass parent_class;
};
G_DEFINE_TYPE(MemSrc, mem_src, GST_TYPE_BASE_SRC)

enum { kPropLocation = 1 };

void mem_src_set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    auto* self = reinterpret_cast<MemSrc*>(object);
    if (id != kPropLocation) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        return;
    }
    g_free(self->location);
    g_free(self->data);
    self->location = g_value_dup_string(value);
    self->data = nullptr;
    self->size = 0;
    GError* error = nullptr;
    if (self->location && !g_file_get_contents(self->location, &self->data, &self->size, &error)) {
        std::fprintf(stderr, "gst_rate: %s\n", error->message);
        g_clear_error(&error);
    }
}

void mem_src_get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    if (id == kPropLocation)
        g_value_set_string(value, reinterpret_cast<MemSrc*>(object)->location);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

void mem_src_finalize(GObject* object) {
    auto* self = reinterpret_cast<MemSrc*>(object);
    g_free(self->location);
    g_free(self->data);
    G_OBJECT_CLASS(mem_src_parent_class)->finalize(object);
}

gboolean mem_src_start(GstBaseSrc* src) {
    auto* self = reinterpret_cast<MemSrc*>(src);
    self->position = 0;
    return self->data != nullptr;
}

GstFlowReturn mem_src_create(GstBaseSrc* src, guint64, guint size, GstBuffer** out) {
    auto* self = reinterpret_cast<MemSrc*>(src);
    if (self->position >= self->size)
        return GST_FLOW_EOS;
    const gsize n = std::min<gsize>(size, self->size - self->position);
    *out =
        gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, self->data + self->position, n, 0, n, nullptr, nullptr);
    GST_BUFFER_OFFSET(*out) = self->position;
    self->position += n;
    return GST_FLOW_OK;
}

void mem_src_class_init(MemSrcClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    object->set_property = mem_src_set_property;
    object->get_property = mem_src_get_property;
    object->finalize = mem_src_finalize;
    g_object_class_install_property(object, kPropLocation,
                                    g_param_spec_string("location", "Location", "File read into memory", nullptr,
                                                        GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    static GstStaticPadTemplate src = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element, &src);
    gst_element_class_set_static_metadata(element, "Memory source", "Source", "Pushes a file held in memory",
                                          "vq_graph");
    GstBaseSrcClass* base = GST_BASE_SRC_CLASS(klass);
    base->start = mem_src_start;
    base->create = mem_src_create;
}

void mem_src_init(MemSrc* self) {
    self->location = nullptr;
    self->data = nullptr;
    self->size = 0;
    self->position = 0;
}

struct run_state {
    uint64_t stopAtBytes = 0;  // 0: no byte limit
    int pipelines = 1;
    int ended = 0;  // pipelines that reached end of stream
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
        bool all = false;
        {
            std::lock_guard<std::mutex> lock(run.mutex);
            all = ++run.ended == run.pipelines;
        }
        if (all)
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
    std::fputs("Usage: gst_rate [--bytes N] [--seconds S] [--copies N] PIPELINE...\n", stderr);
    return 2;
}

// The description with every "@N@" replaced by `index`.
std::string numbered(std::string description, int index) {
    const std::string mark = "@N@", number = std::to_string(index);
    for (size_t at = description.find(mark); at != std::string::npos; at = description.find(mark, at + number.size()))
        description.replace(at, mark.size(), number);
    return description;
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    gst_element_register(nullptr, "vqmemsrc", GST_RANK_NONE, mem_src_get_type());
    run_state run;
    double seconds = 600;
    std::string description;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--bytes" && i + 1 < argc)
            run.stopAtBytes = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--seconds" && i + 1 < argc)
            seconds = std::atof(argv[++i]);
        else if (a == "--copies" && i + 1 < argc)
            run.pipelines = std::max(1, std::atoi(argv[++i]));
        else
            description += (description.empty() ? "" : " ") + a;
    }
    if (description.empty())
        return usage();

    std::vector<GstElement*> pipelines;
    std::vector<GstBus*> buses;
    auto release = [&pipelines, &buses] {
        for (GstElement* pipeline : pipelines)
            gst_element_set_state(pipeline, GST_STATE_NULL);
        for (GstBus* bus : buses) {
            gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
            gst_object_unref(bus);
        }
        for (GstElement* pipeline : pipelines)
            gst_object_unref(pipeline);
    };
    for (int n = 0; n < run.pipelines; ++n) {
        GError* error = nullptr;
        GstElement* pipeline = gst_parse_launch(numbered(description, n).c_str(), &error);
        if (!pipeline || error) {
            std::fprintf(stderr, "gst_rate: %s\n", error ? error->message : "cannot build the pipeline");
            g_clear_error(&error);
            if (pipeline)
                gst_object_unref(pipeline);
            release();
            return 1;
        }
        pipelines.push_back(pipeline);
        GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
        if (!sink) {
            std::fputs("gst_rate: the pipeline has no element named \"sink\"\n", stderr);
            release();
            return 1;
        }
        GstPad* pad = gst_element_get_static_pad(sink, "sink");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, count_bytes, &run, nullptr);
        gst_object_unref(pad);
        gst_object_unref(sink);
        GstBus* bus = gst_element_get_bus(pipeline);
        gst_bus_set_sync_handler(bus, watch_bus, &run, nullptr);
        buses.push_back(bus);
    }

    // Set-up (opening files and devices, mapping buffers, prerolling) is left out:
    // the clocks start once every pipeline is paused.
    for (GstElement* pipeline : pipelines) {
        if (gst_element_set_state(pipeline, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE ||
            gst_element_get_state(pipeline, nullptr, nullptr, 10 * GST_SECOND) == GST_STATE_CHANGE_FAILURE)
            finish(run, true, "the pipeline does not pause");
    }
    const uint64_t bytes0 = run.bytes.load();
    const double cpu0 = cpu_seconds();
    const steady::time_point t0 = steady::now();
    for (GstElement* pipeline : pipelines) {
        if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
            finish(run, true, "the pipeline does not start");
    }
    {
        std::unique_lock<std::mutex> lock(run.mutex);
        run.done.wait_for(lock, std::chrono::duration<double>(seconds), [&run] { return run.finished; });
    }
    const double wall = std::chrono::duration<double>(steady::now() - t0).count();
    const double cpu = cpu_seconds() - cpu0;
    const uint64_t bytes = run.bytes.load() - bytes0;
    release();

    if (run.failed) {
        std::fprintf(stderr, "gst_rate: %s\n", run.error.c_str());
        return 1;
    }
    std::printf("bytes=%llu seconds=%.6f cpu_seconds=%.6f\n", static_cast<unsigned long long>(bytes), wall, cpu);
    return 0;
}
