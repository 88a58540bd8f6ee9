// zentra: tools for Zentra indexed files, one subcommand each.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "common/nulldevice.h"
#include "isam/calls/version.h"
#include "zentra/commands.h"
#include "zentra/status.h"
#include "zentra/text.h"

namespace {

// The arguments, the last one first, as the parser wants them. It takes one in brackets for a list:
// as a file's name it gets a folder in front.
std::vector<std::string> backwards(std::span<char*> arguments) {
  std::vector<std::string> list(arguments.rbegin(), arguments.rend());
  for (std::string& argument : list) {
    if (argument.starts_with('[') && argument.ends_with(']')) argument.insert(0, "./");
  }
  return list;
}

}  // namespace

int main(int argc, char** argv) {
  common::fill_standard_descriptors();
  CLI::App app{"Looks after Zentra indexed files.", "zentra"};
  app.set_version_flag("--version", isam::kVersionNumber);
  app.require_subcommand(1);
  std::function<int()> run;
  for (const zentra::Command& command : zentra::commands()) {
    CLI::App* const sub = app.add_subcommand(command.name, command.summary);
    sub->footer(command.never);
    const std::function<int()> prepared = command.prepare(*sub);
    sub->callback([&run, prepared] { run = prepared; });
  }
  try {
    app.parse(backwards(std::span(argv, static_cast<std::size_t>(argc)).subspan(argc > 0 ? 1 : 0)));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::fprintf(stderr, "zentra: %s\n", zentra::shown(error.what()).c_str());
    return zentra::kUsage;
  }
  return run();
}
