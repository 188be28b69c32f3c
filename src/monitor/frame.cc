#include "monitor/frame.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>

#include "util/text.h"

namespace sonderlark {
namespace {

constexpr double kPi = 3.141592653589793;
constexpr int kDialRadius = 9;       // rows; the dial is twice as wide as high
constexpr double kMeterFloorDb = -60.0;
constexpr int kMeterWidth = 40;
constexpr int kBarWidth = 30;

// Outside text is filtered before a line is cut to width, so that the width
// counts what is shown; monitor_frame filters every line once more after the
// cut, which may have split a sequence.
std::string printable(const std::string& text) { return terminal_text(text); }

std::string fit(const std::string& text, std::size_t width = 78) {
  return text.size() <= width ? text : text.substr(0, width - 3) + "...";
}

std::string bar(double fraction, int width, char full, char empty) {
  const int n = std::clamp(static_cast<int>(std::lround(fraction * width)), 0, width);
  return std::string(static_cast<std::size_t>(n), full) + std::string(static_cast<std::size_t>(width - n), empty);
}

// The half-dial: -90 at the left, 0 at the top, +90 at the right; the 17
// angles the array resolves (asin(k / 8)) marked on the rim with 'o', the
// needle of '*' ending in '@' at `angle`.
std::vector<std::string> dial(double angle, bool show_needle) {
  const int height = kDialRadius + 1;
  const int width = 4 * kDialRadius + 1;
  std::vector<std::string> grid(static_cast<std::size_t>(height), std::string(static_cast<std::size_t>(width), ' '));
  const int cx = 2 * kDialRadius;
  const int cy = kDialRadius;
  auto plot = [&](double r, double degrees, char c) {
    const double t = degrees * kPi / 180.0;
    const int x = cx + static_cast<int>(std::lround(2.0 * r * std::sin(t)));
    const int y = cy - static_cast<int>(std::lround(r * std::cos(t)));
    if (y >= 0 && y < height && x >= 0 && x < width) grid[static_cast<std::size_t>(y)][static_cast<std::size_t>(x)] = c;
  };
  for (int d = -90; d <= 90; ++d) plot(kDialRadius, d, '.');
  for (int k = -8; k <= 8; ++k) plot(kDialRadius, std::asin(k / 8.0) * 180.0 / kPi, 'o');
  if (show_needle) {
    for (double r = 1.0; r < kDialRadius - 1; r += 0.5) plot(r, angle, '*');
    plot(kDialRadius - 1, angle, '@');
  }
  grid[static_cast<std::size_t>(cy)][static_cast<std::size_t>(cx)] = '+';
  for (auto& row : grid) row = "        " + row;
  // Labels under the rim's ends and the centre (each row starts with 8 spaces).
  const std::string gap(static_cast<std::size_t>(cx - 2), ' ');
  grid.push_back(std::string(7, ' ') + "-90" + gap + "0" + gap + "+90");
  return grid;
}

}  // namespace


namespace {

// The chunk rate across the records of the last 3 s (at least 1 s of them).
std::string chunk_rate(const StatusRecord& record, MonitorMemory& memory, double seconds) {
  constexpr double kRateWindow = 3.0;
  if (!memory.history.empty() && record.chunks_processed < memory.history.back().second) memory.history.clear();
  memory.history.emplace_back(seconds, record.chunks_processed);
  while (memory.history.size() > 2 && seconds - memory.history[1].first >= kRateWindow) memory.history.pop_front();
  const double span = seconds - memory.history.front().first;
  if (span < 1.0) return "-";
  return fixed(static_cast<double>(record.chunks_processed - memory.history.front().second) / span, 1) + "/s";
}

// Per channel, the level in dB and the column of its 2-second hold mark on
// a meter `width` wide.
struct MeterReading {
  double db = -120.0;
  double hold_db = -120.0;
};

std::vector<MeterReading> meter_readings(const StatusRecord& record, MonitorMemory& memory, double seconds) {
  const std::size_t channels = record.processed_channel_rms.size();
  const double since_last_frame = memory.last_frame_time < 0.0 ? 0.0 : seconds - memory.last_frame_time;
  memory.last_frame_time = seconds;
  memory.peak_hold_db.resize(channels, -120.0);
  memory.peak_hold_age.resize(channels, 0.0);
  std::vector<MeterReading> out;
  for (std::size_t c = 0; c < channels; ++c) {
    const double db = level_dbfs(record.processed_channel_rms[c]);
    memory.peak_hold_age[c] += since_last_frame;
    if (db >= memory.peak_hold_db[c] || memory.peak_hold_age[c] > kPeakHoldSeconds) {
      memory.peak_hold_db[c] = db;
      memory.peak_hold_age[c] = 0.0;
    }
    out.push_back({db, memory.peak_hold_db[c]});
  }
  return out;
}

// "ch0  -20.0 [====|   ]" with a meter `width` wide.
std::string meter_line(std::size_t channel, const MeterReading& m, int width) {
  auto column = [width](double level) {
    return std::clamp(static_cast<int>(std::lround((level - kMeterFloorDb) / -kMeterFloorDb * width)), 0, width);
  };
  std::string meter = bar((std::max(m.db, kMeterFloorDb) - kMeterFloorDb) / -kMeterFloorDb, width, '=', ' ');
  const int hold = column(m.hold_db);
  if (hold > 0) meter[static_cast<std::size_t>(hold - 1)] = '|';
  std::string value = m.db <= -120.0 ? "  -inf" : fixed(m.db, 1);
  value.insert(0, value.size() < 6 ? 6 - value.size() : 0, ' ');
  return "ch" + std::to_string(channel) + " " + value + " [" + meter + "]";
}

// Status, direction, confidence and meters in as little as 40x12.
std::vector<FrameLine> compact_lines(const std::string& path, RecordState state, const StatusRecord& record,
                                     MonitorMemory& memory, double seconds, int width) {
  const auto w = static_cast<std::size_t>(width);
  std::vector<FrameLine> lines;
  lines.push_back({fit("sonderlark-monitor " + printable(path), w), LineStyle::kTitle});
  const std::string rate = chunk_rate(record, memory, seconds);
  lines.push_back({fit(printable(record.status) + "  chunks " + std::to_string(record.chunks_processed) + "  " + rate, w),
                   record.status == "running" ? LineStyle::kGood : LineStyle::kAlert});
  if (state == RecordState::kStale) {
    lines.push_back({fit("!! STALE since " + record.timestamp.substr(11, 8) + ": run died?", w), LineStyle::kBanner});
  }
  if (record.status == "restarting" || record.status == "degraded") {
    lines.push_back({fit("  " + printable(record.error), w), LineStyle::kAlert});
  }
  // The dial as one row: -90 at the left end, +90 at the right.
  const int span = width - 10;
  std::string row(static_cast<std::size_t>(span), '.');
  row[static_cast<std::size_t>(span / 2)] = '+';
  const bool have_direction = !record.processed_channel_rms.empty();
  if (have_direction) {
    const double at = (std::clamp(record.direction_angle_degrees, -90.0, 90.0) + 90.0) / 180.0 * (span - 1);
    row[static_cast<std::size_t>(std::lround(at))] = '@';
  }
  lines.push_back({"-90 [" + row + "] +90", LineStyle::kNeedle});
  lines.push_back({"direction: " + fixed(record.direction_angle_degrees, 2) + " degrees"});
  lines.push_back({"confidence " + fixed(record.direction_confidence, 3) + (record.direction_low_confidence ? " (low)" : ""),
                   record.direction_low_confidence ? LineStyle::kDim : LineStyle::kGood});
  const std::vector<MeterReading> meters = meter_readings(record, memory, seconds);
  for (std::size_t c = 0; c < meters.size(); ++c) {
    lines.push_back({fit(meter_line(c, meters[c], width - 14), w), LineStyle::kGood});
  }
  lines.push_back({fit(std::string("speech ") + (record.detected_speech ? "yes" : "no") + "  PCM " +
                           (record.pcm_output_connected ? "connected" : "not connected"),
                       w)});
  return lines;
}

// The status line, and a failed capture's error and standard error lines
// as far as there is room.
void add_status_lines(const StatusRecord& record, MonitorMemory& memory, double seconds, ScreenSize screen,
                      const std::function<std::string(const std::string&)>& fit, std::vector<FrameLine>& lines) {
  const std::string rate = chunk_rate(record, memory, seconds);
  lines.push_back({fit("status: " + printable(record.status) + "   chunks: " + std::to_string(record.chunks_processed) +
                       "   rate: " + rate + "   at " + record.timestamp),
                   record.status == "running" ? LineStyle::kGood : LineStyle::kAlert});
  if (record.status == "restarting" || record.status == "degraded") {
    lines.push_back({fit("  " + printable(record.error) + " (exit code " + std::to_string(record.arecord_exit_code) +
                         ")"),
                     LineStyle::kAlert});
    std::size_t start = 0;
    // The error line takes the blank line's place; its standard error
    // lines come as far as there is room.
    const int room = std::min(3, screen.rows - kFullScreen.rows);
    for (int shown = 0; start < record.arecord_stderr.size() && shown < room; ++shown) {
      const std::size_t end = std::min(record.arecord_stderr.find('\n', start), record.arecord_stderr.size());
      lines.push_back({fit("  stderr: " + printable(record.arecord_stderr.substr(start, end - start))),
                       LineStyle::kAlert});
      start = end + 1;
    }
  }
}

// The dial, the confidence, the meters and the PCM and capture lines.
void add_direction_and_levels(const StatusRecord& record, MonitorMemory& memory, double seconds, ScreenSize screen,
                              const std::function<std::string(const std::string&)>& fit,
                              std::vector<FrameLine>& lines) {
  const bool have_direction = !record.processed_channel_rms.empty();
  for (const std::string& row : dial(record.direction_angle_degrees, have_direction)) {
    lines.push_back({row, LineStyle::kNeedle});
  }
  lines.push_back({"direction: " + fixed(record.direction_angle_degrees, 2) + " degrees"});
  lines.push_back({"confidence [" + bar(record.direction_confidence, kBarWidth, '#', '-') + "] " +
                       fixed(record.direction_confidence, 3) + (record.direction_low_confidence ? " (low)" : ""),
                   record.direction_low_confidence ? LineStyle::kDim : LineStyle::kGood});
  lines.push_back({""});

  // Meters from -60 to 0 dBFS with a mark at the level held over 2 s.
  lines.push_back({"processed levels, dBFS (-60 .. 0, | = highest of the last 2 s)"});
  const std::vector<MeterReading> meters = meter_readings(record, memory, seconds);
  const int meter_width = std::clamp(screen.cols - 20, kMeterWidth, 100);
  for (std::size_t c = 0; c < meters.size(); ++c) lines.push_back({meter_line(c, meters[c], meter_width), LineStyle::kGood});
  lines.push_back({fit(std::string("speech seen: ") + (record.detected_speech ? "yes" : "no") +
                       "   PCM output: " + (record.pcm_output_connected ? "connected" : "not connected") + " (" +
                       printable(record.pcm_output) + ")")});
  lines.push_back({fit("capture: " + printable(record.arecord_command))});
}

std::vector<FrameLine> frame_lines(const std::string& path, RecordState state, const StatusRecord& record,
                                   MonitorMemory& memory, double seconds, ScreenSize screen) {
  if (screen.cols < kCompactScreen.cols || screen.rows < kCompactScreen.rows) {
    return {{fit("too small: needs " + std::to_string(kCompactScreen.cols) + "x" + std::to_string(kCompactScreen.rows) +
                     ", has " + std::to_string(screen.cols) + "x" + std::to_string(screen.rows),
                 static_cast<std::size_t>(std::max(screen.cols, 4))),
             LineStyle::kBanner}};
  }
  const bool full = screen.cols >= kFullScreen.cols && screen.rows >= kFullScreen.rows;
  // Lines use the width there is, one column spare.
  const std::size_t width = static_cast<std::size_t>(screen.cols - (full ? 2 : 0));
  const auto fit = [width](const std::string& text) { return sonderlark::fit(text, width); };
  std::vector<FrameLine> lines;
  if (state == RecordState::kFresh || state == RecordState::kStale) {
    if (!full) return compact_lines(path, state, record, memory, seconds, screen.cols);
  }
  lines.push_back({fit("sonderlark-monitor  " + printable(path)), LineStyle::kTitle});
  if (state == RecordState::kMissing) {
    lines.push_back({fit("!! no status file here: is a live run going?"), LineStyle::kBanner});
    memory = MonitorMemory{};
    return lines;
  }
  if (state == RecordState::kTorn) {
    lines.push_back({"!! not a complete JSON status record", LineStyle::kBanner});
    return lines;
  }
  if (state == RecordState::kRefused) {
    lines.push_back({fit("!! not a status record: " + printable(record.refused)), LineStyle::kBanner});
    return lines;
  }
  if (state == RecordState::kStale) {
    lines.push_back({fit("!! STALE: the record of " + record.timestamp + " says running: died or stalled?"),
                     LineStyle::kBanner});
  }

  add_status_lines(record, memory, seconds, screen, fit, lines);
  // A blank line under a status line alone: a banner or an error line takes its place.
  if (lines.size() == 2) lines.push_back({""});

  add_direction_and_levels(record, memory, seconds, screen, fit, lines);
  return lines;
}

}  // namespace

std::vector<FrameLine> monitor_frame(const std::string& path, RecordState state, const StatusRecord& record,
                                     MonitorMemory& memory, double seconds, ScreenSize screen) {
  std::vector<FrameLine> lines = frame_lines(path, state, record, memory, seconds, screen);
  // Whatever the record held, and wherever a line was cut, the terminal
  // gets no control and no broken sequence.
  for (FrameLine& line : lines) line.text = terminal_text(line.text);
  return lines;
}

}  // namespace sonderlark
