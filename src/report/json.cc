#include "report/json.h"

#include "util/text.h"

namespace sonderlark {

std::string json_escape(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const std::size_t length = utf8_sequence_length(text, i);
      if (length == 0) {
        escaped += "\\ufffd";  // one replacement per stray byte
        ++i;
      } else {
        escaped.append(text, i, length);
        i += length;
      }
      continue;
    }
    switch (c) {
      case '\t': escaped += "\\t"; break;
      case '\n': escaped += "\\n"; break;
      case '\r': escaped += "\\r"; break;
      case '"': escaped += "\\\""; break;
      case '\\': escaped += "\\\\"; break;
      default:
        if (c < 0x20) {
          escaped += "\\u00";
          escaped += kHex[c >> 4];
          escaped += kHex[c & 0xF];
        } else {
          escaped += static_cast<char>(c);
        }
    }
    ++i;
  }
  return escaped;
}

std::string json_string(const std::string& text) {
  std::string quoted = "\"";
  quoted += json_escape(text);
  quoted += '"';
  return quoted;
}

std::string vector_json(const std::vector<double>& values) {
  std::string text = "[";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) text += ", ";
    text += fixed(values[i], 8);
  }
  return text + "]";
}

std::string int_vector_json(const std::vector<int32_t>& values) {
  std::string text = "[";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) text += ", ";
    text += std::to_string(values[i]);
  }
  return text + "]";
}

void json_begin(JsonWriter& writer) {
  writer.text += '{';
  writer.empty.push_back(true);
}

namespace {

// The separator before a member and its indented key.
void start_member(JsonWriter& writer, const std::string& key) {
  writer.text += writer.empty.back() ? "\n" : ",\n";
  writer.empty.back() = false;
  writer.text.append(2 * writer.empty.size(), ' ');
  writer.text += json_string(key);
  writer.text += ": ";
}

}  // namespace

void json_member(JsonWriter& writer, const std::string& key, const std::string& value) {
  start_member(writer, key);
  writer.text += value;
}

void json_string_member(JsonWriter& writer, const std::string& key, const std::string& text) {
  json_member(writer, key, json_string(text));
}

void json_bool_member(JsonWriter& writer, const std::string& key, bool value) {
  json_member(writer, key, value ? "true" : "false");
}

void json_begin_object_member(JsonWriter& writer, const std::string& key) {
  start_member(writer, key);
  json_begin(writer);
}

void json_end(JsonWriter& writer) {
  writer.empty.pop_back();
  writer.text += '\n';
  writer.text.append(2 * writer.empty.size(), ' ');
  writer.text += '}';
  if (writer.empty.empty()) writer.text += '\n';
}

}  // namespace sonderlark
