// apply: putting a logged image back into its file, for a rollback and for a recovery.
//
// Needs   logging off: what is applied is not logged again
// Gives   0, or -1 with iserrno
#pragma once

#include <optional>
#include <vector>

#include "isam/base/position.h"
#include "isam/log/logformat.h"

namespace isam::txlog {

// For a rollback: what a transaction of this process made of a record. A record that holds anything
// else, or was not locked all the time, is not the one meant and counts as absent: a change that no
// rollback undoes has come over it, which may have set its number free. Without it any is meant.
using Made = std::optional<ConstBytes>;

// Each works on open `isfd`. A record to be deleted or rewritten that is absent is no failure.
// 119 when an image has a length that the file's records cannot have.

// Puts a deleted record back, for which its number and storage were kept.
int lgputback(int isfd, std::int32_t number, ConstBytes record);
// Inserts a record with the number that it had, which is taken from the free ones first: 126 when
// it cannot be had. One beyond the highest in use leaves free numbers behind: `skippable` is how
// many of them this recovery may still leave, which bounds what a damaged number can cost.
int lginsert(int isfd, std::int32_t number, ConstBytes record, std::int64_t& skippable);
// Tells in `absent` whether there was none to delete, unless the open cannot be entered.
int lgdelete(int isfd, std::int32_t number, bool* absent = nullptr, const Made& made = {});
int lgupdate(int isfd, std::int32_t number, ConstBytes record, const Made& made = {});

// A record's bytes; none when it is not there or cannot be read. iserrno stays.
using Contents = std::optional<std::vector<Byte>>;
[[nodiscard]] Contents lgread(int isfd, std::int32_t number);

// Another record that has a key which only one may have.
struct Clash {
  std::int32_t owner = 0;
  keydescr key{};
  Item item;

  [[nodiscard]] bool has_key(ConstBytes record) const;
};
// Whom record `number` would meet if it held `record`; iserrno stays.
[[nodiscard]] std::vector<Clash> lgclashes(int isfd, std::int32_t number, ConstBytes record);

}  // namespace isam::txlog
