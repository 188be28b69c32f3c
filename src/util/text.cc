#include "util/text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
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

FileText read_file_text(const std::string& path, bool follow_links) {
  FileText file;
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | (follow_links ? 0 : O_NOFOLLOW));
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return file;
    file.found = true;
    file.refused = errno == ELOOP ? "symbolic link" : std::strerror(errno);
    return file;
  }
  file.found = true;
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    file.refused = "not a regular file";
  } else if (static_cast<uint64_t>(info.st_size) > kMaxFileTextBytes) {
    file.refused = "larger than 1 MiB";
  } else {
    // /proc files say 0 bytes and a file can grow while read: the cap holds
    // on what is read, not on what fstat said.
    std::string text(kMaxFileTextBytes + 1, '\0');
    std::size_t got = 0;
    while (got < text.size()) {
      const ssize_t n = read(fd, text.data() + got, text.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    if (got > kMaxFileTextBytes) {
      file.refused = "larger than 1 MiB";
    } else {
      text.resize(got);
      file.text = std::move(text);
    }
  }
  close(fd);
  return file;
}

std::string read_text_file(const std::string& path) {
  FileText file = read_file_text(path, false);
  return file.refused.empty() ? std::move(file.text) : std::string();
}

std::string terminal_text(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto continuation = [&](std::size_t i) { return i < text.size() && (byte(i) & 0xC0) == 0x80; };
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
      out += lead < 0x20 || lead == 0x7F ? '?' : static_cast<char>(lead);
      ++i;
      continue;
    }
    // The length of a well-formed sequence starting here (shortest form, no
    // surrogates, at most U+10FFFF), or 0.
    std::size_t length = 0;
    uint32_t code = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      code = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      code = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      code = lead & 0x07u;
    }
    for (std::size_t k = 1; k < length; ++k) {
      if (!continuation(i + k)) {
        length = 0;
        break;
      }
      code = (code << 6) | (byte(i + k) & 0x3Fu);
    }
    const bool shortest = (length == 3 && code >= 0x800) || (length == 4 && code >= 0x10000) || length == 2;
    const bool valid = length > 0 && shortest && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
    if (!valid) {
      out += '?';  // a stray byte
      ++i;
      continue;
    }
    const bool hidden = (code >= 0x80 && code <= 0x9F) || (code >= 0x202A && code <= 0x202E) ||
                        (code >= 0x2066 && code <= 0x2069);
    if (hidden) {
      out += '?';
    } else {
      out.append(text.substr(i, length));
    }
    i += length;
  }
  return out;
}

std::string fixed(double value, int decimals) {
  // to_chars with a precision writes what printf's "%.*f" writes, exactly
  // rounded, without the locale and the format parsing.
  char text[512];  // enough for the widest double in fixed notation
  const std::to_chars_result r = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
  return std::string(text, r.ec == std::errc() ? r.ptr : text);
}

}  // namespace sonderlark
