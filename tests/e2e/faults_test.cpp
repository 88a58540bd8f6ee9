// Every fault is found, repaired with -y as far as it can be, and loses no readable record.
#include <gtest/gtest.h>

#include <ostream>

#include "tests/support/damage.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {

static void PrintTo(const Fault& fault, std::ostream* to) { *to << fault.name; }

namespace {

RunResult kestro(const std::string& options, const std::string& base) {
  return run_program({.words = {KESTRO_PROGRAM, options, base}, .seconds = 30});
}

void expect_clean_end(const RunResult& run) {
  EXPECT_FALSE(run.timed_out);
  EXPECT_EQ(run.signal, 0);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
}

class FaultTest : public testing::TestWithParam<Fault> {};

TEST_P(FaultTest, IsFoundAndMended) {
  const Fault& fault = GetParam();
  const TempFolder folder;
  const std::string base = folder / "pair";
  const BuiltPair built = build_pair(fault_spec(fault.varying), base);
  PairEditor editor(built);
  const Image sound_index = editor.index;
  const Image sound_data = editor.data;
  fault.apply(editor);
  ASSERT_TRUE(editor.index != sound_index || editor.data != sound_data);
  editor.save();

  const RunResult check = kestro("-nq", base);
  expect_clean_end(check);
  EXPECT_NE(check.out.find(fault.finding), std::string::npos) << check.out;
  EXPECT_EQ(read_file(base + ".idx"), editor.index);
  EXPECT_EQ(read_file(base + ".dat"), editor.data);

  const auto readable = walk_pair(base).records;
  const RunResult repair = kestro("-yq", base);
  expect_clean_end(repair);
  EXPECT_EQ(read_file(base + ".dat"), editor.data);
  if (fault.after == After::kRefused) {
    EXPECT_EQ(read_file(base + ".idx"), editor.index);
    return;
  }
  const Walk after = walk_pair(base);
  EXPECT_TRUE(after.records == readable);
  const RunResult again = kestro("-nq", base);
  expect_clean_end(again);
  EXPECT_EQ(again.out.find("? "), std::string::npos) << repair.out << again.out;
  if (fault.after == After::kSound) {
    EXPECT_EQ(after.problems, std::vector<std::string>{}) << repair.out;
    EXPECT_EQ(again.out.find("ERROR"), std::string::npos) << again.out;
  }
}

INSTANTIATE_TEST_SUITE_P(All, FaultTest, testing::ValuesIn(faults()),
                         [](const auto& fault) { return fault.param.name; });

}  // namespace
}  // namespace testing_support
