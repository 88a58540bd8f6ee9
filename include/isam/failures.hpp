// failures: how the classes tell that a call failed. Part of isam.hpp.
#pragma once

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "isam.h"

namespace zentra {

// A call of the library failed in a way that the caller did not have to expect.
class Error : public std::runtime_error {
 public:
  // Takes over what iserrno, iserrio and the status characters say of the last call.
  explicit Error(std::string call) : Error(std::move(call), iserrno) {}

  // Reason: the system's errno value below 100, from 100 on one of the codes ISE... of isam.h.
  [[nodiscard]] int code() const noexcept { return code_; }
  // The operation and file of a failed system call as in iserrio, or 0.
  [[nodiscard]] int place() const noexcept { return place_; }
  // The four status characters.
  [[nodiscard]] std::string_view status() const noexcept { return {status_.data(), 4}; }
  // The call that failed, with the pair's name if it took one.
  [[nodiscard]] const std::string& call() const noexcept { return call_; }

 private:
  Error(std::string call, int code)
      : std::runtime_error(call + ": " + iserrtext(code) + " (" + std::to_string(code) + ")"),
        call_(std::move(call)),
        code_(code) {}

  std::string call_;
  int code_;
  int place_ = iserrio;
  std::array<char, 4> status_{isstat1, isstat2, isstat3, isstat4};
};

// How a call ended. Of the failures only those are here that a caller has to expect; they do not
// throw.
enum class [[nodiscard]] Outcome{
    kDone,
    kEnd,        // before the first or behind the last record
    kNotFound,   // no such record, or no current one (any more)
    kLocked,     // another process has it locked
    kDuplicate,  // a key that may occur once does already; nothing has changed
};

}  // namespace zentra
