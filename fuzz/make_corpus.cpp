// make_corpus: the inputs that fuzzing starts from, one file each: in the folder "pairs" small
// damaged pairs of many node sizes, fixed and variable in length; in "logs" logs to be replayed; in
// "listings" logs, error logs and audit trails.
//
//   make_corpus FOLDER
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

#include "fuzz/log_corpus.h"
#include "tests/support/damaged_pair.h"
#include "tests/support/layout.h"
#include "tests/support/pair_walk.h"

namespace {

namespace fs = std::filesystem;

void write_corpus(const fs::path& folder) {
  constexpr int kPairs = 48;
  constexpr int kMostRecords = 30;
  const std::string base = folder / "pair";
  for (int number = 0; number < kPairs; ++number) {
    testing_support::write_damaged_pair(number, base, kMostRecords);
    const testing_support::Image index = testing_support::read_file(base + ".idx");
    const testing_support::Image data = testing_support::read_file(base + ".dat");
    testing_support::Image seed(4);
    testing_support::put4(seed.data(), std::ssize(index));
    seed.insert(seed.end(), index.begin(), index.end());
    seed.insert(seed.end(), data.begin(), data.end());
    seed.push_back(static_cast<unsigned char>((number + number / 8) % 8));  // the options
    testing_support::write_file(folder / std::to_string(number), seed);
  }
  fs::remove(base + ".idx");
  fs::remove(base + ".dat");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus FOLDER\n");
    return EXIT_FAILURE;
  }
  try {
    const fs::path folder = fs::absolute(argv[1]);
    fs::create_directories(folder / "pairs");
    write_corpus(folder / "pairs");
    fuzz::write_log_corpus(folder / "logs", folder / "listings");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
