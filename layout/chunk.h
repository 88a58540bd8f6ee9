// chunk: sixteen bytes of a text at a time.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace layout {

using Chunk = unsigned char __attribute__((vector_size(16)));

// Bytes from `at` on, however they are aligned.
[[nodiscard]] inline Chunk chunk_at(const void* at) {
  Chunk chunk;
  std::memcpy(&chunk, at, sizeof chunk);
  return chunk;
}
inline void put_chunk(Chunk chunk, void* to) { std::memcpy(to, &chunk, sizeof chunk); }

// Of each byte, 0xFF where it is true, else 0.

[[nodiscard]] inline Chunk is_byte(Chunk chunk, unsigned char byte) {
  const Chunk all = Chunk{} + byte;
  return reinterpret_cast<Chunk>(chunk == all);
}
// Anything but printable ASCII.
[[nodiscard]] inline Chunk is_unprintable(Chunk chunk) {
  const Chunk first = Chunk{} + static_cast<unsigned char>(' ');
  const Chunk most = Chunk{} + static_cast<unsigned char>('~' - ' ');
  return reinterpret_cast<Chunk>((chunk - first) > most);
}

using Halves = std::uint64_t __attribute__((vector_size(16)));

[[nodiscard]] inline bool has_any(Chunk marked) {
  const Halves halves = reinterpret_cast<Halves>(marked);
  return (halves[0] | halves[1]) != 0;
}
[[nodiscard]] inline bool is_ascii(Chunk chunk) {
  constexpr std::uint64_t kHighest = 0x8080808080808080;
  const Halves halves = reinterpret_cast<Halves>(chunk);
  return ((halves[0] | halves[1]) & kHighest) == 0;
}
// How many bytes are in front of the first that is marked; there is one.
[[nodiscard]] inline int first_of(Chunk marked) {
  static_assert(std::endian::native == std::endian::little, "the first byte is the lowest");
  const Halves halves = reinterpret_cast<Halves>(marked);
  const std::uint64_t low = halves[0];
  const std::uint64_t high = halves[1];
  return (low != 0 ? std::countr_zero(low) : 64 + std::countr_zero(high)) / 8;
}

}  // namespace layout
