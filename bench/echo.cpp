// SPDX-License-Identifier: LGPL-2.1-or-later
#include "echo.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench
{

namespace
{

// The child of a process that may have threads: from here on only calls that are safe behind
// fork(), and no allocation.

void
watch(int epoll, int fd)
{
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0)
    _exit(1);
}

void
acceptOne(int epoll, int listener)
{
  int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0)
    return;
  int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  watch(epoll, fd);
}

bool
writeAll(int fd, const char *data, ssize_t size)
{
  while (size > 0) {
    ssize_t written = write(fd, data, static_cast<std::size_t>(size));
    if (written < 0)
      return false;
    data += written;
    size -= written;
  }
  return true;
}

// Blocks while the other side does not read; the other side never waits for us with a write.
void
echoSome(int fd)
{
  static char buffer[256 << 10];
  ssize_t size = read(fd, buffer, sizeof buffer);
  if (size <= 0 || !writeAll(fd, buffer, size))
    close(fd);
}

[[noreturn]] void
serve(int listener)
{
  static epoll_event events[256];
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGPIPE, SIG_IGN);
  int epoll = epoll_create1(EPOLL_CLOEXEC);
  watch(epoll, listener);
  for (;;) {
    int ready = epoll_wait(epoll, events, 256, -1);
    for (int i = 0; i < ready; i++)
      if (events[i].data.fd == listener)
        acceptOne(epoll, listener);
      else
        echoSome(events[i].data.fd);
  }
}

sockaddr_in
loopback(guint16 port)
{
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

} // namespace

EchoProcess::EchoProcess()
{
  auto address = loopback(0);
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  socklen_t length = sizeof address;
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  must(listener >= 0 && bind(listener, generic, length) == 0 && listen(listener, 128) == 0 &&
           getsockname(listener, generic, &length) == 0,
       nullptr, "listening socket");
  _port = ntohs(address.sin_port);

  _pid = fork();
  must(_pid >= 0, nullptr, "fork");
  if (_pid == 0)
    serve(listener);
  close(listener);
}

EchoProcess::~EchoProcess()
{
  kill(_pid, SIGKILL);
  waitpid(_pid, nullptr, 0);
}

Object<GSocketConnection>
EchoProcess::connect() const
{
  auto address = loopback(_port);
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  // Closed by a reset, so that thousands of ports do not stay taken for a minute.
  linger reset = {1, 0};
  must(fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
           setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0,
       nullptr, "connection to the echo process");

  GError *error = nullptr;
  Object<GSocket> socket(g_socket_new_from_fd(fd, &error));
  must(socket != nullptr, error, "socket");
  return Object<GSocketConnection>(g_socket_connection_factory_create_connection(socket.get()));
}

unsigned long
raiseDescriptorLimit()
{
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  getrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

} // namespace bench
