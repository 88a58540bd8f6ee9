// check_bench: how long `kestro -nq` takes on a sound pair, beside merely reading its two files.
//
// Reading in pieces of 1 KiB is what any check must do at least; the ratio to it says how much
// the checking itself costs. All is measured in one run, from files that memory holds already.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/bench_pair.h"
#include "isam/base/format.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMaxRecords = 100'000'000;
constexpr int kMaxRuns = 1000;
constexpr int kMinLength = 28;  // both keys of the benchmark's records

struct Settings {
  std::vector<int> records;
  int length = 128;
  int runs = 5;
  bool scatter = false;
  fs::path folder = fs::temp_directory_path();
};

int number(std::string_view option, const char* text, int least, int most) {
  char* end = nullptr;
  const long value = text == nullptr ? 0 : std::strtol(text, &end, 10);
  if (end == text || end == nullptr || *end != '\0' || value < least || value > most) {
    throw std::invalid_argument(std::string(option) + ": a number from " + std::to_string(least) +
                                " to " + std::to_string(most) + " is wanted");
  }
  return static_cast<int>(value);
}

Settings settings_from(const std::vector<const char*>& arguments) {
  Settings settings;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view word = arguments[i];
    const auto value = [&] { return i + 1 < arguments.size() ? arguments[++i] : nullptr; };
    if (word == "--length") {
      settings.length = number(word, value(), kMinLength, isam::kMaxRecordLength);
    } else if (word == "--runs") {
      settings.runs = number(word, value(), 1, kMaxRuns);
    } else if (word == "--scatter") {
      settings.scatter = true;
    } else if (word == "--folder") {
      const char* folder = value();
      if (folder == nullptr) throw std::invalid_argument("--folder: a folder is wanted");
      settings.folder = folder;
    } else {
      settings.records.push_back(number("RECORDS", arguments[i], 1, kMaxRecords));
    }
  }
  if (settings.records.empty()) settings.records.push_back(1'000'000);
  return settings;
}

testing_support::PairSpec spec_for(const Settings& settings, int records) {
  testing_support::PairSpec spec = bench::bench_spec(records);
  spec.record_length = settings.length;
  spec.scatter = settings.scatter;
  return spec;
}

void print_row(const char* what, const bench::Summary& summary, const bench::BenchPair& pair,
               const bench::Summary& raw) {
  const bench::Run& best = summary.best;
  std::printf("%-12s %9.4f %9.4f %9.4f %9.4f %12.0f %9.1f %7.2f %9.1f\n", what, best.wall,
              summary.median.wall, best.user, best.system, pair.records / best.wall,
              pair.megabytes() / best.wall, best.wall / raw.best.wall,
              static_cast<double>(best.peak) / 1e6);
}

void measure(const Settings& settings, int records) {
  const bench::BenchPair pair(settings.folder, spec_for(settings, records));
  bench::demand_sound(pair, KESTRO_PROGRAM);  // and both files are in memory from here on

  const auto read_by = [&](std::size_t chunk) {
    return bench::repeat(settings.runs, [&] {
      return bench::read_through({pair.index(), pair.data()}, chunk);
    });
  };
  const bench::Summary small = read_by(1024);
  const bench::Summary large = read_by(64 * 1024);
  const bench::Summary checked = bench::repeat(settings.runs, [&] {
    return bench::run_child({KESTRO_PROGRAM, "-nq", pair.base});
  });

  std::printf("\n%d records of %d bytes, %.1f MB, node numbers %s, %d runs\n", records,
              settings.length, pair.megabytes(), settings.scatter ? "scattered" : "in order",
              settings.runs);
  std::printf("%-12s %9s %9s %9s %9s %12s %9s %7s %9s\n", "", "best s", "median s", "user s",
              "system s", "records/s", "MB/s", "ratio", "peak MB");
  print_row("read 1 KiB", small, pair, small);
  print_row("read 64 KiB", large, pair, small);
  print_row("kestro -nq", checked, pair, small);
  std::printf("wanted: a ratio of 3 at most\n");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Settings settings = settings_from({argv + 1, argv + argc});
    for (const int records : settings.records) measure(settings, records);
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr,
                 "check_bench: %s\nusage: check_bench [--length BYTES] [--runs N] [--scatter] "
                 "[--folder FOLDER] [RECORDS ...]\n",
                 error.what());
    return EXIT_FAILURE;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "check_bench: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
