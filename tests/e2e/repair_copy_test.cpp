// What a repair keeps of the old index, and repairs without memory or room. (The rest of what a
// repair puts in the index's place: tests/scripts/repairs.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "checker/undodata.h"
#include "tests/e2e/check_here.h"
#include "tests/e2e/sessions.h"
#include "tests/support/between.h"
#include "tests/support/damage.h"

namespace testing_support {
namespace {

class RepairCopy : public testing::Test {
 protected:
  // Runs `kestro -yq` in a child whose calls are shown to `between`.
  static void run_with(const std::string& base, int (*between)(SystemCall& call)) {
    EXPECT_EQ(end_of(start_process([&] {
                for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
                  ::dup2(::open("/dev/null", O_WRONLY), fd);
                }
                ::setenv("ISAMSORTMEM", "1", 1);
                stand_between(between);
                check_here(base, 'y');
              })),
              0);
  }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair", idx_ = base_ + ".idx";
};

TEST_F(RepairCopy, KeepsTheOldIndexAndWhatUndoingNeeds) {
  const BuiltPair built = build_pair(fault_spec(false), base_);
  PairEditor editor(built);
  put2(editor.dictionary() + dict::kKeys, 7);
  editor.save();
  static_cast<void>(kestro("-yq", base_));
  EXPECT_EQ(read_file(idx_ + ".before"), editor.index);
  EXPECT_GT(::getxattr((idx_ + ".before").c_str(), "user.kestro.undo", nullptr, 0), 0);
  const auto undo = checker::load_undo_data(idx_ + ".before");
  ASSERT_TRUE(undo.has_value());
  checker::UndoData now;
  const int index = ::open(idx_.c_str(), O_RDONLY);
  const int data = ::open((base_ + ".dat").c_str(), O_RDONLY);
  const int kept = ::open((idx_ + ".before").c_str(), O_RDONLY);
  ASSERT_EQ(checker::describe(index, now.repaired), 0);
  ASSERT_EQ(checker::describe(data, now.data), 0);
  ASSERT_EQ(checker::describe(kept, now.kept), 0);
  now.kept.file.changed = undo->kept.file.changed;  // of the index that it is a copy of
  EXPECT_EQ(now, *undo);
  for (const int open : {index, data, kept}) ::close(open);
}

TEST(UndoData, IsTakenOnlyAsItIsWritten) {
  checker::UndoData data;
  data.repaired = {{5120, {1790000000, 7}}, 4000000000U, 0xFEDCBA9876543210U};
  data.data = {1, {2, 999999999}};
  const std::string text = checker::text_of(data);
  EXPECT_EQ(checker::parse_undo_data(text), data);
  for (std::size_t at = 0; at < text.size(); ++at) {
    std::string other = text;
    other[at] = other[at] == 'x' ? 'y' : 'x';
    EXPECT_NE(checker::parse_undo_data(other), data) << at;
    EXPECT_FALSE(checker::parse_undo_data(text.substr(0, at)).has_value()) << at;
  }
}

TEST_F(RepairCopy, NoMemoryAtTheEndLeavesThePair) {
  const BuiltPair built = build_pair(fault_spec(false), base_);
  PairEditor editor(built);
  put2(editor.dictionary() + dict::kKeys, 7);
  put2(editor.node(built.indexes[1].leaves.back()), 2);
  editor.save();
  run_with(base_, [](SystemCall& call) {
    if (call.kind == SystemCall::kSync) throw std::bad_alloc();
    return 0;
  });
  EXPECT_EQ(read_file(idx_), editor.index);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.path()), {}), 2);
}

// There is room for no copy, nor for sorting: only for the mark.
TEST_F(RepairCopy, InPlaceAllKeysAreGatheredBeforeAnythingChanges) {
  build_pair_of(base_, false, 15000);  // whose keys do not fit into a MiB
  Image damaged = read_file(idx_);
  damaged[damaged.size() / 3072 * 1024] = 0x7F;
  write_file(idx_, damaged);
  run_with(base_, [](SystemCall& call) {
    const bool writes = call.kind == SystemCall::kWrite && call.count > 8;
    return writes || call.kind == SystemCall::kNameless ? ENOSPC : 0;
  });
  EXPECT_EQ(read_file(idx_), damaged);
}

}  // namespace
}  // namespace testing_support
