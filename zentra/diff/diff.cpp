// zentra diff: what two pairs differ in, each as it is at one moment.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "checker/driver.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairrunner.h"
#include "zentra/diff/comparedfields.h"
#include "zentra/diff/diffreport.h"
#include "zentra/diff/recordmatch.h"
#include "zentra/diff/structurediff.h"
#include "zentra/diff/twopairs.h"
#include "zentra/pair/pairlayout.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;

struct DiffOptions {
  bool json = false;
  bool is_brief = false;
  bool with_unique_id = false;
  int by = 0;
  double wait = 10;
  std::string layout;
  std::vector<std::string> names;
};

// What makes programs refuse the pair, and what is not known of it.
void tell_damage(Side& side, DiffReport& report) {
  isam::Byte mark[isam::kMarkSize] = {};
  const bool is_marked = common::read_at(side.index, mark, isam::kMarkOffset) > 0 &&
                         common::ldlong(mark) == isam::kMarkMagic;
  if (is_marked) {
    report.trouble(
        fmt::format("{}: a process ended before it had written all its changes", shown(side.name)));
  }
  if (side.keys_are_damaged) {
    report.trouble(fmt::format("{}: the descriptions of its indexes are damaged; see zentra check",
                               shown(side.name)));
  }
}

bool is_of_one_shape(const Side& a, const Side& b) {
  return a.shape.reclen == b.shape.reclen && a.shape.maxreclen == b.shape.maxreclen &&
         a.shape.varlen == b.shape.varlen;
}

// The fields of the records; none, and told: there is no layout.
std::optional<ComparedFields> fields_of(const DiffOptions& options, TwoPairs& pairs,
                                        DiffReport& report) {
  std::vector<layout::Fields> layouts;
  for (const int side : {0, 1}) {
    if (side == 1 && is_of_one_shape(pairs[0], pairs[1])) break;
    pairs[side].use();
    PairLayout chosen = layout_of_pair(options.layout, pairs[side].name);
    for (const std::string& why : chosen.why) report.trouble(why);
    if (!chosen.why.empty()) return {};
    layouts.push_back(std::move(chosen.fields));
  }
  const isam::Geometry& shape = pairs[0].shape;
  if (layouts.size() == 1) {
    return ComparedFields{std::move(layouts[0]), shape.reclen, shape.varlen};
  }
  return ComparedFields{layouts[0], shape.reclen, layouts[1], pairs[1].shape.reclen};
}

void compare_records(const DiffOptions& options, TwoPairs& pairs, DiffReport& report,
                     Fields& totals) {
  const ChosenOrder chosen = choose_order(pairs, options.by);
  if (!chosen.wrong.empty()) return report.trouble(chosen.wrong);
  const auto fields = fields_of(options, pairs, report);
  if (!fields) return;
  for (const int side : {0, 1}) {
    for (const std::string& name : fields->only_in(side)) {
      const std::string has = "there";
      report.unlike({"field " + name, side == 0 ? has : "", side == 1 ? has : ""});
    }
  }
  report.order(chosen.words);
  report.compares(*fields, chosen.order);
  RecordMatch match(pairs, *fields, chosen.order, report);
  if (const int error = match.run()) {
    report.trouble(fmt::format("could not be compared to the end: {}", std::strerror(error)));
  }
  totals.emplace_back("equal", match.equal());
}

Compared compare(const DiffOptions& options, TwoPairs& pairs, DiffReport& report) {
  const auto start = steady_clock::now();
  const std::string& a = options.names[0];
  const std::string& b = options.names[1];
  report.begin(a, b);
  Fields totals;
  if (!pairs.open(a, b, as_time(options.wait))) {
    report.trouble(pairs.why());
    return report.end(totals);
  }
  if (pairs.are_one()) return report.end(totals);
  for (const int side : {0, 1}) tell_damage(pairs[side], report);
  for (const Unlike& unlike : structure_differences(pairs, options.with_unique_id)) {
    report.unlike(unlike);
  }
  if (!report.is_enough()) compare_records(options, pairs, report, totals);
  isam::clear_errors();
  totals.emplace_back("seconds-held", pairs[0].pair.seconds_held());
  totals.emplace_back("seconds",
                      std::chrono::duration<double>(steady_clock::now() - start).count());
  return report.end(totals);
}

int run_diff(DiffOptions options) {
  for (std::string& name : options.names) checker::cut_suffix(name);
  start_progress();
  const bool is_terminal = ::isatty(STDOUT_FILENO) == 1;
  Compared compared = Compared::kTrouble;
  // What is told comes out when nothing is locked any more.
  with_output_held([&] {
    TwoPairs pairs;
    DiffReport report(
        pairs, {.json = options.json, .is_brief = options.is_brief, .is_terminal = is_terminal});
    compared = compare(options, pairs, report);
  });
  erase_progress();
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return static_cast<int>(compared);
  fmt::print(stderr, "zentra: the report could not be written: {}\n", std::strerror(errno));
  return static_cast<int>(Compared::kTrouble);
}

}  // namespace

std::function<int()> prepare_diff(Arguments& arguments) {
  const auto options = std::make_shared<DiffOptions>();
  arguments.json(options->json);
  arguments.flag("-q,--brief,--quick", options->is_brief, "tell only whether they differ");
  arguments.number("--by", options->by, 1, 32767, "INDEX",
                   "tell records apart by this index of the first pair");
  arguments.text("--layout", options->layout, "FILE", "the fields of the records");
  arguments.flag("--unique-id", options->with_unique_id, "compare the next unique ids too");
  arguments.wait(options->wait);
  arguments.pairs(options->names);
  return [options] {
    if (options->names.size() != 2) {
      fmt::print(stderr, "zentra: diff takes two pairs\n");
      return kUsage;
    }
    return run_diff(*options);
  };
}

}  // namespace zentra
