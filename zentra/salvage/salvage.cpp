// zentra salvage: a new pair of what is left of a data file, with the index file or without.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "checker/driver.h"
#include "common/io.h"
#include "isam/base/format.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairrunner.h"
#include "zentra/keys/keysfile.h"
#include "zentra/report/text.h"
#include "zentra/salvage/salvageplan.h"
#include "zentra/salvage/salvager.h"

namespace zentra {
namespace {

std::string refusal_text(Status status, const std::string& why) {
  return fmt::format("{}: {}",
                     status == Status::kNeedsSalvage ? "nothing to salvage" : "not salvaged", why);
}

void tell_doubts(const Salvager& salvager, Report& report) {
  for (const auto& [doubt, count] : salvager.doubts()) {
    const DoubtWords words = words_of(doubt);
    report.entry({.code = words.code,
                  .status = Status::kDamaged,
                  .text = fmt::format("{} {}", grouped(count), words.text),
                  .fields = {{"found", count}}});
  }
}

// How many records there are, and what became of the others.
std::string summary_of(const Salvager& salvager, const std::string& to) {
  const auto& doubts = salvager.doubts();
  const auto count = [&](Doubt doubt) {
    const auto at = doubts.find(doubt);
    return at == doubts.end() ? std::int64_t{0} : at->second;
  };
  std::string text = fmt::format("{} record(s) are in {}", grouped(salvager.records()), shown(to));
  const auto add = [&](std::int64_t found, const char* words) {
    if (found > 0) text += fmt::format(", {} {}", grouped(found), words);
  };
  add(salvager.doubtful(), "doubtful");
  add(count(Doubt::kVariable) - salvager.dropped(), "without their variable part");
  text += fmt::format("; {} lost", grouped(salvager.lost()));
  if (salvager.losses().count() > 0)
    text += fmt::format(": see {}", shown(salvager.losses().path()));
  if (salvager.deleted().count() > 0) {
    text += fmt::format("; {} deleted: see {}", grouped(salvager.deleted().count()),
                        shown(salvager.deleted().path()));
  }
  return text;
}

Outcome salvage(const SalvageOptions& options, Report& report) {
  SalvagePlan plan;
  make_salvage_plan(options, report, plan);
  if (!plan.why.empty()) {
    report.pair_ends(plan.status, refusal_text(plan.status, plan.why), {});
    return {.status = plan.status};
  }
  Salvager salvager{options, plan};
  if (!salvager.run()) {
    report.pair_ends(Status::kUnfinished, refusal_text(Status::kUnfinished, salvager.why()), {});
    return {};
  }
  tell_doubts(salvager, report);
  const Status status = salvager.doubts().empty() ? Status::kSound : Status::kDamaged;
  Fields fields{{"records", salvager.records()},
                {"doubtful", salvager.doubtful()},
                {"lost", salvager.lost()},
                {"deleted", salvager.deleted().count()}};
  const auto add_file = [&](const char* name, const LineFile& file) {
    if (file.count() > 0) fields.emplace_back(name, FileBytes{.bytes = file.path()});
  };
  add_file("losses", salvager.losses());
  add_file("deleted-records", salvager.deleted());
  report.pair_ends(status, summary_of(salvager, options.to), fields);
  return {.status = status, .findings = static_cast<std::int64_t>(salvager.doubts().size())};
}

// What is wrong with the command line; empty for nothing.
std::string fault_of(const SalvageOptions& options) {
  const int sources = (options.keys.empty() ? 0 : 1) + (options.keys_file.empty() ? 0 : 1);
  if (options.to.empty()) return "-o names the new pair";
  if (sources > 1) return "--key and --keys exclude each other";
  if (!options.length.empty() && !lengths_in(options.length)) {
    return fmt::format("--length takes N or MIN-MAX, from 1 to {}, not {}", isam::kMaxRecordLength,
                       options.length);
  }
  for (const std::string& words : options.keys) {
    const KeyOfLine key = key_of_line(words);
    if (!key.why.empty()) return "--key: " + key.why;
  }
  return "";
}

// By whatever name: of a pair it is the data file.
std::string data_file_of_name(const std::string& name) {
  if (name.ends_with(".idx")) return name.substr(0, name.size() - 4) + ".dat";
  return !common::name_exists(name) && common::name_exists(name + ".dat") ? name + ".dat" : name;
}

}  // namespace

std::function<int()> prepare_salvage(Arguments& arguments) {
  const auto options = std::make_shared<SalvageOptions>();
  arguments.text("-o,--output", options->to, "NEW", "the new pair");
  arguments.text("--like", options->like, "PAIR", "take lengths and descriptions of this pair");
  arguments.text("--length", options->length, "N", "record length; MIN-MAX of variable length");
  arguments.texts("--key", options->keys, "KEY", "describe an index: 0,8,char; zentra-keys(5)");
  arguments.text("--keys", options->keys_file, "FILE",
                 "descriptions of its indexes; zentra-keys(5)");
  arguments.text("--index", options->index, "FILE", "the index file, if it is not beside DATAFILE");
  arguments.choice("--variable", options->variable, {"keep", "drop"},
                   "records whose variable part is lost: keep them without it, "
                   "or drop them");
  arguments.flag("--deleted", options->takes_deleted,
                 "write what is left of deleted records to NEW.deleted.jsonl");
  arguments.flag("--take-all", options->takes_all,
                 "take every slot that looks like a record, wherever it stands");
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.file("DATAFILE", options->data, "what is left of a data file");
  return [options] {
    if (const std::string fault = fault_of(*options); !fault.empty()) {
      std::fprintf(stderr, "zentra: salvage: %s\n", shown(fault).c_str());
      return kUsage;
    }
    options->data = data_file_of_name(options->data);
    checker::cut_suffix(options->to);
    return run_pairs(
        {.command = "salvage",
         .json = options->json,
         .pairs = {options->data},
         .changes = true,
         .work = [&](const std::string&, Report& report) { return salvage(*options, report); }});
  };
}

}  // namespace zentra
