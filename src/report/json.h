#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonderlark {

// The body of a JSON string: tab, line feed, carriage return, double quote
// and backslash are escaped; every other byte is copied as it is.
std::string json_escape(const std::string& text);

// json_escape(text) in double quotes: a whole JSON string value.
std::string json_string(const std::string& text);

// "[a, b, ...]" with each value in fixed notation, 8 decimals.
std::string vector_json(const std::vector<double>& values);

// "[a, b, ...]" in plain decimal.
std::string int_vector_json(const std::vector<int32_t>& values);

}  // namespace sonderlark
