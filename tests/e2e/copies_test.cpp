// What happens to opens when the process is copied by fork, and when it holds the library more than
// once.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <csignal>
#include <filesystem>
#include <functional>

#include "tests/e2e/sessions.h"
#include "tests/support/layout.h"

namespace testing_support {
namespace {

constexpr off_t kRecords = 0x40000000;
constexpr off_t kOpenLock = 0x7FFFFFFF;

// Runs a test's part in a process of its own, which may leave things open.
void apart(const std::function<void()>& work) {
  EXPECT_EQ(end_of(start_process([&] {
              work();
              ::_exit(testing::Test::HasFailure() ? 1 : 0);
            })),
            0);
}

class Inherited : public testing::Test {
 protected:
  Inherited() { build_pair_of(base_, false, 30); }

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  const std::string other_ = folder_ / "other";
};

TEST_F(Inherited, OpensAreRefusedAndNumbersStayTaken) {
  apart([&] {
    Session pair{base_};
    ASSERT_GE(pair.open(ISINOUT | ISMANULOCK), 0);
    ASSERT_EQ(pair.read(RD_EQUAL | RD_LOCK, 7), 0);
    apart([&] {
      EXPECT_EQ(pair.read(RD_NEXT), -1);
      EXPECT_EQ(iserrno, ISENOTOPEN);
      EXPECT_EQ(pair.put({31, 1, 0}, ::iswrite), -1);
      EXPECT_EQ(iserrno, ISENOTOPEN);
      EXPECT_EQ(::isxgetlen(), -1);
      // An open of its own has locks of its own.
      Session own{base_};
      ASSERT_GE(own.open(ISINOUT | ISMANULOCK), 0);
      EXPECT_NE(own.isfd, pair.isfd);
      EXPECT_EQ(own.read(RD_EQUAL | RD_LOCK, 7), -1);
      EXPECT_EQ(iserrno, ISELOCKED);
      EXPECT_EQ(own.read(RD_EQUAL | RD_LOCK, 8), 0);
      EXPECT_TRUE(byte_locked(base_ + ".idx", kRecords + 8))
          << "closing what was inherited took no lock along";
      EXPECT_EQ(::isclose(pair.isfd), -1);
      EXPECT_EQ(iserrno, ISENOTOPEN);
      Session again{base_};
      EXPECT_EQ(again.open(ISINOUT | ISMANULOCK), pair.isfd) << "the number is free now";
      EXPECT_EQ(::iscleanup(), 0);
    });
    EXPECT_TRUE(byte_locked(base_ + ".idx", kRecords + 7)) << "the parent's lock is still there";
    EXPECT_EQ(pair.read(RD_NEXT), 0);
  });
}

// Whatever way the child was made, and whatever its first call is.
TEST_F(Inherited, OpensAreNoticedByTheFirstCall) {
  int id = 0;
  keydescr key = group_key();
  Session pair{base_};
  const std::function<bool()> firsts[] = {
      [&] { return ::isclose(pair.isfd) == -1 && iserrno == ISENOTOPEN; },
      [&] { return ::iscleanup() == 0; },
      [&] { return ::isdelindex(pair.isfd, &key) == -1 && iserrno == ISENOTOPEN; },
      [&] { return ::isuniqueid(pair.isfd, &id) == -1 && iserrno == ISENOTOPEN; },
      [&] { return ::isbatch(1) == 0 && ::isread(pair.isfd, nullptr, RD_NEXT) == -1; },
      [&] { return ::isvclose(0) == 0; },
      [&] { return ::isopen(base_.c_str(), ISINOUT | ISMANULOCK) == -1 && iserrno == ISEINUSE; },
      [&] { return ::iserase(base_.c_str()) == -1 && iserrno == ISEINUSE; },
  };
  for (const auto& first : firsts) {
    apart([&] {
      ASSERT_GE(pair.open(ISINOUT | ISEXCLLOCK), 0);
      ASSERT_EQ(pair.put({7, 700, 1}, ::isrewrite), 0);
      const Image before = read_file(base_ + ".dat");
      const auto child = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
      if (child == 0) {
        const bool right = first();
        // Enough to take every buffer; what the parent has delayed is not written for that.
        Session own{other_ + std::to_string(&first - firsts)};
        const bool built = own.build(ISINOUT | ISEXCLLOCK) == 0;
        for (int n = 1; n <= 400; ++n) own.put({n, n, 0}, ::iswrite);
        ::_exit(right && built && ::iscleanup() == 0 ? 0 : 1);
      }
      EXPECT_EQ(end_of(child), 0) << &first - firsts;
      EXPECT_EQ(read_file(base_ + ".dat"), before) << &first - firsts;
      EXPECT_TRUE(byte_locked(base_ + ".idx", kOpenLock));
      EXPECT_EQ(::isclose(pair.isfd), 0);
      EXPECT_EQ(counters_in(base_, false, 1, 30).at(7), 1);
      ASSERT_GE(pair.open(ISINOUT | ISEXCLLOCK), 0);
      ASSERT_EQ(pair.put({7, 2, 0}, ::isrewrite), 0);
      EXPECT_EQ(::isclose(pair.isfd), 0);
    });
  }
}

TEST_F(Inherited, ATransactionIsTheParentsAndTheLogIsBoths) {
  apart([&] {
    std::filesystem::current_path(folder_.path());
    write_file("log", {});
    Session pair{"pair"};
    ASSERT_EQ(::islogopen("log"), 0);
    ASSERT_GE(pair.open(ISINOUT | ISMANULOCK | ISTRANS), 0);
    ASSERT_EQ(::isbegin(), 0);
    ASSERT_EQ(pair.put({31, 1, 0}, ::iswrite), 0);
    apart([&] {
      EXPECT_EQ(::isrollback(), -1);
      EXPECT_EQ(iserrno, ISENOBEGIN);
      Session own{"pair"};
      ASSERT_GE(own.open(ISINOUT | ISMANULOCK | ISTRANS), 0);
      ASSERT_EQ(::isbegin(), 0);
      EXPECT_EQ(own.put({32, 1, 0}, ::iswrite), 0);
      EXPECT_EQ(::iscommit(), 0);
      EXPECT_EQ(::iscleanup(), 0);
      EXPECT_EQ(::islogclose(), 0);
    });
    EXPECT_EQ(::isrollback(), 0);
    EXPECT_EQ(pair.read(RD_EQUAL, 31), -1);
    EXPECT_EQ(pair.read(RD_EQUAL, 32), 0);
    EXPECT_EQ(::iscleanup(), 0);
    EXPECT_EQ(walk_pair("pair").problems, std::vector<std::string>{});
    // BW FO IN of the parent, BW FO IN CW FC of the child, RW FC of the parent.
    const Image log = read_file("log");
    std::vector<bool> by_child;
    for (std::size_t at = 4; at < log.size(); at += static_cast<std::size_t>(get2(&log[at]))) {
      by_child.push_back(get4(&log[at + 4]) != ::getpid());
    }
    EXPECT_EQ(by_child,
              (std::vector<bool>{false, false, false, true, true, true, true, true, false, false}));
  });
}

#ifdef KESTRO_SHARED_LIBRARY

// The library once more, as a plugin has it: hidden symbols, and nothing in common with this one.
class Plugin {
 public:
  explicit Plugin(const std::string& path)
      : handle_(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) ADD_FAILURE() << ::dlerror();
  }
  template <typename Function>
  Function* the(Function& function, const char* name) const {
    void* const found = ::dlsym(handle_, name);
    EXPECT_TRUE(found != nullptr && found != reinterpret_cast<void*>(&function)) << name;
    return reinterpret_cast<Function*>(found);
  }
  [[nodiscard]] int open(const std::string& base, int lock = ISMANULOCK) const {
    return the(::isopen, "isopen")(base.c_str(), ISINOUT | lock);
  }
  [[nodiscard]] int close(int isfd) const { return the(::isclose, "isclose")(isfd); }
  [[nodiscard]] int log(const char* path) const { return the(::islogopen, "islogopen")(path); }
  [[nodiscard]] int error() const { return *the(iserrno, "iserrno"); }

 private:
  void* handle_;
};

TEST_F(Inherited, OrRatherSharedWithAnotherCopyNothingIs) {
  build_pair_of(other_, false, 1);
  apart([&] {
    std::filesystem::current_path(folder_.path());
    write_file("log", {});
    std::filesystem::copy_file(KESTRO_SHARED_LIBRARY, "second.so");
    Session pair{base_};
    ASSERT_GE(pair.open(ISINOUT | ISMANULOCK), 0);
    ASSERT_EQ(pair.read(RD_EQUAL | RD_LOCK, 7), 0);
    const Plugin first{KESTRO_SHARED_LIBRARY};
    const Plugin second{"./second.so"};
    for (const Plugin* plugin : {&first, &second}) {
      EXPECT_EQ(plugin->open(base_), -1);
      EXPECT_EQ(plugin->error(), ISEINUSE);
      EXPECT_TRUE(byte_locked(base_ + ".idx", kRecords + 7));
    }
    const int theirs = first.open(other_, ISEXCLLOCK);
    EXPECT_GE(theirs, 0);
    EXPECT_EQ(second.open(other_), -1);
    EXPECT_EQ(second.error(), ISEINUSE);
    EXPECT_EQ(Session{other_}.open(ISINOUT | ISMANULOCK), -1);
    EXPECT_EQ(iserrno, ISEINUSE);
    EXPECT_TRUE(byte_locked(other_ + ".idx", kOpenLock));
    // A pair kept at hand is refused as well, until it is closed.
    ::isvclose(2);
    EXPECT_EQ(::isclose(pair.isfd), 0);
    EXPECT_EQ(second.open(base_), -1);
    ::isvclose(0);
    EXPECT_GE(second.open(base_), 0);
    EXPECT_EQ(pair.open(ISINOUT | ISMANULOCK), -1);
    EXPECT_EQ(first.close(theirs), 0);
    EXPECT_GE((pair = Session{other_}).open(ISINOUT | ISMANULOCK), 0);

    ASSERT_EQ(::islogopen("log"), 0);
    EXPECT_EQ(first.log("log"), -1);
    EXPECT_EQ(first.error(), ISELOGOPEN);
    EXPECT_EQ(::islogclose(), 0);
    EXPECT_EQ(first.log("log"), 0);
    EXPECT_EQ(::islogopen("log"), -1);

    // In a child nothing of that counts, and each copy notices for itself.
    apart([&] {
      const int own = first.open(other_);
      std::string record = record_of({.id = 1}, false);
      EXPECT_EQ(first.the(::isread, "isread")(own, record.data(), RD_EQUAL | RD_LOCK), 0);
      EXPECT_EQ(pair.read(RD_EQUAL, 1), -1);
      EXPECT_EQ(iserrno, ISENOTOPEN);
      EXPECT_EQ(second.open(other_), -1);
      EXPECT_EQ(second.error(), ISEINUSE);
      EXPECT_TRUE(byte_locked(other_ + ".idx", kRecords + 1));
    });
  });
}

#endif

}  // namespace
}  // namespace testing_support
