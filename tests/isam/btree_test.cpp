#include "isam/tree/btree.h"

#include "tests/isam/tree_model.h"

namespace isam {
namespace {

class BtreeModel : public testing::TestWithParam<std::tuple<int, Kind>> {};

TEST_P(BtreeModel, LongRandomSequencesAgree) {
  const auto [flags, kind] = GetParam();
  std::mt19937 random(static_cast<std::uint32_t>(flags));
  int dup_width = 2;
  for (const int node_size : {128, 333, 1025}) {
    SCOPED_TRACE(node_size);
    Tree tree{flags, kind, {.node_size = node_size, .dup_width = dup_width}};
    dup_width = 6 - dup_width;
    // Grows, changes and shrinks to nothing, twice.
    for (const unsigned insertions_of_ten : {9U, 5U, 1U, 8U, 2U}) {
      for (int i = 0; i < 300; ++i) {
        const auto key = static_cast<int>(random() % tree.keys.size());
        if (tree.model.empty() || random() % 10 < insertions_of_ten) {
          const bool refused = (flags & KF_DUPS) == 0 && tree.model.contains(key);
          ASSERT_EQ(tree.insert(key), refused ? -1 : 0);
          ASSERT_EQ(iserrno, refused ? kDuplicate : 0);
        } else {
          tree.remove_any(random);
        }
        if (i % 8 == 0 && !tree.model.empty()) tree.take_out_and_return(random, 5);
      }
      tree.expect_sound();
      if (HasFailure()) return;
    }
    while (!tree.model.empty()) tree.remove_any(random);
    tree.expect_sound();
    const TreeNode root{tree.k.rootnode};
    EXPECT_TRUE(root.is_leaf() && root.length() == 0);
  }
}

TEST_P(BtreeModel, SearchesFindTheirPlace) {
  const auto [flags, kind] = GetParam();
  Tree tree{flags, kind, {.node_size = 128}, 120};
  std::mt19937 random(7);
  for (int i = 0; i < 300; ++i) tree.insert(static_cast<int>(random() % 60) * 2);
  const auto& model = tree.model;
  for (int key = 0; key < 120; ++key) {
    SCOPED_TRACE(key);
    Item item = tree.item_of(key);
    ASSERT_EQ(btsearch(tree.cursor, item, tree.k, 0, Search::kRead), 0);
    EXPECT_TRUE(expect_position(tree, model.lower_bound(key)));
    ASSERT_EQ(btsearch(tree.cursor, item, tree.k, 0, Search::kPast), 0);
    EXPECT_TRUE(expect_position(tree, model.upper_bound(key)));
    // The neighbours of a place between items.
    ASSERT_EQ(btmove(tree.cursor, tree.k, Direction::kPrevious), 0);
    if (model.upper_bound(key) == model.begin()) {
      EXPECT_EQ(tree.cursor.bt.ends, kBeforeFirst);
    } else {
      EXPECT_TRUE(tree.on(*std::prev(model.upper_bound(key))));
    }
  }
  // A duplicate number leads to the very item, or to the one behind its place.
  ASSERT_EQ(btposition(tree.cursor, tree.k, Edge::kFirst), 0);
  for (const auto& entry : model) {
    Item item = tree.cursor.treeitem;
    ASSERT_EQ(btsearch(tree.cursor, item, tree.k, 0, Search::kRead), 0);
    ASSERT_TRUE(tree.on(entry));
    ASSERT_EQ(btmove(tree.cursor, tree.k, Direction::kNext), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Keys, BtreeModel,
    testing::Combine(testing::Range(0, 16),
                     testing::Values(Kind::kText, Kind::kNumber, Kind::kMixed, Kind::kReal)),
    [](const auto& test) { return name_of(std::get<0>(test.param), std::get<1>(test.param)); });

// Items of each leaf, from the left.
std::vector<int> leaf_fill(const Tree& tree) {
  std::vector<int> fill;
  const ItemLayout layout{tree.k};
  EXPECT_EQ(btposition(tree.cursor, tree.k, Edge::kFirst), 0);
  std::int32_t leaf = 0;
  for (std::size_t i = 0; i < tree.model.size(); ++i) {
    const PathLevel& at = tree.cursor.bt.level(tree.cursor.bt.depth);
    if (at.node != leaf) fill.push_back(at.length / layout.fixed_size());
    leaf = at.node;
    EXPECT_EQ(btmove(tree.cursor, tree.k, Direction::kNext), 0);
  }
  return fill;
}

TEST(Btree, AscendingInsertionFillsNodes) {
  Tree tree{0, Kind::kText, {}, 4000};
  for (int key = 0; key < 4000; ++key) ASSERT_EQ(tree.insert(key), 0);
  const std::vector<int> fill = leaf_fill(tree);
  constexpr int kPerNode = 1019 / 24;
  EXPECT_TRUE(
      std::all_of(fill.begin(), fill.end() - 1, [](int items) { return items == kPerNode; }));
  EXPECT_EQ(tree.levels(), 3);
  tree.expect_sound();

  // The last key of an upper node is made to repeat the one before it.
  Tree pressed{KF_DCOMPRESS, Kind::kText, {.node_size = 128}};
  for (int key = 0; key < 18; ++key) ASSERT_EQ(pressed.insert(key), 0);
  const TreeNode root{pressed.k.rootnode};
  Item last;
  ASSERT_GE(itprevious(ItemLayout{pressed.k}, root.area(), root.length(), last), 0);
  EXPECT_EQ(last.flag, kRepeatsPrevious);
}

TEST(Btree, AFullNodeSplitsAtHalfItsItemArea) {
  Tree tree{0, Kind::kText, {}, 100};
  for (int key = 0; key < 42; ++key) ASSERT_EQ(tree.insert(key * 2), 0);
  EXPECT_EQ(tree.levels(), 1);
  ASSERT_EQ(tree.insert(1), 0);
  EXPECT_EQ(tree.levels(), 2);
  // The first item that ends at or beyond 509 of 43 * 24 bytes is the 22nd.
  EXPECT_EQ(leaf_fill(tree), (std::vector<int>{22, 21}));
}

TEST(Btree, DuplicateNumbersThatNoLongerFitAreRefused) {
  for (const auto& [width, greatest] : {std::pair{2, 65'535}, {4, INT32_MAX}}) {
    Tree tree{KF_DUPS, Kind::kNumber, {.node_size = 128, .dup_width = width}};
    Item item = tree.item_of(3, tree.pair.add_record(tree.keys[3]));
    if (width == 2) {
      item.dupnm = greatest + 1;
      EXPECT_EQ(btadditem(tree.cursor, item, tree.k), -1);
      EXPECT_EQ(iserrno, kDuplicate);
    }
    item.dupnm = greatest - 1;
    ASSERT_EQ(btadditem(tree.cursor, item, tree.k), 0);
    tree.model.emplace(3, item.recptr);
    ASSERT_EQ(tree.insert(3), 0);
    EXPECT_EQ(tree.insert(3), -1);
    EXPECT_EQ(iserrno, kDuplicate);
    tree.expect_sound();
    // Also when the equal item ends the leaf before.
    for (int key = 0; key < 40; ++key) EXPECT_EQ(tree.insert(key), key == 3 ? -1 : 0);
    EXPECT_EQ(tree.insert(3), -1);
    tree.expect_sound();
  }
}

// A separator gives the last item of its upper node its key; that item keeps its duplicate number,
// and the next equal key goes above it.
TEST(Btree, DuplicateNumbersGoAboveTheLastItemsOfUpperNodes) {
  struct Case {
    int flags;
    int before;  // equal items so that two of the next key fill the second leaf
    std::vector<std::int32_t> numbers;
  };
  for (const auto& [flags, before, numbers] :
       {Case{KF_DUPS, 18, {0, 1, 2, 10, 11}}, Case{KF_DUPS | KF_DCOMPRESS, 26, {0, 1, 2, 14, 15}},
        Case{KF_DUPS | KF_LCOMPRESS, 22, {0, 1, 2, 12, 13}}}) {
    SCOPED_TRACE(name_of(flags, Kind::kNumber));
    Tree tree{flags, Kind::kNumber, {.node_size = 128}};
    for (int i = 0; i < before; ++i) ASSERT_EQ(tree.insert(5), 0);
    for (std::size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(tree.insert(6), 0);
    Item item = tree.item_of(6);
    std::vector<std::int32_t> stored;
    ASSERT_EQ(btsearch(tree.cursor, item, tree.k, 0, Search::kRead), 0);
    for (; tree.cursor.bt.ends == kOnItem; btmove(tree.cursor, tree.k, Direction::kNext))
      stored.push_back(tree.cursor.treeitem.dupnm);
    EXPECT_EQ(stored, numbers);
    tree.expect_sound();
  }
}

TEST(Btree, ARecordThatAnotherProcessAddedIsReached) {
  TestPair pair{{}};
  for (int i = 0; i < 3; ++i) pair.add_record(Image(40));
  Image index = pair.index();
  testing_support::put4(&index[testing_support::dict::kNextData], 4);
  pair.replace_index(index);
  dictp->set_d_nextdata(3);
  Cursor cursor;
  cursor.bt.item.recptr = 3;
  ASSERT_EQ(btmove(cursor, keydescr{}, Direction::kNext), 0);
  EXPECT_EQ(cursor.bt.item.recptr, 4);
  EXPECT_EQ(cursor.bt.ends, kOnItem);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(btmove(cursor, keydescr{}, Direction::kNext), 0);
    EXPECT_EQ(cursor.bt.ends, kAfterLast);
  }
}

}  // namespace
}  // namespace isam
