#pragma once
// The stream analysis's per-PID and stream figures as JSON, the same in
// ts-analyze's report and in vqasi-monitor's port objects (members in the
// order written).

#include <nlohmann/json.hpp>

#include "mpegcore/TsAnalyzer.h"

nlohmann::ordered_json pid_figures_json(const mpegcore::ts_pid_figures& f);
nlohmann::ordered_json stream_figures_json(const mpegcore::ts_stream_figures& ts);
