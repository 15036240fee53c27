// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcpollable.h"

// The stream below, which can_poll() has found to be pollable before anything else is asked of it.
static GPollableInputStream *
input_base(GPollableInputStream *filter)
{
  return reinterpret_cast<GPollableInputStream *>(
      reinterpret_cast<GFilterInputStream *>(filter)->base_stream);
}

static gboolean
input_can_poll(GPollableInputStream *filter)
{
  auto *base = input_base(filter);
  return G_IS_POLLABLE_INPUT_STREAM(base) && g_pollable_input_stream_can_poll(base);
}

static gboolean
input_is_readable(GPollableInputStream *filter)
{
  return g_pollable_input_stream_is_readable(input_base(filter));
}

static GSource *
input_create_source(GPollableInputStream *filter, GCancellable *cancellable)
{
  g_autoptr(GSource) source = g_pollable_input_stream_create_source(input_base(filter), nullptr);
  return g_pollable_source_new_full(filter, source, cancellable);
}

static gssize
input_read_nonblocking(GPollableInputStream *filter, void *buffer, gsize count, GError **error)
{
  auto *base = input_base(filter);
  auto *stream = reinterpret_cast<GInputStream *>(base);

  if (!g_input_stream_set_pending(stream, error))
    return -1;
  gssize nread = g_pollable_input_stream_read_nonblocking(base, buffer, count, nullptr, error);
  g_input_stream_clear_pending(stream);
  return nread;
}

GSource *
gvc::readable_source(GInputStream *stream, GCancellable *cancellable)
{
  auto *pollable = reinterpret_cast<GPollableInputStream *>(stream);
  while (G_POLLABLE_INPUT_STREAM_GET_INTERFACE(pollable)->create_source == input_create_source)
    pollable = input_base(pollable);
  return g_pollable_input_stream_create_source(pollable, cancellable);
}

void
gvc::init_pollable_filter_input(GPollableInputStreamInterface *iface)
{
  iface->can_poll = input_can_poll;
  iface->is_readable = input_is_readable;
  iface->create_source = input_create_source;
  iface->read_nonblocking = input_read_nonblocking;
}

GPollableOutputStream *
gvc::pollable_base(GFilterOutputStream *filter)
{
  auto *base = g_filter_output_stream_get_base_stream(filter);
  if (!G_IS_POLLABLE_OUTPUT_STREAM(base))
    return nullptr;
  auto *pollable = G_POLLABLE_OUTPUT_STREAM(base);
  return g_pollable_output_stream_can_poll(pollable) ? pollable : nullptr;
}

gssize
gvc::write_nonblocking(GPollableOutputStream *stream, const void *buffer, gsize count,
                       GError **error)
{
  auto *output = reinterpret_cast<GOutputStream *>(stream);

  if (!g_output_stream_set_pending(output, error))
    return -1;
  gssize nwritten =
      g_pollable_output_stream_write_nonblocking(stream, buffer, count, nullptr, error);
  g_output_stream_clear_pending(output);
  return nwritten;
}

// As input_base().
static GPollableOutputStream *
output_base(GPollableOutputStream *filter)
{
  return reinterpret_cast<GPollableOutputStream *>(
      reinterpret_cast<GFilterOutputStream *>(filter)->base_stream);
}

static gboolean
output_can_poll(GPollableOutputStream *filter)
{
  return gvc::pollable_base(reinterpret_cast<GFilterOutputStream *>(filter)) != nullptr;
}

static gboolean
output_is_writable(GPollableOutputStream *filter)
{
  return g_pollable_output_stream_is_writable(output_base(filter));
}

static GSource *
output_create_source(GPollableOutputStream *filter, GCancellable *cancellable)
{
  g_autoptr(GSource) source = g_pollable_output_stream_create_source(output_base(filter), nullptr);
  return g_pollable_source_new_full(filter, source, cancellable);
}

static gssize
output_write_nonblocking(GPollableOutputStream *filter, const void *buffer, gsize count,
                         GError **error)
{
  return gvc::write_nonblocking(output_base(filter), buffer, count, error);
}

GSource *
gvc::writable_source(GOutputStream *stream, GCancellable *cancellable)
{
  auto *pollable = reinterpret_cast<GPollableOutputStream *>(stream);
  while (G_POLLABLE_OUTPUT_STREAM_GET_INTERFACE(pollable)->create_source == output_create_source)
    pollable = output_base(pollable);
  return g_pollable_output_stream_create_source(pollable, cancellable);
}

void
gvc::init_pollable_filter_output(GPollableOutputStreamInterface *iface)
{
  iface->can_poll = output_can_poll;
  iface->is_writable = output_is_writable;
  iface->create_source = output_create_source;
  iface->write_nonblocking = output_write_nonblocking;
}
