// inorder: pieces of work that several threads have at the same time, and whose results are used
// one after the other.
//
//   run_in_order(threads_for(bytes), [&] {
//     auto piece = std::make_shared<Piece>();             // each thread has its own
//     return Steps{.take = [=] { return read(*piece); },  // in order, one thread at a time
//                  .work = [=] { format(*piece); },       // at the same time as others
//                  .use = [=] { return write(*piece); }}; // in the order of take, one at a time
//   });
//
// Keeps   I1 a thread has one piece at a time: memory for as many pieces as there are threads
//         I2 signals that come from outside are handled by the thread that calls
// Gives   what a step throws, when all threads have ended
#pragma once

#include <cstdint>
#include <functional>

namespace zentra {

struct Steps {
  std::function<bool()> take;  // false: there is no more
  std::function<void()> work;
  std::function<bool()> use;  // false: no more is wanted
};

// The calling thread is one of them; with 1 there is no other.
void run_in_order(int threads, const std::function<Steps()>& make);

// How many threads gain time for so much work: one for little of it, and no more than there are
// processors that this process may use.
[[nodiscard]] int threads_for(std::int64_t bytes);

}  // namespace zentra
