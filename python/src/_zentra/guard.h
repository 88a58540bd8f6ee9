// guard: one thread of the process in the library at a time, and whose process the opens are.
//
//   const int count = in_turn([&] { ...calls of isam.h, what they left in its variables... });
//
// Needs   the interpreter's lock, held by the caller
// Keeps   G1 the interpreter's lock is free while a thread waits for its turn and while it has it
//         G2 what a call leaves in the library's variables is taken before the next turn begins
//         G3 a child made by fork begins while no thread has a turn
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace zentra_module {

// A call that failed; becomes an exception of zentra.errors.
class Failed : public std::runtime_error {
 public:
  // What the library says of its last call, which is to be the failed one.
  explicit Failed(std::string pair);
  // What the module itself says.
  Failed(std::string pair, int error, const std::string& why)
      : std::runtime_error(why), name(std::move(pair)), code(error) {}

  std::string name;  // of the pair; may be empty
  int code;
  int place = 0;         // iserrio
  std::string status{};  // four characters, or none
};

// The open belongs to the process that this one was copied from.
class Inherited : public Failed {
 public:
  explicit Inherited(const std::string& pair);
};

[[nodiscard]] std::mutex& library_guard();

// How many forks lie between the process that loaded the module and this one.
[[nodiscard]] int generation();

// To be called once, when the module is loaded.
void watch_forks();

template <typename Work>
decltype(auto) in_turn(Work&& work) {
  const pybind11::gil_scoped_release others_run;
  const std::lock_guard turn(library_guard());
  return std::forward<Work>(work)();
}

}  // namespace zentra_module
