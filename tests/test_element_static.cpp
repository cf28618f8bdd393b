// An application that links the plug-in's code and registers it statically:
// no GST_PLUGIN_PATH, gst_plugin_vqasicapture_register() makes the element known.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "element/element_test_util.h"
#include "support/test_data.h"
#include "vq_asi_capture/vq_gst_asi_capture.h"

namespace {

TEST(ElementStatic, RegisteringStaticallyMakesTheElementAvailable) {
    ASSERT_EQ(std::getenv("GST_PLUGIN_PATH"), nullptr) << "this program must find the element only by itself";
    vq_element_test::init_gstreamer();
    // Not installed and not on any plug-in path.
    EXPECT_EQ(gst_element_factory_make("vqasicapture", nullptr), nullptr);

    const GstPluginDesc* desc = gst_plugin_vqasicapture_get_desc();
    ASSERT_NE(desc, nullptr);
    EXPECT_EQ(desc->major_version, 1);
    EXPECT_EQ(desc->minor_version, 20);
    EXPECT_STREQ(desc->name, "vqasicapture");
    EXPECT_STREQ(desc->description, "Korvana QMXXX ASI Capture");
    EXPECT_STREQ(desc->version, "1.20.1");
    EXPECT_STREQ(desc->license, "LGPL");
    EXPECT_STREQ(desc->source, "vqasicapture");
    EXPECT_STREQ(desc->package, "QM100/QM200/QM300.. Gst asi capture");
    EXPECT_STREQ(desc->origin, "Korvana");
    EXPECT_EQ(desc->release_datetime, nullptr);
    ASSERT_NE(desc->plugin_init, nullptr);

    ASSERT_TRUE(gst_plugin_vqasicapture_register());
    GstPlugin* plugin = gst_registry_find_plugin(gst_registry_get(), "vqasicapture");
    ASSERT_NE(plugin, nullptr);
    // A static plug-in has no file behind it.
    EXPECT_EQ(gst_plugin_get_filename(plugin), nullptr);
    EXPECT_STREQ(gst_plugin_get_description(plugin), "Korvana QMXXX ASI Capture");
    gst_object_unref(plugin);

    GstElement* element = gst_element_factory_make("vqasicapture", "cap");
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(G_OBJECT_TYPE(element), gst_vqasicapture_get_type());
    EXPECT_STREQ(G_OBJECT_TYPE_NAME(element), "GstVqAsiCaptureType");
    GstPad* pad = gst_element_get_static_pad(element, "src_asi");
    EXPECT_NE(pad, nullptr);
    if (pad)
        gst_object_unref(pad);
    gst_object_unref(element);
}

TEST(ElementStatic, TheStaticallyRegisteredElementCaptures) {
    vqasisim_testing::scoped_env sim(
        vqasisim_testing::node_settings("/dev/video0", vq_test::dataPath("live-025.ts"), {}));
    vq_element_test::init_gstreamer();
    GstPluginFeature* known = gst_registry_lookup_feature(gst_registry_get(), "vqasicapture");
    if (known)
        gst_object_unref(known);
    else
        ASSERT_TRUE(gst_plugin_vqasicapture_register());
    vq_element_test::pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink");
    ASSERT_NE(p.capture, nullptr);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    // The capture reaches the sink.
    EXPECT_TRUE(vq_element_test::wait_until(
        [&] { return vq_element_test::item_number(p.capture, "Asi capture frames") > 10; }));
}

}  // namespace
