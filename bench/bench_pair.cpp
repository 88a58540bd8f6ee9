#include "bench/bench_pair.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tests/support/made_records.h"

namespace bench {

namespace fs = std::filesystem;

testing_support::PairSpec bench_spec(int records) {
  using testing_support::put_unique;
  testing_support::PairSpec spec;
  spec.records = records;
  spec.record_length = 128;
  spec.dup_width = 4;
  spec.keys = {{.flags = 0, .parts = {{0, 8, testing_support::kChar}}},
               {.flags = testing_support::kDups, .parts = {{8, 20, testing_support::kChar}}}};
  const auto groups = static_cast<std::uint64_t>(std::max(records / 10, 1));
  spec.make_record = [groups](int number, testing_support::Image& record) {
    std::fill(record.begin(), record.end(), testing_support::Byte{' '});
    put_unique(record.data(), {0, 8}, number);
    const std::uint64_t group = static_cast<std::uint64_t>(number) * 2654435761u % groups;
    std::memcpy(record.data() + 8, "NAME", 4);
    put_unique(record.data() + 12, {0, 8}, static_cast<int>(group));
  };
  return spec;
}

BenchPair::BenchPair(const fs::path& folder, const testing_support::PairSpec& spec)
    : base(folder / ("kestro_bench." + std::to_string(getpid()))), records(spec.records) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      testing_support::build_pair(spec, base);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      _exit(EXIT_FAILURE);
    }
    _exit(EXIT_SUCCESS);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) < 0 || status != 0) {
    throw std::runtime_error("the pair could not be made");
  }
}

BenchPair::~BenchPair() {
  std::error_code ignored;
  for (const std::string& file : {index(), data()}) fs::remove(file, ignored);
}

double BenchPair::megabytes() const {
  return static_cast<double>(fs::file_size(index()) + fs::file_size(data())) / 1e6;
}

void demand_sound(const BenchPair& pair, const std::string& program) {
  const std::string report = output_of({program, "-nq", pair.base});
  const std::string all = " " + std::to_string(pair.records) + " data record(s) used, 0 free.";
  if (report.find("ERROR") != std::string::npos || report.find(all) == std::string::npos) {
    throw std::runtime_error("unexpected report:\n" + report);
  }
}

Summary repeat(int runs, const std::function<Run()>& once) {
  std::vector<Run> all;
  for (int i = 0; i < runs; ++i) all.push_back(once());
  return summarize(std::move(all));
}

}  // namespace bench
