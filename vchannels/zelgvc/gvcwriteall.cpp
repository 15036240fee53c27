// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcwriteall.h"
#include "gvcchecks.h"
#include "gvcoutputstage.h"
#include "gvcpollable.h"

// The mirror image of gvcreadall.cpp.

using gvc::Transfer;

static GOutputStream *
stream_of(GTask *task)
{
  return static_cast<GOutputStream *>(g_task_get_source_object(task));
}

static void
account(GTask *task, gssize nwritten)
{
  auto *self = Transfer::of(task);

  gvc::assert_not_more(nwritten, static_cast<gint64>(self->left),
                       {"vchannels/zelgvc/gvcoutputstreamutils", 48}, "write_all_callback",
                       "nwritten <= data->to_write");
  // A stream that accepts nothing is asked again: there is no end of stream on this side.
  if (nwritten == 0)
    g_warn_message(nullptr, "vchannels/zelgvc/gvcoutputstreamutils", 49, "write_all_callback",
                   "nwritten > 0");
  self->left -= static_cast<gsize>(nwritten);
  self->moved += static_cast<gsize>(nwritten);
  self->ended = self->left == 0;
}

static gboolean
mark_busy(GTask *task)
{
  return g_output_stream_set_pending(stream_of(task), &Transfer::of(task)->error);
}

static gboolean drained_callback(GObject *, gpointer task);

// The stream has accepted everything or failed, but stages below may hold some of it still: ends
// once they hold nothing, and waits for the peer where it is slow.
static void
finish(GTask *task)
{
  auto *self = Transfer::of(task);
  GPollableOutputStream *blocked = nullptr;

  if (!self->error)
    gvc::drain_stages(stream_of(task), &blocked, &self->error);
  if (blocked && !self->pending)
    self->pending = mark_busy(task);
  if (blocked && self->pending) {
    self->in_loop = TRUE;
    gvc::attach(task, g_pollable_output_stream_create_source(blocked, g_task_get_cancellable(task)),
                G_SOURCE_FUNC(drained_callback));
    return;
  }

  if (self->pending)
    g_output_stream_clear_pending(stream_of(task));
  self->pending = FALSE;
  self->done(task);
}

static gboolean
drained_callback(GObject *, gpointer user_data)
{
  auto *task = static_cast<GTask *>(g_object_ref(user_data));

  g_cancellable_set_error_if_cancelled(g_task_get_cancellable(task), &Transfer::of(task)->error);
  finish(task);
  return G_SOURCE_REMOVE;
}

// ---- By polling ----

// The stream can be polled, and its class leaves asynchronous writes to GIO.
static gboolean
would_poll(GTask *task)
{
  auto *stream = stream_of(task);
  if (!G_IS_POLLABLE_OUTPUT_STREAM(stream))
    return FALSE;
  auto *left_to_gio = static_cast<GOutputStreamClass *>(g_type_class_peek(G_TYPE_OUTPUT_STREAM));
  return G_OUTPUT_STREAM_GET_CLASS(stream)->write_async == left_to_gio->write_async &&
         g_pollable_output_stream_can_poll(reinterpret_cast<GPollableOutputStream *>(stream));
}

static gssize
move(GTask *task)
{
  auto *self = Transfer::of(task);

  return g_pollable_output_stream_write_nonblocking(
      reinterpret_cast<GPollableOutputStream *>(stream_of(task)), self->buffer + self->moved,
      self->left, g_task_get_cancellable(task), &self->error);
}

static GSource *
ready_source(GTask *task)
{
  return gvc::writable_source(stream_of(task), g_task_get_cancellable(task));
}

// ---- By GIO ----

static void
start_gio(GTask *task, GAsyncReadyCallback callback)
{
  auto *self = Transfer::of(task);

  g_output_stream_write_async(stream_of(task), self->buffer + self->moved, self->left,
                              self->priority, g_task_get_cancellable(task), callback, task);
}

static gssize
finish_gio(GTask *task, GAsyncResult *result)
{
  return g_output_stream_write_finish(stream_of(task), result, &Transfer::of(task)->error);
}

// ---- Both ----

void
gvc::write_all(GTask *task, const void *from, gsize count, int io_priority, void (*done)(GTask *))
{
  static const Direction writing = {would_poll, mark_busy,  move,    ready_source,
                                    start_gio,  finish_gio, account, finish};

  // Nothing of this direction stores through it.
  auto *bytes = const_cast<guint8 *>(static_cast<const guint8 *>(from));
  Transfer::start(task, &writing, bytes, count, io_priority, done);
}

gboolean
gvc::check_output_stream(gpointer stream)
{
  if (G_IS_OUTPUT_STREAM(stream))
    return TRUE;
  g_return_if_fail_warning(nullptr, "gvc_output_stream_util_write_all_async",
                           "G_IS_OUTPUT_STREAM(stream)");
  return FALSE;
}
