#include "tests/support/made_records.h"

#include <algorithm>
#include <cstring>

namespace testing_support {
namespace {

void put_value(Byte* at, const PartSpec& part, Random& random) {
  const int small = static_cast<int>(random(40)) - 20;
  switch (part.type & ~kDescending) {
    case kInt:
      return put2(at, small);
    case kLong:
      return put4(at, small * 1000);
    case kDouble: {
      const double value = small / 4.0;
      std::memcpy(at, &value, sizeof value);
      if (random(10) == 0) std::memset(at, 0xFF, sizeof value);
      return;
    }
    case kFloat: {
      const float value = static_cast<float>(small) / 4;
      std::memcpy(at, &value, sizeof value);
      if (random(6) == 0) std::memset(at, 0xFF, sizeof value);
      return;
    }
    default: {
      std::memset(at, ' ', static_cast<std::size_t>(part.length));
      const int letters = static_cast<int>(random(static_cast<std::uint32_t>(part.length))) / 2 + 1;
      for (int i = 0; i < std::min(letters, part.length); ++i) {
        at[i] = static_cast<Byte>('A' + random(i < 2 ? 3 : 26));
      }
    }
  }
}

}  // namespace

void put_unique(Byte* at, const PartSpec& part, int number) {
  std::memset(at, ' ', static_cast<std::size_t>(part.length));
  std::uint64_t spread = static_cast<std::uint64_t>(number) * 2654435761u % 4294967291u;
  for (int i = std::min(part.length, 8); i-- > 0; spread /= 26) {
    at[i] = static_cast<Byte>('A' + spread % 26);
  }
}

void make_default_record(const PairSpec& spec, int number, Random& random, Image& record) {
  for (Byte& byte : record) byte = static_cast<Byte>('a' + random(26));
  for (std::size_t i = 1; i < spec.keys.size(); ++i) {
    for (const PartSpec& part : spec.keys[i].parts) {
      put_value(record.data() + part.start, part, random);
    }
  }
  if (!spec.keys.empty() && !spec.keys[0].parts.empty()) {
    const PartSpec& part = spec.keys[0].parts[0];
    put_unique(record.data() + part.start, part, number);
  }
}

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

}  // namespace testing_support
