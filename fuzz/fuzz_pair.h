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
#include <optional>
#include <span>
#include <string>

#include "common/bytes.h"
#include "locale/collation.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace fuzz {

using Input = std::span<const std::uint8_t>;
using testing_support::Image;

inline Image image_of(Input bytes) { return {bytes.begin(), bytes.end()}; }

struct PairInput {
  Image index;
  Image records;
  std::uint8_t choice = 0;
};

// A folder in memory where there is one, for the life of the process.
class Workplace {
 public:
  Workplace() {
    locale::initulx();
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    if (std::freopen("/dev/null", "r", stdin) == nullptr) std::abort();
  }

  [[nodiscard]] const std::string& base() const { return base_; }
  // The pair that an input stands for, written to the folder; none when it is too short.
  [[nodiscard]] std::optional<PairInput> put(Input data) const {
    constexpr std::size_t kLength = 4;
    if (data.size() <= kLength) return std::nullopt;
    const Input body = data.subspan(kLength, data.size() - kLength - 1);
    const auto claimed = static_cast<std::uint32_t>(common::ldlong(data.data()));
    const Input index = body.first(std::min<std::size_t>(claimed, body.size()));
    PairInput pair{image_of(index), image_of(body.subspan(index.size())), data.back()};
    testing_support::write_file(base_ + ".idx", pair.index);
    testing_support::write_file(base_ + ".dat", pair.records);
    return pair;
  }
  [[nodiscard]] bool holds(const PairInput& pair) const {
    return testing_support::read_file(base_ + ".idx") == pair.index &&
           testing_support::read_file(base_ + ".dat") == pair.records;
  }
  // Removes all other files of the folder: how many there were.
  int remove_others() const {
    int count = 0;
    const std::filesystem::path folder = std::filesystem::path{base_}.parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      const std::string name = entry.path().string();
      if (name == base_ + ".idx" || name == base_ + ".dat") continue;
      std::filesystem::remove(entry.path());
      ++count;
    }
    return count;
  }

 private:
  int in_memory_ = std::filesystem::exists("/dev/shm") ? ::setenv("TMPDIR", "/dev/shm", 0) : 0;
  testing_support::TempFolder folder_;
  std::string base_ = folder_ / "pair";
};

// Has `work` done with the pair that an input stands for, in a folder that all inputs share.
template <typename Work>
void with_pair(Input data, Work work) {
  static const Workplace workplace;
  if (const auto pair = workplace.put(data)) work(workplace, *pair);
}

}  // namespace fuzz
