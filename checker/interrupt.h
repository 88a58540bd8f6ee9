// interrupt: what is still done when a signal ends the program.
//
// While an Interrupt exists, a signal that would end the program removes the files that
// remove_when_interrupted() was told, writes a line to standard error and then has the effect that
// it had before. Signals that are ignored stay so. There is one Interrupt at a time.
#pragma once

#include <csignal>
#include <cstdint>
#include <span>
#include <string>

#include "common/bytes.h"

namespace checker {

class Interrupt {
 public:
  // `line` is what a signal writes to standard error, until say() is called.
  explicit Interrupt(const std::string& line);
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;
  // Gives the signals back the effects that they had before.
  ~Interrupt();

  // Writes nothing now: a signal that comes from now on writes `line`.
  static void say(const std::string& line);
};

// The signals that an Interrupt handles wait while a SignalBlock exists.
class SignalBlock {
 public:
  SignalBlock();
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;
  ~SignalBlock() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

// Names a file that a signal is to remove, until forget_file() is called for it. At most four at a
// time: a fifth is not noted.
void remove_when_interrupted(const std::string& path);
void forget_file(const std::string& path);

// A few bytes of a file as they were.
struct BytesBefore {
  static constexpr std::size_t kMost = 8;
  std::int64_t offset = 0;
  std::uint8_t count = 0;
  common::Byte bytes[kMost] = {};
};
// Names bytes that a signal is to write back, which stay where they are until this is called with
// none. They come before the files, which stay when that fails.
void put_back_when_interrupted(int fd, std::span<const BytesBefore> all);

}  // namespace checker
