// zentra check: looks at pairs as they are at one moment, also while others have them open.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <chrono>
#include <memory>

#include "checker/driver.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "zentra/check/collector.h"
#include "zentra/check/deep.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairnames.h"
#include "zentra/command/pairrunner.h"
#include "zentra/pair/readpair.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;

struct CheckOptions {
  bool quick = false;
  bool json = false;
  int jobs = 1;
  double wait = 10;
  std::vector<std::string> names;
};

std::string sentence(Status status) {
  switch (status) {
    case Status::kSound:
      return "sound";
    case Status::kDamaged:
      return "damaged; zentra repair or kestro -y heals it";
    case Status::kNeedsSalvage:
      return "no sound pair, and nothing that repair heals: it needs salvage (zentra salvage)";
    default:
      return "could not be checked to its end";
  }
}

std::string sentence(const Collector& collector) {
  const auto& beyond = collector.beyond_kestro();
  const Status status = collector.status();
  if (status == Status::kNeedsSalvage && collector.needs_descriptions()) {
    return "damaged: it lacks descriptions of indexes; zentra repair heals it, with --keys, --like "
           "or --force";
  }
  if (status == Status::kNeedsSalvage && beyond.contains(kRecordLength)) {
    return "damaged: its dictionary or its data file is another pair's, or the record length is "
           "damaged, which zentra repair --force heals: its plan tells more";
  }
  if (status != Status::kDamaged) return sentence(status);
  // Where the index is cut, what it lacks is why the library met errors.
  if (beyond.contains("library.error") && !beyond.contains(kIndexEnd)) {
    return fmt::format(
        "damaged, in part beyond what kestro heals ({}); zentra repair tells what it would do",
        fmt::join(beyond, ", "));
  }
  std::string text = sentence(status);
  if (!beyond.empty()) {
    text = fmt::format("damaged; zentra repair heals it, kestro not all of it ({})",
                       fmt::join(beyond, ", "));
  } else if (collector.may_lose_records()) {
    text = "damaged; zentra repair heals it";
  }
  if (collector.may_lose_records()) text += ", but records may be lost: its plan names them";
  if (!collector.may_have_equal_keys()) return text;
  return text + ", unless records have equal keys in an index without duplicates";
}

// The status of what could not be opened, locked or read.
Outcome refused(const ReadPair& pair, Report& report) {
  const bool is_none = pair.status() == Status::kNeedsSalvage;
  const Fields fields = tell_refusal(pair, report);
  report.pair_ends(pair.status(), is_none ? sentence(pair.status()) : pair.why(), fields);
  return {.status = pair.status(), .findings = is_none ? 1 : 0};
}

Fields totals(const checker::Check& check, const Collector& collector) {
  Fields fields{{"findings", collector.findings()}};
  if (!check.sized) return fields;
  const checker::Summary summary = checker::summary_of(check);
  const auto add = [&](const char* name, std::int64_t value) { fields.emplace_back(name, value); };
  add("records", summary.records_used);
  add("free-records", summary.records_free);
  add("indexes", collector.indexes());
  add("nodes", summary.nodes_used);
  add("free-nodes", summary.nodes_free);
  if (summary.varlen) add("storage-pages", summary.pages);
  return fields;
}

Outcome check_pair(const CheckOptions& options, const std::string& name, Report& report) {
  const auto start = steady_clock::now();
  ReadPair pair;
  if (!pair.open(name, as_time(options.wait)) || !pair.load()) return refused(pair, report);
  isam::RecordLocks locks(isam::dictp->d_nextdata());
  std::unique_ptr<Collector> collector;
  DeepCollector* deep = nullptr;
  if (options.quick) {
    collector = std::make_unique<Collector>(report, std::move(locks));
  } else {
    auto owner = std::make_unique<DeepCollector>(report, std::move(locks));
    deep = owner.get();
    collector = std::move(owner);
  }
  const checker::Options how{.nflag = 1, .qflag = 1};
  checker::Check check(how, *collector);
  static_cast<void>(check_whole(check, *collector, deep, [&pair] { pair.let_go(); }));
  isam::clear_errors();
  collector->tell_kept();
  Fields fields = totals(check, *collector);
  fields.emplace_back("seconds-held", pair.seconds_held());
  fields.emplace_back("seconds",
                      std::chrono::duration<double>(steady_clock::now() - start).count());
  report.pair_ends(collector->status(), sentence(*collector), fields);
  return {.status = collector->status(), .findings = collector->findings()};
}

// The pairs of the command line, or those that standard input names: all of them at once for
// several jobs, else as they come.
void name_pairs(const CheckOptions& options, Run& run) {
  run.names_on_input = options.names == std::vector<std::string>{kNamesOnInput};
  if (!run.names_on_input) {
    run.pairs = pairs_named(options.names);
  } else if (options.jobs == 1) {
    run.next = next_name;
  } else {
    std::vector<std::string> names;
    for (std::string name; next_name(name);) names.push_back(name);
    run.pairs = pairs_named(names);
  }
}

}  // namespace

std::function<int()> prepare_check(Arguments& arguments) {
  const auto options = std::make_shared<CheckOptions>();
  arguments.flag("--quick", options->quick,
                 "look only at what kestro looks at: not at keys in records and pieces of records");
  arguments.json(options->json);
  arguments.number("-j", options->jobs, 1, 1024, "N", "pairs looked at at the same time");
  arguments.wait(options->wait);
  arguments.pairs(options->names);
  return [options] {
    Run run{.command = "check",
            .json = options->json,
            .jobs = options->jobs,
            .work = [&](const std::string& name, Report& report) {
              return check_pair(*options, name, report);
            }};
    name_pairs(*options, run);
    return run_pairs(run);
  };
}

}  // namespace zentra
