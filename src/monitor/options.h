#pragma once

#include <optional>
#include <string>

#include "monitor/frame.h"

namespace sonderlark {

// What sonderlark-monitor is told.
struct MonitorOptions {
  std::string path;  // empty: live mode's default status path
  int interval_ms = 100;
  bool once = false;
  bool color = true;
  std::optional<ScreenSize> size;  // --size; else the terminal's
};

void print_monitor_usage(const char* program);

// Fills `options` from the command line. Nothing when the run goes on;
// else the exit status to end with: 0 after the usage for --help, 2 for a
// refused line (its message on standard error, then the usage).
std::optional<int> parse_monitor_args(int argc, char** argv, MonitorOptions& options);

}  // namespace sonderlark
