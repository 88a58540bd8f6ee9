// between: a test stands between the library and the system, and lets calls on files fail, wait,
// be cut short or be the last thing that the process does.
//
//   stand_between([](SystemCall& call) {
//     if (call.kind != SystemCall::kWrite || left-- > 0) return 0;
//     return ENOSPC;  // the call fails with it
//   });
//
// The calls are those of the table in common/io.h, of this process and of those that it forks.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace testing_support {

struct SystemCall {
  enum Kind {
    kOpen,
    kNameless,  // an open of a file without a name
    kRead,
    kWrite,
    kCopy,
    kLock,
    kClone,
    kLink,
    kRename,
    kUnlink,
    kSync,
    kCut,
    kAttribute,
    kStat
  };

  Kind kind;
  int fd = -1;            // of a copy the one that is read
  std::string path = {};  // where it is named; for a new name the old one
  std::size_t count = 0;  // of bytes; may be lowered
  off_t at = 0;
  struct flock* lock = nullptr;
  int flags = 0;  // of an open; the command of a lock

  // The name of the file, however it is given.
  [[nodiscard]] std::string name() const;
  // Of a write: whether a part of it lies, or all of it begins, behind the file's end.
  [[nodiscard]] bool grows() const;
  [[nodiscard]] bool appends() const;
};

// A function that is asked before each call: 0, or errno of the call, which is not done then.
void stand_between(std::function<int(SystemCall&)> between);
void stand_aside();
// All calls of a kind fail.
inline void refuse(SystemCall::Kind kind, int error) {
  stand_between([=](const SystemCall& call) { return call.kind == kind ? error : 0; });
}

// One write that the system has no room for, after so many others: half of it is done. If it was to
// lengthen a file, no other write can begin there; perhaps with less.
class RefusedWrite {
 public:
  // Does `call` with its write `number` refused; whether there was one.
  template <typename Call>
  bool operator()(int number, Call call) {
    begin(number);
    call();
    return end();
  }
  void begin(int number) {
    left_ = number;
    refused_ = false;
    full_fd_ = -1;
  }
  bool end() {
    full_fd_ = left_ = -1;
    return refused_;
  }
  // To be asked before each call.
  int before(SystemCall& call);
  [[nodiscard]] bool refused() const { return refused_; }

 private:
  int left_ = -1;
  bool refused_ = false;
  int full_fd_ = -1;
  off_t full_at_ = 0;
};

}  // namespace testing_support
