#include "zentra/command/commands.h"

namespace zentra {
namespace {

constexpr Command kCommands[] = {
    {"check", "find every fault of pairs", "Not one byte of any file is ever changed.",
     prepare_check},
    {"diff", "tell what two pairs differ in", "Not one byte of any file is ever changed.",
     prepare_diff},
    {"dump", "write the records of a pair as CSV or as JSON",
     "Not one byte of the pair is ever changed.", prepare_dump},
    {"info", "tell what pairs are", "Not one byte of any file is ever changed.", prepare_info},
    {"layout", "draft the fields of a pair's records", "Not one byte of any file is ever changed.",
     prepare_layout},
    {"load", "make a pair of the records of a text",
     "A pair that was there before, but for one that --into names.", prepare_load},
    {"reindex", "make an index file for a data file that has none",
     "Not one byte of the data file is ever changed.", prepare_reindex},
    {"repair", "mend a pair, after a plan and on a copy",
     "Nothing is changed before the plan is confirmed, nor when the result would not check clean. "
     "Of the data file only states of records, and their references.",
     prepare_repair},
    {"salvage", "make a new pair of what is left of a data file",
     "Not one byte of the files that it reads is ever changed, and no file is replaced.",
     prepare_salvage},
    {"show", "show the bytes of a record, a node or the dictionary, each named",
     "Not one byte of any file is ever changed.", prepare_show},
    {"undo", "put the index of before the last repair back",
     "Nothing of the data file but what the repair had changed, and nothing at all when it is "
     "refused.",
     prepare_undo},
};

}  // namespace

std::span<const Command> commands() { return kCommands; }

}  // namespace zentra
