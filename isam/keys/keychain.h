// keychain: the chain of nodes in which a file's key descriptions stand.
//
// The place of a description in the chain, counted from 1, is the number of its index. Removing
// one lowers the numbers of those behind it.
//
// Needs   the current file with its dictionary loaded
// Keeps   K1 a stored description is taken only when its size, its parts and its place in the
//            node agree; anything else is malformed (105)
//         K2 a chain that loops is malformed
//         K3 the dictionary's count of indexes follows every change
// Never   frees the nodes of a tree whose description it removes: the caller sees to them
#pragma once

#include <cstddef>
#include <cstdint>

#include "isam.h"
#include "isam/base/format.h"
#include "isam/pool/nodechain.h"

namespace isam {

// The most descriptions that a file may have: isdictinfo tells their number in 15 bits, beside
// DI_VARLEN.
inline constexpr std::size_t kMostDescriptions = 32767;

// Walks the stored descriptions of the current file in index order.
class KeyChain {
 public:
  enum class Step { kFound, kEnd, kMalformed, kUnreadable };

  KeyChain();
  // kFound fills `k`. Anything else ends the walk: kEnd leaves iserrno alone, kMalformed sets it to
  // 105, kUnreadable leaves it as the read did.
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

// Two look-ups in one. With n from 1 it fetches description n into `k`, whatever that held. With n
// below 1 it looks for the description that defines the same key as `k`, which must be legal (else
// 103), and copies its flags, key length and root into `k`.
// Returns the index number; or -1 with iserrno 105 for a malformed chain or description, with the
// error of a read, or with iserrno as it was when there is no such description.
int kysearch(keydescr& k, int n);

// Stores `k`, a legal description, at the first place with room. It makes the root, an empty leaf,
// and stores its number in `k` too; a key without parts gets root 0. 0, or -1 with iserrno and
// nothing changed: 108 when the key is defined already, 103 when the file has kMostDescriptions.
int kyadd(keydescr& k);

// Remove a description, by the key that it defines or by its number: 0, or -1 with iserrno (when
// there is none 103, or what it was if it was set). What stands behind it in its node moves up; a
// node that becomes empty stays in the chain.
int kydelete(const keydescr& k);
int kyremove(int n);

// Stores another root node in description n: 0, or -1 with iserrno as above.
int kysetroot(int n, std::int32_t root);

// For a repair: makes the chain stay within the file, which holds the nodes up to `real`; those up
// to `last` will be in use. The chain ends before its first node past `last`; when it begins there,
// one new, empty node takes its place. A node past `real` but not past `last`, which the file
// lacks, is made as an empty one and ends the chain. A node that cannot be read, or is met twice,
// is left to the check's report. 0, or -1 with iserrno.
int kycutchain(std::int32_t real, std::int32_t last);

}  // namespace isam
