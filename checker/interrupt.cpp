#include "checker/interrupt.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace checker {
namespace {

// The signals that end a program unless it handles them; without those that tell of a fault in the
// program itself, such as SIGSEGV.
constexpr std::array kSignals = {SIGHUP,  SIGINT,  SIGQUIT, SIGPIPE,   SIGALRM, SIGTERM, SIGUSR1,
                                 SIGUSR2, SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF, SIGIO,   SIGPWR};

constexpr std::size_t kMostFiles = 4;
constexpr std::size_t kLineRoom = PATH_MAX + 200;

constexpr char kNotBack[] =
    "\ninterrupted; the data file is not as it was: run zentra undo --force\n";

// What on_signal() reads. It may run at any moment outside of a SignalBlock.
std::array<std::array<char, PATH_MAX>, kMostFiles> files{};
std::array<char, kLineRoom> line{};
std::array<struct sigaction, kSignals.size()> before{};
const BytesBefore* changed = nullptr;
int changed_fd = -1;

template <std::size_t N>
void set(std::array<char, N>& to, const std::string& text) {
  const SignalBlock block;
  to.fill(0);
  std::memcpy(to.data(), text.data(), std::min(text.size(), N - 1));
}

// Whether all bytes are as they were, on the disk.
bool bytes_are_back() {
  if (changed == nullptr) return true;
  bool written = true;
  for (std::size_t i = 0; i < changed->size(); ++i) {
    const common::ConstBytes bytes = changed->bytes(i);
    const ssize_t got = ::pwrite(changed_fd, bytes.data(), bytes.size(), changed->offset(i));
    written = got == static_cast<ssize_t>(bytes.size()) && written;
  }
  return ::fsync(changed_fd) == 0 && written;
}

// The files tell how to take back what could not be: they go only behind it.
void on_signal(int number) {
  const int error = errno;
  if (bytes_are_back()) {
    for (const auto& path : files) {
      if (path[0] != 0) ::unlink(path.data());
    }
  } else {
    std::memcpy(line.data(), kNotBack, sizeof kNotBack);
  }
  // The result must be looked at, but nothing is to be done about a failure.
  if (::write(STDERR_FILENO, line.data(), std::strlen(line.data())) < 0) errno = 0;
  const auto* const at = std::find(kSignals.begin(), kSignals.end(), number);
  ::sigaction(number, &before[static_cast<std::size_t>(at - kSignals.begin())], nullptr);
  ::raise(number);  // blocked in the handler: takes effect when that returns
  errno = error;
}

sigset_t our_signals() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int number : kSignals) ::sigaddset(&set, number);
  return set;
}

}  // namespace

Interrupt::Interrupt(const std::string& text) {
  say(text);
  struct sigaction ours {};
  ours.sa_handler = on_signal;
  ours.sa_mask = our_signals();
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    ::sigaction(kSignals[i], nullptr, &before[i]);
    if (before[i].sa_handler != SIG_IGN) ::sigaction(kSignals[i], &ours, nullptr);
  }
}

Interrupt::~Interrupt() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &before[i], nullptr);
}

void Interrupt::say(const std::string& text) { set(line, text); }

SignalBlock::SignalBlock() {
  const sigset_t ours = our_signals();
  ::sigprocmask(SIG_BLOCK, &ours, &before_);
}

void remove_when_interrupted(const std::string& path) {
  for (auto& file : files) {
    if (file[0] == 0) return set(file, path);
  }
}

void forget_file(const std::string& path) {
  for (auto& file : files) {
    if (path == file.data()) set(file, {});
  }
}

void put_back_when_interrupted(int fd, const BytesBefore* all) {
  const SignalBlock block;
  changed_fd = fd;
  changed = all;
}

}  // namespace checker
