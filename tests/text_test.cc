#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <cstdio>
#include <bit>
#include <limits>
#include <random>

#include "report/json.h"
#include "support.h"
#include "util/text.h"

namespace sonderlark {
namespace {

// Every output must pass a strict JSON parser: short escapes, \u00XX for
// other control bytes, well-formed UTF-8 kept, each stray byte \ufffd.
TEST(JsonEscape, Samples) {
  const std::pair<std::string, std::string> cases[] = {
      {"\r\n", "\\r\\n"},
      {"C:\\dir", "C:\\\\dir"},
      {"say \"hi\"", "say \\\"hi\\\""},
      {"\t", "\\t"},
      {"", ""},
      {std::string("\x01\x1f\x1b[0m\b\f", 8), "\\u0001\\u001f\\u001b[0m\\u0008\\u000c"},
      {std::string("\0x", 2), "\\u0000x"},
      {"\x7f/\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA4 \xF4\x8F\xBF\xBF", "\x7f/\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA4 \xF4\x8F\xBF\xBF"},
      {"\x80", "\\ufffd"},                        // stray continuation byte
      {"\xC0\x80", "\\ufffd\\ufffd"},             // overlong NUL
      {"\xE0\x80\xAF", "\\ufffd\\ufffd\\ufffd"},  // overlong slash
      {"\xED\xA0\x80", "\\ufffd\\ufffd\\ufffd"},  // surrogate
      {"\xF4\x90\x80\x80", "\\ufffd\\ufffd\\ufffd\\ufffd"},  // above U+10FFFF
      {"a\xE2\x82", "a\\ufffd\\ufffd"},           // cut short at the end
      {"\xE2\x82x\xFF", "\\ufffd\\ufffdx\\ufffd"},
  };
  for (const auto& [text, escaped] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(json_escape(text), escaped);
  }
  EXPECT_EQ(json_string("a\"b"), "\"a\\\"b\"");
}

TEST(VectorJson, Samples) {
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(vector_json({}), "[]");
  EXPECT_EQ(vector_json({0.5, -0.25}), "[0.50000000, -0.25000000]");
  EXPECT_EQ(vector_json({1.0}), "[1.00000000]");
  EXPECT_EQ(vector_json({-1e-12, -0.0}), "[-0.00000000, -0.00000000]");
  EXPECT_EQ(vector_json({0.123456789}), "[0.12345679]");
  EXPECT_EQ(vector_json({inf, -inf, std::nan("")}), "[inf, -inf, nan]");
  EXPECT_EQ(int_vector_json({}), "[]");
  EXPECT_EQ(int_vector_json({3, -1, 0}), "[3, -1, 0]");
}

// fixed() must write what printf's "%.*f" writes: the logs, manifests and
// status files were defined with it. Exact ties (0.125 to 2 digits), values
// next to them, huge, tiny, negative zero, inf and nan.
TEST(Fixed, WritesWhatPrintfWrites) {
  std::vector<double> values = {0.0, -0.0, 0.125, 0.375, 2.5, -2.5, 0.005, 1e-9, -1e-300, 4.9e-324, 1.0 / 3.0,
                                1e22, -1.7976931348623157e308, 123456.789, 0.99999999995, 30.000000000000004,
                                std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                                std::nan(""), -std::nan("")};
  std::mt19937_64 rng(11);
  for (int i = 0; i < 20000; ++i) {
    values.push_back(i % 2 ? std::bit_cast<double>(rng()) : std::ldexp(static_cast<double>(rng() % 100000), -static_cast<int>(rng() % 20)));
    values.push_back(std::nextafter(values.back(), 0.0));
  }
  for (const double v : values) {
    for (int decimals = 0; decimals <= 8; ++decimals) {
      char expected[512];
      std::snprintf(expected, sizeof expected, "%.*f", decimals, v);
      ASSERT_EQ(fixed(v, decimals), expected) << decimals << " digits of " << v;
    }
  }
}

// What a terminal may be shown of outside text: one '?' for each control,
// hidden character or stray byte; other UTF-8 unchanged.
TEST(TerminalText, Samples) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain text, 30.00 degrees", "plain text, 30.00 degrees"},
      {"\x1b]2;title\x07", "?]2;title?"},
      {std::string("\0\t\n\r\x7f", 5), "?????"},
      {"\xC2\x9B" "31m \xC2\x9D \xC2\x80 \xC2\x9F \xC2\xA0", "?31m ? ? ? \xC2\xA0"},  // C1, then NBSP kept
      {"\xE2\x80\xAA\xE2\x80\xAE \xE2\x81\xA6\xE2\x81\xA9 \xE2\x80\xA9", "?? ?? \xE2\x80\xA9"},  // bidi; U+2029 kept
      {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA4", "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA4"},
      {"\x80 \xC0\x80 \xED\xA0\x80 \xF4\x90\x80\x80", "? ?? ??? ????"},  // stray, overlong, surrogate, > U+10FFFF
      {"cut \xE2\x82", "cut ??"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(terminal_text(in), out) << in;
}

// Files someone else may have placed: never waited on, never read past 1 MiB
// (a FIFO and /dev/zero: the status-path rows of tests/scenarios/monitor.toml).
TEST(ReadFileText, RefusesWhatIsNotASmallRegularFile) {
  test::TempDir tmp;
  test::write_file(tmp.path("small"), "record");
  test::write_file(tmp.path("limit"), std::string(kMaxFileTextBytes, 'x'));
  test::write_file(tmp.path("over"), std::string(kMaxFileTextBytes + 1, 'x'));
  std::filesystem::create_symlink(tmp.path("small"), tmp.path("link"));
  struct Row {
    std::string path;
    bool follow;
    bool found;
    std::string refused;
    std::size_t size;
  };
  const Row rows[] = {
      {tmp.path("small"), true, true, "", 6},
      {tmp.path("limit"), true, true, "", kMaxFileTextBytes},
      {tmp.path("over"), true, true, "larger than 1 MiB", 0},
      {tmp.path("link"), true, true, "", 6},
      {tmp.path("link"), false, true, "symbolic link", 0},
      {tmp.path("none"), true, false, "", 0},
      {"/proc/self/comm", true, true, "", 1},  // says 0 bytes, holds the name
  };
  for (const Row& row : rows) {
    const FileText file = read_file_text(row.path, row.follow);
    EXPECT_EQ(file.found, row.found) << row.path;
    EXPECT_EQ(file.refused, row.refused) << row.path;
    // /proc/self/comm: the test program's name, whatever its length.
    EXPECT_EQ(file.text.size(), row.path == "/proc/self/comm" ? file.text.find('\n') + 1 : row.size) << row.path;
    EXPECT_EQ(file.text.empty(), row.size == 0) << row.path;
  }
}

}  // namespace
}  // namespace sonderlark
