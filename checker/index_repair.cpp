// index_repair: deleting an index, and making one anew from the data records.
//
// Needs   the verdicts and the operator's consent; the free list of nodes already rebuilt
// Keeps   a remade index has its root where it was unless that node is not there or serves
//         another part of the file too; then it gets a fresh one
#include <algorithm>
#include <map>

#include "checker/checks.h"
#include "checker/dialogue.h"
#include "checker/findings.h"
#include "checker/progress.h"
#include "isam/buffers.h"
#include "isam/datafile.h"
#include "isam/errors.h"
#include "isam/files.h"
#include "isam/freelists.h"
#include "isam/indexload.h"
#include "isam/keychain.h"
#include "isam/keys.h"

namespace checker {
namespace {

// Whether the remade index may keep its root's node; claims the node when it may.
bool claim_root(std::int32_t root) {
  return root > 1 && root <= std::min(findings.rootlast, last_node_to_keep()) &&
         !holds_parts(root) && !findings.keptmap.set_bit(root);
}

// An empty leaf, on disk at once: whatever ends the loading leaves an index that is plainly
// incomplete.
int clear_root(std::int32_t root) {
  isam::PageHold page = isam::bfgetclr(root);
  if (!page) return -1;
  page.set_frame(isam::kUsedBytes, isam::kTreeNode, isam::kLeafLevel);
  return page.write();
}

// The node that the new tree grows from: 0 or more, or -1 with iserrno.
std::int32_t settle_root(int n, const keydescr& k) {
  if (claim_root(k.rootnode)) return k.rootnode;
  const std::int32_t fresh = isam::allocrec(isam::FreeList::kNodes);
  if (fresh < 0 || isam::kysetroot(n, fresh) != 0) return -1;
  return fresh;
}

bool is_readable(std::int32_t record) {
  const bool present_is_known = options.iflag == 0 || findings.varlen;
  return !present_is_known || findings.datmap.tstbit(record);
}

// Whether the system refuses a record that it gave before.
bool is_lost(std::int32_t record) {
  if (is_of_system(iserrno) && findings.datmap.tstbit(record)) return true;
  isam::clear_errors();
  return false;
}

int gather_keys(isam::IndexLoad& load) {
  const isam::Bytes buffer = isam::temprecord();
  const std::int32_t last = std::min(findings.datlast, findings.datreal);
  Progress progress("Gathering keys", last);
  for (std::int32_t record = 1; record <= last; ++record) {
    progress.at(record);
    if (!is_readable(record)) continue;
    if (isam::dataread(record, buffer) <= 0) {
      if (is_lost(record)) return -1;
    } else if (load.add(buffer.data(), record) != 0) {
      return -1;
    }
  }
  return load.sort();
}

// Gathered before the first repair; by index number.
std::map<int, isam::IndexLoad> prepared;

// The index is emptied when nothing more is to be gathered.
int fill_index(int n, const keydescr& k) {
  if (node_list_is_declined()) return isam::failed(isam::kCorrupted);
  auto gathered = prepared.extract(n);
  if (gathered.empty()) {
    gathered = prepared.extract(prepared.try_emplace(n, k).first);
    if (gather_keys(gathered.mapped()) != 0) return -1;
  }
  isam::IndexLoad& load = gathered.mapped();
  const std::int32_t root = settle_root(n, k);
  if (root < 0 || clear_root(root) != 0) return -1;
  Progress progress("Loading an index", findings.datmap.cntmap());
  return load.finish(root,
                     {.left_out = [](std::int32_t record) { errn(Message::kDuplicateKey, record); },
                      .loaded = [&progress](std::int64_t items) { progress.at(items); }});
}

}  // namespace

bool prepare_indexes() {
  const auto sharers = std::ranges::count(findings.idxflag, IndexVerdict::kRemake);
  for (int n = static_cast<int>(findings.idxflag.size()) - 1; n >= 1; --n) {
    if (findings.idxflag[static_cast<std::size_t>(n)] != IndexVerdict::kRemake) continue;
    keydescr k{};
    const bool described = isam::kysearch(k, n) >= 0 && isam::kylegal(k, isam::filep->reclen) == 0;
    if (!described && !is_of_system(iserrno)) {
      isam::clear_errors();  // told when its turn comes
      continue;
    }
    const auto at = prepared.try_emplace(n, k, static_cast<int>(sharers)).first;
    if (described && gather_keys(at->second) == 0) continue;
    print_line(Message::kRecreatingIndex, {std::int64_t{n}});
    prterr();
    return false;
  }
  return true;
}

void forget_prepared_indexes() { prepared.clear(); }

void delindex(int n) {
  print_line(Message::kDeletingIndex, {std::int64_t{n}});
  if (isam::kyremove(n) != 0) prterr();
}

void makindex(int n) {
  print_line(Message::kRecreatingIndex, {std::int64_t{n}});
  keydescr k{};
  if (isam::kysearch(k, n) < 0 || isam::kylegal(k, isam::filep->reclen) != 0) {
    if (is_of_system(iserrno)) return prterr();
    isam::clear_errors();
    err(Message::kNoKeyForIndex);
    return;
  }
  if (fill_index(n, k) != 0) prterr();
}

}  // namespace checker
