/* customers: a small customer file in C.
 *
 *   customers [NAME]     the pair NAME, "customers" if none is given; made if it is not there
 *
 * A customer has a number, which is the primary key, a name, a town and a count of orders. A second
 * index has the names, which customers may share.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "isam.h"

/* Where the fields lie in a record. */
enum {
  NUMBER = 0,
  NUMBER_LENGTH = 8,
  NAME = 8,
  NAME_LENGTH = 24,
  TOWN = 32,
  TOWN_LENGTH = 16,
  ORDERS = 48,
  RECORD_LENGTH = 52
};

static struct keydescr by_number = {
    .nparts = 1,
    .part = {{NUMBER, NUMBER_LENGTH, KT_CHAR}},
};
static struct keydescr by_name = {
    .flags = KF_DUPS + KF_COMPRESS,
    .nparts = 2,
    .part = {{NAME, NAME_LENGTH, KT_CHAR}, {ORDERS, 4, KT_LONG + KT_DESC}},
};

/* Ends the program when a call has failed that should not. */
static int checked(int result, const char* call) {
  if (result >= 0) return result;
  fprintf(stderr, "customers: %s: %s (%d)\n", call, iserrtext(iserrno), (int)iserrno);
  exit(1);
}

static int open_or_build(const char* name) {
  int file = isopen(name, ISINOUT + ISMANULOCK);
  if (file >= 0 || iserrno != ENOENT) return checked(file, "isopen");
  file = checked(isbuild(name, RECORD_LENGTH, &by_number, ISINOUT + ISEXCLLOCK), "isbuild");
  checked(isaddindex(file, &by_name), "isaddindex");
  checked(isclose(file), "isclose");
  return checked(isopen(name, ISINOUT + ISMANULOCK), "isopen");
}

static void add(int file, const char* number, const char* name, const char* town, int orders) {
  char record[RECORD_LENGTH];
  stchar(number, record + NUMBER, NUMBER_LENGTH);
  stchar(name, record + NAME, NAME_LENGTH);
  stchar(town, record + TOWN, TOWN_LENGTH);
  stlong(orders, record + ORDERS);
  if (iswrite(file, record) == 0) return;
  if (iserrno != ISEDUPLICATE) checked(-1, "iswrite");
  printf("%s is there already\n", number);
}

static void print(const char* record) {
  char number[NUMBER_LENGTH + 1];
  char name[NAME_LENGTH + 1];
  char town[TOWN_LENGTH + 1];
  ldchar(record + NUMBER, NUMBER_LENGTH, number);
  ldchar(record + NAME, NAME_LENGTH, name);
  ldchar(record + TOWN, TOWN_LENGTH, town);
  printf("  %-8s  %-12s %-10s %3d\n", number, name, town, (int)ldlong(record + ORDERS));
}

/* Reads the customer with this number and locks the record: whether there is one. */
static int find(int file, const char* number, char* record) {
  checked(isstart(file, &by_number, 0, NULL, RD_FIRST), "isstart");
  stchar(number, record + NUMBER, NUMBER_LENGTH);
  if (isread(file, record, RD_EQUAL + RD_LOCK) == 0) return 1;
  if (iserrno != ISENORECORD) checked(-1, "isread");
  printf("%s is not there\n", number);
  return 0;
}

static void list_by_name(int file) {
  char record[RECORD_LENGTH];
  checked(isstart(file, &by_name, 0, NULL, RD_FIRST), "isstart");
  while (isread(file, record, RD_NEXT) == 0) print(record);
  if (iserrno != ISEEND) checked(-1, "isread");
}

static void list_with_name(int file, const char* name) {
  char record[RECORD_LENGTH];
  char wanted[NAME_LENGTH];
  stchar(name, record + NAME, NAME_LENGTH);
  memcpy(wanted, record + NAME, NAME_LENGTH);
  if (isstart(file, &by_name, NAME_LENGTH, record, RD_EQUAL) < 0) {
    if (iserrno != ISENORECORD) checked(-1, "isstart");
    return;
  }
  while (isread(file, record, RD_NEXT) == 0 && memcmp(record + NAME, wanted, NAME_LENGTH) == 0) {
    print(record);
  }
  if (iserrno != 0 && iserrno != ISEEND) checked(-1, "isread");
}

static void change_town(int file, const char* number, const char* town) {
  char record[RECORD_LENGTH];
  if (find(file, number, record)) {
    stchar(town, record + TOWN, TOWN_LENGTH);
    stlong(ldlong(record + ORDERS) + 1, record + ORDERS);
    checked(isrewcurr(file, record), "isrewcurr");
  }
  checked(isrelease(file), "isrelease");
}

static void drop(int file, const char* number) {
  char record[RECORD_LENGTH];
  if (find(file, number, record)) checked(isdelcurr(file), "isdelcurr");
  checked(isrelease(file), "isrelease");
}

int main(int argc, char** argv) {
  struct dictinfo info;
  const int file = open_or_build(argc > 1 ? argv[1] : "customers");

  add(file, "00000042", "Brandt", "Bergen", 3);
  add(file, "00000007", "Dumas", "Delft", 12);
  add(file, "00000019", "Abel", "Antwerp", 0);
  add(file, "00000023", "Brandt", "Cork", 5);
  add(file, "00000031", "Castro", "Evora", 1);

  printf("by name\n");
  list_by_name(file);
  printf("named Brandt\n");
  list_with_name(file, "Brandt");

  change_town(file, "00000019", "Bergen");
  drop(file, "00000031");
  drop(file, "00000099");

  checked(isdictinfo(file, &info), "isdictinfo");
  printf("%d customers after all\n", (int)info.di_nrecords);
  list_by_name(file);

  checked(isclose(file), "isclose");
  return 0;
}
