#include "report/json.h"

#include "util/text.h"

namespace sonderlark {

std::string json_escape(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\t': escaped += "\\t"; break;
      case '\n': escaped += "\\n"; break;
      case '\r': escaped += "\\r"; break;
      case '"': escaped += "\\\""; break;
      case '\\': escaped += "\\\\"; break;
      default: escaped += c;
    }
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

}  // namespace sonderlark
