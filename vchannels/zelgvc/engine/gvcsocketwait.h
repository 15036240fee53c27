// SPDX-License-Identifier: LGPL-2.1-or-later
// Waiting for sockets in epoll sets, so that a turn of the main loop costs no more with thousands
// of waiting channels than with one.
#pragma once

#include <gio/gio.h>

namespace gvc
{

// Waits until the socket of `stream` is ready or closed, or the task's cancellable is cancelled. A
// non-blocking read or write must have found it not ready before. Then calls `ready` once, from the
// main loop, in the context of the task and at this priority. `data` keeps the task alive. Returns
// FALSE if a source of GLib's has to wait instead: the stream has no socket, something waits for it
// already, the socket has a timeout, or the system has no epoll or no descriptor left.
gboolean wait_for_socket(gpointer stream, GTask *task, int priority, void (*ready)(gpointer data),
                         gpointer data);

// The socket of a stream of GSocketConnection, else NULL.
GSocket *plain_socket(gpointer stream);

} // namespace gvc
