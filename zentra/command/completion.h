// completion: scripts by which shells complete command lines of `zentra`, made from what its
// subcommands take.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zentra {

// What stands in a place of the command line.
struct Taken {
  enum class Kind { kNothing, kPair, kFile, kWord, kAnything };

  std::vector<std::string> names{};  // of an option, with their hyphens; none: taken by its place
  Kind kind = Kind::kNothing;
  std::vector<std::string> words{};  // kWord: one of these
  bool repeats = false;              // ... and more of them
  std::string help{};
};

struct CommandWords {
  std::string name;
  std::string help;
  std::vector<Taken> taken;
};

// The script for a shell; empty for a shell that is not known. `options`: before a subcommand.
[[nodiscard]] std::string completion(std::string_view shell, const std::vector<Taken>& options,
                                     const std::vector<CommandWords>& commands);

}  // namespace zentra
