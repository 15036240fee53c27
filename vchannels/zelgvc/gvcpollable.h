// SPDX-License-Identifier: LGPL-2.1-or-later
// What lets the message streams work without worker threads: GIO runs asynchronous operations of a
// stream that can be polled in the caller's main context.
#pragma once

#include <gio/gio.h>

namespace gvc
{

// Fill the pollable interface of a filter stream: each operation is that of the base stream. A
// filter over a base that cannot be polled cannot either, and keeps GIO's threads.
void init_pollable_filter_input(GPollableInputStreamInterface *iface);
void init_pollable_filter_output(GPollableOutputStreamInterface *iface);

// Sources for streams that can be polled. A filter that forwards to its base is left out: every
// filter costs a source of its own otherwise.
GSource *readable_source(GInputStream *stream, GCancellable *cancellable);
GSource *writable_source(GOutputStream *stream, GCancellable *cancellable);

// The stream below `filter` where it can be polled, else NULL.
GPollableOutputStream *pollable_base(GFilterOutputStream *filter);

// Writes to `stream` without blocking, with the checks for a closed stream and for an operation in
// progress that only GIO's blocking functions make.
gssize write_nonblocking(GPollableOutputStream *stream, const void *buffer, gsize count,
                         GError **error);

} // namespace gvc
