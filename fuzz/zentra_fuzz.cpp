// zentra_fuzz: any bytes whatever as a pair, which the subcommands of zentra look at.
//
// Finds   crashes, overruns, hangs and runaway memory; a file that is changed; a status that the
//         subcommand cannot have
#include <array>
#include <string>
#include <vector>

#include "fuzz/fuzz_pair.h"
#include "zentra/command/commandline.h"
#include "zentra/report/status.h"

namespace {

// What is done with the pair, whose name comes behind the first word.
std::vector<std::string> words_from(std::uint8_t choice, const std::string& base) {
  const std::string number = std::to_string(choice >> 3);
  switch (choice & 7) {
    case 0:
      return {"check", base, "--quick"};
    case 1:
      return {"info", base};
    case 2:
      return {"show", base, "dictionary"};
    case 3:
      return {"show", base, "record", number};
    case 4:
      return {"show", base, "node", number};
    case 5:
      return {"show", base, "key", number, "0x"};
    case 6:
      return {"check", base, "--json"};
    default:
      return {"check", base};
  }
}

void try_on(const fuzz::Workplace& workplace, const fuzz::PairInput& input) {
  const int status = zentra::run(words_from(input.choice, workplace.base()));
  const bool is_known = status >= 0 && status <= static_cast<int>(zentra::Status::kUnfinished);
  const bool in_use = status == static_cast<int>(zentra::Status::kInUse);
  if (!is_known || in_use || !workplace.holds(input)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::with_pair({data, size}, try_on);
  return 0;
}
