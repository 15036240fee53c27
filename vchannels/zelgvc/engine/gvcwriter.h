// SPDX-License-Identifier: LGPL-2.1-or-later
// Writing from memory of the operation's owner: one or two vectors, each a write of its own to
// whatever does not gather. The operation ends when the stages of a channel hold nothing of them.
#pragma once

#include "gvcoperation.h"

namespace gvc
{

class Writer : public Operation
{
public:
  // Bytes that the stream has accepted.
  gsize
  accepted() const
  {
    return accepted_;
  }

protected:
  void start(int io_priority);
  void offer(const void *from, gsize count);
  // All vectors are accepted. Offers more, or has the stages drained.
  virtual Next all_accepted();
  Next drain();

  Next attempt() override;
  gpointer bottom() override;
  GSource *ready_source(gpointer bottom) override;
  Next ended(GAsyncResult *result) override;
  void release_base() override;
  void release() override;

  GOutputStream *stream_ = nullptr; // the source of the task
  GOutputStream *target_ = nullptr; // what it forwards to, which is written to

private:
  Next moved(gssize nwritten);
  gssize write_some();

  GOutputVector vectors_[2] = {};
  guint n_vectors_ = 0;
  gsize accepted_ = 0;
  gboolean polls_ = FALSE;
  gboolean gathers_ = FALSE;
  gboolean marked_ = FALSE; // as busy
  gboolean base_marked_ = FALSE;
};

// Logs the critical of gvc_output_stream_util_write_all_async() unless `stream` is an output
// stream.
gboolean check_output_stream(gpointer stream);

} // namespace gvc
