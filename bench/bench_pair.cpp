#include "bench/bench_pair.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace bench {

namespace fs = std::filesystem;

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
