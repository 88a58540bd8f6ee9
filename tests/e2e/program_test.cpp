// The program on sound pairs of many shapes.
#include "tests/e2e/program.h"

#include <gtest/gtest.h>

#include "tests/support/pair_walk.h"

namespace testing_support {
namespace {

using Program = ProgramTest;

// Every shape that can be built is sound, silent, and listed without a finding.
TEST_F(Program, IsSilentAboutSoundPairs) {
  for (const int node_size : {128, 131, 256, 512, 1000, 1024, 1025}) {
    for (const std::uint32_t seed : {1u, 2u, 5u, 6u}) {
      for (const bool varying : {false, true}) {
        PairSpec spec = varying ? varying_spec(node_size, 90, seed == 1 ? 200 : 3000, seed)
                                : mixed_spec(node_size, 150, seed);
        spec.free_nodes = static_cast<int>(seed) * 9;
        spec.audit_node = seed == 2;
        spec.records_behind = seed == 5 ? 4 : 0;
        spec.nodes_behind = seed == 6 ? 3 : 0;
        const BuiltPair built = build_pair(spec, folder_ / "pair");
        ASSERT_EQ(walk_pair(built.base).problems, std::vector<std::string>{});
        for (const char* options : {"-nq", "-nlq", "-niq"}) {
          const std::string out = kestro({options, "pair"}).out;
          ASSERT_EQ(out.find("ERROR"), std::string::npos) << node_size << " " << seed << out;
          ASSERT_NE(out.find("data record(s) used"), std::string::npos);
        }
      }
    }
  }
}

}  // namespace
}  // namespace testing_support
