// Damaged trees, and changes that cannot be made.
#include "tests/isam/tree_model.h"

namespace isam {
namespace {

using testing_support::ScarceNodes;

class BtreeDamage : public testing::TestWithParam<std::tuple<int, Kind>> {};

// Whatever a node holds, every call returns, and a sound answer or 105 comes back.
TEST_P(BtreeDamage, DamagedNodesAreSurvived) {
  const auto [flags, kind] = GetParam();
  std::mt19937 random(static_cast<std::uint32_t>(flags) * 4 + static_cast<std::uint32_t>(kind));
  Tree tree{flags, kind, {.node_size = 128, .dup_width = 2}, 200};
  for (int i = 0; i < 150; ++i) tree.insert(static_cast<int>(random() % 200));
  const Image sound = tree.pair.index();
  for (int round = 0; round < 25; ++round) {
    Image damaged = sound;
    const std::size_t nodes = damaged.size() / 128;
    for (auto faults = 1 + random() % 6; faults > 0; --faults) {
      Byte* const node = &damaged[128 * (2 + random() % (nodes - 2))];
      // The frame, or anything.
      const std::size_t spots[] = {0, 1, 126, 2 + random() % 124};
      node[spots[random() % 4]] = static_cast<Byte>(random() % 4 == 0 ? random() : random() % 40);
    }
    tree.pair.replace_index(damaged);
    for (int i = 0; i < 30; ++i) {
      Item item =
          tree.item_of(static_cast<int>(random() % 200), 1 + static_cast<int>(random() % 150));
      clear_errors();
      switch (random() % 4) {
        case 0:
          btsearch(tree.cursor, item, tree.k, 0, random() % 2 == 0 ? Search::kRead : Search::kPast);
          break;
        case 1:
          btposition(tree.cursor, tree.k, random() % 2 == 0 ? Edge::kFirst : Edge::kLast);
          break;
        case 2:
          btadditem(tree.cursor, item, tree.k);
          continue;
        default:
          btdelitem(tree.cursor, item, tree.k);
          continue;
      }
      const auto direction = random() % 2 == 0 ? Direction::kNext : Direction::kPrevious;
      for (int moves = 0;
           moves < 300 && tree.cursor.bt.depth >= 0 && tree.cursor.bt.ends == kOnItem; ++moves) {
        btmove(tree.cursor, tree.k, direction);
      }
      EXPECT_EQ(tree.cursor.bt.depth < 0, iserrno == kCorrupted) << iserrno;
    }
    btrecover(tree.k.rootnode, tree.k);
  }
  tree.pair.replace_index(sound);
  tree.expect_walks();
}

INSTANTIATE_TEST_SUITE_P(
    Keys, BtreeDamage,
    testing::Combine(testing::Range(0, 16),
                     testing::Values(Kind::kText, Kind::kNumber, Kind::kMixed, Kind::kReal)),
    [](const auto& test) { return name_of(std::get<0>(test.param), std::get<1>(test.param)); });

// Lays out a node whose items have ascending keys and these pointers: its number.
std::int32_t make_node(const Tree& tree, int level, const std::vector<std::int32_t>& pointers,
                       bool same_key = false) {
  const std::int32_t number = allocrec(FreeList::kNodes);
  PageHold page = bfgetclr(number);
  const ItemLayout layout{tree.k};
  int pos = 0;
  int key = 0;
  for (const std::int32_t pointer : pointers) {
    Item item = tree.item_of(same_key ? 0 : key, pointer);
    item.dupnm = key++;
    itpress(layout, nullptr, item, Press::kFirst);
    pos = itpack(layout, item, page.bytes().subspan(kUsedBytes), pos);
  }
  page.set_frame(pos + kUsedBytes, kTreeNode, static_cast<Byte>(level));
  return number;
}

// Gives the root these children, all under one key or under ascending ones.
void graft(const Tree& tree, const std::vector<std::int32_t>& children, bool same_key = false) {
  const std::int32_t node = make_node(tree, 1, children, same_key);
  const PageHold from = bfread(node);
  PageHold root = bfgetclr(tree.k.rootnode);
  std::ranges::copy(from.bytes(), root.bytes().begin());
  root.set_frame(from.used(), kTreeNode, 1);
}

TEST(Btree, TwentyLevelsAreTheMost) {
  for (const int levels : {18, 19, 20, 21}) {
    SCOPED_TRACE(levels);
    Tree tree{KF_DUPS, Kind::kNumber, {.node_size = 128}};
    const std::int32_t record = tree.pair.add_record(tree.keys[7]);
    std::int32_t node = make_node(tree, 0, {record});
    for (int level = 1; level < levels - 1; ++level) node = make_node(tree, level, {node});
    graft(tree, {node});
    Item item = tree.item_of(0);
    EXPECT_EQ(btsearch(tree.cursor, item, tree.k, 0, Search::kRead), levels <= 20 ? 0 : -1);
    EXPECT_EQ(iserrno, levels <= 20 ? 0 : kCorrupted);
    EXPECT_EQ(tree.insert(7), levels < 20 ? 0 : -1);
    EXPECT_EQ(iserrno, levels < 20 ? 0 : levels == 20 ? kTreeTooDeep : kCorrupted);
  }
}

// Nodes with many parents make a tree that seems endless; a node that is its own child, one that
// is.
TEST(Btree, TreesThatAreNoneAreLeft) {
  Tree tree{KF_DUPS, Kind::kNumber, {.node_size = 128}};
  const std::vector<std::int32_t> records(10, 1);
  std::int32_t node = make_node(tree, 0, records, true);
  for (int level = 1; level < 9; ++level) {
    node = make_node(tree, level, std::vector<std::int32_t>(10, node), true);
  }
  graft(tree, std::vector<std::int32_t>(10, node), true);
  EXPECT_EQ(tree.take_out(0, 2), -1);
  EXPECT_EQ(iserrno, kCorrupted);

  graft(tree, std::vector<std::int32_t>(10, tree.k.rootnode), true);
  Item item = tree.item_of(0, 1);
  for (const Search mode : {Search::kRead, Search::kPast, Search::kInsert}) {
    clear_errors();
    EXPECT_EQ(btsearch(tree.cursor, item, tree.k, 0, mode), -1);
    EXPECT_EQ(tree.cursor.bt.depth, -1);
    EXPECT_EQ(iserrno, kCorrupted);
  }
}

// A node without items below the root, and a leaf beside an upper node.
TEST(Btree, UnevenTreesAreDamaged) {
  Tree tree{KF_DUPS, Kind::kNumber, {.node_size = 128}};
  const std::int32_t leaf = make_node(tree, 0, {1});
  for (const std::int32_t uneven : {make_node(tree, 0, {}), make_node(tree, 1, {leaf})}) {
    graft(tree, {leaf, uneven});
    const auto expect_damage = [&](int result) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(iserrno, kCorrupted);
      EXPECT_EQ(tree.cursor.bt.depth, -1);
      clear_errors();
    };
    ASSERT_EQ(btposition(tree.cursor, tree.k, Edge::kFirst), 0);
    expect_damage(btmove(tree.cursor, tree.k, Direction::kNext));
    Item item = tree.item_of(0, 1);
    ASSERT_EQ(btsearch(tree.cursor, item, tree.k, 0, Search::kRead), 0);
    expect_damage(btdups(tree.cursor, tree.k, Direction::kNext));
  }
  graft(tree, {leaf, make_node(tree, 0, {})});
  clear_errors();
  EXPECT_EQ(btposition(tree.cursor, tree.k, Edge::kLast), -1);
  EXPECT_EQ(iserrno, kCorrupted);
  EXPECT_EQ(tree.insert(399), -1);
  EXPECT_EQ(iserrno, kCorrupted);
}

TEST(Btree, RecoveryFreesEveryNodeOnce) {
  for (const bool damaged : {false, true}) {
    Tree tree{KF_DUPS | KF_LCOMPRESS, Kind::kText, {.node_size = 128}};
    for (int i = 0; i < 600; ++i) ASSERT_EQ(tree.insert(i % 400), 0);
    if (damaged) {
      // One pointer leads back to the root, another to the key descriptions.
      for (const auto& [key, pointer] : {std::pair{100, tree.k.rootnode}, {300, 2}}) {
        Item item = tree.item_of(key);
        ASSERT_EQ(btsearch(tree.cursor, item, tree.k, 0, Search::kRead), 0);
        const PathLevel& above = tree.cursor.bt.level(tree.cursor.bt.depth - 1);
        const PageHold page = bfread(above.node);
        common::stlong(pointer, page.data() + kUsedBytes + above.next - kRecordPointerSize);
        page.modified();
      }
    }
    const keydescr k = tree.k;
    ASSERT_EQ(kydelete(k), 0);
    EXPECT_EQ(btrecover(k.rootnode, k), damaged ? -1 : 0);
    // What no pointer leads to any more is lost, but nothing is free twice.
    for (const std::string& problem : tree.pair.problems()) {
      EXPECT_TRUE(damaged && problem.ends_with("is lost")) << problem;
    }
  }
  EXPECT_EQ(btrecover(0, keydescr{}), 0);
}

TEST(Btree, AFailedFreeingChangesNothing) {
  Tree tree{KF_DUPS | KF_LCOMPRESS, Kind::kText, {.node_size = 128}};
  std::mt19937 random(13);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(tree.insert(static_cast<int>(random() % 400)), 0);
  int failures = 0;
  while (!tree.model.empty()) {
    const auto at = std::next(tree.model.begin(), static_cast<int>(random() % tree.model.size()));
    const std::int32_t head = dictp->d_freenode();
    const std::int32_t last = dictp->d_nextnode();
    dictp->set_d_freenode(2);  // the key descriptions
    dictp->set_d_nextnode(last + 1);
    clear_errors();
    const int result = tree.take_out(at->first, at->second);
    dictp->set_d_freenode(head);
    dictp->set_d_nextnode(last);
    if (result == 0) {
      tree.pair.drop_record(at->second);
      tree.model.erase(at);
      continue;
    }
    ASSERT_EQ(iserrno, kCorrupted);
    if (++failures % 20 == 0) tree.expect_sound();
    ASSERT_EQ(tree.remove(at), 0);
  }
  EXPECT_GT(failures, 50);
  tree.expect_sound();
}

// Also when a split of several levels finds a node for the first one only.
TEST(Btree, AFailedAllocationChangesNothing) {
  Tree tree{KF_DUPS | KF_LCOMPRESS, Kind::kText, {.node_size = 128}};
  std::mt19937 random(11);
  int failures = 0;
  for (int i = 0; i < 1500; ++i) {
    const auto key = static_cast<int>(random() % tree.keys.size());
    {
      const ScarceNodes scarce{i % 2 == 0};
      if (tree.insert(key) == 0) continue;
      ASSERT_EQ(iserrno, kCorrupted);
      ASSERT_TRUE(scarce.untouched());
    }
    if (++failures % 20 == 0) tree.expect_sound();
    ASSERT_EQ(tree.insert(key), 0);
  }
  EXPECT_GT(failures, 50);
  EXPECT_GE(tree.levels(), 4);
  tree.expect_sound();
}

}  // namespace
}  // namespace isam
