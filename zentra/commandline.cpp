#include "zentra/commandline.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <utility>

#include "isam/calls/version.h"
#include "zentra/commands.h"
#include "zentra/status.h"
#include "zentra/text.h"

namespace zentra {

void Arguments::flag(const char* name, bool& to, const char* help) {
  app_.add_flag(name, to, help);
}

void Arguments::number(const char* name, int& to, int least, int most, const char* kind,
                       const char* help) {
  app_.add_option(name, to, help)->check(CLI::Range(least, most))->type_name(kind);
}

void Arguments::word_of(const char* name, std::string& to, std::vector<std::string> choices,
                        const char* help) {
  app_.add_option(name, to, help)
      ->required()
      ->check(CLI::IsMember(std::move(choices)))
      ->type_name("");
}

void Arguments::words(const char* name, std::vector<std::string>& to, int most, const char* help) {
  app_.add_option(name, to, help)->expected(0, most)->type_name("");
}

void Arguments::json(bool& to) { app_.add_flag("--json", to, "report as JSON, one object a line"); }

void Arguments::wait(double& seconds) {
  app_.add_option("--wait", seconds, "seconds to wait for the lock (10)")
      ->check(CLI::Range(0.0, 1e6))
      ->type_name("SECONDS");
}

void Arguments::pair(std::string& name) {
  app_.add_option("PAIR", name, "base name, or either file of the pair")->required()->type_name("");
}

void Arguments::pairs(std::vector<std::string>& names) {
  app_.add_option("PAIR", names, "base name, or either file of the pair")
      ->required()
      ->expected(1, -1)
      ->type_name("");
}

namespace {

int run_parsed(std::vector<std::string> words) {
  CLI::App app{"Looks after Zentra indexed files.", "zentra"};
  app.set_version_flag("--version", isam::kVersionNumber);
  app.require_subcommand(1);
  std::function<int()> chosen;
  for (const Command& command : commands()) {
    CLI::App* const sub = app.add_subcommand(command.name, command.summary);
    sub->footer(command.never);
    Arguments arguments{*sub};
    const std::function<int()> prepared = command.prepare(arguments);
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
