// findings: what the check of one file has found so far; every pass reads and adds to it.
//
// Reset by the dictionary check of each file.
#pragma once

#include <cstdint>
#include <vector>

#include "checker/usagemap.h"

namespace checker {

enum class Verdict { kSound, kFaulty, kRebuild };
enum class IndexVerdict : unsigned char { kKeep, kDelete, kRemake };

struct Findings {
  bool varlen = false;  // the file has variable-length records

  std::int32_t idxlast = 0;  // highest node number to check
  std::int32_t datlast = 0;  // highest record number to check
  std::int32_t idxreal = 0;  // nodes that the index file really holds
  std::int32_t datreal = 0;  // records whose state byte the data file really holds

  UsageMap idxmap;   // nodes in use
  UsageMap keptmap;  // nodes in use by what is kept: idxmap without the roots to be refilled
  UsageMap idxmap2;  // nodes of the structure being checked alone; no second idxmap
  UsageMap rpgmap;   // nodes that hold pieces of variable parts
  UsageMap datmap;   // records present
  UsageMap datmap2;  // records accounted for by the structure being checked alone

  bool data_misfits = false;  // bad data records, or slots that are not where they should be

  std::int32_t rootlast = 0;  // highest node in use before repairs took any

  std::vector<IndexVerdict> idxflag;  // by index number; entry 0 is not used
  bool count_is_fixed = false;        // the number of indexes in the dictionary was put right

  Verdict badifree = Verdict::kSound;  // free list of index nodes
  bool nodes_unsafe = false;           // ... which hands out what is in use, or has no known end
  Verdict baddfree = Verdict::kSound;  // free list of data records
  Verdict badrfree = Verdict::kSound;  // free-space lists of storage pages
  std::int64_t totalrpfree = 0;        // free bytes of all storage pages checked
};
extern Findings findings;

// Whether the list of free nodes stays as it is although what it hands out may be in use.
[[nodiscard]] inline bool node_list_is_declined() {
  return findings.badifree == Verdict::kFaulty && findings.nodes_unsafe;
}

}  // namespace checker
