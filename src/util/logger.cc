#include "util/logger.h"

#include <iostream>

namespace sonderlark {

void Logger::line(const std::string& text) {
  std::cout << text << '\n';
  if (file.is_open()) {
    file << text << '\n';
    file.flush();
  }
}

void open_log(Logger& logger, const std::string& path) {
  if (path.empty()) return;
  logger.file.open(path, std::ios::out | std::ios::trunc);
}

}  // namespace sonderlark
