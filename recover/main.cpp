// isrecover: applies a transaction log to restored files, and lists logs and audit trails.
#include <cstdio>

#include "common/nulldevice.h"
#include "isam/calls/version.h"
#include "recover/loglisting.h"
#include "recover/options.h"
#include "recover/output.h"
#include "recover/replay.h"
#include "recover/trail.h"

namespace {

using recover::Status;

Status run(const recover::Options& options) {
  switch (options.task) {
    case recover::Task::kListLog:
      return recover::list_log(options.file, options.dump);
    case recover::Task::kListTrail:
      return recover::list_trail(options);
    case recover::Task::kHelp:
      recover::print(recover::usage_text());
      return Status::kAll;
    case recover::Task::kVersion:
      std::printf("isrecover %s\n", isam::kVersionNumber);
      return Status::kAll;
    default:
      return recover::replay_log(options);
  }
}

}  // namespace

int main(int argc, char** argv) {
  common::fill_standard_descriptors();
  const auto options = recover::parse_options(argc, argv);
  if (!options) {
    std::fprintf(stderr, "try: isrecover --help\n");
    return static_cast<int>(Status::kFailed);
  }
  Status status = run(*options);
  if (!recover::finish_output()) {
    recover::complain("the report could not be written");
    status = Status::kFailed;
  }
  return static_cast<int>(status);
}
