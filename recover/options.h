// options: what the operator asked for.
#pragma once

#include <optional>
#include <string>

namespace recover {

// What the program is to do. kReplay applies a log.
enum class Task { kReplay, kListLog, kListTrail, kHelp, kVersion };

// How long the records in an audit trail are, as the pair or the command line says.
struct TrailFormat {
  bool variable = false;
  int length = 0;  // bytes; with variable length the most that a record may have
};

// A task passes over what does not concern it.
struct Options {
  Task task = Task::kReplay;
  bool any_writer = false;  // apply also what processes did whose start is not in the log
  bool keep_going = false;  // note what cannot be applied, and go on
  bool verbose = false;     // show each record as it is applied or left out
  bool dump = false;        // list the records' bytes, too
  std::string folder;       // names in the log or the pair start from it; empty: the present one
  std::string file;         // the log, or the pair whose trail is listed; empty with `format`
  std::string trail;        // the trail's file; empty: the one that the pair names
  // Given: the trail is listed without its pair, and `trail` is not empty.
  std::optional<TrailFormat> format;
};

// Takes the arguments of main(). When they make no sense, nothing is returned and standard error
// says why. For kHelp and kVersion the options behind them are not looked at.
[[nodiscard]] std::optional<Options> parse_options(int argc, char** argv);

[[nodiscard]] const char* usage_text();

}  // namespace recover
