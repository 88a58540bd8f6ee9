// commands: the subcommands of `zentra`, each in a file of its own.
#pragma once

#include <functional>
#include <span>

namespace CLI {
class App;
}

namespace zentra {

struct Command {
  const char* name;
  const char* summary;
  const char* never;  // what is never changed
  // Adds the options, and gives what is to be done with them: the exit status.
  std::function<int()> (*prepare)(CLI::App& app);
};

[[nodiscard]] std::span<const Command> commands();

std::function<int()> prepare_check(CLI::App& app);
std::function<int()> prepare_info(CLI::App& app);
std::function<int()> prepare_show(CLI::App& app);
std::function<int()> prepare_undo(CLI::App& app);

}  // namespace zentra
