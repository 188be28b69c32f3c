#pragma once

#include <unistd.h>

#include <utility>

namespace sonderlark {

// One open descriptor, closed when its owner is done with it. Moving hands
// the descriptor on; -1 means none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes the descriptor held, if any, and holds `fd` instead; the result
  // of close (0 when there was nothing to close).
  int reset(int fd = -1) {
    const int result = fd_ >= 0 ? ::close(fd_) : 0;
    fd_ = fd;
    return result;
  }

 private:
  int fd_ = -1;
};

}  // namespace sonderlark
