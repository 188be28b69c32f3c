#include "util/logger.h"

#include <iostream>

namespace sonderlark {

Logger::~Logger() {
  if (file != nullptr) std::fclose(file);
}

void Logger::line(const std::string& text) {
  std::cout << text << '\n';
  if (file != nullptr) {
    std::fwrite(text.data(), 1, text.size(), file);
    std::fputc('\n', file);
    std::fflush(file);
  }
}

void open_log(Logger& logger, const std::string& path) {
  if (path.empty()) return;
  logger.file = std::fopen(path.c_str(), "we");  // "e": O_CLOEXEC
}

}  // namespace sonderlark
