// A process that holds the library more than once. (What a fork does: tests/scripts/forks.)
#ifdef KESTRO_SHARED_LIBRARY

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "tests/e2e/sessions.h"

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

}  // namespace
}  // namespace testing_support

#endif
