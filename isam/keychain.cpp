#include "isam/keychain.h"

#include <algorithm>
#include <cstring>

#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/keys.h"

namespace isam {
namespace {

// Bytes of a key-description node that may hold descriptions.
int description_end(const PageHold& page) {
  return std::min(page.used(), node_type_offset(filep->idxsize));
}

bool well_formed(const Byte* stored, int room) {
  if (room < kKeyHeadSize) return false;
  const int size = common::ldword(stored);
  return size >= kKeyHeadSize && size <= room && (size - kKeyHeadSize) % kKeyPartSize == 0 &&
         (size - kKeyHeadSize) / kKeyPartSize <= MAXPARTS;
}

}  // namespace

KeyChain::KeyChain() : node_(dictp->d_keysnode()), offset_(kEntriesOffset), mark_(node_) {}

bool KeyChain::follow(std::int32_t link) {
  if (link == mark_) return false;
  if (++steps_ == next_mark_) {
    mark_ = link;
    next_mark_ *= 2;
  }
  node_ = link;
  offset_ = kEntriesOffset;
  return true;
}

KeyChain::Step KeyChain::next(keydescr& k) {
  while (node_ != 0) {
    const PageHold page = bfread(node_);
    if (!page) return Step::kUnreadable;
    const int end = description_end(page);
    if (offset_ < end) {
      const Byte* stored = page.data() + offset_;
      if (!well_formed(stored, end - offset_)) {
        failed(kCorrupted);
        return Step::kMalformed;
      }
      k = kyunpack(stored);
      found_node_ = node_;
      found_offset_ = offset_;
      offset_ += common::ldword(stored);
      return Step::kFound;
    }
    const std::int32_t link = common::ldlong(page.data() + kLinkOffset);
    if (link == 0) {
      node_ = 0;
    } else if (!follow(link)) {
      failed(kCorrupted);
      return Step::kMalformed;
    }
  }
  return Step::kEnd;
}

namespace {

// Moves the chain to description n and fills `k`: 0, or -1 with iserrno as kysearch() says.
int go_to(KeyChain& chain, int n, keydescr& k) {
  for (int number = 1; chain.next(k) == KeyChain::Step::kFound; ++number) {
    if (number == n) return 0;
  }
  return -1;
}

}  // namespace

int kysearch(keydescr& k, int n) {
  KeyChain chain;
  keydescr found{};
  if (go_to(chain, n, found) != 0) return -1;
  k = found;
  return n;
}

int kyremove(int n) {
  KeyChain chain;
  keydescr k{};
  if (go_to(chain, n, k) != 0) return failed_unless_set(kBadKey);
  PageHold page = bfread(chain.found_node());
  if (!page) return -1;
  Byte* const gap = page.data() + chain.found_offset();
  const int size = common::ldword(gap);
  const int behind = std::max(page.used() - chain.found_offset() - size, 0);
  std::memmove(gap, gap + size, static_cast<std::size_t>(behind));
  std::memset(gap + behind, 0, static_cast<std::size_t>(size));
  page.set_used(page.used() - size);
  page.modified();
  dictp->set_d_nkeys(dictp->d_nkeys() - 1);
  dictmodify();
  return 0;
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

}  // namespace isam
