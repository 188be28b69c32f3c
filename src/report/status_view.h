#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <utility>
#include <string>
#include <vector>

namespace sonderlark {

// What a reader makes of the live status file at one moment.
enum class RecordState {
  kMissing,  // no file at the path
  kRefused,  // something other than a regular file of at most 1 MiB (why: StatusRecord::refused)
  kTorn,     // not one complete JSON record of the status file's members
  kStale,    // status "running" but the timestamp is more than 3 s old (whole-second timestamps,
             // so a record is stale at most 3 s after the writer stopped)
  kFresh,    // a complete record that can be trusted as current
};

// The members of a live status record that a person looks at.
struct StatusRecord {
  std::string timestamp;  // "YYYY-MM-DDTHH:MM:SSZ", UTC
  std::time_t time = 0;   // the timestamp, seconds since the epoch
  std::string status;     // running, restarting, stopped, degraded
  std::string error;
  std::string device;
  std::string arecord_command;
  int64_t arecord_exit_code = -1;
  std::string arecord_stderr;
  double input_gain_db = 0.0;
  int64_t chunks_processed = 0;
  std::string pcm_output;
  bool pcm_output_connected = false;
  double direction_angle_degrees = 0.0;
  double direction_confidence = 0.0;
  bool direction_low_confidence = true;
  bool detected_speech = false;
  std::vector<double> processed_channel_rms;
  std::string refused;  // for kRefused, the reason the file was not read
};

constexpr double kStaleAfterSeconds = 3.0;

// Reads and classifies the status file at `path` at wall-clock time `now`
// (seconds since the epoch, with fractions); `record` is filled for kStale
// and kFresh, its `refused` for kRefused. Never blocks and never reads more
// than 1 MiB, whatever is at the path.
RecordState read_status_record(const std::string& path, double now, StatusRecord& record);

// The wall clock as read_status_record wants it.
double wall_clock_seconds();

// A line of a monitor frame and how it should stand out.
enum class LineStyle { kPlain, kTitle, kBanner, kNeedle, kGood, kDim, kAlert };

struct FrameLine {
  std::string text;
  LineStyle style = LineStyle::kPlain;
};

// What the monitor keeps between frames.
struct MonitorMemory {
  std::vector<double> peak_hold_db;  // per channel, the highest level of the last hold period
  std::vector<double> peak_hold_age;  // seconds since each hold mark was set
  double last_frame_time = -1.0;     // steady seconds of the previous frame
  // (steady seconds, chunk count) of the records read over the last few
  // seconds: the chunk rate is taken across them, since the capture
  // delivers its periods in bursts of chunks.
  std::deque<std::pair<double, int64_t>> history;
};

constexpr double kPeakHoldSeconds = 2.0;

// Level in dBFS of an rms value (full scale 1.0); -120 for silence.
double level_dbfs(double rms);

// The terminal a frame is drawn for.
struct ScreenSize {
  int cols = 80;
  int rows = 24;
};

// The smallest terminal the compact layout fits, and the smallest for the
// full one (the dial).
constexpr ScreenSize kCompactScreen{40, 12};
constexpr ScreenSize kFullScreen{80, 24};

// One frame of the monitor for a terminal of `screen`: plain text, no line
// wider than the screen. The full layout (dial, meters, PCM and capture
// lines using the whole width) from 80x24; a compact one from 40x12 that
// keeps status, direction, confidence and the meters; below that one line
// saying the terminal is too small. `seconds` is a steady clock reading,
// used for the chunk rate and the peak hold (pass the same value twice and
// nothing is derived).
std::vector<FrameLine> monitor_frame(const std::string& path, RecordState state, const StatusRecord& record,
                                     MonitorMemory& memory, double seconds, ScreenSize screen = kFullScreen);

}  // namespace sonderlark
