#include "zentra/commandline.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>

#include "isam/calls/version.h"
#include "zentra/commands.h"
#include "zentra/status.h"
#include "zentra/text.h"

namespace zentra {
namespace {

int run_parsed(std::vector<std::string> words) {
  CLI::App app{"Looks after Zentra indexed files.", "zentra"};
  app.set_version_flag("--version", isam::kVersionNumber);
  app.require_subcommand(1);
  std::function<int()> chosen;
  for (const Command& command : commands()) {
    CLI::App* const sub = app.add_subcommand(command.name, command.summary);
    sub->footer(command.never);
    const std::function<int()> prepared = command.prepare(*sub);
    sub->callback([&chosen, prepared] { chosen = prepared; });
  }
  // The parser takes a word in brackets for a list: as a file's name it gets a folder in front.
  for (std::string& word : words) {
    if (word.starts_with('[') && word.ends_with(']')) word.insert(0, "./");
  }
  std::ranges::reverse(words);  // as the parser wants them
  try {
    app.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::fprintf(stderr, "zentra: %s\n", shown(error.what()).c_str());
    return kUsage;
  }
  return chosen();
}

}  // namespace

int run(std::vector<std::string> words) {
  try {
    return run_parsed(std::move(words));
  } catch (const std::exception& error) {  // memory, mostly
    std::fprintf(stderr, "zentra: could not be finished: %s\n", shown(error.what()).c_str());
    return static_cast<int>(Status::kUnfinished);
  }
}

}  // namespace zentra
