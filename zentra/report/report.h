// report: what a subcommand tells, as text for people or as JSON, one object a line.
//
//   begin -> for each pair: pair_begins, entries, pair_ends -> end
//
// Keeps   bytes of files never reach the output raw; what was torn off is noticed, because the last
//         line is that of end()
#pragma once

#include <memory>
#include <string>

#include "checker/entry.h"
#include "zentra/report/status.h"

namespace zentra {

using checker::Entry;
using checker::Fields;
using checker::FileBytes;
using checker::Value;

class Report {
 public:
  virtual ~Report() = default;

  virtual void begin(const char* command, int pairs) = 0;
  virtual void pair_begins(int number, int pairs, const std::string& name) = 0;
  // What follows is about this pair, whose beginning has been told.
  virtual void pair_is(int number, const std::string& name) = 0;
  virtual void entry(const Entry& entry) = 0;
  // `text`: the verdict in words.
  virtual void pair_ends(Status status, const std::string& text, const Fields& fields) = 0;
  virtual void end(Status status, const Fields& fields) = 0;

 protected:
  Report() = default;
  Report(const Report&) = default;
  Report& operator=(const Report&) = default;
};

// Both write to standard output. `is_terminal`: of many alike only the first are shown. `good`: the
// verdict of status 0.
[[nodiscard]] std::unique_ptr<Report> text_report(bool is_terminal);
[[nodiscard]] std::unique_ptr<Report> json_report(const char* good);

// Prints an object with these fields, on a line of its own.
void print_json(const Fields& fields);

}  // namespace zentra
