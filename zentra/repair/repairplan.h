// repairplan: what is to be done about a damaged pair, found before anything is changed.
//
// Needs   the current pair, opened to read, and all that its check has found
// Never   changes a byte
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "checker/check.h"
#include "isam.h"
#include "zentra/repair/badrecords.h"
#include "zentra/repair/lostpages.h"
#include "zentra/repair/notes.h"
#include "zentra/repair/seen.h"

namespace zentra {

// What becomes of a record whose variable part is lost: the operator's choice.
enum class LostPart : std::uint8_t { kNotSaid, kKeep, kDrop };

struct PlanOptions {
  LostPart lost_part = LostPart::kNotSaid;
  bool keeps_backed = false;     // records whose state alone is damaged become present
  std::vector<keydescr> keys{};  // to be written; empty: none
  bool are_proposed = false;     // they were found in the trees, not given
  bool has_proposal = false;     // there are such, but they are not to be written
  int system_error = 0;          // an errno: what would be proposed could not be read
  // The pair was checked by another record length than its dictionary tells; 0: by that.
  int record_length = 0;
  int wrong_length = 0;  // which the dictionary tells
};

struct Plan {
  std::vector<Entry> steps;
  std::vector<std::string> implausible;  // why it takes --force
  std::string hopeless;                  // not empty: why nothing can be done at all
  int system_error = 0;                  // an errno: hopeless because of what could not be read
  bool needs_choice = false;             // hopeless until it is said what becomes of lost parts
  BadRecords bad;                        // the data file changes where they are
  SameKeys same_keys;
  LostPages lost_pages;  // that are mended
  double seconds = 0;    // estimates
  std::int64_t bytes = 0;
  std::int64_t unreached = 0;  // records that indexes lead to, but that the data file no longer has

  // What is to be made anew though the checks that kestro makes find nothing.
  std::set<int> indexes;
  bool record_list = false;
  bool node_list = false;
  bool storage_lists = false;
  // Changes of the dictionary; 0: none.
  int record_length = 0;
  int duplicate_width = 0;
  bool ends_audit = false;
  bool marks_key_nodes = false;  // the nodes of key descriptions get their marks
  std::vector<keydescr> keys;    // descriptions to be written
  Seen seen{};

  [[nodiscard]] bool remakes_all() const { return !keys.empty() || duplicate_width != 0; }
};

// Whether the check has found that the descriptions of the indexes cannot be read.
[[nodiscard]] bool descriptions_are_lost(const Notes& notes);

// `whole`: the check came to its end, in `seconds`.
[[nodiscard]] Plan make_plan(const checker::Check& check, const Notes& notes,
                             const PlanOptions& options, bool whole, double seconds);

}  // namespace zentra
