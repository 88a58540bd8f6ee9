#include "isam/calls/apply.h"

#include <algorithm>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/change.h"
#include "isam/files/files.h"
#include "isam/files/locks.h"
#include "isam/keys/keytable.h"
#include "isam/log/logfile.h"
#include "isam/records/freelists.h"
#include "isam/tree/btree.h"
#include "isam/tree/items.h"

namespace isam::txlog {

namespace {

constexpr Entry kApplying{.access = Access::kToWrite, .keeps_auto_lock = true, .kept_too = true};

int check_length(ConstBytes record) {
  const auto least = static_cast<std::size_t>(filep->geometry.reclen);
  const auto most = static_cast<std::size_t>(filep->geometry.maxreclen);
  return record.size() >= least && record.size() <= most ? 0 : failed(kBadLogRecord);
}

// Takes a number that the log says was used: 0, or -1 with 126.
int take_logged_number(std::int32_t number, std::int64_t& skippable) {
  // Below 0 for a number up to the highest one in use, which leaves no new free numbers behind.
  const std::int64_t skipped = std::int64_t{number} - dictp->d_nextdata() - 1;
  if (skipped > skippable || getdatrec(number) != 0) return failed(kBadRecordNumber);
  if (skipped > 0) skippable -= skipped;
  return 0;
}

int insert(Cursor& cursor, std::int32_t number, ConstBytes record, std::int64_t& skippable) {
  if (check_length(record) != 0 || take_logged_number(number, skippable) != 0) return -1;
  if (wrtrecord(cursor, record, Current::kStays, number) > 0) return 0;
  const KeepError keep;
  freerec(number, FreeList::kRecords);
  return -1;
}

// Whether a record is the one that Made means.
bool is_as_made(const FoundRecord& found, const Made& made) {
  return !made || (keeps_locked(found.number) && std::ranges::equal(found.bytes, *made));
}

// Runs `change` on record `number` if it is the one that `made` means. True when it is not: the
// record is absent or another one, which is no failure. False when `change` ran, or when the record
// could not be read; iserrno tells whether either failed.
template <typename Change>
bool change_record(std::int32_t number, const Made& made, Change change) {
  const FoundRecord found = getcurrent(number);
  if (found.number > 0) {
    const bool is_meant = is_as_made(found, made);
    if (is_meant) change(found);
    return !is_meant;
  }
  if (iserrno != kNoRecord) return false;
  clear_errors();
  return true;
}

}  // namespace

int lgputback(int isfd, std::int32_t number, ConstBytes record) {
  Call call{isfd, kApplying};
  if (!call) return -1;
  if (check_length(record) == 0) wrtrecord(call.cursor(), record, Current::kStays, number);
  return call.end();
}

int lginsert(int isfd, std::int32_t number, ConstBytes record, std::int64_t& skippable) {
  Call call{isfd, kApplying};
  if (!call) return -1;
  insert(call.cursor(), number, record, skippable);
  return call.end();
}

int lgdelete(int isfd, std::int32_t number, bool* absent, const Made& made) {
  Call call{isfd, kApplying};
  if (!call) return -1;
  const bool missing = change_record(number, made, [&](const FoundRecord& found) {
    delrecord(call.cursor(), found.number, found.bytes);
  });
  if (absent != nullptr) *absent = missing;
  return call.end();
}

int lgupdate(int isfd, std::int32_t number, ConstBytes record, const Made& made) {
  Call call{isfd, kApplying};
  if (!call) return -1;
  if (check_length(record) == 0) {
    change_record(number, made, [&](const FoundRecord& found) {
      rewrecord(call.cursor(), found.number, found.bytes, record, Current::kStays);
    });
  }
  return call.end();
}

Contents lgread(int isfd, std::int32_t number) {
  const KeepError keep;
  Contents contents;
  const Call call{isfd, kApplying};
  if (!call) return contents;
  const FoundRecord found = getcurrent(number);
  if (found.number > 0) contents.emplace(found.bytes.begin(), found.bytes.end());
  clear_errors();  // so that the call, which ends with its scope, does not end as a failed one
  return contents;
}

bool Clash::has_key(ConstBytes record) const {
  if (record.empty()) return false;  // an image that there is none of
  for (int i = 0; i < key.nparts; ++i) {
    const keypart& part = key.part[i];
    if (static_cast<std::size_t>(part.start + part.length) > record.size()) return false;
  }
  Item other;
  itmake(record.data(), other, key);
  return itcompare(item, other, KeyOrder{key}) == 0;
}

std::vector<Clash> lgclashes(int isfd, std::int32_t number, ConstBytes record) {
  const KeepError keep;
  std::vector<Clash> clashes;
  const Call call{isfd, kApplying};
  if (!call) return clashes;
  Cursor& cursor = call.cursor();
  const std::vector<keydescr>* const keys = check_length(record) == 0 ? file_keys() : nullptr;
  for (std::size_t i = 0; keys != nullptr && i < keys->size(); ++i) {
    const keydescr& k = (*keys)[i];
    if ((k.flags & KF_DUPS) != 0 || k.nparts == 0) continue;
    Clash clash{0, k, {}};
    itmake(record.data(), clash.item, k);
    Item wanted = clash.item;
    if (btsearch(cursor, wanted, k, 0, Search::kRead) != 0 || cursor.bt.ends != kOnItem) continue;
    const Item& met = cursor.treeitem;
    if (met.recptr == number || itcompare(wanted, met, KeyOrder{k}) != 0) continue;
    clash.owner = met.recptr;
    clashes.push_back(clash);
  }
  clear_errors();
  return clashes;
}

}  // namespace isam::txlog
