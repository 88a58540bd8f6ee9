// index_repair: deleting an index, and making one anew from the data records.
//
// Needs   the verdicts, to which the operator has agreed; for makindex the list of free nodes,
//         rebuilt if it is to be
// Keeps   a remade index has its root where it was unless that node is not there, serves another
//         part of the file too or may hold bytes of records; then it gets a fresh one
#include <algorithm>

#include "checker/checks.h"
#include "checker/progress.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "isam/pool/buffers.h"
#include "isam/records/datafile.h"
#include "isam/records/freelists.h"
#include "isam/tree/indexload.h"

namespace checker {
namespace {

// Whether the remade index may keep its root's node; claims the node when it may. One that has
// given way is free, and another index may have been given it by now.
bool claim_root(Check& check, std::int32_t root) {
  return root > 1 && root <= std::min(check.rootlast, last_node_to_keep(check)) &&
         check.idxmap.tstbit(root) && !holds_parts(root) && !check.keptmap.set_bit(root);
}

// An empty leaf, on disk at once: whatever ends the loading leaves an index that is plainly
// incomplete.
int clear_root(std::int32_t root) {
  isam::PageHold page = isam::bfgetclr(root);
  if (!page) return -1;
  page.set_frame(isam::kUsedBytes, isam::kTreeNode, isam::kLeafLevel);
  return page.write();
}

// The root of the new tree, the old root where that may be kept: its node, or -1 with iserrno.
std::int32_t root_for_new_tree(Check& check, int n, const keydescr& k) {
  if (claim_root(check, k.rootnode)) return k.rootnode;
  const std::int32_t fresh = isam::allocrec(isam::FreeList::kNodes);
  if (fresh < 0 || isam::kysetroot(n, fresh) != 0) return -1;
  return fresh;
}

// Whether to try to read a record. With -i the map has all records of fixed length that the list of
// free records does not name, and nobody has looked whether they are present: all are tried.
bool may_be_present(const Check& check, std::int32_t record) {
  const bool present_is_known = check.options.iflag == 0 || check.varlen;
  return !present_is_known || check.datmap.tstbit(record);
}

// Whether the read that failed was refused by the system, for a record that counts as present. Any
// other failure is cleared: the record gets no item.
bool is_lost(const Check& check, std::int32_t record) {
  if (is_of_system(iserrno) && check.datmap.tstbit(record)) return true;
  isam::clear_errors();
  return false;
}

// Adds the keys of all records to `load` and sorts them: 0, or -1 with iserrno.
int gather_keys(const Check& check, isam::IndexLoad& load) {
  const isam::Bytes buffer = isam::temprecord();
  const std::int32_t last = std::min(check.datlast, check.datreal);
  Progress progress("Gathering keys", last);
  for (std::int32_t record = 1; record <= last; ++record) {
    progress.at(record);
    if (!may_be_present(check, record)) continue;
    if (isam::dataread(record, buffer) <= 0) {
      if (is_lost(check, record)) return -1;
    } else if (load.add(buffer.data(), record) != 0) {
      return -1;
    }
  }
  return load.sort();
}

// Makes index n anew: 0, or -1 with iserrno. No node is cleared before all keys are gathered and
// sorted.
int fill_index(Check& check, int n, const keydescr& k) {
  if (check.node_list_is_declined()) return isam::failed(isam::kCorrupted);
  // A load must stay at its address: the node of the map that holds it is handed on.
  auto gathered = check.prepared.extract(n);
  if (gathered.empty()) {
    gathered = check.prepared.extract(check.prepared.try_emplace(n, k).first);
    if (gather_keys(check, gathered.mapped()) != 0) return -1;
  }
  isam::IndexLoad& load = gathered.mapped();
  const std::int32_t root = root_for_new_tree(check, n, k);
  if (root < 0 || clear_root(root) != 0) return -1;
  Progress progress("Loading an index", check.datmap.cntmap());
  return load.finish(root, {.left_out =
                                [&](std::int32_t record) {
                                  check.found(Code::kIndexKeyDuplicate,
                                              {.record = record, .key = n});
                                },
                            .loaded = [&progress](std::int64_t items) { progress.at(items); }});
}

}  // namespace

bool prepare_indexes(Check& check) {
  const auto sharers = std::ranges::count(check.idxflag, IndexVerdict::kRemake);
  for (int n = static_cast<int>(check.idxflag.size()) - 1; n >= 1; --n) {
    if (check.idxflag[static_cast<std::size_t>(n)] != IndexVerdict::kRemake) continue;
    keydescr k{};
    const bool described =
        isam::kysearch(k, n) >= 0 && isam::kylegal(k, isam::filep->geometry.reclen) == 0;
    if (described) {
      const auto at = check.prepared.try_emplace(n, k, static_cast<int>(sharers)).first;
      if (gather_keys(check, at->second) == 0) continue;
    } else if (!is_of_system(iserrno)) {
      isam::clear_errors();  // makindex() tells of it
      continue;
    }
    check.listener.mends(Mending::kRemakesIndex, n);
    check.prterr();
    return false;
  }
  return true;
}

void delindex(Check& check, int n) {
  check.listener.mends(Mending::kDeletesIndex, n);
  if (isam::kyremove(n) != 0) check.prterr();
}

void makindex(Check& check, int n) {
  check.listener.mends(Mending::kRemakesIndex, n);
  keydescr k{};
  if (isam::kysearch(k, n) < 0 || isam::kylegal(k, isam::filep->geometry.reclen) != 0) {
    if (is_of_system(iserrno)) return check.prterr();
    isam::clear_errors();
    check.found(Code::kIndexKeyMissing, {.key = n});
    return;
  }
  if (fill_index(check, n, k) != 0) check.prterr();
}

}  // namespace checker
