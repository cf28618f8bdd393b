#pragma once
// An alarm manager for tests: records every reg_alarm/unreg_alarm call in order.

#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "vq_asi_capture/vq_i_alarm_manager.h"

namespace vq_test {

class recording_alarm_manager : public vq_i_alarm_manager {
public:
    enum class op { reg, unreg };
    struct call {
        op what;
        std::shared_ptr<vq_i_alarm_event> alarm;
    };

    void reg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_calls.push_back({op::reg, alarm});
        m_held.insert(std::move(alarm));
    }

    void unreg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) override {
        std::lock_guard<std::mutex> lock(m_cs);
        m_calls.push_back({op::unreg, alarm});
        m_held.erase(alarm);
    }

    std::vector<call> calls() const {
        std::lock_guard<std::mutex> lock(m_cs);
        return m_calls;
    }

    // The alarms registered and not unregistered since.
    std::vector<std::shared_ptr<vq_i_alarm_event>> held() const {
        std::lock_guard<std::mutex> lock(m_cs);
        return {m_held.begin(), m_held.end()};
    }

    void clear() {
        std::lock_guard<std::mutex> lock(m_cs);
        m_calls.clear();
    }

private:
    mutable std::mutex m_cs;
    std::vector<call> m_calls;
    std::set<std::shared_ptr<vq_i_alarm_event>> m_held;
};

}  // namespace vq_test
