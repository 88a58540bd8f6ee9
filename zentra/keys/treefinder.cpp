#include "zentra/keys/treefinder.h"

#include <algorithm>
#include <array>
#include <optional>

#include "checker/check.h"
#include "checker/progress.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/pool/nodechain.h"
#include "isam/records/datafile.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

constexpr isam::Byte kNone = 0xFF;

// The bytes of a tree node's items; none when it has no such form.
std::optional<isam::ConstBytes> items_of(const isam::PageHold& page) {
  const int used = page.used() - isam::kUsedBytes;
  if (page.node_type() != isam::kTreeNode || page.level() >= isam::kMaxTreeLevels || used < 0 ||
      used > isam::item_area_limit(filep->geometry.idxsize)) {
    return {};
  }
  return page.bytes().subspan(isam::kUsedBytes, static_cast<std::size_t>(used));
}

keydescr layout_with(int keylen, int flags) {
  keydescr k{};
  k.nparts = 1;
  k.keylen = static_cast<std::int16_t>(keylen);
  k.flags = static_cast<std::int16_t>(flags);
  return k;
}

}  // namespace

struct TreeFinder::Walk {
  const isam::ItemLayout layout;
  const Visit& visit;       // of a leaf's items; none for the nodes alone
  std::vector<bool> met{};  // records
  std::int64_t items = 0;
  std::vector<std::int32_t> nodes{};
};

TreeFinder::TreeFinder() {
  const isam::KeepError keep;
  look_at_nodes();
  pass_over_free_nodes();
  look_at_records();
  isam::clear_errors();
}

void TreeFinder::note_error(int system_error) {
  if (system_error_ == 0) system_error_ = system_error;
}

void TreeFinder::note_error() {
  if (checker::is_of_system(iserrno)) note_error(iserrno);
  isam::clear_errors();
}

void TreeFinder::look_at_nodes() {
  const std::int64_t size = common::file_size(filep->index.fd) / isam::node_size();
  const std::int32_t highest = dictp->d_nextnode();
  const auto last = highest > 1 && highest <= size
                        ? highest
                        : static_cast<std::int32_t>(std::min<std::int64_t>(size, INT32_MAX - 1));
  levels_.assign(static_cast<std::size_t>(last) + 1, kNone);
  constexpr std::int64_t kTimes = 256;
  nodes_left_ = kTimes * (std::int64_t{last} + 1);
  checker::Progress progress("Looking at nodes", last);
  for (std::int32_t node = 2; node <= last; ++node) {
    progress.at(node);
    const isam::PageHold page = isam::bfread(node);
    if (!page) note_error();
    if (page && items_of(page)) levels_[static_cast<std::size_t>(node)] = page.level();
  }
}

// What stands on the list of free nodes may hold what it held as part of a tree.
void TreeFinder::pass_over_free_nodes() {
  const auto forget = [&](std::int32_t node) {
    if (node > 0 && static_cast<std::size_t>(node) < levels_.size()) {
      levels_[static_cast<std::size_t>(node)] = kNone;
    }
  };
  std::vector<bool> met(levels_.size());
  isam::NodeChain<isam::AnyNode> chain{dictp->d_freenode(), {}};
  while (const isam::PageHold page = chain.read()) {
    const auto at = static_cast<std::size_t>(page.node());
    if (page.node_type() != isam::kIndexFreeNode || at >= met.size() || met[at]) return;
    met[at] = true;
    const auto all = page.bytes();
    const int used = std::min(page.used(), static_cast<int>(all.size()));
    for (int entry = isam::kEntriesOffset; entry + isam::kListEntrySize <= used;
         entry += isam::kListEntrySize) {
      forget(common::ldlong(all.data() + entry));
    }
    chain.follow(page);
  }
  note_error();
}

void TreeFinder::look_at_records() {
  const std::int32_t last = isam::records_in_file();
  present_.assign(static_cast<std::size_t>(std::max(last, 0)) + 1, false);
  checker::Progress progress("Looking at records", last);
  for (std::int32_t record = 1; record <= last && record > 0; ++record) {
    progress.at(record);
    const int state = isam::datacheck(record);
    if (state < 0) note_error();
    if (state != 1) continue;
    present_[static_cast<std::size_t>(record)] = true;
    ++records_;
  }
}

int TreeFinder::level_of(std::int32_t node) const {
  if (node < 1 || static_cast<std::size_t>(node) >= levels_.size()) return kNone;
  return levels_[static_cast<std::size_t>(node)];
}

bool TreeFinder::is_present(std::int32_t record) const {
  return record > 0 && static_cast<std::size_t>(record) < present_.size() &&
         present_[static_cast<std::size_t>(record)];
}

std::vector<std::int32_t> TreeFinder::possible_roots() const {
  std::vector<std::int32_t> roots;
  const bool one_leaf_holds_all = records_ * isam::kRecordPointerSize <= isam::node_size();
  for (int level = isam::kMaxTreeLevels - 1; level >= (one_leaf_holds_all ? 0 : 1); --level) {
    for (std::size_t node = 0; node < levels_.size(); ++node) {
      if (levels_[node] == level) roots.push_back(static_cast<std::int32_t>(node));
    }
  }
  return roots;
}

// Whether all items of a node are whole, and lead to nodes of the level below or present records.
bool TreeFinder::fits(const isam::ItemLayout& layout, isam::ConstBytes area, int level) const {
  if (area.empty()) return false;
  isam::ItemWalk walk{layout, area};
  do {
    if (!walk.next() || (walk.start() == 0 && walk.leadc() != 0)) return false;
    // In an upper node the last item repeats the key before it, whatever keys there are.
    if (walk.repeats() && level == 0 && !layout.dups) return false;
    const std::int32_t to =
        isam::stored_recptr(area.data() + walk.end() - isam::kRecordPointerSize);
    if (level > 0 ? level_of(to) != level - 1 : !is_present(to)) return false;
  } while (!walk.is_last());
  return true;
}

std::vector<keydescr> TreeFinder::layouts_of(std::int32_t root) {
  const isam::KeepError keep;
  std::vector<keydescr> layouts;
  if (level_of(root) == kNone) return layouts;
  const isam::PageHold page = isam::bfread(root);
  if (!page) note_error();
  const auto area = page ? items_of(page) : std::nullopt;
  for (int keylen = 1; area && keylen <= MAXKEYLEN; ++keylen) {
    for (int flags = 0; flags <= (KF_DUPS | KF_COMPRESS); ++flags) {
      // Whether keys are repeated shows in the items themselves.
      if ((flags & KF_DCOMPRESS) != 0) continue;
      const keydescr k = layout_with(keylen, flags);
      if (fits(isam::ItemLayout(k), *area, page.level())) layouts.push_back(k);
    }
  }
  return layouts;
}

bool TreeFinder::go_over(Walk& walk, isam::ConstBytes area, int level) {
  const int used = static_cast<int>(area.size());
  isam::Item items[2];
  const isam::Byte* before = isam::kNoKey;
  int current = 0;
  for (int pos = 0; pos < used; current ^= 1) {
    isam::Item& item = items[current];
    pos = isam::itunpack(walk.layout, area, pos, before, item);
    if (pos < 0) return false;
    before = item.key;
    if (level > 0) {
      if (level_of(item.recptr) != level - 1 || !go_down(walk, item.recptr, level - 1)) {
        return false;
      }
      continue;
    }
    const auto record = static_cast<std::size_t>(item.recptr);
    if (!is_present(item.recptr) || walk.met[record]) return false;
    walk.met[record] = true;
    ++walk.items;
    if (!walk.visit(item)) return false;
  }
  return true;
}

bool TreeFinder::go_down(Walk& walk, std::int32_t node, int level) {
  if (nodes_left_-- <= 0) return false;
  walk.nodes.push_back(node);
  std::array<isam::Byte, isam::kMaxNodeSize> copy;  // no page is held during the descent
  std::size_t size = 0;
  {
    const isam::PageHold page = isam::bfread(node);
    if (!page) note_error();
    const auto area = page ? items_of(page) : std::nullopt;
    if (!area || page.level() != level || !fits(walk.layout, *area, level)) return false;
    size = area->size();
    common::copy_bytes(*area, copy.data());
  }
  return go_over(walk, {copy.data(), size}, level);
}

bool TreeFinder::walk(std::int32_t root, const keydescr& layout, const Visit& visit) {
  const isam::KeepError keep;
  Walk walk{.layout = isam::ItemLayout(layout), .visit = visit};
  walk.met.assign(present_.size(), false);
  return go_down(walk, root, level_of(root)) && walk.items == records_;
}

bool TreeFinder::is_claimed(std::int32_t node) const { return level_of(node) == kNone; }

void TreeFinder::claim(std::int32_t root, const keydescr& layout) {
  const isam::KeepError keep;
  const Visit any = [](const isam::Item& /*item*/) { return true; };
  Walk walk{.layout = isam::ItemLayout(layout), .visit = any};
  walk.met.assign(present_.size(), false);
  if (!go_down(walk, root, level_of(root))) return;
  for (const std::int32_t node : walk.nodes) levels_[static_cast<std::size_t>(node)] = kNone;
}

}  // namespace zentra
