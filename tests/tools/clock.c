/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Preloaded by the test system: a clock that somebody sets by a day, to and fro, at each look. */
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

int
clock_gettime(clockid_t clock, struct timespec *now)
{
  static int looks;
  int result = (int)syscall(SYS_clock_gettime, clock, now);

  if (result == 0 && clock == CLOCK_REALTIME)
    now->tv_sec += __atomic_fetch_add(&looks, 1, __ATOMIC_RELAXED) % 2 ? 86400 : -86400;
  return result;
}

int
gettimeofday(struct timeval *now, void *zone)
{
  struct timespec precise;
  int result = clock_gettime(CLOCK_REALTIME, &precise);

  (void)zone;
  now->tv_sec = precise.tv_sec;
  now->tv_usec = precise.tv_nsec / 1000;
  return result;
}

time_t
time(time_t *now)
{
  struct timespec precise;

  clock_gettime(CLOCK_REALTIME, &precise);
  if (now)
    *now = precise.tv_sec;
  return precise.tv_sec;
}
