#include "isam/tree/items.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

namespace isam {
namespace {

constexpr int kKeyLength = 12;

class Items : public testing::Test {
 protected:
  Items() {
    dictp = &dictionary_;
    key_.keylen = kKeyLength;
    key_.nparts = 1;
    key_.part[0].length = kKeyLength;
  }
  ~Items() override { dictp = nullptr; }

  ItemLayout layout(int flags, int dup_width) {
    dictionary_.raw[11] = static_cast<Byte>(dup_width);
    key_.flags = static_cast<std::int16_t>(flags);
    return ItemLayout{key_};
  }

  static Item item_of(std::string text, std::int32_t dupnm, std::int32_t recptr) {
    Item item;
    text.resize(kKeyLength, ' ');
    std::copy(text.begin(), text.end(), item.key);
    item.dupnm = dupnm;
    item.recptr = recptr;
    return item;
  }

  // Stores items one behind the other: the bytes of the area.
  static std::vector<Byte> store(const ItemLayout& layout, std::vector<Item> items) {
    std::vector<Byte> area(items.size() * 32 + 1);
    int pos = 0;
    for (std::size_t i = 0; i < items.size(); ++i) {
      itpress(layout, i > 0 ? &items[i - 1] : nullptr, items[i],
              i > 0 ? Press::kAfter : Press::kFirst);
      pos = itpack(layout, items[i], area, pos);
    }
    area.resize(static_cast<std::size_t>(pos));
    return area;
  }

  Dictionary dictionary_{};
  keydescr key_{};
};

std::string hex(const std::vector<Byte>& bytes) {
  std::string text;
  for (const Byte byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

TEST_F(Items, AreStoredAsTheKeysFlagsSay) {
  const std::vector<Item> items = {item_of("north", 0, 1), item_of("north", 1, 2),
                                   item_of("northern", 0, 3), item_of("", 0, 0x01020304)};
  const std::string north = "6e6f727468";
  const std::string northern = north + "65726e";
  const auto blanks = [](int count) {
    std::string text;
    for (; count > 0; --count) text += "20";
    return text;
  };
  struct Case {
    int flags;
    int dup_width;
    std::string stored;
  };
  const Case cases[] = {
      {0, 2,
       north + blanks(7) + "00000001" + north + blanks(7) + "00000002" + northern + blanks(4) +
           "00000003" + blanks(12) + "01020304"},
      {KF_DUPS | KF_DCOMPRESS, 2,
       north + blanks(7) + "0000" + "80000001" + "0001" + "00000002" + northern + blanks(4) +
           "0000" + "00000003" + blanks(12) + "0000" + "01020304"},
      // Never the whole key is taken from the one before.
      {KF_LCOMPRESS, 2,
       "00" + north + blanks(7) + "00000001" + "0b" + blanks(1) + "00000002" + "05" + "65726e" +
           blanks(4) + "00000003" + "00" + blanks(12) + "01020304"},
      {KF_TCOMPRESS, 2,
       "07" + north + "00000001" + "07" + north + "00000002" + "04" + northern + "00000003" + "0c" +
           "01020304"},
      // The third takes no more than what the first stores.
      {KF_DUPS | KF_DCOMPRESS | KF_LCOMPRESS | KF_TCOMPRESS, 4,
       "0007" + north + "00000000" + "80000001" + "00000001" + "00000002" + "0504" + "65726e" +
           "00000000" + "00000003" + "000c" + "00000000" + "01020304"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(hex(store(layout(c.flags, c.dup_width), items)), c.stored) << c.flags;
  }
}

// Whatever is stored is read back, from the front and from behind.
TEST_F(Items, ComeBackAsTheyWere) {
  std::mt19937 random(1);
  for (int round = 0; round < 400; ++round) {
    const ItemLayout how = layout(static_cast<int>(random() % 16), random() % 2 == 0 ? 2 : 4);
    std::vector<Item> items;
    for (auto count = 1 + random() % 20; count > 0; --count) {
      static const std::array<std::string, 5> texts = {"", "a", "ab", "abc  d", "abcdefghijkl"};
      const bool again = !items.empty() && random() % 3 == 0;
      Item item = again ? items.back() : item_of(texts[random() % texts.size()], 0, 0);
      if (random() % 4 == 0) item.key[random() % kKeyLength] = static_cast<Byte>(random());
      item.dupnm = static_cast<std::int32_t>(random() % 65536);
      item.recptr = static_cast<std::int32_t>(random() & INT32_MAX);
      items.push_back(item);
    }
    const std::vector<Byte> area = store(how, items);
    const auto is = [&](const Item& read, const Item& item) {
      return std::equal(item.key, item.key + kKeyLength, read.key) && read.recptr == item.recptr &&
             read.dupnm == (how.dups ? item.dupnm : 0);
    };
    Item read;
    int pos = 0;
    for (const Item& item : items) {
      const int start = pos;
      pos = itunpack(how, area, start, start > 0 ? read.key : kNoKey, read);
      ASSERT_TRUE(pos > start && is(read, item));
      Item found;
      ASSERT_EQ(itprevious(how, area, pos, found), start);
      ASSERT_EQ(itbefore(how, area, pos), start);
      ASSERT_TRUE(is(found, item));
      ASSERT_EQ(found.flag, read.flag);
      ASSERT_EQ(itbefore(how, area, pos - 1), -1);
    }
    ASSERT_EQ(pos, static_cast<int>(area.size()));
  }
}

TEST_F(Items, ImpossibleCountsAreRefused) {
  const int counts = KF_LCOMPRESS | KF_TCOMPRESS;
  struct Case {
    const char* what;
    int flags;
    std::vector<Byte> area;
  };
  const Case cases[] = {
      {"more left out than the key has", counts, {7, 6, 0, 0, 0, 1}},
      {"a key that runs past the area", counts, {0, 8, 'a', 'b', 'c', 0, 0, 1}},
      {"counts that run past the area", counts, {0}},
      {"a pointer that runs past the area", counts | KF_DUPS, {0, 12, 0, 0, 0, 0, 1}},
      {"fixed size", 0, std::vector<Byte>(kKeyLength + kRecordPointerSize - 1)},
  };
  Item item;
  for (const Case& c : cases) {
    const ItemLayout how = layout(c.flags, 2);
    EXPECT_EQ(itunpack(how, c.area, 0, kNoKey, item), -1) << c.what;
    EXPECT_EQ(itprevious(how, c.area, static_cast<int>(c.area.size()), item), -1) << c.what;
  }
  const ItemLayout how = layout(KF_DCOMPRESS, 2);
  EXPECT_EQ(itprevious(how, {}, 0, item), -1);
}

TEST_F(Items, WithoutCompressionOnlyThePreviousOneIsRead) {
  const ItemLayout how = layout(0, 2);
  std::vector<Byte> area = store(how, {item_of("a", 0, 1), item_of("b", 0, 2), item_of("c", 0, 3)});
  std::fill_n(area.begin(), 20, Byte{0x7F});
  Item item;
  EXPECT_EQ(itprevious(how, area, 48, item), 32);
  EXPECT_EQ(item.recptr, 3);
}

TEST_F(Items, MarksInARecordPointerDoNotChangeTheNumber) {
  const ItemLayout how = layout(KF_DUPS, 2);
  std::vector<Byte> area = store(how, {item_of("a", 65'536 + 5, 77)});
  area[area.size() - kRecordPointerSize] |= kRepeatBit;
  Item item;
  ASSERT_GT(itunpack(how, area, 0, kNoKey, item), 0);
  EXPECT_EQ(item.flag, kNextRepeats);
  EXPECT_EQ(item.recptr, 77);
  EXPECT_EQ(item.dupnm, 5);  // the low 16 bits
}

TEST(ItemMake, GathersThePartsInTheirOrder) {
  keydescr k{};
  k.nparts = 3;
  k.part[0] = {5, 3, KT_CHAR};
  k.part[1] = {0, 2, KT_INT};
  k.part[2] = {4, 2, KT_CHAR};
  const std::string record = "ABCDEFGHIJ";
  Item item;
  item.dupnm = item.recptr = 9;
  itmake(reinterpret_cast<const Byte*>(record.data()), item, k);
  EXPECT_EQ(std::string(item.key, item.key + 7), "FGHABEF");
  EXPECT_EQ(item.dupnm, 0);
  EXPECT_EQ(item.recptr, 0);
}

}  // namespace
}  // namespace isam
