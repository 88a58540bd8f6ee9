// Records that go to the file by themselves. (What else is done with the files of a pair:
// tests/scripts/files.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "common/io.h"
#include "tests/e2e/sessions.h"

namespace testing_support {
namespace {

// Single records that are written, and how many of these writes fail.
constexpr std::size_t kSlot = kMinimum + 1;
int records_written = 0;
int failures_to_come = 0;
ssize_t write_unless_told(int fd, const void* from, std::size_t count, off_t offset) {
  if (count == kSlot) {
    ++records_written;
    errno = EIO;
    if (failures_to_come > 0 && failures_to_come-- > 0) return -1;
  }
  return ::pwrite(fd, from, count, offset);
}

// A changed record goes to the file by itself once the file is well known. When that fails, the
// call fails and changes nothing; what an exclusive open changes waits in the pool instead, and the
// next call tells that, as does the close, which leaves the mark.
TEST(Records, AreWrittenByThemselvesOrNotAtAll) {
  for (const int lock : {ISMANULOCK, ISEXCLLOCK}) {
    SCOPED_TRACE(lock);
    const TempFolder folder;
    const std::string base = folder / "pair";
    constexpr int kRecords = 600;
    build_pair_of(base, false, kRecords);
    EXPECT_EQ(end_of(start_process([&] {
                common::system_calls().pwrite = write_unless_told;
                Session pair{base};
                if (pair.open(ISINOUT | lock) < 0) ::_exit(1);
                for (int i = 0; i < kRecords; ++i) {
                  if (pair.read(RD_EQUAL, i * 101 % kRecords + 1) != 0) ::_exit(2);
                }
                failures_to_come = 1;
                const int first = pair.put({300, 100, 1}, ::isrewrite);
                if (first != (lock == ISEXCLLOCK ? 0 : -1)) ::_exit(3);
                if (first < 0 && ::iserrno != EIO) ::_exit(4);
                if (failures_to_come != 0) ::_exit(5);
                const Row other{50, 7001, 1};
                const bool late = first == 0;
                if (late && (pair.put(other, ::isrewrite) == 0 || ::iserrno != EIO)) ::_exit(16);
                if (pair.put(other, ::isrewrite) != 0) ::_exit(6);
                if (pair.put({450, 0, 0}, ::isdelete) != 0) ::_exit(7);
                if (pair.put({900, 7002, 1}, ::iswrite) != 0) ::_exit(8);
                if (records_written < 3) ::_exit(9);
                const int counter = late ? 1 : 0;
                if (pair.read(RD_EQUAL, 300) != 0 || pair.row.counter != counter) ::_exit(10);
                if ((::isclose(pair.isfd) != 0) != late) ::_exit(11);
                if (late) kestro("-yq", base);
                if (pair.open(ISINOUT | lock) < 0) ::_exit(17);
                if (pair.read(RD_EQUAL, 300) != 0 || pair.row.counter != counter) ::_exit(12);
                if (pair.read(RD_EQUAL, 50) != 0 || pair.row.group != 7001) ::_exit(13);
                if (pair.read(RD_EQUAL, 450) != -1 || ::iserrno != ISENORECORD) ::_exit(14);
                if (pair.read(RD_EQUAL, 900) != 0 || pair.row.group != 7002) ::_exit(15);
              })),
              0);
    EXPECT_EQ(walk_pair(base).problems, std::vector<std::string>{});
  }
}

}  // namespace
}  // namespace testing_support
