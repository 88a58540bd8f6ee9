// nodechain: the one walk along nodes of which each names the next: free lists, the nodes of the
// key descriptions and the lists of storage pages.
//
// Needs   a rule: which numbers the chain may name, which pages it may consist of, and whether a
//         node has been met before
// Keeps   N1 every walk ends, whatever the file says. How often it may give a node before is up to
//            the rule
//         N2 only the walk reads where a link leads (a ListLink, or the Link that it is made with)
// Gives   one page after the other, and why the walk ended
// Never   sets iserrno, but for a page that cannot be read
//
//   NodeChain<AnyNode> chain{dictp->d_freenode(), {}};
//   while (const PageHold page = chain.read()) {
//     ... look at the page; the walk may end here ...
//     chain.follow(page);
//   }
//   if (chain.end() != ChainEnd::kLast) ...
#pragma once

#include <cstdint>
#include <utility>

#include "isam/base/walklimit.h"
#include "isam/pool/buffers.h"

namespace isam {

// Why a walk has ended.
enum class ChainEnd : std::uint8_t {
  kNotYet,
  kLast,        // behind the last node
  kOutOfRange,  // a link leads where the chain cannot have a node,
  kMetTwice,    // ... or to a node that was met before
  kUnreadable,
  kMalformed,  // a page that is no node of such a chain
};

// The rule of a chain about which nothing is known: it may give nodes of a loop more than once.
struct AnyNode {
  LoopGuard guard;

  [[nodiscard]] bool may_name(std::int32_t /*node*/) const { return true; }
  [[nodiscard]] bool has_met(std::int32_t node) { return guard.meets(node); }
  [[nodiscard]] bool is_sound(const PageHold& /*page*/) const { return true; }
};

// Where the link of a node leads, of which nothing but its bytes is there.
[[nodiscard]] inline std::int32_t link_in(ConstBytes node) {
  return common::ldlong(node.data() + kLinkOffset);
}

// The link of a node, 0 in the last one.
class ListLink {
 public:
  explicit ListLink(Byte* node) : bytes_(node + kLinkOffset) {}
  explicit ListLink(const PageHold& page) : ListLink(page.data()) {}

  void set(std::int32_t node) const { common::stlong(node, bytes_); }
  [[nodiscard]] bool is_last() const { return node() == 0; }
  // Whether it names no node, or one from `lowest` to `highest` other than its own.
  [[nodiscard]] bool is_sound(std::int32_t own, std::int32_t lowest, std::int32_t highest) const {
    return is_last() || (node() >= lowest && node() <= highest && node() != own);
  }

 private:
  template <typename Rule, typename Link>
  friend class NodeChain;

  [[nodiscard]] std::int32_t node() const { return common::ldlong(bytes_); }

  Byte* bytes_;
};

template <typename Rule, typename Link = ListLink>
class NodeChain {
 public:
  NodeChain(std::int32_t head, Rule rule) : rule_(std::move(rule)) { go_to(head); }

  // The page of the node that the walk stands at; empty when the walk has ended.
  [[nodiscard]] PageHold read() {
    if (end_ != ChainEnd::kNotYet) return {};
    PageHold page = bfread(node_);
    if (!page) {
      end_ = ChainEnd::kUnreadable;
    } else if (!rule_.is_sound(page)) {
      end_ = ChainEnd::kMalformed;
      page.release();
    }
    return page;
  }
  // Goes to the node behind that of the page.
  void follow(const PageHold& page) { go_to(Link{page}.node()); }

  // The node that the walk stands at, or that it could not go to; 0 behind the last one.
  [[nodiscard]] std::int32_t node() const { return node_; }
  [[nodiscard]] ChainEnd end() const { return end_; }

 private:
  void go_to(std::int32_t node) {
    node_ = node;
    if (node == 0) {
      end_ = ChainEnd::kLast;
    } else if (!rule_.may_name(node)) {
      end_ = ChainEnd::kOutOfRange;
    } else if (rule_.has_met(node)) {
      end_ = ChainEnd::kMetTwice;
    }
  }

  Rule rule_;
  std::int32_t node_ = 0;
  ChainEnd end_ = ChainEnd::kNotYet;
};

}  // namespace isam
