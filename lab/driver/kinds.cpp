#include "lab/driver/kinds.h"

#include <algorithm>

const std::vector<lab::Kind>& lab::all_kinds() {
  static const std::vector<Kind> kinds = {
      {"perf", "/tarv/data/logs/reports", "perf_report_2026-02-03", true},
      {"measmin", "/tarv/data/logs/measurements", "measurements_0905", false},
      {"ireport", "/tarv/data/logs/history/installation", "installation_report", true},
      {"clp", "/tarv/data/logs/clp", "clp_20260203", false},
      {"Debug", "/tarv/data/logs/debug", "debug_20260203_0905.txt", false},
      {"TLink", "/tarv/data/logs/tlink", "tlink_bus", false},
      {"UI", "/tarv/data/logs/UI", "ui_events", false},
      {"Demand", "/tarv/data/logs/demand", "demand_response", false},
      {"TComp", "/tarv/data/logs/tcomp", "tcomp", false},
      {"lg", "/tarv/data/logs/wg", "wg_gateway", false},
      {"rg", "/tarv/data/logs/rg", "rg_gateway", false},
      {"pushpull", "/tarv/data/logs/ppstat", "pushpull_stats", false},
      {"diagnostics", "/tarv/data/logs/diagnostics", "diagnostics_full", false},
      {"logconsumer", "/tarv/data/logs/logconsumer", "logconsumer_log__2026_2_3_9_5_.log", false},
  };
  return kinds;
}

const lab::Kind* lab::find_kind(const std::string& name) {
  const auto& kinds = all_kinds();
  const auto found = std::find_if(kinds.begin(), kinds.end(),
                                  [&name](const Kind& kind) { return kind.name == name; });
  return found == kinds.end() ? nullptr : &*found;
}

std::string lab::kind_names() {
  std::string names;
  for (const Kind& kind : all_kinds())
    names += " " + kind.name;
  return names;
}
