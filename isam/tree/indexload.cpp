#include "isam/tree/indexload.h"

#include <array>
#include <filesystem>
#include <memory>

#include "environment/settings.h"
#include "isam/base/errors.h"
#include "isam/records/freelists.h"
#include "isam/tree/treeload.h"

namespace isam {
namespace {

constexpr std::size_t kNumberSize = 4;

std::size_t sort_memory() {
  static const auto mebibytes = static_cast<std::size_t>(environment::number("ISAMSORTMEM"));
  return mebibytes << 20;
}

std::string folder_of_pair() {
  const std::filesystem::path folder = std::filesystem::path(filep->name).parent_path();
  return folder.empty() ? "." : folder.string();
}

}  // namespace

common::Sorter::Shape shape_of_sort(std::size_t entry_size, std::size_t key_size) {
  return {.entry_size = entry_size,
          .key_size = key_size,
          .memory = sort_memory() / 4,
          .folder = folder_of_pair(),
          .order = {}};
}

// An entry: sort key, as long as the key, record number, and the key itself when the sort key is
// another one. Records are added in ascending order, and the sorter keeps it within equal keys.
IndexLoad::IndexLoad(const keydescr& k, int sharers)
    : key_(k),
      order_(k),
      sort_key_(k),
      keylen_(static_cast<std::size_t>(k.keylen)),
      sortable_(SortKey::possible(k)),
      plain_(!sortable_ || sort_key_.is_plain()),
      memory_(sort_memory() / static_cast<std::size_t>(sharers)),
      entry_(keylen_ + kNumberSize + (plain_ ? 0 : keylen_)),
      sorter_(shape()) {}

common::Sorter::Shape IndexLoad::shape() const {
  common::Sorter::Shape shape{.entry_size = entry_.size(),
                              .key_size = keylen_,
                              .memory = memory_,
                              .folder = folder_of_pair(),
                              .order = {}};
  if (!sortable_) {
    shape.order = [this](const Byte* a, const Byte* b) { return order_.compare(a, b); };
  }
  return shape;
}

const Byte* IndexLoad::key_of(const Byte* entry) const {
  return plain_ ? entry : entry + keylen_ + kNumberSize;
}

bool IndexLoad::same_key(const Byte* a, const Byte* b) const {
  return sortable_ ? std::memcmp(a, b, keylen_) == 0 : order_.compare(a, b) == 0;
}

int IndexLoad::add(const Byte* record, std::int32_t number) {
  Byte* key = plain_ ? entry_.data() : entry_.data() + keylen_ + kNumberSize;
  Byte* to = key;
  for (int i = 0; i < key_.nparts; ++i) {
    const auto length = static_cast<std::size_t>(key_.part[i].length);
    std::memcpy(to, record + key_.part[i].start, length);
    to += length;
  }
  if (!plain_) sort_key_.make(key, entry_.data());
  common::stlong(number, entry_.data() + keylen_);
  return sorter_.add(entry_.data()) == 0 ? 0 : failed_system(errno);
}

// Builds the tree, and puts on `rejected` the numbers of the records left out.
int IndexLoad::load(std::int32_t root, const Listener& listener, common::Sorter& rejected) {
  PoolNodes nodes{taken_};
  TreeLoader loader{key_, nodes};
  const std::int32_t greatest = ItemLayout{key_}.greatest_dupnm();
  std::array<Byte, MAXKEYLEN> previous{};
  bool first = true;
  Item item;
  std::int64_t duplicate = 0;
  std::int64_t items = 0;
  while (const Byte* entry = sorter_.next()) {
    listener.loaded(++items);
    duplicate = !first && same_key(previous.data(), entry) ? duplicate + 1 : 0;
    met_equal_ = met_equal_ || duplicate > 0;
    first = false;
    std::memcpy(previous.data(), entry, keylen_);
    if (duplicate > greatest) {
      if (rejected.add(entry + keylen_) != 0) return failed_system(errno);
      continue;
    }
    std::memcpy(item.key, key_of(entry), keylen_);
    item.recptr = common::ldlong(entry + keylen_);
    item.dupnm = static_cast<std::int32_t>(duplicate);
    if (loader.add(item) != 0) return -1;
  }
  if (sorter_.error() != 0) return failed_system(sorter_.error());
  return loader.finish(root);
}

int IndexLoad::sort() {
  sorted_ = true;
  return sorter_.finish() == 0 ? 0 : failed_system(errno);
}

int IndexLoad::next(Item& item) {
  const Byte* const entry = sorter_.next();
  if (entry == nullptr) return sorter_.error() == 0 ? 0 : failed_system(sorter_.error());
  std::memcpy(item.key, key_of(entry), keylen_);
  item.recptr = common::ldlong(entry + keylen_);
  return 1;
}

int IndexLoad::rewind() {
  sorter_.rewind();
  return sorter_.error() == 0 ? 0 : failed_system(sorter_.error());
}

void IndexLoad::give_nodes_back() {
  for (; !taken_.empty(); taken_.pop_back()) freerec(taken_.back(), FreeList::kNodes);
}

int IndexLoad::finish(std::int32_t root, const Listener& listener) {
  if (!sorted_ && sort() != 0) return -1;
  // Records are left out in the order of their keys and reported in that of their numbers.
  common::Sorter rejected({.entry_size = kNumberSize,
                           .key_size = kNumberSize,
                           .memory = memory_ / 4,
                           .folder = folder_of_pair(),
                           .order = {}});
  if (load(root, listener, rejected) != 0) return -1;
  if (rejected.finish() != 0) return failed_system(errno);
  while (const Byte* entry = rejected.next()) listener.left_out(common::ldlong(entry));
  return rejected.error() == 0 ? 0 : failed_system(rejected.error());
}

}  // namespace isam
