// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcoperation.h"
#include "gvcsocketwait.h"

using gvc::Operation;

// The entry of a pure virtual function, which is never called. It usually comes from libstdc++.
extern "C" [[noreturn]] void
__cxa_pure_virtual()
{
  g_assert_not_reached();
}

Operation::~Operation()
{
  g_clear_error(&error_);
}

GCancellable *
Operation::cancellable() const
{
  return g_task_get_cancellable(task_);
}

Operation::Next
Operation::next_part()
{
  // What the call that starts the operation has moved counts from the next turn on.
  changing_part_ = starting_ && (priority_ != G_PRIORITY_DEFAULT || cancellable());
  if (changing_part_)
    return Next::turn;

  // A less urgent turn has let everything more urgent go first.
  gboolean more_urgent = priority_ < G_PRIORITY_DEFAULT;
  priority_ = G_PRIORITY_DEFAULT;
  return more_urgent ? Next::turn : Next::again;
}

Operation::Next
Operation::fail(GError *error)
{
  g_propagate_error(&error_, error);
  return Next::done;
}

void
Operation::start(int io_priority)
{
  priority_ = io_priority;
  starting_ = TRUE;
  run(error_ ? Next::done : Next::again);
}

void
Operation::run(Next next)
{
  for (int attempts = 0; next == Next::again && attempts < budget_; attempts++)
    next = attempt();

  ended_ = next == Next::done;
  if (ended_)
    release_base();
  if (ended_ && !starting_)
    finish();
  else if (next != Next::gio)
    wait(next == Next::ready ? next : Next::turn);
}

void
Operation::finish()
{
  auto *task = task_;

  release();
  deliver();
  g_object_unref(task);
}

// ---- Waiting ----

// A source that waited for the same is kept: making and attaching one costs more than a read.
void
Operation::wait(Next what)
{
  if (dispatched_ == what) {
    auto *source = g_main_current_source();
    if (g_source_get_priority(source) != priority_)
      g_source_set_priority(source, priority_);
    keep_source_ = TRUE;
    g_object_unref(task_);
  } else if (what == Next::ready) {
    wait_ready();
  } else {
    attach(g_idle_source_new(), turn_callback);
  }
}

// The socket, or a source of GLib's, takes over the reference to the task.
void
Operation::wait_ready()
{
  auto *stream = bottom();

  if (!wait_for_socket(stream, ready_condition_, g_task_get_context(task_), priority_,
                       cancellable(), {socket_ready, this}))
    attach(ready_source(stream), G_SOURCE_FUNC(ready_callback));
}

void
Operation::socket_ready(gpointer user_data)
{
  auto *self = static_cast<Operation *>(user_data);

  self->starting_ = FALSE;
  self->run(Next::again);
}

// The source takes over the reference to the task.
void
Operation::attach(GSource *source, GSourceFunc callback)
{
  g_source_set_priority(source, priority_);
  g_source_set_callback(source, callback, this, [](gpointer self) {
    g_object_unref(static_cast<Operation *>(self)->task_);
  });
  g_source_attach(source, g_task_get_context(task_));
  g_source_unref(source);
}

gboolean
Operation::resume(Next what)
{
  starting_ = FALSE;
  dispatched_ = what;
  keep_source_ = FALSE;
  // The source keeps its own reference until it has returned.
  g_object_ref(task_);
  run(ended_ ? Next::done : changing_part_ ? next_part() : Next::again);
  dispatched_ = Next::done;
  return keep_source_;
}

gboolean
Operation::turn_callback(gpointer self)
{
  return static_cast<Operation *>(self)->resume(Next::turn);
}

gboolean
Operation::ready_callback(GObject *, gpointer self)
{
  return static_cast<Operation *>(self)->resume(Next::ready);
}

void
Operation::gio_callback(GObject *, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<Operation *>(user_data);
  self->starting_ = FALSE;
  self->run(self->ended(result));
}
