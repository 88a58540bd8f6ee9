// repair_bench: how long `kestro -yq` takes to remake both indexes of a pair, beside the least that
// any program must do for it: read the data file, sort both sets of keys with std::sort, and write
// as many bytes as the indexes have.
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bench_pair.h"

namespace {

namespace fs = std::filesystem;
using testing_support::Byte;

constexpr std::size_t kRecord = 128;
constexpr std::size_t kSlot = kRecord + 1;
constexpr int kRuns = 5;

template <std::size_t kWidth>
struct Key {
  std::array<Byte, kWidth> bytes;
  std::int32_t record;
  bool operator<(const Key& other) const {
    const int order = std::memcmp(bytes.data(), other.bytes.data(), kWidth);
    return order != 0 ? order < 0 : record < other.record;
  }
};

template <std::size_t kWidth>
void take(std::vector<Key<kWidth>>& keys, const Byte* from, std::size_t number) {
  Key<kWidth> key;
  std::copy_n(from, kWidth, key.bytes.begin());
  key.record = static_cast<std::int32_t>(number);
  keys.push_back(key);
}

double processor_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The floor, in this process.
bench::Run floor_run(const bench::BenchPair& pair) {
  const auto start = std::chrono::steady_clock::now();
  const double spent = processor_seconds();
  std::ifstream data(pair.data(), std::ios::binary);
  std::vector<char> buffer(kSlot * 512);
  std::vector<Key<8>> primary;
  std::vector<Key<20>> secondary;
  std::size_t number = 0;
  while (data.read(buffer.data(), static_cast<std::streamsize>(buffer.size())), data.gcount() > 0) {
    const auto got = static_cast<std::size_t>(data.gcount());
    for (std::size_t at = 0; at + kSlot <= got; at += kSlot) {
      const auto* record = reinterpret_cast<const Byte*>(buffer.data() + at);
      take(primary, record, ++number);
      take(secondary, record + 8, number);
    }
  }
  std::sort(primary.begin(), primary.end());
  std::sort(secondary.begin(), secondary.end());
  const std::string copy = pair.base + ".floor";
  std::ofstream out(copy, std::ios::binary | std::ios::trunc);
  const std::vector<char> block(64 * 1024, static_cast<char>(primary.front().bytes[0]));
  for (auto left = fs::file_size(pair.index()); left > 0;) {
    const auto part = std::min<std::uintmax_t>(left, block.size());
    out.write(block.data(), static_cast<std::streamsize>(part));
    left -= part;
  }
  out.flush();
  bench::Run run;
  run.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.user = processor_seconds() - spent;
  fs::remove(copy);
  return run;
}

// Empties the roots of both indexes: everything below them is lost.
void empty_roots(const bench::BenchPair& pair) {
  std::fstream index(pair.index(), std::ios::in | std::ios::out | std::ios::binary);
  std::array<char, 64> descriptions{};
  index.seekg(1024 + 6);
  index.read(descriptions.data(), descriptions.size());
  const auto* at = reinterpret_cast<const Byte*>(descriptions.data());
  for (int i = 0; i < 2; ++i, at += testing_support::get2(at)) {
    index.seekp(std::int64_t{testing_support::get4(at + 2) - 1} * 1024);
    index.write("\0\2", 2);
  }
  if (!index.flush()) throw std::runtime_error("the pair could not be damaged");
}

bench::Run repair_run(const bench::BenchPair& pair) {
  empty_roots(pair);
  return bench::run_child({KESTRO_PROGRAM, "-yq", pair.base});
}

void print_row(const char* what, const bench::Summary& summary, const bench::Summary& floor,
               int records) {
  const bench::Run& best = summary.best;
  std::printf("%-12s %9.3f %9.3f %9.3f %12.0f %7.2f %9.1f\n", what, best.wall, summary.median.wall,
              best.user + best.system, records / best.wall, best.wall / floor.best.wall,
              static_cast<double>(best.peak) / 1e6);
}

void measure(const fs::path& folder, int records) {
  const bench::BenchPair pair(folder, bench::bench_spec(records));
  bench::demand_sound(pair, KESTRO_PROGRAM);
  const bench::Summary repair = bench::repeat(kRuns, [&] { return repair_run(pair); });
  bench::demand_sound(pair, KESTRO_PROGRAM);
  const bench::Summary floor = bench::repeat(kRuns, [&] { return floor_run(pair); });
  std::printf("\n%d records of %zu bytes, %.1f MB, %d runs\n", records, kRecord, pair.megabytes(),
              kRuns);
  std::printf("%-12s %9s %9s %9s %12s %7s %9s\n", "", "best s", "median s", "cpu s", "records/s",
              "ratio", "peak MB");
  print_row("floor", floor, floor, records);
  print_row("kestro -yq", repair, floor, records);
  std::printf("wanted: a ratio of 1.3 at most\n");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::vector<int> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(std::max(std::atoi(argv[i]), 1000));
    if (sizes.empty()) sizes.push_back(1'000'000);
    for (const int records : sizes) measure(fs::temp_directory_path(), records);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "repair_bench: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
