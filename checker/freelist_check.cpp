// freelist_check: every node and record is in use or free, exactly once.
//
// Needs   idxmap and datmap as the earlier passes left them
// Gives   baddfree, badifree and nodes_unsafe; the nodes of the data list marked in idxmap and
//         keptmap
#include <algorithm>

#include "checker/checks.h"
#include "checker/listnode.h"
#include "isam/pool/nodechain.h"

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
// them are in use all the same; `told` hears of these, in runs.
template <typename Told>
std::int32_t mark_behind_highest(std::int32_t highest, std::int32_t last, UsageMap& accounted,
                                 const UsageMap& in_use, Told told) {
  const std::int32_t first = std::max(highest, 0);
  if (first >= last) return 0;
  accounted.setmap(first + 1, last);
  for (std::int32_t n = in_use.next_set(first + 1); n > 0;) {
    const std::int32_t begin = n;
    while (n < last && in_use.tstbit(n + 1)) ++n;
    told(begin, n);
    n = n == last ? 0 : in_use.next_set(n + 1);
  }
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
  const bool is_bad = end == isam::ChainEnd::kOutOfRange;
  if (is_bad || end == isam::ChainEnd::kMetTwice) {
    ++(is_bad ? counts.bad : counts.duplicate);
    check.tell({.code = is_bad ? nodes.bad : nodes.duplicate, .pointer = chain.node()});
  }
  return end == isam::ChainEnd::kLast;
}

}  // namespace

void ckdfree(Check& check) {
  check.listener.begins(Pass::kFreeLists);
  check.idxmap2.clrmap();
  check.datmap2.clrmap();
  check.baddfree = check.badifree = Verdict::kSound;
  ListCounts counts;
  counts.duplicate = mark_behind_highest(
      dictp->d_nextdata(), check.datlast, check.datmap2, check.datmap,
      [&](std::int32_t first, std::int32_t last) {
        check.tell({.code = Code::kRecordListDuplicate, .record = first, .last = last});
      });
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
  counts.duplicate = mark_behind_highest(
      dictp->d_nextnode(), check.idxlast, check.idxmap2, check.idxmap,
      [&](std::int32_t first, std::int32_t last) {
        check.tell({.code = Code::kNodeListDuplicate, .node = first, .last = last});
      });
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

}  // namespace checker
