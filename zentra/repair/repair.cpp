// zentra repair: tells what it would do, does it on a copy, and puts that into the pair when it
// checks clean.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "checker/checks.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"
#include "zentra/check/deep.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairnames.h"
#include "zentra/command/pairrunner.h"
#include "zentra/keys/newkeys.h"
#include "zentra/pair/readpair.h"
#include "zentra/repair/mending.h"
#include "zentra/repair/repairplan.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;

struct RepairOptions {
  bool yes = false;
  bool dry_run = false;
  bool force = false;
  bool json = false;
  double wait = 10;
  std::string variable;
  std::string state;
  std::string keys_file;
  std::string like;
  std::string name;
  std::vector<keydescr> keys{};  // of that file or pair

  [[nodiscard]] std::chrono::milliseconds waits() const {
    return std::chrono::milliseconds(static_cast<std::int64_t>(wait * 1000));
  }
  [[nodiscard]] LostPart lost_part() const {
    if (variable.empty()) return LostPart::kNotSaid;
    return variable == "keep" ? LostPart::kKeep : LostPart::kDrop;
  }
};

// What the first look has come to.
struct Look {
  Status status = Status::kUnfinished;
  std::int64_t findings = 0;
  std::string why;  // not empty: there is no plan
  Fields fields;
  Plan plan;
};

// Where a pair has lost its descriptions: what the trees tell of them.
PlanOptions plan_options(const RepairOptions& options, const checker::Check& check, bool are_lost,
                         Report& report) {
  PlanOptions how{.lost_part = options.lost_part(),
                  .keeps_backed = options.state == "keep",
                  .keys = options.keys};
  if (!are_lost || !options.keys.empty()) return how;
  ProposedKeys proposed = propose_keys(check);
  isam::clear_errors();
  how.system_error = proposed.system_error;
  if (how.system_error != 0) return how;
  how.has_proposal = !proposed.keys.empty();
  std::istringstream lines(proposed.text);
  for (std::string line; how.has_proposal && std::getline(lines, line);) {
    report.entry({.kind = Entry::Kind::kNote, .code = "repair.proposed-keys", .text = line});
  }
  if (!options.force) return how;
  how.keys = std::move(proposed.keys);
  how.are_proposed = true;
  return how;
}

// Behind a check that stopped early: looks at the records all the same.
void look_at_records(checker::Check& check, DeepCollector& collector) {
  if (isam::mktemprec(std::max(isam::filep->geometry.maxreclen, 1)) != 0) return;
  if (check.datmap.cntmap() == 0) {
    checker::ckdata(check);
    if (check.varlen) checker::ckrpage(check);
  }
  check_storage(check, collector);
  if (check.system_error != 0) collector.unfinished(check.system_error);
}

constexpr checker::Options kHow{.nflag = 1, .qflag = 1};

// A whole check of the current pair. `report`: null for one that nobody is told.
struct Checked {
  explicit Checked(Report* report) : notes(report) {
    if (!whole && check.sized) look_at_records(check, collector);
    isam::clear_errors();
    collector.tell_kept();
  }

  Notes notes;
  DeepCollector collector{notes, isam::RecordLocks{isam::dictp->d_nextdata()}};
  checker::Check check{kHow, collector};
  bool whole = check_whole(check, collector, &collector, [] {});
};

Plan plan_of(const Checked& checked, PlanOptions how, double seconds) {
  const checker::Check& check = checked.check;
  if (!checked.notes.has(kRecordLength)) {
    return make_plan(check, checked.notes, how, checked.whole, seconds);
  }
  // By the other length other records are there, so all is looked at again. The dictionary is
  // changed in memory alone.
  how.record_length = static_cast<int>(checked.notes.value(kRecordLength, "expected"));
  how.wrong_length = isam::dictp->d_recsize();
  isam::dictp->set_d_recsize(how.record_length);
  const Checked again(nullptr);
  if (again.collector.status() != Status::kUnfinished) {
    return make_plan(again.check, again.notes, how, again.whole, seconds);
  }
  Plan plan;
  plan.hopeless = again.notes.text("system.error");
  plan.system_error = static_cast<int>(again.notes.value("system.error", "error"));
  return plan;
}

Look look_at(const RepairOptions& options, Report& report) {
  Look look;
  const auto start = steady_clock::now();
  ReadPair pair;
  if (!pair.open(options.name, options.waits()) || !pair.load()) {
    look.fields = tell_refusal(pair, report);
    look.status = pair.status();
    look.findings = pair.status() == Status::kNeedsSalvage ? 1 : 0;
    look.why = pair.why();
    return look;
  }
  const Checked checked(&report);
  const Notes& notes = checked.notes;
  look.status = checked.collector.status();
  look.findings = checked.collector.findings();
  look.fields = {{"findings", look.findings}};
  const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
  if (look.status == Status::kDamaged || look.status == Status::kNeedsSalvage) {
    const bool are_lost = checked.check.sized && descriptions_are_lost(notes);
    look.plan = plan_of(checked, plan_options(options, checked.check, are_lost, report), seconds);
    look.why = look.plan.hopeless;
    if (look.plan.system_error != 0) look.status = Status::kUnfinished;
  } else if (look.status != Status::kSound) {
    look.why = notes.has("system.error") ? notes.text("system.error") : notes.first();
  }
  return look;
}

void tell_plan(const Plan& plan, Report& report) {
  for (const Entry& step : plan.steps) report.entry(step);
  if (plan.steps.empty()) return;
  report.entry(
      {.kind = Entry::Kind::kNote,
       .code = "repair.cost",
       .text = fmt::format("the repair takes about {:.0f} s, and up to {} bytes beside the "
                           "index while it lasts",
                           plan.seconds, grouped(plan.bytes)),
       .fields = {{"seconds", plan.seconds}, {"bytes", plan.bytes}}});
}

bool may_ask(const RepairOptions& options) { return !options.json && ::isatty(STDIN_FILENO) == 1; }

bool is_agreed() {
  erase_progress();
  std::fputs("Do it? ", stdout);
  std::fflush(stdout);
  const int first = std::getchar();
  for (int next = first; next != '\n' && next != EOF;) next = std::getchar();
  return first == 'y' || first == 'Y';
}

// What a dry run comes to, and what --yes alone would refuse.
std::string dry_run_text(const RepairOptions& options, const Plan& plan) {
  std::vector<std::string> needs;
  if (plan.needs_choice) needs.emplace_back("--variable=keep or drop");
  if (!options.force && !plan.implausible.empty()) {
    needs.push_back(fmt::format("--force: {}", fmt::join(plan.implausible, "; ")));
  }
  std::string text = "dry run: nothing is changed";
  if (!needs.empty()) text += fmt::format(" (needs {})", fmt::join(needs, ", and "));
  return text;
}

// What of a pair went to the losses, in words.
std::string lost_text(const BadRecords& bad, std::int64_t lines) {
  const std::int64_t records = std::ranges::count(bad, Fate::kDropped, &BadRecord::fate);
  const std::int64_t parts = std::ranges::count(bad, Fate::kEmptied, &BadRecord::fate);
  const std::int64_t rests = std::max<std::int64_t>(0, lines - records - parts);
  std::vector<std::string> all;
  if (records > 0) all.push_back(fmt::format("{} record(s)", grouped(records)));
  if (parts > 0) all.push_back(fmt::format("{} variable part(s)", grouped(parts)));
  if (rests > 0) all.push_back(fmt::format("what {} absent record(s) had", grouped(rests)));
  return fmt::format("{}", fmt::join(all, ", "));
}

// Why nothing is done, unless it is to be done.
std::optional<std::string> objection(const RepairOptions& options, const Look& look) {
  const bool is_planned = look.why.empty() || look.plan.needs_choice;
  if (options.dry_run && is_planned) return dry_run_text(options, look.plan);
  if (!look.why.empty()) return "not repaired: " + look.why;
  if (!options.force && !look.plan.implausible.empty()) {
    return fmt::format("not repaired: {}; --force repairs it all the same",
                       fmt::join(look.plan.implausible, "; "));
  }
  if (options.yes) return {};
  if (!may_ask(options)) return "not repaired: nobody has agreed to it; --yes does";
  if (is_agreed()) return {};
  return "not repaired: it was not agreed to";
}

// Waits for a pair that others have open, as long as it is to.
std::unique_ptr<Mending> mend(const RepairOptions& options, const Plan& plan) {
  constexpr auto kPause = std::chrono::milliseconds(50);
  const auto until = steady_clock::now() + options.waits();
  for (;;) {
    auto mending = std::make_unique<Mending>(plan, options.name);
    mending->run();
    if (!mending->is_in_use() || steady_clock::now() >= until) return mending;
    show_progress("Waiting for the lock", 0, 0, 0);
    std::this_thread::sleep_for(kPause);
  }
}

Outcome conclude(const Mending& mending, const Look& look, const std::string& name,
                 Report& report) {
  if (!mending.is_done()) {
    for (const Entry& entry : mending.left()) {
      report.entry({.kind = Entry::Kind::kNote, .code = "repair.left", .text = entry.text});
    }
    const Status status = mending.is_in_use() ? Status::kInUse : Status::kUnfinished;
    report.pair_ends(status, "not repaired: " + mending.why(), look.fields);
    return {.status = status, .findings = look.findings};
  }
  Fields fields = mending.totals();
  fields.emplace_back("findings", look.findings);
  fields.emplace_back("kept", FileBytes{.bytes = mending.kept()});
  std::string text = "repaired; it checks clean. zentra undo takes it back";
  if (look.plan.unreached > 0) {
    fields.emplace_back("unreached", look.plan.unreached);
    text += fmt::format("; {} record(s) are no longer reached, their keys stand in {}",
                        grouped(look.plan.unreached), shown(mending.kept()));
  }
  if (mending.lost() > 0) {
    fields.emplace_back("lost", mending.lost());
    fields.emplace_back("losses", FileBytes{.bytes = losses_of(name)});
    text += fmt::format("; {} went to {}", lost_text(look.plan.bad, mending.lost()),
                        shown(losses_of(name)));
  }
  report.pair_ends(Status::kSound, text, fields);
  return {.status = Status::kSound, .findings = look.findings};
}

Outcome repair_pair(RepairOptions options, Report& report) {
  if (!options.keys_file.empty() || !options.like.empty()) {
    NewKeys keys = options.like.empty() ? keys_of_file(options.keys_file)
                                        : keys_like(options.like, options.waits());
    if (!keys.why.empty()) {
      report.pair_ends(keys.status, "not repaired: " + keys.why, {});
      return {.status = keys.status};
    }
    options.keys = std::move(keys.keys);
  }
  Look look;
  with_output_held([&] {
    look = look_at(options, report);
    tell_plan(look.plan, report);
  });
  if (look.status == Status::kSound) {
    report.pair_ends(Status::kSound, "sound; nothing to repair", look.fields);
    return {.status = Status::kSound};
  }
  if (const auto objected = objection(options, look)) {
    report.pair_ends(look.status, *objected, look.fields);
    return {.status = look.status, .findings = look.findings};
  }
  const auto mending = mend(options, look.plan);
  return conclude(*mending, look, options.name, report);
}

}  // namespace

std::function<int()> prepare_repair(Arguments& arguments) {
  const auto options = std::make_shared<RepairOptions>();
  arguments.flag("-y,--yes", options->yes, "do what the plan says without asking");
  arguments.flag("-n,--dry-run", options->dry_run, "tell the plan and do nothing");
  arguments.flag("--force", options->force, "repair even what makes the plan implausible");
  arguments.choice("--variable", options->variable, {"keep", "drop"},
                   "records whose variable part is lost: keep them without it, or drop them");
  arguments.choice("--state", options->state, {"keep", "drop"},
                   "records whose state alone is damaged: make them present, or drop them");
  arguments.text("--keys", options->keys_file, "FILE",
                 "descriptions of its indexes; zentra-keys(5)");
  arguments.text("--like", options->like, "PAIR", "take the descriptions of this pair");
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.pair(options->name);
  return [options] {
    if (!options->keys_file.empty() && !options->like.empty()) {
      std::fputs("zentra: --keys and --like exclude each other\n", stderr);
      return kUsage;
    }
    return run_pairs({.command = "repair",
                      .json = options->json,
                      .pairs = pairs_named({options->name}),
                      .changes = true,
                      .asks = true,
                      .work = [&](const std::string& name, Report& report) {
                        RepairOptions own = *options;
                        own.name = name;
                        return repair_pair(std::move(own), report);
                      }});
  };
}

}  // namespace zentra
