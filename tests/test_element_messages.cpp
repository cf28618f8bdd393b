// What any GStreamer application (Python, Rust, gst-launch-1.0 -m) can read of
// vqasicapture's alarms without a C++ pointer: the "vqasi-alarm" element messages on
// the bus, posted at every transition.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "element/element_test_util.h"
#include "support/test_data.h"
#include "vq_asi_capture/vq_alarm_data.h"
#include "vq_polling_alarm_manager.h"

namespace {

using vq_element_test::pipeline;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

// One "vqasi-alarm" message or manager line: what changed.
struct transition {
    int code;
    std::string description;
    bool active;
    bool operator==(const transition& o) const {
        return std::tie(code, description, active) == std::tie(o.code, o.description, o.active);
    }
};
std::ostream& operator<<(std::ostream& out, const transition& t) {
    return out << t.code << " '" << t.description << "' " << (t.active ? "active" : "cleared");
}

// The "vqasi-alarm" messages of a bus, collected while a test waits.
class alarm_messages {
public:
    explicit alarm_messages(GstElement* bin) : m_bus(gst_element_get_bus(bin)) {}
    ~alarm_messages() {
        for (GstStructure* s : m_all)
            gst_structure_free(s);
        gst_object_unref(m_bus);
    }
    alarm_messages(const alarm_messages&) = delete;
    alarm_messages& operator=(const alarm_messages&) = delete;

    const std::vector<GstStructure*>& drain() {
        while (GstMessage* msg = gst_bus_pop_filtered(m_bus, GST_MESSAGE_ELEMENT)) {
            const GstStructure* s = gst_message_get_structure(msg);
            if (s && gst_structure_has_name(s, "vqasi-alarm"))
                m_all.push_back(gst_structure_copy(s));
            gst_message_unref(msg);
        }
        return m_all;
    }
    size_t count(int code, bool active) {
        size_t n = 0;
        for (const GstStructure* s : drain()) {
            gint c = 0;
            gboolean a = FALSE;
            gst_structure_get_int(s, "code", &c);
            gst_structure_get_boolean(s, "active", &a);
            n += c == code && (a != FALSE) == active;
        }
        return n;
    }
    // Per alarm (by description), the transitions in order.
    std::map<std::string, std::vector<transition>> by_alarm() {
        std::map<std::string, std::vector<transition>> out;
        for (const GstStructure* s : drain()) {
            gint code = 0;
            gboolean active = FALSE;
            gst_structure_get_int(s, "code", &code);
            gst_structure_get_boolean(s, "active", &active);
            const std::string description = gst_structure_get_string(s, "description");
            out[description].push_back({code, description, active != FALSE});
        }
        return out;
    }

private:
    GstBus* m_bus;
    std::vector<GstStructure*> m_all;
};

// The polling manager's ALARM/CLEAR lines, per alarm (by description), in order.
class manager_lines {
public:
    void add(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_cs);
        const bool active = line.rfind("ALARM ", 0) == 0;
        const size_t code = line.find("code=") + 5;
        const size_t description = line.find("description=") + 12;
        const size_t end = line.rfind(", count=");
        const std::string text = line.substr(description, end - description);
        m_lines[text].push_back({std::stoi(line.substr(code)), text, active});
    }
    std::map<std::string, std::vector<transition>> by_alarm() const {
        std::lock_guard<std::mutex> lock(m_cs);
        return m_lines;
    }

private:
    mutable std::mutex m_cs;
    std::map<std::string, std::vector<transition>> m_lines;
};

// No link for 2.5 s, then 4 s of data with continuity errors, then no data: the three
// input alarms rise, clear, and the two data alarms rise again; CC alarms on PIDs.
std::map<std::string, std::string> scripted_board() {
    return {{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
            {"VQASISIM_BITRATE", "1504000"},
            {"VQASISIM_CC_ERRORS", "100"},
            {"VQASISIM_SIGNAL", "nolink:2.5,ok:4,nodata"}};
}

// Plays the scripted board until the no-input alarm has risen a second time, then
// stops; returns the messages per alarm.
std::map<std::string, std::vector<transition>> play_scripted(vq_i_alarm_manager* manager) {
    sim_settings sim(scripted_board());
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 alarm-source-name=cam1 ! fakesink sync=false");
    EXPECT_NE(p.capture, nullptr);
    if (!p.capture)
        return {};
    if (manager)
        g_object_set(p.capture, "alarm-manager", manager, nullptr);
    alarm_messages messages(p.bin);
    EXPECT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(
        wait_until([&] { return messages.count(eAlarmASIInputNoInputData, true) == 2; }, std::chrono::seconds(20)));
    // A last poll of the manager sees the same state before the stop withdraws the alarms.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    gst_element_set_state(p.bin, GST_STATE_NULL);
    if (manager)
        g_object_set(p.capture, "alarm-manager", nullptr, nullptr);
    return messages.by_alarm();
}

TEST(ElementAlarmMessages, WithAManagerTheBusCarriesWhatTheManagerSees) {
    manager_lines lines;
    std::map<std::string, std::vector<transition>> posted;
    {
        vq_polling_alarm_manager manager(std::chrono::milliseconds(20),
                                         [&](const std::string& line) { lines.add(line); });
        posted = play_scripted(&manager);
    }
    const auto seen = lines.by_alarm();
    EXPECT_EQ(posted, seen);
    const std::vector<transition> syncLost = {{eAlarmASIInputSyncLost, "Sync lost ", true},
                                              {eAlarmASIInputSyncLost, "Sync lost ", false}};
    EXPECT_EQ(posted["Sync lost "], syncLost);
    EXPECT_EQ(posted["No input data "].size(), 3u);
    bool cc = false;
    for (const auto& alarm : posted)
        cc = cc || alarm.first.rfind("CC error on PID ", 0) == 0;
    EXPECT_TRUE(cc);
}

TEST(ElementAlarmMessages, WithoutAManagerTheElementPollsItsOwnAlarms) {
    manager_lines lines;
    std::map<std::string, std::vector<transition>> withManager;
    {
        vq_polling_alarm_manager manager(std::chrono::milliseconds(20),
                                         [&](const std::string& line) { lines.add(line); });
        withManager = play_scripted(&manager);
    }
    const auto alone = play_scripted(nullptr);
    for (const char* input : {"Sync lost ", "No raw input data ", "No input data "}) {
        ASSERT_TRUE(alone.count(input)) << input;
        EXPECT_EQ(alone.at(input), withManager.at(input)) << input;
    }
    for (const auto& alarm : alone)
        EXPECT_TRUE(withManager.count(alarm.first)) << alarm.first;
}

TEST(ElementAlarmMessages, FieldsAndTheElementNameAsSourceWithoutASourceName) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
                      {"VQASISIM_BITRATE", "1504000"},
                      {"VQASISIM_CC_ERRORS", "100"}});
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink sync=false");
    ASSERT_NE(p.capture, nullptr);
    alarm_messages messages(p.bin);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(wait_until([&] { return messages.count(eAlarmRemuxerInputCC, true) > 0; }));
    gst_element_set_state(p.bin, GST_STATE_NULL);
    for (const GstStructure* s : messages.drain()) {
        gint code = 0, level = 0, pid = 0;
        guint count = 0;
        gboolean active = FALSE;
        ASSERT_TRUE(gst_structure_get_int(s, "code", &code));
        ASSERT_TRUE(gst_structure_get_int(s, "level", &level));
        ASSERT_TRUE(gst_structure_get_int(s, "pid", &pid));
        ASSERT_TRUE(gst_structure_get_uint(s, "count", &count));
        ASSERT_TRUE(gst_structure_get_boolean(s, "active", &active));
        // No source name: no input alarms, and the PID alarms name the element.
        EXPECT_EQ(code, eAlarmRemuxerInputCC);
        EXPECT_EQ(level, 2);
        EXPECT_STREQ(gst_structure_get_string(s, "source"), "cap");
        EXPECT_EQ(gst_structure_get_string(s, "description"), "CC error on PID " + std::to_string(pid));
        EXPECT_GE(count, 1u);
        const std::string regTime = gst_structure_get_string(s, "reg-time");
        EXPECT_EQ(regTime.size(), std::string("23.11.2026 22:20:05").size()) << regTime;
    }
}

}  // namespace
