#include "tools/page_memory.h"

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

WritableImage WritableImage::make(PixelSize size, bool opaque) {
  const auto count = static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height);
  auto memory = std::make_shared<PageMemory>(count * sizeof(std::uint32_t));
  WritableImage made;
  if (!*memory) return made;
  made.pixels = memory->as<std::uint32_t>();
  made.image = {.size = size,
                .stride = size.width,
                .opaque = opaque,
                .pixels = made.pixels,
                .storage = std::move(memory)};
  return made;
}

}  // namespace vesko
