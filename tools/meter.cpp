// SPDX-License-Identifier: LGPL-2.1-or-later
#include "meter.h"
#include "errors.h"

#include <algorithm>
#include <bit>

static void tool_meter_pollable_init(GPollableInputStreamInterface *iface);

G_DEFINE_TYPE_WITH_CODE(ToolMeter, tool_meter, G_TYPE_FILTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              tool_meter_pollable_init))

static GInputStream *
base_of(gpointer stream)
{
  return G_FILTER_INPUT_STREAM(stream)->base_stream;
}

// Follows the frames through the bytes that have just arrived.
static bool
follow(ToolMeter *self, const guint8 *bytes, gsize size, GError **error)
{
  while (size > 0) {
    if (self->prefix == 4) {
      auto part = static_cast<guint32>(std::min<gsize>(size, self->outstanding));
      self->outstanding -= part;
      bytes += part;
      size -= part;
    } else {
      self->length |= static_cast<guint32>(*bytes++) << (8 * self->prefix++);
      size--;
      if (self->prefix == 4 && self->length > self->limit) {
        g_set_error(error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                    "a message of %d bytes is announced where at most %u are expected",
                    static_cast<gint32>(self->length), self->limit);
        return false;
      }
      if (self->prefix == 4)
        self->outstanding = self->length;
    }
    if (self->prefix == 4 && self->outstanding == 0)
      self->prefix = self->length = 0;
  }
  return true;
}

static bool
follow_string(ToolMeter *self, const guint8 *bytes, gsize size, GError **error)
{
  for (gsize i = 0; i < size; i++) {
    if (bytes[i] == self->terminator)
      self->length = 0;
    else if (self->length++ == self->limit) {
      g_set_error(error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                  "a string has more than %u bytes before its terminator", self->limit);
      return false;
    }
    // The sizes of the reader's buffer are powers of two.
    else if (std::has_single_bit(self->length) && !may_double(self->length, error))
      return false;
  }
  return true;
}

static gssize
account(ToolMeter *self, const void *buffer, gsize wanted, gssize got, GError **error)
{
  if (got < 0)
    return got;
  if (got == 0 && wanted > 0) {
    self->at_end = true;
    if (!self->strings)
      return 0;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_CLOSED, "end of the channel");
    return -1;
  }
  auto size = static_cast<gsize>(got);
  self->total += size;
  if (self->deadline) {
    self->deadline->arrived(size);
    if (!self->deadline->check(error))
      return -1;
  }
  auto *bytes = static_cast<const guint8 *>(buffer);
  bool good =
      self->strings ? follow_string(self, bytes, size, error) : follow(self, bytes, size, error);
  return good ? got : -1;
}

static gssize
tool_meter_read(GInputStream *stream, void *buffer, gsize count, GCancellable *cancellable,
                GError **error)
{
  auto got = g_input_stream_read(base_of(stream), buffer, count, cancellable, error);
  return account(TOOL_METER(stream), buffer, count, got, error);
}

static void
tool_meter_class_init(ToolMeterClass *klass)
{
  G_INPUT_STREAM_CLASS(klass)->read_fn = tool_meter_read;
}

static void
tool_meter_init(ToolMeter *self)
{
  self->limit = G_MAXUINT32;
}

static gboolean
tool_meter_is_readable(GPollableInputStream *stream)
{
  return g_pollable_input_stream_is_readable(G_POLLABLE_INPUT_STREAM(base_of(stream)));
}

static GSource *
tool_meter_create_source(GPollableInputStream *stream, GCancellable *cancellable)
{
  g_autoptr(GSource) base_source =
      g_pollable_input_stream_create_source(G_POLLABLE_INPUT_STREAM(base_of(stream)), cancellable);
  return g_pollable_source_new_full(stream, base_source, nullptr);
}

static gssize
tool_meter_read_nonblocking(GPollableInputStream *stream, void *buffer, gsize count, GError **error)
{
  auto got = g_pollable_input_stream_read_nonblocking(G_POLLABLE_INPUT_STREAM(base_of(stream)),
                                                      buffer, count, nullptr, error);
  return account(TOOL_METER(stream), buffer, count, got, error);
}

static void
tool_meter_pollable_init(GPollableInputStreamInterface *iface)
{
  iface->is_readable = tool_meter_is_readable;
  iface->create_source = tool_meter_create_source;
  iface->read_nonblocking = tool_meter_read_nonblocking;
}

ToolMeter *
meter_new(GInputStream *base)
{
  return TOOL_METER(g_object_new(tool_meter_get_type(), "base-stream", base, nullptr));
}
