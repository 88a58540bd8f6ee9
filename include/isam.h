/* isam.h: the public interface of the Zentra indexed-file library.
 *
 * Callable from C (C11) and C++. The interface is process-wide and not re-entrant: one thread of
 * a process uses it at a time.
 */
#ifndef ISAM_H
#define ISAM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Outcome of the last call.
 *
 * iserrno   0, or the reason of the failure: 1 to 99 are the system's errno values, from 100 on
 *           the library's own codes.
 * iserrio   0, or for a failed system call on a file its operation (0x10 open, 0x20 creat,
 *           0x30 lseek, 0x40 read, 0x50 write, 0x60 locking) plus the file (1 index, 2 data,
 *           3 audit, 4 lock, 5 semaphore).
 * isstat1   to isstat4: the outcome as four status characters, '0' each after a plain success.
 */
extern int32_t iserrno;
extern int32_t iserrio;
extern char isstat1;
extern char isstat2;
extern char isstat3;
extern char isstat4;

enum {
  MAXPARTS = 8,   /* parts of a key */
  MAXKEYLEN = 120 /* bytes of a key, all parts together */
};

/* Key flags. */
enum {
  KF_DUPS = 1,      /* duplicate key values are allowed */
  KF_DCOMPRESS = 2, /* a repeated key is stored once */
  KF_LCOMPRESS = 4, /* leading bytes shared with the previous key are not stored */
  KF_TCOMPRESS = 8  /* trailing blanks are not stored */
};

/* Types of key parts; KT_DESC is added to make a part sort descending. */
enum {
  KT_CHAR = 0,   /* bytes, compared unsigned */
  KT_INT = 1,    /* 2 bytes, big-endian, signed */
  KT_LONG = 2,   /* 4 bytes, big-endian, signed */
  KT_DOUBLE = 3, /* 8 bytes, the machine's double; all 0xFF is null and sorts first */
  KT_FLOAT = 4,  /* 4 bytes, the machine's float; all 0xFF is null and sorts first */
  KT_LOCALE = 7, /* characters, in the order of the client locale */
  KT_COLL1 = 16, /* bytes with a collating table of the application's */
  KT_COLL2 = 32,
  KT_COLL3 = 48,
  KT_COLL4 = 64,
  KT_COLL5 = 80,
  KT_COLL6 = 96,
  KT_COLL7 = 112,
  KT_DESC = 128
};

/* One part of a key: `length` bytes of the record from offset `start` (from 0), of one type. */
struct keypart {
  int16_t start;
  int16_t length;
  int16_t type;
};

/* What defines an index. The application sets flags, nparts and the parts; the library computes
 * keylen (sum of the lengths, at most MAXKEYLEN) and rootnode (node number of the index's root,
 * 0 for a key without parts, which stands for the order of record numbers). */
struct keydescr {
  int16_t flags;
  int16_t nparts;
  struct keypart part[MAXPARTS];
  int16_t keylen;
  int32_t rootnode;
};

/* Lock modes of an open, in the high byte of its mode. */
enum { ISAUTOLOCK = 0x200, ISMANULOCK = 0x400, ISEXCLLOCK = 0x800 };

/* The library's version: a name, a blank and a number such as "1.2.3". */
const char* isversion(void);

/* Closes every file that the process has open through the library. Returns 0. */
int iscleanup(void);

#ifdef __cplusplus
}
#endif

#endif
