#include "report/live_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "report/json.h"
#include "util/files.h"
#include "util/text.h"

namespace sonderlark {
namespace {

// Moves `temp_path` over `path` in one step. The two are exchanged and the
// old record, now at `temp_path`, is unlinked right away: on ext4 a plain
// rename over an existing file flushes the new file's data at once and frees
// the old file's blocks, which with online discard waits for the disk on
// every record; a record that lives a few milliseconds and is dropped before
// writeback costs neither. A directory in the file's place is exchanged back
// (unlink refuses it), so it stays where it was and the temporary file stays
// behind, as after a failed rename. Where there is nothing to exchange with,
// or the file system cannot exchange, a plain rename does the job.
void replace_file(const std::string& temp_path, const std::string& path) {
  if (renameat2(AT_FDCWD, temp_path.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) != 0) {
    std::rename(temp_path.c_str(), path.c_str());
    return;
  }
  if (unlink(temp_path.c_str()) != 0 && (errno == EISDIR || errno == EPERM)) {
    renameat2(AT_FDCWD, temp_path.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE);
  }
}

}  // namespace

void write_live_event_json(const std::string& path, const Options& options,
                           const DirectionEstimate& direction, const ChannelDiagnostics& diagnostics,
                           bool detected_speech, int64_t chunks_processed, bool pcm_output_connected,
                           bool live_processing, const std::string& status, const std::string& error,
                           const std::string& arecord_command, int arecord_exit_code,
                           const std::string& arecord_stderr) {
  if (path.empty()) return;
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    // Almost always the folder is there already: one stat says so.
    const std::string folder = path.substr(0, slash);
    struct stat info {};
    if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) std::filesystem::create_directories(folder);
  }

  const std::string temp_path = path + ".tmp";
  JsonWriter record;
  record.text.reserve(1024 + arecord_stderr.size() + arecord_command.size());
  json_begin(record);
  json_string_member(record, "timestamp", now_iso8601_utc());
  json_bool_member(record, "live_processing", live_processing);
  json_string_member(record, "source", "sonder_lark --live");
  json_string_member(record, "status", status);
  json_string_member(record, "error", error);
  json_string_member(record, "device", options.device);
  json_string_member(record, "arecord_command", arecord_command);
  json_member(record, "arecord_exit_code", std::to_string(arecord_exit_code));
  json_string_member(record, "arecord_stderr", arecord_stderr);
  json_member(record, "input_gain_db", fixed(options.input_gain_db, 2));
  json_member(record, "chunks_processed", std::to_string(chunks_processed));
  json_string_member(record, "pcm_output", options.pcm_output_path);
  json_bool_member(record, "pcm_output_connected", pcm_output_connected);
  json_member(record, "direction_angle_degrees", fixed(direction.angle_degrees, 2));
  json_member(record, "direction_confidence", fixed(direction.confidence, 3));
  json_bool_member(record, "direction_low_confidence", direction.low_confidence);
  json_string_member(record, "direction_method", direction.method);
  json_string_member(record, "direction_samples_source", direction.samples_source);
  json_bool_member(record, "detected_speech", detected_speech);
  json_member(record, "processed_channel_rms", vector_json(diagnostics.rms));
  json_end(record);

  // Never through a link or into a FIFO planted at the temporary path.
  const int fd = open_regular_for_writing(temp_path);
  if (fd < 0) return;
  const bool written = write_all(fd, record.text);
  // A record that did not reach the file whole must not replace the last good one.
  if (close(fd) != 0 || !written) return;
  replace_file(temp_path, path);
}

}  // namespace sonderlark
