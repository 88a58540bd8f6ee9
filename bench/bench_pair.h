// bench_pair: a pair on disk for measuring, and the repetition of measurements.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "tests/support/pair_builder.h"

namespace bench {

// 128 bytes, an 8-byte unique key, a 20-byte key with ten duplicates.
testing_support::PairSpec bench_spec(int records);

// A sound pair for as long as it lives.
class BenchPair {
 public:
  // Makes the pair in a process of its own, so that its memory is not counted as that of the
  // programs started later. Throws std::runtime_error when it cannot be made.
  BenchPair(const std::filesystem::path& folder, const testing_support::PairSpec& spec);
  BenchPair(const BenchPair&) = delete;
  BenchPair& operator=(const BenchPair&) = delete;
  ~BenchPair();

  [[nodiscard]] std::string index() const { return base + ".idx"; }
  [[nodiscard]] std::string data() const { return base + ".dat"; }
  [[nodiscard]] double megabytes() const;

  const std::string base;
  const int records;
};

// Throws unless the check reports every record and no fault: a figure is worth something only if
// the program looked at everything and found it sound.
void demand_sound(const BenchPair& pair, const std::string& program);

[[nodiscard]] Summary repeat(int runs, const std::function<Run()>& once);

}  // namespace bench
