#include "checker/usagemap.h"

#include <algorithm>
#include <bit>

namespace checker {
namespace {

template <typename Chunk>
Chunk filled_with(std::uint64_t word) {
  Chunk chunk;
  chunk.fill(word);
  return chunk;
}

}  // namespace

const UsageMap::Chunk UsageMap::kClear = filled_with<Chunk>(0);
const UsageMap::Chunk UsageMap::kSet = filled_with<Chunk>(~std::uint64_t{0});

void UsageMap::reset(std::int32_t highest) {
  const std::size_t chunks = chunk_of(highest) + 1;
  owned_.clear();
  owned_.resize(chunks);
  directory_.assign(chunks, kClear.data());
  first_touched_ = UINT32_MAX;
  last_touched_ = 0;
  highest_ = highest;
  count_ = 0;
}

void UsageMap::touch(std::uint32_t chunk) {
  first_touched_ = std::min(first_touched_, chunk);
  last_touched_ = std::max(last_touched_, chunk);
}

UsageMap::Word* UsageMap::own(std::uint32_t chunk) {
  touch(chunk);
  auto copy = std::make_unique_for_overwrite<Chunk>();
  std::copy_n(directory_[chunk], kChunkWords, copy->data());
  owned_[chunk] = std::move(copy);
  directory_[chunk] = owned_[chunk]->data();
  return owned_[chunk]->data();
}

void UsageMap::share(std::uint32_t chunk, const Chunk& contents) {
  touch(chunk);
  owned_[chunk].reset();
  directory_[chunk] = contents.data();
}

void UsageMap::ormap(const UsageMap& other) {
  for (std::uint32_t chunk = other.first_touched_;
       chunk <= other.last_touched_ && chunk < directory_.size(); ++chunk) {
    const Word* from = other.directory_[chunk];
    if (from == kClear.data()) continue;
    Word* to = owned_[chunk] ? owned_[chunk]->data() : own(chunk);
    for (std::uint32_t i = 0; i < kChunkWords; ++i) {
      count_ += std::popcount(from[i] & ~to[i]);
      to[i] |= from[i];
    }
  }
}

void UsageMap::clrmap() {
  for (std::uint32_t chunk = first_touched_; chunk <= last_touched_; ++chunk) {
    share(chunk, kClear);
  }
  first_touched_ = UINT32_MAX;
  last_touched_ = 0;
  count_ = 0;
}

void UsageMap::setmap(std::int32_t first, std::int32_t last) {
  for (std::int64_t n = first; n <= last;) {
    const std::uint32_t chunk = chunk_of(static_cast<std::int32_t>(n));
    if (n % kChunkBits == 0 && last - n >= std::int64_t{kChunkBits} - 1) {
      count_ += kChunkBits - count_set(static_cast<std::int32_t>(n),
                                       static_cast<std::int32_t>(n + kChunkBits - 1));
      share(chunk, kSet);
      n += kChunkBits;
    } else {
      set_bit(static_cast<std::int32_t>(n++));
    }
  }
}

std::int32_t UsageMap::next_set(std::int32_t n) const {
  for (std::int64_t at = n; at <= highest_;) {
    const auto number = static_cast<std::int32_t>(at);
    if (directory_[chunk_of(number)] == kClear.data()) {
      at = (at / kChunkBits + 1) * kChunkBits;
      continue;
    }
    const Word word = directory_[chunk_of(number)][word_of(number)] & ~(bit_of(number) - 1);
    if (word != 0) {
      const std::int64_t found = at / kWordBits * kWordBits + std::countr_zero(word);
      return found <= highest_ ? static_cast<std::int32_t>(found) : 0;
    }
    at = (at / kWordBits + 1) * kWordBits;
  }
  return 0;
}

std::int32_t UsageMap::previous_unlike(const Chunk& skipped, std::int32_t n) const {
  for (std::int64_t at = n; at >= 1;) {
    const auto number = static_cast<std::int32_t>(at);
    if (directory_[chunk_of(number)] == skipped.data()) {
      at = at / kChunkBits * kChunkBits - 1;
      continue;
    }
    const Word up_to_here = bit_of(number) | (bit_of(number) - 1);
    const Word unlike =
        (directory_[chunk_of(number)][word_of(number)] ^ skipped.front()) & up_to_here;
    if (unlike != 0) {
      // Bit 0 stands for no number: it is the answer "none".
      return static_cast<std::int32_t>(at / kWordBits * kWordBits + std::bit_width(unlike) - 1);
    }
    at = at / kWordBits * kWordBits - 1;
  }
  return 0;
}

std::int32_t UsageMap::previous_set(std::int32_t n) const { return previous_unlike(kClear, n); }

std::int32_t UsageMap::previous_clear(std::int32_t n) const { return previous_unlike(kSet, n); }

std::int32_t UsageMap::count_set(std::int32_t first, std::int32_t last) const {
  std::int64_t count = 0;
  for (std::int64_t at = first; at <= last;) {
    const auto number = static_cast<std::int32_t>(at);
    if (directory_[chunk_of(number)] == kClear.data()) {
      at = (at / kChunkBits + 1) * kChunkBits;
      continue;
    }
    Word word = directory_[chunk_of(number)][word_of(number)] & ~(bit_of(number) - 1);
    const std::int64_t next = (at / kWordBits + 1) * kWordBits;
    if (next - 1 > last) {
      word &= bit_of(last) | (bit_of(last) - 1);
    }
    count += std::popcount(word);
    at = next;
  }
  return static_cast<std::int32_t>(count);
}

}  // namespace checker
