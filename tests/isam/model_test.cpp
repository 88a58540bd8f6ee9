// Long random scripts of public calls, each call compared with a simple model of the pair.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "common/io.h"
#include "isam/pool/pool.h"
#include "tests/isam/model_operations.h"
#include "tests/support/pair_builder.h"
#include "tests/support/pair_walk.h"

namespace testing_support::model {
namespace {

class Script final : public Operations {
 public:
  explicit Script(const Shape& shape) : Operations(shape) {
    ::setenv("ISAMBUFS", shape.buffers, 1);
    // Upper nodes that are kept still refer to the buffers of the pool before.
    static std::vector<std::unique_ptr<isam::Pool>> before;
    before.push_back(std::move(isam::the_pool));
    stand_between(before_write);
    faults = {};
    build();
  }
  ~Script() {
    faults = {};
    ::iscleanup();
    stand_aside();
  }

  void run(unsigned calls, unsigned writes, unsigned deletes) {
    for (; calls > 0 && !failed; --calls) {
      choose_faults();
      step(any(100), writes, writes + deletes);
    }
    faults.what = Refused::kNone;
    for (int& isfd : opens_) close(isfd);
    if (!failed) verify();
  }

 private:
  void build() {
    model_ = {kMinimum, shape_.maximum, keys_};
    unique_ = 1;
    last_read_.clear();
    ::unlink((base_ + ".idx").c_str());
    ::unlink((base_ + ".dat").c_str());
    if (shape_.node_size != 1024) return build_with_small_nodes();
    std::vector<keydescr> keys = keys_;
    ::isreclen = kMinimum;
    const int isfd =
        ::isbuild(base_.c_str(), shape_.maximum, &keys[0], ISINOUT | ISEXCLLOCK | format_);
    for (std::size_t i = 1; i < keys.size(); ++i) EXPECT_EQ(::isaddindex(isfd, &keys[i]), 0);
    EXPECT_EQ(::isclose(isfd), 0);
    model_.number = ::isrecnum;
    model_.length = ::isreclen;
  }
  void build_with_small_nodes() {
    PairSpec spec{
        .node_size = shape_.node_size, .record_length = kMinimum, .keys = {}, .records = 0};
    for (const keydescr& k : keys_) {
      KeySpec& key = spec.keys.emplace_back(KeySpec{k.flags, {}});
      std::for_each(k.part, k.part + k.nparts, [&key](const keypart& part) {
        key.parts.push_back({part.start, part.length, part.type});
      });
    }
    build_pair(spec, base_);
    model_.length = ::isreclen = kMinimum;
    model_.number = ::isrecnum;
  }
  // Seldom the next write fails, or one soon; the disk is full for a while, or broken. (Where
  // others write no more, a shared call cannot take back what it wrote.)
  void choose_faults() {
    faults.no_room.first = -1;
    const bool over = faults.what == Refused::kAll && !model_.is_alone();
    if (over || one_in(8)) faults.what = Refused::kNone;
    if (faults.what != Refused::kNone || !one_in(200)) return;
    const bool one = one_in(2);
    const bool all = model_.is_alone() && one_in(4);
    faults = {.what = one   ? Refused::kOne
                      : all ? Refused::kAll
                            : Refused::kGrowth,
              .error = seed_ % 2 == 0 ? EIO : ENOSPC,
              .left = any(one ? 6 : 2)};
  }

  // The last exclusive open could not write everything: nobody opens the pair before it is
  // repaired. What could be written at last is there then.
  void mend() override {
    const bool whole = !own_;
    faults = {};
    for (int& isfd : opens_) {
      ::isclose(isfd);
      model_.isclose(isfd);
      isfd = -1;
    }
    owed_ = lost_ = Known::kNo;
    const int isfd = ::isopen(base_.c_str(), ISINOUT | ISMANULOCK | format_);
    if (isfd >= 0 ? whole : ::iserrno != ISECORRUPT) return fail("opened without repair");
    ::isclose(isfd);
    ::iscleanup();
    for (const char* how : {"-yq", "-nq"}) {
      const RunResult run =
          run_program({.words = {KESTRO_PROGRAM, how, "pair"}, .folder = folder_.path()});
      const bool wrong = run.out.find("ERROR") != run.out.npos;
      // Of a variable part and its record only one may have been written.
      const bool lossy = !whole && (how[1] == 'y' || format_ != 0);
      if (!lossy && (wrong || run.status != 0)) return fail(run.out);
    }
    if (whole) return verify();
    build();
  }

  void step(unsigned pick, unsigned write, unsigned erase) {
    const std::size_t slot = any(opens_.size());
    if (opens_[slot] < 0) return open(opens_[slot], any_mode(shape_.locks[slot]), one_in(9));
    if (one_in(150)) return close(opens_[slot]);
    const int isfd = one_in(60) ? among({-1, 256, 77, INT32_MAX}) : opens_[slot];
    set_variables();
    // Where reads are a test's own, no file is mapped.
    if (one_in(300)) std::swap(common::system_calls().pread, other_pread_);
    if (pick < write && one_in(60)) {
      for (int& other : opens_) {
        if (&other != &opens_[slot] && model_.is_alone()) close(other);
      }
      return load(isfd, 1 + any(one_in(4) ? 400 : 20));
    }
    if (pick < write && one_in(12)) return write_many(isfd, any(one_in(6) ? 120 : 7), one_in(2));
    if (pick < erase) return change(isfd, pick < write ? among({0, 0, 1}) : among({5, 6, 6, 7}));
    pick = any(100);
    if (pick < 5) {
      const int mode = any_read_mode();
      const bool in_row = one_in(3);  // portions in a row are read ahead
      const std::size_t count = in_row ? 1 + any(4) : any(one_in(9) ? 400 : 9);
      unsigned more = in_row ? any(20) : 0;
      while (read_many(isfd, mode, count) && more > 0) --more;
    } else if (pick < 55) {
      const int mode = any_read_mode();
      unsigned more = one_in(9) ? any(50) : 0;  // steps in a row are read ahead
      while (read(isfd, mode) && more > 0) --more;
    } else if (pick < 70) {
      any_start(isfd);
    } else if (pick < 97) {
      change(isfd, among({2, 3, 3, 4}));
    } else {
      ask(isfd);
    }
  }

  // The pair has no fault, and reads as it should in every order.
  void verify() {
    const RunResult run =
        run_program({.words = {KESTRO_PROGRAM, "-nq", "pair"}, .folder = folder_.path()});
    const std::string counts = text(model_.records.size(), "data record(s) used");
    const bool silent = run.status == 0 && run.out.find("kestro: ") == run.out.npos &&
                        run.out.find(counts) != run.out.npos &&
                        run.out.find("ERROR") == run.out.npos && run.out.find('?') == run.out.npos;
    if (!silent) fail(run.out + "expected" + counts);
    const Walk walk = walk_pair(base_);
    if (!walk.problems.empty() || !walk.untidy.empty()) {
      fail(testing::PrintToString(walk.problems) + testing::PrintToString(walk.untidy));
    }
    open(opens_[0], ISINPUT | ISMANULOCK | format_, false);
    for (std::size_t i = 0; i <= keys_.size(); ++i) {
      for (const auto& [edge, mode] : {std::pair{RD_FIRST, RD_NEXT}, {RD_LAST, RD_PREV}}) {
        start(opens_[0], i == 0 ? keydescr{} : keys_[i - 1], 0, edge);
        while (read(opens_[0], mode)) continue;
      }
    }
    close(opens_[0]);
  }
};

class Model : public testing::TestWithParam<Shape> {};

TEST_P(Model, AgreesOverLongScripts) {
  const unsigned calls = GetParam().calls;
  Script script{GetParam()};
  // Of a hundred calls so many write, so many delete: it grows, changes, shrinks, and once more.
  for (const auto& [writes, deletes] :
       {std::pair{50U, 10U}, {25U, 25U}, {5U, 60U}, {60U, 5U}, {20U, 40U}}) {
    script.run(calls / 5, writes, deletes);
    ASSERT_FALSE(script.failed);
  }
  EXPECT_GT(script.good, script.made / 3);
  constexpr unsigned kFewCalls = 5000;  // of which none may be refused, by chance
  if (calls >= kFewCalls) {
    EXPECT_GE(script.refused, calls / 2500);
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, Model, testing::ValuesIn(kShapes),
                         [](const auto& test) { return test.param.name; });
INSTANTIATE_TEST_SUITE_P(SmallNodes, Model, testing::ValuesIn(small_shapes()),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace testing_support::model
