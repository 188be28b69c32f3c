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

// Length of the well-formed UTF-8 sequence at text[i] (lead byte not ASCII),
// or 0 when the byte does not start one: no overlong forms, no surrogates,
// nothing above U+10FFFF.
std::size_t utf8_sequence_length(std::string_view text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  std::size_t length = 0;
  unsigned char low = 0x80;  // range of the second byte
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  }
  return length;
}

std::string terminal_text(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      out += lead < 0x20 || lead == 0x7F ? '?' : text[i];
      ++i;
      continue;
    }
    const std::size_t length = utf8_sequence_length(text, i);
    if (length == 0) {
      out += '?';  // a stray byte
      ++i;
      continue;
    }
    const std::string_view sequence = text.substr(i, length);
    const auto at = [&sequence](std::size_t k) { return static_cast<unsigned char>(sequence[k]); };
    const bool c1 = length == 2 && at(0) == 0xC2 && at(1) <= 0x9F;  // U+0080-U+009F
    const bool bidi = length == 3 && at(0) == 0xE2 &&
                      ((at(1) == 0x80 && at(2) >= 0xAA && at(2) <= 0xAE) ||   // U+202A-U+202E
                       (at(1) == 0x81 && at(2) >= 0xA6 && at(2) <= 0xA9));   // U+2066-U+2069
    if (c1 || bidi) {
      out += '?';
    } else {
      out.append(sequence);
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
