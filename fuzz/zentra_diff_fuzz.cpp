// zentra_diff_fuzz: any bytes whatever as a pair, which zentra compares with a copy of it and with
// one that differs in a few places, so that both are damaged.
//
// Finds   crashes, overruns, hangs and runaway memory; a file that is changed; a copy
//         that is said to differ; a status that the subcommand cannot have
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_pair.h"
#include "zentra/command/commandline.h"

namespace {

constexpr int kDifferent = 1;
constexpr int kTrouble = 2;

// The last bytes of the records tell places, and what stands there.
void change(fuzz::PairInput& pair) {
  constexpr std::size_t kPlace = 4;  // two bytes of an offset, a file, a byte
  const fuzz::Image told = pair.records;
  for (std::size_t at = told.size() % kPlace; at + kPlace <= told.size() && at < 4 * kPlace;
       at += kPlace) {
    const auto* const place = told.data() + told.size() - at - kPlace;
    fuzz::Image& file = place[2] % 2 == 0 ? pair.index : pair.records;
    const std::size_t offset = place[0] * std::size_t{256} + place[1];
    if (offset < file.size()) file[offset] = place[3];
  }
}

int compare(const fuzz::PairInput& other, const std::string& base, std::vector<std::string> words) {
  testing_support::write_file(base + "-other.idx", other.index);
  testing_support::write_file(base + "-other.dat", other.records);
  const int status = zentra::run(std::move(words));
  const bool is_same = testing_support::read_file(base + "-other.idx") == other.index &&
                       testing_support::read_file(base + "-other.dat") == other.records;
  if (status < 0 || status > kTrouble || !is_same) std::abort();
  return status;
}

void try_on(const fuzz::Workplace& workplace, const fuzz::PairInput& input) {
  const std::string& base = workplace.base();
  std::vector<std::string> words = {"diff", base, base + "-other"};
  if ((input.choice & 1) != 0) std::swap(words[1], words[2]);
  if ((input.choice & 2) != 0) words.emplace_back("--json");
  if ((input.choice & 4) != 0) words.emplace_back("--brief");
  if ((input.choice & 8) != 0) words.insert(words.end(), {"--by", "2"});
  if (compare(input, base, words) == kDifferent) std::abort();
  fuzz::PairInput other = input;
  change(other);
  static_cast<void>(compare(other, base, words));
  if (!workplace.holds(input)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::with_pair({data, size}, try_on);
  return 0;
}
