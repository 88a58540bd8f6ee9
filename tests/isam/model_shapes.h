// model_shapes: the pairs that the model is tried on, and the records and modes drawn for them.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "isam.h"
#include "tests/support/descriptions.h"

namespace testing_support::model {

using Bytes = std::string;

// All records begin alike: a name, an id, a rank, an amount that may be null, and a text.
inline constexpr int kMinimum = 61;
inline constexpr keypart kName{0, 8, KT_CHAR}, kId{8, 4, KT_LONG}, kRank{12, 2, KT_INT},
    kRankDown{12, 2, KT_INT | KT_DESC}, kAmount{14, 8, KT_DOUBLE},
    kAmountDown{14, 8, KT_DOUBLE | KT_DESC}, kText{22, 12, KT_CHAR},
    kTextDown{22, 12, KT_CHAR | KT_DESC};

inline unsigned setting(const char* name, unsigned otherwise) {
  const char* value = std::getenv(name);
  return value == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(value, nullptr, 10));
}

struct Shape {
  std::string name;
  int maximum;             // record length; above kMinimum with variable length
  std::vector<int> locks;  // lock mode of each open
  std::vector<keydescr> keys;
  const char* buffers = "16";  // of the pool, at first
  int node_size = 1024;
  unsigned calls = setting("KESTRO_MODEL_CALLS", 20000);
};

inline void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

inline const std::vector<Shape> kShapes = {
    {"NumbersOnly", kMinimum, {ISMANULOCK}, {key_of({})}},
    {"NumbersVarying",
     4500,
     {ISAUTOLOCK, ISEXCLLOCK},
     {key_of({}), key_of({kText}, KF_DUPS | KF_LCOMPRESS)}},
    {"Plain", kMinimum, {ISMANULOCK, ISAUTOLOCK}, {key_of({kId})}},
    {"TwoVarying",
     5200,
     {ISEXCLLOCK},
     {key_of({kText, kId}, KF_TCOMPRESS), key_of({kName}, KF_DUPS | KF_COMPRESS)}},
    {"DuplicatesFirst",
     kMinimum,
     {ISMANULOCK, ISEXCLLOCK, ISAUTOLOCK},
     {key_of({kRankDown, kName}, KF_DUPS), key_of({kName, kId}, KF_LCOMPRESS),
      key_of({kAmount}, KF_DUPS | KF_DCOMPRESS)}},
    {"LargePool",
     kMinimum,
     {ISEXCLLOCK, ISMANULOCK},
     {key_of({kId}), key_of({kName}, KF_DUPS | KF_COMPRESS)},
     "4096",
     1024,
     setting("KESTRO_MODEL_CALLS", 20000) * 3},
    {"ManyOpens",
     kMinimum,
     {ISMANULOCK, ISMANULOCK, ISMANULOCK, ISAUTOLOCK, ISMANULOCK, ISMANULOCK},
     {key_of({kId}, KF_LCOMPRESS), key_of({kRank}, KF_DUPS | KF_DCOMPRESS),
      key_of({kName, kText, kAmount}, KF_COMPRESS)},
     "4"},
    {"FourVarying",
     3300,
     {ISMANULOCK, ISMANULOCK, ISAUTOLOCK},
     {key_of({kId}), key_of({kTextDown}, KF_DUPS | KF_TCOMPRESS),
      key_of({kAmountDown, kRank}, KF_DUPS | KF_DCOMPRESS | KF_LCOMPRESS),
      key_of({kRank, kText, kAmount}, KF_COMPRESS)},
     "4"}};

// Each way of compression with keys of each kind, in nodes that hold few of their items.
inline std::vector<Shape> small_shapes() {
  std::vector<Shape> shapes;
  for (const int node_size : {128, 334}) {
    for (int flags = 0; flags < 16; ++flags) {
      const auto key = [flags](std::vector<keypart> parts) {
        if ((flags & KF_DUPS) == 0) parts.push_back(kId);
        return key_of(parts, flags);
      };
      std::string name = "Nodes" + std::to_string(node_size);
      for (const int flag : {KF_DUPS, KF_DCOMPRESS, KF_LCOMPRESS, KF_TCOMPRESS}) {
        if ((flags & flag) != 0) name += "-Dd-l---t"[flag];
      }
      const int lock = flags % 3 == 0 ? ISEXCLLOCK : ISMANULOCK;
      shapes.push_back(
          {name,
           kMinimum,
           {ISMANULOCK, lock},
           {key({kText}), key_of({kId}, flags), key({kRankDown, kName}), key({kAmount})},
           "16",
           node_size,
           setting("KESTRO_MODEL_CALLS", 20000) / 8});
    }
  }
  return shapes;
}

template <typename... Arguments>
std::string text(const Arguments&... arguments) {
  std::ostringstream out;
  ((out << ' ' << arguments), ...);
  return out.str();
}

inline std::string show(const Bytes& record) {
  int null = 0;
  const double amount = ::lddblnull(&record[14], &null);
  return text('[', record.substr(0, 8), ::ldlong(&record[8]), ::ldint(&record[12]),
              null != 0 ? "null" : text(amount), record.substr(22, 12), ']');
}

inline std::string show(const keydescr& k) {
  std::string all = text("key", k.flags);
  std::for_each(k.part, k.part + k.nparts, [&all](const keypart& part) {
    all += text(';', part.start, part.length, part.type);
  });
  return all;
}

// Arrays for one call that reads or writes many records. Without a count nothing else is right.
struct Many {
  explicit Many(std::size_t count) : numbers(count), lengths(count), records(count) {}
  recordset set(int record_length) {
    const auto room = static_cast<std::size_t>(record_length);
    for (Bytes& record : records) buffer += record;
    return {static_cast<std::int32_t>(records.size()), buffer.data(), records.size() * room,
            numbers.data(), lengths.data()};
  }
  std::vector<std::int32_t> numbers, lengths;
  std::vector<Bytes> records;
  Bytes buffer;
};

// What is drawn by chance.
class Chance {
 protected:
  unsigned any(std::size_t below) { return static_cast<unsigned>(random_() % below); }
  bool one_in(unsigned times) { return any(times) == 0; }
  int among(std::initializer_list<int> values) { return values.begin()[any(values.size())]; }

  int any_read_mode() {
    if (one_in(40)) return among({8, 0xFF, 0x600, 0x702, 0x802, 0x1000, -1});
    return among({0, 0, 0, 0x100, 0x200, 0x300, 0x400, 0x500}) +
           among({RD_FIRST, RD_LAST, RD_NEXT, RD_NEXT, RD_NEXT, RD_NEXT, RD_NEXT, RD_PREV, RD_PREV,
                  RD_PREV, RD_CURR, RD_EQUAL, RD_EQUAL, RD_GREAT, RD_GTEQ});
  }

  Bytes any_record(int length) {
    Bytes record(static_cast<std::size_t>(length), '\0');
    for (std::size_t i = 0, salt = any(256); i < record.size(); ++i) {
      record[i] = static_cast<char>(salt + i * (i / 7));
    }
    const std::string name(any(5), static_cast<char>('a' + any(4)));
    const std::string place = std::string("bad  cafe  da").substr(0, any(12));
    ::stchar(name.c_str(), record.data(), 8);
    ::stlong(static_cast<std::int32_t>(any(2500)) - 1000, &record[8]);
    ::stint(static_cast<int>(any(60)) - 30, &record[12]);
    ::stdblnull(&record[14], one_in(6) ? 1 : 0, (static_cast<int>(any(120)) - 60) / 8.0);
    ::stchar((place + static_cast<char>('a' + any(9))).c_str(), &record[22], 12);
    return record;
  }

  const unsigned seed_ = setting("KESTRO_MODEL_SEED", 1);

 private:
  std::mt19937 random_{seed_};
};

}  // namespace testing_support::model
