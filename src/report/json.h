#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonderlark {

// The body of a JSON string, valid for a strict parser whatever the bytes:
// tab, line feed, carriage return, double quote and backslash get their
// short escapes, other bytes below 0x20 are written \u00XX (lower-case hex),
// each byte that is not part of well-formed UTF-8 becomes the escape
// \ufffd, and everything else (well-formed UTF-8 included) is copied.
std::string json_escape(const std::string& text);

// json_escape(text) in double quotes: a whole JSON string value.
std::string json_string(const std::string& text);

// "[a, b, ...]" with each value in fixed notation, 8 decimals.
std::string vector_json(const std::vector<double>& values);

// "[a, b, ...]" in plain decimal.
std::string int_vector_json(const std::vector<int32_t>& values);

}  // namespace sonderlark
