/* calls: a fixed script of library calls over three pairs, drawn from a seed; prints what each call
 * gives.
 *
 *   calls build             makes the pairs in the current folder
 *   calls work SEED STEPS   works on them, with the log file "log"; an odd seed ends it inside a
 *                           transaction, as if it had been killed
 */
#include <isam.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { kFiles = 3, kOpens = 5, kLength = 60, kLongest = 2500, kValues = 300 };

static const char* const names[kFiles] = {"plain", "varying", "clustered"};
static struct keydescr keys[5] = {
    {.flags = 0, .nparts = 1, .part = {{0, 6, KT_CHAR}}},
    {.flags = KF_DUPS + KF_DCOMPRESS, .nparts = 1, .part = {{8, 2, KT_INT}}},
    {.flags = KF_DUPS + KF_COMPRESS, .nparts = 1, .part = {{10, 20, KT_CHAR}}},
    {.flags = KF_DUPS + KF_LCOMPRESS,
     .nparts = 2,
     .part = {{30, 4, KT_LONG + KT_DESC}, {0, 6, KT_CHAR}}},
    {.flags = 0, .nparts = 0}};

static char record[kLongest];
static struct {
  int file; /* -1 when it is not open */
  int name;
} opens[kOpens];

static uint64_t state;
static int draw(int below) {
  state = state * 6364136223846793005u + 1442695040888963407u;
  return (int)((state >> 33) % (unsigned)below);
}

static void tell(const char* call, int argument, int result) {
  unsigned sum = 0;
  for (int i = 0; i < kLongest; ++i) sum = sum * 31 + (unsigned char)record[i];
  printf("%s %d: %d errno %d io %d recnum %d reclen %d stat %c%c%c%c record %08x\n", call, argument,
         result, iserrno, iserrio, isrecnum, isreclen, isstat1, isstat2, isstat3, isstat4, sum);
}

static void fill(int name) {
  memset(record, ' ', sizeof record);
  char text[32];
  const int value = draw(kValues);
  snprintf(text, sizeof text, "%06d", value);
  memcpy(record, text, 6);
  stint(draw(9) - 4, record + 8);
  memset(record + 10, 'a' + draw(3), (size_t)draw(18));
  stlong(draw(50) - 25, record + 30);
  memset(record + 40, 'k' + value % 7, 20);
  isreclen = kLength;
  if (name == 1 && draw(3) != 0) {
    isreclen = kLength + draw(draw(4) == 0 ? kLongest - kLength : 200);
    for (int i = kLength; i < isreclen; ++i) record[i] = (char)('A' + (value + i) % 26);
  }
}

static int record_length(int name) { return name == 1 ? kLongest : kLength; }

static void build(void) {
  for (int name = 0; name < kFiles; ++name) {
    isreclen = kLength;
    isdupsiz = name == 2 ? 2 : 4;
    const int mode = ISINOUT + ISEXCLLOCK + (name == 1 ? ISVARLEN : 0);
    const int file = isbuild(names[name], record_length(name), &keys[name == 2 ? 1 : 0], mode);
    tell("isbuild", name, file);
    for (int i = 0; i < 150; ++i) {
      fill(name);
      tell("iswrite", name, iswrite(file, record));
    }
    tell("isaddindex", 2, isaddindex(file, &keys[2]));
    char trail[128] = "trail";
    if (name == 0) tell("isaudit", AUDSETNAME, isaudit(file, trail, AUDSETNAME));
    if (name == 0) tell("isaudit", AUDSTART, isaudit(file, trail, AUDSTART));
    tell("isclose", name, isclose(file));
  }
}

static void close_all(int name) {
  for (int i = 0; i < kOpens; ++i) {
    if (opens[i].file < 0 || opens[i].name != name) continue;
    tell("isclose", name, isclose(opens[i].file));
    opens[i].file = -1;
  }
}

static void open_one(int at) {
  static const int modes[] = {ISINOUT + ISMANULOCK + ISTRANS,
                              ISINOUT + ISMANULOCK + ISTRANS,
                              ISINOUT + ISAUTOLOCK + ISTRANS,
                              ISINOUT + ISAUTOLOCK,
                              ISINPUT + ISMANULOCK,
                              ISINOUT + ISEXCLLOCK + ISTRANS,
                              ISINOUT + ISEXCLLOCK};
  const int name = draw(kFiles);
  const int mode = modes[draw(7)] + (name == 1 ? ISVARLEN : 0);
  if (opens[at].file >= 0) tell("isclose", at, isclose(opens[at].file));
  opens[at].file = -1;
  if ((mode & ISEXCLLOCK) != 0) close_all(name);
  opens[at].name = name;
  opens[at].file = isopen(names[name], mode);
  tell("isopen", mode, opens[at].file);
}

static void change(int at) {
  const int file = opens[at].file;
  fill(opens[at].name);
  const int number = 1 + draw(kValues);
  switch (draw(10)) {
    case 0:
      return tell("isrewrite", at, isrewrite(file, record));
    case 1:
      return tell("isrewcurr", at, isrewcurr(file, record));
    case 2:
      return tell("isrewrec", number, isrewrec(file, number, record));
    case 3:
      return tell("isdelete", at, isdelete(file, record));
    case 4:
      return tell("isdelcurr", at, isdelcurr(file));
    case 5:
      return tell("isdelrec", number, isdelrec(file, number));
    case 6:
      return tell("iswrcurr", at, iswrcurr(file, record));
    default:
      return tell("iswrite", at, iswrite(file, record));
  }
}

static void look(int at) {
  const int file = opens[at].file;
  fill(opens[at].name);
  if (draw(4) == 0) {
    const int key = draw(5);
    const int mode = draw(8);
    isrecnum = 1 + draw(kValues);
    return tell("isstart", key, isstart(file, &keys[key], draw(3) == 0 ? 1 : 0, record, mode));
  }
  const int mode = draw(8) + (draw(4) == 0 ? RD_LOCK : 0);
  tell("isread", mode, isread(file, record, mode));
}

static void seldom(int at) {
  const int file = opens[at].file;
  struct dictinfo info;
  char trail[128] = "";
  int32_t id = 0;
  switch (draw(11)) {
    case 0:
      return tell("isaddindex", at, isaddindex(file, &keys[1 + draw(3)]));
    case 1:
      return tell("isdelindex", at, isdelindex(file, &keys[1 + draw(3)]));
    case 2:
      id = iscluster(file, &keys[draw(5)]);
      if (id >= 0) opens[at].file = id;
      return tell("iscluster", at, id);
    case 3:
      id = isuniqueid(file, &id) == 0 ? id : -1;
      return tell("isuniqueid", at, id);
    case 4:
      return tell("issetunique", at, issetunique(file, draw(100000)));
    case 5:
      return tell("islock", at, islock(file));
    case 6:
      return tell("isunlock", at, isunlock(file));
    case 7:
      return tell("isrelease", at, isrelease(file));
    case 8:
      id = isdictinfo(file, &info) == 0 ? info.di_nrecords : -1;
      return tell("isdictinfo", at, id);
    case 9:
      return tell("isaudit", at, isaudit(file, trail, AUDSTART + draw(3)));
    default:
      return tell("isflush", at, isflush(file));
  }
}

static void work(int steps) {
  tell("islogopen", 0, islogopen("log"));
  for (int at = 0; at < kOpens; ++at) open_one(at);
  for (int step = 0; step < steps; ++step) {
    const int what = draw(100);
    const int at = draw(kOpens);
    if (what < 3) {
      open_one(at);
    } else if (what < 9) {
      tell("isbegin", 0, isbegin());
    } else if (what < 13) {
      tell("iscommit", 0, iscommit());
    } else if (what < 15) {
      tell("isrollback", 0, isrollback());
    } else if (opens[at].file < 0) {
      continue;
    } else if (what < 60) {
      change(at);
    } else if (what < 94) {
      look(at);
    } else {
      seldom(at);
    }
  }
}

int main(int argc, char** argv) {
  state = 1;
  if (argc == 2 && strcmp(argv[1], "build") == 0) {
    build();
    return 0;
  }
  if (argc != 4) return 2;
  state = strtoul(argv[2], NULL, 10);
  const int killed = state % 2 == 1;
  for (int at = 0; at < kOpens; ++at) opens[at].file = -1;
  work(atoi(argv[3]));
  if (killed) {
    tell("isbegin", 0, isbegin());
    for (int at = 0; at < kOpens; ++at) {
      if (opens[at].file >= 0) change(at);
    }
    fflush(stdout);
    _exit(0);
  }
  tell("islogclose", 0, islogclose());
  tell("iscleanup", 0, iscleanup());
  return 0;
}
