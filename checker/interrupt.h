// interrupt: what a signal finds to do before it ends the program.
//
// While an Interrupt exists, a signal that would end the program removes the files named here,
// writes a line to standard error and then has its own effect. Signals that are ignored stay so.
#pragma once

#include <csignal>
#include <string>

namespace checker {

class Interrupt {
 public:
  // `line` goes to standard error.
  explicit Interrupt(const std::string& line);
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;
  ~Interrupt();

  static void say(const std::string& line);
};

// The signals wait while one exists.
class SignalBlock {
 public:
  SignalBlock();
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;
  ~SignalBlock() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

// A file that is to go. At most four at a time.
void remove_when_interrupted(const std::string& path);
void forget_file(const std::string& path);

}  // namespace checker
