// pairlayout: which fields the records of a pair have.
//
// It is the layout that the command line names; else that of the file NAME.layout beside the pair,
// if there is one; else a draft, of the keys and of some records.
#pragma once

#include <string>
#include <vector>

#include "layout/layout.h"

namespace zentra {

struct PairLayout {
  layout::Fields fields;
  std::string file;              // that it was read from; empty for a draft
  std::vector<std::string> why;  // there is none, a line for each reason
};

// "NAME.layout", for a base name.
[[nodiscard]] std::string layout_beside(const std::string& name);
// Whether something stands in it.
[[nodiscard]] bool has_layout_beside(const std::string& name);

// The layout of a file, for records of this length.
[[nodiscard]] PairLayout read_layout(const std::string& file, int record_length, bool has_tail);
// Of the current pair, with its geometry. `wanted`: the file that the command line names, or empty.
[[nodiscard]] PairLayout layout_of_pair(const std::string& wanted, const std::string& name);
[[nodiscard]] layout::Fields draft_of_pair();

}  // namespace zentra
