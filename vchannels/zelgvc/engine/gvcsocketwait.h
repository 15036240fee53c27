// SPDX-License-Identifier: LGPL-2.1-or-later
// Waiting for sockets in epoll sets, so that a turn of the main loop costs no more with thousands
// of channels that wait than with one.
#pragma once

#include <gio/gio.h>

namespace gvc
{

// What waits: called once, from the main loop, in the context and at the priority of the wait.
struct SocketWaiter {
  void (*ready)(gpointer data);
  gpointer data;
};

// Waits until the socket of `stream` is ready or closed, or `cancellable` is cancelled. A read or
// write without blocking must have found it not ready before, and the waiter must keep a reference
// to the context. Returns FALSE if a source of GLib's has to wait instead: the stream is none of a
// socket's, something waits for it already, the socket has a timeout, or the system has no epoll or
// no descriptor for it.
gboolean wait_for_socket(gpointer stream, GIOCondition condition, GMainContext *context,
                         int priority, GCancellable *cancellable, const SocketWaiter &waiter);

} // namespace gvc
