// commands: the subcommands of `zentra`, each in a file of its own.
#pragma once

#include <functional>
#include <span>

#include "zentra/command/arguments.h"

namespace zentra {

struct Command {
  const char* name;
  const char* summary;
  const char* never;  // what is never changed
  // Adds the options, and gives what is to be done with them: the exit status.
  std::function<int()> (*prepare)(Arguments& arguments);
};

[[nodiscard]] std::span<const Command> commands();

std::function<int()> prepare_check(Arguments& arguments);
std::function<int()> prepare_diff(Arguments& arguments);
std::function<int()> prepare_dump(Arguments& arguments);
std::function<int()> prepare_info(Arguments& arguments);
std::function<int()> prepare_layout(Arguments& arguments);
std::function<int()> prepare_load(Arguments& arguments);
std::function<int()> prepare_reindex(Arguments& arguments);
std::function<int()> prepare_repair(Arguments& arguments);
std::function<int()> prepare_salvage(Arguments& arguments);
std::function<int()> prepare_show(Arguments& arguments);
std::function<int()> prepare_undo(Arguments& arguments);

}  // namespace zentra
