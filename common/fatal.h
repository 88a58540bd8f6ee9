// fatal: the end of the process, where the library's code breaks its own rules (such as giving back
// a page that it does not hold), and where the page pool gets no memory.
#pragma once

namespace common {

// Writes "\r\nFatal system error: ", the message and "\r\n" to the standard error descriptor and
// aborts. Never returns. Every other failure is told by iserrno.
[[noreturn]] void error(const char* message);

}  // namespace common
