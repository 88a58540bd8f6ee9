/* pinned: loaded before the C library, it makes what a run writes the same every time: one moment,
 * and the process number that the environment variable PINNED_PROCESS names. */
#include <stdlib.h>
#include <sys/types.h>
#include <time.h>

time_t time(time_t* at) {
  const time_t moment = 1700000000;
  if (at != NULL) *at = moment;
  return moment;
}

pid_t getpid(void) {
  const char* number = getenv("PINNED_PROCESS");
  return number == NULL ? 4711 : (pid_t)atoi(number);
}
