// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcreadall.h"
#include "gvcchecks.h"
#include "gvcpollable.h"

// The mirror image of gvcwriteall.cpp.

// How often a stream that always has something is read before others get their turn.
static constexpr int most_attempts = 2;

static gvc::ReadAll *
state_of(GTask *task)
{
  return static_cast<gvc::ReadAll *>(g_task_get_task_data(task));
}

static GInputStream *
stream_of(GTask *task)
{
  return static_cast<GInputStream *>(g_task_get_source_object(task));
}

// Whether g_input_stream_read_async() would poll: the stream can be, and its class leaves
// asynchronous reads to GIO.
static gboolean
reads_by_polling(GInputStream *stream)
{
  if (!G_IS_POLLABLE_INPUT_STREAM(stream))
    return FALSE;
  auto *left_to_gio = static_cast<GInputStreamClass *>(g_type_class_peek(G_TYPE_INPUT_STREAM));
  return G_INPUT_STREAM_GET_CLASS(stream)->read_async == left_to_gio->read_async &&
         g_pollable_input_stream_can_poll(reinterpret_cast<GPollableInputStream *>(stream));
}

static void
account(gvc::ReadAll *self, gssize nread)
{
  gvc::assert_not_more(nread, static_cast<gint64>(self->to_read),
                       {"vchannels/zelgvc/gvcinputstreamutils", 49}, "read_all_callback",
                       "nread <= data->to_read");
  self->to_read -= static_cast<gsize>(nread);
  self->bytes_read += static_cast<gsize>(nread);
  self->ended = nread == 0 || self->to_read == 0;
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
readable_callback(GObject *, gpointer task)
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
    attach(task, gvc::readable_source(stream_of(task), g_task_get_cancellable(task)),
           G_SOURCE_FUNC(readable_callback));
  }
}

static void
finish(GTask *task)
{
  auto *self = state_of(task);

  if (self->pending)
    g_input_stream_clear_pending(stream_of(task));
  self->pending = FALSE;
  self->done(task);
}

// ---- By polling ----

// FALSE where the stream has nothing now.
static gboolean
attempt(GTask *task)
{
  auto *self = state_of(task);
  gssize nread = g_pollable_input_stream_read_nonblocking(
      reinterpret_cast<GPollableInputStream *>(stream_of(task)), self->buffer + self->bytes_read,
      self->to_read, g_task_get_cancellable(task), &self->error);

  if (nread >= 0) {
    account(self, nread);
    return TRUE;
  }
  if (g_error_matches(self->error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
    g_clear_error(&self->error);
    return FALSE;
  }
  self->ended = TRUE;
  return TRUE;
}

// What has ended within the call that began the operation is told from the main loop.
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
  else if (self->in_loop)
    finish(task);
  else
    wait_for(task, gvc::Wait::turn);
}

// ---- By GIO ----

static void
read_all_callback(GObject *source, GAsyncResult *result, gpointer user_data)
{
  auto *stream = reinterpret_cast<GInputStream *>(source);
  auto *task = static_cast<GTask *>(user_data);
  auto *self = state_of(task);

  if (result) {
    gssize nread = g_input_stream_read_finish(stream, result, &self->error);
    if (nread >= 0)
      account(self, nread);
    if (self->error || self->ended) {
      finish(task);
      return;
    }
  }
  g_input_stream_read_async(stream, self->buffer + self->bytes_read, self->to_read, self->priority,
                            g_task_get_cancellable(task), read_all_callback, task);
}

// ---- Both ----

// Marks the stream as busy, which fails where it is closed or busy already.
static void
set_pending(GTask *task)
{
  auto *self = state_of(task);

  self->pending = g_input_stream_set_pending(stream_of(task), &self->error);
  self->ended = !self->pending;
}

static void
set_up(gvc::ReadAll *self, void *to, gsize count, int io_priority, void (*done)(GTask *))
{
  self->buffer = static_cast<guint8 *>(to);
  self->to_read = count;
  self->bytes_read = 0;
  self->priority = io_priority;
  self->ended = FALSE;
  self->done = done;
}

gboolean
gvc::ReadAll::check_source(gpointer stream)
{
  if (G_IS_INPUT_STREAM(stream))
    return TRUE;
  g_return_if_fail_warning(nullptr, "gvc_input_stream_util_read_all_async",
                           "G_IS_INPUT_STREAM(stream)");
  return FALSE;
}

void
gvc::ReadAll::start(GTask *task, void *to, gsize count, int io_priority, void (*done)(GTask *))
{
  auto *self = state_of(task);
  auto *stream = stream_of(task);

  set_up(self, to, count, io_priority, done);
  if (count == 0) {
    done(task);
    return;
  }
  if (self->way == Way::unknown)
    self->way = reads_by_polling(stream) ? Way::polling : Way::gio;
  if (self->way == Way::polling) {
    set_pending(task);
    proceed(task);
  } else {
    read_all_callback(reinterpret_cast<GObject *>(stream), nullptr, task);
  }
}
