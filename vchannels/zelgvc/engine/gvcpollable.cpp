// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcpollable.h"
#include "gvcoutputstage.h"

#include <cerrno>
#include <cstring>

// ---- Sources ----

namespace
{
struct ReadySource {
  GSource source;
  gpointer stream;
  gboolean (*ready)(gpointer stream);
};
} // namespace

static gboolean
check(GSource *source)
{
  auto *self = reinterpret_cast<ReadySource *>(source);
  return self->ready(self->stream);
}

static gboolean
prepare(GSource *source, int *timeout)
{
  *timeout = -1;
  return check(source);
}

static gboolean
dispatch(GSource *, GSourceFunc, gpointer)
{
  return G_SOURCE_CONTINUE;
}

static void
finalize(GSource *source)
{
  g_object_unref(reinterpret_cast<ReadySource *>(source)->stream);
}

GSource *
gvc::source_with(gpointer stream, GSource *child, gboolean (*ready)(gpointer stream),
                 GCancellable *cancellable)
{
  static GSourceFuncs funcs = {prepare, check, dispatch, finalize, nullptr, nullptr};

  g_autoptr(GSource) held = g_source_new(&funcs, sizeof(ReadySource));
  reinterpret_cast<ReadySource *>(held)->stream = g_object_ref(stream);
  reinterpret_cast<ReadySource *>(held)->ready = ready;
  auto *source = g_pollable_source_new_full(stream, child, cancellable);
  g_source_add_child_source(source, held);
  g_source_unref(child);
  return source;
}

// ---- Input ----

static GInputStream *
base_of(GPollableInputStream *filter)
{
  return reinterpret_cast<GFilterInputStream *>(filter)->base_stream;
}

// What can_poll() has found to be pollable before anything else is asked of it.
static GPollableInputStream *
pollable_base(GPollableInputStream *filter)
{
  return reinterpret_cast<GPollableInputStream *>(base_of(filter));
}

static gboolean
input_can_poll(GPollableInputStream *filter)
{
  auto *base = base_of(filter);
  return G_IS_POLLABLE_INPUT_STREAM(base) &&
         g_pollable_input_stream_can_poll(pollable_base(filter));
}

static gboolean
input_is_readable(GPollableInputStream *filter)
{
  return g_pollable_input_stream_is_readable(pollable_base(filter));
}

static gboolean
input_base_is_closed(gpointer filter)
{
  return g_input_stream_is_closed(base_of(static_cast<GPollableInputStream *>(filter)));
}

static GSource *
input_create_source(GPollableInputStream *filter, GCancellable *cancellable)
{
  return gvc::source_with(filter,
                          g_pollable_input_stream_create_source(pollable_base(filter), nullptr),
                          input_base_is_closed, cancellable);
}

static gssize
input_read_nonblocking(GPollableInputStream *filter, void *buffer, gsize count, GError **error)
{
  auto *base = base_of(filter);

  if (!g_input_stream_set_pending(base, error))
    return -1;
  gssize nread = g_pollable_input_stream_read_nonblocking(pollable_base(filter), buffer, count,
                                                          nullptr, error);
  g_input_stream_clear_pending(base);
  return nread;
}

void
gvc::init_pollable_filter_input(GPollableInputStreamInterface *iface)
{
  iface->can_poll = input_can_poll;
  iface->is_readable = input_is_readable;
  iface->create_source = input_create_source;
  iface->read_nonblocking = input_read_nonblocking;
}

GInputStream *
gvc::forwards_to(GInputStream *stream)
{
  if (!G_IS_POLLABLE_INPUT_STREAM(stream))
    return nullptr;
  auto *filter = reinterpret_cast<GPollableInputStream *>(stream);
  auto *iface = G_POLLABLE_INPUT_STREAM_GET_INTERFACE(filter);
  return iface->read_nonblocking == input_read_nonblocking ? base_of(filter) : nullptr;
}

gboolean
gvc::can_poll(GInputStream *stream)
{
  if (!G_IS_POLLABLE_INPUT_STREAM(stream))
    return FALSE;
  auto *left_to_gio = static_cast<GInputStreamClass *>(g_type_class_peek(G_TYPE_INPUT_STREAM));
  return G_INPUT_STREAM_GET_CLASS(stream)->read_async == left_to_gio->read_async &&
         g_pollable_input_stream_can_poll(reinterpret_cast<GPollableInputStream *>(stream));
}

// ---- Output ----

static GOutputStream *
base_of(GPollableOutputStream *filter)
{
  return reinterpret_cast<GFilterOutputStream *>(filter)->base_stream;
}

static GPollableOutputStream *
pollable_base(GPollableOutputStream *filter)
{
  return reinterpret_cast<GPollableOutputStream *>(base_of(filter));
}

static gboolean
output_can_poll(GPollableOutputStream *filter)
{
  auto *base = base_of(filter);
  return G_IS_POLLABLE_OUTPUT_STREAM(base) &&
         g_pollable_output_stream_can_poll(pollable_base(filter));
}

static gboolean
output_is_writable(GPollableOutputStream *filter)
{
  return g_pollable_output_stream_is_writable(pollable_base(filter));
}

static gboolean
output_base_is_closed(gpointer filter)
{
  return g_output_stream_is_closed(base_of(static_cast<GPollableOutputStream *>(filter)));
}

static GSource *
output_create_source(GPollableOutputStream *filter, GCancellable *cancellable)
{
  return gvc::source_with(filter,
                          g_pollable_output_stream_create_source(pollable_base(filter), nullptr),
                          output_base_is_closed, cancellable);
}

// Within an asynchronous write of GIO's, which ends with the bytes that this function takes, a
// stage must have sent them.
static gssize
output_write_nonblocking(GPollableOutputStream *filter, const void *buffer, gsize count,
                         GError **error)
{
  gboolean within_async = g_output_stream_has_pending(reinterpret_cast<GOutputStream *>(filter));
  auto *base = base_of(filter);
  GOutputVector vector = {buffer, count};

  if (!g_output_stream_set_pending(base, error))
    return -1;
  gssize nwritten = gvc::stage_base(base)
                        ? gvc::write_to_stage(base, &vector, 1, within_async, error)
                        : gvc::write_nonblocking(base, &vector, 1, nullptr, error);
  g_output_stream_clear_pending(base);
  return nwritten;
}

void
gvc::init_pollable_filter_output(GPollableOutputStreamInterface *iface)
{
  iface->can_poll = output_can_poll;
  iface->is_writable = output_is_writable;
  iface->create_source = output_create_source;
  iface->write_nonblocking = output_write_nonblocking;
}

GOutputStream *
gvc::forwards_to(GOutputStream *stream)
{
  if (!G_IS_POLLABLE_OUTPUT_STREAM(stream))
    return nullptr;
  auto *filter = reinterpret_cast<GPollableOutputStream *>(stream);
  auto *iface = G_POLLABLE_OUTPUT_STREAM_GET_INTERFACE(filter);
  return iface->write_nonblocking == output_write_nonblocking ? base_of(filter) : nullptr;
}

gboolean
gvc::can_poll(GOutputStream *stream)
{
  if (!G_IS_POLLABLE_OUTPUT_STREAM(stream))
    return FALSE;
  auto *left_to_gio = static_cast<GOutputStreamClass *>(g_type_class_peek(G_TYPE_OUTPUT_STREAM));
  return G_OUTPUT_STREAM_GET_CLASS(stream)->write_async == left_to_gio->write_async &&
         g_pollable_output_stream_can_poll(reinterpret_cast<GPollableOutputStream *>(stream));
}

gboolean
gvc::gathers(GOutputStream *stream)
{
  auto *one_by_one = static_cast<GOutputStreamClass *>(g_type_class_peek(G_TYPE_OUTPUT_STREAM));
  return G_OUTPUT_STREAM_GET_CLASS(stream)->writev_fn != one_by_one->writev_fn;
}

gssize
gvc::write_nonblocking(GOutputStream *stream, const GOutputVector *vectors, gsize n_vectors,
                       GCancellable *cancellable, GError **error)
{
  auto *pollable = reinterpret_cast<GPollableOutputStream *>(stream);
  gsize written;

  if (n_vectors == 1)
    return g_pollable_output_stream_write_nonblocking(pollable, vectors->buffer, vectors->size,
                                                      cancellable, error);
  switch (g_pollable_output_stream_writev_nonblocking(pollable, vectors, n_vectors, &written,
                                                      cancellable, error)) {
  case G_POLLABLE_RETURN_OK:
    return static_cast<gssize>(written);
  case G_POLLABLE_RETURN_WOULD_BLOCK:
    // The one failure that comes without an error.
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, g_strerror(EAGAIN));
    return -1;
  default:
    return -1;
  }
}

GError *
gvc::or_unknown(GError *error)
{
  return error
             ? error
             : g_error_new_literal(G_IO_ERROR, G_IO_ERROR_FAILED, "Stream failed without an error");
}

// ---- Sockets ----

static G_DEFINE_QUARK(gvc - socket, socket);

// The streams of GSocketConnection have no public type, but a property for their socket.
GSocket *
gvc::plain_socket(gpointer stream)
{
  auto *object = static_cast<GObject *>(stream);
  auto *type = G_OBJECT_TYPE_NAME(object);
  if (strcmp(type, "GSocketInputStream") != 0 && strcmp(type, "GSocketOutputStream") != 0)
    return nullptr;

  auto *known = static_cast<GSocket *>(g_object_get_qdata(object, socket_quark()));
  if (known)
    return known;
  g_autoptr(GSocket) socket = nullptr;
  g_object_get(object, "socket", &socket, nullptr);
  // The stream keeps its socket for life.
  g_object_set_qdata(object, socket_quark(), socket);
  return socket;
}
