#pragma once

#include <string>

namespace sonderlark {

// One POSIX shell word that stands for exactly `s`: the text in single
// quotes, each single quote written as '\''. Nothing else is escaped.
std::string shell_quote(const std::string& s);

// Wall-clock time, whole seconds truncated, as "YYYY-MM-DDTHH:MM:SSZ" (UTC).
std::string now_iso8601_utc();

// The whole file, byte for byte; empty when it cannot be opened or is not a
// regular file (a symbolic link, a FIFO: never followed, never waited on).
std::string read_text_file(const std::string& path);

// `value` in fixed notation with `decimals` digits after the point, rounded
// as printf's "%.Nf" rounds ("-0.00" keeps its sign; inf and nan as printf).
std::string fixed(double value, int decimals);

}  // namespace sonderlark
