#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace sonderlark {

// Every child process of every program starts here, as "/bin/sh -c SCRIPT":
// the shell is always there, so a missing program is the shell's exit 127,
// never a start that seems to succeed (as an exec failure can under an
// emulator). The child gets `in`, `out` and `err` as its standard input,
// output and error (-1: ours) and no other descriptor of ours: every
// descriptor this project opens is close-on-exec.
struct ChildIo {
  int in = -1;
  int out = -1;
  int err = -1;
};

// The child's process ID, or -1 when it could not be started.
pid_t spawn_shell(const std::string& script, const ChildIo& io = {});

// Waits for the child to end: its raw wait status, or nothing when it is
// still running after `timeout_ms` (a negative timeout waits as long as it
// takes). A child that cannot be waited for counts as ended with status 0.
std::optional<int> wait_child(pid_t pid, int timeout_ms = -1);

// Exit code of a wait status as the shell reports it: the exit code, or
// 128 + the signal number for a child ended by a signal.
int decode_exit_code(int raw_status);

// What a finished command left.
struct CommandResult {
  int raw_status = -1;  // -1: it could not be started
  int exit_code = -1;
  std::string output;   // standard output and error together
};

// Runs a script to its end, collecting what it writes.
CommandResult run_command(const std::string& script);

// Runs a script with our standard output and error, as a terminal user
// would see it: while it runs, an interrupt or quit from the terminal goes
// to the child alone. Its raw wait status, or -1 when it could not start.
int run_in_foreground(const std::string& script);

}  // namespace sonderlark
