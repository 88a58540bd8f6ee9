/* An application in C that has a record locked by the library, and runs Python with the package zentra
 * in its process.
 *
 *   together PAIR LOG SCRIPT      the script's part ends with the process still running
 *
 * The script calls tell() for what the application has to say by then.
 */
#include <Python.h>
#include <isam.h>
#include <stdio.h>
#include <string.h>

static int file;
static char record[65] = "000001";

/* What the script has the application do: 0, or why not. */
int application(const char* what) {
  iserrno = 0;
  if (strcmp(what, "still has it") == 0) return isread(file, record, RD_CURR) < 0 ? iserrno : 0;
  if (strcmp(what, "locks all") == 0) return islock(file) < 0 ? iserrno : 0;
  if (strcmp(what, "unlocks all") == 0) return isunlock(file) < 0 ? iserrno : 0;
  if (strcmp(what, "locks it") == 0) return isread(file, record, RD_EQUAL + RD_LOCK) < 0 ? iserrno : 0;
  if (strcmp(what, "begins") == 0) return isbegin() < 0 ? iserrno : 0;
  if (strcmp(what, "changes it") == 0) return record[6] ^= 1, isrewrite(file, record) < 0 ? iserrno : 0;
  if (strcmp(what, "rolls back") == 0) return isrollback() < 0 ? iserrno : 0;
  return -1;
}

int main(int argc, char** argv) {
  if (argc != 4 || islogopen(argv[2]) < 0) return 2;
  file = isopen(argv[1], ISINOUT + ISMANULOCK + ISTRANS);
  if (file < 0 || isread(file, record, RD_EQUAL + RD_LOCK) < 0) {
    puts(isexplain());
    return 1;
  }
  FILE* const script = fopen(argv[3], "r");
  if (script == NULL) return 1;
  Py_Initialize();
  const int failed = PyRun_SimpleFile(script, argv[3]);
  fclose(script);
  return failed || Py_FinalizeEx() != 0 || isclose(file) != 0;
}
