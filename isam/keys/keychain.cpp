#include "isam/keys/keychain.h"

#include <algorithm>
#include <cstring>

#include "isam/base/errors.h"
#include "isam/keys/keys.h"
#include "isam/pool/buffers.h"
#include "isam/records/freelists.h"

namespace isam {
namespace {

// Bytes of a key-description node that may hold descriptions.
int description_end(const PageHold& page) {
  return std::min(page.used(), node_type_offset(filep->geometry.idxsize));
}

bool well_formed(const Byte* stored, int room) {
  if (room < kKeyHeadSize) return false;
  const int size = common::ldword(stored);
  return size >= kKeyHeadSize && size <= room && (size - kKeyHeadSize) % kKeyPartSize == 0 &&
         (size - kKeyHeadSize) / kKeyPartSize <= MAXPARTS;
}

}  // namespace

KeyChain::KeyChain() : nodes_(dictp->d_keysnode(), AnyNode{}) {}

KeyChain::Step KeyChain::next(keydescr& k) {
  while (const PageHold page = nodes_.read()) {
    const int end = description_end(page);
    if (offset_ < end) {
      const Byte* stored = page.data() + offset_;
      if (!well_formed(stored, end - offset_)) {
        failed(kCorrupted);
        return Step::kMalformed;
      }
      k = kyunpack(stored);
      found_node_ = nodes_.node();
      found_offset_ = offset_;
      offset_ += common::ldword(stored);
      return Step::kFound;
    }
    nodes_.follow(page);
    offset_ = kEntriesOffset;
  }
  if (nodes_.end() == ChainEnd::kLast) return Step::kEnd;
  if (nodes_.end() == ChainEnd::kUnreadable) return Step::kUnreadable;
  failed(kCorrupted);
  return Step::kMalformed;
}

namespace {

// Moves the chain to description n and fills `k`: 0, or -1 with iserrno as kysearch() says.
int go_to(KeyChain& chain, int n, keydescr& k) {
  for (int number = 1; chain.next(k) == KeyChain::Step::kFound; ++number) {
    if (number == n) return 0;
  }
  return -1;
}

// Moves the chain to the description that defines the same key as `k` and fills `found`: its
// number, or -1 with iserrno as kysearch() says.
int go_to_same(KeyChain& chain, const keydescr& k, keydescr& found) {
  for (int number = 1; chain.next(found) == KeyChain::Step::kFound; ++number) {
    if (kycompare(found, k) == 0) return number;
  }
  return -1;
}

int find_same(keydescr& k) {
  if (kylegal(k, filep->geometry.reclen) != 0) return -1;
  KeyChain chain;
  keydescr found{};
  const int number = go_to_same(chain, k, found);
  if (number < 0) return -1;
  k.flags = found.flags;
  k.keylen = found.keylen;
  k.rootnode = found.rootnode;
  return number;
}

int fetch(keydescr& k, int n) {
  KeyChain chain;
  keydescr found{};
  if (go_to(chain, n, found) != 0) return -1;
  if (found.nparts > 0 && kylegal(found, filep->geometry.reclen) != 0) return failed(kCorrupted);
  k = found;
  return n;
}

void count_indexes(int change) {
  dictp->set_d_nkeys(std::max(dictp->d_nkeys() + change, 0));
  dictmodify();
  filep->cached.keys_generation = 0;  // the array of file_keys() is out of date
}

// Takes the description that the chain has found out of its node.
int remove_found(const KeyChain& chain) {
  PageHold page = bfread(chain.found_node());
  if (!page) return -1;
  Byte* const gap = page.data() + chain.found_offset();
  const int size = common::ldword(gap);
  const int behind = description_end(page) - chain.found_offset() - size;
  std::memmove(gap, gap + size, static_cast<std::size_t>(behind));
  std::memset(gap + behind, 0, static_cast<std::size_t>(size));
  page.set_used(chain.found_offset() + behind);
  page.modified();
  count_indexes(-1);
  return 0;
}

// A fresh node with this frame and zeros, on no list and in no tree yet: its number, or -1.
std::int32_t fresh_node(int used, Byte node_type, Byte level) {
  const std::int32_t node = allocrec(FreeList::kNodes);
  if (node < 0) return -1;
  PageHold page = bfgetclr(node);
  if (!page) return -1;
  page.set_frame(used, node_type, level);
  return node;
}

// Where a description of `size` bytes may go: in `node` when `fits`, else behind it, the last.
struct Place {
  std::int32_t node;
  bool fits;
};

// The rule of a chain to which a description is to be added.
struct KeyNodes : AnyNode {
  [[nodiscard]] static bool is_sound(const PageHold& page) {
    return page.node_type() == kServiceNode && page.level() == kKeyLevel &&
           page.used() >= kEntriesOffset;
  }
};

// The first node with room, else the last one: 0, or -1 with iserrno.
int find_place(int size, Place& place) {
  NodeChain<KeyNodes> nodes{dictp->d_keysnode(), {}};
  while (const PageHold page = nodes.read()) {
    place = {page.node(), page.used() + size < node_type_offset(filep->geometry.idxsize)};
    if (place.fits) return 0;
    nodes.follow(page);
  }
  if (nodes.end() == ChainEnd::kUnreadable) return -1;
  return nodes.end() == ChainEnd::kLast && place.node != 0 ? 0 : failed(kCorrupted);
}

int append_to(std::int32_t node, const keydescr& k) {
  PageHold page = bfread(node);
  if (!page) return -1;
  kypack(k, page.data() + page.used());
  page.set_used(page.used() + stored_key_size(k));
  page.modified();
  count_indexes(1);
  return 0;
}

int append_behind(std::int32_t last, const keydescr& k) {
  const std::int32_t node = fresh_node(kEntriesOffset, kServiceNode, kKeyLevel);
  if (node < 0) return -1;
  PageHold page = bfread(last);
  if (!page) {
    give_node_back(node);
    return -1;
  }
  ListLink{page}.set(node);
  page.modified();
  page.release();
  return append_to(node, k);
}

// Walks the whole chain: 0 when it is sound, can grow and, with parts, does not define the key of
// `k`.
int check_new(const keydescr& k) {
  KeyChain chain;
  keydescr found{};
  KeyChain::Step step;
  std::size_t count = 0;
  while ((step = chain.next(found)) == KeyChain::Step::kFound) {
    if (k.nparts > 0 && kycompare(found, k) == 0) return failed(kIndexExists);
    if (++count == kMostDescriptions) return failed(kBadKey);
  }
  return step == KeyChain::Step::kEnd ? 0 : -1;
}

}  // namespace

int kysearch(keydescr& k, int n) { return n < 1 ? find_same(k) : fetch(k, n); }

int kyadd(keydescr& k) {
  Place place{};
  if (check_new(k) != 0 || find_place(stored_key_size(k), place) != 0) return -1;
  std::int32_t root = 0;
  if (k.nparts > 0 && (root = fresh_node(kUsedBytes, kTreeNode, kLeafLevel)) < 0) return -1;
  keydescr stored = k;
  stored.rootnode = root;
  const int result = place.fits ? append_to(place.node, stored) : append_behind(place.node, stored);
  if (result == 0) {
    k.rootnode = root;
  } else if (root > 0) {
    give_node_back(root);
  }
  return result;
}

int kydelete(const keydescr& k) {
  KeyChain chain;
  keydescr found{};
  if (go_to_same(chain, k, found) < 0) return failed_unless_set(kBadKey);
  return remove_found(chain);
}

int kyremove(int n) {
  KeyChain chain;
  keydescr k{};
  if (go_to(chain, n, k) != 0) return failed_unless_set(kBadKey);
  return remove_found(chain);
}

int kysetroot(int n, std::int32_t root) {
  KeyChain chain;
  keydescr k{};
  if (go_to(chain, n, k) != 0) return failed_unless_set(kBadKey);
  const PageHold page = bfread(chain.found_node());
  if (!page) return -1;
  common::stlong(root, page.data() + chain.found_offset() + kKeyRootOffset);
  page.modified();
  return 0;
}

namespace {

// The rule of a chain that ends before the nodes past `highest`.
struct NodesUpTo : AnyNode {
  std::int32_t highest;

  [[nodiscard]] bool may_name(std::int32_t node) const { return node <= highest; }
};

// One new, empty node in place of the chain: 0, or -1 with iserrno.
int start_chain() {
  const std::int32_t node = fresh_node(kEntriesOffset, kServiceNode, kKeyLevel);
  if (node < 0) return -1;
  dictp->set_d_keysnode(node);
  dictmodify();
  return 0;
}

}  // namespace

int kycutchain(std::int32_t real, std::int32_t last) {
  if (dictp->d_keysnode() > last) return start_chain();
  NodeChain<NodesUpTo> nodes{dictp->d_keysnode(), {{}, real}};
  while (const PageHold page = nodes.read()) {
    nodes.follow(page);
    if (nodes.node() <= last) continue;
    ListLink{page}.set(0);
    page.modified();
    return 0;
  }
  if (nodes.end() == ChainEnd::kUnreadable) clear_errors();  // of a node that has been reported
  if (nodes.end() == ChainEnd::kOutOfRange) {
    PageHold missing = bfgetclr(nodes.node());
    if (!missing) return -1;
    missing.set_frame(kEntriesOffset, kServiceNode, kKeyLevel);
  }
  return 0;
}

}  // namespace isam
