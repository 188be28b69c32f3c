#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace sonderlark {

// A command line read a word at a time, by every program of the project.
// A program's parser returns the exit status to end with, or nothing to go
// on; it never ends the process itself.
struct ArgReader {
  int argc = 0;
  char** argv = nullptr;
  int next = 1;  // argv[0] is the program
};

// The program's name as it was called, or `fallback`.
std::string program_name(const ArgReader& args, const std::string& fallback);

// The next word, or nothing at the end of the line.
std::optional<std::string> next_arg(ArgReader& args);

// A decimal integer in [low, high] that is the whole of `text`, as strtol
// reads it ("12", "-3", "+4", " 5"; not "", "1x" or "1e3").
std::optional<int64_t> whole_number(const std::string& text, int64_t low, int64_t high);

// The integer or number at the start of `text`, as std::stoi and std::stod
// read it (leading blanks skipped, the rest ignored); nothing when there is
// none or it is out of range.
std::optional<int32_t> leading_int(const std::string& text);
std::optional<double> leading_number(const std::string& text);

}  // namespace sonderlark
