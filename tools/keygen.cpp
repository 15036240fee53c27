// SPDX-License-Identifier: LGPL-2.1-or-later
#include "command.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

static bool
fill_with_random(guint8 *bytes, gsize size)
{
  for (gsize done = 0; done < size;) {
    auto got = getrandom(bytes + done, size - done, 0);
    if (got < 0 && errno != EINTR)
      return false;
    done += got > 0 ? static_cast<gsize>(got) : 0;
  }
  return true;
}

Exit
run_keygen(const Command &command, int argc, char **argv)
{
  CommandLine line(command);
  auto path = line.parse(argc, argv, 1, 1).front();
  auto shown = printable(path);

  guint8 key[32];
  if (!fill_with_random(key, sizeof key))
    fail(Exit::local, "the system gives no random bytes: %s", g_strerror(errno));

  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0 && errno == EEXIST)
    fail(Exit::local, "%s exists and is not overwritten", shown.c_str());
  if (fd < 0)
    fail(Exit::local, "cannot create %s: %s", shown.c_str(), g_strerror(errno));

  bool written = write(fd, key, sizeof key) == static_cast<ssize_t>(sizeof key) && fsync(fd) == 0;
  int code = errno;
  close(fd);
  explicit_bzero(key, sizeof key);
  if (!written) {
    unlink(path.c_str());
    fail(Exit::local, "cannot write %s: %s", shown.c_str(), g_strerror(code));
  }
  return Exit::ok;
}
