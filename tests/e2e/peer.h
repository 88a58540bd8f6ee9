// peer: a process that does one call after another as the test tells it, and tells when it has to
// wait for a lock.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/io.h"
#include "tests/e2e/sessions.h"

namespace testing_support {

struct Answer {
  int error = 0;   // iserrno, or one of the below
  int result = 0;  // of the call
  Row row = {};    // read last
  int number = 0;  // isrecnum
};
inline constexpr int kWaits = -1;   // its lock request has to wait; the answer will come
inline constexpr int kPaused = -2;  // it stands before a read from a file, or before the open lock
inline constexpr int kContradicted = -3;  // the result says otherwise than iserrno

using Call = int (*)(Session& session, int first, int second);

struct Order {
  Call call;  // the address is the same in the process, which is a copy of this one
  int first;
  int second;
};

inline constexpr off_t kRecords = 0x40000000;
inline constexpr off_t kOpenLock = 0x7FFFFFFF;

// Of the process itself, not of the test.
inline int line = -1;  // to the test
inline bool pause_before_read = false;
inline bool pause_before_open_lock = false;
inline int deadlocks_to_come = 0;  // requests for record locks to fail so
inline int record_requests = 0;    // for record locks

template <typename T>
void send(int to, const T& what) {
  if (::send(to, &what, sizeof what, MSG_NOSIGNAL) != sizeof what) throw std::runtime_error("send");
}
template <typename T>
bool receive(int from, T& what) {
  return ::recv(from, &what, sizeof what, MSG_WAITALL) == sizeof what;
}

inline void pause() {
  Order go_on;
  send(line, Answer{.error = kPaused});
  receive(line, go_on);
}

inline int lock_and_tell(int fd, int command, struct flock* lock) {
  if (lock->l_start == kOpenLock && std::exchange(pause_before_open_lock, false)) pause();
  const bool for_record = lock->l_start >= kRecords && lock->l_len == 1 &&
                          lock->l_start < kOpenLock && lock->l_type == F_WRLCK;
  if (for_record && command != F_GETLK) {
    ++record_requests;
    if (deadlocks_to_come > 0) {
      --deadlocks_to_come;
      errno = EDEADLK;
      return -1;
    }
  }
  if (command == F_SETLKW && ::fcntl(fd, F_SETLK, lock) != 0) send(line, Answer{.error = kWaits});
  return ::fcntl(fd, command, lock);
}

inline ssize_t read_and_pause(int fd, void* to, std::size_t count, off_t offset) {
  if (std::exchange(pause_before_read, false)) pause();
  return ::pread(fd, to, count, offset);
}

class Peer {
 public:
  explicit Peer(const std::string& base, const std::vector<std::string>& environment = {}) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair");
    }
    process_ = start_process([&] {
      ::close(ends[0]);
      line = ends[1];
      for (const std::string& setting : environment) ::putenv(::strdup(setting.c_str()));
      obey({base});
    });
    ::close(ends[1]);
    line_ = ends[0];
  }
  ~Peer() {
    ::close(line_);
    kill();
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Makes the process do a call: iserrno.
  int operator()(Call call, int first = 0, int second = 0) {
    send(line_, Order{call, first, second});
    return finish();
  }
  // The rest of a call that waits or has been paused.
  int finish() {
    answer_ = {.error = -99};
    receive(line_, answer_);
    return answer_.error;
  }
  // The end of a call that may have to wait again, for the other's call to end.
  int end() {
    while (finish() == kWaits) continue;
    return answer_.error;
  }
  int go_on() { return (*this)(nullptr); }

  void kill() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    end_of(process_);
    process_ = 0;
  }

  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] const Answer& last() const { return answer_; }

 private:
  [[noreturn]] static void obey(Session session) {
    common::system_calls().fcntl_lock = lock_and_tell;
    common::system_calls().pread = read_and_pause;
    for (Order order; receive(line, order);) {
      Answer answer;
      answer.result = order.call(session, order.first, order.second);
      answer.error = (answer.result < 0) != (::iserrno != 0) ? kContradicted : ::iserrno;
      answer.row = session.row;
      answer.number = ::isrecnum;
      send(line, answer);
    }
    ::_exit(0);
  }

  pid_t process_ = 0;
  int line_ = -1;
  Answer answer_;
};

}  // namespace testing_support
