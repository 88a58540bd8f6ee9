#include "fuzz/log_corpus.h"

#include <cstdint>
#include <iterator>
#include <string>

#include "fuzz/log_pairs.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace fuzz {
namespace {

namespace fs = std::filesystem;
using testing_support::Image;

constexpr int kMagicSize = 4;
constexpr int kModes = 4;
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

// The log of a script without its magic number, in a folder of its own.
Image log_of(Script script) {
  const testing_support::TempFolder folder;
  const fs::path before = fs::current_path();
  fs::current_path(folder.path());
  build_pairs();
  testing_support::write_file("log", {});
  sure(islogopen("log"));
  script();
  const Image log = testing_support::read_file("log");
  islogclose();
  iscleanup();
  fs::current_path(before);
  return {log.begin() + kMagicSize, log.end()};
}

}  // namespace

void write_log_corpus(const fs::path& folder) {
  fs::create_directories(folder);
  Image all;
  int number = 0;
  const auto write_seeds = [&](const Image& log) {
    for (int mode = 0; mode < kModes; ++mode) {
      Image seed{static_cast<unsigned char>(mode)};
      seed.insert(seed.end(), log.begin(), log.end());
      testing_support::write_file(folder / ("log-" + std::to_string(number++)), seed);
    }
  };
  for (const Script script : kScripts) {
    const Image log = log_of(script);
    write_seeds(log);
    all.insert(all.end(), log.begin(), log.end());
  }
  write_seeds(all);
}

}  // namespace fuzz
