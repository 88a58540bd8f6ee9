// What a repair puts in the index's place, what it keeps of the old one, and who waited for it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>

#include "checker/undodata.h"
#include "common/io.h"
#include "tests/e2e/check_here.h"
#include "tests/e2e/peer.h"
#include "tests/support/damage.h"

namespace testing_support {
namespace {

namespace fs = std::filesystem;

constexpr int kMarkAt = dict::kSize;
constexpr std::int32_t kMarkMagic = 0x4558434C;

struct stat status_of(const std::string& path) {
  struct stat status {};
  ::stat(path.c_str(), &status);
  return status;
}

class RepairCopy : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(folder_);
    built_ = build_pair(fault_spec(false), base_);
    sound_ = read_file(base_ + ".idx");
  }

  using Damage = void (*)(PairEditor&);
  static void spoil_index(PairEditor& editor) {
    put2(editor.node(editor.built().indexes[1].leaves.back()), 2);
  }
  static void spoil_count(PairEditor& editor) { put2(editor.dictionary() + dict::kKeys, 7); }
  static void spoil_both(PairEditor& editor) {
    spoil_index(editor);
    spoil_count(editor);
  }
  static void spoil_length(PairEditor& editor) {
    Byte* const length = editor.dictionary() + dict::kRecordSize;
    put2(length, get2(length) + 1);
  }
  static void spoil_nothing(PairEditor&) {}
  Image damage(Damage apply) {
    write_file(idx_, sound_);
    PairEditor editor(built_);
    apply(editor);
    editor.save();
    return editor.index;
  }

  std::string run(const char* options, const std::string& input = {}, const char* keep = nullptr) {
    RunRequest request{.words = {KESTRO_PROGRAM, options, base_}, .input = input};
    if (keep != nullptr) request.environment = {std::string("KESTRO_KEEP=") + keep};
    const RunResult result = run_program(request);
    EXPECT_EQ(result.status, 0);
    error_output_ = result.err;
    return result.out;
  }
  // Runs `kestro -yq` in a child whose calls `arrange` has changed: the status of waitpid.
  template <typename Arrange>
  int run_with(Arrange arrange) const {
    return end_of(start_process([&] {
      ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
      ::dup2(::open((outside_ / "errors").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
             STDERR_FILENO);
      arrange(common::system_calls());
      check_here(base_, 'y');
    }));
  }
  void expect_as_it_was(const Image& before) const {
    const Image text = read_file(outside_ / "errors");
    EXPECT_NE(std::string(text.begin(), text.end()).find("the pair is as it was"),
              std::string::npos);
    EXPECT_EQ(read_file(idx_), before);
  }
  // What the folder holds beside the pair.
  std::set<std::string> others() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_)) {
      const std::string name = entry.path().filename();
      if (name != "pair.idx" && name != "pair.dat") names.insert(name);
    }
    return names;
  }
  using Names = std::set<std::string>;

  TempFolder outside_;
  std::string folder_ = outside_ / "folder";
  std::string base_ = folder_ + "/pair";
  std::string idx_ = base_ + ".idx";
  BuiltPair built_;
  Image sound_;
  std::string error_output_;
};

TEST_F(RepairCopy, OldIndexIsKeptWhenTheRecordsCannotGiveItBack) {
  struct Case {
    const char* name;
    Damage damage;
    const char* options;
    const char* answers;
    const char* keep;
    bool kept;
  };
  const Case cases[] = {
      {"remade", spoil_index, "-yq", "", nullptr, false},
      {"remade, always", spoil_index, "-yq", "", "1", true},
      {"deleted", spoil_index, "-q", "y\nn\n", nullptr, true},
      {"deleted, never", spoil_index, "-q", "y\nn\n", "0", false},
      {"count", spoil_count, "-yq", "", nullptr, true},
      {"count, never", spoil_count, "-yq", "", "0", false},
      {"record length", spoil_length, "-yq", "", nullptr, true},
      {"declined", spoil_index, "-q", "n\n", "1", false},
      {"nothing", spoil_nothing, "-yq", "", "1", false},
      {"looked at", spoil_count, "-nq", "", "1", false},
  };
  for (const Case& it : cases) {
    SCOPED_TRACE(it.name);
    const Image before = damage(it.damage);
    run(it.options, it.answers, it.keep);
    EXPECT_EQ(others(), it.kept ? Names{"pair.idx.before"} : Names{}) << error_output_;
    if (!it.kept) continue;
    EXPECT_EQ(read_file(idx_ + ".before"), before);
    EXPECT_GT(::getxattr((idx_ + ".before").c_str(), "user.kestro.undo", nullptr, 0), 0);
    const auto undo = checker::load_undo_data(idx_ + ".before");
    ASSERT_TRUE(undo.has_value());
    checker::UndoData now;
    const int fd = ::open(idx_.c_str(), O_RDONLY);
    const int data = ::open((base_ + ".dat").c_str(), O_RDONLY);
    const int kept = ::open((idx_ + ".before").c_str(), O_RDONLY);
    ASSERT_EQ(checker::describe(fd, now.repaired), 0);
    ASSERT_EQ(checker::describe(data, now.data), 0);
    ASSERT_EQ(checker::describe(kept, now.kept), 0);
    now.kept.file.changed = undo->kept.file.changed;  // of the index that it is a copy of
    EXPECT_EQ(now, *undo);
    for (const int open : {fd, data, kept}) ::close(open);
    fs::remove(idx_ + ".before");
  }
}

TEST(UndoData, IsTakenOnlyAsItIsWritten) {
  checker::UndoData data;
  data.repaired = {{5120, {1790000000, 7}}, 4000000000U, 0xFEDCBA9876543210U};
  data.data = {1, {2, 999999999}};
  const std::string text = checker::text_of(data);
  EXPECT_EQ(checker::parse_undo_data(text), data);
  for (std::size_t at = 0; at < text.size(); ++at) {
    std::string other = text;
    other[at] = other[at] == 'x' ? 'y' : 'x';
    EXPECT_NE(checker::parse_undo_data(other), data) << at;
    EXPECT_FALSE(checker::parse_undo_data(text.substr(0, at)).has_value()) << at;
  }
}

TEST_F(RepairCopy, LeftoverOfAKilledRunGoesAndNothingElse) {
  const auto own_name = [&] {
    return idx_ + ".kestro-" + std::to_string(status_of(idx_ + ".x").st_ino);
  };
  write_file(idx_ + ".x", {1, 2});
  fs::rename(idx_ + ".x", own_name());
  write_file(idx_ + ".kestro-new", {});
  EXPECT_EQ(others().size(), 2U);
  run("-nq");
  EXPECT_EQ(others().size(), 2U);
  run("-yq");
  EXPECT_EQ(others(), Names{});
}

// Names without a folder are all that is left where the folder's path is too long for the system.
TEST_F(RepairCopy, IsMadeInAFolderThatNoPathLeadsTo) {
  damage(spoil_index);
  const int end = end_of(start_process([&] {
    if (::chdir(outside_.path().c_str()) != 0) ::_exit(2);
    const std::string deep(250, 'd');
    for (int depth = 0; depth < 20; ++depth) {
      if (::mkdir(deep.c_str(), 0700) != 0 || ::chdir(deep.c_str()) != 0) ::_exit(2);
    }
    for (const char* file : {"pair.idx", "pair.dat"}) fs::rename(folder_ + '/' + file, file);
    write_file("x", {1, 2});
    const std::string leftover = "pair.idx.kestro-" + std::to_string(status_of("x").st_ino);
    fs::rename("x", leftover);
    const RunResult run = run_program({.words = {KESTRO_PROGRAM, "-yq", "pair"}});
    const bool good = run.status == 0 && run.err.empty() && !fs::exists(leftover);
    fs::rename("pair.idx", idx_);
    fs::rename("pair.dat", base_ + ".dat");
    ::_exit(good ? 0 : 1);
  }));
  EXPECT_EQ(end, 0);
  EXPECT_EQ(walk_pair(base_).problems, std::vector<std::string>{});
}

TEST_F(RepairCopy, OwnerPermissionsAndAttributesStay) {
  damage(spoil_index);
  ASSERT_EQ(::chmod(idx_.c_str(), 0642), 0);
  const bool attributes = ::setxattr(idx_.c_str(), "user.label", "abc", 3, 0) == 0;
  const bool owner = ::chown(idx_.c_str(), 12345, 23456) == 0;
  const ino_t inode = status_of(idx_).st_ino;
  run("-yq");
  const struct stat now = status_of(idx_);
  EXPECT_NE(now.st_ino, inode);
  EXPECT_EQ(now.st_mode & 07777, 0642U);
  EXPECT_TRUE(!owner || (now.st_uid == 12345 && now.st_gid == 23456));
  char label[4] = {};
  EXPECT_TRUE(!attributes || ::getxattr(idx_.c_str(), "user.label", label, 3) == 3);
}

TEST_F(RepairCopy, ChangeOfTheDictionaryAloneIsMadeInPlace) {
  damage(spoil_count);
  const ino_t inode = status_of(idx_).st_ino;
  run("-yq");
  EXPECT_EQ(status_of(idx_).st_ino, inode);
  EXPECT_EQ(read_file(idx_), sound_);
  // Nor is anything written where nothing changes.
  const struct stat before = status_of(idx_);
  run("-yq");
  EXPECT_EQ(status_of(idx_).st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

TEST_F(RepairCopy, MarkOfUnfinishedChangesGoesWithTheLastFault) {
  struct Case {
    Damage damage;
    const char* options;
    const char* answers;
    bool stays;
  };
  const Case cases[] = {{spoil_nothing, "-yq", "", false},  {spoil_nothing, "-nq", "", true},
                        {spoil_nothing, "-iyq", "", true},  {spoil_index, "-yq", "", false},
                        {spoil_count, "-q", "n\n", true},   {spoil_count, "-yq", "", false},
                        {spoil_index, "-q", "y\nn\n", true}};
  for (const bool in_place : {false, true}) {
    for (const Case& it : cases) {
      SCOPED_TRACE(std::string(it.options) + it.answers + (in_place ? " in place" : ""));
      Image index = damage(it.damage);
      put4(&index[kMarkAt], kMarkMagic);
      put4(&index[kMarkAt + 4], 4711);
      write_file(idx_, index);
      if (in_place) fs::create_hard_link(idx_, idx_ + ".2nd");
      run(it.options, it.answers, "0");
      EXPECT_EQ(get4(&read_file(idx_)[kMarkAt]), it.stays ? kMarkMagic : 0);
      fs::remove(idx_ + ".2nd");
      // Bytes of others stay.
      index = damage(it.damage);
      put4(&index[kMarkAt], 99);
      write_file(idx_, index);
      if (in_place) fs::create_hard_link(idx_, idx_ + ".2nd");
      run(it.options, it.answers, "0");
      EXPECT_EQ(get4(&read_file(idx_)[kMarkAt]), 99);
      if (in_place && it.damage == spoil_index) {
        EXPECT_EQ(read_file(idx_), index) << "nothing could keep others from opening it";
      }
      fs::remove(idx_ + ".2nd");
    }
  }
}

TEST_F(RepairCopy, NoMemoryAtTheEndLeavesThePair) {
  const Image before = damage(spoil_both);
  EXPECT_EQ(run_with([](common::SystemCalls& calls) {
              calls.fsync = [](int) -> int { throw std::bad_alloc(); };
            }),
            0);
  expect_as_it_was(before);
  EXPECT_EQ(others(), Names{});
}

TEST_F(RepairCopy, InPlaceNothingChangesBeforeTheOldIndexIsKeptAndItStays) {
  const Image before = damage(spoil_both);
  EXPECT_EQ(run_with([](common::SystemCalls& calls) {
              calls.open = [](const char* path, int flags, mode_t permissions) {
                errno = ENOSPC;
                return (flags & O_TMPFILE) == O_TMPFILE ? -1 : ::open(path, flags, permissions);
              };
            }),
            0);
  expect_as_it_was(before);
  fs::create_hard_link(idx_, outside_ / "2nd");
  EXPECT_EQ(run_with([](common::SystemCalls& calls) {
              calls.pwrite = [](int fd, const void* from, std::size_t count, off_t offset) {
                errno = EIO;
                return count > 8 ? -1 : ::pwrite(fd, from, count, offset);  // all but the mark
              };
            }),
            0);
  EXPECT_EQ(read_file(idx_ + ".before"), before);
}

TEST_F(RepairCopy, SignalBeforeTheDictionaryIsWrittenLeavesNothing) {
  const Image before = damage(spoil_count);
  EXPECT_EQ(run_with([](common::SystemCalls& calls) {
              calls.link_open = [](int fd, const char* to) {
                const std::string from = "/proc/self/fd/" + std::to_string(fd);
                const int result =
                    ::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, to, AT_SYMLINK_FOLLOW);
                ::raise(SIGTERM);
                return result;
              };
            }),
            SIGTERM);
  expect_as_it_was(before);
  EXPECT_EQ(others(), Names{});
}

TEST_F(RepairCopy, KillBetweenTwoNamesLeavesNoStranger) {
  damage(spoil_count);
  EXPECT_EQ(run_with([](common::SystemCalls& calls) {
              calls.open = [](const char* path, int flags, mode_t permissions) {
                errno = EOPNOTSUPP;
                return (flags & O_TMPFILE) == O_TMPFILE ? -1 : ::open(path, flags, permissions);
              };
              calls.unlink = [](const char*) -> int { ::_exit(3); };
            }),
            3 << 8);
  EXPECT_EQ(others().size(), 2U);
  run("-yq");
  EXPECT_EQ(others(), (Names{"pair.idx.before", "pair.idx.before.2"}));
}

TEST(RepairInPlace, GathersAllKeysBeforeItChangesAnything) {
  constexpr int kRecords = 15000;  // whose keys do not fit into a MiB
  const TempFolder folder;
  const std::string base = folder / "pair";
  build_pair_of(base, false, kRecords);
  Image damaged = read_file(base + ".idx");
  damaged[damaged.size() / 3072 * 1024] = 0x7F;
  write_file(base + ".idx", damaged);
  EXPECT_EQ(end_of(start_process([&] {
              ::setenv("ISAMSORTMEM", "1", 1);
              for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
                ::dup2(::open("/dev/null", O_WRONLY), fd);
              }
              // There is room for no copy, nor for sorting: only for the mark.
              common::system_calls().open = [](const char* path, int flags, mode_t permissions) {
                const bool nameless = (flags & O_TMPFILE) == O_TMPFILE;
                errno = ENOSPC;
                return nameless ? -1 : ::open(path, flags, permissions);
              };
              common::system_calls().pwrite = [](int fd, const void* from, std::size_t count,
                                                 off_t offset) {
                errno = ENOSPC;
                return count > 8 ? -1 : ::pwrite(fd, from, count, offset);
              };
              if (check_here(base, 'y').whole) ::_exit(1);
            })),
            0);
  EXPECT_EQ(read_file(base + ".idx"), damaged);
}

// ---- Others, while the copy takes the index's place.

int to_test = -1;    // of the checker's process: a byte when it is about to
int from_test = -1;  // ... a byte when it may

int rename_when_told(const char* from, const char* to) {
  char byte = 1;
  if (::write(to_test, &byte, 1) != 1 || ::read(from_test, &byte, 1) != 1) ::_exit(9);
  return ::rename(from, to);
}

// A repair that stands before the step in which the copy takes the index's place.
class StandingRepair {
 public:
  explicit StandingRepair(const std::string& base) {
    int there[2];
    int back[2];
    if (::pipe(there) != 0 || ::pipe(back) != 0) throw std::runtime_error("pipe");
    process_ = start_process([&] {
      to_test = there[1];
      from_test = back[0];
      ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
      common::system_calls().rename = rename_when_told;
      check_here(base, 'y');
    });
    char byte = 0;
    if (::read(there[0], &byte, 1) != 1) throw std::runtime_error("no rename");
    line_ = back[1];
  }
  void go_on() {
    const char byte = 1;
    EXPECT_EQ(::write(line_, &byte, 1), 1);
    EXPECT_EQ(end_of(process_), 0);
  }

 private:
  pid_t process_ = 0;
  int line_ = -1;
};

// Knows nothing of copies: opens, waits for the semaphore, takes the open lock, reads the
// dictionary. The number with which it begins, or -1 when a lock is refused.
int begin_as_others_do(const std::string& idx) {
  const int fd = ::open(idx.c_str(), O_RDWR);
  struct flock semaphore {
    .l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 0, .l_len = 0x3FFFFFFF, .l_pid = 0
  };
  struct flock open_lock {
    .l_type = F_RDLCK, .l_whence = SEEK_SET, .l_start = kOpenLock, .l_len = 1, .l_pid = 0
  };
  Byte magic[2] = {0xFF, 0xFF};
  if (::fcntl(fd, F_SETLKW, &semaphore) != 0 || ::fcntl(fd, F_SETLK, &open_lock) != 0 ||
      ::pread(fd, magic, sizeof magic, 0) != 2) {
    return -1;
  }
  return get2(magic);
}

TEST_F(RepairCopy, WhoWaitsForTheOldIndexDoesNotGoOnWithIt) {
  damage(spoil_index);
  const std::string base = base_;
  StandingRepair repair(base);
  const Common<int> began;
  const pid_t other = start_process([&] {
    *began = -2;
    *began = begin_as_others_do(idx_);
  });
  Peer peer(base);
  ASSERT_EQ(peer([](Session& session, int, int) {
              session.varying = false;
              return ::isopen(session.base.c_str(), ISINPUT | ISMANULOCK);
            }),
            kWaits);
  while (*began != -2) ::usleep(1000);
  ::usleep(50000);  // until it waits
  EXPECT_EQ(*began, -2);
  repair.go_on();
  EXPECT_EQ(end_of(other), 0);
  EXPECT_EQ(*began, 0);
  EXPECT_EQ(peer.end(), 0) << "our own library opens the new one";
}

bool is_last_look = false;

// At the last look before the rename the name leads to another file.
int stat_of_swapped(const char* path, struct stat* status) {
  const std::string name = path;
  if (name.ends_with("pair.idx") && std::exchange(is_last_look, false)) {
    fs::rename(name, name + ".away");
    write_file(name, {42});
  }
  return ::stat(path, status);
}

TEST_F(RepairCopy, AnotherFileOfTheNameIsNotReplaced) {
  const Image before = damage(spoil_index);
  EXPECT_EQ(run_with([](common::SystemCalls& calls) {
              calls.stat = stat_of_swapped;
              calls.fsync = [](int) {
                is_last_look = true;
                return 0;
              };
            }),
            0);
  const Image said = read_file(outside_ / "errors");
  EXPECT_EQ(std::string(said.begin(), said.end()),
            "kestro: " + base_ + ": was replaced by another file meanwhile; nothing is repaired\n");
  EXPECT_EQ(read_file(idx_), Image{42});
  EXPECT_EQ(read_file(idx_ + ".away"), before);
  EXPECT_EQ(others(), Names{"pair.idx.away"});
}

}  // namespace
}  // namespace testing_support
