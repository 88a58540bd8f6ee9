#include "zentra/command/commandline.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <utility>

#include "isam/calls/version.h"
#include "zentra/command/commands.h"
#include "zentra/command/completion.h"
#include "zentra/report/status.h"
#include "zentra/report/text.h"

namespace zentra {

namespace {

// The parser takes a word in brackets for a list. A mark in front keeps it from that until the word
// is where it belongs.
constexpr char kMark = '\x1f';

void mark(std::string& word) {
  const bool is_in_brackets = word.starts_with('[') && word.ends_with(']');
  if (is_in_brackets || word.starts_with(kMark)) word.insert(0, 1, kMark);
}

std::string unmarked(std::string word) {
  if (word.starts_with(kMark)) word.erase(0, 1);
  return word;
}

// What a word stands for any bytes takes.
void takes_any(CLI::Option* option) { option->transform(unmarked, "")->type_name(""); }

constexpr double kLongestWait = 1e6;

std::string wait_fault(const std::string& text) {
  double seconds = 0;
  const bool is_number = CLI::detail::lexical_cast(text, seconds);
  return is_number && seconds >= 0 && seconds <= kLongestWait
             ? ""
             : "takes seconds from 0 to a million, not " + text;
}

}  // namespace

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

void Arguments::choice(const char* name, std::string& to, std::vector<std::string> choices,
                       const char* help) {
  app_.add_option(name, to, help)->check(CLI::IsMember(std::move(choices)))->type_name("");
}

void Arguments::text(const char* name, std::string& to, const char* kind, const char* help) {
  CLI::Option* const option = app_.add_option(name, to, help);
  takes_any(option);
  option->type_name(kind);
}

void Arguments::texts(const char* name, std::vector<std::string>& to, const char* kind,
                      const char* help) {
  takes_any(app_.add_option(name, to, help)->allow_extra_args(false));
  app_.get_option(name)->type_name(kind);
}

void Arguments::words(const char* name, std::vector<std::string>& to, int most, const char* help) {
  takes_any(app_.add_option(name, to, help)->expected(0, most));
}

void Arguments::json(bool& to) { app_.add_flag("--json", to, "report as JSON, one object a line"); }

void Arguments::wait(double& seconds) {
  app_.add_option("--wait", seconds, "seconds to wait for the lock (10)")
      ->check(wait_fault, "")
      ->type_name("SECONDS");
}

void Arguments::pair(std::string& name) {
  takes_any(app_.add_option("PAIR", name, "base name, or either file of the pair")->required());
}

void Arguments::pairs(std::vector<std::string>& names) {
  takes_any(app_.add_option("PAIR", names, "base name, or either file of the pair")
                ->required()
                ->expected(1, -1));
}

void Arguments::file(const char* kind, std::string& name, const char* help) {
  takes_any(app_.add_option(kind, name, help)->required());
}

namespace {

// The first word that the command line has too much, whatever else is missing; empty for none.
std::string what_is_unknown(const CLI::App& app) {
  const auto subcommands = app.get_subcommands();
  for (const std::string& left : app.remaining(true)) {
    const std::string word = unmarked(left);
    if (word == "--") continue;
    if (word.starts_with('-') && word.size() > 1) return "there is no option " + word;
    return subcommands.empty() ? "there is no subcommand " + word + "; zentra --help lists them"
                               : subcommands.front()->get_name() + ": one word too many: " + word;
  }
  return "";
}

// The words of which the parser takes one: {a,b}.
std::vector<std::string> choices_of(CLI::Option& option) {
  std::vector<std::string> words;
  try {
    const std::string described = option.get_validator(0)->get_description();
    if (described.starts_with('{') && described.ends_with('}')) {
      words = CLI::detail::split(described.substr(1, described.size() - 2), ',');
    }
  } catch (const CLI::OptionNotFound&) {  // it takes anything
  }
  return words;
}

// What the parser takes, in the words of the shells' completion.
std::vector<Taken> taken_by(CLI::App& app) {
  std::vector<Taken> all;
  for (CLI::Option* const option : app.get_options()) {
    Taken one{.help = option->get_description()};
    for (const std::string& name : option->get_snames()) one.names.push_back('-' + name);
    for (const std::string& name : option->get_lnames()) one.names.push_back("--" + name);
    one.repeats = option->get_items_expected_max() > 1;
    const std::string kind =
        option->get_positional() ? option->get_name(true) : option->get_type_name();
    one.words = choices_of(*option);
    if (!one.words.empty()) {
      one.kind = Taken::Kind::kWord;
    } else if (kind == "PAIR") {
      one.kind = Taken::Kind::kPair;
    } else if (kind == "FILE" || kind == "DATAFILE") {
      one.kind = Taken::Kind::kFile;
    } else if (option->get_positional() || option->get_expected_max() != 0) {
      one.kind = Taken::Kind::kAnything;
    }
    all.push_back(std::move(one));
  }
  return all;
}

int print_completion(CLI::App& app, const std::string& shell) {
  std::vector<CommandWords> all;
  for (CLI::App* const sub : app.get_subcommands([](CLI::App* /*any*/) { return true; })) {
    all.push_back({sub->get_name(), sub->get_description(), taken_by(*sub)});
  }
  const std::string script = completion(shell, taken_by(app), all);
  const bool is_whole = std::fputs(script.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
  return static_cast<int>(is_whole ? Status::kSound : Status::kUnfinished);
}

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
  CLI::App* const sub = app.add_subcommand("completion", "print what a shell completes");
  std::string shell;
  Arguments{*sub}.word_of("SHELL", shell, {"bash", "zsh", "fish"}, "bash, zsh or fish");
  sub->callback([&] { chosen = [&] { return print_completion(app, shell); }; });
  std::ranges::for_each(words, mark);
  std::ranges::reverse(words);  // as the parser wants them
  try {
    app.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    const std::string unknown = what_is_unknown(app);
    if (unknown.empty() && error.get_exit_code() == 0) return app.exit(error);
    std::fprintf(stderr, "zentra: %s\n", shown(unknown.empty() ? error.what() : unknown).c_str());
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
