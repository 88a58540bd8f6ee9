// arena: memory for large tables that are read at random, in huge pages where the system has them.
#pragma once

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

namespace common {

struct FreeArena {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using Arena = std::unique_ptr<T[], FreeArena>;

// `count` zeroed elements; empty without memory.
template <typename T>
[[nodiscard]] Arena<T> make_arena(std::size_t count) {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
  constexpr std::size_t kHugePage = std::size_t{2} << 20;
  constexpr std::size_t kCacheLine = 64;
  // NOLINTNEXTLINE(bugprone-sizeof-expression): an element may be a pointer
  const std::size_t wanted = count * sizeof(T);
  const std::size_t unit = wanted < kHugePage ? kCacheLine : kHugePage;
  const std::size_t size = (wanted + unit - 1) / unit * unit;
  void* const memory = std::aligned_alloc(unit, size);
  if (memory == nullptr) return {};
  if (unit == kHugePage) ::madvise(memory, size, MADV_HUGEPAGE);
  std::memset(memory, 0, wanted);
  return Arena<T>{static_cast<T*>(memory)};
}

}  // namespace common
