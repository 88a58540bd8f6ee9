#include "isam/records/freelists.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/pool/nodechain.h"
#include "isam/records/datafile.h"
#include "isam/records/unfinished.h"

namespace isam {
namespace {

constexpr std::int32_t kFirstFreeNode = 2;  // node 1 is the dictionary

std::int32_t head_of(FreeList list) {
  return list == FreeList::kNodes ? dictp->d_freenode() : dictp->d_freedata();
}

void set_head(FreeList list, std::int32_t node) {
  if (list == FreeList::kNodes) {
    dictp->set_d_freenode(node);
  } else {
    dictp->set_d_freedata(node);
  }
  dictmodify();
}

std::int32_t highest(FreeList list) {
  return list == FreeList::kNodes ? dictp->d_nextnode() : dictp->d_nextdata();
}

void set_highest(FreeList list, std::int32_t number) {
  if (list == FreeList::kNodes) {
    dictp->set_d_nextnode(number);
  } else {
    dictp->set_d_nextdata(number);
  }
  dictmodify();
}

Byte node_type_of(FreeList list) {
  return list == FreeList::kNodes ? kIndexFreeNode : kServiceNode;
}

std::int32_t lowest(FreeList list) { return list == FreeList::kNodes ? kFirstFreeNode : 1; }

bool in_range(FreeList list, std::int32_t number) {
  return number >= lowest(list) && number <= highest(list);
}

bool has_room(const PageHold& page) {
  return page.used() + kListEntrySize < node_type_offset(filep->geometry.idxsize);
}

bool is_list_node(FreeList list, const PageHold& page) {
  const int entries = page.used() - kEntriesOffset;
  return page.node_type() == node_type_of(list) && page.level() == kFreeLevel && entries >= 0 &&
         entries % kListEntrySize == 0 && page.used() < node_type_offset(filep->geometry.idxsize) &&
         ListLink{page}.is_sound(page.node(), kFirstFreeNode, dictp->d_nextnode());
}

// The rule of a free list's chain.
struct ListRule {
  FreeList list;
  LoopGuard guard;

  [[nodiscard]] bool may_name(std::int32_t node) const { return in_range(FreeList::kNodes, node); }
  [[nodiscard]] bool has_met(std::int32_t node) { return guard.meets(node); }
  [[nodiscard]] bool is_sound(const PageHold& page) const { return is_list_node(list, page); }
};

NodeChain<ListRule> chain_of(FreeList list) { return {head_of(list), ListRule{list, {}}}; }

// The node behind one of a list, 0 for none.
std::int32_t node_behind(FreeList list, const PageHold& page) {
  NodeChain<ListRule> chain{page.node(), ListRule{list, {}}};
  chain.follow(page);
  return chain.node();
}

// 0 where a walk has come to the end of its list, else -1 with iserrno.
int outcome_of(ChainEnd end) {
  if (end == ChainEnd::kLast) return 0;
  return end == ChainEnd::kUnreadable ? -1 : failed(kCorrupted);
}

// A list's node, checked; empty with iserrno 105 when it is not one.
PageHold list_node(FreeList list, std::int32_t node) {
  if (!in_range(FreeList::kNodes, node)) {
    failed(kCorrupted);
    return {};
  }
  PageHold page = bfread(node);
  if (page && !is_list_node(list, page)) {
    failed(kCorrupted);
    return {};
  }
  return page;
}

// Pages that may be missing at the end of a file at most. Those of an exclusive open wait in the
// pool, which has fewer than 40,000 buffers, and go with it when its process is killed; that may
// happen a few times before one reaches the file.
constexpr std::int64_t kMostUnwritten = 1 << 17;

// Whether a file can have come to hold `number`. The dictionary may name any, and a page written
// there would make the file immense. Each data block changed may be the only one of a long record,
// or hold many short ones. The file's size is asked for once in a great many numbers.
bool is_reachable(FreeList list, std::int32_t number) {
  const bool nodes = list == FreeList::kNodes;
  std::int32_t& known = nodes ? filep->cached.greatest_node : filep->cached.greatest_record;
  if (number <= known) return true;
  const int unit = nodes ? node_size() : slot_size();
  const std::int64_t held = common::file_size(nodes ? filep->index.fd : filep->data.fd) / unit;
  const std::int64_t last = held + kMostUnwritten * (nodes ? 1 : kPageSize / unit + 1);
  known = static_cast<std::int32_t>(std::min<std::int64_t>(last, INT32_MAX));
  return number <= known;
}

// Hands out the number behind the highest in use: -1 with iserrno when there can be none.
std::int32_t raise_highest(FreeList list) {
  const std::int32_t number = highest(list);
  if (number < lowest(list) - 1 || number == INT32_MAX) return failed(kCorrupted);
  if (!is_reachable(list, number + 1)) return failed(kCorrupted);
  if (list == FreeList::kNodes && reserve_nodes(number + 1, number + 1) != 0) return -1;
  set_highest(list, number + 1);
  return number + 1;
}

// Takes the last number of a list node that has entries. -1 with 105, and the node as it was, when
// it is out of range.
std::int32_t pop_entry(FreeList list, PageHold& page) {
  Byte* entry = page.data() + page.used() - kListEntrySize;
  const std::int32_t number = common::ldlong(entry);
  if (!in_range(list, number)) return failed(kCorrupted);
  page.keep_before();
  common::stlong(0, entry);
  page.set_used(page.used() - kListEntrySize);
  page.modified();
  return number;
}

// Takes a number when the head of the list of free records has no entries left. Its node becomes a
// free one, and the next node the head.
std::int32_t pop_behind_empty_head(PageHold head) {
  const std::int32_t emptied = head.node();
  const std::int32_t next = node_behind(FreeList::kRecords, head);
  head.release();
  if (next == 0) {
    if (freerec(emptied, FreeList::kNodes) != 0) return -1;
    set_head(FreeList::kRecords, 0);
    return raise_highest(FreeList::kRecords);
  }
  PageHold page = list_node(FreeList::kRecords, next);
  if (!page) return -1;
  if (page.used() == kEntriesOffset) return failed(kCorrupted);  // only a head may be empty
  page.release();
  // What can fail comes before a number leaves its node.
  if (freerec(emptied, FreeList::kNodes) != 0) return -1;
  set_head(FreeList::kRecords, next);
  page = list_node(FreeList::kRecords, next);
  return page ? pop_entry(FreeList::kRecords, page) : -1;
}

// Lays `node` out as the new head, without entries, in front of the old one.
PageHold start_head(FreeList list, std::int32_t node) {
  PageHold page = bfgetclr(node);
  if (!page) return page;
  page.set_frame(kEntriesOffset, node_type_of(list), kFreeLevel);
  ListLink{page}.set(head_of(list));
  set_head(list, node);
  return page;
}

void append_entry(PageHold& page, std::int32_t number) {
  page.keep_before();
  common::stlong(number, page.data() + page.used());
  page.set_used(page.used() + kListEntrySize);
  page.modified();
}

// Returns a number without lowering the highest in use: 0, or -1 with iserrno.
int enlist(std::int32_t number, FreeList list) {
  if (!in_range(list, number)) return failed(kCorrupted);
  if (const std::int32_t head = head_of(list); head != 0) {
    PageHold page = list_node(list, head);
    if (!page) return -1;
    if (has_room(page)) {
      append_entry(page, number);
      return 0;
    }
  }
  // A freed node becomes its list's head; a freed record needs a node for its list.
  const std::int32_t node = list == FreeList::kNodes ? number : allocrec(FreeList::kNodes);
  if (node < 0) return -1;
  PageHold page = start_head(list, node);
  if (!page) return -1;
  if (list == FreeList::kRecords) append_entry(page, number);
  return 0;
}

std::int32_t take_listed(FreeList list, std::int32_t head) {
  PageHold page = list_node(list, head);
  if (!page) return -1;
  if (page.used() > kEntriesOffset) return pop_entry(list, page);
  if (list == FreeList::kRecords) return pop_behind_empty_head(std::move(page));
  set_head(list, node_behind(list, page));
  return head;
}

std::int32_t take(FreeList list) {
  const std::int32_t head = head_of(list);
  return head == 0 ? raise_highest(list) : take_listed(list, head);
}

// Whether a node looks like a storage page with bytes of records in it.
bool holds_records(std::int32_t node) {
  const KeepError keep;
  const PageHold page = bfread(node);
  if (!page || page.node_type() != kStoragePage) return false;
  const Byte* const bytes = page.data();
  const int slots = bytes[rpage::kSlotCount];
  const int empty = rpage::capacity(filep->geometry.idxsize) - slots * rpage::kSlotSize;
  return common::ldword(bytes + rpage::kMagicOffset) == rpage::kMagic && slots > 0 &&
         common::ldshort(bytes + rpage::kFree) != empty;
}

// The node was handed out as the first one behind those in use. Where it begins what a killed bulk
// load has left, it keeps room in the file alone. 0, or -1 with iserrno, and not handed out.
int cut_before(std::int32_t number) {
  {
    const KeepError keep;
    if (drop_unfinished(number) <= 0) return 0;
  }
  if (reserve_nodes(number, number) == 0) return 0;
  set_highest(FreeList::kNodes, number - 1);
  return -1;
}

// A node that holds no records' bytes: one of the first few of the list, else a new one. What was
// taken and holds some is lost to the list: put back it could become the list's head, which would
// clear it.
std::int32_t take_unused_node() {
  const std::int32_t last = highest(FreeList::kNodes);
  constexpr int kTries = 16;
  for (int tries = 0;; ++tries) {
    const std::int32_t number =
        tries < kTries ? take(FreeList::kNodes) : raise_highest(FreeList::kNodes);
    if (number == last + 1 && cut_before(number) != 0) return -1;
    if (number < 0 || !holds_records(number)) return number;
  }
}

void remove_entry(PageHold& page, int offset) {
  Byte* const entry = page.data() + offset;
  const int behind = page.used() - offset - kListEntrySize;
  std::memmove(entry, entry + kListEntrySize, static_cast<std::size_t>(behind));
  page.set_used(page.used() - kListEntrySize);
  common::stlong(0, page.data() + page.used());
  page.modified();
}

// The offset of a number in a list node, -1 when it is not there.
int find_entry(const PageHold& page, std::int32_t number) {
  for (int offset = page.used() - kListEntrySize; offset >= kEntriesOffset;
       offset -= kListEntrySize) {
    if (common::ldlong(page.data() + offset) == number) return offset;
  }
  return -1;
}

// Takes a node without entries out of the list of free records; `before` is the node that names it,
// 0 for the dictionary.
int unlink_node(PageHold page, std::int32_t before) {
  const std::int32_t node = page.node();
  const std::int32_t next = node_behind(FreeList::kRecords, page);
  page.release();
  if (before == 0) {
    set_head(FreeList::kRecords, next);
  } else {
    PageHold naming = list_node(FreeList::kRecords, before);
    if (!naming) return -1;
    ListLink{naming}.set(next);
    naming.modified();
  }
  return freerec(node, FreeList::kNodes);
}

// Takes `number` off the list of free records, 119 when it is not on it.
int take_listed(std::int32_t number) {
  NodeChain<ListRule> chain = chain_of(FreeList::kRecords);
  std::int32_t before = 0;
  while (PageHold page = chain.read()) {
    if (const int offset = find_entry(page, number); offset >= 0) {
      remove_entry(page, offset);
      return page.used() > kEntriesOffset ? 0 : unlink_node(std::move(page), before);
    }
    before = page.node();
    chain.follow(page);
  }
  return outcome_of(chain.end()) != 0 ? -1 : failed(kBadLogRecord);
}

}  // namespace

std::int32_t allocrec(FreeList list) {
  return list == FreeList::kNodes && filep->geometry.varlen ? take_unused_node() : take(list);
}

int freerec(std::int32_t number, FreeList list) {
  if (!in_range(list, number)) return failed(kCorrupted);
  if (number != highest(list) || filep->lists_numbers) return enlist(number, list);
  set_highest(list, number - 1);
  return 0;
}

void give_node_back(std::int32_t node) {
  const std::int32_t reason = iserrno;
  freerec(node, FreeList::kNodes);
  iserrno = reason;
}

int getdatrec(std::int32_t number) {
  const std::int32_t last = dictp->d_nextdata();
  if (number < 1) return failed(kBadLogRecord);
  if (number <= last) return take_listed(number);
  set_highest(FreeList::kRecords, number);
  for (std::int32_t skipped = last + 1; skipped < number; ++skipped) {
    if (enlist(skipped, FreeList::kRecords) != 0) return -1;
  }
  return 0;
}

// Looks at each node of the list of free records: how many numbers these have, or -1.
template <typename Look>
static std::int32_t walk_free_records(Look look) {
  std::int32_t listed = 0;
  NodeChain<ListRule> chain = chain_of(FreeList::kRecords);
  while (const PageHold page = chain.read()) {
    listed += (page.used() - kEntriesOffset) / kListEntrySize;
    if (listed > dictp->d_nextdata()) return failed(kCorrupted);
    look(page);
    chain.follow(page);
  }
  return outcome_of(chain.end()) != 0 ? -1 : listed;
}

std::int32_t free_records_listed() {
  return walk_free_records([](const PageHold&) {});
}

int drop_returned(std::vector<std::int32_t>& numbers) {
  std::vector<std::int32_t> sorted;
  try {
    sorted = numbers;
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
  std::ranges::sort(sorted);
  const auto drop_listed = [&](const PageHold& page) {
    for (int offset = kEntriesOffset; offset < page.used(); offset += kListEntrySize) {
      const std::int32_t listed = common::ldlong(page.data() + offset);
      if (std::ranges::binary_search(sorted, listed)) std::erase(numbers, listed);
    }
  };
  if (walk_free_records(drop_listed) < 0) return -1;
  std::erase_if(numbers, [](std::int32_t number) {
    return !in_range(FreeList::kRecords, number) || datacheck(number) == 1;
  });
  return 0;
}

bool free_nodes_serve() {
  NodeChain<ListRule> chain = chain_of(FreeList::kNodes);
  while (const PageHold page = chain.read()) chain.follow(page);
  return outcome_of(chain.end()) == 0;
}

}  // namespace isam
