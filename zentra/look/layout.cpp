// zentra layout: drafts a layout of a pair's records, from its keys and from the bytes of some; or
// tells whether one that somebody wrote fits them.
#include "layout/layout.h"

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "checker/driver.h"
#include "isam/base/current.h"
#include "layout/words.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairrunner.h"
#include "zentra/pair/pairlayout.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

struct LayoutOptions {
  bool json = false;
  double wait = 10;
  std::string file;
  std::string name;
};

std::string meaning_of(const layout::Field& field) {
  switch (field.meaning) {
    case layout::Meaning::kDate:
    case layout::Meaning::kDays:
      return "date";
    case layout::Meaning::kDecimal:
      return "decimal";
    case layout::Meaning::kBoolean:
      return "boolean";
    default:
      return "plain";
  }
}

// What the text has behind the meaning, but for decimals.
std::string form_of(const layout::Field& field) {
  if (field.meaning == layout::Meaning::kDays) return "since " + field.form;
  if (field.meaning != layout::Meaning::kBoolean) return field.form;
  return layout::as_word(field.yes) + ' ' + layout::as_word(field.no);
}

// A field as what it is in the text, for the report.
void tell(const layout::Field& field, Report& report) {
  report.entry({.kind = Entry::Kind::kNote,
                .code = "layout.field",
                .text = field.comment,
                .fields = {{"name", field.name},
                           {"stored-as", std::string(layout::name_of(field.type))},
                           {"offset", std::int64_t{field.offset}},
                           {"length", std::int64_t{field.length}},
                           {"tail", field.is_tail},
                           {"meaning", meaning_of(field)},
                           {"form", form_of(field)},
                           {"decimals", std::int64_t{field.decimals}},
                           {"null", field.may_be_null},
                           {"blanks", field.keeps_blanks},
                           {"guessed", field.comment.starts_with("guess")}}});
}

// Why there is no layout, a line for each reason.
struct Refusal {
  Status status;
  std::vector<std::string> why;
};

// The layout that the options ask for.
std::optional<Refusal> layout_of(const LayoutOptions& options, const std::string& name,
                                 layout::Fields& fields) {
  ReadPair pair;
  if (!pair.open(name, as_time(options.wait), ReadPair::Look::kLittle) || !pair.load() ||
      !pair.take_geometry()) {
    return Refusal{pair.status(), {shown(name) + ": " + pair.why()}};
  }
  if (options.file.empty()) {
    fields = draft_of_pair();
    return {};
  }
  const isam::Geometry& geometry = isam::filep->geometry;
  PairLayout read = read_layout(options.file, geometry.reclen, geometry.varlen);
  if (!read.why.empty()) return Refusal{Status::kUnfinished, std::move(read.why)};
  fields = std::move(read.fields);
  return {};
}

// Whether a draft is made although the pair has a layout.
bool says_beside(const LayoutOptions& options, const std::string& name) {
  return options.file.empty() && has_layout_beside(name);
}

std::string beside(const std::string& name) {
  return fmt::format("{} stands beside the pair, and is its layout", shown(layout_beside(name)));
}

Outcome report_layout(const LayoutOptions& options, const std::string& name, Report& report) {
  layout::Fields fields;
  if (const auto refusal = layout_of(options, name, fields)) {
    for (const std::string& why : refusal->why) {
      report.entry({.kind = Entry::Kind::kNote, .code = "layout.refused", .text = why});
    }
    report.pair_ends(refusal->status, "no layout", {});
    return {.status = refusal->status};
  }
  if (says_beside(options, name)) {
    report.entry({.kind = Entry::Kind::kNote,
                  .code = "layout.beside",
                  .text = beside(name),
                  .fields = {{"file", FileBytes{.bytes = layout_beside(name)}}}});
  }
  for (const layout::Field& field : fields) tell(field, report);
  report.pair_ends(Status::kSound, options.file.empty() ? "drafted" : "it fits", {});
  return {.status = Status::kSound};
}

// Prints the layout as the file that it may become.
int print_layout(const LayoutOptions& options, const std::string& name) {
  layout::Fields fields;
  if (const auto refusal = layout_of(options, name, fields)) {
    for (const std::string& why : refusal->why) fmt::print(stderr, "zentra: {}\n", why);
    return static_cast<int>(refusal->status);
  }
  if (options.file.empty()) {
    fmt::print("# {}: a draft; what is a guess needs a look, and the names are yours to choose\n",
               shown(name));
  }
  if (says_beside(options, name)) fmt::print("# {}\n", beside(name));
  fmt::print("# name, type, offset, length\n{}", layout::text_of(fields));
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return 0;
  fmt::print(stderr, "zentra: the layout could not be written\n");
  return static_cast<int>(Status::kUnfinished);
}

}  // namespace

std::function<int()> prepare_layout(Arguments& arguments) {
  const auto options = std::make_shared<LayoutOptions>();
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.text("--layout", options->file, "FILE",
                 "do not draft: tell whether FILE fits the pair");
  arguments.pair(options->name);
  return [options] {
    std::string name = options->name;
    checker::cut_suffix(name);
    if (!options->json) return print_layout(*options, name);
    return run_pairs({.command = "layout",
                      .json = true,
                      .jobs = 1,
                      .pairs = {name},
                      .good = kVerdictDone,
                      .work = [&](const std::string& base, Report& report) {
                        return report_layout(*options, base, report);
                      }});
  };
}

}  // namespace zentra
