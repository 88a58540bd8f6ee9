// rpagelists: filing storage pages by the room they have.
//
// Pages of classes 1 to 4 are doubly linked, the newest at the head; class 0 (no room worth
// having) is on no list, and a page that holds nothing goes back to the free nodes.
#include <cstring>
#include <utility>

#include "isam/base/errors.h"
#include "isam/records/freelists.h"
#include "isam/records/varlen.h"

namespace isam {

// Takes pages out of the lists and puts them in. Each of the two holds all pages that it changes
// before it changes the first: when one cannot be had, the lists are as they were.
class RpageLists {
 public:
  static int unlink_page(const PageHold& page);
  static int link_page(const PageHold& page, int to);
};

namespace {

bool on_a_list(int page_class) { return page_class >= 1 && page_class < kRpageClasses; }

void set_head(int page_class, std::int32_t node) {
  dictp->set_d_varfree(page_class, node);
  dictmodify();
}

}  // namespace

// A page must be on the list of its class. What the head names as the one before it does not count.
int RpageLists::unlink_page(const PageHold& page) {
  const std::int32_t node = page.node();
  const int from = Rpage{page}.page_class();
  const std::int32_t next = RpageLinks{page}.node();
  const bool is_head = dictp->d_varfree(from) == node;
  const std::int32_t previous = is_head ? 0 : RpageLinks{page}.previous();
  if (next == node || (!is_head && (previous == 0 || previous == node || previous == next))) {
    return failed_unless_set(kCorrupted);
  }
  PageHold behind;
  if (next != 0 && !(behind = rpbfread(next))) return -1;
  if (is_head) {
    set_head(from, next);
  } else {
    const PageHold before = rpbfread(previous);
    if (!before) return -1;
    RpageLinks{before}.set_node(next);
    before.modified();
  }
  if (next == 0) return 0;
  RpageLinks{behind}.set_previous(previous);
  behind.modified();
  return 0;
}

// Gives a page that is on no list its class, and puts it at the head of the list that there may be
// for it. Where that cannot be, the page has the class of those on no list.
int RpageLists::link_page(const PageHold& page, int to) {
  const std::int32_t node = page.node();
  const RpageLinks links{page};
  Rpage{page}.set_page_class(rpage::kFullClass);
  links.set_node(0);
  links.set_previous(0);
  if (!on_a_list(to)) return 0;
  const std::int32_t old_head = dictp->d_varfree(to);
  if (old_head == node) return failed_unless_set(kCorrupted);
  if (old_head != 0) {
    const PageHold head = rpbfread(old_head);
    if (!head) return -1;
    RpageLinks{head}.set_previous(node);
    head.modified();
  }
  Rpage{page}.set_page_class(to);
  links.set_node(old_head);
  set_head(to, node);
  return 0;
}

RpageBefore::RpageBefore(const PageHold& page)
    : size_(on_a_list(Rpage{page}.page_class()) ? page.bytes().size() : 0) {
  std::memcpy(bytes_.data(), page.data(), size_);
}

void RpageBefore::put_back(const PageHold& page) const {
  std::memcpy(page.data(), bytes_.data(), size_);
}

int rpflmove(PageHold held, const RpageBefore* before) {
  // An argument may live until the caller's whole expression ends, and the page with it.
  PageHold page = std::move(held);
  const std::int32_t node = page.node();
  const Rpage view{page};
  const int from = view.page_class();
  int to = rpage_class_of(view);
  // Damaged counts may make a page with records' bytes look empty: it must not become a free node.
  if (to >= rpage::kEmptyClass && view.holds_data()) to = rpage::kFullClass;
  page.modified();
  if (from == to && from < kRpageClasses) return 0;  // what a damaged page claims may be greater
  if (on_a_list(from) && RpageLists::unlink_page(page) != 0) {
    if (before != nullptr) before->put_back(page);
    return -1;
  }
  if (to == rpage::kEmptyClass) {
    page.release();
    return freerec(node, FreeList::kNodes);
  }
  return RpageLists::link_page(page, to);
}

int rpfladd(PageHold page) {
  Rpage{page}.set_page_class(rpage::kNotFiled);
  return rpflmove(std::move(page));
}

}  // namespace isam
