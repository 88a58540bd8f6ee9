#include "zentra/commands.h"

namespace zentra {
namespace {

constexpr Command kCommands[] = {
    {"check", "find every fault of pairs", "Not one byte of any file is ever changed.",
     prepare_check},
    {"info", "tell what pairs are", "Not one byte of any file is ever changed.", prepare_info},
    {"show", "show the bytes of a record, a node or the dictionary, each named",
     "Not one byte of any file is ever changed.", prepare_show},
    {"undo", "put the index of before the last repair back",
     "The data file is never changed, and nothing at all when it is refused.", prepare_undo},
};

}  // namespace

std::span<const Command> commands() { return kCommands; }

}  // namespace zentra
