// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcpollable.h"

#include <cerrno>

using gvc::Input;
using gvc::Output;
using gvc::Sending;

template <class D>
static typename D::Stream *
base_of(gpointer filter)
{
  return static_cast<typename D::Filter *>(filter)->base_stream;
}

// can_poll() has found the base stream to be pollable.
template <class D>
static typename D::Pollable *
pollable_base(gpointer filter)
{
  return gvc::to_pollable<D>(base_of<D>(filter));
}

// ---- Sources ----

// GIO's sources look at the socket alone: neither at bytes in a stage nor at closed streams.
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

// A source for `stream` that is ready when `child` is, and as long as `ready` says so.
static GSource *
source_with(gpointer stream, GSource *child, gboolean (*ready)(gpointer stream),
            GCancellable *cancellable)
{
  static GSourceFuncs funcs = {.prepare = prepare,
                               .check = check,
                               .dispatch = dispatch,
                               .finalize = finalize,
                               .closure_callback = nullptr,
                               .closure_marshal = nullptr};

  g_autoptr(GSource) held = g_source_new(&funcs, sizeof(ReadySource));
  auto *self = reinterpret_cast<ReadySource *>(held);
  self->stream = g_object_ref(stream);
  self->ready = ready;
  auto *source = g_pollable_source_new_full(stream, child, cancellable);
  g_source_add_child_source(source, held);
  g_source_unref(child);
  return source;
}

// ---- Filters ----

template <class D>
static gboolean
filter_can_poll(typename D::Pollable *filter)
{
  return G_TYPE_CHECK_INSTANCE_TYPE(base_of<D>(filter), D::pollable_type()) &&
         D::can_poll(pollable_base<D>(filter));
}

template <class D>
static gboolean
filter_is_ready(typename D::Pollable *filter)
{
  return D::holds_input(G_TYPE_CHECK_INSTANCE_CAST(filter, D::stream_type(), typename D::Stream)) ||
         D::is_ready(pollable_base<D>(filter));
}

template <class D>
static gboolean
needs_no_wait(gpointer filter)
{
  auto *stream = static_cast<typename D::Stream *>(filter);
  return D::holds_input(stream) || D::is_closed(stream) || D::is_closed(base_of<D>(filter));
}

template <class D>
static GSource *
filter_create_source(typename D::Pollable *filter, GCancellable *cancellable)
{
  return source_with(filter, D::create_source(pollable_base<D>(filter), nullptr), needs_no_wait<D>,
                     cancellable);
}

static gssize
filter_read_nonblocking(GPollableInputStream *filter, void *buffer, gsize count, GError **error)
{
  auto *base = base_of<Input>(filter);

  if (!g_input_stream_set_pending(base, error))
    return -1;
  gssize nread = g_pollable_input_stream_read_nonblocking(pollable_base<Input>(filter), buffer,
                                                          count, nullptr, error);
  g_input_stream_clear_pending(base);
  return nread;
}

// GIO's asynchronous writes end when this function has taken their bytes, so within one of them a
// stage must have sent the bytes.
static gssize
filter_write_nonblocking(GPollableOutputStream *filter, const void *buffer, gsize count,
                         GError **error)
{
  auto sending =
      g_output_stream_has_pending(G_OUTPUT_STREAM(filter)) ? Sending::until_sent : Sending::kept;
  auto *base = base_of<Output>(filter);
  GOutputVector vector = {.buffer = buffer, .size = count};

  if (!g_output_stream_set_pending(base, error))
    return -1;
  gssize nwritten = gvc::write_nonblocking(base, &vector, 1, sending, nullptr, error);
  g_output_stream_clear_pending(base);
  return nwritten;
}

template <class D>
static void
init_filter(typename D::Interface *iface)
{
  iface->can_poll = filter_can_poll<D>;
  iface->*D::ready_method = filter_is_ready<D>;
  iface->create_source = filter_create_source<D>;
}

void
gvc::init_pollable_filter_input(GPollableInputStreamInterface *iface)
{
  init_filter<Input>(iface);
  iface->read_nonblocking = filter_read_nonblocking;
}

void
gvc::init_pollable_filter_output(GPollableOutputStreamInterface *iface)
{
  init_filter<Output>(iface);
  iface->write_nonblocking = filter_write_nonblocking;
}

template <class D, class Move>
static typename D::Stream *
base_if_moved_by(typename D::Stream *stream, Move move)
{
  auto *iface = static_cast<typename D::Interface *>(
      g_type_interface_peek(G_OBJECT_GET_CLASS(stream), D::pollable_type()));
  return iface && iface->*D::move_method == move ? base_of<D>(stream) : nullptr;
}

GInputStream *
gvc::forwards_to(GInputStream *stream)
{
  return base_if_moved_by<Input>(stream, filter_read_nonblocking);
}

GOutputStream *
gvc::forwards_to(GOutputStream *stream)
{
  return base_if_moved_by<Output>(stream, filter_write_nonblocking);
}

// ---- Streams ----

template <class D>
gboolean
gvc::can_poll(typename D::Stream *stream)
{
  auto *own = G_TYPE_INSTANCE_GET_CLASS(stream, G_TYPE_OBJECT, typename D::Class);
  auto *of_gio = static_cast<typename D::Class *>(g_type_class_peek(D::stream_type()));
  return G_TYPE_CHECK_INSTANCE_TYPE(stream, D::pollable_type()) &&
         own->*D::move_async == of_gio->*D::move_async && D::can_poll(to_pollable<D>(stream));
}

template gboolean gvc::can_poll<Input>(GInputStream *);
template gboolean gvc::can_poll<Output>(GOutputStream *);

gboolean
gvc::gathers(GOutputStream *stream)
{
  auto *one_by_one = static_cast<GOutputStreamClass *>(g_type_class_peek(G_TYPE_OUTPUT_STREAM));
  return G_OUTPUT_STREAM_GET_CLASS(stream)->writev_fn != one_by_one->writev_fn;
}

gssize
gvc::write_nonblocking(GOutputStream *stream, const GOutputVector *vectors, gsize n_vectors,
                       Sending sending, GCancellable *cancellable, GError **error)
{
  if (stage_base(stream)) {
    if (g_cancellable_set_error_if_cancelled(cancellable, error))
      return -1;
    return write_to_stage(stream, vectors, n_vectors, sending, error);
  }

  auto *pollable = G_POLLABLE_OUTPUT_STREAM(stream);
  gsize written;

  if (n_vectors == 1)
    return g_pollable_output_stream_write_nonblocking(pollable, vectors->buffer, vectors->size,
                                                      cancellable, error);
  switch (g_pollable_output_stream_writev_nonblocking(pollable, vectors, n_vectors, &written,
                                                      cancellable, error)) {
  case G_POLLABLE_RETURN_OK:
    return static_cast<gssize>(written);
  case G_POLLABLE_RETURN_WOULD_BLOCK:
    // GIO sets no error for this failure alone.
    set_would_block(error);
    return -1;
  default:
    return -1;
  }
}

void
gvc::set_would_block(GError **error)
{
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, g_strerror(EAGAIN));
}

GError *
gvc::or_unknown(GError *error)
{
  return error
             ? error
             : g_error_new_literal(G_IO_ERROR, G_IO_ERROR_FAILED, "Stream failed without an error");
}
