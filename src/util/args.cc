#include "util/args.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace sonderlark {

std::string program_name(const ArgReader& args, const std::string& fallback) {
  return args.argc > 0 && args.argv[0] != nullptr ? args.argv[0] : fallback;
}

std::optional<std::string> next_arg(ArgReader& args) {
  if (args.next >= args.argc) return std::nullopt;
  return std::string(args.argv[args.next++]);
}

std::optional<int64_t> whole_number(const std::string& text, int64_t low, int64_t high) {
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const long long n = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || n < low || n > high) return std::nullopt;
  return n;
}

std::optional<int32_t> leading_int(const std::string& text) {
  try {
    return std::stoi(text);
  } catch (const std::logic_error&) {  // invalid_argument or out_of_range
    return std::nullopt;
  }
}

std::optional<double> leading_number(const std::string& text) {
  try {
    return std::stod(text);
  } catch (const std::logic_error&) {
    return std::nullopt;
  }
}

}  // namespace sonderlark
