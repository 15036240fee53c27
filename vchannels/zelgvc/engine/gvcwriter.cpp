// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcwriter.h"
#include "gvcoutputstage.h"
#include "gvcpollable.h"

#include <vchannels/zelgvc/gvcchecks.h>

// The mirror image of gvcreader.cpp.

using gvc::Writer;

// Sets the pending flag of every stream from `stream` down to `target`, so that nothing else writes
// to or closes one of them meanwhile.
static gboolean
mark_busy(GOutputStream *stream, GOutputStream *target, GError **error)
{
  if (!g_output_stream_set_pending(stream, error))
    return FALSE;
  if (stream == target || mark_busy(gvc::forwards_to(stream), target, error))
    return TRUE;
  g_output_stream_clear_pending(stream);
  return FALSE;
}

void
Writer::start(int io_priority)
{
  stream_ = target_ = static_cast<GOutputStream *>(g_task_get_source_object(task_));
  while (auto *below = forwards_to(target_))
    target_ = below;
  ready_condition_ = G_IO_OUT;
  polls_ = can_poll(target_) && can_poll(stream_);
  gathers_ = polls_ && gathers(target_);
  if (polls_ && n_vectors_ > 0)
    marked_ = base_marked_ = mark_busy(stream_, target_, &error_);
  Operation::start(io_priority);
}

void
Writer::offer(const void *from, gsize count)
{
  if (count > 0)
    vectors_[n_vectors_++] = {from, count};
}

void
Writer::release_base()
{
  auto *stream = stream_;

  if (!base_marked_)
    return;
  while (stream != target_) {
    stream = forwards_to(stream);
    g_output_stream_clear_pending(stream);
  }
  base_marked_ = FALSE;
}

void
Writer::release()
{
  release_base();
  if (marked_)
    g_output_stream_clear_pending(stream_);
}

Writer::Next
Writer::moved(gssize nwritten)
{
  auto left = static_cast<gsize>(nwritten);
  gsize offered = vectors_[0].size + (gathers_ && n_vectors_ > 1 ? vectors_[1].size : 0);
  assert_not_more(nwritten, static_cast<gint64>(offered),
                  {"vchannels/zelgvc/gvcoutputstreamutils", 48}, "write_all_callback",
                  "nwritten <= data->to_write");
  // A stream that accepts nothing is asked again: there is no end of stream on this side.
  if (nwritten == 0)
    g_warn_message(nullptr, "vchannels/zelgvc/gvcoutputstreamutils", 49, "write_all_callback",
                   "nwritten > 0");

  guint before = n_vectors_;
  accepted_ += left;
  while (n_vectors_ > 0 && left >= vectors_[0].size) {
    left -= vectors_[0].size;
    vectors_[0] = vectors_[1];
    n_vectors_--;
  }
  if (n_vectors_ == 0)
    return all_accepted();
  vectors_[0] = {static_cast<const guint8 *>(vectors_[0].buffer) + left, vectors_[0].size - left};
  return gathers_ || n_vectors_ == before ? Next::again : next_part();
}

// A stage may hold what it accepts: drain() follows.
gssize
Writer::write_some()
{
  gsize n_vectors = gathers_ ? n_vectors_ : 1;

  if (!stage_base(target_))
    return write_nonblocking(target_, vectors_, n_vectors, cancellable(), &error_);
  if (g_cancellable_set_error_if_cancelled(cancellable(), &error_))
    return -1;
  return write_to_stage(target_, vectors_, n_vectors, FALSE, &error_);
}

Writer::Next
Writer::attempt()
{
  if (n_vectors_ == 0)
    return all_accepted();
  if (!polls_) {
    g_output_stream_write_async(stream_, vectors_[0].buffer, vectors_[0].size, priority_,
                                cancellable(), gio_callback, this);
    return Next::gio;
  }

  gssize nwritten = write_some();
  if (nwritten >= 0)
    return moved(nwritten);
  if (!g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK))
    return fail(or_unknown(g_steal_pointer(&error_)));
  g_clear_error(&error_);
  return Next::ready;
}

Writer::Next
Writer::all_accepted()
{
  return drain();
}

// The stream has accepted everything, but stages below may still hold some of it.
Writer::Next
Writer::drain()
{
  if (!polls_ || drain_stages(target_, &error_))
    return Next::done;
  if (!g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK))
    return fail(or_unknown(g_steal_pointer(&error_)));
  g_clear_error(&error_);
  if (g_cancellable_set_error_if_cancelled(cancellable(), &error_))
    return Next::done;
  return Next::ready;
}

gpointer
Writer::bottom()
{
  auto *bottom = target_;
  while (auto *below = stage_base(bottom))
    bottom = below;
  return bottom;
}

GSource *
Writer::ready_source(gpointer bottom)
{
  return g_pollable_output_stream_create_source(static_cast<GPollableOutputStream *>(bottom),
                                                cancellable());
}

Writer::Next
Writer::ended(GAsyncResult *result)
{
  gssize nwritten = g_output_stream_write_finish(stream_, result, &error_);
  return nwritten >= 0 ? moved(nwritten) : fail(or_unknown(g_steal_pointer(&error_)));
}

gboolean
gvc::check_output_stream(gpointer stream)
{
  if (G_IS_OUTPUT_STREAM(stream))
    return TRUE;
  g_return_if_fail_warning(nullptr, "gvc_output_stream_util_write_all_async",
                           "G_IS_OUTPUT_STREAM(stream)");
  return FALSE;
}
