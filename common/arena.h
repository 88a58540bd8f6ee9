// arena: memory for large tables that are read at random, in huge pages where the system has them.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <memory>
#include <type_traits>

namespace common {

struct UnmapArena {
  std::size_t size = 0;  // bytes
  void operator()(void* memory) const { ::munmap(memory, size); }
};
template <typename T>
using Arena = std::unique_ptr<T[], UnmapArena>;

// `count` elements of zero bytes (no constructor runs), and behind them room for `spare` more,
// which takes no memory before it is used. Null without memory, and where both are 0.
template <typename T>
[[nodiscard]] Arena<T> make_arena(std::size_t count, std::size_t spare = 0) {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
  constexpr std::size_t kHugePage = std::size_t{2} << 20;
  // NOLINTNEXTLINE(bugprone-sizeof-expression): an element may be a pointer
  const std::size_t used = count * sizeof(T);
  // NOLINTNEXTLINE(bugprone-sizeof-expression)
  const std::size_t size = used + spare * sizeof(T);
  void* const memory =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return {};
  if (used >= kHugePage) ::madvise(memory, used, MADV_HUGEPAGE);
  return Arena<T>{static_cast<T*>(memory), UnmapArena{size}};
}

}  // namespace common
