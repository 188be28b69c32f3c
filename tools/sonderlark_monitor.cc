// sonderlark-monitor: a terminal view of a live run, drawn from its status
// file (read only, never written).
#include <curses.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

#include "cli/options.h"
#include "live/live_mode.h"
#include "report/status_view.h"

namespace {

using sonderlark::FrameLine;
using sonderlark::LineStyle;

void usage(const char* program) {
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

volatile sig_atomic_t stop_requested = 0;
void request_stop(int) { stop_requested = 1; }

double steady_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int color_of(LineStyle style) {
  switch (style) {
    case LineStyle::kTitle: return 1;
    case LineStyle::kBanner: return 2;
    case LineStyle::kNeedle: return 3;
    case LineStyle::kGood: return 4;
    case LineStyle::kAlert: return 5;
    default: return 0;
  }
}

// Full-screen loop until q, Ctrl-C, SIGTERM or SIGHUP; endwin on every way out.
int watch(const std::string& path, int interval_ms, bool color) {
  struct sigaction action {};
  action.sa_handler = request_stop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);
  initscr();
  cbreak();
  noecho();
  curs_set(0);
  keypad(stdscr, TRUE);
  timeout(interval_ms);
  color = color && has_colors();
  if (color) {
    start_color();
    use_default_colors();
    init_pair(1, COLOR_CYAN, -1);
    init_pair(2, COLOR_WHITE, COLOR_RED);
    init_pair(3, COLOR_YELLOW, -1);
    init_pair(4, COLOR_GREEN, -1);
    init_pair(5, COLOR_RED, -1);
  }
  sonderlark::MonitorMemory memory;
  while (!stop_requested) {
    sonderlark::StatusRecord record;
    const sonderlark::RecordState state = sonderlark::read_status_record(path, sonderlark::wall_clock_seconds(), record);
    const auto lines = sonderlark::monitor_frame(path, state, record, memory, steady_seconds(), {COLS, LINES});
    erase();
    int row = 0;
    for (const FrameLine& line : lines) {
      if (row >= LINES) break;
      attr_t attributes = A_NORMAL;
      if (line.style == LineStyle::kBanner) attributes |= A_BOLD | (color ? 0 : A_REVERSE);
      if (line.style == LineStyle::kDim) attributes |= A_DIM;
      if (color && color_of(line.style) != 0) attributes |= COLOR_PAIR(color_of(line.style));
      attron(attributes);
      mvaddnstr(row++, 0, line.text.c_str(), COLS);
      attroff(attributes);
    }
    refresh();
    const int key = getch();  // waits up to the interval
    if (key == 'q' || key == 'Q') break;
  }
  endwin();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path;
  int interval_ms = 100;
  bool once = false;
  bool color = true;
  sonderlark::ScreenSize size;
  winsize terminal{};
  if (isatty(STDOUT_FILENO) && ioctl(STDOUT_FILENO, TIOCGWINSZ, &terminal) == 0 && terminal.ws_col > 0) {
    size = {terminal.ws_col, terminal.ws_row};
  }
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      usage(argv[0]);
      return 0;
    } else if (arg == "--once") {
      once = true;
    } else if (arg == "--no-color") {
      color = false;
    } else if (arg == "--interval" && i + 1 < argc) {
      char* end = nullptr;
      const long value = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || value < 10 || value > 10000) {
        std::cerr << "invalid value for --interval: " << argv[i] << "\n";
        usage(argv[0]);
        return 2;
      }
      interval_ms = static_cast<int>(value);
    } else if (arg == "--size" && i + 1 < argc) {
      const std::string text = argv[++i];
      int cols = 0, rows = 0;
      char end = 0;
      if (std::sscanf(text.c_str(), "%dx%d%c", &cols, &rows, &end) != 2 || cols < 1 || rows < 1 || cols > 10000 ||
          rows > 10000 || text.find_first_not_of("0123456789x") != std::string::npos) {
        std::cerr << "invalid value for --size: " << text << "\n";
        usage(argv[0]);
        return 2;
      }
      size = {cols, rows};
    } else if (!arg.starts_with("-") && path.empty()) {
      path = arg;
    } else {
      std::cerr << "unknown option: " << arg << "\n";
      usage(argv[0]);
      return 2;
    }
  }
  // The same rule as live mode's default status path.
  if (path.empty()) path = sonderlark::choose_status_path(sonderlark::Options{});

  if (once) {
    sonderlark::StatusRecord record;
    sonderlark::MonitorMemory memory;
    const sonderlark::RecordState state = sonderlark::read_status_record(path, sonderlark::wall_clock_seconds(), record);
    for (const FrameLine& line : sonderlark::monitor_frame(path, state, record, memory, 0.0, size)) {
      std::cout << line.text << "\n";
    }
    return state == sonderlark::RecordState::kFresh ? 0 : 1;
  }
  return watch(path, interval_ms, color);
}
