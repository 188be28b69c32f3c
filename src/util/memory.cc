#include "util/memory.h"

#include <sys/mman.h>

#include <cstdint>

namespace sonderlark {

void advise_huge_pages(void* data, std::size_t bytes) {
  constexpr std::uintptr_t kHugePage = 2u << 20;
  if (data == nullptr || bytes < 2 * kHugePage) return;
  const auto begin = (reinterpret_cast<std::uintptr_t>(data) + kHugePage - 1) & ~(kHugePage - 1);
  const auto end = (reinterpret_cast<std::uintptr_t>(data) + bytes) & ~(kHugePage - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace sonderlark
