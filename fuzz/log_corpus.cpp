#include "fuzz/log_corpus.h"

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "fuzz/log_input.h"
#include "fuzz/log_pairs.h"
#include "isam/log/audit.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"
#include "txlog/errorlog.h"

namespace fuzz {
namespace {

namespace fs = std::filesystem;
using testing_support::Byte;
using testing_support::Image;

constexpr int kMagicSize = 4;
constexpr Byte kModes = 4;
constexpr int kTransactions = ISTRANS + ISMANULOCK;

int rewrite(int isfd, int id, int length) {
  std::string record = record_of(id, length);
  isreclen = length;
  return isrewrite(isfd, record.data());
}

// Every kind of change; the second pair's records grow and shrink.
void change(int isfd, int pair, int first_id) {
  const bool varying = is_varying(pair);
  sure(add(isfd, first_id, varying ? 700 : kLeast));
  sure(add(isfd, first_id + 1, kLeast));
  sure(rewrite(isfd, first_id, varying ? 40 : kLeast));
  sure(rewrite(isfd, 2, varying ? kMost : kLeast));
  sure(isdelrec(isfd, 3));
}

void commit_and_roll_back() {
  const int fixed = sure(open_pair(0, kTransactions));
  const int varying = sure(open_pair(1, kTransactions));
  sure(isbegin());
  change(fixed, 0, 20);
  change(varying, 1, 20);
  sure(iscommit());
  sure(isbegin());
  sure(add(varying, 40, 50));
  sure(isdelrec(fixed, 1));
  sure(isrollback());
  sure(isbegin());
  sure(isclose(fixed));
  sure(isdelrec(varying, 1));
  sure(iscommit());
}

void change_outside_transactions() {
  const int varying = sure(open_pair(1, ISMANULOCK));
  change(varying, 1, 30);
  std::int32_t id = 0;
  sure(isuniqueid(varying, &id));
  sure(issetunique(varying, 50));
  sure(isclose(varying));
}

void change_files() {
  keydescr id = id_key();
  const int made = sure(isbuild("made", kLeast, &id, ISINOUT + ISEXCLLOCK));
  sure(add(made, 2, kLeast));
  sure(add(made, 1, kLeast));
  keydescr group = group_key();
  sure(isaddindex(made, &group));
  const int clustered = sure(iscluster(made, &id));
  sure(isdelindex(clustered, &group));
  sure(isclose(clustered));
  sure(isrename("made", "other"));
  sure(iserase("other"));
}

// Never ended, as if the process had been killed.
void begin_only() {
  const int fixed = sure(open_pair(0, kTransactions));
  sure(isbegin());
  change(fixed, 0, 60);
}

using Script = void (*)();
constexpr Script kScripts[] = {commit_and_roll_back, change_outside_transactions, change_files,
                               begin_only};

// What `work` gives back, done in a folder of its own that holds the pairs.
template <typename Work>
Image beside_pairs(Work work) {
  const testing_support::TempFolder folder;
  const fs::path before = fs::current_path();
  fs::current_path(folder.path());
  build_pairs();
  const Image result = work();
  iscleanup();
  fs::current_path(before);
  return result;
}

// A log without its magic number.
Image records_of(const std::string& path) {
  const Image log = testing_support::read_file(path);
  return {log.begin() + kMagicSize, log.end()};
}

void keep_log(Script script) {
  testing_support::write_file("log", {});
  sure(islogopen("log"));
  script();
}

Image log_of(Script script) {
  return beside_pairs([script] {
    keep_log(script);
    const Image records = records_of("log");
    islogclose();
    return records;
  });
}

// What a recovery notes that finds everything in the log done already.
Image error_log() {
  return beside_pairs([] {
    keep_log(change_outside_transactions);
    isrecvr(RCV_SKIP);
    return records_of(isam::txlog::kErrorLogName);
  });
}

Image trail_of(int pair) {
  return beside_pairs([pair] {
    std::array<char, isam::txlog::kMaxTrailName + 1> name{"trail"};
    const int isfd = sure(open_pair(pair, ISMANULOCK));
    sure(isaudit(isfd, name.data(), AUDSETNAME));
    sure(isaudit(isfd, name.data(), AUDSTART));
    change(isfd, pair, 20);
    sure(isclose(isfd));
    return testing_support::read_file(name.data());
  });
}

// Inputs, one file each.
class Seeds {
 public:
  explicit Seeds(fs::path folder) : folder_(std::move(folder)) { fs::create_directories(folder_); }

  void add(Image first, const Image& rest) {
    first.insert(first.end(), rest.begin(), rest.end());
    testing_support::write_file(folder_ / ("log-" + std::to_string(number_++)), first);
  }

 private:
  fs::path folder_;
  int number_ = 0;
};

}  // namespace

void write_log_corpus(const fs::path& recovery, const fs::path& listings) {
  using namespace listing;
  Seeds replayed(recovery);
  Seeds listed(listings);
  const auto add_log = [&](const Image& log) {
    for (Byte mode = 0; mode < kModes; ++mode) replayed.add({mode}, log);
    listed.add({0}, log);
    listed.add({kDump}, log);
  };
  Image all;
  for (const Script script : kScripts) {
    const Image log = log_of(script);
    add_log(log);
    all.insert(all.end(), log.begin(), log.end());
  }
  add_log(all);
  listed.add({0}, error_log());
  for (const Byte dump : {Byte{0}, kDump}) {
    listed.add({static_cast<Byte>(kTrail | dump), 0, kLeast - 1}, trail_of(0));
    listed.add({static_cast<Byte>(kTrail | kVariable | dump), kMost >> 8, kMost & 0xFF},
               trail_of(1));
  }
}

}  // namespace fuzz
