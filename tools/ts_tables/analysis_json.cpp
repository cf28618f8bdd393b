#include "analysis_json.h"

nlohmann::ordered_json pid_figures_json(const mpegcore::ts_pid_figures& f) {
    return {{"pid", f.pid},
            {"packets", f.packets},
            {"bitrate", f.bitrate},
            {"cc_errors", f.cc_errors},
            {"duplicates", f.duplicates},
            {"scrambled", f.scrambled},
            {"tei", f.tei},
            {"pcr", f.pcr},
            {"pts", f.pts},
            {"dts", f.dts},
            {"service", f.service < 0 ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(f.service)}};
}

nlohmann::ordered_json stream_figures_json(const mpegcore::ts_stream_figures& ts) {
    return {{"packets", ts.packets}, {"bitrate", ts.bitrate}, {"duration_ms", ts.duration_ms}};
}
