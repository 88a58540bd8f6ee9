// storage_check: the pages that hold the variable parts of records, and their free-space lists.
//
// Needs   rpgmap from the data check
// Gives   rpgmap added to idxmap, totalrpfree, badrfree; makrfree: the lists made anew of the pages
//         in rpgmap
// Never   changes a page while checking: pages with faults are reported only
#include "checker/checks.h"
#include "isam/base/errors.h"
#include "isam/records/varlen.h"

namespace checker {
namespace {

using isam::dictp;
using isam::Rpage;

bool free_bytes_in_range(const Rpage& page, int beyond) {
  return page.free_bytes() >= 0 && page.free_bytes() < beyond;
}

// Runs the tests of one page and calls `fault` for each that fails.
template <typename Fault>
void test_page(const Rpage& page, Fault fault) {
  const isam::RpageGeometry& geometry = page.geometry();
  const int slots = page.slots_in_page();
  if (!page.has_magic()) fault();
  if (page.slot_count() == 0) fault();
  if (page.slot_count() > slots) fault();
  const int last_byte = isam::filep->geometry.idxsize;
  int total = 0;
  for (int i = 0; i < slots; ++i) {
    const int length = page.slot(i).length;
    if (length < 0 || length > geometry.capacity) {
      fault();
    } else {
      total += length;
    }
  }
  for (int i = 0; i < slots; ++i) {
    const Rpage::Slot slot = page.slot(i);
    if (slot.length != 0 && (slot.offset < 0 || slot.offset > last_byte)) fault();
  }
  if (total > geometry.capacity) fault();
  // A record names the page, so it cannot be all free.
  if (!free_bytes_in_range(page, geometry.capacity)) fault();
}

template <typename Visit>
void for_each_storage_page(const Check& check, Visit visit) {
  for (std::int32_t node = check.rpgmap.next_set(1); node != 0;
       node = node == INT32_MAX ? 0 : check.rpgmap.next_set(node + 1)) {
    visit(node);
  }
}

// The class of the list that a page should be on. Unlike rpage_class_of() it has none for an empty
// page, which counts by its free bytes.
int listed_class(const Rpage& page) {
  const int free_bytes = page.free_bytes();
  const int by_room = free_bytes > 0 ? (free_bytes - 1) / page.geometry().class_width : 0;
  const bool full = page.slot_count() >= isam::rpage::kMaxSlots && !page.has_empty_slot();
  return full ? 0 : by_room;
}

// Whether everything in a page agrees, as in one that the library has written.
bool is_consistent(const Rpage& page) {
  const isam::RpageGeometry& geometry = page.geometry();
  int room = geometry.capacity - page.slot_count() * isam::rpage::kSlotSize;
  for (int i = 0; i < page.slots_in_page(); ++i) {
    const Rpage::Slot slot = page.slot(i);
    if (!page.readable(slot)) return false;
    room -= slot.length;
  }
  return page.slot_count() <= geometry.slots_that_fit() && room == page.free_bytes();
}

bool has_bytes(const Rpage& page) {
  for (int i = 0; i < page.slots_in_page(); ++i) {
    if (page.slot(i).length > 0) return true;
  }
  return false;
}

void ckrferr(Check& check, std::int32_t node) {
  check.found(Code::kStorageListBad, {.node = node});
  check.badrfree = Verdict::kFaulty;
}

// The rule of a list of storage pages.
struct ListRule : ListedOnce {
  [[nodiscard]] static bool is_sound(const isam::PageHold& page) { return Rpage{page}.has_magic(); }
};
using ListChain = isam::NodeChain<ListRule, isam::RpageLinks>;

void check_list(Check& check, int rpage_class) {
  ListChain chain{dictp->d_varfree(rpage_class), {ListedOnce{check.idxlast}}};
  std::int32_t previous = 0;
  while (const isam::PageHold page = chain.read()) {
    const std::int32_t node = page.node();
    const Rpage view{page};
    if (view.page_class() != rpage_class) ckrferr(check, node);
    if (listed_class(view) != rpage_class) ckrferr(check, node);
    if (previous != 0 && !isam::RpageLinks{page}.is_behind(previous)) ckrferr(check, node);
    previous = node;
    chain.follow(page);
  }
  if (chain.end() == isam::ChainEnd::kLast) return;
  ckrferr(check, chain.node());
  if (chain.end() == isam::ChainEnd::kUnreadable) return check.report_unreadable_node();
  // Whatever else ended the walk: that the page cannot be read, or is no storage page, is told too.
  const isam::PageHold page = isam::bfread(chain.node());
  if (!page) return check.report_unreadable_node();
  if (Rpage{page}.has_magic()) return;
  isam::failed(isam::kCorrupted);
  check.prterr();
}

// Whether rpfladd() may file a page that a record names. One whose counts say that it holds nothing
// it would free, and the next check would find that in use and free: kNeedNot, or kMustNot when its
// slots have lengths all the same.
enum class Filing { kMay, kMustNot, kNeedNot };

Filing filing_of(const Rpage& page) {
  if (!page.has_magic() || page.slot_count() > page.slots_in_page() ||
      !free_bytes_in_range(page, page.geometry().capacity + 1)) {
    return Filing::kMustNot;
  }
  if (rpage_class_of(page) != isam::rpage::kEmptyClass) return Filing::kMay;
  return page.holds_data() ? Filing::kMustNot : Filing::kNeedNot;
}

void filing_failed(Check& check, Code code, std::int32_t node) {
  check.found(code, {.node = node});
  check.prterr();
}

void file_page(Check& check, std::int32_t node) {
  isam::PageHold page = isam::bfread(node);
  if (!page) return filing_failed(check, Code::kStoragePageUnread, node);
  // A key may look like the page's mark: the kind byte tells a node of a tree from a page.
  const Filing filing =
      page.node_type() == isam::kStoragePage ? filing_of(Rpage{page}) : Filing::kMustNot;
  if (filing == Filing::kNeedNot) return;
  if (filing == Filing::kMustNot) {
    page.release();
    isam::failed(isam::kCorrupted);
    return filing_failed(check, Code::kStoragePageUnfiled, node);
  }
  if (isam::rpfladd(std::move(page)) != 0) filing_failed(check, Code::kStoragePageUnfiled, node);
}

}  // namespace

bool holds_parts(std::int32_t node) {
  const isam::KeepError keep;
  const isam::PageHold page = isam::bfread(node);
  if (!page) return false;
  const Rpage view{page};
  if (!view.has_magic() || !has_bytes(view)) return false;
  // A page that an earlier repair gave up has lost its kind; the keys of a tree may look like one.
  return page.node_type() == isam::kStoragePage ||
         (page.node_type() == isam::kTreeNode && is_consistent(view));
}

void ckrpage(Check& check) {
  check.totalrpfree = 0;
  check.idxmap.ormap(check.rpgmap);
  for_each_storage_page(check, [&check](std::int32_t node) {
    const isam::PageHold page = isam::bfread(node);
    if (!page) return check.report_unreadable_node();
    const Rpage view{page};
    test_page(view, [&] { check.found(Code::kStoragePageBad, {.node = node}); });
    check.totalrpfree += view.free_bytes();
  });
}

void ckrfree(Check& check) {
  check.badrfree = Verdict::kSound;
  for (int rpage_class = 0; rpage_class < isam::kRpageClasses; ++rpage_class) {
    check_list(check, rpage_class);
  }
  if (check.is_wanted_anew(List::kStorage)) check.badrfree = Verdict::kFaulty;
  if (check.badrfree == Verdict::kFaulty && check.ask(Question::kStorageLists)) {
    check.badrfree = Verdict::kRebuild;
  }
}

bool unused_pages_are_listed(Check& check) {
  for (int rpage_class = 0; rpage_class < isam::kRpageClasses; ++rpage_class) {
    ListChain chain{dictp->d_varfree(rpage_class), {ListedOnce{check.idxlast}}};
    while (chain.end() == isam::ChainEnd::kNotYet) {
      if (!check.rpgmap.tstbit(chain.node())) return true;
      if (const isam::PageHold page = chain.read()) chain.follow(page);
    }
  }
  check.pass_over_error();
  return false;
}

void makrfree(Check& check) {
  for (int rpage_class = 0; rpage_class < isam::kRpageClasses; ++rpage_class) {
    dictp->set_d_varfree(rpage_class, 0);
  }
  isam::dictmodify();
  for_each_storage_page(check, [&check](std::int32_t node) { file_page(check, node); });
}

}  // namespace checker
