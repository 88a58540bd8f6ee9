// zentra dump: the records of a pair as CSV, as JSON or as raw text, as they are at one moment.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "checker/driver.h"
#include "checker/interrupt.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairrunner.h"
#include "zentra/pair/pairlayout.h"
#include "zentra/pair/pairshape.h"
#include "zentra/pair/readpair.h"
#include "zentra/pair/treewalk.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"
#include "zentra/transfer/dump.h"
#include "zentra/transfer/rawwriter.h"

namespace zentra {
namespace {

struct DumpOptions {
  bool json = false;
  bool numbers = false;
  int by = 0;
  double wait = 10;
  std::string format;
  std::string layout;
  std::string file;
  std::string name;
};

// The report of one pair, which begins when there is something to tell.
class Telling {
 public:
  Telling(Report& report, std::string name, bool at_once)
      : report_(report), name_(std::move(name)) {
    report_.begin("dump", 1);
    if (at_once) begin();
  }

  void entry(const Entry& entry) {
    begin();
    report_.entry(entry);
  }
  // Without anything told, no word where all went well.
  Status ends(Status status, const std::string& text, const Fields& fields = {}) {
    if (status != Status::kSound) begin();
    if (has_begun_) report_.pair_ends(status, text, fields);
    checker::Tally tally;
    tally.add(status, 0);
    if (has_begun_) report_.end(status, tally.fields(kVerdictDone));
    return status;
  }

 private:
  void begin() {
    if (!std::exchange(has_begun_, true)) report_.pair_begins(1, 1, name_);
  }

  Report& report_;
  std::string name_;
  bool has_begun_ = false;
};

// The form that the options ask for; else that of the file's suffix.
std::string format_of(const DumpOptions& options) {
  if (!options.format.empty()) return options.format;
  return options.file.ends_with(".csv") ? "csv" : "jsonl";
}

bool is_file_of_pair(const std::string& file) {
  struct stat status {};
  if (common::system_calls().stat(file.c_str(), &status) != 0) return false;
  const auto is = [&](const isam::PairFile& one) {
    return one.device == status.st_dev && one.inode == status.st_ino;
  };
  return is(isam::filep->index) || is(isam::filep->data);
}

// What writes the records, and what is to be told of the fields.
struct Form {
  std::unique_ptr<DumpWriter> writer{};
  Value layout{};
  std::string why{};  // there is none
  Status status = Status::kUnfinished;
};

Form rows_form(const DumpOptions& options, const std::string& name, Telling& telling) {
  PairLayout layout = layout_of_pair(options.layout, name);
  for (const std::string& why : layout.why) {
    telling.entry({.kind = Entry::Kind::kNote, .code = "layout.refused", .text = why});
  }
  if (!layout.why.empty()) return {.why = "no layout"};
  return {
      .writer =
          row_writer(format_of(options) == "jsonl", std::move(layout.fields), options.numbers),
      .layout = layout.file.empty() ? Value("a draft") : Value(FileBytes{.bytes = layout.file})};
}

Form raw_form(Telling& telling, bool& is_whole) {
  auto shape = shape_of_pair();
  if (!shape) {
    return {.why = "its key descriptions cannot be read, which the raw text has; CSV has none",
            .status = Status::kNeedsSalvage};
  }
  const auto damaged = [&](int index) {
    is_whole = false;
    telling.entry({.code = "dump.equal-keys",
                   .status = Status::kNeedsSalvage,
                   .key = index,
                   .text = "damaged: the order of its equal keys is not told"});
  };
  return {.writer = raw_writer(std::move(*shape), damaged), .layout = "none"};
}

std::string cannot_be_written(int error) {
  return fmt::format("could not be written: {}", std::strerror(error));
}

Status dump_pair(const DumpOptions& options, const std::string& name, Output& output,
                 Telling& telling) {
  ReadPair pair;
  if (!pair.open(name, as_time(options.wait)) || !pair.load() || !pair.take_geometry()) {
    Fields fields;
    if (pair.status() == Status::kInUse) {
      fields.emplace_back("process", std::int64_t{pair.holder()});
    }
    return telling.ends(pair.status(), pair.why(), fields);
  }
  if (is_file_of_pair(options.file)) {
    return telling.ends(Status::kUnfinished, "a file of the pair cannot take the dump");
  }
  const std::vector<keydescr> indexes = indexes_of_pair();
  if (options.by > std::ssize(indexes)) {
    return telling.ends(Status::kUnfinished, fmt::format("there is no index {}", options.by));
  }
  bool has_orders = true;
  const Form form = format_of(options) == "raw" ? raw_form(telling, has_orders)
                                                : rows_form(options, name, telling);
  if (!form.why.empty()) return telling.ends(form.status, form.why);
  if (!output.open()) return telling.ends(Status::kUnfinished, cannot_be_written(output.error()));
  if (output.is_terminal()) stop_showing();

  Dump dump{output, *form.writer, [&](const Entry& entry) { telling.entry(entry); }};
  const bool has_order =
      options.by > 0 && indexes[static_cast<std::size_t>(options.by - 1)].nparts > 0;
  if (has_order) {
    dump.run_by(options.by, indexes[static_cast<std::size_t>(options.by - 1)]);
  } else {
    dump.run();
  }
  pair.let_go();
  if (!output.finish()) {
    return telling.ends(Status::kUnfinished, cannot_be_written(output.error()));
  }
  Fields fields{{"records", dump.count()}, {"left-out", dump.left_out()}};
  fields.emplace_back("layout", form.layout);
  fields.emplace_back("seconds-held", pair.seconds_held());
  return dump.is_whole() && has_orders
             ? telling.ends(Status::kSound, "dumped", fields)
             : telling.ends(Status::kNeedsSalvage, "dumped, but for what is told above", fields);
}

// The report goes to standard error, since standard output has the records.
void report_to_standard_error() {
  std::fflush(stdout);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

int dump(const DumpOptions& options) {
  std::string name = options.name;
  checker::cut_suffix(name);
  const checker::Interrupt interrupt("");
  start_progress();
  Output output{options.file};
  if (output.is_standard()) report_to_standard_error();
  const std::unique_ptr<Report> report =
      options.json ? json_report(kVerdictDone) : text_report(true);
  Status status = Status::kUnfinished;
  with_output_held([&] {
    Telling telling{*report, name, options.json || !output.is_standard()};
    try {
      status = dump_pair(options, name, output, telling);
    } catch (const std::bad_alloc&) {
      status = telling.ends(Status::kUnfinished, "could not be finished: no memory");
    }
    isam::clear_errors();
  });
  return static_cast<int>(status);
}

}  // namespace

std::function<int()> prepare_dump(Arguments& arguments) {
  const auto options = std::make_shared<DumpOptions>();
  arguments.choice("--format", options->format, {"jsonl", "csv", "raw"},
                   "JSON, one object a line; CSV with a header line; the whole pair as text");
  arguments.number("--by", options->by, 1, 1000, "INDEX",
                   "in the order of this index, not of record numbers");
  arguments.text("-o", options->file, "FILE", "write to FILE, once it is whole");
  arguments.text("--layout", options->layout, "FILE", "what the fields are; else PAIR.layout");
  arguments.flag("--numbers", options->numbers, "begin each record with its number");
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.pair(options->name);
  return [options] {
    if (options->by > 0 && options->format == "raw") {
      std::fputs("zentra: raw text is in the order of record numbers\n", stderr);
      return kUsage;
    }
    return dump(*options);
  };
}

}  // namespace zentra
