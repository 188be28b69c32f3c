#include "live/capture.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "util/text.h"

namespace sonderlark {
namespace {

constexpr std::size_t kCaptureBufferBytes = 64 * 1024;

}  // namespace

std::string build_capture_command(const std::string& device) {
  return "arecord -D " + shell_quote(device) + " -f S32_LE -r " + std::to_string(16000) + " -c " +
         std::to_string(4) + " -t raw";
}

std::string build_launch_command(const std::string& capture_command, const std::string& stderr_path) {
  return capture_command + " 2> " + shell_quote(stderr_path);
}

bool start_capture(CaptureChild& child, Logger& logger) {
  std::fflush(nullptr);  // nothing buffered may be written twice by the child
  child.pipe = popen(child.launch_command.c_str(), "r");
  if (child.pipe == nullptr) {
    logger.line("error: failed to start arecord for live mode");
    return false;
  }
  // A buffer as large as a pipe's: one read takes everything arecord wrote
  // since the last one, instead of a page at a time.
  child.pipe_buffer.resize(kCaptureBufferBytes);
  std::setvbuf(child.pipe, child.pipe_buffer.data(), _IOFBF, child.pipe_buffer.size());
  return true;
}

int decode_exit_code(int raw_status) {
  const int low = raw_status & 0x7F;
  if (low == 0) return (raw_status >> 8) & 0xFF;
  if (low != 0x7F) return 128 + low;
  return raw_status;
}

CaptureStop stop_capture(CaptureChild& child) {
  CaptureStop stop;
  stop.raw_status = pclose(child.pipe);
  child.pipe = nullptr;
  stop.exit_code = decode_exit_code(stop.raw_status);
  return stop;
}

bool restart_capture(CaptureChild& child, int32_t chunks_since_start, Logger& logger) {
  if (chunks_since_start > kHealthyChunks) {
    child.restart_attempts = 0;
  } else if (++child.restart_attempts > kMaxRestarts) {
    logger.line("error: arecord restart limit reached; live direction status degraded");
    return false;
  }
  // The same value as request and remainder: a signal resumes the rest.
  timespec pause{kRestartPauseSeconds, 0};
  while (nanosleep(&pause, &pause) == -1 && errno == EINTR) {
  }
  if (!start_capture(child, logger)) return false;
  logger.line("restarted arecord for live mode attempt " + std::to_string(child.restart_attempts));
  return true;
}

}  // namespace sonderlark
