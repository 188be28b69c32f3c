#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace sonderlark {

// One POSIX shell word that stands for exactly `s`: the text in single
// quotes, each single quote written as '\''. Nothing else is escaped.
std::string shell_quote(const std::string& s);

// Wall-clock time, whole seconds truncated, as "YYYY-MM-DDTHH:MM:SSZ" (UTC).
std::string now_iso8601_utc();

// A file that another process may have placed or may replace at any time
// (a status record, a child's standard error, a /proc entry), read without
// trusting it: opened without blocking (a FIFO never waits for a writer),
// accepted only as a regular file after the open, and read up to 1 MiB.
struct FileText {
  bool found = false;   // false: nothing at the path
  std::string refused;  // why a file that is there was not read ("not a regular file", ...)
  std::string text;     // the bytes, when found and not refused
};

constexpr std::size_t kMaxFileTextBytes = 1 << 20;

// `follow_links` false also refuses a symbolic link ("symbolic link").
FileText read_file_text(const std::string& path, bool follow_links = true);

// The text of read_file_text(path, false); empty when it was not read.
std::string read_text_file(const std::string& path);

// Length of the well-formed UTF-8 sequence at text[i] (lead byte not ASCII),
// or 0 when the byte does not start one: no overlong forms, no surrogates,
// nothing above U+10FFFF.
std::size_t utf8_sequence_length(std::string_view text, std::size_t i);

// Text from outside the program made safe to write to a terminal: C0 and C1
// controls, DEL, the bidirectional overrides and isolates (U+202A-U+202E,
// U+2066-U+2069) and every byte that is not part of valid UTF-8 become '?',
// one for each character or stray byte. Other UTF-8 passes unchanged.
std::string terminal_text(std::string_view text);

// `value` in fixed notation with `decimals` digits after the point, rounded
// as printf's "%.Nf" rounds ("-0.00" keeps its sign; inf and nan as printf).
std::string fixed(double value, int decimals);

}  // namespace sonderlark
