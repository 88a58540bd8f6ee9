#include "common/io.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace common {
namespace {

std::string calls;

ssize_t note_call(int /*fd*/, const void* from, std::size_t count, off_t at) {
  // The bytes tell their places.
  EXPECT_EQ(*static_cast<const Byte*>(from), static_cast<Byte>(at / 1000)) << at;
  calls += std::to_string(at) + "+" + std::to_string(count) + " ";
  return static_cast<ssize_t>(count);
}

TEST(WriteInPieces, EndsEachAtAMultipleOfTheirSize) {
  struct Case {
    std::int64_t offset;
    std::size_t length;
    const char* calls;
  };
  const SystemCalls kept = system_calls();
  for (const Case& one : std::vector<Case>{{0, 0, ""},
                                           {0, 1, "0+1 "},
                                           {0, 16384, "0+16384 "},
                                           {0, 16385, "0+16384 16384+1 "},
                                           {16383, 1, "16383+1 "},
                                           {16383, 2, "16383+1 16384+1 "},
                                           {16384, 16384, "16384+16384 "},
                                           {1000, 40000, "1000+15384 16384+16384 32768+8232 "}}) {
    std::vector<Byte> bytes;
    for (std::size_t at = 0; at < one.length; ++at) {
      bytes.push_back(static_cast<Byte>((one.offset + static_cast<std::int64_t>(at)) / 1000));
    }
    calls.clear();
    system_calls().pwrite = note_call;
    const int result = write_in_pieces(-1, bytes, one.offset);
    system_calls() = kept;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(calls, one.calls);
  }
}

}  // namespace
}  // namespace common
