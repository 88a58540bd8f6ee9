// zentra_salvage_fuzz: any bytes whatever as a pair, of which zentra makes a new one.
//
// Finds   crashes, overruns, hangs and runaway memory; a source that is changed; a new pair that
//         does not check clean; anything left behind where there is none
#include <string>
#include <vector>

#include "fuzz/fuzz_pair.h"
#include "zentra/command/commandline.h"
#include "zentra/report/status.h"

namespace {

std::vector<std::string> words_from(std::uint8_t choice, const std::string& base) {
  std::vector<std::string> words = {"salvage", base + ".dat", "-o", base + "-new"};
  if ((choice & 1) != 0) words.emplace_back("--take-all");
  if ((choice & 2) != 0) words.emplace_back("--deleted");
  if ((choice & 4) != 0) words.emplace_back("--variable=drop");
  if ((choice & 8) != 0) words.insert(words.end(), {"--length", std::to_string(choice)});
  if ((choice & 16) != 0) words.insert(words.end(), {"--index", "/dev/null"});
  return words;
}

void try_on(const fuzz::Workplace& workplace, const fuzz::PairInput& input) {
  const std::string& base = workplace.base();
  const int status = zentra::run(words_from(input.choice, base));
  const bool is_made = status == static_cast<int>(zentra::Status::kSound) ||
                       status == static_cast<int>(zentra::Status::kDamaged);
  if (!workplace.holds(input)) std::abort();
  if (is_made && zentra::run({"check", base + "-new"}) != 0) std::abort();
  const int left = workplace.remove_others();
  if (is_made ? left < 2 : left != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::with_pair({data, size}, try_on);
  return 0;
}
