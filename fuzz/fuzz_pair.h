// fuzz_pair: any bytes whatever as a pair of files.
//
// Input   4 bytes: length of the index file, big-endian; the index file; the data file; one byte
//         that chooses what is done with the pair
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

#include "common/bytes.h"
#include "locale/collation.h"

namespace fuzz {

using Input = std::span<const std::uint8_t>;

// A folder in memory where there is one, for the life of the process.
class Workplace {
 public:
  Workplace() {
    std::string pattern = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    pattern += "/fuzz.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    base_ = pattern + "/pair";
    locale::initulx();
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    if (std::freopen("/dev/null", "r", stdin) == nullptr) std::abort();
  }
  ~Workplace() {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(base_).parent_path(), ignored);
  }

  [[nodiscard]] const std::string& base() const { return base_; }
  void put(const char* suffix, Input bytes) const {
    std::ofstream file(base_ + suffix, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
  [[nodiscard]] bool holds(const char* suffix, Input bytes) const {
    std::ifstream file(base_ + suffix, std::ios::binary);
    return std::equal(std::istreambuf_iterator<char>(file), {}, bytes.begin(), bytes.end(),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  }

 private:
  std::string base_;
};

struct PairInput {
  Input index;
  Input records;
  std::uint8_t choice = 0;
};

// The parts of an input; false when it is too short to have any.
inline bool split(const std::uint8_t* data, std::size_t size, PairInput& parts) {
  constexpr std::size_t kFraming = 5;
  if (size < kFraming) return false;
  const Input body{data + 4, size - kFraming};
  const auto claimed = static_cast<std::uint32_t>(common::ldlong(data));
  parts.index = body.first(std::min<std::size_t>(claimed, body.size()));
  parts.records = body.subspan(parts.index.size());
  parts.choice = data[size - 1];
  return true;
}

}  // namespace fuzz
