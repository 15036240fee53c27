// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading into memory of the operation's owner: part after part, each until it is complete or the
// stream has ended.
#pragma once

#include "gvcoperation.h"

namespace gvc
{

class Reader : public Operation
{
public:
  // Bytes of the current part that have arrived.
  gsize
  received() const
  {
    return received_;
  }

protected:
  void start(int io_priority);
  // Begins a part.
  void expect(void *to, gsize count);
  // The part is complete, or the stream has ended within it. Begins the next, or ends the
  // operation.
  virtual Next part_done() = 0;

  Next attempt() override;
  Next blocked_or_failed(); // what error_ says of an attempt
  gpointer bottom() override;
  GSource *ready_source(gpointer bottom) override;
  Next ended(GAsyncResult *result) override;
  void release_base() override;
  void release() override;

  GInputStream *stream_ = nullptr; // the source of the task
  GInputStream *target_ = nullptr; // what it forwards to, which is read from
  gboolean polls_ = FALSE;

private:
  Next moved(gssize nread);

  guint8 *buffer_ = nullptr;
  gsize missing_ = 0;
  gsize received_ = 0;
  gboolean marked_ = FALSE; // as busy
  gboolean base_marked_ = FALSE;
};

// Copies bytes that the next read of `stream` will deliver. Returns their number, 0 if the stream
// cannot be looked into, and -1 with an error, G_IO_ERROR_WOULD_BLOCK if there are none yet.
gssize look_ahead(GInputStream *stream, void *to, gsize room, GError **error);

// Logs the critical of gvc_input_stream_util_read_all_async() unless `stream` is an input stream.
gboolean check_input_stream(gpointer stream);

} // namespace gvc
