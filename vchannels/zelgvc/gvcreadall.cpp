// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcreadall.h"
#include "gvcchecks.h"
#include "gvcpollable.h"

// The mirror image of gvcwriteall.cpp.

using gvc::Transfer;

static GInputStream *
stream_of(GTask *task)
{
  return static_cast<GInputStream *>(g_task_get_source_object(task));
}

static void
account(GTask *task, gssize nread)
{
  auto *self = Transfer::of(task);

  gvc::assert_not_more(nread, static_cast<gint64>(self->left),
                       {"vchannels/zelgvc/gvcinputstreamutils", 49}, "read_all_callback",
                       "nread <= data->to_read");
  self->left -= static_cast<gsize>(nread);
  self->moved += static_cast<gsize>(nread);
  self->ended = nread == 0 || self->left == 0;
}

static void
finish(GTask *task)
{
  auto *self = Transfer::of(task);

  if (self->pending)
    g_input_stream_clear_pending(stream_of(task));
  self->pending = FALSE;
  self->done(task);
}

// ---- By polling ----

// The stream can be polled, and its class leaves asynchronous reads to GIO.
static gboolean
would_poll(GTask *task)
{
  auto *stream = stream_of(task);
  if (!G_IS_POLLABLE_INPUT_STREAM(stream))
    return FALSE;
  auto *left_to_gio = static_cast<GInputStreamClass *>(g_type_class_peek(G_TYPE_INPUT_STREAM));
  return G_INPUT_STREAM_GET_CLASS(stream)->read_async == left_to_gio->read_async &&
         g_pollable_input_stream_can_poll(reinterpret_cast<GPollableInputStream *>(stream));
}

static gboolean
mark_busy(GTask *task)
{
  return g_input_stream_set_pending(stream_of(task), &Transfer::of(task)->error);
}

static gssize
move(GTask *task)
{
  auto *self = Transfer::of(task);

  return g_pollable_input_stream_read_nonblocking(
      reinterpret_cast<GPollableInputStream *>(stream_of(task)), self->buffer + self->moved,
      self->left, g_task_get_cancellable(task), &self->error);
}

static GSource *
ready_source(GTask *task)
{
  return gvc::readable_source(stream_of(task), g_task_get_cancellable(task));
}

// ---- By GIO ----

static void
start_gio(GTask *task, GAsyncReadyCallback callback)
{
  auto *self = Transfer::of(task);

  g_input_stream_read_async(stream_of(task), self->buffer + self->moved, self->left, self->priority,
                            g_task_get_cancellable(task), callback, task);
}

static gssize
finish_gio(GTask *task, GAsyncResult *result)
{
  return g_input_stream_read_finish(stream_of(task), result, &Transfer::of(task)->error);
}

// ---- Both ----

void
gvc::read_all(GTask *task, void *to, gsize count, int io_priority, void (*done)(GTask *))
{
  static const Direction reading = {would_poll, mark_busy,  move,    ready_source,
                                    start_gio,  finish_gio, account, finish};

  Transfer::start(task, &reading, static_cast<guint8 *>(to), count, io_priority, done);
}

gboolean
gvc::check_input_stream(gpointer stream)
{
  if (G_IS_INPUT_STREAM(stream))
    return TRUE;
  g_return_if_fail_warning(nullptr, "gvc_input_stream_util_read_all_async",
                           "G_IS_INPUT_STREAM(stream)");
  return FALSE;
}
