// SPDX-License-Identifier: LGPL-2.1-or-later
// What the engine asks of streams: whether they can be polled, what they forward to, whether they
// gather. GIO runs asynchronous operations of a pollable stream in the caller's main context,
// without worker threads.
#pragma once

#include <gio/gio.h>

namespace gvc
{

// Fill the pollable interface of a filter stream: each operation is that of the base stream. A
// filter over a base that cannot be polled cannot be polled either.
void init_pollable_filter_input(GPollableInputStreamInterface *iface);
void init_pollable_filter_output(GPollableOutputStreamInterface *iface);

// The base stream of a filter with such an interface, else NULL.
GInputStream *forwards_to(GInputStream *stream);
GOutputStream *forwards_to(GOutputStream *stream);

// A source for `stream` that is ready when `child` is, and as long as `ready` says so. GIO's
// sources look at the socket alone: neither at what a stage holds nor at a stream that has been
// closed.
GSource *source_with(gpointer stream, GSource *child, gboolean (*ready)(gpointer stream),
                     GCancellable *cancellable);

// The stream can be polled, and its class leaves asynchronous operations to GIO.
gboolean can_poll(GInputStream *stream);
gboolean can_poll(GOutputStream *stream);

// The stream sends several vectors in one call. GIO's default writes them one by one.
gboolean gathers(GOutputStream *stream);

// Writes without blocking what one call takes. Only a stream that gathers is given more than one
// vector.
gssize write_nonblocking(GOutputStream *stream, const GOutputVector *vectors, gsize n_vectors,
                         GCancellable *cancellable, GError **error);

// `error`, or one for a stream that failed without saying why: it must not look like one that has
// done its work.
GError *or_unknown(GError *error);

// The socket of a stream of GSocketConnection, else NULL.
GSocket *plain_socket(gpointer stream);

} // namespace gvc
