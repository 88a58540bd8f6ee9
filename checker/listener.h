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
