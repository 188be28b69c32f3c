#include "util/text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>

namespace sonderlark {

std::string shell_quote(const std::string& s) {
  std::string quoted = "'";
  for (char c : s) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  quoted += '\'';
  return quoted;
}

std::string now_iso8601_utc() {
  const std::time_t now = std::time(nullptr);  // whole seconds, fraction dropped
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return std::string(text, n);
}

std::string read_text_file(const std::string& path) {
  // Never through a link, never waiting on a FIFO: a regular file or nothing.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return {};
  std::string text;
  struct stat info {};
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    char buffer[65536];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) != 0;) {
      if (n < 0) {
        if (errno == EINTR) continue;
        break;
      }
      text.append(buffer, static_cast<std::size_t>(n));
    }
  }
  close(fd);
  return text;
}

std::string fixed(double value, int decimals) {
  // to_chars with a precision writes what printf's "%.*f" writes, exactly
  // rounded, without the locale and the format parsing.
  char text[512];  // enough for the widest double in fixed notation
  const std::to_chars_result r = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
  return std::string(text, r.ec == std::errc() ? r.ptr : text);
}

}  // namespace sonderlark
