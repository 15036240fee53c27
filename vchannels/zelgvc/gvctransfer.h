// SPDX-License-Identifier: LGPL-2.1-or-later
// The loop under the asynchronous reads and writes: it moves a number of bytes on behalf of a task
// that somebody else has made, so that an operation of several parts needs one task only.
//
// A stream that GIO itself would poll is polled here, in the order in which GIO does it: an attempt
// within the call, what came of it told from the main loop, a wait where the stream is not ready.
// Any other stream is left to GIO's asynchronous functions.
#pragma once

#include <gio/gio.h>

namespace gvc
{

// What reading and writing do each in their way, with the stream that is the source of the task.
// What moves bytes returns how many, or -1 with the error of the transfer set.
struct Direction {
  gboolean (*would_poll)(GTask *task); // GIO's asynchronous function would
  // Marks the stream as busy, or sets the error where it is closed or busy already.
  gboolean (*mark_busy)(GTask *task);
  gssize (*move)(GTask *task); // without blocking
  GSource *(*ready_source)(GTask *task);
  void (*start_gio)(GTask *task, GAsyncReadyCallback callback);
  gssize (*finish_gio)(GTask *task, GAsyncResult *result);
  void (*account)(GTask *task, gssize moved);
  void (*finish)(GTask *task); // unmarks the stream and hands the task on
};

// Who moves the bytes.
enum class Way {
  unknown,
  polling,
  gio,
};

// What an operation that is in progress may wait for.
enum class Wait {
  none,
  turn,   // of the main loop
  stream, // to become ready
};

// The task data of an operation begins with this, zero at first.
struct Transfer {
  const Direction *direction;
  guint8 *buffer; // only read where it is written from
  gsize left;
  gsize moved;   // also the offset in buffer at which the next attempt begins
  GError *error; // what ended the transfer; whoever is done with it takes it
  void (*done)(GTask *task);
  int priority;
  Way way;
  gboolean pending; // the stream is marked as busy
  gboolean ended;   // all has been moved, or no more will be
  gboolean in_loop; // the call that began the operation has returned
  gboolean eager;   // what ends within that call is handed on at once, for more to follow
  Wait dispatched;  // the source that is calling just now
  gboolean again;   // ... and is to call again

  // Moves `count` bytes, or as many as go before an end or a failure, and hands the task on to
  // `to`, from the main loop unless `count` is 0 or the transfer is eager.
  static void start(GTask *task, const Direction *direction, guint8 *buffer, gsize count,
                    int io_priority, void (*to)(GTask *task));
  static Transfer *of(GTask *task);
  // For where the transfer is all that the task does: its data, and what ends it.
  static void attach_new(GTask *task);
  static void return_outcome(GTask *task);

  void
  clear()
  {
    g_clear_error(&error);
  }
};

// Leaves the task, with the reference to it, to a source.
void attach(GTask *task, GSource *source, GSourceFunc callback);

} // namespace gvc
