// keychain: the chain of nodes in which a file's key descriptions stand.
//
// The place of a description in the chain, counted from 1, is the number of its index.
//
// Needs   the current file with its dictionary loaded
// Keeps   K1 a stored description is taken only when its size, its parts and its place in the
//            node agree; anything else is malformed (105)
//         K2 a chain that loops is malformed
//         K3 the dictionary's count of indexes follows every change
#pragma once

#include <cstddef>
#include <cstdint>

#include "isam.h"
#include "isam/base/format.h"
#include "isam/pool/nodechain.h"

namespace isam {

// The number of its indexes has 15 bits in what a pair tells of itself.
inline constexpr std::size_t kMostDescriptions = 32767;

// Walks the stored descriptions of the current file in index order.
class KeyChain {
 public:
  enum class Step { kFound, kEnd, kMalformed, kUnreadable };

  KeyChain();
  // kFound fills `k`; kMalformed (iserrno 105) and kUnreadable (iserrno as the read left it) end
  // the walk.
  [[nodiscard]] Step next(keydescr& k);

  // Where the description found last stands.
  [[nodiscard]] std::int32_t found_node() const { return found_node_; }
  [[nodiscard]] int found_offset() const { return found_offset_; }

 private:
  NodeChain<AnyNode> nodes_;
  int offset_ = kEntriesOffset;
  std::int32_t found_node_ = 0;
  int found_offset_ = 0;
};

// With n from 1 fetches description n into `k`; with n 0 finds the description that defines the
// same key as `k` and gives `k` its flags, key length and root. The index number; or -1 with
// iserrno 0 when there is none, 103 when `k` is not legal, 105 for a malformed chain or
// description, or the read's error.
int kysearch(keydescr& k, int n);

// Stores a legal new description at the first place with room and makes its root, an empty leaf
// (none for a key without parts). 0, or -1 with iserrno (108 when the key is defined already); then
// nothing has changed.
int kyadd(keydescr& k);

// Removes the description that defines the same key as `k`: 0, or -1 (103 when there is none).
int kydelete(const keydescr& k);

// Removes description n, closing the gap, and lowers the dictionary's count of indexes. A node
// that becomes empty stays in the chain. 0, or -1 (103 when there is no such description).
int kyremove(int n);

// Stores another root node in description n: 0, or -1.
int kysetroot(int n, std::int32_t root);

// Makes the chain end in the file, whose last node is `real` and will be `last`: it is cut in front
// of a node past `last`, one past `real` becomes an empty node, and an unreadable one ends it. A
// chain that has no node left gets a new, empty one. 0, or -1 with iserrno.
int kycutchain(std::int32_t real, std::int32_t last);

}  // namespace isam
