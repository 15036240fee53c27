// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "interrupt.h"
#include "measure.h"
#include "output.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

// Each caller costs a process. Further callers wait in the listen queue.
static constexpr int most_at_once = 100;
static std::atomic<int> callers;
// Bounds the memory of all callers together: if more than `most_large` are connected, the next one
// may only use messages up to this size.
static constexpr int most_large = 8;
static constexpr guint32 small_limit = 1024 * 1024;

static void
on_child_ended(int)
{
  auto code = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0)
    callers--;
  errno = code;
}

// The parent process may have blocked the signal.
static void
count_ended_children()
{
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGCHLD);
  std::signal(SIGCHLD, on_child_ended);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Waits until another caller may come. False if the user interrupts.
static bool
wait_for_room()
{
  while (callers >= most_at_once)
    if (!wait_for(-1, 0, interrupt_soon(), 50))
      return false;
  return !interrupted();
}

static void
serve_ping(Channel &channel)
{
  while (auto bytes = channel.get(channel.limit))
    channel.put(bytes.get());
}

static Control
report(const Measured &measured)
{
  Control control;
  control.set("messages", measured.messages).set("bytes", measured.bytes);
  control.set("wire", measured.wire).set("seconds", measured.seconds);
  control.set("cpu", measured.cpu);
  return control;
}

static void
serve_perf_run(Channel &channel, const Control &wanted)
{
  auto direction = wanted.bytes("direction");
  if (direction == "send") {
    channel.put(report(receive_messages(channel, channel.limit, "")));
    return;
  }
  auto size = wanted.number("size");
  auto seconds = wanted.real("seconds");
  if (direction != "receive" || size == 0 || size > channel.limit || !(seconds <= 3600))
    fail(Exit::protocol, "%s wants a measurement that there is not", channel.peer().c_str());
  std::vector<char> data(size);
  if (!make_data(wanted.bytes("data"), data))
    fail(Exit::protocol, "%s wants data of a kind that there is not", channel.peer().c_str());
  channel.put(report(send_messages(channel, data, seconds, "")));
}

static void
serve_perf(Channel &channel)
{
  // Between two measurements, the end is orderly.
  for (;;) {
    auto wanted = channel.get_control();
    if (!wanted)
      return;
    serve_perf_run(channel, *wanted);
  }
}

static void
serve_peer(GSocketConnection *connection, const CommandLine &line)
{
  auto limit = callers > most_large ? small_limit : message_limit;
  Channel channel(connection, line.stages, line.timeout, limit);
  std::string service;
  channel.answer_greeting({ping_service, perf_service}, &service);
  channel.send_hello(service.c_str(), Control().set("limit", guint64{limit}));
  if (service == ping_service)
    serve_ping(channel);
  else
    serve_perf(channel);
  channel.close();
}

// Serves one peer in its own process, so that the measured costs are those of this peer and no peer
// can disturb another.
[[noreturn]] static void
be_child(Listener &listener, GSocketConnection *connection, const CommandLine &line)
{
  interrupt_restore();
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  listener.abandon();

  auto code = Exit::ok;
  try {
    serve_peer(connection, line);
  } catch (const Failure &failure) {
    complain(failure);
    code = failure.code;
  }
  _exit(static_cast<int>(code));
}

Exit
run_serve(CommandLine &line)
{
  line.add_stages();
  line.add_timeout();
  auto arguments = line.parse(1, 1);

  count_ended_children();
  Listener listener(Address::parse(arguments[0]));
  while (wait_for_room()) {
    GSocketConnection *connection;
    try {
      connection = listener.accept_next();
    } catch (const Failure &) {
      return Exit::ok;
    }
    callers++;
    auto pid = fork();
    if (pid == 0)
      be_child(listener, connection, line);
    if (pid < 0) {
      callers--;
      complain("cannot start a process for %s: %s", name_of_peer(connection).c_str(),
               g_strerror(errno));
    }
    // Closes the copy of this process. The child keeps the connection.
    g_object_unref(connection);
  }
  return Exit::ok;
}
