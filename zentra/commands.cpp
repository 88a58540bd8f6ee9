#include "zentra/commands.h"

namespace zentra {
namespace {

constexpr Command kCommands[] = {
    {"check", "find every fault of pairs", "Not one byte of any file is ever changed.",
     prepare_check},
};

}  // namespace

std::span<const Command> commands() { return kCommands; }

}  // namespace zentra
