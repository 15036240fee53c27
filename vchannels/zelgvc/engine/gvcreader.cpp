// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcreader.h"
#include "gvcinputstage.h"
#include "gvcpollable.h"

#include <vchannels/zelgvc/gvcchecks.h>

#include <cerrno>
#include <sys/socket.h>

// The mirror image of gvcwriter.cpp.

using gvc::Reader;

// Sets the pending flag of every stream from `stream` down to `target`, so that nothing else reads
// or closes one of them meanwhile.
static gboolean
mark_busy(GInputStream *stream, GInputStream *target, GError **error)
{
  if (!g_input_stream_set_pending(stream, error))
    return FALSE;
  if (stream == target || mark_busy(gvc::forwards_to(stream), target, error))
    return TRUE;
  g_input_stream_clear_pending(stream);
  return FALSE;
}

void
Reader::start(int io_priority)
{
  stream_ = target_ = static_cast<GInputStream *>(g_task_get_source_object(task_));
  while (auto *below = forwards_to(target_))
    target_ = below;
  polls_ = can_poll(target_) && can_poll(stream_);
  if (polls_ && missing_ > 0)
    marked_ = base_marked_ = mark_busy(stream_, target_, &error_);
  Operation::start(io_priority);
}

void
Reader::expect(void *to, gsize count)
{
  buffer_ = static_cast<guint8 *>(to);
  missing_ = count;
  received_ = 0;
}

Reader::Next
Reader::moved(gssize nread)
{
  assert_not_more(nread, static_cast<gint64>(missing_),
                  {"vchannels/zelgvc/gvcinputstreamutils", 49}, "read_all_callback",
                  "nread <= data->to_read");
  missing_ -= static_cast<gsize>(nread);
  received_ += static_cast<gsize>(nread);
  return nread == 0 || missing_ == 0 ? part_done() : Next::again;
}

Reader::Next
Reader::attempt()
{
  if (missing_ == 0)
    return part_done();
  if (!polls_) {
    g_input_stream_read_async(stream_, buffer_ + received_, missing_, priority_, cancellable(),
                              gio_callback, this);
    return Next::gio;
  }

  gssize nread = g_pollable_input_stream_read_nonblocking(
      reinterpret_cast<GPollableInputStream *>(target_), buffer_ + received_, missing_,
      cancellable(), &error_);
  return nread >= 0 ? moved(nread) : blocked_or_failed();
}

Reader::Next
Reader::blocked_or_failed()
{
  if (!g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK))
    return fail(or_unknown(g_steal_pointer(&error_)));
  g_clear_error(&error_);
  return stages_hold_input(target_) ? Next::turn : Next::ready;
}

gpointer
Reader::bottom()
{
  auto *bottom = target_;
  while (auto *below = stage_base(bottom))
    bottom = below;
  return bottom;
}

GSource *
Reader::ready_source(gpointer bottom)
{
  return g_pollable_input_stream_create_source(static_cast<GPollableInputStream *>(bottom),
                                               cancellable());
}

Reader::Next
Reader::ended(GAsyncResult *result)
{
  gssize nread = g_input_stream_read_finish(stream_, result, &error_);
  return nread >= 0 ? moved(nread) : fail(or_unknown(g_steal_pointer(&error_)));
}

void
Reader::release_base()
{
  auto *stream = stream_;

  if (!base_marked_)
    return;
  while (stream != target_) {
    stream = forwards_to(stream);
    g_input_stream_clear_pending(stream);
  }
  base_marked_ = FALSE;
}

void
Reader::release()
{
  release_base();
  if (marked_)
    g_input_stream_clear_pending(stream_);
}

// A peek takes a pending error off the socket, so what it says must not be lost: it is reported in
// GIO's own words.
static gssize
peek_socket(GSocket *socket, void *to, gsize room, GError **error)
{
  gssize count = recv(g_socket_get_fd(socket), to, room, MSG_PEEK | MSG_DONTWAIT);
  if (count >= 0)
    return count;
  // A read reports what a socket keeps to itself: that it is closed, or has timed out.
  if (errno == EINTR || errno == EBADF || (errno == EAGAIN && g_socket_get_timeout(socket) > 0))
    return 0;
  auto code = g_io_error_from_errno(errno);
  g_set_error(error, G_IO_ERROR, code, g_dgettext("glib20", "Error receiving data: %s"),
              g_strerror(errno));
  return -1;
}

gssize
gvc::look_ahead(GInputStream *stream, void *to, gsize room, GError **error)
{
  if (auto *socket = plain_socket(stream))
    return peek_socket(socket, to, room, error);
  if (stage_base(stream))
    return static_cast<gssize>(peek_stage(stream, to, room));
  if (G_IS_BUFFERED_INPUT_STREAM(stream))
    return static_cast<gssize>(
        g_buffered_input_stream_peek(G_BUFFERED_INPUT_STREAM(stream), to, 0, room));
  return 0;
}

gboolean
gvc::check_input_stream(gpointer stream)
{
  if (G_IS_INPUT_STREAM(stream))
    return TRUE;
  g_return_if_fail_warning(nullptr, "gvc_input_stream_util_read_all_async",
                           "G_IS_INPUT_STREAM(stream)");
  return FALSE;
}
