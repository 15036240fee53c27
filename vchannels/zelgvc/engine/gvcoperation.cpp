// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcoperation.h"
#include "gvcinputstage.h"
#include "gvcoutputstage.h"
#include "gvcsocketwait.h"

#include <vchannels/zelgvc/gvcfixedtexts.h>

#include <utility>

using gvc::Next;
using gvc::Operation;

// The linker needs this entry of pure virtual functions, usually from libstdc++. Nothing calls it.
extern "C" [[noreturn]] void
__cxa_pure_virtual()
{
  g_assert_not_reached();
}

template <class D> Operation<D>::~Operation()
{
  g_clear_error(&error_);
}

template <class D>
GCancellable *
Operation<D>::cancellable() const
{
  return g_task_get_cancellable(task_);
}

template <class D>
Next
Operation<D>::next_part()
{
  // Bytes moved within the starting call count from the next turn on.
  changing_part_ = starting_ && (priority_ != G_PRIORITY_DEFAULT || cancellable());
  if (changing_part_)
    return Next::turn;

  // A less urgent turn has let everything more urgent go first.
  gboolean more_urgent = priority_ < G_PRIORITY_DEFAULT;
  priority_ = G_PRIORITY_DEFAULT;
  return more_urgent ? Next::turn : Next::again;
}

template <class D>
Next
Operation<D>::failed()
{
  error_ = or_unknown(error_);
  return Next::done;
}

template <class D>
Next
Operation<D>::blocked_or_failed()
{
  if (!g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK))
    return failed();
  g_clear_error(&error_);
  if (g_cancellable_set_error_if_cancelled(cancellable(), &error_))
    return Next::done;
  // The socket does not become readable for input that a stage holds.
  return D::holds_input(target_) ? Next::turn : Next::ready;
}

template <class D>
void
Operation<D>::start(int io_priority, gboolean moves_bytes)
{
  auto *source = g_task_get_source_object(task_);
  if (!check_stream(source, D::stream_type()))
    return;

  stream_ = target_ = static_cast<Stream *>(source);
  while (auto *below = forwards_to(target_))
    target_ = below;
  polls_ = can_poll<D>(target_) && can_poll<D>(stream_);
  if (polls_ && moves_bytes && mark_busy(stream_))
    lowest_busy_ = target_;
  priority_ = io_priority;
  starting_ = TRUE;
  run(error_ ? Next::done : Next::again);
}

template <class D>
void
Operation<D>::run(Next next)
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

template <class D>
void
Operation<D>::finish()
{
  auto *task = task_;

  if (lowest_busy_)
    D::clear_pending(stream_);
  if (error_)
    g_task_return_error(task, std::exchange(error_, nullptr));
  else
    succeed();
  g_object_unref(task);
}

template <class D>
void
Operation<D>::succeed()
{
  g_task_return_boolean(task_, TRUE);
}

// ---- Busy streams ----

// Sets the pending flag from `stream` down to target_, so that nothing else uses or closes one of
// the streams meanwhile.
template <class D>
gboolean
Operation<D>::mark_busy(Stream *stream)
{
  if (!D::set_pending(stream, &error_))
    return FALSE;
  if (stream == target_ || mark_busy(forwards_to(stream)))
    return TRUE;
  D::clear_pending(stream);
  return FALSE;
}

template <class D>
void
Operation<D>::release_base()
{
  for (auto *stream = stream_; lowest_busy_ && stream != lowest_busy_;) {
    stream = forwards_to(stream);
    D::clear_pending(stream);
  }
  if (lowest_busy_)
    lowest_busy_ = stream_;
}

// ---- Waiting ----

// A source that waited for the same is kept: making and attaching one costs more than a read.
template <class D>
void
Operation<D>::wait(Next what)
{
  if (dispatched_ == what) {
    auto *source = g_main_current_source();
    if (g_source_get_priority(source) != priority_)
      g_source_set_priority(source, priority_);
    keep_source_ = TRUE;
    g_object_unref(task_);
  } else if (what == Next::turn || !wait_ready()) {
    attach(g_idle_source_new(),
           [](gpointer self) { return static_cast<Operation *>(self)->resume(Next::turn); });
  }
}

// The socket, or a source of GLib's, takes over the reference to the task. Returns FALSE if another
// thread has just closed the socket: GIO's source would warn.
template <class D>
gboolean
Operation<D>::wait_ready()
{
  auto *bottom = target_;
  while (auto *below = stage_base(bottom))
    bottom = below;

  auto socket_ready = [](gpointer self) {
    static_cast<Operation *>(self)->starting_ = FALSE;
    static_cast<Operation *>(self)->run(Next::again);
  };
  if (wait_for_socket(bottom, task_, priority_, socket_ready, this))
    return TRUE;
  auto *socket = plain_socket(bottom);
  if (socket && g_socket_is_closed(socket))
    return FALSE;
  auto ready = [](GObject *, gpointer self) {
    return static_cast<Operation *>(self)->resume(Next::ready);
  };
  attach(D::create_source(to_pollable<D>(bottom), cancellable()),
         G_SOURCE_FUNC(static_cast<GPollableSourceFunc>(ready)));
  return TRUE;
}

// The source takes over the reference to the task.
template <class D>
void
Operation<D>::attach(GSource *source, GSourceFunc callback)
{
  g_source_set_priority(source, priority_);
  g_source_set_callback(source, callback, this, [](gpointer self) {
    g_object_unref(static_cast<Operation *>(self)->task_);
  });
  g_source_attach(source, g_task_get_context(task_));
  g_source_unref(source);
}

template <class D>
gboolean
Operation<D>::resume(Next what)
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

template <class D>
void
Operation<D>::gio_callback(GObject *, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<Operation *>(user_data);

  self->starting_ = FALSE;
  self->run(self->ended(result));
}

template class gvc::Operation<gvc::Input>;
template class gvc::Operation<gvc::Output>;
