// The vqasicapture plug-in as GStreamer sees it: metadata, pad template,
// properties and their flags, the pad's query and event functions, and a failing
// open of the device.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "element/element_test_util.h"

namespace {

using vq_element_test::log_capture;
using vq_element_test::make_capture_element;
using vq_element_test::print_capture;

struct element_deleter {
    void operator()(GstElement* e) const {
        gst_element_set_state(e, GST_STATE_NULL);
        gst_object_unref(e);
    }
};
using element_ptr = std::unique_ptr<GstElement, element_deleter>;

element_ptr new_element() {
    element_ptr e(make_capture_element());
    EXPECT_NE(e, nullptr) << "vqasicapture is not registered (GST_PLUGIN_PATH?)";
    return e;
}

bool contains(const std::vector<std::string>& lines, const std::string& part) {
    for (const std::string& line : lines)
        if (line.find(part) != std::string::npos)
            return true;
    return false;
}

TEST(ElementPlugin, MetadataAndPadTemplate) {
    vq_element_test::init_gstreamer();
    GstElementFactory* factory = gst_element_factory_find("vqasicapture");
    ASSERT_NE(factory, nullptr);
    EXPECT_STREQ(gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_LONGNAME), "Korvana QMXXX ASI Capture");
    EXPECT_STREQ(gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS), "Korvana Ostrelle");
    EXPECT_STREQ(gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_DESCRIPTION),
                 "Capture for korvana board");
    const std::string author = gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_AUTHOR);
    EXPECT_NE(author.find('@'), std::string::npos) << author;
    EXPECT_EQ(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(factory)), static_cast<guint>(GST_RANK_NONE));

    const GList* templates = gst_element_factory_get_static_pad_templates(factory);
    ASSERT_EQ(g_list_length(const_cast<GList*>(templates)), 1u);
    auto* templ = static_cast<GstStaticPadTemplate*>(templates->data);
    EXPECT_STREQ(templ->name_template, "src_asi");
    EXPECT_EQ(templ->direction, GST_PAD_SRC);
    EXPECT_EQ(templ->presence, GST_PAD_ALWAYS);
    EXPECT_STREQ(templ->static_caps.string, "video/mpegts, systemstream=(boolean)true, packetsize=(int)188");

    GstPlugin* plugin = gst_plugin_feature_get_plugin(GST_PLUGIN_FEATURE(factory));
    ASSERT_NE(plugin, nullptr);
    EXPECT_STREQ(gst_plugin_get_name(plugin), "vqasicapture");
    EXPECT_STREQ(gst_plugin_get_description(plugin), "Korvana QMXXX ASI Capture");
    EXPECT_STREQ(gst_plugin_get_version(plugin), "1.20.1");
    EXPECT_STREQ(gst_plugin_get_license(plugin), "LGPL");
    EXPECT_STREQ(gst_plugin_get_source(plugin), "vqasicapture");
    EXPECT_STREQ(gst_plugin_get_package(plugin), "QM100/QM200/QM300.. Gst asi capture");
    EXPECT_STREQ(gst_plugin_get_origin(plugin), "Korvana");
    EXPECT_EQ(gst_plugin_get_release_date_string(plugin), nullptr);
    gst_object_unref(plugin);
    gst_object_unref(factory);
}

TEST(ElementPlugin, InstanceTypeAndAlwaysPad) {
    element_ptr e = new_element();
    ASSERT_TRUE(e);
    EXPECT_STREQ(G_OBJECT_TYPE_NAME(e.get()), "GstVqAsiCaptureType");
    EXPECT_EQ(g_type_parent(G_OBJECT_TYPE(e.get())), GST_TYPE_ELEMENT);
    GstPad* pad = gst_element_get_static_pad(e.get(), "src_asi");
    ASSERT_NE(pad, nullptr);
    EXPECT_EQ(GST_PAD_DIRECTION(pad), GST_PAD_SRC);
    EXPECT_TRUE(GST_PAD_IS_PROXY_CAPS(pad));
    EXPECT_TRUE(GST_PAD_IS_FIXED_CAPS(pad));
    gst_object_unref(pad);
    EXPECT_EQ(e->numpads, 1);
}

struct property_row {
    guint id;
    const char* name;
    const char* nick;
    const char* blurb;
    GType value_type;
    GParamFlags flags;
};

TEST(ElementPlugin, SixPropertiesInOrderWithFlagsThenStats) {
    element_ptr e = new_element();
    ASSERT_TRUE(e);
    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE);
    const property_row rows[] = {
        {1, "v4l2", "v4l2", "Video for linux 2 asi device, example v4l2=/dev/video0", G_TYPE_STRING, rw},
        {2, "input_type", "Input type", "Input stream type 0 - TS, 1 - T2MI", G_TYPE_INT, rw},
        {3, "plp", "plp", "Index PLP", G_TYPE_INT, rw},
        {4, "statistics", "statistics", "ASI capture statistics", G_TYPE_POINTER, G_PARAM_READABLE},
        {5, "alarm-source-name", "Alarm source name", "Name of source alarm for alarm manager", G_TYPE_STRING,
         static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)},
        {6, "alarm-manager", "alarm-manager", "Set alarm manager", G_TYPE_POINTER, G_PARAM_WRITABLE},
    };
    GObjectClass* klass = G_OBJECT_GET_CLASS(e.get());
    for (const property_row& row : rows) {
        SCOPED_TRACE(row.name);
        GParamSpec* pspec = g_object_class_find_property(klass, row.name);
        ASSERT_NE(pspec, nullptr);
        EXPECT_EQ(pspec->owner_type, G_OBJECT_TYPE(e.get()));
        EXPECT_EQ(pspec->param_id, row.id);
        EXPECT_STREQ(g_param_spec_get_nick(pspec), row.nick);
        EXPECT_STREQ(g_param_spec_get_blurb(pspec), row.blurb);
        EXPECT_EQ(G_PARAM_SPEC_VALUE_TYPE(pspec), row.value_type);
        const auto mask = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
        EXPECT_EQ(pspec->flags & mask, row.flags);
    }
    auto* input_type = G_PARAM_SPEC_INT(g_object_class_find_property(klass, "input_type"));
    EXPECT_EQ(input_type->minimum, 0);
    EXPECT_EQ(input_type->maximum, 1);
    EXPECT_EQ(input_type->default_value, 0);
    auto* plp = G_PARAM_SPEC_INT(g_object_class_find_property(klass, "plp"));
    EXPECT_EQ(plp->minimum, 0);
    EXPECT_EQ(plp->maximum, 255);
    EXPECT_EQ(plp->default_value, 0);
    EXPECT_STREQ(G_PARAM_SPEC_STRING(g_object_class_find_property(klass, "v4l2"))->default_value, "");
    EXPECT_STREQ(G_PARAM_SPEC_STRING(g_object_class_find_property(klass, "alarm-source-name"))->default_value, "");

    // The read-only structure of the statistics comes after the six.
    GParamSpec* stats = g_object_class_find_property(klass, "stats");
    ASSERT_NE(stats, nullptr);
    EXPECT_EQ(stats->param_id, 7u);
    EXPECT_EQ(G_PARAM_SPEC_VALUE_TYPE(stats), GST_TYPE_STRUCTURE);
    EXPECT_EQ(stats->flags & G_PARAM_READWRITE, G_PARAM_READABLE);

    // Only the element's own seven besides GstObject's "name" and "parent".
    guint count = 0;
    GParamSpec** all = g_object_class_list_properties(klass, &count);
    guint own = 0;
    for (guint i = 0; i < count; ++i)
        own += all[i]->owner_type == G_OBJECT_TYPE(e.get());
    g_free(all);
    EXPECT_EQ(own, 7u);
}

TEST(ElementPlugin, PropertiesRoundTrip) {
    element_ptr e = new_element();
    ASSERT_TRUE(e);
    gchar* path = nullptr;
    gchar* source = nullptr;
    gint inputType = -1, plp = -1;
    g_object_get(e.get(), "v4l2", &path, "alarm-source-name", &source, "input_type", &inputType, "plp", &plp, nullptr);
    EXPECT_STREQ(path, "");
    EXPECT_STREQ(source, "");
    EXPECT_EQ(inputType, 0);
    EXPECT_EQ(plp, 0);
    g_free(path);
    g_free(source);

    g_object_set(e.get(), "v4l2", "/dev/video7", "alarm-source-name", "cam1", "input_type", 1, "plp", 255, nullptr);
    g_object_get(e.get(), "v4l2", &path, "alarm-source-name", &source, "input_type", &inputType, "plp", &plp, nullptr);
    EXPECT_STREQ(path, "/dev/video7");
    EXPECT_STREQ(source, "cam1");
    EXPECT_EQ(inputType, 1);
    EXPECT_EQ(plp, 255);
    g_free(path);
    g_free(source);

    gpointer statistics = nullptr;
    g_object_get(e.get(), "statistics", &statistics, nullptr);
    EXPECT_NE(statistics, nullptr);
    gpointer again = nullptr;
    g_object_get(e.get(), "statistics", &again, nullptr);
    EXPECT_EQ(statistics, again);
}

TEST(ElementPlugin, RangesAndFlagsAreEnforcedBeforeTheElement) {
    element_ptr e = new_element();
    ASSERT_TRUE(e);
    log_capture warnings("GLib-GObject");
    g_object_set(e.get(), "plp", 256, nullptr);
    g_object_set(e.get(), "input_type", 2, nullptr);
    gint plp = -1, inputType = -1;
    g_object_get(e.get(), "plp", &plp, "input_type", &inputType, nullptr);
    EXPECT_EQ(plp, 0);
    EXPECT_EQ(inputType, 0);

    gpointer manager = reinterpret_cast<gpointer>(0x1);
    g_object_get(e.get(), "alarm-manager", &manager, nullptr);
    EXPECT_EQ(manager, reinterpret_cast<gpointer>(0x1));
    g_object_set(e.get(), "statistics", nullptr, nullptr);

    const std::vector<std::string> messages = warnings.messages();
    EXPECT_TRUE(contains(messages, "'plp'")) << messages.size();
    // GLib keeps the name in its canonical form, with a hyphen.
    EXPECT_TRUE(contains(messages, "'input-type'"));
    EXPECT_TRUE(contains(messages, "alarm-manager"));
    EXPECT_TRUE(contains(messages, "statistics"));
}

TEST(ElementPlugin, InvalidPropertyIdIsWarnedWithThisSourceFile) {
    element_ptr e = new_element();
    ASSERT_TRUE(e);
    GObjectClass* klass = G_OBJECT_GET_CLASS(e.get());
    GParamSpec* pspec = g_object_class_find_property(klass, "v4l2");
    log_capture warnings(nullptr);
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    g_value_set_string(&value, "x");
    klass->set_property(G_OBJECT(e.get()), 99, &value, pspec);
    klass->get_property(G_OBJECT(e.get()), 98, &value, pspec);
    g_value_unset(&value);
    const std::vector<std::string> messages = warnings.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].rfind("vq_graph/vq_asi_capture/vq_asi_capture.cpp:", 0), 0u) << messages[0];
    EXPECT_NE(messages[0].find(": invalid property id 99 for \"v4l2\" of type 'GParamString' in "
                               "'GstVqAsiCaptureType'"),
              std::string::npos)
        << messages[0];
    EXPECT_NE(messages[1].find("invalid property id 98"), std::string::npos) << messages[1];
}

TEST(ElementPlugin, CapsQueryIgnoresTheFilter) {
    element_ptr e = new_element();
    ASSERT_TRUE(e);
    GstPad* pad = gst_element_get_static_pad(e.get(), "src_asi");
    GstCaps* filter = gst_caps_from_string("video/x-raw");
    GstCaps* caps = gst_pad_query_caps(pad, filter);
    ASSERT_NE(caps, nullptr);
    gchar* text = gst_caps_to_string(caps);
    EXPECT_STREQ(text, "video/mpegts, systemstream=(boolean)true, packetsize=(int)188");
    g_free(text);
    gst_caps_unref(caps);
    gst_caps_unref(filter);

    // Anything else is the default handler's: an unlinked pad answers no position query.
    gint64 position = 0;
    EXPECT_FALSE(gst_pad_query_position(pad, GST_FORMAT_TIME, &position));
    gst_object_unref(pad);
}

TEST(ElementPlugin, UpstreamEventsAreReportedAsNotHandled) {
    element_ptr e = new_element();
    ASSERT_TRUE(e);
    GstPad* pad = gst_element_get_static_pad(e.get(), "src_asi");
    // An active pad, so the event reaches the event function rather than being refused as flushing.
    ASSERT_TRUE(gst_pad_set_active(pad, TRUE));
    EXPECT_FALSE(gst_pad_send_event(pad, gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.5, 1000, 0)));
    EXPECT_FALSE(gst_pad_send_event(pad, gst_event_new_reconfigure()));
    gst_pad_set_active(pad, FALSE);
    gst_object_unref(pad);
}

TEST(ElementPlugin, ReadyFailsWithTheDevicesMessageForEmptyOrWrongPath) {
    for (const char* path : {"", "/nonexistent/video-vq-9"}) {
        SCOPED_TRACE(path);
        print_capture printed;
        element_ptr e = new_element();
        ASSERT_TRUE(e);
        g_object_set(e.get(), "v4l2", path, nullptr);
        EXPECT_EQ(gst_element_set_state(e.get(), GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
        const std::string text = printed.str();
        EXPECT_NE(text.find("vq_asi_capture: NULL_TO_READY\n"), std::string::npos) << text;
        EXPECT_NE(text.find(std::string("vqasicapture: Can't open asi device: ") + path + "\n"), std::string::npos)
            << text;
        GstState state = GST_STATE_VOID_PENDING;
        gst_element_get_state(e.get(), &state, nullptr, 0);
        EXPECT_EQ(state, GST_STATE_NULL);
        // Finalize after the failure: the capture object is stopped and deleted once (checked by ASan).
    }
}

TEST(ElementPlugin, GstInspectShowsMetadataPadAndProperties) {
    FILE* pipe = popen("gst-inspect-1.0 vqasicapture 2>&1", "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    char chunk[4096];
    size_t n = 0;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        out.append(chunk, n);
    EXPECT_EQ(pclose(pipe), 0) << out;
    for (const char* expected : {"Long-name                Korvana QMXXX ASI Capture",
                                 "Klass                    Korvana Ostrelle",
                                 "Description              Capture for korvana board",
                                 "Name                     vqasicapture",
                                 "Description              Korvana QMXXX ASI Capture",
                                 "Version                  1.20.1",
                                 "License                  LGPL",
                                 "Source module            vqasicapture",
                                 "Binary package           QM100/QM200/QM300.. Gst asi capture",
                                 "Origin URL               Korvana",
                                 "SRC template: 'src_asi'",
                                 "Availability: Always",
                                 "video/mpegts",
                                 "systemstream: true",
                                 "packetsize: 188",
                                 "GstVqAsiCaptureType",
                                 "stats               : The capture statistics",
                                 "v4l2                : Video for linux 2 asi device, example v4l2=/dev/video0",
                                 "input-type          : Input stream type 0 - TS, 1 - T2MI",
                                 "Integer. Range: 0 - 1 Default: 0",
                                 "plp                 : Index PLP",
                                 "Integer. Range: 0 - 255 Default: 0",
                                 "statistics          : ASI capture statistics",
                                 "alarm-source-name   : Name of source alarm for alarm manager",
                                 "alarm-manager       : Set alarm manager",
                                 "Pointer. Write only",
                                 "flags: readable\n",
                                 "flags: writable\n",
                                 "flags: readable, writable\n",
                                 "String. Default: \"\""}) {
        EXPECT_NE(out.find(expected), std::string::npos) << "missing: " << expected << "\n" << out;
    }
    // The documentation of "stats" names every field.
    for (const char* field : {"system-time",
                              "signal-state",
                              "no-data-count",
                              "no-link-count",
                              "no-lock-count",
                              "range-count",
                              "unknown-count",
                              "bitrate",
                              "raw-bitrate",
                              "bytes",
                              "raw-bytes",
                              "bad-bytes",
                              "frames",
                              "dropped-frames",
                              "fake-frames",
                              "map-delay-min",
                              "map-delay-avg",
                              "map-delay-max",
                              "push-delay-min",
                              "push-delay-avg",
                              "push-delay-max",
                              "frame-interval-min",
                              "frame-interval-avg",
                              "frame-interval-max",
                              "last-error"})
        EXPECT_NE(out.find(field), std::string::npos) << "stats field not documented: " << field;
}

}  // namespace
