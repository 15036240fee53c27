// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcwriter.h"
#include "gvcoutputstage.h"

#include <vchannels/zelgvc/gvcfixedtexts.h>

using gvc::Next;
using gvc::Writer;

void
Writer::write_all(const void *from, gsize count, int io_priority)
{
  g_task_set_priority(task_, io_priority);
  offer(from, count);
  start(io_priority);
}

void
Writer::start(int io_priority)
{
  Operation::start(io_priority, n_vectors_ > 0);
}

void
Writer::offer(const void *from, gsize count)
{
  if (count > 0)
    vectors_[n_vectors_++] = {.buffer = from, .size = count};
}

Next
Writer::moved(gssize nwritten)
{
  auto left = static_cast<gsize>(nwritten);
  assert_not_more(write_assertion, nwritten,
                  vectors_[0].size + (n_offered_ > 1 ? vectors_[1].size : 0));
  // A stream that accepts nothing is asked again: there is no end of stream on this side.
  if (nwritten == 0)
    g_warn_message(G_LOG_DOMAIN, write_warning.file, write_warning.line, write_warning.function,
                   write_warning.expression);

  guint before = n_vectors_;
  accepted_ += left;
  while (n_vectors_ > 0 && left >= vectors_[0].size) {
    left -= vectors_[0].size;
    vectors_[0] = vectors_[1];
    n_vectors_--;
  }
  if (n_vectors_ == 0)
    return all_accepted();
  vectors_[0] = {.buffer = static_cast<const guint8 *>(vectors_[0].buffer) + left,
                 .size = vectors_[0].size - left};
  return n_offered_ > 1 || n_vectors_ == before ? Next::again : next_part();
}

Next
Writer::attempt()
{
  if (n_vectors_ == 0)
    return all_accepted();
  n_offered_ = polls_ && gathers(target_) ? n_vectors_ : 1;
  if (!polls_) {
    g_output_stream_write_async(stream_, vectors_[0].buffer, vectors_[0].size, priority_,
                                cancellable(), gio_callback, this);
    return Next::gio;
  }

  gssize nwritten =
      write_nonblocking(target_, vectors_, n_offered_, Sending::kept, cancellable(), &error_);
  return nwritten >= 0 ? moved(nwritten) : blocked_or_failed();
}

Next
Writer::ended(GAsyncResult *result)
{
  gssize nwritten = g_output_stream_write_finish(stream_, result, &error_);
  return nwritten >= 0 ? moved(nwritten) : failed();
}

// Stages may still hold bytes that the stream has accepted.
Next
Writer::all_accepted()
{
  return !polls_ || drain_stages(target_, &error_) ? Next::done : blocked_or_failed();
}
