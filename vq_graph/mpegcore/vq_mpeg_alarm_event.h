#pragma once
// Error hooks of the transport stream parsers. Every hook does nothing here;
// users derive and override the ones they report.

namespace mpegcore {

class vq_mpeg_alarm_event {
public:
    virtual ~vq_mpeg_alarm_event() = default;

    virtual void on_scrambler_pid(unsigned short /*pid*/) {}
    virtual void on_tei_pid(unsigned short /*pid*/) {}
    virtual void on_ts_sync_lost() {}
    virtual void on_sync_byte_error() {}
    virtual void on_pat_error(unsigned short /*pid*/) {}
    virtual void on_cc_error(unsigned short /*pid*/) {}
    virtual void on_pmt_error(unsigned short /*pmtPid*/, unsigned short /*pid*/) {}
    virtual void on_pid_error(unsigned short /*pid*/) {}
};

}  // namespace mpegcore
