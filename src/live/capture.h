#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ctime>
#include <string>
#include <vector>

#include "util/logger.h"
#include "util/unique_fd.h"

namespace sonderlark {

// The streaming arecord child of live mode: the shell execs capture_command
// with its standard output on our pipe and its standard error on the file
// at stderr_path, which the tool opens itself (truncated at every start).
struct CaptureChild {
  std::string capture_command;  // arecord command proper: logged and published
  std::string stderr_path;      // the child's standard error
  int pid = -1;                 // the running child, -1 when none
  UniqueFd fd;                  // read end of its standard output, none when no child
  // A start whose standard error file was refused runs no child; it stops
  // at once with this wait status, as a shell whose redirection failed (2).
  std::optional<int> refused_start_status;
  int32_t restart_attempts = 0;  // restarts since the child was last healthy
  // Readable once the run is asked to stop: every wait (for data, the pause
  // before a restart) also watches it and ends early. -1: none.
  int wake_fd = -1;
};

// Raw wait status of a stopped child and its decoded exit code.
struct CaptureStop {
  int raw_status = 0;
  int exit_code = 0;
};

constexpr int32_t kHealthyChunks = 10;        // more chunks than this since the start: healthy
constexpr int32_t kMaxRestarts = 10;          // restarts without a healthy period in between
constexpr int kRestartPauseSeconds = 2;
constexpr int kStopGraceMilliseconds = 1000;  // before SIGTERM, and again before SIGKILL

// "arecord -D <quoted device> -f S32_LE -r 16000 -c 4 -t raw"
std::string build_capture_command(const std::string& device);

// The one-shot run's recording into a WAV file:
// "arecord -D <quoted device> -f S32_LE -r 16000 -c 4 -d <seconds> -t wav <quoted path>"
std::string one_shot_capture_command(const std::string& device, int32_t seconds, const std::string& output_path);

// arecord splits a WAV capture at 2 GiB into STEM-01.EXT, STEM-02.EXT, ...
// (STEM.EXT being `output_path`) and writes nothing at `output_path`. A
// folder may be shared, so a part counts only when this capture wrote it:
// none when `output_path` itself was modified no earlier than `started` (the
// capture's start, seconds since the epoch) or STEM-01.EXT was not; else the
// parts in order up to the first number that is missing or older than
// `started`. Throws "split capture part PATH refused: REASON" for a part
// that is new enough but a symbolic link, not a regular file, or another
// user's. Never follows a link, never waits on a FIFO.
std::vector<std::string> split_capture_parts(const std::string& output_path, std::time_t started);

// Starts a child running capture_command. The standard error file is opened
// without following links or blocking and must be a regular file; when it is
// not, no child runs and the start counts as a child that ended with status
// 2. False (after logging the error) when no pipe or process could be had.
bool start_capture(CaptureChild& child, Logger& logger);

// What a read of the child's stream brought.
struct CaptureRead {
  std::size_t bytes = 0;   // bytes placed in the buffer
  bool timed_out = false;  // the deadline came before the buffer was full
  bool woken = false;      // wake_fd became readable before the buffer was full
};

// Reads until `size` bytes have arrived, the stream ends (a stopped or
// never-started child), wake_fd becomes readable or, with a deadline, the
// deadline passes.
CaptureRead read_capture(CaptureChild& child, char* buffer, std::size_t size,
                         std::optional<std::chrono::steady_clock::time_point> deadline);

// Closes the pipe and collects the child. One that has not ended a second
// after its pipe was closed gets SIGTERM, and SIGKILL a second after that.
CaptureStop stop_capture(CaptureChild& child);

// Restart decision after a stop, continuous mode only. Resets the attempt
// count after a healthy period, gives up after kMaxRestarts, otherwise
// pauses kRestartPauseSeconds and starts a new child. True when restarted;
// false at once, without a child, when wake_fd wakes the pause.
bool restart_capture(CaptureChild& child, int64_t chunks_since_start, Logger& logger);

}  // namespace sonderlark
