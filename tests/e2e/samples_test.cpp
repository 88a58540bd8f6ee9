// The program on sample pairs from a folder: what it prints is compared byte for byte.
//
// The folder is named by the environment variable KESTRO_SAMPLES; without it one beside the source
// folder is taken if it is there. A sample is a pair, its options (.cmd) and what the program must
// print (.expected); it is checked in a copy.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace {

namespace fs = std::filesystem;
using testing_support::read_file;

fs::path samples_folder() {
  const char* named = std::getenv("KESTRO_SAMPLES");
  return named != nullptr ? named : KESTRO_DEFAULT_SAMPLES;
}

// The names of the samples. A folder that was named must have some.
std::vector<std::string> sample_names() {
  std::vector<std::string> names;
  std::error_code absent;
  for (const fs::directory_entry& entry : fs::directory_iterator(samples_folder(), absent)) {
    if (entry.path().extension() == ".cmd") names.push_back(entry.path().stem());
  }
  std::sort(names.begin(), names.end());
  if (names.empty() && std::getenv("KESTRO_SAMPLES") != nullptr) names.emplace_back("none_found");
  return names;
}

std::string text_of(const fs::path& path) {
  const testing_support::Image bytes = read_file(path);
  return {bytes.begin(), bytes.end()};
}

std::vector<std::string> command_for(const std::string& name) {
  std::istringstream options(text_of(samples_folder() / (name + ".cmd")));
  std::vector<std::string> words = {KESTRO_PROGRAM};
  words.insert(words.end(), std::istream_iterator<std::string>(options), {});
  words.push_back(name);
  return words;
}

class Samples : public testing::TestWithParam<std::string> {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Samples);

TEST_P(Samples, PrintWhatIsExpected) {
  const std::string& name = GetParam();
  const testing_support::TempFolder folder;
  for (const char* suffix : {".idx", ".dat"}) {
    // Not a plain copy: the samples may be write-protected, a repair must not be.
    testing_support::write_file(folder / (name + suffix),
                                read_file(samples_folder() / (name + suffix)));
  }
  const testing_support::RunResult run =
      testing_support::run_program({.words = command_for(name), .folder = folder.path()});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, text_of(samples_folder() / (name + ".expected")));
}

std::string test_name(const testing::TestParamInfo<std::string>& sample) {
  std::string name = sample.param;
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, Samples, testing::ValuesIn(sample_names()), test_name);

}  // namespace
