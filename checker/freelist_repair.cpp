// freelist_repair: the lists of free records and free nodes made anew.
//
// Needs   idxmap, datmap, badifree and nodes_unsafe as the checks have left them
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
