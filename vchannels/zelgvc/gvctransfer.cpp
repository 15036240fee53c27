// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvctransfer.h"

using gvc::Transfer;
using gvc::Wait;
using gvc::Way;

// How often a stream that is always ready is used before others get their turn.
static constexpr int most_attempts = 2;

Transfer *
Transfer::of(GTask *task)
{
  return static_cast<Transfer *>(g_task_get_task_data(task));
}

void
Transfer::attach_new(GTask *task)
{
  g_task_set_task_data(task, g_slice_new0(Transfer), [](gpointer data) {
    auto *self = static_cast<Transfer *>(data);
    self->clear();
    g_slice_free(Transfer, self);
  });
}

void
Transfer::return_outcome(GTask *task)
{
  auto *self = of(task);

  if (self->error)
    g_task_return_error(task, static_cast<GError *>(g_steal_pointer(&self->error)));
  else
    g_task_return_boolean(task, TRUE);
  g_object_unref(task);
}

// ---- By GIO ----

static void
gio_callback(GObject *, GAsyncResult *result, gpointer user_data)
{
  auto *task = static_cast<GTask *>(user_data);
  auto *self = Transfer::of(task);
  gssize moved = self->direction->finish_gio(task, result);

  if (moved >= 0)
    self->direction->account(task, moved);
  if (self->error || self->ended)
    self->direction->finish(task);
  else
    self->direction->start_gio(task, gio_callback);
}

// ---- By polling ----

// FALSE where the stream is not ready.
static gboolean
attempt(GTask *task)
{
  auto *self = Transfer::of(task);
  gssize moved = self->direction->move(task);

  if (moved >= 0) {
    self->direction->account(task, moved);
  } else if (g_error_matches(self->error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
    g_clear_error(&self->error);
    return FALSE;
  } else {
    self->ended = TRUE;
  }
  return TRUE;
}

static void proceed(GTask *task);

// A wait for the same thing needs no new source: `again` keeps the one that is calling.
static gboolean
dispatch(GTask *task, Wait what)
{
  auto *self = Transfer::of(task);

  self->dispatched = what;
  self->again = FALSE;
  proceed(static_cast<GTask *>(g_object_ref(task)));
  self->dispatched = Wait::none;
  return self->again;
}

static gboolean
turn_callback(gpointer task)
{
  return dispatch(static_cast<GTask *>(task), Wait::turn);
}

static gboolean
ready_callback(GObject *, gpointer task)
{
  return dispatch(static_cast<GTask *>(task), Wait::stream);
}

void
gvc::attach(GTask *task, GSource *source, GSourceFunc callback)
{
  g_source_set_priority(source, Transfer::of(task)->priority);
  g_source_set_callback(source, callback, task, g_object_unref);
  g_source_attach(source, g_task_get_context(task));
  g_source_unref(source);
}

static void
wait_for(GTask *task, Wait what)
{
  auto *self = Transfer::of(task);

  self->in_loop = TRUE;
  if (self->dispatched == what) {
    auto *source = g_main_current_source();
    if (g_source_get_priority(source) != self->priority)
      g_source_set_priority(source, self->priority);
    self->again = TRUE;
    g_object_unref(task);
  } else if (what == Wait::turn) {
    gvc::attach(task, g_idle_source_new(), turn_callback);
  } else {
    gvc::attach(task, self->direction->ready_source(task), G_SOURCE_FUNC(ready_callback));
  }
}

// What has ended within the call that began the operation is told from the main loop, unless there
// is more to be moved first.
static void
proceed(GTask *task)
{
  auto *self = Transfer::of(task);
  auto next = Wait::none;

  for (int attempts = 0; !self->ended && next == Wait::none; attempts++) {
    if (attempts == most_attempts)
      next = Wait::turn;
    else if (!attempt(task))
      next = Wait::stream;
  }
  if (next != Wait::none)
    wait_for(task, next);
  else if (self->in_loop || (self->eager && !self->error))
    self->direction->finish(task);
  else
    wait_for(task, Wait::turn);
}

// ---- Both ----

static void
set_up(Transfer *self, const gvc::Direction *direction, guint8 *buffer, gsize count,
       int io_priority, void (*to)(GTask *))
{
  self->direction = direction;
  self->buffer = buffer;
  self->left = count;
  self->moved = 0;
  self->priority = io_priority;
  self->ended = FALSE;
  self->done = to;
}

void
Transfer::start(GTask *task, const Direction *direction, guint8 *buffer, gsize count,
                int io_priority, void (*to)(GTask *))
{
  auto *self = of(task);

  set_up(self, direction, buffer, count, io_priority, to);
  if (count == 0) {
    to(task);
    return;
  }
  if (self->way == Way::unknown)
    self->way = direction->would_poll(task) ? Way::polling : Way::gio;
  if (self->way == Way::polling) {
    self->pending = direction->mark_busy(task);
    self->ended = !self->pending;
    proceed(task);
  } else {
    direction->start_gio(task, gio_callback);
  }
}
