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

// What a transaction of this process made of a record, for a rollback: a record that holds anything
// else, or that another process can have changed since, is not the one meant, and counts as absent.
// A change that no rollback undoes has come over it, which may have set its number free.
using Made = std::optional<ConstBytes>;

// Each works on open `isfd`, and counts as done when there is no record to delete or rewrite.
// 119 when an image has a length that the file's records cannot have.

// Puts a deleted record back, for which its number and storage were kept.
int lgputback(int isfd, std::int32_t number, ConstBytes record);
// Inserts a record with the number that it had, which is taken from the free ones first: 126 when
// it cannot be had. `skippable` are the free numbers that insertions of this recovery may still
// leave behind when they stand past the end of the file. It bounds what a damaged number can cost.
int lginsert(int isfd, std::int32_t number, ConstBytes record, std::int64_t& skippable);
int lgdelete(int isfd, std::int32_t number, bool* absent = nullptr, const Made& made = {});
int lgupdate(int isfd, std::int32_t number, ConstBytes record, const Made& made = {});

// A record's bytes; none when it is not there.
using Contents = std::optional<std::vector<Byte>>;
[[nodiscard]] Contents lgread(int isfd, std::int32_t number);

// Another record that has a key which only one may have.
struct Clash {
  std::int32_t owner = 0;
  keydescr key{};
  Item item;

  [[nodiscard]] bool has_key(ConstBytes record) const;
};
// Whom record `number` would meet that way; iserrno stays.
[[nodiscard]] std::vector<Clash> lgclashes(int isfd, std::int32_t number, ConstBytes record);

}  // namespace isam::txlog
