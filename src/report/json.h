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

// A JSON object in this tool's layout, built member by member: one member
// per line, indented two spaces per level, "key": value, a comma after
// every member but the last of its object, the closing brace on a line of
// its own and a newline after the outermost one.
struct JsonWriter {
  std::string text;
  std::vector<bool> empty;  // per open object: no member written yet
};

// Opens the outermost object.
void json_begin(JsonWriter& writer);
// A member whose value is already JSON text (a number, true, an array ...).
void json_member(JsonWriter& writer, const std::string& key, const std::string& value);
// A member whose value is `text` as a JSON string.
void json_string_member(JsonWriter& writer, const std::string& key, const std::string& text);
// A member whose value is true or false.
void json_bool_member(JsonWriter& writer, const std::string& key, bool value);
// Opens a member that is an object itself.
void json_begin_object_member(JsonWriter& writer, const std::string& key);
// Closes the innermost open object; closing the outermost ends the text.
void json_end(JsonWriter& writer);

}  // namespace sonderlark
