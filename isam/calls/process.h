// process: notices without a system call that the library is in another process than before.
//
// A child made by fork has a copy of everything here, but none of its parent's locks. What its
// parent had open it must not use: its calls would not be kept apart from others', and would write
// changes that the parent writes too.
//
// Keeps   N1 an inherited open is refused (101), its number is not given to another until it has
//            been closed, and its pair's record serves no open of the child
//         N2 the descriptors are closed before the child can have locks: closing takes those along
//         N3 delayed changes are the parent's to write, a transaction is the parent's to end. The
//            log stays open, and the child writes to it in its own name.
// Gives   know_process(), for the beginning of each public call
#pragma once

namespace isam {

// Leads to memory that the kernel zeroes in a child; to a zero where it cannot, or before it has
// been asked to.
extern const int* process_mark;

// For know_process(): what a zero calls for. Where no memory is zeroed in a child it looks whether
// this is one, at each call.
void notice_process();

inline void know_process() {
  if (*process_mark == 0) [[unlikely]] {
    notice_process();
  }
}

}  // namespace isam
