// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcinputstreamutils.h"
#include "gvcchecks.h"
#include "gvcreadall.h"

// The mirror image of gvcoutputstreamutils.cpp.

/**
 * gvc_input_stream_util_read_all_async: (skip)
 * @stream: a #GInputStream
 * @buffer: (array length=count) (element-type guint8) (out caller-allocates) (nullable): where the
 *   bytes go; it must stay valid until @callback has run
 * @count: how many bytes to read
 * @io_priority: the priority of each read
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the bytes are there, the stream has ended or a read failed
 * @user_data: data for @callback
 *
 * Reads until @count bytes have arrived or @stream ends. Bytes land in @buffer directly; each read
 * asks for all that is missing. @callback is never called before this function returns; it runs in
 * the thread-default main context of the caller. No other read may be in progress on @stream.
 *
 * Since: 0.1
 */
void
gvc_input_stream_util_read_all_async(GInputStream *stream, void *buffer, gsize count,
                                     int io_priority, GCancellable *cancellable,
                                     GAsyncReadyCallback callback, gpointer user_data)
{
  GVC_CHECK(G_IS_INPUT_STREAM(stream));
  GVC_CHECK(buffer != NULL || count == 0);

  auto *task = g_task_new(stream, cancellable, callback, user_data);
  gvc::Transfer::attach_new(task);
  g_task_set_priority(task, io_priority);

  gvc::read_all(task, buffer, count, io_priority, gvc::Transfer::return_outcome);
}

/**
 * gvc_input_stream_util_read_all_finish: (skip)
 * @stream: a #GInputStream
 * @result: the result that the callback was given
 * @bytes_read: (out) (optional): how many bytes arrived; set on failure too, and smaller than asked
 *   for when the stream ended first
 * @error: return location for a #GError
 *
 * Ends gvc_input_stream_util_read_all_async(). Errors are those of @stream, unchanged; the end of
 * the stream is not an error.
 *
 * Returns: %TRUE unless a read failed
 *
 * Since: 0.1
 */
gboolean
gvc_input_stream_util_read_all_finish(GInputStream *stream, GAsyncResult *result, gsize *bytes_read,
                                      GError **error)
{
  GVC_CHECK_VAL(G_IS_INPUT_STREAM(stream), FALSE);
  GVC_CHECK_VAL(g_task_is_valid(result, stream), FALSE);

  auto *task = reinterpret_cast<GTask *>(result);
  if (bytes_read)
    *bytes_read = gvc::Transfer::of(task)->moved;
  return g_task_propagate_boolean(task, error);
}
