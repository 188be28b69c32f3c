#include "util/text.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>

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
  std::ifstream in(path, std::ios::binary);
  if (!in.is_open()) return {};
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string fixed(double value, int decimals) {
  // to_chars with a precision writes what printf's "%.*f" writes, exactly
  // rounded, without the locale and the format parsing.
  char text[512];  // enough for the widest double in fixed notation
  const std::to_chars_result r = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
  return std::string(text, r.ec == std::errc() ? r.ptr : text);
}

}  // namespace sonderlark
