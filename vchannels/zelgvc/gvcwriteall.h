// SPDX-License-Identifier: LGPL-2.1-or-later
// The loop under the asynchronous writes, the mirror image of gvcreadall.h.
//
// Over the output stages of a channel the writing ends when these hold nothing of it any more.
#pragma once

#include "gvcpollable.h"

namespace gvc
{

// The task data of an operation begins with this.
struct WriteAll {
  const guint8 *buffer;
  gsize to_write;
  gsize bytes_written; // also the offset in buffer of the next write
  GError *error;       // what ended the writing; whoever is done with it takes it
  void (*done)(GTask *task);
  int priority;
  Way way;
  gboolean pending; // the stream is marked as busy
  gboolean ended;   // all is accepted, or no more will be
  gboolean in_loop; // the call that began the operation has returned
  gboolean eager;   // what ends within that call is handed on at once, for more to follow
  Wait dispatched;  // the source that is calling just now
  gboolean again;   // ... and is to call again

  // Writes `count` bytes, or as many as go before a failure, and hands the task on to `finish`,
  // from the main loop unless `count` is 0 or the operation is eager. The source of the task is the
  // stream.
  static void start(GTask *task, const void *from, gsize count, int io_priority,
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
