// freelist_check: every node and record is in use or free, exactly once.
//
// Needs   idxmap and datmap as the earlier passes left them
// Gives   baddfree and badifree; the nodes of the data list marked in idxmap
// Frees   nothing; the rebuilds do, at the operator's word
#include <algorithm>

#include "checker/checks.h"
#include "checker/dialogue.h"
#include "checker/findings.h"
#include "checker/listnode.h"
#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/freelists.h"
#include "isam/keychain.h"

namespace checker {
namespace {

using isam::dictp;

constexpr std::int32_t kNodesNearTheEnd = 1024;

struct ListCounts {
  std::int32_t bad = 0;
  std::int32_t duplicate = 0;
  std::int32_t missing = 0;

  [[nodiscard]] bool any() const { return bad != 0 || duplicate != 0 || missing != 0; }
};

// Accounts for numbers past the highest that the dictionary has in use: they are free.
std::int32_t mark_behind_highest(std::int32_t highest, std::int32_t last, UsageMap& accounted,
                                 const UsageMap& in_use) {
  const std::int32_t first = std::max(highest, 0);
  if (first >= last) return 0;
  accounted.setmap(first + 1, last);
  return in_use.count_set(first + 1, last);
}

void account_for_entry(std::int32_t number, std::int32_t last, UsageMap& accounted,
                       const UsageMap& in_use, ListCounts& counts) {
  if (number < 1 || number > last) {
    ++counts.bad;
  } else if (accounted.set_bit(number) || in_use.tstbit(number)) {
    ++counts.duplicate;
  }
}

void report_counts(const ListCounts& counts, Message bad, Message duplicate, Message missing) {
  if (counts.bad != 0) errn(bad, counts.bad);
  if (counts.duplicate != 0) errn(duplicate, counts.duplicate);
  if (counts.missing != 0) errn(missing, counts.missing);
}

void both_lists_faulty(Message message) {
  err(message);
  findings.baddfree = findings.badifree = Verdict::kFaulty;
}

void walk_data_list(ListCounts& counts) {
  for (std::int32_t node = dictp->d_freedata(); node != 0;) {
    if (node < 1 || node > findings.idxlast) return both_lists_faulty(Message::kBadListNode);
    if (findings.idxmap2.set_bit(node) || findings.idxmap.tstbit(node)) {
      return both_lists_faulty(Message::kDuplicateListNode);
    }
    const isam::PageHold page = isam::bfread(node);
    if (!page) {
      report_unreadable_node();
      findings.baddfree = Verdict::kFaulty;
      return;
    }
    const ListNode list{page};
    if (!list.is_valid()) {
      err(Message::kBadDataListFormat);
      findings.baddfree = Verdict::kFaulty;
      return;
    }
    list.for_each_entry([&](std::int32_t record) {
      account_for_entry(record, findings.datlast, findings.datmap2, findings.datmap, counts);
    });
    node = list.next();
  }
}

void walk_index_list(ListCounts& counts) {
  for (std::int32_t node = dictp->d_freenode(); node != 0;) {
    if (node < 1 || node > findings.idxlast) {
      ++counts.bad;
      return;
    }
    if (findings.idxmap2.set_bit(node) || findings.idxmap.tstbit(node)) {
      ++counts.duplicate;
      return;
    }
    const isam::PageHold page = isam::bfread(node);
    if (!page) {
      report_unreadable_node();
      findings.badifree = Verdict::kFaulty;
      return;
    }
    const ListNode list{page};
    if (!list.is_valid()) {
      err(Message::kBadIndexListFormat);
      findings.badifree = Verdict::kFaulty;
      return;
    }
    list.for_each_entry([&](std::int32_t entry) {
      account_for_entry(entry, findings.idxlast, findings.idxmap2, findings.idxmap, counts);
    });
    node = list.next();
  }
}

}  // namespace

void ckdfree() {
  print_line(Message::kCheckingFreeLists);
  findings.idxmap2.clrmap();
  findings.datmap2.clrmap();
  findings.baddfree = findings.badifree = Verdict::kSound;
  ListCounts counts;
  counts.duplicate =
      mark_behind_highest(dictp->d_nextdata(), findings.datlast, findings.datmap2, findings.datmap);
  walk_data_list(counts);
  findings.datmap2.ormap(findings.datmap);
  counts.missing = findings.datlast - findings.datmap2.cntmap();
  if (counts.any()) {
    report_counts(counts, Message::kBadRecordPointers, Message::kDuplicateRecordPointers,
                  Message::kMissingRecordPointers);
    findings.baddfree = Verdict::kFaulty;
  }
  if (findings.baddfree == Verdict::kFaulty && ask(Message::kFixDataList)) {
    // The nodes of the old list are forgotten, so that the node list's rebuild frees them.
    findings.idxmap2.clrmap();
    findings.baddfree = Verdict::kRebuild;
  }
  findings.idxmap.ormap(findings.idxmap2);
  findings.keptmap.ormap(findings.idxmap2);
}

void ckifree() {
  findings.idxmap2.clrmap();
  ListCounts counts;
  counts.duplicate =
      mark_behind_highest(dictp->d_nextnode(), findings.idxlast, findings.idxmap2, findings.idxmap);
  walk_index_list(counts);
  findings.idxmap2.ormap(findings.idxmap);
  counts.missing = findings.idxlast - findings.idxmap2.cntmap();
  if (counts.any()) {
    report_counts(counts, Message::kBadNodePointers, Message::kDuplicateNodePointers,
                  Message::kMissingNodePointers);
    findings.badifree = Verdict::kFaulty;
  }
  if (findings.badifree == Verdict::kFaulty && ask(Message::kFixIndexList)) {
    findings.idxmap2.clrmap();
    findings.badifree = Verdict::kRebuild;
  }
}

namespace {

// Frees every unused number below `highest`, from the top down, so that the list hands out the
// lowest numbers first.
void free_unused(const UsageMap& in_use, std::int32_t highest, isam::FreeList list) {
  for (std::int32_t n = in_use.previous_clear(highest); n > 0; n = in_use.previous_clear(n - 1)) {
    if (isam::freerec(n, list) != 0) {
      prterr();
      return;
    }
  }
}

}  // namespace

namespace {

// The highest node in use. Nothing is stored past the end of the real file, whatever claims it;
// but a number that records name as a storage page stays theirs when it is not far out, so that a
// stale reference never meets another part of the file.
std::int32_t highest_to_keep() {
  const std::int32_t real = std::min(findings.idxlast, findings.idxreal);
  const auto near_end = static_cast<std::int32_t>(
      std::min<std::int64_t>(findings.idxlast, 2 * std::int64_t{real} + kNodesNearTheEnd));
  return std::max(findings.idxmap.previous_set(real), findings.rpgmap.previous_set(near_end));
}

// Numbers past `last` will be given to other parts of the file: nothing may go on naming them.
void drop_nodes_past_end(std::int32_t last) {
  if (isam::kycutchain(last) != 0) prterr();
  if (dictp->d_auditnode() > last) {
    dictp->clear_d_auditnode();
    isam::dictmodify();
  }
}

}  // namespace

void clear_free_pages() {
  const UsageMap& in_use = findings.idxmap;
  const std::int32_t last = std::min(findings.idxlast, findings.idxreal);
  for (std::int32_t n = in_use.previous_clear(last); n > 0; n = in_use.previous_clear(n - 1)) {
    isam::PageHold page = isam::bfread(n);
    if (!page || page.node_type() != isam::kStoragePage) continue;
    page.release();
    isam::bfgetclr(n).release();
  }
  isam::clear_errors();
}

void makifree() {
  print_line(Message::kRecreatingIndexList);
  const std::int32_t highest = highest_to_keep();
  dictp->set_d_nextnode(highest);
  dictp->set_d_freenode(0);
  isam::dictmodify();
  free_unused(findings.idxmap, highest, isam::FreeList::kNodes);
  drop_nodes_past_end(highest);
}

void makdfree() {
  print_line(Message::kRecreatingDataList);
  if (node_list_is_declined()) {
    isam::failed(isam::kCorrupted);
    return prterr();
  }
  const std::int32_t highest = findings.datmap.previous_set(findings.datlast);
  dictp->set_d_nextdata(highest);
  dictp->set_d_freedata(0);
  isam::dictmodify();
  free_unused(findings.datmap, highest, isam::FreeList::kRecords);
}

}  // namespace checker
