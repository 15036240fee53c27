// SPDX-License-Identifier: LGPL-2.1-or-later
// SIGINT and SIGTERM, as cancellables. A thread waits for them: a call that blocks on a stream can
// be ended through a cancellable alone, and a signal handler may not touch one.
#pragma once

#include <gio/gio.h>

// Starts to wait. Called before any other thread exists, so that all of them block the signals.
void interrupt_start();

// Gives the signals their default action again, in a child process.
void interrupt_restore();

// Cancelled by the first signal. For what may end anywhere: waiting, and reading.
GCancellable *interrupt_soon();

// Cancelled two seconds later, or by the second signal. For what had better come to its end:
// writing a message that the peer otherwise could not make sense of.
GCancellable *interrupt_now();

// Waits until the descriptor can be read (POLLIN) or written (POLLOUT), or until the time is over.
// False where `until` was cancelled. A descriptor below 0 is never ready.
bool wait_for(int fd, short events, GCancellable *until, int milliseconds = -1);

// Whether the first signal has come.
bool interrupted();

// 128 and the number of the signal that came first.
int interrupt_exit_code();
