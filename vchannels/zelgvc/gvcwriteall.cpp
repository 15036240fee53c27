// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcwriteall.h"
#include "gvcchecks.h"
#include "gvcoutputstage.h"
#include "gvcpollable.h"

// The mirror image of gvcreadall.cpp.

// How often a stream that always takes something is written to before others get their turn.
static constexpr int most_attempts = 2;

static gvc::WriteAll *
state_of(GTask *task)
{
  return static_cast<gvc::WriteAll *>(g_task_get_task_data(task));
}

static GOutputStream *
stream_of(GTask *task)
{
  return static_cast<GOutputStream *>(g_task_get_source_object(task));
}

// Whether g_output_stream_write_async() would poll: the stream can be, and its class leaves
// asynchronous writes to GIO.
static gboolean
writes_by_polling(GOutputStream *stream)
{
  if (!G_IS_POLLABLE_OUTPUT_STREAM(stream))
    return FALSE;
  auto *left_to_gio = static_cast<GOutputStreamClass *>(g_type_class_peek(G_TYPE_OUTPUT_STREAM));
  return G_OUTPUT_STREAM_GET_CLASS(stream)->write_async == left_to_gio->write_async &&
         g_pollable_output_stream_can_poll(reinterpret_cast<GPollableOutputStream *>(stream));
}

static void
account(gvc::WriteAll *self, gssize nwritten)
{
  gvc::assert_not_more(nwritten, static_cast<gint64>(self->to_write),
                       {"vchannels/zelgvc/gvcoutputstreamutils", 48}, "write_all_callback",
                       "nwritten <= data->to_write");
  // A stream that accepts nothing is asked again: there is no end of stream on this side.
  if (nwritten == 0)
    g_warn_message(nullptr, "vchannels/zelgvc/gvcoutputstreamutils", 49, "write_all_callback",
                   "nwritten > 0");
  self->to_write -= static_cast<gsize>(nwritten);
  self->bytes_written += static_cast<gsize>(nwritten);
  self->ended = self->to_write == 0;
}

// Marks the stream as busy, which fails where it is closed or busy already.
static void
set_pending(GTask *task)
{
  auto *self = state_of(task);

  self->pending = g_output_stream_set_pending(stream_of(task), &self->error);
  self->ended = !self->pending;
}

// ---- Waiting ----

static void proceed(GTask *task);

// A wait for the same thing needs no new source: `again` keeps the one that is calling.
static gboolean
dispatch(GTask *task, gvc::Wait what)
{
  auto *self = state_of(task);

  self->dispatched = what;
  self->again = FALSE;
  proceed(static_cast<GTask *>(g_object_ref(task)));
  self->dispatched = gvc::Wait::none;
  return self->again;
}

static gboolean
turn_callback(gpointer task)
{
  return dispatch(static_cast<GTask *>(task), gvc::Wait::turn);
}

static gboolean
writable_callback(GObject *, gpointer task)
{
  return dispatch(static_cast<GTask *>(task), gvc::Wait::stream);
}

// Leaves the task to a source.
static void
attach(GTask *task, GSource *source, GSourceFunc callback)
{
  g_source_set_priority(source, state_of(task)->priority);
  g_source_set_callback(source, callback, task, g_object_unref);
  g_source_attach(source, g_task_get_context(task));
  g_source_unref(source);
}

static void
wait_for(GTask *task, gvc::Wait what)
{
  auto *self = state_of(task);

  self->in_loop = TRUE;
  if (self->dispatched == what) {
    auto *source = g_main_current_source();
    if (g_source_get_priority(source) != self->priority)
      g_source_set_priority(source, self->priority);
    self->again = TRUE;
    g_object_unref(task);
  } else if (what == gvc::Wait::turn) {
    attach(task, g_idle_source_new(), turn_callback);
  } else {
    attach(task, gvc::writable_source(stream_of(task), g_task_get_cancellable(task)),
           G_SOURCE_FUNC(writable_callback));
  }
}

static gboolean drained_callback(GObject *, gpointer task);

// The stream has accepted everything or failed, but stages below may hold some of it still: ends
// once they hold nothing, and waits for the peer where it is slow.
static void
finish(GTask *task)
{
  auto *self = state_of(task);
  GPollableOutputStream *blocked = nullptr;

  if (!self->error)
    gvc::drain_stages(stream_of(task), &blocked, &self->error);
  if (blocked && !self->pending)
    set_pending(task);
  if (blocked && self->pending) {
    self->in_loop = TRUE;
    attach(task, g_pollable_output_stream_create_source(blocked, g_task_get_cancellable(task)),
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

  g_cancellable_set_error_if_cancelled(g_task_get_cancellable(task), &state_of(task)->error);
  finish(task);
  return G_SOURCE_REMOVE;
}

// ---- By polling ----

// FALSE where the stream takes nothing now.
static gboolean
attempt(GTask *task)
{
  auto *self = state_of(task);
  gssize nwritten = g_pollable_output_stream_write_nonblocking(
      reinterpret_cast<GPollableOutputStream *>(stream_of(task)),
      self->buffer + self->bytes_written, self->to_write, g_task_get_cancellable(task),
      &self->error);

  if (nwritten >= 0) {
    account(self, nwritten);
    return TRUE;
  }
  if (g_error_matches(self->error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
    g_clear_error(&self->error);
    return FALSE;
  }
  self->ended = TRUE;
  return TRUE;
}

// What has ended within the call that began the operation is told from the main loop, unless there
// is more to be written first.
static void
proceed(GTask *task)
{
  auto *self = state_of(task);
  auto next = gvc::Wait::none;

  for (int attempts = 0; !self->ended && next == gvc::Wait::none; attempts++) {
    if (attempts == most_attempts)
      next = gvc::Wait::turn;
    else if (!attempt(task))
      next = gvc::Wait::stream;
  }
  if (next != gvc::Wait::none)
    wait_for(task, next);
  else if (self->in_loop || (self->eager && !self->error))
    finish(task);
  else
    wait_for(task, gvc::Wait::turn);
}

// ---- By GIO ----

static void
write_all_callback(GObject *source, GAsyncResult *result, gpointer user_data)
{
  auto *stream = reinterpret_cast<GOutputStream *>(source);
  auto *task = static_cast<GTask *>(user_data);
  auto *self = state_of(task);

  if (result) {
    gssize nwritten = g_output_stream_write_finish(stream, result, &self->error);
    if (nwritten >= 0)
      account(self, nwritten);
    if (self->error || self->ended) {
      finish(task);
      return;
    }
  }
  g_output_stream_write_async(stream, self->buffer + self->bytes_written, self->to_write,
                              self->priority, g_task_get_cancellable(task), write_all_callback,
                              task);
}

// ---- Both ----

static void
set_up(gvc::WriteAll *self, const void *from, gsize count, int io_priority, void (*done)(GTask *))
{
  self->buffer = static_cast<const guint8 *>(from);
  self->to_write = count;
  self->bytes_written = 0;
  self->priority = io_priority;
  self->ended = FALSE;
  self->done = done;
}

gboolean
gvc::WriteAll::check_source(gpointer stream)
{
  if (G_IS_OUTPUT_STREAM(stream))
    return TRUE;
  g_return_if_fail_warning(nullptr, "gvc_output_stream_util_write_all_async",
                           "G_IS_OUTPUT_STREAM(stream)");
  return FALSE;
}

void
gvc::WriteAll::start(GTask *task, const void *from, gsize count, int io_priority,
                     void (*done)(GTask *))
{
  auto *self = state_of(task);
  auto *stream = stream_of(task);

  set_up(self, from, count, io_priority, done);
  if (count == 0) {
    done(task);
    return;
  }
  if (self->way == Way::unknown)
    self->way = writes_by_polling(stream) ? Way::polling : Way::gio;
  if (self->way == Way::polling) {
    set_pending(task);
    proceed(task);
  } else {
    write_all_callback(reinterpret_cast<GObject *>(stream), nullptr, task);
  }
}
