// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcreader.h"
#include "gvcinputstage.h"
#include "gvcsocketwait.h"

#include <vchannels/zelgvc/gvcfixedtexts.h>

#include <cerrno>
#include <sys/socket.h>

using gvc::Next;
using gvc::Reader;

void
Reader::read_all(void *to, gsize count, int io_priority)
{
  g_task_set_priority(task_, io_priority);
  expect(to, count);
  start(io_priority);
}

void
Reader::start(int io_priority)
{
  Operation::start(io_priority, missing_ > 0);
}

void
Reader::expect(void *to, gsize count)
{
  buffer_ = static_cast<guint8 *>(to);
  missing_ = count;
  received_ = 0;
}

Next
Reader::part_done()
{
  return Next::done;
}

Next
Reader::moved(gssize nread)
{
  assert_not_more(read_assertion, nread, missing_);
  missing_ -= static_cast<gsize>(nread);
  received_ += static_cast<gsize>(nread);
  return nread == 0 || missing_ == 0 ? part_done() : Next::again;
}

Next
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
      G_POLLABLE_INPUT_STREAM(target_), buffer_ + received_, missing_, cancellable(), &error_);
  return nread >= 0 ? moved(nread) : blocked_or_failed();
}

Next
Reader::ended(GAsyncResult *result)
{
  gssize nread = g_input_stream_read_finish(stream_, result, &error_);
  return nread >= 0 ? moved(nread) : failed();
}

// A peek removes a pending error from the socket, so the error is reported here, in GIO's words.
static gssize
peek_socket(GSocket *socket, void *to, gsize room, GError **error)
{
  gssize count = recv(g_socket_get_fd(socket), to, room, MSG_PEEK | MSG_DONTWAIT);
  if (count >= 0)
    return count;
  // Only a read reports that the socket is closed or has timed out.
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
