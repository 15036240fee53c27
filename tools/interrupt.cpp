// SPDX-License-Identifier: LGPL-2.1-or-later
#include "interrupt.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <thread>

static GCancellable *soon;
static GCancellable *now;
static std::atomic<int> first_signal;

// Leaves ignored signals ignored: a shell starts background jobs with SIGINT ignored.
static sigset_t
waited_for()
{
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGINT, SIGTERM}) {
    struct sigaction action;
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
      sigaddset(&signals, signal);
  }
  return signals;
}

static void
wait_for_signals()
{
  auto signals = waited_for();
  int signal;

  // A handler that runs in this thread would end the waits below.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  if (sigwait(&signals, &signal) != 0)
    return;
  first_signal = signal;
  g_cancellable_cancel(soon);

  timespec grace = {2, 0};
  sigtimedwait(&signals, nullptr, &grace);
  g_cancellable_cancel(now);

  // The program hangs in a call without a cancellable.
  sigtimedwait(&signals, nullptr, &grace);
  _exit(interrupt_exit_code());
}

void
interrupt_start()
{
  auto signals = waited_for();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A write reports a lost reader and a file size limit as errors instead.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  soon = g_cancellable_new();
  now = g_cancellable_new();
  std::thread(wait_for_signals).detach();
}

void
interrupt_restore()
{
  auto signals = waited_for();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

GCancellable *
interrupt_soon()
{
  return soon;
}

GCancellable *
interrupt_now()
{
  return now;
}

bool
wait_for(int fd, short events, GCancellable *until, int milliseconds)
{
  GPollFD fds[2] = {{fd, static_cast<gushort>(events), 0}, {}};
  bool cancellable = g_cancellable_make_pollfd(until, &fds[1]);
  g_poll(fds, cancellable ? 2 : 1, milliseconds);
  if (cancellable)
    g_cancellable_release_fd(until);
  return !g_cancellable_is_cancelled(until);
}

bool
interrupted()
{
  return first_signal != 0;
}

int
interrupt_exit_code()
{
  return 128 + first_signal;
}
