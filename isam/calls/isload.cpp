// isload: the public calls that add records all at once to a pair that is open exclusively.
#include <memory>
#include <new>

#include "isam/calls/bulkload.h"
#include "isam/calls/call.h"
#include "isam/calls/closing.h"
#include "isam/calls/recordcalls.h"
#include "isam/calls/recordset.h"
#include "isam/calls/traced.h"
#include "isam/calls/transactions.h"
#include "isam/keys/keytable.h"
#include "isam/log/logfile.h"
#include "isam/tree/btree.h"

namespace isam {
namespace {

constexpr Entry kLoading{.access = Access::kToWrite, .loads = true};

// No change may have to be logged, audited or undone by itself: 0, or -1 with iserrno.
int check_no_trace() {
  if (dictp->d_audits()) return failed(kAuditTrailExists);
  return txlog::logs_changes() || may_be_undone() ? failed(kFileInUse) : 0;
}

int begin_load() {
  if ((openp->mode & ISEXCLLOCK) == 0) return failed(kNotExclusive);
  if (filep->usecount > 1 || filep->load != nullptr || openp->transaction.undoable ||
      txlog::owes_storage(*openp)) {
    return failed(kFileInUse);
  }
  if (check_no_trace() != 0) return -1;
  const Keys* const keys = file_keys();
  if (keys == nullptr || write_and_unmark() != 0) return -1;
  auto load = std::make_shared<BulkLoad>(*openp, *keys);
  if (load->begin() != 0) return -1;
  filep->load = std::move(load);
  return 0;
}

// Runs a part of the load that the current open has under way; 124 when there is none. Where it
// fails the load is over, and the pair as it was.
template <typename Part>
int run_part(Part part) {
  if (filep->load == nullptr || !filep->load->belongs_to(*openp)) return failed(kNoBegin);
  if (check_no_trace() != 0) return -1;
  int result = -1;
  try {
    result = part(*filep->load);
  } catch (const std::bad_alloc&) {
    failed(kNoMemory);
  }
  if (result < 0) drop_load(*openp);
  return result;
}

// How many were taken; a length that cannot be ends them.
int take_records(BulkLoad& load, recordset& set) {
  for (int i = 0; i < set.count; ++i) {
    if (filep->geometry.varlen) isreclen = set.lengths[i];
    const int length = isxgetlen();
    if (length < 0) return i;
    const std::int32_t number = load.add({place_of(set, i), static_cast<std::size_t>(length)});
    if (number < 0) return -1;
    set.numbers[i] = isrecnum = number;
  }
  return set.count;
}

int end_load(BulkLoad& load, std::int32_t* numbers, std::int32_t room) {
  std::vector<std::int32_t> refused;
  if (load.finish(refused) != 0) return -1;
  filep->load.reset();
  openp->stamp = filep->cached.stamp;
  btchanged(openp->cursor);
  const std::size_t told = std::min(refused.size(), static_cast<std::size_t>(room));
  std::copy_n(refused.begin(), told, numbers);
  return static_cast<int>(refused.size());
}

// Enters for a part of a load; the result is the body's, or -1 where entering fails, which ends the
// load of an open that may write.
template <typename Body>
int load_call(int isfd, Body body) {
  Call call{isfd, kLoading};
  if (!call) {
    if (iserrno != kNotOpen) drop_load(*openp);
    return refused_access('8');
  }
  const int result = body();
  static_cast<void>(call.end());
  return result;
}

}  // namespace

int skip_numbers(int isfd, std::int32_t count) {
  return load_call(isfd, [=] {
    if (count < 0) return failed(kBadArgument);
    return run_part([=](BulkLoad& load) { return load.skip(count); });
  });
}

}  // namespace isam

using namespace isam;

static int begin_call(int isfd) {
  close_kept_beside(isfd);
  return load_call(isfd, [] {
    try {
      return begin_load();
    } catch (const std::bad_alloc&) {
      return failed(kNoMemory);
    }
  });
}

extern "C" int isloadbegin(int isfd) {
  return traced("isloadbegin", isfd, [=] { return begin_call(isfd); });
}

static int load_records(int isfd, recordset* set) {
  return load_call(isfd, [=] {
    if (check_set(set, filep->geometry.varlen) != 0) return -1;
    return run_part([=](BulkLoad& load) { return take_records(load, *set); });
  });
}

extern "C" int isload(int isfd, struct recordset* set) {
  return traced("isload", isfd, set, Carries::kRecords, [=] { return load_records(isfd, set); });
}

extern "C" int isloadend(int isfd, int32_t* refused, int32_t room) {
  return traced("isloadend", isfd, [=] {
    return load_call(isfd, [=] {
      if (room < 0 || (refused == nullptr && room > 0)) return failed(kBadArgument);
      return run_part([=](BulkLoad& load) { return end_load(load, refused, room); });
    });
  });
}

extern "C" int isloaddrop(int isfd) {
  return traced("isloaddrop", isfd, [=] {
    return load_call(isfd, [] {
      if (filep->load == nullptr || !filep->load->belongs_to(*openp)) return failed(kNoBegin);
      drop_load(*openp);
      return 0;
    });
  });
}
