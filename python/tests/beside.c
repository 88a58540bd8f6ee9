/* An application in C beside processes of Python on one pair: what test_beside.py has each of them do.
 *
 *   beside PAIR OWN LOG NAME ROUNDS
 *
 * Of the pair OWN it has a record locked all the time. The records of both are of 16 bytes: a key of 8, a
 * long, 4 bytes of nothing.
 */
#include <isam.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kAccounts = 4, kLength = 16, kAmount = 8 };

static void must(int result, const char* what) {
  if (result >= 0) return;
  printf("%s: %d %s\n", what, iserrno, isexplain());
  exit(1);
}

static void key(char* record, const char* name, int number) {
  char text[32];
  snprintf(text, sizeof text, "%s%0*d", name, (int)(8 - strlen(name)), number);
  memcpy(record, text, 8);
}

static void add_to(int file, int account, int amount) {
  char record[kLength];
  key(record, "a", account);
  must(isread(file, record, RD_EQUAL + RD_LOCK + RD_WAIT), "isread");
  stlong(ldlong(record + kAmount) + amount, record + kAmount);
  must(isrewrite(file, record), "isrewrite");
}

/* From a lower account to a higher one, so that nobody waits for somebody who waits for him. */
static void move(int file, const char* name, int round) {
  char record[kLength] = {0};
  must(isbegin(), "isbegin");
  add_to(file, round % (kAccounts - 1), -round);
  add_to(file, kAccounts - 1, round);
  key(record, name, round);
  stlong(round, record + kAmount);
  must(iswrite(file, record), "iswrite");
  must(round % 3 == 0 ? isrollback() : iscommit(), "end of a transaction");
}

/* Without a transaction: another lock, which goes at once. */
static void count(int plain) {
  char record[kLength];
  key(record, "count", 0);
  must(isread(plain, record, RD_EQUAL + RD_LOCK + RD_WAIT), "isread");
  stlong(ldlong(record + kAmount) + 1, record + kAmount);
  must(isrewrite(plain, record), "isrewrite");
  must(isrelrec(plain, isrecnum), "isrelrec");
}

static void wait_for_word(const char* told) {
  char line[16];
  puts(told);
  fflush(stdout);
  if (fgets(line, sizeof line, stdin) == NULL) exit(2);
}

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const char* const name = argv[4];
  const int rounds = atoi(argv[5]);
  char record[kLength];
  must(islogopen(argv[3]), "islogopen");
  const int file = isopen(argv[1], ISINOUT + ISMANULOCK + ISTRANS);
  const int plain = isopen(argv[1], ISINOUT + ISMANULOCK);
  const int own = isopen(argv[2], ISINPUT + ISMANULOCK);
  if (file < 0 || plain < 0) return 3;
  must(own, "isopen");
  key(record, name, 0);
  must(isread(own, record, RD_EQUAL + RD_LOCK), "a lock for all the time");
  wait_for_word("ready");
  for (int round = 1; round <= rounds; ++round) {
    move(file, name, round);
    count(plain);
  }
  wait_for_word("done");
  return isclose(file) < 0 || isclose(plain) < 0 || isclose(own) < 0 || islogclose() < 0;
}
