// iswrite: the public calls that change records.
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/change.h"
#include "isam/calls/cursor.h"
#include "isam/calls/process.h"
#include "isam/calls/recordcalls.h"
#include "isam/calls/traced.h"
#include "isam/files/files.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

constexpr Entry kChanging{.access = Access::kToWrite};
constexpr Entry kRewriting{.access = Access::kToWrite, .holds_on = true};
// The read before may have locked the current record: the lock stays for the change.
constexpr Entry kChangingCurrent{.access = Access::kToWrite, .keeps_auto_lock = true};
constexpr Entry kRewritingCurrent{
    .access = Access::kToWrite, .keeps_auto_lock = true, .holds_on = true};

// The caller's record, as long as isreclen says; empty with 102.
ConstBytes given_record(const char* record) {
  const int length = record == nullptr ? failed(kBadArgument) : isxgetlen();
  if (length < 0) return {};
  return {reinterpret_cast<const Byte*>(record), static_cast<std::size_t>(length)};
}

// Ends a call that has changed record `number`.
int end_with(Call& call, std::int32_t number) {
  if (call.end() != 0) return -1;
  if (number > 0) isrecnum = number;
  return 0;
}

int write_record(int isfd, const char* record, Current current) {
  Call call{isfd, kChanging};
  if (!call) return refused_access('8');
  const ConstBytes bytes = given_record(record);
  const std::int32_t number = bytes.empty() ? -1 : wrtrecord(call.cursor(), bytes, current);
  return end_with(call, number);
}

// Finds a record by `find`, and changes it by `change`.
template <typename Find, typename Change>
int change_found(Call& call, Find find, Change change) {
  const FoundRecord found = find(call.cursor());
  if (found.number < 0) call.cursor().bt = openp->position;
  return end_with(call, found.number > 0 && change(found) == 0 ? found.number : -1);
}

template <typename Find>
int rewrite_found(int isfd, const char* record, Current current, Find find,
                  Entry entry = kRewriting) {
  Call call{isfd, entry};
  if (!call) return refused_access('9');
  const ConstBytes bytes = given_record(record);
  if (bytes.empty()) return call.end();
  return change_found(call, find, [&](const FoundRecord& found) {
    return rewrecord(call.cursor(), found.number, found.bytes, bytes, current);
  });
}

// Deletes a record; the current one stays current, as deleted.
int delete_current_or_other(Cursor& cursor, const FoundRecord& found) {
  const bool is_current = (cursor.bt.state & kHasCurrent) != 0 && cursor.bt.ends == kOnItem &&
                          cursor.bt.item.recptr == found.number;
  if (delrecord(cursor, found.number, found.bytes) != 0) return -1;
  if (is_current) cursor.bt.state |= kCurrentDeleted;
  return 0;
}

template <typename Find>
int delete_found(int isfd, Find find, Entry entry = kChanging) {
  Call call{isfd, entry};
  if (!call) return refused_access('9');
  return change_found(call, find, [&](const FoundRecord& found) {
    return delete_current_or_other(call.cursor(), found);
  });
}

// The current record: none with 112 when it is gone, with 105 when it does not have the item's key.
FoundRecord find_current_record(Cursor& cursor) {
  const std::int32_t number = current_record(cursor);
  if (number < 0) return {};
  const FoundRecord found = getcurrent(number);
  if (found.number < 0 && iserrno == kNoRecord) failed(kNoCurrent);
  return openp->key.nparts == 0 ? found : with_key(found, cursor.bt.item, openp->key);
}

FoundRecord find_by_key(Cursor& cursor, const char* record) {
  return getrecord(cursor, reinterpret_cast<const Byte*>(record));
}

}  // namespace
}  // namespace isam

using namespace isam;

static int length_call() {
  know_process();
  if (filep == nullptr) return failed(kNotOpen);
  if (!filep->geometry.varlen) return filep->geometry.reclen;
  if (isreclen >= filep->geometry.reclen && isreclen <= filep->geometry.maxreclen) return isreclen;
  isstat3 = isstat4 = '4';
  return failed(kBadArgument);
}

extern "C" int isxgetlen(void) {
  return noted("isxgetlen", openp == nullptr ? -1 : isfd_of(*openp), length_call());
}

extern "C" int iswrite(int isfd, char* record) {
  return traced("iswrite", isfd, record, Carries::kRecord,
                [=] { return write_record(isfd, record, Current::kStays); });
}

extern "C" int iswrcurr(int isfd, char* record) {
  return traced("iswrcurr", isfd, record, Carries::kRecord,
                [=] { return write_record(isfd, record, Current::kMoves); });
}

extern "C" int isrewrite(int isfd, char* record) {
  return traced("isrewrite", isfd, record, Carries::kRecord, [=] {
    return rewrite_found(isfd, record, Current::kStays,
                         [&](Cursor& cursor) { return find_by_key(cursor, record); });
  });
}

extern "C" int isrewcurr(int isfd, char* record) {
  return traced("isrewcurr", isfd, record, Carries::kRecord, [=] {
    return rewrite_found(isfd, record, Current::kMoves, find_current_record, kRewritingCurrent);
  });
}

extern "C" int isrewrec(int isfd, int32_t recnum, char* record) {
  return traced("isrewrec", isfd, record, Carries::kRecord, [=] {
    return rewrite_found(isfd, record, Current::kStays,
                         [&](Cursor&) { return getcurrent(recnum); });
  });
}

extern "C" int isdelete(int isfd, char* record) {
  const auto find = [=](Cursor& cursor) {
    if (record != nullptr) return find_by_key(cursor, record);
    failed(kBadArgument);
    return FoundRecord{};
  };
  return traced("isdelete", isfd, record, Carries::kKey, [=] { return delete_found(isfd, find); });
}

extern "C" int isdelcurr(int isfd) {
  return traced("isdelcurr", isfd,
                [=] { return delete_found(isfd, find_current_record, kChangingCurrent); });
}

extern "C" int isdelrec(int isfd, int32_t recnum) {
  return traced("isdelrec", isfd,
                [=] { return delete_found(isfd, [&](Cursor&) { return getcurrent(recnum); }); });
}
