// library_fuzz: any bytes whatever as a pair, used by an application.
//
// Finds   crashes, overruns, hangs and runaway memory in the public calls
#include <algorithm>
#include <array>
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_pair.h"
#include "isam.h"

namespace {

constexpr int kMostRecord = 32767;
constexpr int kReads = 12;

// A record whose bytes follow from a number.
std::vector<char> record_of(int number) {
  std::vector<char> record(kMostRecord + 1);
  for (std::size_t i = 0; i < record.size(); ++i) {
    record[i] = static_cast<char>((static_cast<std::size_t>(number) + i) % 7 * 37);
  }
  return record;
}

// What a scan has met: how many records, which, and why it ended.
struct Scanned {
  int records = 0;
  std::uint32_t sum = 0;
  std::int32_t reason = 0;
  bool operator==(const Scanned&) const = default;
  void add(const char* record, std::int32_t length, std::int32_t number) {
    ++records;
    sum = sum * 31 + static_cast<std::uint32_t>(number);
    for (std::int32_t i = 0; i < length; ++i)
      sum = sum * 31 + static_cast<unsigned char>(record[i]);
  }
};

// Reads records one by one, and the same ones many in a call: both meet the same.
void scan_both_ways(int isfd, keydescr key, std::vector<char>& record, bool backwards) {
  constexpr int kScanned = 300;
  constexpr std::int32_t kMany = 70;
  const int edge = backwards ? RD_LAST : RD_FIRST;
  const int step = backwards ? RD_PREV : RD_NEXT;
  if (isstart(isfd, &key, 0, record.data(), edge) != 0) return;
  Scanned singly;
  while (singly.records < kScanned && isread(isfd, record.data(), step) == 0) {
    singly.add(record.data(), isreclen, isrecnum);
  }
  singly.reason = iserrno;
  if (isstart(isfd, &key, 0, record.data(), edge) != 0) return;
  dictinfo info{};
  if (isdictinfo(isfd, &info) != 0) return;  // a damaged list of indexes: no length of a record
  const auto room = static_cast<std::size_t>(info.di_recsize);
  std::vector<char> records(kMany * room);
  std::array<std::int32_t, kMany> numbers{};
  std::array<std::int32_t, kMany> lengths{};
  recordset set{0, records.data(), records.size(), numbers.data(), lengths.data()};
  Scanned together;
  int got = 0;
  do {
    set.count = std::min(kMany, kScanned - together.records);
    if (set.count == 0) break;
    got = isreadmany(isfd, &set, step);
    for (int i = 0; i < got; ++i) {
      const auto at = static_cast<std::size_t>(i);
      together.add(&records[at * room], lengths[at], numbers[at]);
    }
    together.reason = iserrno;
  } while (got == set.count);
  if (together != singly) std::abort();
}

void read_by(int isfd, keydescr key, std::vector<char>& record) {
  for (const bool backwards : {false, true}) scan_both_ways(isfd, key, record, backwards);
  if (isstart(isfd, &key, 0, record.data(), RD_FIRST) != 0) return;
  for (int i = 0; i < kReads && isread(isfd, record.data(), RD_NEXT) == 0; ++i) continue;
  isrewcurr(isfd, record.data());
  isread(isfd, record.data(), RD_LAST);
  for (int i = 0; i < kReads && isread(isfd, record.data(), RD_PREV) == 0; ++i) continue;
  isdelcurr(isfd);
  isread(isfd, record.data(), RD_EQUAL);
  isread(isfd, record.data(), RD_GREAT);
}

void use(int isfd) {
  dictinfo info{};
  isdictinfo(isfd, &info);
  std::vector<char> record = record_of(0);
  read_by(isfd, keydescr{}, record);
  keydescr key{};
  for (int n = 1; iskeyinfo(isfd, &key, n) == 0 && n < 5; ++n) read_by(isfd, key, record);
  for (int i = 1; i < kReads; ++i) {
    record = record_of(i);
    isreclen = i % 3 == 0 ? info.di_recsize : isreclen + i * 100;
    if (i % 2 == 0) isreclen = info.di_recsize - i;
    iswrcurr(isfd, record.data());
    isrewrite(isfd, record.data());
    isdelrec(isfd, i);
    isrewrec(isfd, i * 2, record.data());
  }
  std::int32_t id = 0;
  isuniqueid(isfd, &id);
  isaltinc(isfd);
  std::array<char, 128> trail{};
  isaudit(isfd, trail.data(), AUDGETNAME);
}

// A load of records that may be there already. One that is refused leaves the pair to be used.
void load_many(int isfd) {
  constexpr std::int32_t kMany = 40;
  dictinfo info{};
  if (isdictinfo(isfd, &info) != 0 || isloadbegin(isfd) != 0) return;
  std::vector<char> records;
  std::array<std::int32_t, kMany> numbers{};
  std::array<std::int32_t, kMany> lengths{};
  for (int i = 0; i < kMany; ++i) {
    const std::vector<char> record = record_of(i / 2);
    records.insert(records.end(), record.begin(), record.begin() + info.di_recsize);
    lengths[static_cast<std::size_t>(i)] = info.di_recsize - i % 4;
  }
  recordset set{kMany, records.data(), records.size(), numbers.data(), lengths.data()};
  isload(isfd, &set);
  isloadend(isfd, numbers.data(), kMany);
  scan_both_ways(isfd, keydescr{}, records, false);
}

void change_indexes(int isfd) {
  keydescr added{};
  added.flags = KF_DUPS + KF_COMPRESS;
  added.nparts = 1;
  added.part[0].length = 1;
  isaddindex(isfd, &added);
  keydescr dropped{};
  if (iskeyinfo(isfd, &dropped, 2) == 0) isdelindex(isfd, &dropped);
}

void try_on(const fuzz::Workplace& workplace, const fuzz::PairInput& input) {
  constexpr std::array kLockModes = {ISAUTOLOCK, ISMANULOCK, ISEXCLLOCK};
  const int lock_mode = kLockModes[input.choice % kLockModes.size()];
  const int isfd = isopen(workplace.base().c_str(), ISINOUT + ISANYLENGTH + lock_mode);
  if (isfd >= 0) {
    use(isfd);
    if (lock_mode == ISEXCLLOCK) {
      load_many(isfd);
      change_indexes(isfd);
    }
    isclose(isfd);
  }
  iscleanup();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::with_pair({data, size}, try_on);
  return 0;
}
