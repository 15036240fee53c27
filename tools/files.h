// SPDX-License-Identifier: LGPL-2.1-or-later
// Files that get their name only when they are complete.
#pragma once

#include <cerrno>

// Repeats a system call that a signal has interrupted.
template <typename Call>
auto
retry(Call call)
{
  decltype(call()) result;
  do
    result = call();
  while (result < 0 && errno == EINTR);
  return result;
}

// Gives the file `fd`, which is called `from` in the directory, its final name. Unless it may
// replace a file, one of that name stays and errno is EEXIST.
bool give_name(int dir, int fd, const char *from, const char *to, bool replace);
