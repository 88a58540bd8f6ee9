// interrupt: what is still done when a signal ends the program.
//
// While an Interrupt exists, a signal that would end the program removes the files that
// remove_when_interrupted() was told, writes a line to standard error and then has the effect that
// it had before. Signals that are ignored stay so. There is one Interrupt at a time.
#pragma once

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

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

// A few bytes of a file as they were, at many places, as many at each.
class BytesBefore {
 public:
  static constexpr std::size_t kMost = 8;

  // `count`: bytes at each place.
  explicit BytesBefore(std::size_t count = 1) : count_(count) {}
  void reserve(std::size_t places) { packed_.reserve(places * (kOffset + count_)); }
  // As many bytes as it is said to have.
  void add(std::int64_t offset, common::ConstBytes bytes) {
    common::Byte packed[kOffset + kMost];
    for (std::size_t i = 0; i < kOffset; ++i) {
      packed[i] = static_cast<common::Byte>(offset >> (8 * i) & 0xFF);
    }
    std::copy_n(bytes.data(), count_, packed + kOffset);
    packed_.insert(packed_.end(), packed, packed + kOffset + count_);
  }
  void clear() { packed_.clear(); }

  [[nodiscard]] std::size_t size() const { return packed_.size() / (kOffset + count_); }
  [[nodiscard]] std::size_t count() const { return count_; }
  [[nodiscard]] std::int64_t offset(std::size_t place) const {
    std::int64_t offset = 0;
    for (std::size_t i = kOffset; i > 0; --i) offset = offset << 8 | at(place)[i - 1];
    return offset;
  }
  [[nodiscard]] common::ConstBytes bytes(std::size_t place) const {
    return {at(place) + kOffset, count_};
  }

 private:
  static constexpr std::size_t kOffset = 6;  // bytes of an offset
  [[nodiscard]] const common::Byte* at(std::size_t place) const {
    return packed_.data() + place * (kOffset + count_);
  }

  std::size_t count_;
  std::vector<common::Byte> packed_;  // there may be millions
};
// Names bytes that a signal is to write back, which stay where they are until this is called with
// null. They come before the files, which stay when that fails.
void put_back_when_interrupted(int fd, const BytesBefore* all);

}  // namespace checker
