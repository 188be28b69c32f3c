#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "util/logger.h"

namespace sonderlark {

// The streaming arecord child of live mode.
struct CaptureChild {
  std::string capture_command;  // arecord command proper: logged and published
  std::string launch_command;   // capture_command plus the stderr redirection
  FILE* pipe = nullptr;         // read end while a child runs, else null
  std::vector<char> pipe_buffer;  // the stream's buffer, as large as the pipe
  int32_t restart_attempts = 0; // restarts since the child was last healthy
};

// Raw wait status of a stopped child and its decoded exit code.
struct CaptureStop {
  int raw_status = 0;
  int exit_code = 0;
};

constexpr int32_t kHealthyChunks = 10;        // more chunks than this since the start: healthy
constexpr int32_t kMaxRestarts = 10;          // restarts without a healthy period in between
constexpr int kRestartPauseSeconds = 2;

// "arecord -D <quoted device> -f S32_LE -r 16000 -c 4 -t raw"
std::string build_capture_command(const std::string& device);
// capture_command + " 2> " + the quoted stderr path: the text given to the shell.
std::string build_launch_command(const std::string& capture_command, const std::string& stderr_path);

// Starts the child through popen. False (after logging the error) when no
// pipe could be had; a command the shell cannot run still counts as started.
bool start_capture(CaptureChild& child, Logger& logger);

// Closes the pipe, waits for the child and decodes its status.
CaptureStop stop_capture(CaptureChild& child);

// Exit code of a wait status as the shell reports it: the exit code, or
// 128 + the signal number for a child ended by a signal.
int decode_exit_code(int raw_status);

// Restart decision after a stop, continuous mode only. Resets the attempt
// count after a healthy period, gives up after kMaxRestarts, otherwise
// pauses kRestartPauseSeconds and starts a new child. True when restarted.
bool restart_capture(CaptureChild& child, int32_t chunks_since_start, Logger& logger);

}  // namespace sonderlark
