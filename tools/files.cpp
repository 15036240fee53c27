// SPDX-License-Identifier: LGPL-2.1-or-later
#include "files.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool
has_name(int dir, const char *name, int fd)
{
  struct stat named, open;
  return fstatat(dir, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &open) == 0 &&
         named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

bool
give_name(int dir, int fd, const char *from, const char *to, bool replace)
{
  bool renamed = renameat2(dir, from, dir, to, replace ? 0 : RENAME_NOREPLACE) == 0;
  // Some file systems lack the flag. A link does not replace a file either.
  if (!renamed && !replace && errno == EINVAL)
    renamed = linkat(dir, from, dir, to, 0) == 0 && unlinkat(dir, from, 0) == 0;
  if (!renamed || has_name(dir, to, fd))
    return renamed;
  // Another file was put in the place of this one and got the name.
  errno = ESTALE;
  return false;
}
