// audit: the audit trail, a plain file to which each change of a pair's records is appended.
//
// An entry, integers big-endian:
//
//   0 the operation's letter twice  2 time  6 process  8 user  10 record number
//   14 with variable length only: record length + 1  14 or 16 the record, then a newline byte
//
// A rewrite has two entries: the record before it and after it.
//
// The trail's name stands in an index node of the pair, which the dictionary names; the dictionary
// also says whether the trail is on.
//
// Needs   the current open
#pragma once

#include <string>
#include <string_view>

#include "isam/base/current.h"

namespace isam::txlog {

inline constexpr std::size_t kMaxTrailName = 127;  // bytes

enum class AuditLetter : char { kAdded = 'a', kDeleted = 'd', kBefore = 'r', kAfter = 'w' };

// Offsets in an entry.
namespace audit_entry {
inline constexpr int kLetters = 0;
inline constexpr int kTime = 2;
inline constexpr int kProcess = 6;
inline constexpr int kUser = 8;
inline constexpr int kNumber = 10;
inline constexpr int kLength = 14;
inline constexpr int kFixedHeader = 14;
inline constexpr int kVariableHeader = 16;
}  // namespace audit_entry

// The trail's file name; empty when there is none or its node is damaged, with iserrno when the
// node cannot be read.
[[nodiscard]] std::string audit_trail_name();
// Makes `name` the trail's name, an empty one no trail: 0, or -1 with iserrno (102: too long).
int set_audit_trail_name(std::string_view name);

// During a rollback or a recovery, the next two give 0 also when the trail cannot be opened or
// written: the records matter more.
//
// Opens the trail when it is on: 0, or -1 with the system's error and iserrio 0x13 (0x12 when the
// data file was closed for it and cannot be opened again). Called before anything is changed.
int audopen();
// Appends an entry when the trail is on and open: 0, or -1 with iserrno and iserrio.
int append_to_trail(AuditLetter letter, std::int32_t number, ConstBytes record);
inline int audoutput(AuditLetter letter, std::int32_t number, ConstBytes record) {
  const bool is_on = dictp->d_audits() && filep->trail_fd >= 0;
  return is_on ? append_to_trail(letter, number, record) : 0;
}

// Called when a record was changed and its entry could not be written: the call fails with the
// error in iserrno, but what it changed stays and is not withdrawn from the log.
void keep_unaudited();

}  // namespace isam::txlog
