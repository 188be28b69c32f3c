#include "monitor/options.h"

#include <cstdio>
#include <iostream>

#include "util/args.h"

namespace sonderlark {
namespace {

// "COLSxROWS", each 1 to 10000.
std::optional<ScreenSize> screen_size(const std::string& text) {
  int cols = 0, rows = 0;
  char end = 0;
  if (std::sscanf(text.c_str(), "%dx%d%c", &cols, &rows, &end) != 2 || cols < 1 || rows < 1 || cols > 10000 ||
      rows > 10000 || text.find_first_not_of("0123456789x") != std::string::npos) {
    return std::nullopt;
  }
  return ScreenSize{cols, rows};
}

}  // namespace

void print_monitor_usage(const char* program) {
  std::cout << "Usage: " << program << " [STATUS_PATH] [--interval MS] [--once] [--size COLSxROWS] [--no-color]\n"
            << "  STATUS_PATH      Live status file. Default: the live mode's own default status path.\n"
            << "  --interval MS    Redraw every MS milliseconds, 10 to 10000. Default: 100.\n"
            << "  --once           Print one frame as plain text and exit: 0 for a fresh record, 1 when the\n"
            << "                   file is missing, not a complete record, or stale.\n"
            << "  --size COLSxROWS With --once: the frame for a terminal of this size. Default: this\n"
            << "                   terminal's size, or 80x24 when the output is not a terminal.\n"
            << "  --no-color       Draw without colours.\n"
            << "Keys: q quits (so does Ctrl-C).\n";
}

std::optional<int> parse_monitor_args(int argc, char** argv, MonitorOptions& options) {
  ArgReader args{argc, argv};
  const std::string program = program_name(args, "sonderlark-monitor");
  const auto refuse = [&program](const std::string& error) {
    std::cerr << error << "\n";
    print_monitor_usage(program.c_str());
    return 2;
  };
  while (const std::optional<std::string> arg = next_arg(args)) {
    const bool has_value = args.next < args.argc;
    if (*arg == "--help" || *arg == "-h") {
      print_monitor_usage(program.c_str());
      return 0;
    } else if (*arg == "--once" || *arg == "--no-color") {
      (*arg == "--once" ? options.once : options.color) = *arg == "--once";
    } else if (*arg == "--interval" && has_value) {
      const std::string value = *next_arg(args);
      const std::optional<int64_t> ms = whole_number(value, 10, 10000);
      if (!ms) return refuse("invalid value for --interval: " + value);
      options.interval_ms = static_cast<int>(*ms);
    } else if (*arg == "--size" && has_value) {
      const std::string value = *next_arg(args);
      if (!(options.size = screen_size(value))) return refuse("invalid value for --size: " + value);
    } else if (!arg->starts_with("-") && options.path.empty()) {
      options.path = *arg;
    } else {
      return refuse("unknown option: " + *arg);
    }
  }
  return std::nullopt;
}

}  // namespace sonderlark
