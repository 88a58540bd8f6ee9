// fatal: the end of the process, for misuse of the library by its own code, and for a page pool
// without memory.
#pragma once

namespace common {

// Writes "\r\nFatal system error: ", the message and "\r\n" to the standard error descriptor and
// aborts. Never returns. Every other failure is told by iserrno.
[[noreturn]] void error(const char* message);

}  // namespace common
