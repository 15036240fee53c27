// SPDX-License-Identifier: LGPL-2.1-or-later
// SIGINT and SIGTERM, as cancellables. A thread waits for the signals, because a signal handler
// must not touch a cancellable.
#pragma once

#include <gio/gio.h>

// Starts to wait. Call before any other thread exists, so that all threads block the signals.
void interrupt_start();

// Restores the default action of the signals, in a child process.
void interrupt_restore();

// Cancelled by the first signal. For operations that may end at any point: waiting and reading.
GCancellable *interrupt_soon();

// Cancelled two seconds later, or by the second signal. For writing, because the peer cannot use
// part of a message.
GCancellable *interrupt_now();

// Waits until the descriptor can be read (POLLIN) or written (POLLOUT), or the time is over. False
// if `until` was cancelled. A descriptor below 0 is never ready.
bool wait_for(int fd, short events, GCancellable *until, int milliseconds = -1);

// Whether the first signal has come.
bool interrupted();

// 128 and the number of the signal that came first.
int interrupt_exit_code();
