// tree_model: an index beside a model of it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "isam/keys/keychain.h"
#include "isam/tree/btree.h"
#include "isam/tree/treenode.h"
#include "tests/isam/test_pair.h"
#include "tests/support/descriptions.h"

namespace isam {

using testing_support::Image;
using testing_support::TestPair;

enum class Kind { kText, kNumber, kMixed, kReal };

inline std::vector<keypart> parts_of(Kind kind) {
  switch (kind) {
    case Kind::kText:
      return {{0, 20, KT_CHAR}};
    case Kind::kNumber:
      return {{0, 4, KT_LONG}};
    case Kind::kMixed:
      return {{0, 2, KT_INT | KT_DESC}, {2, 9, KT_CHAR}};
    case Kind::kReal:
      return {{0, 8, KT_DOUBLE}};
  }
  return {};
}

// Text with shared beginnings and trailing blanks.
inline std::vector<Image> texts(std::size_t count) {
  std::mt19937 random(5);
  std::set<Image> sorted;
  while (sorted.size() < count) {
    static const std::array<std::string, 4> starts = {"", "north", "north-east by", "south"};
    std::string text = starts[random() % starts.size()];
    for (auto letters = random() % 7; letters > 0; --letters) text += "ab c"[random() % 4];
    text.resize(20, ' ');
    sorted.insert(Image(text.begin(), text.end()));
  }
  return {sorted.begin(), sorted.end()};
}

// `count` different keys in key order.
inline std::vector<Image> keys_of(Kind kind, std::size_t count) {
  if (kind == Kind::kText) return texts(count);
  std::vector<Image> keys;
  const auto half = static_cast<int>(count / 2);
  for (int i = 0; i < static_cast<int>(count); ++i) {
    Image key;
    if (kind == Kind::kNumber) {
      key.resize(4);
      testing_support::put4(key.data(), i - half);
    } else if (kind == Kind::kMixed) {
      const std::string text = std::string(1 + i % 8, 'x') + std::string(8 - i % 8, ' ');
      key.resize(2);
      testing_support::put2(key.data(), half / 8 - i / 8);
      key.insert(key.end(), text.begin(), text.end());
    } else {
      const double value = (i - half) / 7.0;
      key.resize(sizeof value, 0xFF);
      if (i > 0) std::memcpy(key.data(), &value, sizeof value);
    }
    keys.push_back(key);
  }
  return keys;
}

// An index beside its model: positions in a table of sorted keys, and record numbers in the order
// of their insertion.
class Tree {
 public:
  Tree(int flags, Kind kind, TestPair::Shape shape, std::size_t different = 400)
      : k(testing_support::key_of(parts_of(kind), flags)),
        keys(keys_of(kind, different)),
        pair(shape) {
    EXPECT_EQ(kylegal(k, shape.record_length), 0);
    EXPECT_EQ(kyadd(k), 0);
  }

  [[nodiscard]] Item item_of(int key, std::int32_t record = 0) const {
    Item item;
    const Image& bytes = keys[static_cast<std::size_t>(key)];
    std::copy(bytes.begin(), bytes.end(), item.key);
    item.recptr = record;
    return item;
  }

  // Inserts a record with this key: what btadditem answers, the model following.
  int insert(int key) {
    const std::int32_t record = pair.add_record(keys[static_cast<std::size_t>(key)]);
    Item item = item_of(key, record);
    clear_errors();
    const int result = btadditem(cursor, item, k);
    EXPECT_EQ(cursor.bt.depth, -1);
    if (result == 0) {
      model.emplace(key, record);
    } else {
      pair.drop_record(record);
    }
    return result;
  }

  // Takes an item out of the tree alone: what btdelitem answers.
  int take_out(int key, std::int32_t record) const {
    Item item = item_of(key, record);
    return btdelitem(cursor, item, k);
  }

  int remove(std::multimap<int, std::int32_t>::iterator at) {
    clear_errors();
    const int result = take_out(at->first, at->second);
    if (result != 0) return result;
    pair.drop_record(at->second);
    model.erase(at);
    return 0;
  }

  auto any(std::mt19937& random) {
    return std::next(model.begin(), static_cast<std::ptrdiff_t>(random() % model.size()));
  }

  void remove_any(std::mt19937& random) { EXPECT_EQ(remove(any(random)), 0); }

  // Takes up to so many items out, and puts them back in reverse order.
  void take_out_and_return(std::mt19937& random, std::size_t most) {
    std::map<std::int32_t, Item> items;
    std::vector<std::int32_t> order;
    for (; most > 0; --most) {
      const auto& [key, record] = *any(random);
      if (!items.emplace(record, item_of(key, record)).second) continue;
      order.push_back(record);
      EXPECT_EQ(btdelitem(cursor, items[record], k), 0);
    }
    for (; !order.empty(); order.pop_back())
      EXPECT_EQ(btreturnitem(cursor, items[order.back()], k), 0);
  }

  bool on(const std::pair<const int, std::int32_t>& entry) const {
    const Image& key = keys[static_cast<std::size_t>(entry.first)];
    return cursor.bt.ends == kOnItem && cursor.treeitem.recptr == entry.second &&
           std::equal(key.begin(), key.end(), cursor.treeitem.key);
  }

  // Walks over all items and back again, against the model.
  void expect_walks() const {
    ASSERT_EQ(btposition(cursor, k, Edge::kFirst), 0);
    std::int32_t dupnm = -1;
    for (auto at = model.begin(); at != model.end(); ++at) {
      ASSERT_TRUE(on(*at)) << at->first;
      if (at != model.begin() && std::prev(at)->first != at->first) dupnm = -1;
      ASSERT_TRUE((k.flags & KF_DUPS) == 0 || cursor.treeitem.dupnm > dupnm);
      dupnm = cursor.treeitem.dupnm;
      ASSERT_EQ(btmove(cursor, k, Direction::kNext), 0);
    }
    ASSERT_EQ(cursor.bt.ends, model.empty() ? kEmptyTree : kAfterLast);
    for (auto at = model.rbegin(); at != model.rend(); ++at) {
      ASSERT_EQ(btmove(cursor, k, Direction::kPrevious), 0);
      ASSERT_TRUE(on(*at)) << at->first;
    }
    ASSERT_EQ(btmove(cursor, k, Direction::kPrevious), 0);
    if (model.empty()) return;
    ASSERT_EQ(cursor.bt.ends, kBeforeFirst);
    ASSERT_EQ(btmove(cursor, k, Direction::kNext), 0);
    ASSERT_TRUE(on(*model.begin()));
  }

  // What the bytes of every node must be beside its items.
  void expect_tidy(std::int32_t number) const {
    const ItemLayout layout{k};
    std::vector<std::int32_t> children;
    {
      TreeNode node{number};
      ASSERT_TRUE(node);
      Item item;
      for (int pos = 0; pos < node.length();) {
        pos = itunpack(layout, node.area(), pos, item.key, item);
        ASSERT_GT(pos, 0);
        if (!node.is_leaf()) children.push_back(item.recptr);
      }
      EXPECT_EQ(item.flag & kNextRepeats, 0) << "the last item of node " << number;
      const Bytes room = node.room().subspan(static_cast<std::size_t>(node.length()));
      EXPECT_TRUE(std::ranges::all_of(room, [](Byte byte) { return byte == 0; }));
      EXPECT_EQ(node.page().bytes().back(), 0);
    }
    for (const std::int32_t child : children) expect_tidy(child);
  }

  void expect_sound() const {
    EXPECT_EQ(pair.problems(), std::vector<std::string>{});
    expect_walks();
    expect_tidy(k.rootnode);
  }

  [[nodiscard]] int levels() const {
    TreeNode root{k.rootnode};
    return root.page().level() + 1;
  }

  mutable Cursor cursor;
  keydescr k;
  std::vector<Image> keys;
  TestPair pair;
  std::multimap<int, std::int32_t> model;
};

inline bool expect_position(const Tree& tree, std::multimap<int, std::int32_t>::const_iterator at) {
  return at == tree.model.end() ? tree.cursor.bt.ends == kAfterLast : tree.on(*at);
}

inline std::string name_of(int flags, Kind kind) {
  const char* const kinds[] = {"Text", "Number", "Mixed", "Real"};
  std::string name = kinds[static_cast<int>(kind)];
  for (const auto& [flag, letter] :
       {std::pair{KF_DUPS, 'D'}, {KF_DCOMPRESS, 'd'}, {KF_LCOMPRESS, 'l'}, {KF_TCOMPRESS, 't'}}) {
    if ((flags & flag) != 0) name += letter;
  }
  return name;
}

}  // namespace isam
