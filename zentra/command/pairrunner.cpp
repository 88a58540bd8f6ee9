#include "zentra/command/pairrunner.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "zentra/command/crew.h"
#include "zentra/command/heldoutput.h"
#include "zentra/command/pairnames.h"
#include "zentra/command/pairwork.h"
#include "zentra/report/progress.h"
#include "zentra/report/text.h"

namespace zentra {

std::unique_ptr<Report> report_of(const Run& run) {
  return run.json ? json_report(run.good) : text_report(::isatty(STDOUT_FILENO) == 1);
}

bool output_is_whole() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

Outcome work_on(const Run& run, std::size_t at, Report& report) {
  const int number = static_cast<int>(at) + 1;
  const int pairs = static_cast<int>(run.pairs.size());
  progress_of_pair(number, pairs);
  report.pair_begins(number, pairs, run.pairs[at]);
  try {
    return run.work(run.pairs[at], report);
  } catch (const std::bad_alloc&) {
    report.pair_ends(Status::kUnfinished, "could not be finished: no memory", {});
    return {};
  }
}

Outcome work_held(const Run& run, std::size_t at, Report& report) {
  const HeldOutput held;
  return work_on(run, at, report);
}

void with_output_held(const std::function<void()>& work) {
  const HeldOutput held;
  work();
}

namespace {

// Each report is out before the next name is asked for.
void work_as_they_come(Run run, Report& report, std::vector<Outcome>& outcomes) {
  for (std::string name; output_is_whole() && run.next(name);) {
    run.pairs.push_back(std::move(name));
    outcomes.push_back(work_held(run, run.pairs.size() - 1, report));
  }
}

}  // namespace

int run_pairs(const Run& run) {
  start_progress();
  const std::unique_ptr<Report> report = report_of(run);
  report->begin(run.command, static_cast<int>(run.pairs.size()));
  std::vector<Outcome> outcomes;
  if (run.jobs > 1 && run.pairs.size() > 1) {
    outcomes = work_in_crew(run, *report);
  } else {
    for (std::size_t at = 0; at < run.pairs.size(); ++at) {
      outcomes.push_back(run.asks ? work_on(run, at, *report) : work_held(run, at, *report));
    }
  }
  if (run.next) work_as_they_come(run, *report, outcomes);
  checker::Tally tally;
  for (const Outcome& outcome : outcomes) tally.add(outcome.status, outcome.findings);
  Status worst = tally.worst();
  erase_progress();
  if (run.names_on_input && !names_are_whole()) {
    std::fputs("zentra: the names could not all be read\n", stderr);
    worst = Status::kUnfinished;
  }
  report->end(worst, tally.fields(run.good));
  if (!output_is_whole()) {
    std::fprintf(stderr, "zentra: the report could not be written: %s\n", std::strerror(errno));
    if (!run.changes) worst = Status::kUnfinished;
  }
  return static_cast<int>(worst);
}

}  // namespace zentra
