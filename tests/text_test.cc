#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <regex>

#include "report/json.h"
#include "support.h"
#include "util/logger.h"
#include "util/text.h"

namespace sonderlark {
namespace {

TEST(ShellQuote, Samples) {
  EXPECT_EQ(shell_quote("it's"), "'it'\\''s'");
  EXPECT_EQ(shell_quote(""), "''");
  EXPECT_EQ(shell_quote("a b\nc"), "'a b\nc'");
  EXPECT_EQ(shell_quote("$(rm -rf x) `y` \\ \xC3\xA9"), "'$(rm -rf x) `y` \\ \xC3\xA9'");
  EXPECT_EQ(shell_quote("hw:1,0"), "'hw:1,0'");
}

TEST(ShellQuote, TheShellGetsBackTheSameText) {
  const std::string nasty = "a'b \"c\" $(echo x) `id` \\n\n;|&*? ''";
  const test::RunResult r = test::run({"sh", "-c", "printf '%s' " + shell_quote(nasty)});
  EXPECT_EQ(r.out, nasty);
}

TEST(JsonEscape, Samples) {
  EXPECT_EQ(json_escape("\r\n"), "\\r\\n");
  EXPECT_EQ(json_escape("C:\\dir"), "C:\\\\dir");
  EXPECT_EQ(json_escape("say \"hi\""), "say \\\"hi\\\"");
  EXPECT_EQ(json_escape("\t"), "\\t");
  EXPECT_EQ(json_escape(std::string("\x01\x1f\x7f/\xC3\xA9", 6)), std::string("\x01\x1f\x7f/\xC3\xA9", 6));
  EXPECT_EQ(json_escape(""), "");
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
    uint64_t bits = rng();
    double v;
    std::memcpy(&v, &bits, sizeof v);
    values.push_back(i % 2 ? v : std::ldexp(static_cast<double>(rng() % 100000), -static_cast<int>(rng() % 20)));
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

TEST(NowIso8601Utc, PatternAndClock) {
  const std::time_t before = std::time(nullptr);
  const std::string stamp = now_iso8601_utc();
  const std::time_t after = std::time(nullptr);
  ASSERT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z)"))) << stamp;
  std::tm parsed{};
  strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parsed);
  const std::time_t t = timegm(&parsed);
  EXPECT_GE(t, before);
  EXPECT_LE(t, after);
}

TEST(Logger, TruncatesAndFlushesEveryLine) {
  test::TempDir tmp;
  const std::string path = tmp.path("log.txt");
  test::write_file(path, "old content that must go away\n");
  Logger logger;
  open_log(logger, path);
  testing::internal::CaptureStdout();
  logger.line("first");
  EXPECT_EQ(test::read_file(path), "first\n");  // flushed without closing
  logger.line("");
  logger.line("multi\nline");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "first\n\nmulti\nline\n");
  EXPECT_EQ(test::read_file(path), "first\n\nmulti\nline\n");
}

TEST(Logger, UnopenableLogIsSilent) {
  test::TempDir tmp;
  Logger logger;
  open_log(logger, tmp.path("no/such/dir/log.txt"));
  EXPECT_FALSE(logger.file.is_open());
  testing::internal::CaptureStdout();
  logger.line("still here");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "still here\n");
}

}  // namespace
}  // namespace sonderlark
