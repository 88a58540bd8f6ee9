// freelist_check: every node and record is in use or free, exactly once. The lists of free records
// and free nodes made anew.
//
// Needs   idxmap and datmap as the earlier passes left them
// Gives   baddfree, badifree and nodes_unsafe; the nodes of the data list marked in idxmap and
//         keptmap
#include <algorithm>
#include <vector>

#include "checker/checks.h"
#include "checker/listnode.h"
#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/pool/nodechain.h"
#include "isam/records/freelists.h"

namespace checker {
namespace {

using isam::dictp;

struct ListCounts {
  std::int32_t bad = 0;
  std::int32_t duplicate = 0;
  std::int32_t missing = 0;

  [[nodiscard]] bool any() const { return bad != 0 || duplicate != 0 || missing != 0; }
};

// Accounts for numbers past the highest that the dictionary has in use: they are free. How many of
// them are in use all the same.
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

void report_counts(Check& check, const ListCounts& counts, Code bad, Code duplicate, Code missing) {
  if (counts.bad != 0) check.found(bad, {.found = counts.bad});
  if (counts.duplicate != 0) check.found(duplicate, {.found = counts.duplicate});
  if (counts.missing != 0) check.found(missing, {.found = counts.missing});
}

// The rule of a free list's chain: its nodes serve for nothing else.
struct ListRule {
  Check& check;

  [[nodiscard]] bool may_name(std::int32_t node) const {
    return node >= 1 && node <= check.idxlast;
  }
  [[nodiscard]] bool has_met(std::int32_t node) const {
    return check.idxmap2.set_bit(node) || check.idxmap.tstbit(node);
  }
  [[nodiscard]] static bool is_sound(const isam::PageHold& page) {
    return ListNode{page}.is_valid();
  }
};
using ListChain = isam::NodeChain<ListRule>;

// What a list and its entries are judged by, and told as when they are bad.
struct ListKind {
  std::int32_t last;  // number
  UsageMap& accounted;
  const UsageMap& in_use;
  Verdict& verdict;
  Code bad;
  Code duplicate;
  Code malformed;
};

// Accounts for the entries of a list, as far as it can be followed: where that ends.
isam::ChainEnd walk_list(Check& check, ListChain& chain, const ListKind& kind, ListCounts& counts) {
  while (const isam::PageHold page = chain.read()) {
    int slot = 0;
    ListNode{page}.for_each_entry([&](std::int32_t number) {
      const ListCounts before = counts;
      account_for_entry(number, kind.last, kind.accounted, kind.in_use, counts);
      if (counts.bad != before.bad || counts.duplicate != before.duplicate) {
        check.tell({.code = counts.bad != before.bad ? kind.bad : kind.duplicate,
                    .node = page.node(),
                    .slot = slot,
                    .pointer = number});
      }
      ++slot;
    });
    chain.follow(page);
  }
  if (chain.end() == isam::ChainEnd::kUnreadable) {
    check.report_unreadable_node();
    kind.verdict = Verdict::kFaulty;
  } else if (chain.end() == isam::ChainEnd::kMalformed) {
    check.found(kind.malformed, {.node = chain.node()});
    kind.verdict = Verdict::kFaulty;
  }
  return chain.end();
}

// Tells the numbers that are not accounted for, in runs.
template <typename Told>
void tell_missing(const UsageMap& accounted, std::int32_t last, Told told) {
  for (std::int32_t n = accounted.previous_clear(last); n > 0;) {
    const std::int32_t used = accounted.previous_set(n);
    told(used + 1, n);
    n = used < 1 ? 0 : accounted.previous_clear(used);
  }
}

// Accounts for the numbers that others' open transactions keep back.
void account_for_kept(Check& check) {
  isam::RecordLocks* const locks = check.listener.locks();
  const std::int32_t highest = std::min(check.datlast, check.datreal);
  if (locks == nullptr || highest < 1) return;
  tell_missing(check.datmap2, highest, [&](std::int32_t first, std::int32_t last) {
    for (std::int32_t record = first; record <= last;) {
      const isam::LockedRecords* const locked = locks->next(record, last);
      if (locked == nullptr) return;
      const std::int32_t end = std::min(locked->last, last);
      for (record = std::max(record, locked->first); record <= end; ++record) {
        check.datmap2.set_bit(record);
        check.listener.kept_back(record);
      }
    }
  });
}

// The list of free records leads to a node that cannot be its own: both lists are in doubt.
void both_lists_faulty(Check& check, Code code, std::int32_t node) {
  check.found(code, {.node = node});
  check.baddfree = check.badifree = Verdict::kFaulty;
}

void walk_data_list(Check& check, ListCounts& counts) {
  ListChain chain{dictp->d_freedata(), {check}};
  const ListKind records{.last = check.datlast,
                         .accounted = check.datmap2,
                         .in_use = check.datmap,
                         .verdict = check.baddfree,
                         .bad = Code::kRecordListBad,
                         .duplicate = Code::kRecordListDuplicate,
                         .malformed = Code::kRecordListMalformed};
  const isam::ChainEnd end = walk_list(check, chain, records, counts);
  if (end == isam::ChainEnd::kOutOfRange) {
    both_lists_faulty(check, Code::kRecordListNodeBad, chain.node());
  } else if (end == isam::ChainEnd::kMetTwice) {
    both_lists_faulty(check, Code::kRecordListNodeDuplicate, chain.node());
  }
}

// False when the walk ends before the list does.
bool walk_index_list(Check& check, ListCounts& counts) {
  ListChain chain{dictp->d_freenode(), {check}};
  const ListKind nodes{.last = check.idxlast,
                       .accounted = check.idxmap2,
                       .in_use = check.idxmap,
                       .verdict = check.badifree,
                       .bad = Code::kNodeListBad,
                       .duplicate = Code::kNodeListDuplicate,
                       .malformed = Code::kNodeListMalformed};
  const isam::ChainEnd end = walk_list(check, chain, nodes, counts);
  counts.bad += end == isam::ChainEnd::kOutOfRange ? 1 : 0;
  counts.duplicate += end == isam::ChainEnd::kMetTwice ? 1 : 0;
  return end == isam::ChainEnd::kLast;
}

}  // namespace

void ckdfree(Check& check) {
  check.listener.begins(Pass::kFreeLists);
  check.idxmap2.clrmap();
  check.datmap2.clrmap();
  check.baddfree = check.badifree = Verdict::kSound;
  ListCounts counts;
  counts.duplicate =
      mark_behind_highest(dictp->d_nextdata(), check.datlast, check.datmap2, check.datmap);
  walk_data_list(check, counts);
  check.datmap2.ormap(check.datmap);
  account_for_kept(check);
  counts.missing = check.datlast - check.datmap2.cntmap();
  if (counts.missing != 0 && check.listener.wants_details()) {
    tell_missing(check.datmap2, check.datlast, [&](std::int32_t first, std::int32_t last) {
      check.tell({.code = Code::kRecordListMissing, .record = first, .last = last});
    });
  }
  if (counts.any()) {
    report_counts(check, counts, Code::kRecordListBad, Code::kRecordListDuplicate,
                  Code::kRecordListMissing);
    check.baddfree = Verdict::kFaulty;
  }
  if (check.is_wanted_anew(List::kRecords)) check.baddfree = Verdict::kFaulty;
  if (check.baddfree == Verdict::kFaulty && check.ask(Question::kRecordList)) {
    // The nodes of the old list are forgotten: ckifree() misses them in the list of nodes, and its
    // rebuild frees them.
    check.idxmap2.clrmap();
    check.baddfree = Verdict::kRebuild;
  }
  check.idxmap.ormap(check.idxmap2);
  check.keptmap.ormap(check.idxmap2);
}

// badifree stays faulty where ckdfree() has come to that, even if nothing is found here.
void ckifree(Check& check) {
  check.idxmap2.clrmap();
  ListCounts counts;
  counts.duplicate =
      mark_behind_highest(dictp->d_nextnode(), check.idxlast, check.idxmap2, check.idxmap);
  const bool walked = walk_index_list(check, counts);
  // Nodes that are merely missing from the list harm nobody who takes others from it.
  check.nodes_unsafe = !walked || counts.bad != 0 || counts.duplicate != 0;
  check.idxmap2.ormap(check.idxmap);
  counts.missing = check.idxlast - check.idxmap2.cntmap();
  if (counts.missing != 0 && check.listener.wants_details()) {
    tell_missing(check.idxmap2, check.idxlast, [&](std::int32_t first, std::int32_t last) {
      check.tell({.code = Code::kNodeListMissing, .node = first, .last = last});
    });
  }
  if (counts.any()) {
    report_counts(check, counts, Code::kNodeListBad, Code::kNodeListDuplicate,
                  Code::kNodeListMissing);
    check.badifree = Verdict::kFaulty;
  }
  if (check.is_wanted_anew(List::kNodes)) check.badifree = Verdict::kFaulty;
  if (check.badifree == Verdict::kFaulty && check.ask(Question::kNodeList)) {
    check.badifree = Verdict::kRebuild;
  }
}

namespace {

// Visits the unused numbers from `highest` down until a visit answers false: whether none did.
template <typename Visit>
bool for_each_unused(const UsageMap& in_use, std::int32_t highest, Visit visit) {
  for (std::int32_t n = in_use.previous_clear(highest); n > 0; n = in_use.previous_clear(n - 1)) {
    if (!visit(n)) return false;
  }
  return true;
}

bool add_to_list(Check& check, std::int32_t number, isam::FreeList list) {
  if (isam::freerec(number, list) == 0) return true;
  check.prterr();
  return false;
}

// Some of the freed nodes become heads of the list, which clears them. When one of these would be a
// storage page with bytes of records, other nodes are set apart as heads: as many as are needed, or
// fewer where there are no more. Empty when no such page would be cleared.
std::vector<std::int32_t> heads_set_apart(const Check& check, std::int32_t highest) {
  const int entries = isam::list_entries(isam::filep->geometry.idxsize);
  std::int64_t unused = 0;
  bool meets_page = false;
  for_each_unused(check.idxmap, highest, [&](std::int32_t node) {
    if (unused++ % (entries + 1) == 0 && holds_parts(node)) meets_page = true;
    return true;
  });
  std::vector<std::int32_t> heads;
  if (!meets_page) return heads;
  const std::int64_t needed = (unused + entries) / (entries + 1);
  for_each_unused(check.idxmap, highest, [&](std::int32_t node) {
    if (!holds_parts(node)) heads.push_back(node);
    return std::ssize(heads) < needed;
  });
  return heads;
}

// Frees the unused nodes below `highest`, from the top down, so that the list hands out the lowest
// numbers first. A node freed when the list has no room becomes its head: one that is set apart, as
// long as there are any (idxmap2 marks them).
void list_unused_nodes(Check& check, std::int32_t highest) {
  const std::vector<std::int32_t> heads = heads_set_apart(check, highest);
  check.idxmap2.clrmap();
  for (const std::int32_t head : heads) check.idxmap2.set_bit(head);
  auto next_head = heads.begin();
  int room = 0;
  const auto add = [&check](std::int32_t node) {
    return add_to_list(check, node, isam::FreeList::kNodes);
  };
  const bool all = for_each_unused(check.idxmap, highest, [&](std::int32_t node) {
    if (check.idxmap2.tstbit(node)) return true;  // set apart
    if (room-- > 0) return add(node);
    room = isam::list_entries(isam::filep->geometry.idxsize);
    if (next_head == heads.end()) return add(node);
    --room;
    return add(*next_head++) && add(node);
  });
  // Those that were not needed as heads are free like the others.
  while (all && next_head != heads.end() && add(*next_head)) ++next_head;
}

// Mends what names nodes that the file does not hold. Up to `last` such a node comes to be there,
// empty. Numbers past `last` will be given to others: nothing may go on naming them.
void cut_references_past_end(Check& check, std::int32_t last) {
  if (isam::kycutchain(check.idxreal, last) != 0) check.prterr();
  const std::int32_t audit = dictp->d_auditnode();
  if (audit <= last) {
    if (audit > check.idxreal) isam::bfgetclr(audit).release();
    return;
  }
  dictp->clear_d_auditnode();
  isam::dictmodify();
  isam::failed(isam::kCorrupted);
  check.prterr();
}

std::int32_t last_real_node(const Check& check) { return std::min(check.idxlast, check.idxreal); }

}  // namespace

std::int32_t last_node_to_keep(const Check& check) {
  const std::int64_t last = std::int64_t{check.idxreal} + kKeptPastEnd;
  return static_cast<std::int32_t>(std::min<std::int64_t>(check.idxlast, last));
}

bool pages_are_given_up(Check& check) {
  // One that an earlier repair gave up has lost its kind, and nothing is taken from it now.
  const auto keeps_kind = [](std::int32_t node) {
    const isam::PageHold page = isam::bfread(node);
    return page && page.node_type() == isam::kStoragePage;
  };
  const bool none = for_each_unused(check.idxmap, last_real_node(check), [&](std::int32_t node) {
    return !keeps_kind(node) || !holds_parts(node);
  });
  check.pass_over_error();
  return !none;
}

void unmark_unused_pages(Check& check) {
  for_each_unused(check.idxmap, last_real_node(check), [](std::int32_t node) {
    isam::PageHold page = isam::bfread(node);
    if (page && page.node_type() == isam::kStoragePage) {
      page.set_frame(page.used(), isam::kTreeNode, page.level());
      page.modified();
    }
    return true;
  });
  check.pass_over_error();
}

bool mark_node_list(Check& check) {
  isam::NodeChain<isam::AnyNode> chain{dictp->d_freenode(), {}};
  while (isam::PageHold page = chain.read()) {
    const ListNode list{page};
    const int used = list.used_by_entries();
    if (page.node_type() != isam::kIndexFreeNode || page.level() != isam::kFreeLevel ||
        page.used() != used) {
      page.set_frame(used, isam::kIndexFreeNode, isam::kFreeLevel);
      page.modified();
    }
    chain.follow(page);
  }
  const bool serves = isam::free_nodes_serve();
  check.pass_over_error();
  return serves;
}

void makifree(Check& check) {
  check.listener.mends(Mending::kRemakesNodeList, 0);
  const std::int32_t highest = check.idxmap.previous_set(last_node_to_keep(check));
  dictp->set_d_nextnode(highest);
  dictp->set_d_freenode(0);
  isam::dictmodify();
  list_unused_nodes(check, highest);
  cut_references_past_end(check, highest);
}

void makdfree(Check& check) {
  check.listener.mends(Mending::kRemakesRecordList, 0);
  if (check.node_list_is_declined()) {
    isam::failed(isam::kCorrupted);
    return check.prterr();
  }
  const std::int32_t highest = check.datmap.previous_set(check.datlast);
  dictp->set_d_nextdata(highest);
  dictp->set_d_freedata(0);
  isam::dictmodify();
  for_each_unused(check.datmap, highest, [&check](std::int32_t record) {
    return add_to_list(check, record, isam::FreeList::kRecords);
  });
}

}  // namespace checker
