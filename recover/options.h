// options: what the operator asked for.
#pragma once

#include <optional>
#include <string>

namespace recover {

enum class Task { kReplay, kListLog, kListTrail, kHelp, kVersion };

// How long the records of a trail are, given by hand.
struct TrailFormat {
  bool variable = false;
  int length = 0;  // bytes; with variable length the greatest
};

struct Options {
  Task task = Task::kReplay;
  bool any_writer = false;
  bool keep_going = false;
  bool verbose = false;
  bool dump = false;
  std::string folder;                 // to work in; empty for the present one
  std::string file;                   // the log, or the pair with an audit trail
  std::string trail;                  // empty: as the pair says
  std::optional<TrailFormat> format;  // then there is no pair
};

// Takes the arguments of main(). None, after a complaint, when they make no sense.
[[nodiscard]] std::optional<Options> parse_options(int argc, char** argv);

[[nodiscard]] const char* usage_text();

}  // namespace recover
