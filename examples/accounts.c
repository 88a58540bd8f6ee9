/* accounts: amounts moved between accounts in transactions, which a log makes recoverable.
 *
 *   accounts                   shows the accounts; makes two of 100 each if there are none
 *   accounts FROM TO AMOUNT    moves an amount from one account to another, both or neither
 *
 * The pair "accounts" and the log "changes.log" are in the current folder.
 */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include "isam.h"

/* Where the fields lie in a record. */
enum { NUMBER = 0, NUMBER_LENGTH = 8, BALANCE = 8, RECORD_LENGTH = 12 };

static struct keydescr by_number = {
    .nparts = 1,
    .part = {{NUMBER, NUMBER_LENGTH, KT_CHAR}},
};

static int complain(const char* call) {
  fprintf(stderr, "%s: %s (%" PRId32 ")\n", call, iserrtext(iserrno), iserrno);
  return EXIT_FAILURE;
}

/* The log is made if it is not there; then the log, like every call here, says what went wrong. */
static int open_log(const char* name) {
  FILE* log = fopen(name, "a");
  if (log != NULL) fclose(log);
  return islogopen(name);
}

static int build(void) {
  const char* const numbers[] = {"1001", "1002"};
  char record[RECORD_LENGTH];
  const int file = isbuild("accounts", RECORD_LENGTH, &by_number, ISINOUT + ISMANULOCK + ISTRANS);
  for (size_t i = 0; file >= 0 && i < sizeof numbers / sizeof numbers[0]; ++i) {
    stchar(numbers[i], record + NUMBER, NUMBER_LENGTH);
    stlong(100, record + BALANCE);
    if (iswrite(file, record) < 0) return -1;
  }
  return file;
}

/* Adds to the balance of an account. What it reads is locked, so that nobody else changes it until
 * the transaction ends. */
static int add(int file, const char* number, int32_t amount) {
  char record[RECORD_LENGTH];
  stchar(number, record + NUMBER, NUMBER_LENGTH);
  if (isread(file, record, RD_EQUAL + RD_LOCK + RD_WAIT) < 0) return -1;
  stlong(ldlong(record + BALANCE) + amount, record + BALANCE);
  return isrewcurr(file, record);
}

static int move(int file, const char* from, const char* to, int32_t amount) {
  if (isbegin() < 0) return -1;
  if (add(file, from, -amount) == 0 && add(file, to, amount) == 0) return iscommit();
  const int32_t reason = iserrno;
  isrollback();
  iserrno = reason;
  return -1;
}

static int show(int file) {
  char record[RECORD_LENGTH];
  char number[NUMBER_LENGTH + 1];
  for (int mode = RD_FIRST; isread(file, record, mode) == 0; mode = RD_NEXT) {
    ldchar(record + NUMBER, NUMBER_LENGTH, number);
    printf("%-8s %6" PRId32 "\n", number, ldlong(record + BALANCE));
  }
  return iserrno == ISEEND ? 0 : -1;
}

int main(int argc, char** argv) {
  if (argc != 1 && argc != 4) {
    fprintf(stderr, "usage: accounts [FROM TO AMOUNT]\n");
    return EXIT_FAILURE;
  }
  if (open_log("changes.log") < 0) return complain("changes.log");
  int file = isopen("accounts", ISINOUT + ISMANULOCK + ISTRANS);
  if (file < 0 && iserrno == ENOENT) file = build();
  if (file < 0) return complain("accounts");

  int status = EXIT_SUCCESS;
  const int32_t amount = argc == 4 ? (int32_t)strtol(argv[3], NULL, 10) : 0;
  if (argc == 4 && move(file, argv[1], argv[2], amount) < 0) status = complain("not moved");
  if (show(file) < 0) status = complain("isread");
  if (isclose(file) < 0) status = complain("isclose");
  if (islogclose() < 0) status = complain("islogclose");
  return status;
}
