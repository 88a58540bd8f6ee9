#include "checker/check.h"

#include <cerrno>

#include "isam/base/errors.h"

namespace checker {

void Check::found(Code code, const Numbers& numbers) { found({.code = code, .numbers = numbers}); }

void Check::found(const Finding& finding) {
  ++count;
  listener.found(finding);
}

bool Check::ask(Question question) {
  const bool yes = listener.answer(question);
  if (!yes) ++declined;
  return yes;
}

bool is_of_system(std::int32_t code) { return (code > 0 && code <= 99) || code == isam::kNoMemory; }

void Check::note_system_error() {
  if (is_of_system(iserrno) && system_error == 0) {
    system_error = iserrno == isam::kNoMemory ? ENOMEM : iserrno;
  }
}

void Check::pass_over_error() {
  note_system_error();
  isam::clear_errors();
}

void Check::prterr() {
  if (iserrno == 0) return;
  note_system_error();
  listener.failed(iserrno, iserrio);
  isam::clear_errors();
}

void Check::report_unreadable_node() {
  if (options.sflag != 0) {
    pass_over_error();
  } else {
    prterr();
  }
}

}  // namespace checker
