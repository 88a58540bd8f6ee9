// What a repair takes, keeps and gives up when more than one thing is wrong.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>

#include "tests/e2e/program.h"
#include "tests/support/pair_walk.h"

namespace testing_support {
namespace {

constexpr char kNodesAnew[] = "Recreating index node free list.";

class Repair : public ProgramTest {
 protected:
  void make(bool varying) { make(fault_spec(varying)); }
  void make(const PairSpec& spec) { built = build_pair(spec, folder_ / "pair"); }
  void apply(const std::function<void(PairEditor&)>& change) {
    PairEditor pair(built);
    change(pair);
    pair.save();
  }
  std::string run(const char* options, const std::string& input = {}) {
    return kestro({options, "pair"}, input).out;
  }
  void expect_sound() {
    EXPECT_EQ(walk_pair(built.base).problems, std::vector<std::string>{});
    const std::string after = run("-nq");
    EXPECT_FALSE(has(after, "ERROR") || has(after, "?")) << after;
  }
  // Free nodes in the order in which they are handed out.
  std::vector<std::int32_t> free_nodes() {
    PairEditor pair(built);
    std::vector<std::int32_t> all;
    for (std::int32_t node = get4(pair.dictionary() + dict::kFreeNode); node != 0;) {
      const Byte* at = pair.node(node);
      for (int left = (get2(at) - 6) / 4; left > 0; --left) all.push_back(get4(at + 2 + 4 * left));
      all.push_back(node);
      node = get4(at + 2);
    }
    return all;
  }

  BuiltPair built;
};

Byte* head_of_free_nodes(PairEditor& pair) { return pair.node(pair.built().free_node_list[0]); }
// Kind and level of the nodes of the list, and an entry cut in two, which counts for nothing.
void take_marks(PairEditor& pair) {
  for (const std::int32_t node : pair.built().free_node_list) {
    put2(pair.node(node + 1) - 3, 0x0102);
  }
  put2(head_of_free_nodes(pair), get2(head_of_free_nodes(pair)) + 2);
}

TEST_F(Repair, MarksTheNodesOfASoundListInPassing) {
  // Trees of one node each, and no list of records yet: no repair has nodes to return.
  PairSpec spec = mixed_spec(256, 6, 4);
  spec.deleted.clear();
  spec.free_nodes = 130;
  make(spec);
  apply(take_marks);
  apply([](PairEditor& pair) { *pair.state(2) = 0; });
  const std::vector<std::int32_t> before = free_nodes();
  const std::string out = run("-yq");
  EXPECT_FALSE(has(out, "index node free list. ") || has(out, kNodesAnew)) << out;
  EXPECT_TRUE(has(out, "Recreating data record free list.\nRecreating index 5.\n")) << out;
  const std::vector<std::int32_t> after = free_nodes();
  EXPECT_EQ(after.size(), before.size() - 1);
  EXPECT_TRUE(std::equal(after.rbegin(), after.rend(), before.rbegin()));
  expect_sound();
}

// A damaged length hides records, and with them the pages of their variable parts. Once it is
// undone, nearly all of these are there again, whatever was repaired in between.
TEST_F(Repair, LeavesTheBytesOfHiddenPages) {
  const std::function<void(PairEditor&)> damages[] = {
      [](PairEditor& p) { put2(p.dictionary() + dict::kMaxRecord, 19); },
      [](PairEditor& p) { put2(p.dictionary() + dict::kMaxRecord, 0); },
      [](PairEditor& p) { p.dictionary()[dict::kRecordSize + 1] += 1; },
      [](PairEditor& p) { p.dictionary()[dict::kRecordSize + 1] -= 9; },
      [](PairEditor& p) { p.data.clear(); }};
  for (const auto& damage : damages) {
    SCOPED_TRACE(&damage - damages);
    make(true);
    const auto records = walk_pair(built.base).records;
    const PairEditor sound(built);
    apply(damage);
    // Records name their pages however short the dictionary says that variable parts are.
    EXPECT_FALSE(&damage == damages && has(run("-nq"), "\n0 index pages are used"));
    run("-yq");
    apply([&](PairEditor& pair) {
      std::size_t changed = 0;
      for (const auto& pages : {built.small_pages, built.big_pages}) {
        for (const std::int32_t page : pages) {
          const auto begin = sound.index.begin() + (page - 1) * 512;
          changed += std::equal(begin, begin + 509, pair.node(page)) ? 0 : 1;
        }
      }
      EXPECT_LE(changed, (built.small_pages.size() + built.big_pages.size()) / 10);
    });
    // A second repair of the same does no more harm than the first.
    std::filesystem::remove(built.base + ".idx.before");
    apply([](PairEditor& pair) { put4(pair.dictionary() + dict::kFreeNode, 0); });
    run("-yq");
    EXPECT_FALSE(std::filesystem::exists(built.base + ".idx.before"));  // nothing new is given up
    apply([&](PairEditor& pair) {
      for (const int field : {dict::kRecordSize, dict::kMaxRecord}) {
        std::copy_n(sound.index.begin() + field, 2, pair.dictionary() + field);
      }
      pair.data = sound.data;
    });
    run("-yq");
    const auto after = walk_pair(built.base).records;
    const auto same = std::ranges::count_if(
        after, [&](const auto& record) { return records.at(record.first) == record.second; });
    EXPECT_GE(same, std::ssize(records) * 9 / 10);
  }
}

// The nodes of a list must hold entries; a page with bytes is no such node while there are others.
TEST_F(Repair, PutsNoListOverHiddenPages) {
  for (const std::uint32_t seed : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(seed);
    PairSpec spec = varying_spec(128, 60, 600, seed);
    spec.scatter = true;
    make(spec);
    apply([&](PairEditor& pair) { pair.data.clear(); });
    const PairEditor before(built);
    run("-yq");
    PairEditor pair(built);
    std::vector<std::int32_t> pages = built.small_pages;
    pages.insert(pages.end(), built.big_pages.begin(), built.big_pages.end());
    for (const std::int32_t page : pages) {
      const auto begin = before.index.begin() + (page - 1) * 128;
      EXPECT_TRUE(std::equal(begin, begin + 125, pair.node(page))) << page;
      EXPECT_EQ(pair.node(page)[125], 0) << page;
    }
    expect_sound();
  }
}

// ---- A new size of node.

class Resize : public Repair {
 protected:
  void make_in_one_node() {
    PairSpec spec = mixed_spec(256, 150, 4);
    spec.audit_node = true;
    make(spec);
  }
};

// Lists and heads lead to nodes that the new file does not have; nothing is said of that.
TEST_F(Resize, KeepsTheTrailAndTheFilesOfOthers) {
  make_in_one_node();
  std::ofstream(folder_ / "pair.idx.new") << "mine";
  Image dictionary;
  apply([&](PairEditor& pair) {
    const char trail[] = "\0\0trail";
    put2(pair.node(built.audit_node), 10);
    std::copy(std::begin(trail), std::end(trail), pair.node(built.audit_node) + 2);
    pair.dictionary()[dict::kAuditNode] |= 0x80;
    put4(pair.dictionary() + dict::kStorageHeads + 8, 500);
    dictionary.assign(pair.dictionary(), pair.dictionary() + dict::kSize);
  });
  const std::string out = run("-sq");
  EXPECT_FALSE(has(out, "Zentra ERROR")) << out;
  EXPECT_EQ(read_file(folder_ / "pair.idx.new"), (Image{'m', 'i', 'n', 'e'}));
  const Image index = read_file(folder_ / "pair.idx");
  EXPECT_TRUE(std::equal(&index[dict::kAuditNode], &index[dict::kAuditNode + 4],
                         &dictionary[dict::kAuditNode]));
  const std::string node(index.begin() + (built.audit_node - 1) * 1024,
                         index.begin() + built.audit_node * 1024);
  EXPECT_EQ(node.substr(0, 10), std::string("\0\12\0\0trail\0", 10));
  EXPECT_EQ(node.find_first_not_of('\0', 10), node.npos);
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(name == "pair.idx" || name == "pair.dat" || name == "pair.IDX" ||
                name == "pair.idx.new")
        << name;
  }
  expect_sound();
}

}  // namespace
}  // namespace testing_support
