// What records of a log prove about records before them: of processes that were killed, in a
// transaction or before they did what they had logged.
#include "tests/txlog/log_script.h"

namespace testing_support {
namespace {

INSTANTIATE_TEST_SUITE_P(Formats, Evidence, ::testing::Values(false));

TEST_P(Evidence, DecidesWhatIsApplied) {
  const struct {
    const char* what;
    const char* log;
    const char* records;
  } kCases[] = {
      {"taken back: a key in use", "A+4:1.5 B+5:5.0 A!", "1:1.0 2:2.0 3:3.0 5:5.0"},
      {"... in a transaction", "A[ A+4:1.5 A! A+4:4.0 A]", "1:1.0 2:2.0 3:3.0 4:4.0"},
      {"... nothing to delete", "A-9:9.0 A!", "1:1.0 2:2.0 3:3.0"},
      {"... after it gave way", "A-2:2.0 B*2:2.0>2.7 A!", "1:1.0 2:2.7 3:3.0"},
      {"... twice, and then made", "B-1:1.0 B! A-1:1.0 B-1:1.0 A! A+5:5.0 C+4:1.1",
       "2:2.0 3:3.0 4:1.1 5:5.0"},
      {"... when the key is gone", "A-2:2.0 B[ b-2:2.0 C+4:2.1 A!", "1:1.0 3:3.0 4:2.1"},
      {"... and another is there", "A-2:2.0 B[ B*2:2.0>9.0 C+4:2.1 A! B]",
       "1:1.0 2:9.0 3:3.0 4:2.1"},
      {"... but not by the next record", "A+4:1.5 A+5:5.0 A-4:1.5", "100"},

      {"last: a delete", "A-2:2.0 B*2:2.0>2.7", "1:1.0 2:2.7 3:3.0"},
      {"... that was made", "A-2:2.0 B+2:7.0", "1:1.0 2:7.0 3:3.0"},
      {"... a rewrite", "A*2:2.0>2.1 B-2:2.0", "1:1.0 3:3.0"},
      {"... with its key", "A*2:2.0>5.0 B+4:5.1", "1:1.0 2:2.0 3:3.0 4:5.1"},
      {"... by a rewrite", "A*2:2.0>5.0 B*3:3.0>5.1", "1:1.0 2:2.0 3:5.1"},
      {"... with a key it always had", "A*2:2.0>2.1 B+4:2.5", "100"},
      {"... an insertion's number", "A+4:5.0 B+4:6.0", "1:1.0 2:2.0 3:3.0 4:6.0"},
      {"... and its key", "A+4:5.0 B+5:5.1", "1:1.0 2:2.0 3:3.0 5:5.1"},
      {"... in favour of a transaction", "A-2:2.0 B[ B*2:2.0>2.7 B]", "1:1.0 2:2.7 3:3.0"},
      {"... with a key that was given up since", "A*3:3.0>7.0 B[ b-3:3.0 C+6:3.1 D+4:7.1",
       "1:1.0 2:2.0 4:7.1 6:3.1"},
      {"... with a key that others take turns at", "C*1:1.0>7.0 B[ B*3:3.0>7.1 b*1:1.0>3.1 D-1:3.1",
       "2:2.0 3:7.1"},
      {"... before what a rollback put back", "D[ d+4:4.0 D-4:4.0 A+5:4.1 D~",
       "1:1.0 2:2.0 3:3.0 4:4.0"},
      {"... followed by a begin mark", "E+6:4.0 A[ A*6:4.0>5.0 a+8:4.1 E[ e+9:9.0 E-8:4.1 A~",
       "1:1.0 2:2.0 3:3.0 6:4.0"},
      {"not the last", "A*2:2.0>5.0 A*3:3.0>3.1 B+4:5.1", "100"},
      {"of a process before", "A-2:2.0 A# A*2:2.0>2.7", "1:1.0 2:2.7 3:3.0"},
      {"... in a transaction", "A-2:2.0 A# A[ A*2:2.0>2.7 A]", "1:1.0 2:2.7 3:3.0"},

      {"held: a key given up", "A[ A-2:2.0 B+4:2.1 A]", "1:1.0 3:3.0 4:2.1"},
      {"... for good", "A[ A-2:2.0 B+4:2.1 A~", "1:1.0 3:3.0 4:2.1"},
      {"... and not for the one that took it", "A[ A*2:2.0>5.0 B[ B*3:3.0>2.1 B]",
       "1:1.0 2:5.0 3:2.1"},
      {"... not given up", "A[ A*2:2.0>2.1 B+4:2.1 A]", "100"},
      {"... one after the other", "A[ A*1:1.0>7.0 B[ B*2:2.0>1.0 C+4:2.5",
       "1:7.0 2:1.0 3:3.0 4:2.5"},
      {"... taken back before", "A[ A*2:2.0>7.3 A! A-2:2.0 B+4:2.1", "1:1.0 3:3.0 4:2.1"},
      {"... and taken back by others", "A[ a-3:3.0 a*1:1.0>1.3 a! B[ b*1:1.0>5.0 C+4:1.1",
       "1:5.0 2:2.0 3:3.0 4:1.1"},
      {"... not by one that was not made", "A[ A-2:2.0 C[ C*2:2.0>5.0 D+4:2.1",
       "1:1.0 2:5.0 3:3.0 4:2.1"},
      {"... by somebody else since", "A[ a+4:4.0 B[ B*4:4.0>5.0 C+6:4.1 A]",
       "1:1.0 2:2.0 3:3.0 4:5.0 6:4.1"},
      {"held: the same record", "A[ A+4:4.0 A+5:5.0 B*4:4.0>4.1", "1:1.0 2:2.0 3:3.0 4:4.1"},
      {"... and all before", "A[ A*2:2.0>5.0 A*2:5.0>6.0 A*3:3.0>2.0 B*2:6.0>6.1",
       "1:1.0 2:6.1 3:3.0"},
      {"... not the last, which was not made", "A[ A*2:2.0>2.1 A-2:2.1 B*2:2.1>2.2",
       "1:1.0 2:2.2 3:3.0"},
      {"... in a transaction", "A[ A+4:4.0 B[ B*4:4.0>4.1 B]", "1:1.0 2:2.0 3:3.0 4:4.1"},
      {"... once", "A[ A+4:4.0 B*4:4.0>4.1 A]", "1:1.0 2:2.0 3:3.0 4:4.1"},
      {"... that has used a key for a while", "A[ A*2:2.0>5.0 A*2:5.0>6.0 B+4:5.1 A]",
       "1:1.0 2:6.0 3:3.0 4:5.1"},
      {"... and is dead", "A[ A*2:2.0>5.0 A*2:5.0>6.0 B+4:5.1 C*2:6.0>6.1",
       "1:1.0 2:6.1 3:3.0 4:5.1"},
      {"... but undone by a recovery", "A[ A-2:2.0 A+4:4.0 A-3:3.0 B*2:2.0>2.7 B+4:5.0",
       "1:1.0 2:2.7 3:3.0 4:5.0"},
      {"held: all of a file that is clustered", "A[ A+4:4.0 A-1:1.0 Bc", "1:2.0 2:3.0 3:4.0"},
      {"... gets a unique index", "A[ A*1:1.0>1.1 A*2:2.0>2.2 Bi C+4:4.4 D[ D*4:4.4>4.5 C+5:5.4 D~",
       "1:1.1 2:2.2 3:3.0 4:4.5 5:5.4"},
      {"... is erased", "A[ A+4:4.0 Be A~", "none"},

      {"new process", "A[ A+4:4.0 A# A+5:5.0", "1:1.0 2:2.0 3:3.0 5:5.0"},
      {"... with a chain of its own", "A[ A+4:4.0 A# A+5:5.0 A+6:6.0 A-6:6.0",
       "1:1.0 2:2.0 3:3.0 5:5.0"},
      {"... and a transaction", "A[ A+4:4.0 A# A+5:5.0 A[ A+6:6.0 A]",
       "1:1.0 2:2.0 3:3.0 5:5.0 6:6.0"},
      {"... only a transaction", "A[ A+4:4.0 A# A[ A+4:6.0 A]", "1:1.0 2:2.0 3:3.0 4:6.0"},
      {"... after what the old one did", "A[ A-2:2.0 A# A+4:2.1", "1:1.0 3:3.0 4:2.1"},
      {"the same process", "A[ A+4:4.0 A= A+5:5.0 A]", "1:1.0 2:2.0 3:3.0 4:4.0 5:5.0"},
      {"... rolls back", "A[ a+4:4.0 A+5:5.0 A= A+6:6.0 A~", "1:1.0 2:2.0 3:3.0 4:4.0"},
      {"... is killed", "A[ A+4:4.0 A= A+5:5.0", "1:1.0 2:2.0 3:3.0"},

      {"new process with another open", "A[ A+4:4.0 A# A5 A+5:5.0 A+6:6.0",
       "1:1.0 2:2.0 3:3.0 5:5.0 6:6.0"},
      {"... and a transaction", "A[ A+4:4.0 A# A5 A+5:5.0 A[ A+6:6.0 A]",
       "1:1.0 2:2.0 3:3.0 5:5.0 6:6.0"},
      {"... that is killed", "A[ A+4:4.0 A# A5 A+5:5.0 A[ A+6:6.0", "1:1.0 2:2.0 3:3.0 5:5.0"},
      {"... the same process", "A[ A+4:4.0 A5 A+5:5.0 A+6:6.0", "1:1.0 2:2.0 3:3.0"},
      {"... after a last change", "A-2:2.0 A# A5 A+4:4.0 B*2:2.0>2.7", "1:1.0 2:2.7 3:3.0 4:4.0"},
      {"... in a transaction", "A-2:2.0 A# A[ A5 A*2:2.0>2.7 A]", "1:1.0 2:2.7 3:3.0"},
      {"... but the same process", "A*2:2.0>5.0 A5 A*3:3.0>3.1 B+4:5.1", "100"},

      {"unlinked: the same record", "A[ a*2:2.0>2.1 B*2:2.1>2.2 A]", "1:1.0 2:2.2 3:3.0"},
      {"... and those before", "A[ a*1:1.0>1.1 A*3:3.0>3.1 a*2:2.0>2.1 B*2:2.1>2.2 A~",
       "1:1.1 2:2.2 3:3.0"},
      {"... without an end", "A[ a*1:1.0>1.1 a*2:2.0>2.1 B*2:2.1>2.2", "1:1.1 2:2.2 3:3.0"},
      {"... except behind images", "A[ A*1:1.0>1.1 a*1:1.1>1.2 a*2:2.0>2.1 B*2:2.1>2.2",
       "1:1.0 2:2.2 3:3.0"},
      {"... that were taken back", "A[ A+7:4.0 A! a+7:6.0 a*2:2.0>2.1 A*7:6.0>6.1 B*2:2.1>2.2",
       "1:1.0 2:2.2 3:3.0 7:6.0"},
      {"... but not what was not made", "A[ a+5:5.0 a*1:1.0>1.3 B*1:1.0>1.5 a! A-1:1.5 C+6:1.6",
       "2:2.0 3:3.0 6:1.6"},
      {"... its key", "A[ a-2:2.0 B+4:2.1 A]", "1:1.0 3:3.0 4:2.1"},
      {"... at a rollback", "A[ a*2:2.0>2.1 A*3:3.0>3.1 A~", "1:1.0 2:2.1 3:3.0"},
      {"... and no proof of it", "A[ a*2:2.0>2.1", "1:1.0 2:2.0 3:3.0"},
      {"... an index", "A[ A*1:1.0>1.1 A*2:2.0>2.2 ai A]", "1:1.1 2:2.2 3:3.0"},
  };
  for (const auto& c : kCases) EXPECT_EQ(outcome(c.log), c.records) << c.what << ": " << c.log;
}

}  // namespace
}  // namespace testing_support
