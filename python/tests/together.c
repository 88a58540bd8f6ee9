/* An application in C that has a record locked by the library, runs Python with the package zentra in
 * its process, and tells which records another process finds locked meanwhile.
 *
 *   together PAIR SCRIPT      the script's part ends with the process still running
 */
#include <Python.h>
#include <isam.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  char record[65] = "000001";
  if (argc != 3) return 2;
  const int file = isopen(argv[1], ISINOUT + ISMANULOCK);
  if (file < 0 || isread(file, record, RD_EQUAL + RD_LOCK) < 0) {
    puts(isexplain());
    return 1;
  }
  FILE* const script = fopen(argv[2], "r");
  if (script == NULL) return 1;
  Py_Initialize();
  const int failed = PyRun_SimpleFile(script, argv[2]);
  fclose(script);
  /* The package has closed its opens; the application's is as it was. */
  if (!failed && isread(file, record, RD_CURR) == 0) printf("C still has %.6s\n", record);
  return failed || Py_FinalizeEx() != 0 || isclose(file) != 0;
}
