// check_fuzz: any bytes whatever as a pair, checked and repaired.
//
// Finds   crashes, overruns, hangs and runaway memory; and a check with -n that changes a file
#include "checker/dialogue.h"
#include "checker/driver.h"
#include "fuzz/fuzz_pair.h"

namespace {

checker::Options options_from(std::uint8_t choice) {
  checker::Options chosen;
  chosen.qflag = 1;
  (choice & 1 ? chosen.yflag : chosen.nflag) = 1;
  chosen.iflag = choice >> 1 & 1;
  chosen.lflag = choice >> 2 & 1;
  return chosen;
}

void try_on(const fuzz::Workplace& workplace, const fuzz::PairInput& input) {
  const checker::Options options = options_from(input.choice);
  checker::Dialogue dialogue(options);
  checker::ckfile(workplace.base(), options, dialogue);
  if (options.nflag != 0 && !workplace.holds(input)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::with_pair({data, size}, try_on);
  return 0;
}
