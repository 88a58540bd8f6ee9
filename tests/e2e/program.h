// program: runs of kestro in a folder of their own.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/damage.h"
#include "tests/support/run_program.h"

namespace testing_support {

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class ProgramTest : public testing::Test {
 protected:
  RunResult kestro(std::vector<std::string> words, const std::string& input = {},
                   std::vector<std::string> environment = {}) {
    words.insert(words.begin(), KESTRO_PROGRAM);
    return run_program({.words = std::move(words),
                        .folder = folder_.path(),
                        .input = input,
                        .environment = std::move(environment),
                        .seconds = 30});
  }

  // A pair with a lost item in index 1 and a data free list that names a record in use.
  BuiltPair damaged_pair() {
    BuiltPair built = build_pair(fault_spec(false), folder_ / "pair");
    PairEditor editor(built);
    Byte* leaf = editor.node(built.indexes[0].leaves.front());
    put2(leaf, get2(leaf) - 16);
    put4(editor.node(built.free_data_list.front()) + 6, 7);
    editor.save();
    return built;
  }

  TempFolder folder_;
};

}  // namespace testing_support
