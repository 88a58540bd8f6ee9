// Steps of a scan that are served from copies, while others change the file: whoever has been told
// that a change is done, or has seen it, never reads what was before it.
//
// Two processes change records, one of them as slowly, and in as many pieces, as another program
// may: its pages first, the dictionary with the raised stamp behind them. Two others scan. What is
// done or was seen is told in memory that all have in common. The first now and then works in
// transactions and in batch mode, where rewrites are held back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <utility>
#include <vector>

#include "common/holders.h"
#include "common/io.h"
#include "tests/e2e/sessions.h"

namespace testing_support {
namespace {

constexpr int kIds = 96;
constexpr auto kLong = std::chrono::milliseconds(1500);

// The record of an id has a version: how often it was put there, changed or removed. Each fourth
// version is that it is away.
constexpr bool is_there(int version) { return version % 4 != 2; }

// What is told of one id. No version is read that is below `known` when the read begins, or above
// `begun` when it ends.
struct Told {
  std::atomic<int> begun = 1;
  std::atomic<int> known = 1;

  void know(int version) {
    int before = known;
    while (before < version && !known.compare_exchange_weak(before, version)) {
    }
  }
};

struct Board {
  std::array<Told, kIds + 2> told;
  std::atomic<bool> over = false;
  std::atomic<int> changes = 0;
  std::atomic<int> steps = 0;
  std::atomic<int> unlocked = 0;  // ... that asked the system for no lock
  std::atomic<int> portions = 0;
  std::atomic<int> unlocked_portions = 0;
  std::atomic<int> wrong = 0;  // line of what was found wrong

  void expect(bool good, int line = __builtin_LINE()) {
    if (!good) wrong = line;
  }
};

// ---- Another program's way to write.

constexpr std::size_t kPiece = 256;
constexpr std::size_t kDictionaryBytes = 117;
std::array<char, kDictionaryBytes> dictionary;
int dictionary_fd = -1;

ssize_t write_slowly(int fd, const void* from, std::size_t count, off_t at) {
  const auto* bytes = static_cast<const char*>(from);
  if (at == 0 && count == kDictionaryBytes) {
    std::copy_n(bytes, count, dictionary.begin());
    dictionary_fd = fd;
    return static_cast<ssize_t>(count);
  }
  for (std::size_t done = 0; done < count; done += kPiece) {
    ::usleep(30);
    const std::size_t piece = std::min(kPiece, count - done);
    if (::pwrite(fd, bytes + done, piece, at + static_cast<off_t>(done)) < 0) return -1;
  }
  return static_cast<ssize_t>(count);
}

int unlock_behind_dictionary(int fd, int command, struct flock* lock) {
  if (lock->l_type == F_UNLCK && dictionary_fd >= 0) {
    ::usleep(100);
    if (::pwrite(std::exchange(dictionary_fd, -1), dictionary.data(), dictionary.size(), 0) < 0) {
      return -1;
    }
  }
  return ::fcntl(fd, command, lock);
}

// ---- The processes.

class Changing {
 public:
  Changing(const std::string& base, bool varying, int process, Board& board)
      : session_{base, varying},
        random_(static_cast<unsigned>(process)),
        process_(process),
        board_(board) {
    if (process == 0) write_file(base + ".log", {});
    if (process == 0 && ::islogopen((base + ".log").c_str()) != 0) ::_exit(1);
    if (session_.open(ISINOUT | ISMANULOCK | (process == 0 ? ISTRANS : 0)) < 0) ::_exit(1);
  }

  void run() {
    while (!board_.over) {
      if (process_ == 0 && random_() % 8 == 0) begin_or_commit();
      const int id = 1 + process_ + 2 * static_cast<int>(random_() % (kIds / 2));
      Told& told = board_.told[static_cast<std::size_t>(id)];
      const int version = ++told.begun;
      const Row row{id, id / 3, version};
      const auto call = !is_there(version)      ? ::isdelete
                        : is_there(version - 1) ? ::isrewrite
                                                : ::iswrite;
      int result = -1;
      do {  // numbers that the end of a transaction has just freed may still be locked
        result = session_.put(row, call);
      } while (result != 0 && ::iserrno == ISELOCKED);
      board_.expect(result == 0);
      told.know(version);
      ++board_.changes;
      if (random_() % 4 == 0) ::usleep(200);
    }
    if (in_transaction_) begin_or_commit();
    board_.expect(::isclose(session_.isfd) == 0);
  }

 private:
  void begin_or_commit() {
    board_.expect((in_transaction_ ? ::iscommit() : ::isbegin()) == 0);
    in_transaction_ = !in_transaction_;
    ::isbatch(in_transaction_ ? 1 : 0);
  }

  Session session_;
  std::mt19937 random_;
  int process_;
  bool in_transaction_ = false;
  Board& board_;
};

int locks = 0;

int count_lock(int fd, int command, struct flock* lock) {
  ++locks;
  return ::fcntl(fd, command, lock);
}

class Scanning {
 public:
  Scanning(const std::string& base, bool varying, int process, Board& board)
      : session_{base, varying}, random_(static_cast<unsigned>(process) + 7), board_(board) {
    if (session_.open(ISINPUT | ISMANULOCK) < 0) ::_exit(1);
    common::system_calls().fcntl_lock = count_lock;
  }

  // Each scan goes on by single steps, or by portions.
  void run() {
    while (!board_.over) {
      const bool forward = random_() % 4 != 0;
      const int portion = random_() % 2 == 0 ? 0 : 2 + static_cast<int>(random_() % 3);
      if (session_.start(id_key(), forward ? RD_FIRST : RD_LAST) != 0) continue;
      int here = forward ? 0 : kIds + 1;
      for (int left = static_cast<int>(random_() % 200); left > 0 && here >= 0; --left) {
        here = portion == 0 ? step(here, forward) : step_many(here, forward, portion);
        if (random_() % 16 == 0) ::usleep(100);
      }
    }
  }

 private:
  using Versions = std::array<int, kIds + 2>;

  [[nodiscard]] Versions known() const {
    Versions known{};
    for (std::size_t id = 0; id < known.size(); ++id) known[id] = board_.told[id].known;
    return known;
  }

  // One step from the id `here`: to which, or -1 at the end.
  int step(int here, bool forward) {
    const Versions before = known();
    const int locks_before = locks;
    std::string record(kMaximum, 0);
    const int result = ::isread(session_.isfd, record.data(), forward ? RD_NEXT : RD_PREV);
    board_.expect(result == 0 || ::iserrno == ISEEND);
    board_.unlocked += locks == locks_before ? 1 : 0;
    ++board_.steps;
    if (result == 0) record.resize(static_cast<std::size_t>(::isreclen));
    return come_to(here, forward, result == 0 ? &record : nullptr, before);
  }

  // The same for several at once.
  int step_many(int here, bool forward, int portion) {
    const Versions before = known();
    const int locks_before = locks;
    const std::size_t room = session_.varying ? kMaximum : kMinimum;
    std::array<std::int32_t, 4> numbers{};
    std::array<std::int32_t, 4> lengths{};
    std::string records(static_cast<std::size_t>(portion) * room, 0);
    recordset set{portion, records.data(), records.size(), numbers.data(), lengths.data()};
    const int got = ::isreadmany(session_.isfd, &set, forward ? RD_NEXT : RD_PREV);
    board_.expect(got == portion || ::iserrno == ISEEND);
    board_.expect(got <= 0 || ::isrecnum == numbers[static_cast<std::size_t>(got) - 1]);
    board_.unlocked_portions += locks == locks_before ? 1 : 0;
    ++board_.portions;
    for (int i = 0; i < got && here >= 0; ++i) {
      const auto at = static_cast<std::size_t>(i);
      const std::string record = records.substr(at * room, static_cast<std::size_t>(lengths[at]));
      here = come_to(here, forward, &record, before);
    }
    return got == portion ? here : -1;
  }

  // A step has come from the id `here` to this record, or to the end: to which id, or -1.
  int come_to(int here, bool forward, const std::string* record, const Versions& known) {
    Row row{forward ? kIds + 1 : 0, 0, 0};
    if (record != nullptr) {
      board_.expect(parse(*record, session_.varying, row));
      // The current record may have gone and come back as another one, which then is the next.
      const bool is_back = forward && row.id == here && row.counter >= session_.row.counter + 2;
      board_.expect(row.id >= 1 && row.id <= kIds);
      board_.expect((forward ? row.id > here : row.id < here) || is_back);
      if (board_.wrong != 0) return -1;
      Told& told = board_.told[static_cast<std::size_t>(row.id)];
      board_.expect(row.counter >= known[static_cast<std::size_t>(row.id)] &&
                    row.counter <= told.begun);
      told.know(row.counter);
    }
    // A record that was passed over was away at some moment. (The first step forward gives the one
    // that the start has found.)
    for (int id = here == 0 ? row.id : std::min(here, row.id) + 1; id < std::max(here, row.id);
         ++id) {
      Told& told = board_.told[static_cast<std::size_t>(id)];
      const int begun = told.begun;
      int version = known[static_cast<std::size_t>(id)];
      while (is_there(version) && version <= begun) ++version;
      board_.expect(version <= begun);
      told.know(version);
    }
    session_.row = row;
    return record != nullptr ? row.id : -1;
  }

  Session session_;
  std::mt19937 random_;
  Board& board_;
};

class Linear : public testing::TestWithParam<bool> {};

TEST_P(Linear, ScansSeeWhatIsKnownToBeDone) {
  const TempFolder folder;
  const std::string base = folder / "pair";
  build_pair_of(base, GetParam(), 0);
  const Common<Board> board;
  ASSERT_EQ(end_of(start_process([&] {
              Session session{base, GetParam()};
              session.open(ISINOUT | ISMANULOCK);
              for (int id = 1; id <= kIds; ++id) {
                if (session.put({id, id / 3, 1}, ::iswrite) != 0) ::_exit(1);
              }
              ::isclose(session.isfd);
            })),
            0);
  std::vector<pid_t> processes;
  processes.reserve(4);
  for (int i = 0; i < 4; ++i) {
    processes.push_back(start_process([&] {
      if (i == 1) {
        common::system_calls().pwrite = write_slowly;
        common::system_calls().fcntl_lock = unlock_behind_dictionary;
      }
      i < 2 ? Changing(base, GetParam(), i, *board).run()
            : Scanning(base, GetParam(), i, *board).run();
    }));
  }
  for (auto end = std::chrono::steady_clock::now() + kLong;
       std::chrono::steady_clock::now() < end && board->wrong == 0;) {
    ::usleep(10'000);
  }
  board->over = true;
  for (const pid_t process : processes) EXPECT_EQ(end_of(process), 0);
  EXPECT_EQ(board->wrong, 0);
  // Each of the ways there are was taken often.
  EXPECT_GT(board->changes, 50);
  const common::FileHold index{::open((base + ".idx").c_str(), O_RDONLY)};
  if (common::mapping_shows_writes(index.get())) {
    EXPECT_GT(board->unlocked, 100);
    EXPECT_GT(board->unlocked_portions, 20);
  }
  EXPECT_GT(board->steps - board->unlocked, 100);
  EXPECT_GT(board->portions - board->unlocked_portions, 100);
  expect_nothing_found(kestro("-nq", base));
}

// Lets all files seem to be on a file system of this kind.
void pretend(long kind) {
  static long pretended;
  pretended = kind;
  common::system_calls().fstatfs = [](int, struct statfs* status) {
    status->f_type = pretended;
    return 0;
  };
}

// How often a scan asks for a lock, on a file system of this kind.
int locks_of_scan(const std::string& base, bool varying, long kind) {
  const Common<int> asked;
  EXPECT_EQ(end_of(start_process([&] {
              pretend(kind);
              Session session{base, varying};
              std::string record(kMaximum, 0);
              session.open(ISINPUT | ISMANULOCK);
              for (int scans = 0; scans < 2; ++scans) {
                session.start(id_key(), RD_FIRST);
                common::system_calls().fcntl_lock = count_lock;
                locks = 0;
                while (::isread(session.isfd, record.data(), RD_NEXT) == 0) continue;
              }
              *asked = locks;
            })),
            0);
  return *asked;
}

TEST_P(Linear, ScansAskForEachLockWhereAMappingMayLagBehind) {
  const TempFolder folder;
  const std::string base = folder / "pair";
  build_pair_of(base, GetParam(), kIds);
  constexpr int kEach = 2 * (kIds + 1);
  EXPECT_LT(locks_of_scan(base, GetParam(), EXT4_SUPER_MAGIC), kEach / 2);
  EXPECT_EQ(locks_of_scan(base, GetParam(), NFS_SUPER_MAGIC), kEach);
  EXPECT_EQ(locks_of_scan(base, GetParam(), 0x65735546 /* FUSE */), kEach);
}

// Another process may be in the midst of writing as soon as the lock is given back.
TEST_P(Linear, ScansCopyUnderTheLock) {
  static std::string data;
  const TempFolder folder;
  const std::string base = folder / "pair";
  build_pair_of(base, GetParam(), kIds);
  data = base + ".dat";
  EXPECT_EQ(end_of(start_process([&] {
              Session session{base, GetParam()};
              std::string record(kMaximum, 0);
              pretend(EXT4_SUPER_MAGIC);
              session.open(ISINPUT | ISMANULOCK);
              session.start(id_key(), RD_FIRST);
              while (::isread(session.isfd, record.data(), RD_NEXT) == 0) continue;  // maps files
              session.start(id_key(), RD_FIRST);
              for (int id = 1; id <= 15; ++id) {
                if (::isread(session.isfd, record.data(), RD_NEXT) != 0) ::_exit(100 + id);
                const int length = GetParam() ? ::isreclen : kMinimum;
                const std::string got = record.substr(0, static_cast<std::size_t>(length));
                if (!parse(got, GetParam(), session.row) || session.row.id != id) ::_exit(id);
                if (id != 1) continue;
                common::system_calls().fcntl_lock = [](int fd, int command, struct flock* lock) {
                  const int result = ::fcntl(fd, command, lock);
                  if (lock->l_type != F_UNLCK) return result;
                  std::fstream(data, std::ios::in | std::ios::out).seekp(1030)
                      << std::string(60, 'x');
                  return result;
                };
              }
            })),
            0);
}

INSTANTIATE_TEST_SUITE_P(Pairs, Linear, testing::Bool());

}  // namespace
}  // namespace testing_support
