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
#include <optional>
#include <string>

#include "live/live_mode.h"
#include "monitor/frame.h"
#include "monitor/options.h"

namespace {

using sonderlark::FrameLine;
using sonderlark::LineStyle;

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
  sonderlark::MonitorOptions options;
  if (const std::optional<int> status = sonderlark::parse_monitor_args(argc, argv, options)) return *status;
  // The same rule as live mode's default status path.
  if (options.path.empty()) options.path = sonderlark::default_status_path();
  if (!options.once) return watch(options.path, options.interval_ms, options.color);

  sonderlark::ScreenSize size;
  winsize terminal{};
  if (isatty(STDOUT_FILENO) && ioctl(STDOUT_FILENO, TIOCGWINSZ, &terminal) == 0 && terminal.ws_col > 0) {
    size = {terminal.ws_col, terminal.ws_row};
  }
  sonderlark::StatusRecord record;
  sonderlark::MonitorMemory memory;
  const sonderlark::RecordState state =
      sonderlark::read_status_record(options.path, sonderlark::wall_clock_seconds(), record);
  for (const FrameLine& line : sonderlark::monitor_frame(options.path, state, record, memory, 0.0,
                                                         options.size.value_or(size))) {
    std::cout << line.text << "\n";
  }
  return state == sonderlark::RecordState::kFresh ? 0 : 1;
}
