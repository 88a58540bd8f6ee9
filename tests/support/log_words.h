// log_words: logs in words, as processes that did this would have left them. Each word begins with
// the letter of a process; a small letter stands for its open outside of transactions.
//
//   A[  A]  A~      begin, commit, rollback
//   A+4:7.0         insert of record 4: id 7, group 0; 7.0+90 is longer by 90 bytes
//   7.0         delete
//   A*4:7.0>8.0     rewrite
//   A!              the opposite of its last image, which was taken back
//   A#              from here on another process with its number; A= the same one, which opens its
//                   files again
//   Ao5:other       the open is from here on number 5, of another file than "pair"; Ax5:other it is
//                   closed. Without these, opens are logged where they are needed; after A. not
//   Ac  Ai  Ad      cluster, a unique index over groups added, dropped
//   Ae  Ab:other  Ar:other>third   erase, build, rename
//   Au7  As7  Am:text   unique id taken, set; a message of an error log
//   A%              the last byte of the log so far is wrong;  0:58FF  these bytes follow
//
// Files whose name begins with "v" are of variable length. Words that begin with - are passed over.
#pragma once

#include <string>

#include "tests/support/layout.h"

namespace testing_support {

Image log_of(const std::string& words);

}  // namespace testing_support
