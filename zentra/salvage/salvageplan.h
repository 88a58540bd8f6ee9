// salvageplan: what a salvage takes its records for, before it reads them: where their slots stand,
// how long they are, and which indexes the new pair gets.
//
// Needs   no pair open, for --like
// Never   writes, or locks a file of the pair that is salvaged
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zentra/pair/pairshape.h"
#include "zentra/report/report.h"
#include "zentra/salvage/oldindex.h"
#include "zentra/salvage/rescuefile.h"
#include "zentra/salvage/slotwalk.h"

namespace zentra {

struct SalvageOptions {
  std::string data;   // path
  std::string index;  // path; empty: the one beside the data file
  std::string to;     // the new pair
  std::string like;
  std::string length;  // N, or MIN-MAX
  std::vector<std::string> keys{};
  std::string keys_file;
  std::string variable = "keep";
  bool takes_deleted = false;
  bool takes_all = false;
  bool json = false;
  double wait = 10;
};

struct SalvagePlan {
  RescueFile data;
  OldIndex index;
  SlotShape slots;
  PairShape pair;           // its greatest length is 0 where nothing tells it
  bool lacks_keys = false;  // descriptions of the old index file
  // Not empty: there is none, for this reason, with this status.
  std::string why;
  Status status = Status::kSound;
};

// What --length says, N or MIN-MAX, which is 0 where it is not said. None where it says neither.
[[nodiscard]] std::optional<std::pair<int, int>> lengths_in(std::string_view text);

// Tells where everything comes from. The options are such as may be given.
void make_salvage_plan(const SalvageOptions& options, Report& report, SalvagePlan& plan);

}  // namespace zentra
