#include "live/capture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <ctime>

#include "util/files.h"
#include "util/process.h"
#include "util/text.h"

namespace sonderlark {
namespace {

constexpr int kShellCannotRedirect = 2 << 8;  // the wait status of "exit 2"

}  // namespace

std::string build_capture_command(const std::string& device) {
  return "arecord -D " + shell_quote(device) + " -f S32_LE -r " + std::to_string(16000) + " -c " +
         std::to_string(4) + " -t raw";
}

std::string one_shot_capture_command(const std::string& device, int32_t seconds, const std::string& output_path) {
  return "arecord -D " + shell_quote(device) + " -f S32_LE -r " + std::to_string(16000) + " -c " + std::to_string(4) +
         " -d " + std::to_string(seconds) + " -t wav " + shell_quote(output_path);
}

std::vector<std::string> split_capture_parts(const std::string& output_path, std::time_t started) {
  struct stat whole {};
  if (lstat(output_path.c_str(), &whole) == 0 && whole.st_mtime >= started) return {};  // it fitted one file
  const std::size_t name = output_path.rfind('/') == std::string::npos ? 0 : output_path.rfind('/') + 1;
  const std::size_t dot = output_path.rfind('.');
  const bool has_extension = dot != std::string::npos && dot > name;
  const std::string stem = has_extension ? output_path.substr(0, dot) : output_path;
  const std::string extension = has_extension ? output_path.substr(dot) : "";
  std::vector<std::string> parts;
  for (int number = 1;; ++number) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "-%02d", number);
    const std::string part = stem + suffix + extension;
    struct stat info {};
    if (lstat(part.c_str(), &info) != 0 || info.st_mtime < started) break;  // missing, or an earlier capture's
    auto refuse = [&part](const std::string& reason) {
      return std::runtime_error("split capture part " + part + " refused: " + reason);
    };
    if (S_ISLNK(info.st_mode)) throw refuse("symbolic link");
    const int fd = open(part.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) throw refuse(errno == ELOOP ? "symbolic link" : std::strerror(errno));
    const bool checked = fstat(fd, &info) == 0;
    close(fd);
    if (!checked || !S_ISREG(info.st_mode)) throw refuse("not a regular file");
    if (info.st_uid != geteuid()) throw refuse("owned by another user");
    if (info.st_mtime < started) break;
    parts.push_back(part);
  }
  return parts;
}

bool start_capture(CaptureChild& child, Logger& logger) {
  child.refused_start_status.reset();
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    logger.line("error: failed to start arecord for live mode");
    return false;
  }
  UniqueFd read_end(pipe_fds[0]);
  const UniqueFd write_end(pipe_fds[1]);
  // As the shell's "2>" would, but never through a link or into a FIFO.
  const UniqueFd err(open_regular_for_writing(child.stderr_path));
  if (!err.valid()) {
    std::fprintf(stderr, "sonderlark: cannot open %s for arecord's standard error\n", child.stderr_path.c_str());
    child.refused_start_status = kShellCannotRedirect;
    return true;
  }
  // The shell hands its process to the command, so that the child we
  // signal and wait for is arecord itself, never a shell above it.
  const pid_t pid = spawn_shell("exec " + child.capture_command, {-1, write_end.get(), err.get()});
  if (pid < 0) {
    logger.line("error: failed to start arecord for live mode");
    return false;
  }
  child.pid = pid;
  child.fd = std::move(read_end);
  return true;
}

CaptureRead read_capture(CaptureChild& child, char* buffer, std::size_t size,
                         std::optional<std::chrono::steady_clock::time_point> deadline) {
  CaptureRead result;
  while (child.fd.valid() && result.bytes < size) {
    int timeout = -1;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
      timeout = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
    pollfd p[2] = {{child.fd.get(), POLLIN, 0}, {child.wake_fd, POLLIN, 0}};
    const int ready = poll(p, child.wake_fd >= 0 ? 2 : 1, timeout);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      result.timed_out = true;
      break;
    }
    if (child.wake_fd >= 0 && (p[1].revents & POLLIN) != 0) {
      result.woken = true;
      break;
    }
    const ssize_t n = read(child.fd.get(), buffer + result.bytes, size - result.bytes);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // end of stream or read error: the child has stopped
    result.bytes += static_cast<std::size_t>(n);
  }
  return result;
}

CaptureStop stop_capture(CaptureChild& child) {
  CaptureStop stop;
  child.fd.reset();
  if (child.pid >= 0) {
    std::optional<int> status = wait_child(child.pid, kStopGraceMilliseconds);
    if (!status) {
      kill(child.pid, SIGTERM);
      status = wait_child(child.pid, kStopGraceMilliseconds);
    }
    if (!status) {
      kill(child.pid, SIGKILL);
      status = wait_child(child.pid);
    }
    stop.raw_status = *status;
    child.pid = -1;
  } else if (child.refused_start_status) {
    stop.raw_status = *child.refused_start_status;
    child.refused_start_status.reset();
  }
  stop.exit_code = decode_exit_code(stop.raw_status);
  return stop;
}

bool restart_capture(CaptureChild& child, int64_t chunks_since_start, Logger& logger) {
  if (chunks_since_start > kHealthyChunks) {
    child.restart_attempts = 0;
  } else if (++child.restart_attempts > kMaxRestarts) {
    logger.line("error: arecord restart limit reached; live direction status degraded");
    return false;
  }
  // The pause ends early only when the run is asked to stop.
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kRestartPauseSeconds);
  for (auto now = std::chrono::steady_clock::now(); now < until; now = std::chrono::steady_clock::now()) {
    pollfd p{child.wake_fd, POLLIN, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now);
    if (poll(&p, 1, static_cast<int>(left.count())) > 0) return false;
  }
  if (!start_capture(child, logger)) return false;
  logger.line("restarted arecord for live mode attempt " + std::to_string(child.restart_attempts));
  return true;
}

}  // namespace sonderlark
