// What an exclusive open changes is undone without room on the disk. (Writes that are refused one
// after the other: tests/scripts/refused-writes, failing-calls.)
#include <gtest/gtest.h>

#include <array>
#include <cerrno>

#include "tests/e2e/sessions.h"
#include "tests/support/between.h"

namespace testing_support {
namespace {

// The leaf that the first index gives up serves the second; what the third refuses is undone, also
// where the first then needs a node more and the disk is full.
TEST(RefusedWrites, OfRoomDoNotKeepACallFromBeingUndone) {
  const TempFolder folder;
  const std::string base = folder / "pair";
  const auto record = [](int a, int b, int c) {
    std::array<char, 3 * kGroupAt + 1> text{};
    std::snprintf(text.data(), text.size(), "%060d%060d%060d", a, b, c);
    return std::string(text.data());
  };
  keydescr key = id_key();
  const int isfd = ::isbuild(base.c_str(), 3 * kGroupAt, &key, ISINOUT | ISEXCLLOCK);
  for (const int start : {kGroupAt, 2 * kGroupAt}) {
    key.part[0].start = static_cast<std::int16_t>(start);
    EXPECT_EQ(::isaddindex(isfd, &key), 0);
  }
  for (int n = 2; n <= 92; n += 2) EXPECT_EQ(::iswrite(isfd, record(n, n, n).data()), 0);
  EXPECT_EQ(::isdelrec(isfd, 5), 0);
  EXPECT_EQ(::isflush(isfd), 0);
  stand_between([](SystemCall& call) {
    return call.kind == SystemCall::kWrite && call.grows() ? ENOSPC : 0;
  });
  EXPECT_EQ(::isrewrec(isfd, 46, record(11, 33, 2).data()), -1);
  EXPECT_EQ(::iserrno, ISEDUPLICATE);
  stand_aside();
  EXPECT_EQ(::isclose(isfd), 0);
  EXPECT_EQ(walk_pair(base).problems, std::vector<std::string>{});
}

}  // namespace
}  // namespace testing_support
