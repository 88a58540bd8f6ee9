// The ready-made shapes of pair_builder.
#include <algorithm>
#include <cstring>

#include "tests/support/made_records.h"

namespace testing_support {

PairSpec mixed_spec(int node_size, int records, std::uint32_t seed) {
  PairSpec spec;
  spec.node_size = node_size;
  spec.records = records;
  spec.seed = seed;
  spec.scatter = seed % 2 == 1;
  spec.fill = seed % 3 == 0 ? 0.6 : 1.0;
  spec.dup_width = seed % 5 == 0 ? 4 : 2;
  spec.keys = {{.flags = 0, .parts = {{0, 12, kChar}}},
               {.flags = kDups | kDCompress, .parts = {{12, 4, kLong}}},
               {.flags = kDups | kDCompress | kLCompress | kTCompress, .parts = {{16, 16, kChar}}},
               {.flags = kDups | kLCompress | kTCompress,
                .parts = {{32, 2, kInt | kDescending}, {16, 8, kChar}}},
               {.flags = kDups, .parts = {{34, 8, kDouble}, {42, 4, kFloat | kDescending}}}};
  for (int number = 5; number < records; number += 7) spec.deleted.insert(number);
  return spec;
}

PairSpec varying_spec(int node_size, int records, int longest, std::uint32_t seed) {
  PairSpec spec;
  spec.node_size = node_size;
  spec.records = records;
  spec.seed = seed;
  spec.record_length = 40;
  spec.max_record_length = longest;
  spec.scatter = seed % 2 == 1;
  spec.keys = {{.flags = 0, .parts = {{0, 12, kChar}}},
               {.flags = kDups | kDCompress | kTCompress, .parts = {{16, 16, kChar}}}};
  for (int number = 4; number < records; number += 9) spec.deleted.insert(number);
  return spec;
}

PairSpec bench_spec(int records) {
  PairSpec spec;
  spec.records = records;
  spec.record_length = 128;
  spec.dup_width = 4;
  spec.keys = {{.flags = 0, .parts = {{0, 8, kChar}}}, {.flags = kDups, .parts = {{8, 20, kChar}}}};
  const auto groups = static_cast<std::uint64_t>(std::max(records / 10, 1));
  spec.make_record = [groups](int number, Image& record) {
    std::fill(record.begin(), record.end(), Byte{' '});
    put_unique(record.data(), {0, 8}, number);
    const std::uint64_t group = static_cast<std::uint64_t>(number) * 2654435761u % groups;
    std::memcpy(record.data() + 8, "NAME", 4);
    put_unique(record.data() + 12, {0, 8}, static_cast<int>(group));
  };
  return spec;
}

}  // namespace testing_support
