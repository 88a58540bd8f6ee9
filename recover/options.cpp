#include "recover/options.h"

#include <getopt.h>

#include <charconv>
#include <string_view>

#include "isam/base/format.h"
#include "recover/output.h"

namespace recover {
namespace {

constexpr char kUsage[] =
    "usage: isrecover [-akvx] [-C FOLDER] LOG\n"
    "       isrecover -n [-x] LOG\n"
    "       isrecover --audit [-x] [-C FOLDER] PAIR [TRAIL]\n"
    "       isrecover --audit [-x] --length LENGTH TRAIL\n"
    "\n"
    "Applies a transaction log to files restored from a copy, or lists a log or an audit trail.\n"
    "\n"
    "  -C, --directory FOLDER  work in FOLDER, where the programs that wrote LOG ran\n"
    "  -k, --keep-going        note what cannot be applied in isrecvr_err.log and go on\n"
    "  -a, --any-writer        also apply records of processes whose start is not in LOG\n"
    "  -v, --verbose           show each record as it is applied or left out\n"
    "  -n, --dry-run           only list LOG, which may be an isrecvr_err.log\n"
    "      --audit             list the audit trail of PAIR\n"
    "  -l, --length LENGTH     of the trail's records in bytes, or \"variable\", without a pair\n"
    "  -x, --hex               show the records' bytes as well\n"
    "  -h, --help              show this and end\n"
    "  -V, --version           show the version and end\n"
    "\n"
    "Exit status: 0 all applied or listed, 1 something was left out or is damaged,\n"
    "2 stopped, or not begun.\n";

// The values of options without a letter: above those of all letters.
enum LongOnly : int { kAudit = 256 };

constexpr option kLongOptions[] = {{"directory", required_argument, nullptr, 'C'},
                                   {"keep-going", no_argument, nullptr, 'k'},
                                   {"any-writer", no_argument, nullptr, 'a'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"dry-run", no_argument, nullptr, 'n'},
                                   {"audit", no_argument, nullptr, kAudit},
                                   {"length", required_argument, nullptr, 'l'},
                                   {"hex", no_argument, nullptr, 'x'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};

// What the argument of --length says; nothing, after a complaint, when it makes no sense.
std::optional<TrailFormat> parse_format(std::string_view text) {
  if (text == "variable") return TrailFormat{true, isam::kMaxRecordLength};
  int length = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, length);
  if (error != std::errc{} || stop != end || length < 1 || length > isam::kMaxRecordLength) {
    complain("a record length is 1 to " + std::to_string(isam::kMaxRecordLength) +
             " or \"variable\"");
    return std::nullopt;
  }
  return TrailFormat{false, length};
}

// Takes the task that an option chooses: false, after a complaint, when another option has chosen
// another one.
bool take_task(Options& options, Task task) {
  if (options.task != Task::kReplay && options.task != task) {
    complain("a log and an audit trail are not listed together");
    return false;
  }
  options.task = task;
  return true;
}

// Takes one option, by its letter or its value in LongOnly: false when it makes no sense. Then the
// complaint has been made: of an unknown option by getopt_long(). An option that is only a switch
// is set to true, and the value of this assignment, true, is returned.
bool take_option(Options& options, int letter) {
  switch (letter) {
    case 'C':
      options.folder = optarg;
      return true;
    case 'k':
      return options.keep_going = true;
    case 'a':
      return options.any_writer = true;
    case 'v':
      return options.verbose = true;
    case 'x':
      return options.dump = true;
    case 'n':
      return take_task(options, Task::kListLog);
    case kAudit:
      return take_task(options, Task::kListTrail);
    case 'l':
      options.format = parse_format(optarg);
      return options.format.has_value();
    default:
      return false;
  }
}

// Takes the names behind the options: the log, the pair and perhaps its trail, or with --length the
// trail alone. False after a complaint.
bool take_names(Options& options, int count, char** names) {
  const bool names_pair = options.task == Task::kListTrail && !options.format;
  if (options.format && options.task != Task::kListTrail) {
    complain("--length goes with --audit");
    return false;
  }
  if (count < 1 || count > (names_pair ? 2 : 1)) {
    complain(names_pair ? "--audit takes a pair and at most one trail" : "one file is to be named");
    return false;
  }
  std::string& first_name = options.format ? options.trail : options.file;
  first_name = names[0];
  if (count == 2) options.trail = names[1];
  return true;
}

}  // namespace

std::optional<Options> parse_options(int argc, char** argv) {
  Options options;
  for (;;) {
    const int letter = ::getopt_long(argc, argv, "C:kavnl:xhV", kLongOptions, nullptr);
    if (letter < 0) break;
    if (letter == 'h' || letter == 'V') {
      options.task = letter == 'h' ? Task::kHelp : Task::kVersion;
      return options;
    }
    if (!take_option(options, letter)) return std::nullopt;
  }
  if (!take_names(options, argc - optind, argv + optind)) return std::nullopt;
  return options;
}

const char* usage_text() { return kUsage; }

}  // namespace recover
