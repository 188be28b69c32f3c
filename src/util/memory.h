#pragma once

#include <cstddef>
#include <vector>

namespace sonderlark {

// Asks the kernel to back [data, data + bytes) with transparent huge pages
// when the range is large. First touches of 4 KiB pages are expensive on
// virtual machines; 2 MiB pages cut their number by 512. A hint only:
// nothing changes where the kernel says no.
void advise_huge_pages(void* data, std::size_t bytes);

// reserve(n) on a large vector, with the huge-page hint on its fresh storage
// before anything touches it.
template <typename T>
void reserve_large(std::vector<T>& v, std::size_t n) {
  v.reserve(n);
  advise_huge_pages(v.data(), v.capacity() * sizeof(T));
}

}  // namespace sonderlark
