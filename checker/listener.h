// listener: whom a check tells what it does and finds, and who decides for it.
//
// The calls come in the order in which kestro's report tells the same things. A listener need not
// print: it may only count, or write a report of its own. Its answers may come from an operator or
// from a rule.
#pragma once

#include <cstdint>
#include <string>

#include "checker/findings.h"
#include "isam.h"
#include "isam/files/watching.h"
#include "isam/tree/items.h"

namespace checker {

enum class Pass {
  kDictionary,
  kDataAllTheSame,  // although -i: records of variable length must be read; kData follows
  kData,
  kIndexes,
  kFreeLists
};

// What a repair is about to do.
enum class Mending { kDeletesIndex, kRemakesIndex, kRemakesNodeList, kRemakesRecordList };

enum class Fact {
  kNodeSize,         // of the pair checked
  kCurrentNodeSize,  // which a new pair would get, whatever the pair checked has
  kOldNodeSize,      // before a change of node size
  kKeyNodeSize       // bytes in use of the node of key descriptions
};

// One of those that a finding counts, or where it is; 0 and null: not known or of no use there.
struct Detail {
  Code code;
  int key = 0;  // number of the index
  std::int32_t node = 0;
  int slot = -1;  // place of the item or entry in the node, from 0
  std::int32_t record = 0;
  std::int32_t last = 0;                // numbers from `record` or `node` to this one
  std::int32_t pointer = 0;             // a number that leads to no node or record
  const isam::Byte* value = nullptr;    // the item's key value
  const isam::Byte* before = nullptr;   // ... and that of the item before it
  const keydescr* described = nullptr;  // the index
};

// What a pair holds, as the check found it.
struct Summary {
  std::int32_t nodes_used = 0;
  std::int32_t nodes_free = 0;
  std::int32_t records_used = 0;
  std::int32_t records_free = 0;
  bool varlen = false;
  std::int32_t pages = 0;  // nodes that hold variable parts
  std::int64_t page_bytes_free = 0;
};

class Listener {
 public:
  virtual ~Listener() = default;

  virtual void found(const Finding& finding) = 0;
  // True for yes.
  [[nodiscard]] virtual bool answer(Question question) = 0;
  // An operation on the files failed: iserrno and iserrio.
  virtual void failed(std::int32_t code, std::int32_t place) = 0;

  virtual void begins(Pass /*pass*/) {}
  virtual void fact(Fact /*fact*/, std::int64_t /*value*/) {}
  virtual void index_begins(int /*n*/, const keydescr& /*k*/) {}
  virtual void index_walked(std::int32_t /*nodes*/, int /*levels*/) {}
  // `n`: the index, 0 where it is about a list.
  virtual void mends(Mending /*what*/, int /*n*/) {}
  // What became of a repair, where the report has no words for it.
  virtual void remark(const std::string& /*text*/) {}
  // The last call. Null: the check ended before it knew how large the files are. Not called when no
  // check began, because the pair could not be opened, locked or read, or because the change of its
  // node size that was asked for failed.
  virtual void ends(const Summary* /*summary*/) {}

  // Whether each of those that findings count is to be told, before or behind its finding.
  [[nodiscard]] virtual bool wants_details() const { return false; }
  virtual void detail(const Detail& /*detail*/) {}

  // Whether each item of a leaf that leads to a record in use is to be told, too. `equal`: its key
  // is that of the item before it in the index; `same_number`: and so is its duplicate number.
  [[nodiscard]] virtual bool wants_leaves() const { return false; }
  struct Leaf {
    int key;  // number of the index
    std::int32_t node;
    int slot;
    bool equal;
    bool same_number;
  };
  virtual void leaf_item(const Leaf& /*place*/, const isam::Item& /*item*/) {}
  // For such a listener: a node of tree n has not the level below that of the node above it, or,
  // without items, is no leaf.
  virtual void odd_level(int /*n*/, std::int32_t /*node*/, int /*found*/, int /*expected*/) {}
  // Record numbers that others have locked: an open transaction of theirs keeps deleted ones back,
  // with their storage, until it ends. Null: nobody can have any.
  [[nodiscard]] virtual isam::RecordLocks* locks() { return nullptr; }
  // Such a number, which is neither in use nor free.
  virtual void kept_back(std::int32_t /*record*/) {}

  // Whether the nodes and items of every tree are to be told, too.
  [[nodiscard]] virtual bool wants_trees() const { return false; }
  // The walk comes to a node. A leaf's items follow at once; each item of an upper node follows
  // when all nodes below it have been told. The root is on level 0; `used`: bytes of items.
  virtual void tree_node(int /*level*/, std::int32_t /*node*/, int /*used*/) {}
  virtual void tree_item(const isam::Item& /*item*/, const keydescr& /*k*/) {}
  // The walk is back in a node of this level; the item that led down comes next.
  virtual void tree_level(int /*level*/) {}

 protected:
  Listener() = default;
  Listener(const Listener&) = default;
  Listener& operator=(const Listener&) = default;
};

}  // namespace checker
