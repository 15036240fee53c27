// SPDX-License-Identifier: LGPL-2.1-or-later
// The engine: one object for each asynchronous operation on a stream.
//
//   start() --> run() --> attempt()      moves bytes without blocking, and returns the next step:
//                ^           |
//                |           +-- again   another attempt, up to a budget, then as `turn`
//                |           +-- turn    resume in the next turn of the main loop
//                +-- wait <--+-- ready   resume when the stream at the bottom is ready
//                            +-- gio     resume when GIO's own asynchronous call has ended
//                            +-- done    finish(): release the streams, give the task its result
//
// The operation is the data of its task and owns one reference to it from start() to finish(), so
// both live until the result is delivered. The first attempts run within start(). An operation that
// ends there still waits for a turn: its stream stays busy until the callback, which runs in the
// main loop. The base streams are free as soon as no more bytes move.
//
// Reader and Writer (gvcreader.h, gvcwriter.h) move bytes; the message streams derive from them.
// Streams that cannot be polled are left to GIO's asynchronous functions.
//
// Members of classes end in an underscore; those of C structures do not.
#pragma once

#include "gvcpollable.h"

#include <new>

namespace gvc
{

enum class Next { again, turn, ready, gio, done };

// `Direction` is Input or Output.
template <class Direction> class Operation
{
public:
  // Makes a task whose data is a new operation. The operation drops the task in finish().
  // `function`, the public one that starts the operation, is the tag of the task.
  template <class Op, class Function>
  static Op *
  create(gpointer source, GCancellable *cancellable, GAsyncReadyCallback callback,
         gpointer user_data, Function *function)
  {
    auto *op = new (g_malloc(sizeof(Op))) Op();
    op->task_ = g_task_new(source, cancellable, callback, user_data);
    auto tag = reinterpret_cast<gpointer>(function);
    g_task_set_source_tag(op->task_, tag);
    g_task_set_task_data(op->task_, op, [](gpointer data) {
      static_cast<Op *>(data)->~Op();
      g_free(data);
    });
    return op;
  }
  template <class Op>
  static Op *
  of(GAsyncResult *result)
  {
    return static_cast<Op *>(g_task_get_task_data(G_TASK(result)));
  }

protected:
  using Stream = typename Direction::Stream;

  Operation() = default;
  ~Operation();

  // Logs the critical of the read-all or write-all utility, and does nothing else, if the source of
  // the task is no stream.
  void start(int io_priority, gboolean moves_bytes);
  GCancellable *cancellable() const;
  // Goes on with another part, at the default priority: at once, unless something may come between
  // the two, a source of another priority or a cancellation after the call that starts both.
  Next next_part();
  // Ends the operation with error_.
  Next failed();
  // The same, unless error_ says that the stream would block. Then the operation waits.
  Next blocked_or_failed();

  virtual Next attempt() = 0;
  // For `gio`: GIO's asynchronous functions take gio_callback(), which calls ended().
  static void gio_callback(GObject *source, GAsyncResult *result, gpointer self);
  virtual Next ended(GAsyncResult *result) = 0;
  // Gives the task its result if there is no error: TRUE by default.
  virtual void succeed();

  GTask *task_ = nullptr;
  Stream *stream_ = nullptr; // the source of the task
  Stream *target_ = nullptr; // the stream behind the filters over it, whose bytes are moved
  gboolean polls_ = FALSE;
  GError *error_ = nullptr;
  int priority_ = G_PRIORITY_DEFAULT;
  int budget_ = 4; // attempts in one dispatch

private:
  void run(Next next);
  void finish();
  gboolean mark_busy(Stream *stream);
  void release_base();
  void wait(Next what);
  gboolean wait_ready();
  void attach(GSource *source, GSourceFunc callback);
  gboolean resume(Next what);

  Stream *lowest_busy_ = nullptr; // the pending flag is set from stream_ down to here
  Next dispatched_ = Next::done;  // the wait that the current source has ended
  gboolean keep_source_ = FALSE;  // the operation waits for the same again
  gboolean starting_ = FALSE;
  gboolean changing_part_ = FALSE; // next_part() has yet to change the priority
  gboolean ended_ = FALSE;         // nothing is left but finish()
};

} // namespace gvc
