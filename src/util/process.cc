#include "util/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "util/unique_fd.h"

extern char** environ;

namespace sonderlark {
namespace {

pid_t spawn(const std::string& script, const ChildIo& io, const posix_spawnattr_t* attributes) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const int given[3] = {io.in, io.out, io.err};
  for (int target = 0; target < 3; ++target) {
    // dup2 clears close-on-exec on the copy: the child keeps exactly these.
    if (given[target] >= 0) posix_spawn_file_actions_adddup2(&actions, given[target], target);
  }
  const char* argv[] = {"sh", "-c", script.c_str(), nullptr};
  pid_t pid = -1;
  const int failed = posix_spawn(&pid, "/bin/sh", &actions, attributes, const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  return failed ? -1 : pid;
}

}  // namespace

pid_t spawn_shell(const std::string& script, const ChildIo& io) { return spawn(script, io, nullptr); }

std::optional<int> wait_child(pid_t pid, int timeout_ms) {
  int status = 0;
  for (int waited = 0;;) {
    const pid_t r = waitpid(pid, &status, timeout_ms < 0 ? 0 : WNOHANG);
    if (r == pid) return status;
    if (r < 0 && errno != EINTR) return 0;
    if (r == 0) {
      if (waited >= timeout_ms) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      waited += 10;
    }
  }
}

int decode_exit_code(int raw_status) {
  const int low = raw_status & 0x7F;
  if (low == 0) return (raw_status >> 8) & 0xFF;
  if (low != 0x7F) return 128 + low;
  return raw_status;
}

CommandResult run_command(const std::string& script) {
  CommandResult result;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return result;
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);
  const pid_t pid = spawn_shell(script, {-1, write_end.get(), write_end.get()});
  write_end.reset();
  if (pid < 0) return result;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(read_end.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    result.output.append(buffer, static_cast<std::size_t>(n));
  }
  result.raw_status = *wait_child(pid);
  result.exit_code = decode_exit_code(result.raw_status);
  return result;
}

int run_in_foreground(const std::string& script) {
  struct sigaction ignore {};
  struct sigaction old_int {};
  struct sigaction old_quit {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGINT, &ignore, &old_int);
  sigaction(SIGQUIT, &ignore, &old_quit);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGQUIT);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const pid_t pid = spawn(script, {}, &attributes);
  posix_spawnattr_destroy(&attributes);
  const int status = pid < 0 ? -1 : *wait_child(pid);
  sigaction(SIGINT, &old_int, nullptr);
  sigaction(SIGQUIT, &old_quit, nullptr);
  return status;
}

}  // namespace sonderlark
