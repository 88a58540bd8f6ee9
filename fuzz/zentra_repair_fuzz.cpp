// zentra_repair_fuzz: any bytes whatever as a pair, which zentra repairs with --force.
//
// Finds   crashes, overruns, hangs and runaway memory; a result that does not check clean; a
//         refused repair that changed a file; a data file of which other bytes than states and
//         references changed, or a record that went without being in the losses
#include <filesystem>
#include <set>
#include <string>
#include <string_view>

#include "common/bytes.h"
#include "fuzz/fuzz_pair.h"
#include "isam/base/format.h"
#include "zentra/command/commandline.h"

namespace {

using testing_support::Image;

// Removes what is kept beside the pair; the losses are given first.
Image take_away(const fuzz::Workplace& workplace) {
  const std::string losses = workplace.base() + ".lost.jsonl";
  Image lost;
  if (std::filesystem::exists(losses)) lost = testing_support::read_file(losses);
  workplace.remove_others();
  return lost;
}

// Every record that has gone is in the losses, and nothing else has changed but trailers.
bool keeps_records(const Image& index, const Image& before, const Image& after,
                   const Image& losses) {
  isam::Dictionary dictionary{};
  std::copy_n(index.begin(), sizeof dictionary.raw, dictionary.raw);
  const auto length = static_cast<std::size_t>(dictionary.d_recsize());
  const std::size_t slot =
      length + (dictionary.d_maxrecsize() > 0 ? isam::kVariableTrailer : isam::kFixedTrailer);
  const std::string_view lost{reinterpret_cast<const char*>(losses.data()), losses.size()};
  if (before.size() != after.size()) return false;
  for (std::size_t at = 0; at < before.size(); ++at) {
    if (before[at] == after[at]) continue;
    if (at % slot < length) return false;
    const bool was_present = before[at / slot * slot + length] == isam::kRecordPresent;
    const std::string line = "\"record\":" + std::to_string(at / slot + 1) + ",";
    if (was_present && lost.find(line) == std::string_view::npos) return false;
  }
  return true;
}

void try_on(const fuzz::Workplace& workplace, const fuzz::PairInput& input) {
  const std::string& base = workplace.base();
  const std::string choice = (input.choice & 1) != 0 ? "--variable=keep" : "--variable=drop";
  const int status = zentra::run({"repair", "--yes", "--force", choice, "--wait", "0", base});
  const Image losses = take_away(workplace);
  if (status != 0) {
    if (!workplace.holds(input)) std::abort();
    return;
  }
  if (zentra::run({"check", base}) != 0) std::abort();
  const Image index = testing_support::read_file(base + ".idx");
  const Image records = testing_support::read_file(base + ".dat");
  if (!keeps_records(index, input.records, records, losses)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::with_pair({data, size}, try_on);
  return 0;
}
