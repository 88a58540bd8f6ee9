// check: the check of one file, what it may do and what it has found so far. Every pass reads it
// and adds to it; nothing of one file's check is there at the next one's.
//
// Needs   one check at a time: the library's current file is the one that is checked
// Never   prints or asks by itself: the listener does
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "checker/findings.h"
#include "checker/listener.h"
#include "checker/supervisor.h"
#include "checker/usagemap.h"
#include "common/bytes.h"
#include "isam/tree/indexload.h"

namespace checker {

// The options of a run: only zero or not matters. -s sets yflag too; -n takes sflag back.
struct Options {
  int iflag = 0;  // check the index file only
  int lflag = 0;  // list the entries of every b-tree
  int nflag = 0;  // answer no to every question, open for input only
  int yflag = 0;  // answer yes to every question
  int qflag = 0;  // no program header, and no progress shown
  int sflag = 0;  // change the index node size first
};

// About a list. A faulty one stays as it is unless the operator wants it rebuilt.
enum class Verdict { kSound, kFaulty, kRebuild };
enum class IndexVerdict : unsigned char { kKeep, kDelete, kRemake };

struct Check {
  Check(const Options& wanted, Listener& told, Supervisor* over = nullptr)
      : options(wanted), listener(told), supervisor(over) {}

  // ---- What it tells and asks.

  void found(Code code, const Numbers& numbers = {});
  void found(const Finding& finding);
  // Whether the supervisor, if there is one, wants a list made anew.
  [[nodiscard]] bool is_wanted_anew(List list) const {
    return supervisor != nullptr && supervisor->rebuilds(list);
  }
  [[nodiscard]] bool ask(Question question);
  void tell(const Detail& detail) const {
    if (listener.wants_details()) listener.detail(detail);
  }
  // Keeps the library's current error in system_error if it is the system's and the first such.
  void note_system_error();
  // Clears the library's current error without a word, noted as above.
  void pass_over_error();
  // Tells the library's current error, if any, and clears it, noted as above.
  void prterr();
  // A node could not be read: tells why, but not while a resized index is known to lack nodes.
  void report_unreadable_node();

  const Options& options;
  Listener& listener;
  Supervisor* supervisor;  // null: there is none

  // ---- What it has come to.

  int count = 0;                  // findings
  int declined = 0;               // questions answered no
  std::int32_t system_error = 0;  // the first error of the system, as an errno; 0 for none

  // ---- What it knows of the pair.

  bool varlen = false;  // the file has variable-length records
  bool sized = false;   // the maps are made

  std::int32_t idxlast = 0;  // highest node number to check
  std::int32_t datlast = 0;  // highest record number to check
  std::int32_t idxreal = 0;  // nodes that the index file really holds
  std::int32_t datreal = 0;  // records whose state byte the data file really holds

  UsageMap idxmap;   // nodes in use
  UsageMap keptmap;  // nodes in use by what is kept: idxmap without the roots to be refilled
  UsageMap idxmap2;  // nodes of the structure being checked
  UsageMap rpgmap;   // nodes that hold pieces of variable parts
  UsageMap datmap;   // records present
  UsageMap datmap2;  // records accounted for by the structure being checked

  bool data_misfits = false;  // bad data records, or slots that are not where they should be

  std::int32_t rootlast = 0;  // highest node in use before repairs took any

  std::vector<IndexVerdict> idxflag;  // by index number; entry 0 is not used
  bool count_is_fixed = false;        // the number of indexes in the dictionary was put right

  Verdict badifree = Verdict::kSound;  // free list of index nodes
  bool nodes_unsafe = false;           // ... which hands out what is in use, or has no known end
  Verdict baddfree = Verdict::kSound;  // free list of data records
  Verdict badrfree = Verdict::kSound;  // free-space lists of storage pages
  std::int64_t totalrpfree = 0;        // free bytes of all storage pages checked

  // Whether the list of free nodes stays as it is although what it hands out may be in use.
  [[nodiscard]] bool node_list_is_declined() const {
    return badifree == Verdict::kFaulty && nodes_unsafe;
  }

  // ---- What one step leaves for a later one.

  // For a change of node size: the used count and contents of the old index's node that names the
  // audit trail; empty for none.
  std::vector<common::Byte> audit_node;
  // For a repair in place: the keys of the indexes to be remade, by index number.
  std::map<int, isam::IndexLoad> prepared;
};

// Whether an iserrno tells of the system's trouble, not of the files'.
[[nodiscard]] bool is_of_system(std::int32_t code);

}  // namespace checker
