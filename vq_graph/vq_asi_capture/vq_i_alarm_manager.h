#pragma once
// Implemented by the application: watches the alarms the element registers and
// polls them at its own pace.

#include <memory>

#include "vq_asi_capture/vq_i_alarm_event.h"

class vq_i_alarm_manager {
public:
    virtual ~vq_i_alarm_manager() = default;

    // Both are called with the element's alarm registry locked: they must not call
    // back into the element. unreg_alarm must accept an alarm it does not hold.
    virtual void reg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) = 0;
    virtual void unreg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) = 0;
};
