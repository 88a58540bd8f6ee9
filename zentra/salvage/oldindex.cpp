#include "zentra/salvage/oldindex.h"

#include <algorithm>
#include <set>
#include <utility>

#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "isam/pool/nodechain.h"

namespace zentra {
namespace {

using isam::Byte;
using isam::ConstBytes;

Byte kind_of(ConstBytes node, int stored_size) {
  return node[static_cast<std::size_t>(isam::node_type_offset(stored_size))];
}
Byte level_of(ConstBytes node, int stored_size) {
  return node[static_cast<std::size_t>(isam::node_level_offset(stored_size))];
}

bool has_page_magic(ConstBytes node) {
  return common::ldword(node.data() + isam::rpage::kMagicOffset) == isam::rpage::kMagic;
}

bool holds_descriptions(ConstBytes node, int stored_size) {
  const int used = common::ldword(node.data());
  return kind_of(node, stored_size) == isam::kServiceNode &&
         level_of(node, stored_size) == isam::kKeyLevel && used >= isam::kEntriesOffset &&
         used <= isam::node_type_offset(stored_size);
}

bool is_tree_node(ConstBytes node, int stored_size) {
  const int used = common::ldword(node.data());
  return kind_of(node, stored_size) == isam::kTreeNode &&
         level_of(node, stored_size) < isam::kMaxTreeLevels && used > isam::kUsedBytes &&
         used <= isam::item_area_limit(stored_size);
}

bool is_free_list(ConstBytes node, int stored_size) {
  const Byte kind = kind_of(node, stored_size);
  return (kind == isam::kServiceNode || kind == isam::kIndexFreeNode) &&
         level_of(node, stored_size) == isam::kFreeLevel;
}

// How much speaks for a node of this size beginning here; below 0: against it.
int sureness_of(ConstBytes node, int stored_size) {
  constexpr int kSure = 8;
  constexpr int kUnlikely = -2;
  if (has_page_magic(node) && kind_of(node, stored_size) == isam::kStoragePage) return kSure;
  if (holds_descriptions(node, stored_size) || is_free_list(node, stored_size)) return kSure;
  if (is_tree_node(node, stored_size)) return 1;
  const bool is_empty = std::ranges::all_of(node, [](Byte byte) { return byte == 0; });
  return is_empty ? 0 : kUnlikely;
}

// The descriptions of a node, as far as they are well formed: whether all are.
bool take_descriptions(ConstBytes node, int stored_size, int length, std::vector<keydescr>& keys) {
  const int end = std::min<int>(common::ldword(node.data()), isam::node_type_offset(stored_size));
  for (int at = isam::kEntriesOffset; at < end;) {
    const Byte* const stored = node.data() + at;
    const int size = end - at < isam::kKeyHeadSize ? 0 : common::ldword(stored);
    const int parts = (size - isam::kKeyHeadSize) / isam::kKeyPartSize;
    if (size < isam::kKeyHeadSize || size > end - at || parts > MAXPARTS ||
        isam::kKeyHeadSize + parts * isam::kKeyPartSize != size) {
      return false;
    }
    keydescr k = isam::kyunpack(stored);
    at += size;
    const isam::KeepError keep;
    const bool is_legal = k.nparts == 0 ? keys.empty() : isam::kylegal(k, length) == 0;
    const bool is_new = std::ranges::none_of(
        keys, [&](const keydescr& other) { return isam::kycompare(other, k) == 0; });
    if (!is_legal || !is_new || keys.size() == isam::kMostDescriptions) return false;
    k.keylen = 0;
    k.rootnode = 0;
    keys.push_back(k);
  }
  return true;
}

}  // namespace

bool OldIndex::open(const std::string& path) {
  if (!file_.open(path)) return false;
  cache_.resize(kCached);
  take_dictionary();
  if (dictionary_) {
    stored_size_ = dictionary_->d_idxsize();
  } else {
    find_node_size();
  }
  if (stored_size_ == 0) return true;
  const std::int64_t nodes = (file_.size() + stored_size_) / (stored_size_ + 1);
  last_node_ = static_cast<std::int32_t>(std::min<std::int64_t>(nodes, INT32_MAX - 1));
  return true;
}

// One of its two marks may be damaged.
void OldIndex::take_dictionary() {
  isam::Dictionary found{};
  if (file_.read(found.raw, 0) != sizeof found.raw) return;
  const bool has_mark = found.d_magic() == isam::kDictionaryMagic || found.fixed_bytes_match();
  if (has_mark && found.d_idxsize() >= isam::kMinStoredNodeSize &&
      found.d_idxsize() <= isam::kMaxStoredNodeSize && found.d_recsize() > 0) {
    dictionary_ = found;
  }
}

bool OldIndex::has_changed() {
  isam::Dictionary now{};
  if (file_.has_changed()) return true;
  return dictionary_ && file_.read(now.raw, 0) == sizeof now.raw &&
         now.d_modcount() != dictionary_->d_modcount();
}

// By the nodes in a piece of the file.
int OldIndex::score_of(int node_size, ConstBytes piece, std::int64_t offset) {
  const auto size = static_cast<std::size_t>(node_size);
  const auto begin = static_cast<std::size_t>((node_size - offset % node_size) % node_size);
  int score = 0;
  for (std::size_t at = begin; at + size <= piece.size(); at += size) {
    const bool is_first = offset == 0 && at == 0;
    if (!is_first) score += sureness_of(piece.subspan(at, size), node_size - 1);
  }
  return score;
}

// The size by which most speaks for nodes: of several times the size there are fewer.
void OldIndex::find_node_size() {
  constexpr std::int64_t kPiece = std::int64_t{256} << 10;
  constexpr int kFewest = 4;
  std::array<int, isam::kMaxNodeSize + 1> scores{};
  std::vector<Byte> piece(static_cast<std::size_t>(kPiece));
  for (const std::int64_t offset : {std::int64_t{0}, file_.size() / 2}) {
    const ConstBytes bytes = ConstBytes{piece}.first(file_.read(piece, offset));
    for (int size = isam::kMinStoredNodeSize + 1; size <= isam::kMaxNodeSize; ++size) {
      scores.at(static_cast<std::size_t>(size)) += score_of(size, bytes, offset);
    }
  }
  const auto best = std::ranges::max_element(scores);
  if (*best >= kFewest) stored_size_ = static_cast<int>(best - scores.begin()) - 1;
}

isam::Bytes OldIndex::node(std::int32_t number) {
  if (number < 1 || number > last_node_) return {};
  const auto size = static_cast<std::size_t>(stored_size_) + 1;
  Cached& cached = cache_[static_cast<std::size_t>(number) % kCached];
  const isam::Bytes bytes = isam::Bytes{cached.bytes}.first(size);
  if (cached.number == number) return bytes;
  cached.number = 0;
  const std::size_t got = file_.read(bytes, std::int64_t{number - 1} * (stored_size_ + 1));
  if (got == 0 || !file_.unread().empty()) return {};
  std::ranges::fill(bytes.subspan(got), Byte{0});  // of a node that is cut
  cached.number = number;
  return bytes;
}

bool OldIndex::is_gone(std::int32_t number) {
  if (number > last_node_) {
    const bool is_whole = dictionary_ && dictionary_->d_nextnode() <= last_node_;
    return !is_whole;
  }
  const ConstBytes bytes = node(number);
  return std::ranges::all_of(bytes, [](Byte byte) { return byte == 0; });
}

bool OldIndex::is_storage(ConstBytes node) const {
  return has_page_magic(node) && kind_of(node, stored_size_) == isam::kStoragePage;
}
bool OldIndex::may_be_storage(ConstBytes node) const {
  return has_page_magic(node) || kind_of(node, stored_size_) == isam::kStoragePage;
}

std::optional<std::int64_t> OldIndex::records_in_use() {
  if (!dictionary_ || dictionary_->d_magic() != isam::kDictionaryMagic ||
      !dictionary_->fixed_bytes_match()) {
    return {};
  }
  std::int64_t in_use = dictionary_->d_nextdata();
  std::int32_t next = dictionary_->d_freedata();
  for (std::int32_t left = last_node_; next != 0; --left) {
    const ConstBytes bytes = node(next);
    if (left == 0 || bytes.empty() || !is_free_list(bytes, stored_size_)) return {};
    const int entries = common::ldword(bytes.data()) - isam::kEntriesOffset;
    if (entries < 0 || entries > isam::list_entries_limit(stored_size_)) return {};
    in_use -= entries / isam::kListEntrySize;
    next = isam::link_in(bytes);
  }
  const std::int64_t most = std::int64_t{last_node_} * stored_size_;  // a byte of an item at least
  return in_use < 0 || in_use > most ? std::nullopt : std::optional(in_use);
}

void OldIndex::each_page(const std::function<bool(std::int32_t node, isam::Bytes page)>& take) {
  for (std::int32_t number = 2; number <= last_node_; ++number) {
    const isam::Bytes page = node(number);
    if (!page.empty() && is_storage(page) && !take(number, page)) return;
  }
}

// The chain, or all nodes that look like one of it where it cannot be followed from its begin.
std::vector<std::int32_t> OldIndex::description_nodes() {
  std::vector<std::int32_t> nodes;
  std::set<std::int32_t> met;
  std::int32_t next = dictionary_ ? dictionary_->d_keysnode() : 0;
  while (next > 1 && met.insert(next).second) {
    const ConstBytes bytes = node(next);
    if (bytes.empty() || !holds_descriptions(bytes, stored_size_)) break;
    nodes.push_back(next);
    next = isam::link_in(bytes);
  }
  if (!nodes.empty()) return nodes;
  for (std::int32_t number = 2; number <= last_node_; ++number) {
    const ConstBytes bytes = node(number);
    if (!bytes.empty() && holds_descriptions(bytes, stored_size_)) nodes.push_back(number);
  }
  return nodes;
}

OldIndex::Keys OldIndex::keys(int length) {
  Keys found;
  found.are_all = true;
  for (const std::int32_t number : description_nodes()) {
    if (take_descriptions(node(number), stored_size_, length, found.keys)) continue;
    found.are_all = false;
    break;
  }
  if (dictionary_ && !std::cmp_equal(dictionary_->d_nkeys(), found.keys.size())) {
    found.are_all = false;
  }
  return found;
}

}  // namespace zentra
