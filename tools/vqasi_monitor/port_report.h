#pragma once
// The ports' snapshots as Prometheus text exposition and as the JSON of the
// status API and of the --json lines.

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "monitor_port.h"

// Prometheus text format: # HELP and # TYPE for every metric family.
std::string prometheus_metrics(const std::vector<port_snapshot>& ports);

// One port: its options, state, statistics items, active alarms, check counts.
nlohmann::json port_json(const port_snapshot& port);

// "Ok" -> "ok", "No link" -> "no_link": the label value of a signal state.
std::string signal_state_label(const std::string& state);
