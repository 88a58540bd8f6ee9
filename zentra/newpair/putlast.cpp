// The order of records with equal keys, as a text of another pair tells it.
#include <algorithm>
#include <utility>
#include <vector>

#include "isam.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/recorditems.h"
#include "isam/keys/keytable.h"
#include "isam/records/datafile.h"
#include "isam/tree/btree.h"
#include "zentra/newpair/loader.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

using Places = std::vector<std::pair<std::int32_t, std::int32_t>>;  // record, duplicate number

// The duplicate numbers of the records in the index, in the order of the records: 0 or -1.
int find_places(const keydescr& k, std::vector<bool>& wanted, Places& places) {
  isam::Cursor cursor;
  if (isam::btposition(cursor, k, isam::Edge::kFirst) != 0) return -1;
  while ((cursor.bt.ends & isam::kAfterLast) == 0) {
    const isam::Item& item = cursor.treeitem;
    const auto at = static_cast<std::size_t>(item.recptr);
    if (at < wanted.size() && wanted[at]) places.emplace_back(item.recptr, item.dupnm);
    if (isam::btmove(cursor, k, isam::Direction::kNext) != 0) return -1;
  }
  std::ranges::sort(places);
  return 0;
}

// 0, or -1 with iserrno and the index as it was: 100 where no duplicate number is left.
int put_one_last(const keydescr& k, std::int32_t record, std::int32_t place, isam::Bytes room) {
  const int length = isam::dataread(record, room);
  if (length < 0) return iserrno == 0 ? isam::failed(isam::kCorrupted) : -1;
  isam::Cursor cursor;
  isam::Item item = isam::item_of(room.first(static_cast<std::size_t>(length)), record, k);
  item.dupnm = place;
  if (isam::btdelitem(cursor, item, k) != 0) return -1;
  isam::Item last = item;
  last.dupnm = 0;
  if (isam::btadditem(cursor, last, k) == 0) return 0;
  const isam::KeepError keep;
  static_cast<void>(isam::btreturnitem(cursor, item, k));
  return -1;
}

int put_all_last(int n, std::span<const std::int32_t> records) {
  const auto* const keys = isam::file_keys();
  if (keys == nullptr) return -1;
  const keydescr k = keys->at(static_cast<std::size_t>(n) - 1);
  std::vector<bool> wanted(static_cast<std::size_t>(dictp->d_nextdata()) + 1);
  for (const std::int32_t record : records) {
    if (record <= dictp->d_nextdata()) wanted[static_cast<std::size_t>(record)] = true;
  }
  Places places;
  if (find_places(k, wanted, places) != 0) return -1;
  std::vector<isam::Byte> room(static_cast<std::size_t>(filep->geometry.maxreclen));
  for (const std::int32_t record : records) {
    const auto at = std::ranges::lower_bound(places, record, {}, &Places::value_type::first);
    if (at == places.end() || at->first != record || at->second < 0) continue;
    if (put_one_last(k, record, std::exchange(at->second, -1), room) != 0) return -1;
  }
  return 0;
}

}  // namespace

PutLast put_last(int isfd, int n, std::span<const std::int32_t> records) {
  isam::Call call{isfd, {.access = isam::Access::kToWrite}};
  if (!call) return {.code = iserrno};
  const int result = put_all_last(n, records);
  const std::int32_t code = result == 0 ? 0 : iserrno;
  isam::btchanged(isam::openp->cursor);
  isam::clear_errors();
  const bool is_ended = call.end() == 0;
  if (!is_ended && code == 0) return {.code = iserrno};
  return {.is_whole = result == 0, .code = code == isam::kDuplicate ? 0 : code};
}

}  // namespace zentra
