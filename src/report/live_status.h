#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace sonderlark {

// One live status record: what the status file holds, member by member, as
// the writer prints it and the readers parse it.
struct LiveStatus {
  std::string timestamp;  // "YYYY-MM-DDTHH:MM:SSZ", UTC; the writer stamps it
  bool live_processing = false;
  std::string source = "sonder_lark --live";
  std::string status;  // running, restarting, stopped, degraded
  std::string error;
  std::string device;
  std::string arecord_command;
  int64_t arecord_exit_code = -1;
  std::string arecord_stderr;
  double input_gain_db = 0.0;  // printed with 2 decimals
  int64_t chunks_processed = 0;
  std::string pcm_output;
  bool pcm_output_connected = false;
  double direction_angle_degrees = 0.0;  // 2 decimals
  double direction_confidence = 0.0;     // 3 decimals
  bool direction_low_confidence = true;
  std::string direction_method;
  std::string direction_samples_source;
  bool detected_speech = false;
  std::vector<double> processed_channel_rms;
};

// Calls visit(key, member, decimals) for each member of the record, in the
// file's order; decimals is what a number is printed with (0 for others).
// The one list of the record's members: the writer and the readers go
// through it.
template <typename Status, typename Visit>
void each_status_member(Status& s, Visit&& visit) {
  visit("timestamp", s.timestamp, 0);
  visit("live_processing", s.live_processing, 0);
  visit("source", s.source, 0);
  visit("status", s.status, 0);
  visit("error", s.error, 0);
  visit("device", s.device, 0);
  visit("arecord_command", s.arecord_command, 0);
  visit("arecord_exit_code", s.arecord_exit_code, 0);
  visit("arecord_stderr", s.arecord_stderr, 0);
  visit("input_gain_db", s.input_gain_db, 2);
  visit("chunks_processed", s.chunks_processed, 0);
  visit("pcm_output", s.pcm_output, 0);
  visit("pcm_output_connected", s.pcm_output_connected, 0);
  visit("direction_angle_degrees", s.direction_angle_degrees, 2);
  visit("direction_confidence", s.direction_confidence, 3);
  visit("direction_low_confidence", s.direction_low_confidence, 0);
  visit("direction_method", s.direction_method, 0);
  visit("direction_samples_source", s.direction_samples_source, 0);
  visit("detected_speech", s.detected_speech, 0);
  visit("processed_channel_rms", s.processed_channel_rms, 0);
}

// Replaces the live status file at `path` with `record`, stamped with the
// current time, through `path`.tmp, moved into place in one step (an
// exchange with the old file, which is then unlinked, or a rename), so
// readers see the old or the new record, never a mix, and never find the
// file missing. Creates missing parent directories on every call (a failure
// there throws std::filesystem::filesystem_error). An empty path writes
// nothing; a temporary file that cannot be opened (a symbolic link or a
// FIFO there is refused), written or closed leaves the previous record in
// place, silently.
void write_live_status(const std::string& path, const LiveStatus& record);

// What a reader makes of the live status file at one moment.
enum class RecordState {
  kMissing,  // no file at the path
  kRefused,  // something other than a regular file of at most 1 MiB (why: StatusRecord::refused)
  kTorn,     // not one complete JSON record of the status file's members
  kStale,    // status "running" but the timestamp is more than 3 s old (whole-second timestamps,
             // so a record is stale at most 3 s after the writer stopped)
  kFresh,    // a complete record that can be trusted as current
};

// A live status record as read back, with what the reader derived.
struct StatusRecord : LiveStatus {
  std::time_t time = 0;  // the timestamp, seconds since the epoch
  std::string refused;   // for kRefused, the reason the file was not read
};

constexpr double kStaleAfterSeconds = 3.0;

// Reads and classifies the status file at `path` at wall-clock time `now`
// (seconds since the epoch, with fractions); `record` is filled for kStale
// and kFresh, its `refused` for kRefused. Never blocks and never reads more
// than 1 MiB, whatever is at the path.
RecordState read_status_record(const std::string& path, double now, StatusRecord& record);

// The wall clock as read_status_record wants it.
double wall_clock_seconds();

}  // namespace sonderlark
