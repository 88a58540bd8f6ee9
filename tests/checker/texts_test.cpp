// What the checker prints of states that no pair of files brings it into.
#include <gtest/gtest.h>

#include <new>

#include "checker/checks.h"
#include "checker/dialogue.h"
#include "checker/driver.h"
#include "checker/jsonline.h"
#include "isam/base/current.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "tests/support/between.h"
#include "tests/support/damage.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

class Texts : public testing::Test {
 protected:
  void SetUp() override {
    build_pair(fault_spec(false), base_);
    isam::Open* const open = isam::allocopen();
    open->file = isam::allocfile(base_, ISINPUT, isam::IndexAccess::kOrToRead);
    ASSERT_NE(open->file, nullptr);
    isam::make_current(*open);
    ASSERT_EQ(isam::dictread(), 0);
  }
  void TearDown() override { isam::freeopen(*isam::openp); }

  template <typename Work>
  static std::string printed(Work work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
  }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  checker::Options options_;
  checker::Dialogue dialogue_{options_};
  checker::Check check_{options_, dialogue_};
};

TEST(JsonLines, EscapeWhatATextMayNotHave) {
  const std::string odd = "\"\\\b\f\n\r\t\x01";
  EXPECT_EQ(checker::JsonLine{"note"}.add("odd", odd).text(),
            "{\"type\":\"note\",\"odd\":\"\\\"\\\\\\b\\f\\n\\r\\t\\u0001\"}\n");
}

// An open refuses such headers before they are checked.
TEST_F(Texts, TellOfHeadersThatCannotBeRead) {
  const auto check = [&] { EXPECT_FALSE(checker::ckdict(check_)); };
  isam::dictp->set_d_idxsize(126);
  EXPECT_TRUE(printed(check).ends_with("\nERROR: bad index record size\n"));
  isam::dictp->set_d_idxsize(1025);
  EXPECT_TRUE(printed(check).ends_with("\nERROR: bad index record size\n"));
  isam::dictp->raw[0] = 0;
  EXPECT_TRUE(printed(check).ends_with("sizes.\n\nERROR: bad magic number\n"));
}

TEST_F(Texts, TellOfAnIndexWithoutDescription) {
  printed([&] { EXPECT_TRUE(checker::ckdict(check_)); });
  EXPECT_EQ(printed([&] { checker::makindex(check_, 6); }),
            "Recreating index 6.\n\nERROR: cannot find key for index\n");
}

TEST_F(Texts, TellWhatFailedWhere) {
  const auto told = [&](std::int32_t code, std::int32_t place) {
    return printed([&] {
      iserrno = code;
      iserrio = place;
      check_.prterr();
      EXPECT_EQ(iserrno, 0);
      EXPECT_EQ(iserrio, 0);
    });
  };
  EXPECT_EQ(told(100, 0), "\nZentra ERROR 100: unknown error code\n");
  EXPECT_EQ(told(172, 0), "\nZentra ERROR 172: unknown error code\n");
  EXPECT_EQ(told(5, 0), "\nSYSTEM ERROR 5: Input/output error\n");
  const std::pair<int, const char*> places[] = {{0x11, "open(index)"},      {0x22, "creat(data)"},
                                                {0x33, "lseek(audit)"},     {0x44, "read(lock)"},
                                                {0x55, "write(semaphore)"}, {0x66, "locking()"},
                                                {0x71, "ioctl(index)"},     {0x81, "(index)"}};
  for (const auto& [place, words] : places) {
    EXPECT_EQ(told(5, place), std::string("\nSYSTEM ERROR 5: ") + words + ": Input/output error\n");
  }
}

TEST_F(Texts, TellOfMemoryThatIsNotThere) {
  stand_between([](const SystemCall& call) {
    if (call.kind == SystemCall::kCopy) throw std::bad_alloc();
    return call.kind == SystemCall::kClone ? EOPNOTSUPP : 0;
  });
  const std::string other = folder_ / "other";
  const BuiltPair built = build_pair(fault_spec(false), other);
  PairEditor damaged(built);
  put2(damaged.node(built.indexes[0].leaves[0]), 2);
  damaged.save();
  options_.yflag = 1;
  const std::string out = printed([&] { checker::ckfile(other, options_, dialogue_); });
  stand_aside();
  EXPECT_NE(out.find("\nERROR: cannot allocate main memory\n"), std::string::npos) << out;
  EXPECT_EQ(read_file(other + ".idx"), damaged.index);
}

}  // namespace
}  // namespace testing_support
