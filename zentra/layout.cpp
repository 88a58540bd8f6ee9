// zentra layout: drafts a layout of a pair's records, from its keys and from the bytes of some; or
// tells whether one that somebody wrote fits them.
#include "layout/layout.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "checker/driver.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "isam/records/datafile.h"
#include "layout/draft.h"
#include "layout/words.h"
#include "zentra/commands.h"
#include "zentra/pairrunner.h"
#include "zentra/readpair.h"
#include "zentra/text.h"
#include "zentra/textfile.h"

namespace zentra {
namespace {

using isam::filep;

constexpr std::int32_t kSamples = 1000;

struct LayoutOptions {
  bool json = false;
  double wait = 10;
  std::string file;
  std::string name;
};

layout::Type type_of(int type) {
  switch (type & ~KT_DESC) {
    case KT_INT:
      return layout::Type::kInt;
    case KT_LONG:
      return layout::Type::kLong;
    case KT_DOUBLE:
      return layout::Type::kDouble;
    case KT_FLOAT:
      return layout::Type::kFloat;
    case KT_LOCALE:
      return layout::Type::kLocale;
    default:
      return layout::Type::kChar;
  }
}

void add_keys(layout::Draft& draft) {
  isam::KeyChain chain;
  keydescr k{};
  for (int n = 1; chain.next(k) == isam::KeyChain::Step::kFound; ++n) {
    if (k.nparts == 0 || isam::kylegal(k, filep->geometry.reclen) != 0) continue;
    for (int i = 0; i < k.nparts; ++i) {
      const keypart& part = k.part[i];
      draft.add_key(
          part.start, part.length, type_of(part.type),
          k.nparts == 1 ? fmt::format("index {}", n) : fmt::format("index {}, part {}", n, i + 1));
    }
  }
  isam::clear_errors();
}

// Records from all over the file.
void add_records(layout::Draft& draft) {
  const auto length = static_cast<std::size_t>(filep->geometry.reclen);
  std::vector<isam::Byte> bytes(static_cast<std::size_t>(filep->geometry.maxreclen) + 1);
  const std::int64_t slots = common::file_size(filep->data.fd) / isam::slot_size() + 1;
  const auto last = std::min<std::int64_t>(isam::dictp->d_nextdata(), slots);
  const std::int64_t step = std::max<std::int64_t>(1, last / kSamples);
  for (std::int64_t record = 1; record <= last; record += step) {
    const int got = isam::dataread(static_cast<std::int32_t>(record), bytes);
    if (got < filep->geometry.reclen) continue;
    const isam::ConstBytes all{bytes.data(), static_cast<std::size_t>(got)};
    draft.add_record(all.first(length), all.subspan(length));
  }
  isam::clear_errors();
}

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

std::vector<std::string> shown_all(const std::vector<layout::Problem>& problems,
                                   const std::string& file) {
  std::vector<std::string> lines;
  lines.reserve(problems.size());
  for (const layout::Problem& problem : problems) {
    lines.push_back(layout::shown(problem, shown(file)));
  }
  return lines;
}

// The layout of a file, which must fit the current pair.
std::optional<Refusal> read_file(const std::string& file, layout::Fields& fields) {
  const auto text = contents_of(file, layout::kGreatestText);
  if (!text) return Refusal{Status::kUnfinished, {shown(file) + ": " + std::strerror(errno)}};
  layout::Reading reading = layout::read(*text);
  if (reading.problems.empty()) {
    reading.problems =
        layout::misfits(reading.fields, filep->geometry.reclen, filep->geometry.varlen);
  }
  if (!reading.problems.empty()) {
    return Refusal{Status::kUnfinished, shown_all(reading.problems, file)};
  }
  fields = std::move(reading.fields);
  return {};
}

// The layout that the options ask for.
std::optional<Refusal> layout_of(const LayoutOptions& options, const std::string& name,
                                 layout::Fields& fields) {
  ReadPair pair;
  if (!pair.open(name, as_time(options.wait), ReadPair::Look::kLittle) || !pair.load() ||
      !pair.take_geometry()) {
    return Refusal{pair.status(), {shown(name) + ": " + pair.why()}};
  }
  if (!options.file.empty()) return read_file(options.file, fields);
  layout::Draft draft{filep->geometry.reclen, filep->geometry.varlen};
  add_keys(draft);
  add_records(draft);
  fields = draft.fields();
  return {};
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
