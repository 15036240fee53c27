// SPDX-License-Identifier: LGPL-2.1-or-later
// Properties of streams: whether they can be polled, which stream they forward to, whether they
// gather. GIO runs asynchronous operations of a pollable stream in the caller's main context,
// without worker threads.
#pragma once

#include "gvcinputstage.h"
#include "gvcoutputstage.h"

namespace gvc
{

// The parameters of code that serves both directions.
struct Input {
  using Stream = GInputStream;
  using Class = GInputStreamClass;
  using Filter = GFilterInputStream;
  using Pollable = GPollableInputStream;
  using Interface = GPollableInputStreamInterface;
  static constexpr auto stream_type = g_input_stream_get_type;
  static constexpr auto pollable_type = g_pollable_input_stream_get_type;
  static constexpr auto set_pending = g_input_stream_set_pending;
  static constexpr auto clear_pending = g_input_stream_clear_pending;
  static constexpr auto is_closed = g_input_stream_is_closed;
  static constexpr auto can_poll = g_pollable_input_stream_can_poll;
  static constexpr auto is_ready = g_pollable_input_stream_is_readable;
  static constexpr auto create_source = g_pollable_input_stream_create_source;
  static constexpr auto holds_input = stages_hold_input;
  static constexpr auto move_async = &GInputStreamClass::read_async;
  static constexpr auto ready_method = &GPollableInputStreamInterface::is_readable;
  static constexpr auto move_method = &GPollableInputStreamInterface::read_nonblocking;
};

struct Output {
  using Stream = GOutputStream;
  using Class = GOutputStreamClass;
  using Filter = GFilterOutputStream;
  using Pollable = GPollableOutputStream;
  using Interface = GPollableOutputStreamInterface;
  static constexpr auto stream_type = g_output_stream_get_type;
  static constexpr auto pollable_type = g_pollable_output_stream_get_type;
  static constexpr auto set_pending = g_output_stream_set_pending;
  static constexpr auto clear_pending = g_output_stream_clear_pending;
  static constexpr auto is_closed = g_output_stream_is_closed;
  static constexpr auto can_poll = g_pollable_output_stream_can_poll;
  static constexpr auto is_ready = g_pollable_output_stream_is_writable;
  static constexpr auto create_source = g_pollable_output_stream_create_source;
  static constexpr auto holds_input = [](GOutputStream *) { return FALSE; };
  static constexpr auto move_async = &GOutputStreamClass::write_async;
  static constexpr auto ready_method = &GPollableOutputStreamInterface::is_writable;
  static constexpr auto move_method = &GPollableOutputStreamInterface::write_nonblocking;
};

// Fill the pollable interface of a filter stream: each operation is that of the base stream. A
// filter over a base stream that cannot be polled cannot be polled either.
void init_pollable_filter_input(GPollableInputStreamInterface *iface);
void init_pollable_filter_output(GPollableOutputStreamInterface *iface);

// The checked cast of a stream, as by G_POLLABLE_INPUT_STREAM().
template <class D>
typename D::Pollable *
to_pollable(gpointer stream)
{
  return G_TYPE_CHECK_INSTANCE_CAST(stream, D::pollable_type(), typename D::Pollable);
}

// The base stream of a filter with such an interface, else NULL.
GInputStream *forwards_to(GInputStream *stream);
GOutputStream *forwards_to(GOutputStream *stream);

// The stream can be polled, and its class leaves asynchronous operations to GIO.
template <class D> gboolean can_poll(typename D::Stream *stream);

// The stream sends several vectors in one call. GIO's default writes them one by one.
gboolean gathers(GOutputStream *stream);

// One write without blocking. Pass more than one vector only to a stream that gathers. `sending` is
// for a stage.
gssize write_nonblocking(GOutputStream *stream, const GOutputVector *vectors, gsize n_vectors,
                         Sending sending, GCancellable *cancellable, GError **error);

void set_would_block(GError **error);

// Returns `error`, or a new one if a stream failed without an error.
GError *or_unknown(GError *error);

} // namespace gvc
