// Writes that are refused, one after the other, of calls whose pair must be as it was afterwards,
// and what an exclusive open that is not closed well leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>
#include <utility>
#include <vector>

#include "common/io.h"
#include "tests/e2e/sessions.h"

namespace testing_support {
namespace {

int writes_left = INT_MAX;  // before one is refused, when half of it is done
bool was_refused = false;
std::pair<int, off_t> no_room{-1, 0};  // file and end of it that the refused write was to lengthen
off_t end_of_disk = INT64_MAX;

ssize_t write_or_refuse(int fd, const void* from, std::size_t count, off_t offset) {
  const bool lengthens = offset >= common::file_size(fd);
  const bool again = lengthens && no_room == std::pair{fd, offset};  // perhaps with less
  if (again || offset + static_cast<off_t>(count) > end_of_disk) {
    errno = ENOSPC;
    return -1;
  }
  if (writes_left == 0 && !was_refused && lengthens) no_room = {fd, offset};
  if (writes_left != 0) {
    if (writes_left != INT_MAX) --writes_left;
    return ::pwrite(fd, from, count, offset);
  }
  if (!std::exchange(was_refused, true) && count > 1) return ::pwrite(fd, from, count / 2, offset);
  writes_left = INT_MAX;
  errno = ENOSPC;
  return -1;
}

// Does `call` with its write `number` refused; whether there was one.
bool refuse(int number, const std::function<void()>& call) {
  writes_left = number;
  was_refused = false;
  no_room.first = -1;
  call();
  no_room.first = -1;
  writes_left = INT_MAX;
  return was_refused;
}

class RefusedWrites : public testing::Test {
 protected:
  using Files = std::pair<Image, Image>;

  [[nodiscard]] Files files() const {
    return {read_file(base_ + ".idx"), read_file(base_ + ".dat")};
  }
  [[nodiscard]] std::string mark() const {
    const Image index = read_file(base_ + ".idx");
    return {index.begin() + 117, index.begin() + 125};
  }
  static std::string mark_of(pid_t process) {
    std::string text = "EXCL1234";
    ::stlong(process, &text[4]);
    return text;
  }
  static inline const std::string kNoMark = std::string(8, '\0');

  // In a process of its own, which is to end by `signal`.
  static void alone(const std::function<void()>& work, int signal = 0) {
    const int end = end_of(start_process([&] {
      common::system_calls().pwrite = write_or_refuse;
      work();
      ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }));
    EXPECT_EQ(end, signal);
  }
  void build(bool varying, int records) const {
    alone([&] {
      Session session{base_, varying};
      ASSERT_GE(session.build_empty(ISINOUT | ISEXCLLOCK), 0);
      EXPECT_EQ(mark(), kNoMark);
      keydescr group = group_key();
      ASSERT_EQ(::isaddindex(session.isfd, &group), 0);
      for (int id = 1; id <= records; ++id) {
        ASSERT_EQ(session.put({id, id % 3, 0}, ::iswrite), 0);
      }
      for (int id = 2; id < records; id += 9) ASSERT_EQ(session.put({id}, ::isdelete), 0);
      ASSERT_EQ(::isclose(session.isfd), 0);
    });
    EXPECT_EQ(mark(), kNoMark);
  }

  const TempFolder folder_;
  const std::string base_ = folder_ / "pair";
};

TEST_F(RefusedWrites, OfASharedCallLeaveThePairAndThePositionAsTheyWere) {
  for (const bool varying : {false, true}) {
    build(varying, varying ? 64 : 69);  // new records need another block, behind half of one
    const std::vector<std::function<int(Session&, int)>> calls = {
        [](Session& s, int n) {
          return s.put({100 + n, n, 0}, ::iswrite);
        },
        [](Session& s, int n) {
          return s.put({200 + n, n, 0}, ::iswrcurr);
        },
        [](Session& s, int n) {
          return s.put({30 + n, 7, n + 1}, ::isrewrite);
        },
        [](Session& s, int n) {
          return s.put({1, 7, n + 50}, ::isrewcurr);
        },
        [](Session& s, int n) { return s.put({50 + n}, ::isdelete); },
        [](Session& s, int) { return ::isdelcurr(s.isfd); },
    };
    alone([&] {
      Session session{base_, varying};
      ASSERT_GE(session.open(ISINOUT | ISMANULOCK), 0);
      int refusals = 0;
      for (std::size_t which = 0; which < calls.size(); ++which) {
        for (int n = 0, write = 0; n < 5; ++n, write = 0) {
          int result = -1;
          ::isbatch(n % 2);  // what the library keeps in memory is as it was, too
          while (result != 0) {
            SCOPED_TRACE(std::to_string(which) + " " + std::to_string(n) + " " +
                         std::to_string(write));
            ASSERT_EQ(session.read(RD_FIRST), 0);
            const Row first = session.row;
            ::isrecnum = 77;
            const Files before = files();
            const bool refused = refuse(write++, [&] { result = calls[which](session, n); });
            ASSERT_EQ(result == 0, !refused);
            if (result == 0) break;
            ++refusals;
            EXPECT_EQ(::iserrno, ENOSPC);
            EXPECT_EQ(::isrecnum, 77);
            ASSERT_TRUE(files() == before);
            ASSERT_EQ(session.read(RD_CURR), 0);
            EXPECT_EQ(session.row.id, first.id);
            ASSERT_EQ(session.read(RD_NEXT), 0);
            EXPECT_GT(session.row.id, first.id);
          }
        }
      }
      EXPECT_GT(refusals, 50);
      EXPECT_EQ(::isclose(session.isfd), 0);
    });
    EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
    std::filesystem::remove(base_ + ".idx");
    std::filesystem::remove(base_ + ".dat");
  }
}

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
        return was_refused ? 0 : s.put({s.row.id, (n + 1) % 3, n + 1}, ::isrewcurr);
      },
      [&add](Session& s, int n) { return n < 20 ? add(s, n) : s.put({n + 81}, ::isdelete); },
  };
  struct Opens {
    Session session, other, sight;
  };
  for (const bool varying : {false, true}) {
    build(varying, 60);
    const Files before = files();
    alone([&] {
      ::setenv("ISAMBUFS", "4000", 1);
      int own = 0;
      const auto begin = [&](Opens& opens) {
        write_file(base_ + ".idx", before.first);
        write_file(base_ + ".dat", before.second);
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
            for (; !was_refused && calls < 35 && result == 0; calls += result == 0 ? 1 : 0) {
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
            was_refused = false;
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

TEST_F(RefusedWrites, ARewriteThatChangesNothingWritesNothing) {
  for (const bool varying : {false, true}) {
    build(varying, 20);
    const Files before = files();
    alone([&] {
      Session session{base_, varying};
      ASSERT_GE(session.open(ISINOUT | ISMANULOCK), 0);
      for (int id = 3; id <= 10; ++id) EXPECT_EQ(session.put({id, id % 3, 0}, ::isrewrite), 0);
      EXPECT_EQ(::isclose(session.isfd), 0);
    });
    EXPECT_TRUE(files() == before);
    std::filesystem::remove(base_ + ".idx");
    std::filesystem::remove(base_ + ".dat");
  }
}

TEST_F(RefusedWrites, OfANewIndexLeaveTheExclusivePairAsItWas) {
  build(false, 800);
  alone([&] {
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
    // One in the order of a locale is also named in the dictionary.
    for (const int type : {KT_CHAR, KT_LOCALE}) {
      keydescr key = {KF_DUPS, 1, {{kGroupAt + 4, 6, static_cast<std::int16_t>(type)}}, 0, 0};
      const Files before = files();
      int result = -1;
      int write = 0;
      while (result != 0) {
        SCOPED_TRACE(write);
        const bool refused = refuse(write++, [&] { result = ::isaddindex(session.isfd, &key); });
        // A mark that could not be set for a moment is set later.
        if (result == 0) continue;
        ASSERT_TRUE(refused);
        EXPECT_EQ(::iserrno, ENOSPC);
        ASSERT_EQ(::isflush(session.isfd), 0);
        ASSERT_TRUE(files() == before);
      }
      EXPECT_GT(write, 10);
      EXPECT_EQ(type == KT_LOCALE ? ::isdelindex(session.isfd, &key) : 0, 0);
      EXPECT_EQ(::isflush(session.isfd), 0);
    }
    EXPECT_EQ(::isclose(session.isfd), 0);
  });
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

// An exclusive open lengthens its files by more than it needs for the moment. No byte of that is
// left when it has written everything, and none is missed.
TEST_F(RefusedWrites, OfRoomThatIsNotNeededAreNotTold) {
  constexpr int kRecords = 600;
  for (const bool varying : {false, true}) {
    std::vector<std::uintmax_t> ends[2];
    for (const int lock : {ISMANULOCK, ISEXCLLOCK}) {
      build(varying, 0);
      const auto sizes = [this] {
        return std::vector{std::filesystem::file_size(base_ + ".idx"),
                           std::filesystem::file_size(base_ + ".dat")};
      };
      const bool exclusive = lock == ISEXCLLOCK;
      alone([&] {
        Session session{base_, varying};
        ASSERT_GE(session.open(ISINOUT | lock), 0);
        if (exclusive) end_of_disk = std::ranges::max(ends[0]);
        bool ahead = false;
        for (int id = 1; id <= kRecords; ++id) {
          ASSERT_EQ(session.put({id, id % 3, id % 40}, ::iswrite), 0) << id;
          const auto before = sizes();
          if (id % 200 == 0) {
            ASSERT_EQ(::isflush(session.isfd), 0);
          }
          ahead = ahead || (sizes()[0] < before[0] && sizes()[1] < before[1]);
        }
        EXPECT_EQ(ahead, exclusive);
        EXPECT_EQ(::isclose(session.isfd), 0);
        end_of_disk = INT64_MAX;
      });
      ends[exclusive ? 1 : 0] = sizes();
      EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
      for (const char* const suffix : {".idx", ".dat"}) std::filesystem::remove(base_ + suffix);
    }
    EXPECT_EQ(ends[1], ends[0]);
  }
}

TEST_F(RefusedWrites, OfAClusteringLeaveThePairAndNoOtherFile) {
  build(false, 200);
  alone([&] {
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
    const Files before = files();
    keydescr key = group_key();
    int result = -1;
    int write = 0;
    while (result < 0) {
      SCOPED_TRACE(write);
      const bool refused = refuse(write++, [&] { result = ::iscluster(session.isfd, &key); });
      const std::filesystem::directory_iterator folder{folder_.path()};
      EXPECT_EQ(std::distance(begin(folder), end(folder)), 2);
      if (result >= 0) continue;
      ASSERT_TRUE(refused);
      EXPECT_EQ(::iserrno, ENOSPC);
      ASSERT_TRUE(files() == before);
    }
    EXPECT_GT(write, 10);
    EXPECT_EQ(::isclose(result), 0);
  });
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

TEST_F(RefusedWrites, OfAnExclusiveCloseAreToldByItAlone) {
  build(false, 200);
  alone([&] {
    const Files before = files();
    bool refused = true;
    for (int write = 0; refused; ++write) {
      SCOPED_TRACE(write);
      write_file(base_ + ".idx", before.first);
      write_file(base_ + ".dat", before.second);
      Session shared{base_, false};
      Session session{base_, false};
      ASSERT_GE(shared.open(ISINOUT | ISMANULOCK), 0);
      ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
      ASSERT_EQ(session.put({201}, ::iswrite), 0);
      int result = -1;
      refused = refuse(write, [&] { result = ::isclose(session.isfd); });
      EXPECT_EQ(result == 0, !refused);
      EXPECT_EQ(shared.put({202}, ::iswrite), 0);
      EXPECT_EQ(::isflush(shared.isfd), 0);
      EXPECT_EQ(session.open(ISINOUT | ISMANULOCK) >= 0, !refused);
      EXPECT_EQ(::iserrno, refused ? ISECORRUPT : 0);
      EXPECT_EQ(::iscleanup(), 0);
    }
  });
}

TEST_F(RefusedWrites, AnExclusiveOpenMarksThePairWhileItKeepsChangesBack) {
  build(false, 20);
  alone([&] {
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
    const std::string own = mark_of(::getpid());
    EXPECT_EQ(session.read(RD_EQUAL, 3), 0);
    EXPECT_EQ(session.put({3}, ::iswrite), -1);  // it is there
    EXPECT_EQ(::isflush(session.isfd), 0);
    EXPECT_EQ(mark(), kNoMark);
    for (int id = 21; id <= 23; ++id) {
      EXPECT_EQ(session.put({id}, ::iswrite), 0);
      EXPECT_EQ(mark(), own);
      EXPECT_EQ(::isflush(session.isfd), 0);
      EXPECT_EQ(mark(), kNoMark);
    }
    // Another open of the process does not look, and the last exclusive one clears.
    EXPECT_EQ(session.put({24}, ::iswrite), 0);
    Session other{base_, false};
    Session shared{base_, false};
    ASSERT_GE(other.open(ISINOUT | ISEXCLLOCK), 0);
    ASSERT_GE(shared.open(ISINPUT | ISMANULOCK), 0);
    EXPECT_EQ(::isclose(session.isfd), 0);
    EXPECT_EQ(mark(), own);
    EXPECT_EQ(::isclose(other.isfd), 0);
    EXPECT_EQ(mark(), kNoMark);
  });
  alone(
      [&] {
        Session session{base_, false};
        ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
        EXPECT_EQ(session.put({25}, ::iswrite), 0);
        ::raise(SIGKILL);
      },
      SIGKILL);
  EXPECT_NE(mark(), kNoMark);
  alone([&] {
    Session session{base_, false};
    for (const int lock : {ISEXCLLOCK, ISMANULOCK}) {
      EXPECT_EQ(session.open(ISINOUT | lock), -1);
      EXPECT_EQ(::iserrno, ISECORRUPT);
    }
  });
  static_cast<void>(kestro("-yq", base_));
  EXPECT_EQ(mark(), kNoMark);
  // What is no mark means nothing and stays.
  Image index = read_file(base_ + ".idx");
  index[120] = 9;
  write_file(base_ + ".idx", index);
  alone([&] {
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
    EXPECT_EQ(session.put({26}, ::iswrite), 0);
    EXPECT_EQ(::isclose(session.isfd), 0);
  });
  EXPECT_EQ(mark(), std::string({0, 0, 0, 9, 0, 0, 0, 0}));
}

TEST_F(RefusedWrites, WhatWasHandedOutIsInTheFile) {
  build(false, 3);
  alone(
      [&] {
        Session session{base_, false};
        ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
        std::int32_t id = 0;
        for (int wanted = 1; wanted <= 3; ++wanted) {
          EXPECT_TRUE(refuse(0, [&] { EXPECT_EQ(::isuniqueid(session.isfd, &id), -1); }));
          EXPECT_EQ(::isuniqueid(session.isfd, &id), 0);
          EXPECT_EQ(id, wanted);
          EXPECT_TRUE(refuse(0, [&] { EXPECT_EQ(::isaltinc(session.isfd), -1); }));
          EXPECT_EQ(::isaltinc(session.isfd), 0);
        }
        EXPECT_TRUE(refuse(0, [&] { EXPECT_EQ(::issetunique(session.isfd, 40), -1); }));
        EXPECT_EQ(::iscurruniq(session.isfd, &id), 0);
        EXPECT_EQ(id, 4);
        EXPECT_EQ(::issetunique(session.isfd, 40), 0);
        ::raise(testing::Test::HasFailure() ? SIGTERM : SIGKILL);
      },
      SIGKILL);
  const Image index = read_file(base_ + ".idx");
  EXPECT_EQ(get4(&index[45]), 40);
  EXPECT_EQ(get4(&index[55]), 3);
  EXPECT_EQ(mark(), kNoMark);  // nothing was kept back
}

TEST_F(RefusedWrites, ALostPageIsToldByTheNextCallAndByEveryClose) {
  build(false, 20);
  alone([&] {
    ::setenv("ISAMBUFS", "4", 1);
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
    // Writes until one is refused that is not this call's own.
    int id = 21;
    bool refused = false;
    for (int result = -1; id < 200 && !(refused && result == 0); ++id) {
      refused = refuse(1, [&] { result = session.put({id}, ::iswrite); });
    }
    ASSERT_TRUE(refused);
    Session second{base_, false};
    Session shared{base_, false};
    EXPECT_GE(second.open(ISINOUT | ISEXCLLOCK), 0);
    EXPECT_GE(shared.open(ISINOUT | ISMANULOCK), 0);
    EXPECT_EQ(session.read(RD_EQUAL, id - 1), -1);
    EXPECT_EQ(::iserrno, ENOSPC);
    EXPECT_EQ(session.read(RD_EQUAL, id - 1), 0);
    EXPECT_EQ(::isflush(session.isfd), -1);
    EXPECT_EQ(::iscleanup(), -1);
    EXPECT_EQ(::iserrno, ENOSPC);
    EXPECT_EQ(std::string({::isstat1, ::isstat2}), "90");
    EXPECT_NE(mark(), kNoMark);
    EXPECT_EQ(::isopen(base_.c_str(), ISINOUT | ISMANULOCK), -1);
    EXPECT_EQ(::iserrno, ISECORRUPT);
    EXPECT_EQ(::iscleanup(), 0);
    EXPECT_EQ(::iserrno, ISECORRUPT);  // as it was
  });
  expect_repaired(base_, "");
}

TEST_F(RefusedWrites, OfDataThatWaitsKeepItsFileOpen) {
  build(false, 20);
  for (const char* suffix : {".idx", ".dat"}) {
    std::filesystem::copy_file(base_ + suffix, base_ + "2" + suffix);
  }
  alone([&] {
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
    EXPECT_EQ(session.put({3, 0, 7}, ::isrewrite), 0);
    // No descriptors are left, and none can be given up.
    end_of_disk = 0;
    common::system_calls().open = [](const char*, int, mode_t) {
      errno = EMFILE;
      return -1;
    };
    EXPECT_EQ(Session{base_ + "2"}.open(ISINOUT | ISMANULOCK), -1);
    EXPECT_EQ(::iserrno, EMFILE);
    end_of_disk = INT64_MAX;
    EXPECT_EQ(::isclose(session.isfd), -1);
    EXPECT_EQ(::iserrno, ENOSPC);
  });
  EXPECT_EQ(counters_in(base_, false, 1, 20)[3], 7);
}

// A process that is killed before any write of its first call leaves what it has written marked.
TEST_F(RefusedWrites, AreMarkedBeforeACallNeedsTheirBuffers) {
  build(true, 60);
  const Files before = files();
  for (int write = 0; write < 20; ++write) {
    write_file(base_ + ".idx", before.first);
    write_file(base_ + ".dat", before.second);
    alone(
        [&] {
          static int left;
          left = write;
          ::setenv("ISAMBUFS", "4", 1);
          Session session{base_, true};
          ASSERT_GE(session.open(ISINOUT | ISEXCLLOCK), 0);
          common::system_calls().pwrite = [](int fd, const void* from, std::size_t count,
                                             off_t at) {
            if (left-- == 0) ::raise(SIGKILL);
            return ::pwrite(fd, from, count, at);
          };
          EXPECT_EQ(session.put({30, 7, 50}, ::isrewrite), 0);
          ::raise(SIGKILL);
        },
        SIGKILL);
    EXPECT_TRUE(files() == before || mark() != kNoMark) << write;
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

TEST_F(RefusedWrites, AnotherProcessLockOfTheFileLeavesItAsItWas) {
  build(false, 20);
  alone([&] {
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISMANULOCK), 0);
    ASSERT_EQ(session.put({21}, ::iswrite), 0);  // takes the free numbers' list to its end
    while (::isdelrec(session.isfd, 21) == 0) continue;
    std::array<int, 2> to_child{}, to_parent{};
    ASSERT_EQ(::pipe(to_child.data()), 0);
    ASSERT_EQ(::pipe(to_parent.data()), 0);
    const pid_t other = start_process([&] {
      Session locks{base_, false};
      // The process is new to the pair.
      ::close(to_child[1]);
      char byte = locks.open(ISINOUT | ISMANULOCK) >= 0 && ::islock(locks.isfd) == 0 ? 'y' : 'n';
      if (::write(to_parent[1], &byte, 1) != 1 || ::read(to_child[0], &byte, 1) < 0) ::_exit(1);
    });
    char byte = 'n';
    ASSERT_EQ(::read(to_parent[0], &byte, 1), 1);
    ASSERT_EQ(byte, 'y');
    const Files before = files();
    for (int id = 30; id < 33; ++id) {
      EXPECT_EQ(session.put({id}, ::iswrite), -1);
      EXPECT_EQ(::iserrno, ISELOCKED);
      EXPECT_TRUE(files() == before);
    }
    ::close(to_child[1]);
    EXPECT_EQ(end_of(other), 0);
    EXPECT_EQ(session.put({30}, ::iswrite), 0);
    EXPECT_EQ(::isclose(session.isfd), 0);
  });
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

TEST_F(RefusedWrites, OfADeleteInATransactionLeavesTheRecordsNumber) {
  build(false, 20);
  write_file(folder_ / "log", {});
  alone([&] {
    ASSERT_EQ(::islogopen((folder_ / "log").c_str()), 0);
    Session session{base_, false};
    ASSERT_GE(session.open(ISINOUT | ISMANULOCK | ISTRANS), 0);
    dictinfo before{};
    ASSERT_EQ(::isdictinfo(session.isfd, &before), 0);
    bool refused = true;
    for (int write = 0; refused; ++write) {
      ASSERT_EQ(::isbegin(), 0);
      int result = 0;
      refused = refuse(write, [&] { result = session.put({20}, ::isdelete); });
      EXPECT_EQ(result == 0, !refused);
      EXPECT_EQ(refused ? ::iscommit() : ::isrollback(), 0);
      dictinfo after{};
      ASSERT_EQ(::isdictinfo(session.isfd, &after), 0);
      EXPECT_EQ(after.di_nrecords, before.di_nrecords);
      EXPECT_EQ(session.read(RD_EQUAL, 20), 0);
    }
    EXPECT_EQ(::isclose(session.isfd), 0);
  });
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

}  // namespace
}  // namespace testing_support
