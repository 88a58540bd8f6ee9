// What logs lead to, case by case.
#include "tests/support/tables.h"
#include "tests/txlog/recoveries.h"

namespace testing_support {
namespace {

INSTANTIATE_TEST_SUITE_P(Formats, Evidence, ::testing::Values(false));

TEST_P(Evidence, DecidesWhatIsApplied) {
  const auto cases = read_table(KESTRO_TESTS "/txlog/evidence.txt");
  EXPECT_GT(cases.size(), 80U);
  for (const auto& row : cases) EXPECT_EQ(outcome(row.at(1)), row.at(2)) << row[0];
}

}  // namespace
}  // namespace testing_support
