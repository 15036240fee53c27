// SPDX-License-Identifier: LGPL-2.1-or-later
#include "interrupt.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <thread>

static GCancellable *soon;
static GCancellable *now;
static std::atomic<int> first_signal;

static sigset_t
waited_for()
{
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

static void
wait_for_signals()
{
  auto signals = waited_for();
  int signal;

  if (sigwait(&signals, &signal) != 0)
    return;
  first_signal = signal;
  g_cancellable_cancel(soon);

  timespec grace = {2, 0};
  sigtimedwait(&signals, nullptr, &grace);
  g_cancellable_cancel(now);

  // Whatever still hangs after that hangs in something that knows no cancellable.
  sigtimedwait(&signals, nullptr, &grace);
  _exit(interrupt_exit_code());
}

void
interrupt_start()
{
  // A peer or a reader of our output that has gone is an error of the write, and no signal.
  std::signal(SIGPIPE, SIG_IGN);

  auto signals = waited_for();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
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
interrupted()
{
  return first_signal != 0;
}

int
interrupt_exit_code()
{
  return 128 + first_signal;
}
