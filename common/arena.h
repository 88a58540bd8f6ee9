// arena: memory for large tables that are read at random, in huge pages where the system has them.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace common {

struct UnmapArena {
  std::size_t size = 0;  // bytes
  void operator()(void* memory) const { ::munmap(memory, size); }
};
template <typename T>
using Arena = std::unique_ptr<T[], UnmapArena>;

inline constexpr std::size_t kHugePage = std::size_t{2} << 20;

// Maps zero bytes, which begin where a huge page can: null without memory.
[[nodiscard]] inline void* map_for_huge_pages(std::size_t size) {
  void* const all =
      ::mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (all == MAP_FAILED) return nullptr;
  auto* const room = static_cast<char*>(all);
  const std::size_t before = -reinterpret_cast<std::uintptr_t>(room) % kHugePage;
  if (before > 0) ::munmap(room, before);
  ::munmap(room + before + size, kHugePage - before);
  return room + before;
}

// `count` elements of zero bytes (no constructor runs), and behind them room for `spare` more,
// which takes no memory before it is used. Null without memory, and where both are 0. What fills
// half a huge page and more takes whole ones.
template <typename T>
[[nodiscard]] Arena<T> make_arena(std::size_t count, std::size_t spare = 0) {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
  // NOLINTNEXTLINE(bugprone-sizeof-expression): an element may be a pointer
  const std::size_t used = count * sizeof(T);
  // NOLINTNEXTLINE(bugprone-sizeof-expression)
  const std::size_t size = used + spare * sizeof(T);
  if (used < kHugePage / 2) {
    void* const memory =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return {};
    return Arena<T>{static_cast<T*>(memory), UnmapArena{size}};
  }
  const auto in_huge_pages = [](std::size_t bytes) {
    return (bytes + kHugePage - 1) / kHugePage * kHugePage;
  };
  void* const memory = map_for_huge_pages(in_huge_pages(size));
  if (memory == nullptr) return {};
  ::madvise(memory, in_huge_pages(used), MADV_HUGEPAGE);
  return Arena<T>{static_cast<T*>(memory), UnmapArena{in_huge_pages(size)}};
}

// Has the system take whole huge pages for bytes of an arena that are not used yet.
inline void expect_huge_pages(void* from, std::size_t size) {
  const auto start = reinterpret_cast<std::uintptr_t>(from);
  const std::uintptr_t first = (start + kHugePage - 1) / kHugePage * kHugePage;
  const std::uintptr_t end = (start + size) / kHugePage * kHugePage;
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  if (first < end) ::madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
}

// Gives back the memory of bytes that are not used any more: they are zero from now on, but for
// those of pages that reach beyond them.
inline void drop_bytes(void* from, std::size_t size) {
  constexpr std::uintptr_t kPage = 4096;
  const auto start = reinterpret_cast<std::uintptr_t>(from);
  const std::uintptr_t first = (start + kPage - 1) / kPage * kPage;
  const std::uintptr_t end = (start + size) / kPage * kPage;
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  if (first < end) ::madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
}

}  // namespace common
