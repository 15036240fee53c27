// SPDX-License-Identifier: LGPL-2.1-or-later
#include "command.h"
#include "files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

Exit
run_keygen(CommandLine &line)
{
  auto path = line.parse(1, 1).front();
  auto shown = printable(path);

  guint8 key[32];
  if (getentropy(key, sizeof key) != 0)
    fail(Exit::local, "the system gives no random bytes: %s", g_strerror(errno));

  g_autofree char *folder = g_path_get_dirname(path.c_str());
  auto unfinished = std::string(folder) + "/.zelgvc-key-XXXXXX";
  int fd = mkostemp(unfinished.data(), O_CLOEXEC);
  if (fd < 0)
    fail(Exit::local, "cannot create %s: %s", shown.c_str(), g_strerror(errno));

  bool written = retry([&] { return write(fd, key, sizeof key); }) == sizeof key &&
                 retry([&] { return fsync(fd); }) == 0 &&
                 give_name(AT_FDCWD, fd, unfinished.c_str(), path.c_str(), false);
  int code = errno;
  close(fd);
  explicit_bzero(key, sizeof key);
  if (written)
    return Exit::ok;
  unlink(unfinished.c_str());
  if (code == EEXIST)
    fail(Exit::local, "%s exists and is not overwritten", shown.c_str());
  fail(Exit::local, "cannot write %s: %s", shown.c_str(), g_strerror(code));
}
