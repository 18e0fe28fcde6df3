#include "base/page_memory.h"

#include <sys/mman.h>

namespace vesko {

PageMemory::PageMemory(std::size_t bytes) {
  void* mapped = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return;
  data_ = mapped;
  size_ = bytes;
#ifdef MADV_HUGEPAGE
  // A screen is thousands of small pages, and faulting them in takes longer than filling them.
  ::madvise(mapped, bytes, MADV_HUGEPAGE);
#endif
}

PageMemory::~PageMemory() {
  if (data_) ::munmap(data_, size_);
}

}  // namespace vesko
