/* isam.h: the public interface of the Zentra indexed-file library.
 *
 * An indexed file is a pair of files: NAME.dat holds the records in numbered slots, NAME.idx the
 * dictionary, the indexes and the variable parts of records. Every call names the pair by its base
 * name (without suffix) or, once open, by the small number that isopen() or isbuild() returned.
 *
 * Callable from C (C11) and C++. Link with -lisam. The interface is process-wide and not
 * re-entrant: one thread of a process uses it at a time. Locks belong to the process.
 *
 * A program in short:
 *
 *   struct keydescr key = {.flags = 0, .nparts = 1, .part = {{0, 8, KT_CHAR}}};
 *   char record[65];                          (64 bytes of record)
 *   int file = isopen("customer", ISINOUT + ISMANULOCK);
 *   if (file < 0 && iserrno == ENOENT)
 *     file = isbuild("customer", 64, &key, ISINOUT + ISMANULOCK);
 *   memcpy(record, "00000042", 8);
 *   if (isread(file, record, RD_EQUAL) < 0) ...  iserrno tells why
 *   isclose(file);
 *
 * Results. Unless a call says otherwise it returns 0, or -1 with the reason in iserrno. Every call
 * that is given an open or a file's name clears iserrno and iserrio when it starts and sets the
 * four status characters when it ends. Besides the codes that a call names, any call that reads or
 * writes may fail with a system error (1 to 99, with iserrio telling the operation), ISECORRUPT for
 * a damaged pair, ISEFORMAT for one of another format, and ISENOTOPEN for a number that is not open
 * or an open that lacks the access needed.
 *
 * Records are arrays of char of the record length, laid out by the application. Numbers in key
 * fields are stored with the st...() functions and read with the ld...() functions below. With
 * variable length, a record is as long as isreclen says, from the minimum to the maximum length.
 *
 * File names are taken as they are, relative to the folder of the moment: a program that changes
 * its folder uses absolute ones. Locks belong to the process: closing an open, or releasing its
 * locks other than by isrelrec(), may also release those that other opens of the same file in the
 * process hold. After a fork() the child uses none of the opens of its parent.
 *
 * Environment, each looked up once on first use; marvolen.rc(5) tells where else it may be set:
 *   ISAMBUFS             page buffers of 1 KiB shared by all files, 4 to 32766 (default 16);
 *                        a call that changes more pages gets more
 *   ISAMSORTMEM          MiB for sorting when an index is filled, 1 to 65536 (default 64)
 *   ISAM_DEADLOCK_COUNT  retries of a lock request that met a deadlock (default 0)
 *   ISAM_DEADLOCK_SLEEP  milliseconds before each retry (default 0: yield the processor)
 *   ISAM_LOG_SYNC        1 makes iscommit() wait until the disk has the log (default 0)
 *   ISCLOSE_SHARE_LOCK   0 makes isclose() wait for other processes' readers (default 1)
 *   CLIENT_LOCALE        the locale of keys of type KT_LOCALE (default c: the order of the bytes)
 *   RESETLOCK            when set, a file with an unexpected locking method is accepted
 *   SQLIDEBUG            a file to which calls append what they exchange with the application
 */
#ifndef ISAM_H
#define ISAM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* -------------------- outcome of the last call -------------------- */

/* iserrno   0, or the reason of the failure: 1 to 99 are the system's errno values, from 100 on
 *           the library's own codes (below).
 * iserrio   0, or for a failed system call on a file its operation (0x10 open, 0x20 creat,
 *           0x30 lseek, 0x40 read, 0x50 write, 0x60 locking) plus the file (1 index, 2 data,
 *           3 audit, 4 lock, 5 semaphore).
 * isrecnum  number of the record that the last successful start, read, write, rewrite or delete
 *           concerned, from 1; 0 when a start met an empty file. In the order of record numbers
 *           (a key without parts) the application sets it to say which record it means.
 * isreclen  length in bytes of the record read last, or the greatest length of a file just opened.
 *           With variable length the application sets it before a write or rewrite to the length
 *           of that record, and before isbuild() to the minimum length.
 * isstat1   to isstat4: the outcome as four status characters. "0000" success, "0202" success on a
 *           key that a neighbour record has too, "2222" duplicate, "1010" end of file and "2143" no
 *           current record ("1046" and "2146" of RD_NEXT, and of RD_PREV and RD_CURR right after
 *           the end), "2323" no such record, "9090" anything else; "9035" no such file, "9037"
 *           access or mode refused, "9039" record format (fixed or variable length) differs, "9042"
 *           closing what is not open, "9047" reading, "9048" writing and "9049" changing through an
 *           open without that access, "9490" any other call through such an open, "9044" a record
 *           length out of range.
 * isdupsiz  width in bytes of the duplicate numbers of files that isbuild() makes: 4 (the default)
 *           or 2, which allows 65536 records of one key.
 */
extern int32_t iserrno;
extern int32_t iserrio;
extern int32_t isrecnum;
extern int32_t isreclen;
extern char isstat1;
extern char isstat2;
extern char isstat3;
extern char isstat4;
extern int32_t isdupsiz;

/* Library codes in iserrno. */
enum {
  ISEDUPLICATE = 100,    /* a key that may occur only once does already */
  ISENOTOPEN = 101,      /* not open, or not for this access */
  ISEARGUMENT = 102,     /* an argument is out of range */
  ISEKEY = 103,          /* a key description is illegal, or not one of the file's */
  ISETOOMANY = 104,      /* the process has as many opens or pairs open as it may */
  ISECORRUPT = 105,      /* the pair is damaged: run kestro */
  ISENOTEXCLUSIVE = 106, /* the call needs an exclusive open */
  ISELOCKED = 107,       /* another process has the record or file locked */
  ISEKEYEXISTS = 108,    /* the file has this index already */
  ISEPRIMARY = 109,      /* the primary index cannot be dropped */
  ISEEND = 110,          /* before the first or after the last record */
  ISENORECORD = 111,     /* no such record */
  ISENOCURRENT = 112,    /* no current record */
  ISEINUSE = 113,        /* another open is in the way */
  ISENAME = 114,         /* a file name is empty or too long */
  ISEMEMORY = 116,       /* no memory */
  ISECOLLATION = 117,    /* the file is ordered by another locale than the client's */
  ISELOGREAD = 118,      /* the log cannot be read */
  ISELOGRECORD = 119,    /* a log record is damaged, or does not fit what came before */
  ISELOGOPEN = 120,      /* a log file cannot be opened */
  ISELOGWRITE = 121,     /* the log cannot be written */
  ISENOLOG = 122,        /* no log is open */
  ISENOBEGIN = 124,      /* no transaction has begun */
  ISERECNUM = 126,       /* recovery cannot give a record its number */
  ISENOPRIMARY = 127,    /* the file has no primary key */
  ISERECLEN = 132,       /* a record length is out of range */
  ISEAUDIT = 133,        /* a file with an audit trail cannot be clustered */
  ISENOLOCKS = 134,      /* the system has no more locks */
  ISENOTMANUAL = 153,    /* the open's lock mode is not ISMANULOCK */
  ISELOCALE = 159,       /* the client's locale cannot be loaded */
  ISEFORMAT = 171,       /* a pair of another format */
  ISELOGMAGIC = 21502,   /* the file is not a log */
  ISETOODEEP = 26062     /* an index has reached its greatest depth */
};

/* -------------------- keys -------------------- */

enum {
  MAXPARTS = 8,   /* parts of a key */
  MAXKEYLEN = 120 /* bytes of a key, all parts together */
};

/* Key flags. */
enum {
  KF_DUPS = 1,      /* duplicate key values are allowed */
  KF_DCOMPRESS = 2, /* a repeated key is stored once */
  KF_LCOMPRESS = 4, /* leading bytes shared with the previous key are not stored */
  KF_TCOMPRESS = 8, /* trailing blanks are not stored */
  KF_COMPRESS = 14  /* all three */
};

/* Types of key parts; KT_DESC is added to make a part sort descending. */
enum {
  KT_CHAR = 0,   /* bytes, compared unsigned */
  KT_INT = 1,    /* 2 bytes, big-endian, signed */
  KT_LONG = 2,   /* 4 bytes, big-endian, signed */
  KT_DOUBLE = 3, /* 8 bytes, the machine's double; all 0xFF is null and sorts first */
  KT_FLOAT = 4,  /* 4 bytes, the machine's float; all 0xFF is null and sorts first */
  KT_LOCALE = 7, /* characters, in the order of the client locale */
  KT_COLL1 = 16, /* bytes that the application orders itself: all values are equal in an index */
  KT_COLL2 = 32,
  KT_COLL3 = 48,
  KT_COLL4 = 64,
  KT_COLL5 = 80,
  KT_COLL6 = 96,
  KT_COLL7 = 112,
  KT_DESC = 128
};

/* One part of a key: `length` bytes of the record from offset `start` (from 0), of one type. The
 * parts of KT_INT, KT_LONG, KT_DOUBLE and KT_FLOAT have the length given above. A part lies within
 * the record, with variable length within its minimum length. */
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

/* What isdictinfo() tells of a file. */
struct dictinfo {
  int32_t di_nkeys;    /* indexes; DI_VARLEN is added for a file of variable-length records */
  int32_t di_recsize;  /* record length in bytes, the maximum with variable length */
  int32_t di_idxsize;  /* size of an index node minus one, in bytes */
  int32_t di_nrecords; /* records present */
};
enum { DI_VARLEN = 0x8000 };

/* Records that one call reads or writes. All arrays are the caller's and have room for `count`
 * elements. The record at place i, from 0, stands at records + i * (greatest record length). */
struct recordset {
  int32_t count; /* records wanted, from 1 */
  char* records; /* of `size` bytes, at least count * (greatest record length) */
  size_t size;
  int32_t* numbers; /* record numbers */
  int32_t* lengths; /* lengths in bytes */
};

/* -------------------- modes of calls -------------------- */

/* Mode of isopen() and isbuild(): one access, one lock mode, options added. */
enum {
  ISINPUT = 0,  /* read only */
  ISOUTPUT = 1, /* write only */
  ISINOUT = 2,  /* read and write */

  ISTRANS = 4, /* changes belong to transactions: isrollback() undoes them (needs a log) */
  ISNOLOG = 8, /* changes are not logged, though a log is open (needs one) */

  ISVARLEN = 0x10,     /* the records are of variable length */
  ISANYPRIMARY = 0x20, /* isdelindex() may drop the primary and the current key */
  ISANYLENGTH = 0x80,  /* fixed or variable length, and whatever locale */

  ISAUTOLOCK = 0x200, /* isread() locks the record it reads, until the open's next call */
  ISMANULOCK = 0x400, /* records are locked when asked for, until isrelease() or isunlock() */
  ISEXCLLOCK = 0x800 /* no other process has the file open; writes may be delayed until isclose() */
};

/* Mode of isread() and, where marked *, isstart(). */
enum {
  RD_FIRST = 0, /* * first record in the order of the current key */
  RD_LAST = 1,  /* * last record */
  RD_NEXT = 2,  /* record after the current one */
  RD_PREV = 3,  /* record before the current one */
  RD_CURR = 4,  /* the current record again */
  RD_EQUAL = 5, /* * first record whose key equals the given record's */
  RD_GREAT = 6, /* * first record whose key is greater */
  RD_GTEQ = 7,  /* * first record whose key is greater or equal */

  /* Added to a mode of isread(). */
  RD_LOCK = 0x100,     /* lock the record; ISELOCKED when another process has it */
  RD_SKIPLOCK = 0x200, /* on ISELOCKED move to that record all the same, so that RD_NEXT passes it;
                         only together with RD_LOCK, not with RD_WAIT */
  RD_WAIT = 0x400      /* wait until the record can be locked; only together with RD_LOCK */
};

/* -------------------- opening and closing -------------------- */

/* Opens the pair `name` (base name below 123 bytes). `mode`: an access, a lock mode, ISVARLEN for a
 * file of variable-length records. The open stands before the first record of the primary key.
 * Returns the number of the open, 0 to 255; -1 with ENOENT ("9035"), EACCES ("9037"), ISEARGUMENT
 * (mode; "9039" when ISVARLEN and the file differ), ISETOOMANY, ISENAME, ISEINUSE (locked out by
 * another process's open), ISECOLLATION, ISELOCALE, ISECORRUPT, ISEFORMAT. Sets isreclen to the
 * greatest record length. */
int isopen(const char* name, int mode);

/* Closes an open and releases its locks; inside a transaction see there. -1 with ISENOTOPEN
 * ("9042"), or the error of a write that had to be done now. */
int isclose(int isfd);

/* Rolls an open transaction back and closes every file that the process has open through the
 * library. 0, with iserrno and the status characters as they were; -1 with the first failure, and
 * all is closed nevertheless. */
int iscleanup(void);

/* Writes what the process still holds of this file's changes to the operating system. (Opens other
 * than exclusive ones have nothing left to write after a call.) The open must allow reading. */
int isflush(int isfd);

/* Makes a pair for records of `reclen` bytes, 1 to 32511, and opens it with `mode`. `key` is the
 * primary key, index 1; nparts 0 makes a file without one, in the order of record numbers. With
 * ISVARLEN `reclen` is the maximum and isreclen, set before the call, the minimum, at least 1 and
 * below the maximum; key parts lie within the minimum. The files get permissions 0664 as the umask
 * allows. Returns the number of the open, as isopen(), without a current record; -1 with EEXIST
 * (iserrio 0x21 or 0x22), ISERECLEN, ISEKEY, ISEARGUMENT, ISENAME, ISELOCALE and whatever isopen()
 * may fail with. A failed call leaves no file behind. */
int isbuild(const char* name, int reclen, struct keydescr* key, int mode);

/* Removes the pair `name`, and its audit trail. No other process may have it open: -1 with
 * ISEINUSE. */
int iserase(const char* name);

/* Gives a pair that no other process has open another name: -1 with ISEINUSE, EEXIST, ISENAME. A
 * failure between its two files leaves them under different names. */
int isrename(const char* oldname, const char* newname);

/* Kept for programs that remove lock files by name: checks the name (ISENAME) and does nothing. */
int isremlock(const char* name);

/* Makes every later isopen() and isbuild() exclusive while `n` is not 0. Returns 0. */
int issetsu(int n);

/* Lets up to `n` pairs that are no longer in use stay open, 0 to 255, so that opening them again is
 * fast. Returns 0. */
int isvclose(int n);

/* Batch mode, `n` 1: an open holds its file for up to six calls before other processes' turn comes,
 * `n` 0 ends it. Any `n` gives the file held up now. Returns 0. */
int isbatch(int n);

/* -------------------- indexes -------------------- */

/* Adds an index to an exclusively open file and fills it from the records. `key` gets keylen and
 * rootnode. -1 with ISENOTEXCLUSIVE, ISEKEY, ISEKEYEXISTS, ISEDUPLICATE (two records have a key
 * that may occur once), ISEINUSE (a rollback may bring such keys back), ISEMEMORY, ISELOCALE; then
 * the file is as it was. */
int isaddindex(int isfd, struct keydescr* key);

/* Drops the index that `key` defines (its parts count, not its flags) from an exclusively open
 * file. -1 with ISENOTEXCLUSIVE, ISEPRIMARY, ISEKEY (no such index, or the current one), ISEINUSE
 * (this process has another open of the file). */
int isdelindex(int isfd, struct keydescr* key);

/* Rewrites an exclusively open file so that its records stand in the order of `key`, without gaps.
 * Returns the number of a new open in place of `isfd`, which is closed; -1 with ISENOTEXCLUSIVE,
 * ISEKEY, ISEAUDIT, ISEINUSE (by another open of this process, or changed in its transaction),
 * ISEMEMORY, or the first failure of reading and writing; then the file is as it was. Needs room
 * for a second copy beside the file. */
int iscluster(int isfd, struct keydescr* key);

/* -------------------- reading records -------------------- */

/* Makes `key` the current index of the open and positions there without reading. `mode` RD_FIRST
 * and RD_LAST need no record; RD_EQUAL, RD_GREAT and RD_GTEQ compare the first `len` bytes of the
 * key in `record`, 0 for the whole key. `key` is one of the file's indexes, or has nparts 0 for the
 * order of record numbers, in which isrecnum says which record is meant. key->flags gets the stored
 * flags. RD_NEXT then reads the record found, RD_PREV the one before it; but RD_PREV reads the one
 * found in the order of record numbers, and after RD_LAST, where RD_NEXT meets the end in an index.
 * -1 with ISEARGUMENT (mode, `len` negative or beyond the key), ISEKEY, ISENORECORD (`key` is
 * current all the same, without a position), ISEEND. */
int isstart(int isfd, struct keydescr* key, int len, char* record, int mode);

/* Reads a record into `record`, which has room for the greatest record length. `mode`: RD_...; the
 * key of RD_EQUAL, RD_GREAT and RD_GTEQ is taken from `record` (or isrecnum). On success the record
 * is current, isrecnum its number, isreclen its length. -1 with ISEARGUMENT, ISEEND, ISENORECORD,
 * ISENOCURRENT, ISELOCKED; the position stays as it was. Only with ISELOCKED it moves to the locked
 * record all the same when RD_SKIPLOCK is given, and with RD_FIRST, RD_LAST, RD_EQUAL, RD_GREAT and
 * RD_GTEQ. */
int isread(int isfd, char* record, int mode);

/* -------------------- many records in one call -------------------- */

/* Each does what as many calls for single records would do, up to the first of them that fails; it
 * enters and leaves the file once, so other processes' changes wait for it. Returns how many
 * records were read or written, 0 to set->count. When they are fewer, the next one has failed:
 * iserrno tells why, the status characters as well. -1 when the call as a whole is refused, and
 * nothing was done: ISENOTOPEN, ISEARGUMENT for `mode`, a null pointer, a count below 1 or a buffer
 * that is too small, and whatever entering the file fails with. */

/* Reads with `mode` RD_NEXT or RD_PREV and, as isread(), RD_LOCK and what goes with it: the records
 * after or before the current one in the order of the current key. Fills in records, numbers and
 * lengths; the last record read is current. */
int isreadmany(int isfd, struct recordset* set, int mode);

/* Reads with `mode` RD_EQUAL, RD_GREAT or RD_GTEQ, plus RD_LOCK and what goes with it: each record
 * by the key that stands in its place in set->records, in the order of record numbers by its number
 * in set->numbers. Fills in records, numbers and lengths. */
int isfetchmany(int isfd, struct recordset* set, int mode);

/* Adds the records, as iswrite() does, and fills in numbers. With variable length set->lengths has
 * their lengths, else it may be null. Up to 64 records go to the files together; when they cannot
 * be written, all of these are taken back. */
int iswritemany(int isfd, struct recordset* set);

/* Replaces the records that set->numbers names, as isrewrec() does; arrays as for iswritemany(). In
 * a transaction up to 64 records of fixed length whose keys stay the same go to the log and to the
 * file together; when they cannot be written, the transaction can only be rolled back. */
int isrewritemany(int isfd, struct recordset* set);

/* Adds many records at once through the only open of a file, an exclusive one: they are gathered,
 * sorted once, and every index is built or merged with what it has at the end. Until isloadend()
 * returns the pair is as it was, also for its reader, and whatever fails leaves it so; so does a
 * killed process, except in the last step of isloadend(), when it leaves a pair to be repaired
 * (ISECORRUPT at isopen). Meanwhile calls that change the file fail with ISEINUSE.
 *
 * isloadbegin() begins. -1 with ISENOTEXCLUSIVE; ISEINUSE (another open or load of the file, a
 * transaction under way has changed it, or changes would be logged); ISEAUDIT. */
int isloadbegin(int isfd);

/* Takes records, arrays as for iswritemany(), and fills in numbers: they follow the highest number
 * in use, no freed one is used again. How many were taken: fewer than set->count where one has a
 * wrong length. -1 with ISENOTOPEN, ISENOBEGIN without isloadbegin(), ISEARGUMENT, ISEINUSE
 * (changes would be logged or part of a transaction), ISEAUDIT; with any other code the load is
 * over, and nothing is left of it. */
int isload(int isfd, struct recordset* set);

/* Adds the records to the file, all but those that iswrite() would refuse with ISEDUPLICATE after
 * the others before them: how many these are. The numbers of the first `room` of them are put to
 * `refused`, ascending; both may be 0. -1 with the codes of isload(). */
int isloadend(int isfd, int32_t* refused, int32_t room);

/* Ends a load, of which nothing is left. isclose() does so too. */
int isloaddrop(int isfd);

/* -------------------- changing records -------------------- */

/* A record length out of range fails with ISEARGUMENT ("9044"). A failed call changes nothing; but
 * when only the audit trail could not be written (iserrio 0x53), the change stands. */

/* Adds a record; isrecnum is its number. The position stays. -1 with ISEDUPLICATE. */
int iswrite(int isfd, char* record);

/* The same, and makes the record current. */
int iswrcurr(int isfd, char* record);

/* Replaces the record that has the same primary key: the first of them when it may repeat. -1 with
 * ISENORECORD, ISENOPRIMARY, ISEDUPLICATE (by another index), ISELOCKED. */
int isrewrite(int isfd, char* record);

/* Replaces the current record, also its keys. -1 with ISENOCURRENT, ISEDUPLICATE, ISELOCKED. */
int isrewcurr(int isfd, char* record);

/* Replaces record number `recnum`. -1 with ISENORECORD, ISEDUPLICATE, ISELOCKED. */
int isrewrec(int isfd, int32_t recnum, char* record);

/* Deletes the record with the primary key in `record`; the current record; record number `recnum`.
 * -1 as the rewriting calls. RD_NEXT and RD_PREV go on from where the deleted record stood. */
int isdelete(int isfd, char* record);
int isdelcurr(int isfd);
int isdelrec(int isfd, int32_t recnum);

/* Length in bytes of the record about to be written: the record length, or isreclen with variable
 * length, which must lie between minimum and maximum: else -1 with ISEARGUMENT ("9044"). Works on
 * the file of the last call. */
int isxgetlen(void);

/* -------------------- locking -------------------- */

/* Locks the whole file against other processes' locks (ISMANULOCK opens only). -1 with ISELOCKED at
 * once when another process holds a lock in the file, ISENOTMANUAL. Nothing to do for an exclusive
 * open. */
int islock(int isfd);

/* Releases the file lock and all record locks of the file (ISMANULOCK opens only). */
int isunlock(int isfd);

/* Releases the record locks, and the file lock with them, in any lock mode. What a transaction has
 * changed stays locked. */
int isrelease(int isfd);

/* Releases the lock of record number `recnum` alone, as isrelease() would: what else the process
 * has locked stays so, and with it a lock of the whole file. Nothing to do where the record is not
 * locked, or where this open has locked nothing. -1 with ISEARGUMENT for a number below 1. */
int isrelrec(int isfd, int32_t recnum);

/* Whether another process has the whole file locked: 1 or 0, -1 when `isfd` cannot be entered.
 * `how` 0 tests; any other value waits until it could be locked. */
int isfilelocked(int isfd, int how);

/* -------------------- transactions -------------------- */

/* A process that has a log file open logs each change it makes through opens without ISNOLOG.
 * Processes share one log. Between isbegin() and iscommit() or isrollback() the changes made
 * through opens with ISTRANS form a transaction: their records stay locked until it ends, and
 * isrollback() undoes them. All other changes stand at once. A process killed inside a transaction
 * leaves its changes in the files; isrecover() over restored files leaves them out.
 *
 * Inside a transaction isclose() is put off until the end, though the open counts as closed;
 * isopen() with the same name and mode gives the same number again. */

/* Opens the log file `path`, which must exist; an empty file becomes a log. -1 with ISELOGOPEN
 * (also when a log is open), ISELOGREAD, ISELOGWRITE, ISELOGMAGIC. */
int islogopen(const char* path);

/* Closes the log; a transaction is rolled back first. -1 with ISENOTOPEN when none is open. */
int islogclose(void);

/* Begins a transaction; inside one it does nothing. -1 with ISENOLOG (isstat1 '9'). */
int isbegin(void);

/* Ends the transaction, its changes stand. When it returns, all of the transaction is in the log as
 * the operating system has it, with ISAM_LOG_SYNC set to 1 as the disk has it. -1 with ISENOLOG,
 * ISENOBEGIN, ISELOGWRITE (the transaction is still open: repeat, or roll back). */
int iscommit(void);

/* Ends the transaction and undoes its changes, last first. -1 with ISENOLOG, ISENOBEGIN, or the
 * first failure of undoing, which ends the transaction where it stands. */
int isrollback(void);

/* Nothing is logged between the two, for work that must not be repeated by a recovery. Return 0. */
int issusplog(void);
int isresumlog(void);

/* Applies the open log to files restored from a copy, from its start: what was committed, and what
 * was changed outside transactions. Closes the log and all files. `mode` is a sum of the RCV_...
 * below, 0 for isrecover(). With any of them "isrecvr_err.log", which must not exist, is made in
 * the current folder: a log of what was not applied, each record followed by one that says why. -1
 * with ISELOGRECORD, ISELOGOPEN or whatever an operation failed with; then recovery has stopped
 * half way and the files must be restored again. */
int isrecover(void);
int isrecvr(int mode);
enum {
  RCV_ANY = 1, /* records of a process whose start is not in the log are applied at once */
  RCV_SKIP = 2 /* what cannot be applied is noted and left out */
};

/* -------------------- audit trail -------------------- */

/* The audit trail of a file: another file to which each record added, deleted or rewritten is
 * appended. `name` is a buffer of 128 bytes. -1 with ISEARGUMENT. */
int isaudit(int isfd, char* name, int mode);
enum {
  AUDSETNAME = 0, /* `name` is the trail's file, which is made unless it exists; an empty one
                     means no trail. Not while the trail is on. */
  AUDGETNAME = 1, /* fills `name` */
  AUDSTART = 2,   /* switches the trail on */
  AUDSTOP = 3,    /* switches it off */
  AUDINFO = 4,    /* the first byte of `name` becomes 1 when the trail is on, else 0 */
  AUDRECVR = 5    /* as AUDSTOP; and numbers freed from now on, even the highest, are kept on the
                     lists of free ones, until AUDSTART */
};

/* -------------------- what the dictionary tells -------------------- */

/* Fills `info`. */
int isdictinfo(int isfd, struct dictinfo* info);

/* Fills `key` with the description of index `n`, from 1, and sets isreclen to the record length
 * (the minimum with variable length). -1 with ISEARGUMENT when there is no index n. */
int iskeyinfo(int isfd, struct keydescr* key, int n);

/* Both in one: `n` 0 fills a struct dictinfo, `n` from 1 a struct keydescr. -1 with ISEARGUMENT for
 * a negative `n`. */
int isindexinfo(int isfd, void* buffer, int n);

/* Whether `key` is one of the file's indexes: 0, or -1 with ISEKEY. Fills in flags, keylen, root.
 */
int iststindex(int isfd, struct keydescr* key);

/* Unique ids, a counter of the file's from 1: isuniqueid() hands out the next one, iscurruniq()
 * shows it without taking it, issetunique() makes `id` the next one if that is lower. */
int isuniqueid(int isfd, int32_t* id);
int iscurruniq(int isfd, int32_t* id);
int issetunique(int isfd, int32_t id);

/* The alteration counter, for the application's own use: read it, add one to it. */
int isaltchk(int isfd, int32_t* count);
int isaltinc(int isfd);

/* The change stamp of the file: each call of whatever process that changes a record or an index
 * raises it by one (4294967295 is followed by 0), the calls for counters do not. Two equal ones of
 * one file: nothing has changed between them. Between two that differ something has, though a
 * rollback may have changed it back. -1 with ISENOTOPEN, ISEARGUMENT. */
int isstamp(int isfd, uint32_t* stamp);

/* Whether a file has an index in the order of a locale: 1 or 0, -1 when it cannot be opened. */
int isnlsversion(const char* name);
int isulxversion(const char* name);
/* The name of that locale, zero-terminated and valid until the next call; null when the file has
 * none or cannot be opened. */
const char* islanginfo(const char* name);

/* Registers a table of 256 weights for the collated type KT_COLL1 to KT_COLL7; it is not copied. -1
 * for any other type, without iserrno. No index is ordered by it. */
int iscollate(int type, const unsigned char* table);

/* -------------------- numbers in key fields, texts -------------------- */

/* Load and store the stored forms of numbers at any address: KT_INT as 2 bytes, KT_LONG as 4, both
 * most significant byte first; KT_DOUBLE and KT_FLOAT in the machine's form. */
int16_t ldint(const char* at);
void stint(int value, char* at);
int32_t ldlong(const char* at);
void stlong(int32_t value, char* at);
double lddbl(const char* at);
void stdbl(char* at, double value);
float ldfloat(const char* at);
void stfloat(char* at, float value);
/* With null, which is all bytes 0xFF and loads as 0 with *isnull 1. */
double lddblnull(const char* at, int* isnull);
void stdblnull(char* at, int isnull, double value);
float ldfltnull(const char* at, int* isnull);
void stfltnull(char* at, int isnull, float value);
/* A text in a field of `length` bytes, padded with blanks; a null text is all blanks. Loading cuts
 * the blanks off and adds a zero byte, so that `text` needs length + 1 bytes. */
void ldchar(const char* field, int length, char* text);
void stchar(const char* text, char* field, int length);

/* The text of a code as iserrno holds it, the system's or the library's; never null. */
const char* iserrtext(int32_t code);

/* Why the last call failed, in a sentence with the call and the file, such as: isopen "v": its
 * records are of variable length; add ISVARLEN. Never null; valid until the next call. */
const char* isexplain(void);

/* The library's version: a name, a blank and a number such as "1.2.3". */
const char* isversion(void);

#ifdef __cplusplus
}
#endif

#endif
