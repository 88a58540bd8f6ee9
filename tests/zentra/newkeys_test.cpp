// Key descriptions for a pair that has lost its own: from a file, from another pair, from its
// trees.
#include "zentra/keys/newkeys.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <random>

#include "checker/checks.h"
#include "isam/base/format.h"
#include "isam/keys/keys.h"
#include "tests/support/pair_builder.h"
#include "tests/support/run_program.h"
#include "zentra/keys/keysfile.h"
#include "zentra/keys/proposekeys.h"
#include "zentra/pair/readpair.h"

namespace testing_support {
namespace {

using zentra::keys_of_file;
using zentra::line_of;
using zentra::ProposedKey;
using zentra::Reading;

class NewKeys : public testing::Test {
 protected:
  std::string file(const std::string& text) {
    std::ofstream(folder_ / "keys", std::ios::binary) << text;
    return folder_ / "keys";
  }
  const TempFolder folder_;
  const std::string pair_ = folder_ / "pair";
};

TEST_F(NewKeys, OfAFileAreItsLines) {
  const auto read = keys_of_file(
      file("# two\n\nnumber # first\n 8, 20 ,locale,desc + 40,8,double,dups,lead\r\n"
           "0,8,char\n4,4,long+0,2,int+8,4,float,desc,compress\n0,3,coll7,repeat,tail"));
  std::vector<std::string> lines;
  for (const keydescr& k : read.keys) lines.push_back(line_of(k));
  ASSERT_EQ(lines, (std::vector<std::string>{"number", "8,20,locale,desc+40,8,double,dups,lead",
                                             "0,8,char", "4,4,long+0,2,int+8,4,float,desc,compress",
                                             "0,3,coll7,repeat,tail"}))
      << read.why;
  EXPECT_EQ(read.keys[1].nparts, 2);
  EXPECT_EQ(read.keys[1].flags, KF_DUPS | KF_LCOMPRESS);
  EXPECT_EQ(read.keys[1].part[0].type, KT_LOCALE | KT_DESC);
}

TEST_F(NewKeys, OfAFileThatIsWrongAreRefusedByItsLine) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "keys: no index"},
      {"# none\n", "keys: no index"},
      {"\n0,8,text", "keys:2: no type of a part: text"},
      {"0,8,char+", "keys:1: a part is missing behind +"},
      {"0,8,char,", "keys:1: a word is missing behind ,"},
      {"0,8,char,+8,2,int", "keys:1: a word is missing behind ,"},
      {"0,8,char\nnumber", "keys:2: only the primary key, which is the first, is by number"},
      {"0,8", "keys:1: no type of a part: "},
      {"0;8;char", "keys:1: no number from 0 to 32767: 0;8;char"},
      {"-1,8,char", "keys:1: no number from 0 to 32767: -1"},
      {"0,99999999999,char", "keys:1: no number from 0 to 32767: 99999999999"},
      {"0,8,char,up\x1b", "keys:1: no word of a key: up\\x1b"},
      {"0,8,char,dups+8,2,int", "keys:1: dups stands behind the last part"},
      {"0,3,long", "keys:1: a key has from 1 to 120 bytes, a part the length of its type"},
      {"0,121,char", "keys:1: a key has from 1 to 120 bytes, a part the length of its type"},
      {"0,1,char+1,1,char+2,1,char+3,1,char+4,1,char+5,1,char+6,1,char+7,1,char+8,1,char",
       "keys:1: more than 8 parts"},
      {"0,8,char\n#\n0,8,char,dups\n", "keys:3: the index of line 1 again"}};
  for (const auto& [text, why] : cases) {
    const auto read = keys_of_file(file(text));
    EXPECT_TRUE(read.keys.empty());
    EXPECT_TRUE(read.why.ends_with(why)) << read.why << " instead of " << why;
    EXPECT_NE(read.status, zentra::Status::kSound);
  }
  EXPECT_FALSE(keys_of_file(folder_ / "none").why.empty());
  EXPECT_FALSE(keys_of_file(folder_.path()).why.empty());
}

// ---- From trees.

constexpr int kLength = 96;    // of records
constexpr int kLongest = 300;  // variable part
constexpr int kNodeSize = 1024;
constexpr int kTypes[] = {KT_CHAR,  KT_INT,    KT_LONG,  KT_DOUBLE,
                          KT_FLOAT, KT_LOCALE, KT_COLL1, KT_COLL3};

int length_of(int type, std::mt19937& random) {
  switch (type) {
    case KT_INT:
      return 2;
    case KT_LONG:
    case KT_FLOAT:
      return 4;
    case KT_DOUBLE:
      return 8;
    default:
      return 1 + static_cast<int>(random() % 12);
  }
}

// A part that another one may share bytes with.
keypart some_part(std::mt19937& random) {
  keypart part{};
  const int type = kTypes[random() % std::size(kTypes)];
  part.length = static_cast<std::int16_t>(length_of(type, random));
  part.start = static_cast<std::int16_t>(random() % (kLength - part.length));
  part.type = static_cast<std::int16_t>(type | (random() % 4 == 0 ? KT_DESC : 0));
  return part;
}

keydescr some_key(std::mt19937& random) {
  keydescr k{};
  k.flags =
      static_cast<std::int16_t>((random() % 2) | (random() % 2 == 0 ? random() % 16 & 14 : 0));
  k.nparts = static_cast<std::int16_t>(1 + (random() % 2) * (random() % 4));
  for (int i = 0; i < k.nparts; ++i) k.part[i] = some_part(random);
  return k;
}

// Values of the parts, small, negative, text or anything; the rest of the record is filled.
void fill(std::vector<char>& record, const std::vector<keydescr>& keys, int kind, int number,
          std::mt19937& random) {
  const auto any = [&] { return static_cast<char>(random() % 256); };
  const char filler = kind == 1 ? ' ' : '\0';
  std::generate_n(record.begin(), kLength, [&] { return kind == 3 ? any() : filler; });
  for (const keydescr& k : keys) {
    for (int i = 0; i < k.nparts; ++i) {
      char* const at = record.data() + k.part[i].start;
      const int value = kind == 0 ? number : static_cast<int>(random() % 4000) - 2000;
      switch (k.part[i].type & ~KT_DESC) {
        case KT_INT:
          ::stint(static_cast<std::int16_t>(value), at);
          break;
        case KT_LONG:
          ::stlong(value * 100003, at);
          break;
        case KT_DOUBLE:
          ::stdbl(at, value / 8.0);
          break;
        case KT_FLOAT:
          ::stfloat(at, static_cast<float>(value) / 4);
          break;
        default:
          std::generate_n(at, k.part[i].length / 2 + 1, [&] {
            return kind == 2 ? any() : static_cast<char>('A' + random() % 26);
          });
      }
    }
  }
  // Some bytes of a key stand somewhere else, too.
  const keypart& first = keys.front().part[0];
  if (kind % 2 == 0) std::copy_n(record.data() + first.start, first.length, record.data());
}

// A pair of these keys, as the library takes them with their roots.
std::vector<keydescr> make_pair(const std::string& name, std::vector<keydescr> keys, int records,
                                int kind, std::mt19937& random) {
  const bool varies = random() % 3 == 0;
  ::isreclen = kLength;
  const int isfd = ::isbuild(name.c_str(), kLength + (varies ? kLongest : 0), keys.data(),
                             ISINOUT + ISEXCLLOCK + (varies ? ISVARLEN : 0));
  EXPECT_GE(isfd, 0) << iserrno;
  std::vector<char> record(kLength + kLongest + 1);
  for (std::size_t i = 1; i < keys.size(); ++i) {
    if (::isaddindex(isfd, &keys[i]) != 0) keys[i].nparts = 0;
  }
  std::erase_if(keys, [](const keydescr& k) { return k.nparts == 0; });
  for (int i = 0; i < records; ++i) {
    fill(record, keys, kind, i, random);
    ::isreclen = kLength + static_cast<int>(random() % kLongest);
    if (::iswrite(isfd, record.data()) == 0 && random() % 20 == 0) ::isdelrec(isfd, isrecnum);
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(::isindexinfo(isfd, &keys[i], static_cast<int>(i) + 1), 0) << iserrno;
  }
  EXPECT_EQ(::isclose(isfd), 0);
  ::iscleanup();
  return keys;
}

// Takes the node of key descriptions away.
void lose_descriptions(const std::string& name) {
  std::fstream file(name + ".idx", std::ios::in | std::ios::out | std::ios::binary);
  isam::Dictionary dictionary{};
  file.read(reinterpret_cast<char*>(dictionary.raw), sizeof dictionary.raw);
  file.seekp((dictionary.d_keysnode() - 1) * std::int64_t{dictionary.d_idxsize() + 1});
  const std::string zeros(static_cast<std::size_t>(dictionary.d_idxsize()) + 1, '\0');
  file.write(zeros.data(), std::ssize(zeros));
}

// Hears a check without a word.
struct Silent : checker::Listener {
  void found(const checker::Finding& /*finding*/) override {}
  bool answer(checker::Question /*question*/) override { return false; }
  void failed(std::int32_t /*code*/, std::int32_t /*place*/) override {}
};

// What `look` gives of a pair that is held still.
template <typename Look>
auto of_pair(const std::string& name, Look look) {
  zentra::ReadPair pair;
  EXPECT_TRUE(pair.open(name, std::chrono::seconds(1)) && pair.load()) << pair.why();
  const checker::Options options{.nflag = 1};
  Silent silent;
  checker::Check check(options, silent);
  EXPECT_TRUE(checker::ckdict(check));
  return look(check);
}

std::vector<ProposedKey> proposed(const std::string& name, std::int64_t& records,
                                  Reading reading = Reading::kByTree) {
  return of_pair(name, [&](checker::Check& /*check*/) {
    return zentra::keys_of_trees(records, reading).keys;
  });
}

bool is_same(const keydescr& a, const keydescr& b) {
  return isam::kycompare(a, b) == 0 && ((a.flags ^ b.flags) & KF_DUPS) == 0;
}

TEST_F(NewKeys, OfTreesAreNeverWrongWhereTheyAreCertain) {
  std::mt19937 random(16);
  int all = 0;
  int found = 0;
  int right = 0;
  int certain = 0;
  for (int run = 0; run < 240; ++run) {
    std::vector<keydescr> wanted(1 + random() % 3);
    for (keydescr& k : wanted) k = some_key(random);
    const int kind = run % 4;
    const int most = run % 10 == 0 ? 1500 : 300;
    const std::string name = pair_ + std::to_string(run);
    const auto keys = make_pair(name, wanted, 1 + static_cast<int>(random() % most), kind, random);
    lose_descriptions(name);
    std::int64_t records = 0;
    all += static_cast<int>(keys.size());
    for (const auto& [root, guess] : proposed(name, records)) {
      const auto own = std::ranges::find(keys, root, &keydescr::rootnode);
      ASSERT_NE(own, keys.end()) << "run " << run << ": " << line_of(guess.key) << " at " << root;
      const bool is_right = is_same(*own, guess.key);
      EXPECT_TRUE(is_right || !guess.is_certain)
          << "run " << run << ": " << line_of(guess.key) << " instead of " << line_of(*own);
      ++found;
      right += is_right ? 1 : 0;
      certain += guess.is_certain ? 1 : 0;
    }
  }
  std::printf("%d trees, %d found, %d described as they were, %d of these certain\n", all, found,
              right, certain);
  EXPECT_GT(found, all * 95 / 100);
  EXPECT_GT(right, all / 4);
  EXPECT_GT(certain, 10);
}

// Pairs that the library does not make, with other nodes and duplicate numbers.
TEST_F(NewKeys, OfTreesInOtherNodesAreFound) {
  int right = 0;
  for (const int node_size : {128, 256, 700, 1025}) {
    PairSpec spec = mixed_spec(node_size, 600, static_cast<std::uint32_t>(node_size));
    spec.dup_width = node_size > 256 ? 4 : 2;
    spec.scatter = node_size == 256;
    spec.fill = 0.7;
    const BuiltPair built = build_pair(spec, pair_);
    lose_descriptions(pair_);
    std::int64_t records = 0;
    const auto all = proposed(pair_, records);
    EXPECT_EQ(records, spec.records - std::ssize(spec.deleted));
    EXPECT_EQ(all.size(), built.indexes.size()) << node_size;
    for (const auto& [root, guess] : all) {
      const auto own = std::ranges::find(built.indexes, root, &BuiltIndex::root);
      ASSERT_NE(own, built.indexes.end());
      const KeySpec& key = spec.keys[static_cast<std::size_t>(own - built.indexes.begin())];
      const bool is_right =
          std::equal(key.parts.begin(), key.parts.end(), guess.key.part,
                     guess.key.part + guess.key.nparts, [](const PartSpec& a, const keypart& b) {
                       return a.start == b.start && a.length == b.length && a.type == b.type;
                     });
      EXPECT_TRUE(is_right || !guess.is_certain) << line_of(guess.key);
      right += is_right ? 1 : 0;
    }
  }
  EXPECT_GE(right, 12);  // of 20
}

constexpr keydescr kOrders[] = {
    {0, 1, {{0, 8, KT_CHAR}}, 0, 0},
    {KF_DUPS | KF_COMPRESS, 1, {{8, 20, KT_CHAR}}, 0, 0},
    {KF_DUPS, 2, {{40, 8, KT_DOUBLE}, {32, 4, KT_LONG | KT_DESC}}, 0, 0}};

class NewKeysOfOrders : public NewKeys {
 protected:
  void SetUp() override {
    std::vector<keydescr> keys(std::begin(kOrders), std::end(kOrders));
    const int isfd = ::isbuild(pair_.c_str(), kLength, keys.data(), ISINOUT + ISEXCLLOCK);
    ::isaddindex(isfd, &keys[1]);
    ::isaddindex(isfd, &keys[2]);
    std::vector<char> record(kLength + 1);
    for (int i = 0; i < 2000; ++i) {
      std::snprintf(record.data(), record.size(), "%08dCUSTOMER %-11d", i * 7919 % 100000, i % 300);
      ::stlong((i * 31 % 1000 - 500) * 70001, &record[32]);
      ::stdbl(&record[40], (i % 50) / 3.0 - 5);
      ASSERT_EQ(::iswrite(isfd, record.data()), 0) << iserrno;
    }
    isfd_ = isfd;
  }
  // The lines proposed when the descriptions are lost.
  std::vector<std::string> lines() {
    ::isclose(isfd_);
    ::iscleanup();
    lose_descriptions(pair_);
    std::int64_t records = 0;
    std::vector<std::string> lines;
    for (const ProposedKey& one : proposed(pair_, records)) lines.push_back(line_of(one.guess.key));
    std::vector<std::string> by_number;
    for (const ProposedKey& one : proposed(pair_, records, Reading::kByNumber)) {
      by_number.push_back(line_of(one.guess.key));
    }
    EXPECT_EQ(by_number, lines);
    EXPECT_EQ(records, 2000);
    return lines;
  }

  int isfd_ = -1;
};

constexpr char kFirst[] = "0,8,char";
constexpr char kSecond[] = "8,20,char,dups,compress";
constexpr char kThird[] = "40,8,double+32,4,long,desc,dups";

TEST_F(NewKeysOfOrders, AreFoundInOrder) {
  EXPECT_EQ(lines(), (std::vector<std::string>{kFirst, kSecond, kThird}));
}

// A free node may hold what it held as the root of a tree: the library empties what it frees, but a
// list can have been made otherwise.
TEST_F(NewKeysOfOrders, AreNotThoseOfFreeNodes) {
  keydescr third = kOrders[2];
  ASSERT_EQ(::isdelindex(isfd_, &third), 0);
  keydescr second{};
  ASSERT_EQ(::isindexinfo(isfd_, &second, 2), 0);
  ::isclose(isfd_);
  std::fstream file(pair_ + ".idx", std::ios::in | std::ios::out | std::ios::binary);
  isam::Dictionary dictionary{};
  file.read(reinterpret_cast<char*>(dictionary.raw), sizeof dictionary.raw);
  const std::int64_t head = (dictionary.d_freenode() - 1) * std::int64_t{kNodeSize};
  std::array<char, kNodeSize> list{};
  file.seekg(head).read(list.data(), kNodeSize);
  const int used = common::ldword(reinterpret_cast<const isam::Byte*>(list.data()));
  ::stint(used + isam::kListEntrySize, list.data());
  ::stlong(second.rootnode, list.data() + used);
  file.seekp(head).write(list.data(), kNodeSize);
  file.close();
  EXPECT_EQ(lines(), (std::vector<std::string>{kFirst}));
}

TEST_F(NewKeysOfOrders, AreNoneWhereARecordDisagrees) {
  ::isclose(isfd_);
  std::fstream file(pair_ + ".dat", std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(1234 * (kLength + 1) + 3).put('x');
  file.close();
  isfd_ = ::isopen(pair_.c_str(), ISINPUT + ISMANULOCK);
  EXPECT_EQ(lines(), (std::vector<std::string>{kSecond, kThird}));
  const std::string text =
      of_pair(pair_, [](checker::Check& check) { return zentra::propose_keys(check); }).text;
  EXPECT_NE(text.find("# These are 2 of the 3 indexes"), text.npos) << text;
  EXPECT_NE(text.find("not understood: at node"), text.npos) << text;
}

TEST_F(NewKeysOfOrders, AreThoseOfAnotherPairWhereOneIsNamed) {
  ::isclose(isfd_);
  ::iscleanup();
  const auto like = zentra::keys_like(pair_ + ".idx", std::chrono::seconds(1));
  ASSERT_EQ(like.keys.size(), std::size(kOrders)) << like.why;
  for (std::size_t i = 0; i < std::size(kOrders); ++i) {
    EXPECT_TRUE(is_same(like.keys[i], kOrders[i]));
    EXPECT_EQ(like.keys[i].flags, kOrders[i].flags);
  }
  lose_descriptions(pair_);
  EXPECT_FALSE(zentra::keys_like(pair_, std::chrono::seconds(1)).why.empty());
  EXPECT_FALSE(zentra::keys_like(folder_ / "none", std::chrono::seconds(1)).why.empty());
}

// What is proposed can be given back as it is.
TEST_F(NewKeysOfOrders, AreWrittenAsAFileOfKeys) {
  ::isclose(isfd_);
  ::iscleanup();
  lose_descriptions(pair_);
  const auto proposal =
      of_pair(pair_, [](checker::Check& check) { return zentra::propose_keys(check); });
  const auto read = keys_of_file(file(proposal.text));
  ASSERT_EQ(read.keys.size(), proposal.keys.size()) << read.why << proposal.text;
  for (std::size_t i = 0; i < read.keys.size(); ++i) {
    EXPECT_TRUE(is_same(read.keys[i], proposal.keys[i]));
    EXPECT_EQ(read.keys[i].flags, proposal.keys[i].flags);
  }
}

}  // namespace
}  // namespace testing_support
