// SPDX-License-Identifier: LGPL-2.1-or-later
// The loop under the asynchronous reads: it fills a buffer on behalf of a task that somebody else
// has made, so that an operation of several reads needs one task only.
//
// A stream that GIO itself would read by polling is read so here, in the order in which GIO does
// it: an attempt within the call, what came of it told from the main loop, a wait where the stream
// has nothing. Any other stream is read with g_input_stream_read_async().
#pragma once

#include "gvcpollable.h"

namespace gvc
{

// The task data of an operation begins with this.
struct ReadAll {
  guint8 *buffer;
  gsize to_read;
  gsize bytes_read; // also the offset in buffer at which the next read stores
  GError *error;    // what ended the reading; whoever is done with it takes it
  void (*done)(GTask *task);
  int priority;
  Way way;
  gboolean pending; // the stream is marked as busy
  gboolean ended;   // all is there, or no more will come
  gboolean in_loop; // the call that began the operation has returned
  Wait dispatched;  // the source that is calling just now
  gboolean again;   // ... and is to call again

  // Reads `count` bytes, or as many as come before the end of the stream or a failure, and hands
  // the task on to `finish`, from the main loop unless `count` is 0. The source of the task is the
  // stream.
  static void start(GTask *task, void *to, gsize count, int io_priority,
                    void (*finish)(GTask *task));
  // The critical of the public function where the source of the task is not a stream.
  static gboolean check_source(gpointer stream);

  void
  clear()
  {
    g_clear_error(&error);
  }
};

} // namespace gvc
