// What is changed is undone without room on the disk. (Writes that are refused one after the other:
// tests/scripts/refused-writes, failing-calls. There the files are not mapped.)
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "common/io.h"
#include "tests/e2e/sessions.h"
#include "tests/support/between.h"

namespace testing_support {
namespace {

// The leaf that the first index gives up serves the second; what the third refuses is undone, also
// where the first then needs a node more and the disk is full.
TEST(RefusedWrites, OfRoomDoNotKeepACallFromBeingUndone) {
  const TempFolder folder;
  const std::string base = folder / "pair";
  const auto record = [](int a, int b, int c) {
    std::array<char, 3 * kGroupAt + 1> text{};
    std::snprintf(text.data(), text.size(), "%060d%060d%060d", a, b, c);
    return std::string(text.data());
  };
  keydescr key = id_key();
  const int isfd = ::isbuild(base.c_str(), 3 * kGroupAt, &key, ISINOUT | ISEXCLLOCK);
  for (const int start : {kGroupAt, 2 * kGroupAt}) {
    key.part[0].start = static_cast<std::int16_t>(start);
    EXPECT_EQ(::isaddindex(isfd, &key), 0);
  }
  for (int n = 2; n <= 92; n += 2) EXPECT_EQ(::iswrite(isfd, record(n, n, n).data()), 0);
  EXPECT_EQ(::isdelrec(isfd, 5), 0);
  EXPECT_EQ(::isflush(isfd), 0);
  stand_between([](SystemCall& call) {
    return call.kind == SystemCall::kWrite && call.grows() ? ENOSPC : 0;
  });
  EXPECT_EQ(::isrewrec(isfd, 46, record(11, 33, 2).data()), -1);
  EXPECT_EQ(::iserrno, ISEDUPLICATE);
  stand_aside();
  EXPECT_EQ(::isclose(isfd), 0);
  EXPECT_EQ(walk_pair(base).problems, std::vector<std::string>{});
}

// Once the data file is mapped, which takes some reads by the system's own call, records behind all
// others lengthen it by themselves.
TEST(RefusedWrites, OfRecordsThatLengthenAMappedFileLeaveThePairAsItWas) {
  const TempFolder folder;
  const std::string base = folder / "pair", data = base + ".dat";
  constexpr int kBuilt = 300, kAll = 360;
  build_pair_of(base, false, kBuilt);
  Session session{base, false};
  ASSERT_GE(session.open(ISINOUT | ISMANULOCK), 0);
  for (int id = 1; id <= kBuilt; ++id) ASSERT_EQ(session.put({id, id % 7, id}, ::isrewrite), 0);
  static int writes_before = 0;
  common::system_calls().pwrite = [](int fd, const void* from, std::size_t count, off_t at) {
    if (writes_before-- != 0) return ::pwrite(fd, from, count, at);
    errno = ENOSPC;
    return ssize_t{-1};
  };
  int lengthened = 0;
  for (int id = kBuilt + 1; id <= kAll; ++id) {
    // A process was killed when the system had done a part of its write of zero bytes.
    const std::uintmax_t size = std::filesystem::file_size(data);
    const bool lies_across_end =
        std::int64_t{id} * (kMinimum + 1) > static_cast<std::int64_t>(size);
    if (lengthened == 2 && lies_across_end) std::filesystem::resize_file(data, size + 700);
    const Image index_before = read_file(base + ".idx"), data_before = read_file(data);
    int writes = 0;
    for (; writes_before = writes, session.put({id, id % 7, id}, ::iswrite) != 0; ++writes) {
      ASSERT_LT(writes, 20);
      ASSERT_EQ(read_file(base + ".idx"), index_before) << id << " write " << writes;
      ASSERT_EQ(read_file(data), data_before) << id << " write " << writes;
    }
    const Image now = read_file(data);
    EXPECT_EQ(now.size() % 1024, 0U) << id;
    lengthened += now.size() > data_before.size() ? 1 : 0;
  }
  common::system_calls().pwrite = ::pwrite;
  EXPECT_GE(lengthened, 3);
  EXPECT_EQ(::isclose(session.isfd), 0);
  EXPECT_EQ(walk_pair(base).problems, std::vector<std::string>{});
  EXPECT_EQ(std::ssize(counters_in(base, false, 1, kAll)), kAll);
}

}  // namespace
}  // namespace testing_support
