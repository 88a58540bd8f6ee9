#include "isam/pool/mark.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tests/isam/test_pair.h"
#include "tests/support/between.h"

namespace isam {
namespace {

using testing_support::Image;
using testing_support::TestPair;

constexpr std::size_t kPlace = 117;

// The bytes of the index file with `mark` in its place.
Image marked(Image index, std::initializer_list<int> mark) {
  std::size_t at = kPlace;
  for (const int byte : mark) index.at(at++) = static_cast<Byte>(byte);
  return index;
}

TEST(Mark, IsSetAndClearedByItsProcessOnly) {
  const TestPair pair;
  const Image bare = pair.index();
  const int own = ::getpid();
  const Image with_own = marked(
      bare, {0x45, 0x58, 0x43, 0x4C, own >> 24, own >> 16 & 0xFF, own >> 8 & 0xFF, own & 0xFF});
  EXPECT_EQ(find_mark(*filep), 0);
  for (const auto state : {MarkState::kUnknown, MarkState::kClear}) {
    filep->mark.state = state;
    ASSERT_EQ(set_mark(*filep), 0);
    EXPECT_EQ(pair.index(), with_own);
    const pid_t other = std::exchange(filep->mark.process, filep->mark.process + 1);
    EXPECT_EQ(clear_mark(*filep), 0);
    EXPECT_EQ(find_mark(*filep), 1);
    filep->mark.process = other;
    EXPECT_EQ(clear_mark(*filep), 0);
    EXPECT_EQ(pair.index(), bare);
  }
  // Another process's, and what is no mark, stay.
  for (const auto& other : {marked(bare, {0x45, 0x58, 0x43, 0x4C, 0, 0, 0, 0}),
                            marked(bare, {0, 0, 0, 0, 0, 0, 0, 7}), marked(bare, {1, 2, 3})}) {
    const bool is_mark = other[kPlace] == 0x45;
    pair.replace_index(other);
    EXPECT_EQ(find_mark(*filep), is_mark ? 1 : 0);
    EXPECT_EQ(set_mark(*filep), 0);
    EXPECT_EQ(clear_mark(*filep), 0);
    EXPECT_EQ(pair.index(), other);
    EXPECT_EQ(remove_mark(*filep), 0);
    EXPECT_EQ(pair.index(), is_mark ? bare : other);
  }
  // A file that ends before it has none.
  pair.replace_index({bare.begin(), bare.begin() + 120});
  EXPECT_EQ(find_mark(*filep), 0);
}

// Half a mark of its own does not keep a process from setting it.
TEST(Mark, IsSetAfterATryThatWasCutShort) {
  const TestPair pair;
  const Image bare = pair.index();
  for (const auto state : {MarkState::kUnknown, MarkState::kClear}) {
    filep->mark.state = state;
    testing_support::stand_between([](testing_support::SystemCall& call) {
      if (call.kind != call.kWrite) return 0;
      if (call.count < 8) return ENOSPC;
      call.count = 6;
      return 0;
    });
    EXPECT_EQ(set_mark(*filep), -1);
    testing_support::stand_aside();
    EXPECT_EQ(set_mark(*filep), 0);
    EXPECT_EQ(find_mark(*filep), 1);
    EXPECT_EQ(clear_mark(*filep), 0);
    EXPECT_EQ(pair.index(), bare);
  }
}

}  // namespace
}  // namespace isam
