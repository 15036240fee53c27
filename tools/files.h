// SPDX-License-Identifier: LGPL-2.1-or-later
// Files that get their final name only when they are complete.
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

// Whether this is a name of the file `fd`.
bool has_name(int dir, const char *name, int fd);

// Renames the file `fd` in a directory. An existing file is replaced only if `replace` is set;
// otherwise errno is EEXIST.
bool give_name(int dir, int fd, const char *from, const char *to, bool replace);
