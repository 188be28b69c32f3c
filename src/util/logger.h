#pragma once

#include <cstdio>
#include <string>

namespace sonderlark {

// The run's log: every line goes to standard output and, when `file` is
// open, to the log file, which is flushed after each line so that it is
// complete even if the process is killed.
struct Logger {
  Logger() = default;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;
  ~Logger();

  std::FILE* file = nullptr;  // null: standard output only

  // Writes `text` and one newline; adds nothing else, reports no error.
  void line(const std::string& text);
};

// Opens the log at `path`, truncating it, closed on exec (children such as
// arecord never hold it). An empty path or a file that cannot be created
// leaves the log closed, silently.
void open_log(Logger& logger, const std::string& path);

}  // namespace sonderlark
