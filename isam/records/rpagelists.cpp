// rpagelists: filing storage pages by the room they have.
//
// Pages of classes 1 to 4 are doubly linked, the newest at the head; class 0 (no room worth
// having) is on no list, and a page that holds nothing goes back to the free nodes.
#include <utility>

#include "isam/base/errors.h"
#include "isam/records/freelists.h"
#include "isam/records/varlen.h"

namespace isam {

// Takes pages out of the lists and puts them in.
class RpageLists {
 public:
  static int unlink_page(const PageHold& page);
  static int link_page(const PageHold& page, int to);

 private:
  template <typename Change>
  static int mend(std::int32_t node, Change change);
};

namespace {

bool on_a_list(int page_class) { return page_class >= 1 && page_class < kRpageClasses; }

void set_head(int page_class, std::int32_t node) {
  dictp->set_d_varfree(page_class, node);
  dictmodify();
}

}  // namespace

// Changes a link of the page `node`, a neighbour of one that leaves or joins its list.
template <typename Change>
int RpageLists::mend(std::int32_t node, Change change) {
  const PageHold neighbour = rpbfread(node);
  if (!neighbour) return -1;
  change(RpageLinks{neighbour});
  neighbour.modified();
  return 0;
}

// A page must be on the list of its class. What the head names as the one before it does not count.
int RpageLists::unlink_page(const PageHold& page) {
  const std::int32_t node = page.node();
  const int from = Rpage{page}.page_class();
  const std::int32_t next = RpageLinks{page}.node();
  const std::int32_t previous = RpageLinks{page}.previous();
  const bool is_head = dictp->d_varfree(from) == node;
  if (next == node || (!is_head && (previous == 0 || previous == node))) {
    return failed_unless_set(kCorrupted);
  }
  const std::int32_t before = is_head ? 0 : previous;
  if (next != 0 && mend(next, [&](RpageLinks links) { links.set_previous(before); }) != 0)
    return -1;
  if (!is_head) return mend(previous, [&](RpageLinks links) { links.set_node(next); });
  set_head(from, next);
  return 0;
}

// Gives a page its class, and puts it at the head of the list that there may be for it.
int RpageLists::link_page(const PageHold& page, int to) {
  const std::int32_t node = page.node();
  const RpageLinks links{page};
  Rpage{page}.set_page_class(to);
  links.set_node(0);
  links.set_previous(0);
  if (!on_a_list(to)) return 0;
  const std::int32_t old_head = dictp->d_varfree(to);
  if (old_head == node) return failed_unless_set(kCorrupted);
  if (old_head != 0 && mend(old_head, [&](RpageLinks head) { head.set_previous(node); }) != 0) {
    return -1;
  }
  links.set_node(old_head);
  set_head(to, node);
  return 0;
}

int rpflmove(PageHold held) {
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
  if (on_a_list(from) && RpageLists::unlink_page(page) != 0) return -1;
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
