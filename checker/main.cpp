// kestro: checks and repairs Zentra indexed files.
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "checker/dialogue.h"
#include "checker/driver.h"
#include "checker/progress.h"
#include "checker/recorder.h"
#include "common/nulldevice.h"
#include "environment/settings.h"
#include "isam.h"
#include "isam/calls/version.h"
#include "locale/collation.h"

namespace {

using checker::Message;

checker::Options options;

constexpr int kUsageStatus = 1;
constexpr int kLocaleStatus = -1;  // a shell sees 255

// The option letters as the operator types them, and at the same places the letters that
// take_option() acts on. Both are the same: a translated program would change the first alone.
constexpr std::string_view kTypedLetters = "ilnyqs";
constexpr std::string_view kActionLetters = "ilnyqs";
static_assert(kTypedLetters.size() == kActionLetters.size());

// Translates a typed letter: the letter of `to` at the place where `from` has c for the last time;
// 0 when `from` does not have it.
char toanglo(char c, std::string_view from, std::string_view to) {
  const std::size_t at = from.rfind(c);
  return at == std::string_view::npos ? '\0' : to[at];
}

// Acts on one typed letter: false when there is no such option.
bool take_option(char letter) {
  switch (toanglo(letter, kTypedLetters, kActionLetters)) {
    case 'i':
      ++options.iflag;
      return true;
    case 'l':
      ++options.lflag;
      return true;
    case 'n':
      ++options.nflag;
      return true;
    case 'y':
      ++options.yflag;
      return true;
    case 'q':
      ++options.qflag;
      return true;
    case 's':
      ++options.sflag;
      ++options.yflag;  // the trees that the new index lacks are made without a question
      return true;
    default:
      return false;
  }
}

// Acts on the letters behind the hyphen: false, after a message, at the first that is no option.
bool take_options(std::string_view letters) {
  for (const char letter : letters) {
    if (take_option(letter)) continue;
    checker::print_line(Message::kIllegalOption, {std::string_view(&letter, 1)});
    return false;
  }
  return true;
}

void print_header() {
  checker::pnewline(1);
  checker::print_line(Message::kHeader, {std::string_view(isam::kVersionNumber)});
  checker::print(Message::kNotice);
  checker::pnewline(2);
}

void print_usage() {
  for (const Message line : {Message::kUsage, Message::kUsageI, Message::kUsageL, Message::kUsageN,
                             Message::kUsageY, Message::kUsageQ}) {
    checker::print_line(line);
  }
  checker::print(Message::kUsageS);
  checker::pnewline(2);
}

void check_files(std::span<char*> names) {
  checker::Dialogue dialogue(options);
  std::optional<checker::Recorder> recorder;
  if (const auto path = environment::lookup("KESTRO_REPORT"); path && !path->empty()) {
    recorder.emplace(dialogue, *path, std::vector<std::string>{names.begin(), names.end()});
  }
  checker::Listener& listener = recorder ? static_cast<checker::Listener&>(*recorder) : dialogue;
  int number = 0;
  for (const char* name : names) {
    checker::Progress::begin_pair(++number, static_cast<int>(names.size()));
    checker::pnewline(1);
    checker::print(Message::kFile, {std::string_view(name)});
    checker::pnewline(2);
    if (recorder) recorder->pair_begins();
    const checker::Outcome outcome = checker::ckfile(name, options, listener);
    if (recorder) recorder->pair_ends(outcome);
  }
  checker::pnewline(1);
  iscleanup();
}

}  // namespace

int main(int argc, char** argv) {
  common::fill_standard_descriptors();
  std::span<char*> arguments(argv, static_cast<std::size_t>(argc));
  arguments = arguments.subspan(arguments.empty() ? 0 : 1);
  if (arguments.size() == 1 && std::string_view(arguments[0]) == "-V") {
    std::printf("%s\n", isversion());
    return EXIT_SUCCESS;
  }
  // A locale that cannot be loaded ends the program before any option but -V is read.
  if (locale::initulx() != 0) {
    std::fprintf(stderr, "ulx function %s failed, error %d\n", "initulx", locale::get_ulxerror());
    return kLocaleStatus;
  }
  // On a terminal, too, output waits for a flush (pnewline, a question).
  static char output_buffer[BUFSIZ];
  std::setvbuf(stdout, output_buffer, _IOFBF, sizeof output_buffer);

  // All options stand in the first argument.
  if (!arguments.empty() && arguments[0][0] == '-') {
    if (!take_options(arguments[0] + 1)) return kUsageStatus;
    if (options.nflag != 0) options.sflag = 0;  // with -n no file is changed
    arguments = arguments.subspan(1);
  }
  if (options.qflag == 0) {
    checker::Progress::allow();
    print_header();
  }
  if (arguments.empty()) {
    print_usage();
    return kUsageStatus;
  }
  check_files(arguments);
  return EXIT_SUCCESS;
}
