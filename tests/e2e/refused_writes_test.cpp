// Writes that are refused to an exclusive open, one after the other: the pair and the positions
// must be as they were. (Shared opens: tests/scripts/refused-writes.)
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <vector>

#include "tests/e2e/sessions.h"
#include "tests/support/between.h"

namespace testing_support {
namespace {

RefusedWrite refuse;
off_t end_of_disk = INT64_MAX;

class RefusedWrites : public testing::Test {
 protected:
  // In a process of its own.
  static void alone(const std::function<void()>& work) {
    EXPECT_EQ(end_of(start_process([&] {
                stand_between([](SystemCall& call) {
                  const bool writes = call.kind == SystemCall::kWrite;
                  const auto end = call.at + static_cast<off_t>(call.count);
                  return writes && end > end_of_disk ? ENOSPC : refuse.before(call);
                });
                work();
                ::_exit(testing::Test::HasFailure() ? 1 : 0);
              })),
              0);
  }
  void build(bool varying, int records) const {
    alone([&] {
      Session session{base_, varying};
      ASSERT_EQ(session.build(ISINOUT | ISEXCLLOCK), 0);
      for (int id = 1; id <= records; ++id) {
        ASSERT_EQ(session.put({id, id % 3, 0}, ::iswrite), 0);
      }
      for (int id = 2; id < records; id += 9) ASSERT_EQ(session.put({id}, ::isdelete), 0);
      ASSERT_EQ(::isclose(session.isfd), 0);
    });
  }

  const TempFolder folder_;
  const std::string base_ = folder_ / "pair";
};

// What shows of a pair through an open, whose position it moves: the records in both orders and
// their sum.
std::string seen(Session& session) {
  std::string all;
  for (const keydescr& key : {id_key(), group_key()}) {
    EXPECT_EQ(session.start(key, RD_FIRST), 0);
    while (session.read(RD_NEXT) == 0) {
      all += std::to_string(::isrecnum) + ' ' + std::to_string(session.row.counter) + ' ';
    }
  }
  dictinfo info{};
  EXPECT_EQ(::isdictinfo(session.isfd, &info), 0);
  return all + std::to_string(info.di_nrecords);
}

// The next unique id, and the numbers of records still to come.
std::string handed_out(Session& session) {
  std::int32_t id = 0;
  EXPECT_EQ(::isuniqueid(session.isfd, &id), 0);
  std::string all = std::to_string(id);
  for (int n = 0; n < 12; ++n) {
    EXPECT_EQ(session.put({9000 + n, 0, 0}, ::iswrite), 0);
    all += ' ' + std::to_string(::isrecnum);
  }
  return all;
}

// Calls follow one another until one does not get the room that it needs; then all is as before it,
// which a pair shows that the same calls but this one were made on.
TEST_F(RefusedWrites, OfAnExclusiveCallLeaveThePairAndThePositionsAsTheyWere) {
  using Step = std::function<int(Session&, int)>;
  const Step add = [](Session& s, int n) { return s.put({100 + n, n % 3, 0}, ::iswrite); };
  const std::vector<Step> scripts = {
      add,
      [](Session& s, int n) {
        return s.put({100 + n, n % 3, 0}, ::iswrcurr);
      },
      [](Session& s, int n) {
        return s.put({4 + n * 9 % 54, n % 2 + 1, n + 1}, ::isrewrite);
      },
      [](Session& s, int n) {
        if (s.read(RD_NEXT) != 0) return -1;
        return refuse.refused() ? 0 : s.put({s.row.id, (n + 1) % 3, n + 1}, ::isrewcurr);
      },
      [&add](Session& s, int n) { return n < 20 ? add(s, n) : s.put({n + 81}, ::isdelete); },
  };
  struct Opens {
    Session session, other, sight;
  };
  for (const bool varying : {false, true}) {
    build(varying, 60);
    const auto index = read_file(base_ + ".idx"), data = read_file(base_ + ".dat");
    alone([&] {
      ::setenv("ISAMBUFS", "4000", 1);
      int own = 0;
      const auto begin = [&](Opens& opens) {
        write_file(base_ + ".idx", index);
        write_file(base_ + ".dat", data);
        for (Session* each : {&opens.session, &opens.other, &opens.sight}) {
          *each = {base_, varying};
          EXPECT_GE(each->open(ISINOUT | ISEXCLLOCK), 0);
        }
        EXPECT_EQ(opens.session.read(RD_EQUAL, 21), 0);
        EXPECT_EQ(opens.other.start(group_key(), RD_FIRST), 0);
        for (int moves = 0; moves < 25; ++moves) EXPECT_EQ(opens.other.read(RD_NEXT), 0);
      };
      // Where the opens stand, what they read next, and the rest.
      const auto show = [&](Opens& opens) {
        std::string all;
        for (Session* each : {&opens.session, &opens.other}) {
          for (const int mode : {RD_CURR, RD_NEXT, RD_PREV}) {
            all += std::to_string(each->read(mode)) + ' ' + std::to_string(each->row.id) + ' ';
          }
        }
        return all + seen(opens.sight) + " then " + handed_out(opens.sight);
      };
      for (std::size_t script = 0; script < scripts.size(); ++script) {
        bool refused = true;
        for (int write = 0; refused && !testing::Test::HasFailure(); ++write) {
          SCOPED_TRACE(std::to_string(script) + " " + std::to_string(write));
          Opens opens;
          begin(opens);
          int result = 0;
          int calls = 0;
          refused = refuse(write, [&] {
            for (; !refuse.refused() && calls < 35 && result == 0; calls += result == 0 ? 1 : 0) {
              result = scripts[script](opens.session, calls);
            }
          });
          const bool lost = refused && result == 0;  // a write of no call's own
          if (refused && !lost) {
            ++own;
            EXPECT_EQ(::iserrno, ENOSPC);
            const std::string after = show(opens);
            EXPECT_EQ(::isflush(opens.session.isfd), 0);
            EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
            EXPECT_EQ(::iscleanup(), 0);
            Opens fresh;
            begin(fresh);
            refuse.begin(-1);
            for (int n = 0; n < calls; ++n) EXPECT_EQ(scripts[script](fresh.session, n), 0);
            if (script == 3) {  // its read succeeded
              EXPECT_EQ(fresh.session.read(RD_NEXT), 0);
            }
            EXPECT_EQ(after, show(fresh));
          }
          EXPECT_EQ(::iscleanup(), lost ? -1 : 0);
        }
      }
      EXPECT_GT(own, 5);
    });
    std::filesystem::remove(base_ + ".idx");
    std::filesystem::remove(base_ + ".dat");
  }
}

// The leaf that the first index gives up serves the second; what the third refuses is undone, also
// where the first then needs a node more and the disk is full.
TEST_F(RefusedWrites, OfRoomDoNotKeepACallFromBeingUndone) {
  alone([&] {
    const auto record = [](int a, int b, int c) {
      std::array<char, 3 * kGroupAt + 1> text{};
      std::snprintf(text.data(), text.size(), "%060d%060d%060d", a, b, c);
      return std::string(text.data());
    };
    keydescr key = id_key();
    const int isfd = ::isbuild(base_.c_str(), 3 * kGroupAt, &key, ISINOUT | ISEXCLLOCK);
    for (const int start : {kGroupAt, 2 * kGroupAt}) {
      key.part[0].start = static_cast<std::int16_t>(start);
      EXPECT_EQ(::isaddindex(isfd, &key), 0);
    }
    for (int n = 2; n <= 92; n += 2) EXPECT_EQ(::iswrite(isfd, record(n, n, n).data()), 0);
    EXPECT_EQ(::isdelrec(isfd, 5), 0);
    EXPECT_EQ(::isflush(isfd), 0);
    end_of_disk = static_cast<off_t>(std::filesystem::file_size(base_ + ".idx"));
    EXPECT_EQ(::isrewrec(isfd, 46, record(11, 33, 2).data()), -1);
    EXPECT_EQ(::iserrno, ISEDUPLICATE);
    end_of_disk = INT64_MAX;
    EXPECT_EQ(::isclose(isfd), 0);
  });
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

}  // namespace
}  // namespace testing_support
