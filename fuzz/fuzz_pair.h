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
#include <initializer_list>
#include <iterator>
#include <optional>
#include <span>
#include <string>

#include "common/bytes.h"
#include "locale/collation.h"

namespace fuzz {

using Input = std::span<const std::uint8_t>;

inline void write_file(const std::string& path, std::initializer_list<Input> pieces) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  for (const Input bytes : pieces) {
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
}

struct PairInput {
  Input index;
  Input records;
  std::uint8_t choice = 0;
};

// The parts of an input; none when it is too short to have any.
inline std::optional<PairInput> split(Input data) {
  constexpr std::size_t kLength = 4;
  if (data.size() <= kLength) return std::nullopt;
  const Input body = data.subspan(kLength, data.size() - kLength - 1);
  const auto claimed = static_cast<std::uint32_t>(common::ldlong(data.data()));
  const Input index = body.first(std::min<std::size_t>(claimed, body.size()));
  return PairInput{index, body.subspan(index.size()), data.back()};
}

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
  // The pair that an input stands for, written to the folder.
  [[nodiscard]] std::optional<PairInput> put(Input data) const {
    const auto pair = split(data);
    if (pair) {
      write_file(base_ + ".idx", {pair->index});
      write_file(base_ + ".dat", {pair->records});
    }
    return pair;
  }
  [[nodiscard]] bool holds(const char* suffix, Input bytes) const {
    std::ifstream file(base_ + suffix, std::ios::binary);
    return std::equal(std::istreambuf_iterator<char>(file), {}, bytes.begin(), bytes.end(),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  }

 private:
  std::string base_;
};

}  // namespace fuzz
