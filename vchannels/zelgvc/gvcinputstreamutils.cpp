// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcinputstreamutils.h"
#include "gvcfixedtexts.h"
#include "engine/gvcreader.h"

using gvc::Reader;

/**
 * gvc_input_stream_util_read_all_async: (skip)
 * @stream: a #GInputStream
 * @buffer: (array length=count) (element-type guint8) (out caller-allocates) (nullable): the buffer
 *   to read into; it must stay valid until @callback has run
 * @count: how many bytes to read
 * @io_priority: the priority of each read
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the bytes have arrived, the stream has ended or a read
 * failed
 * @user_data: data for @callback
 *
 * Reads until @count bytes have arrived or @stream ends. Each read asks for all missing bytes and
 * writes directly to @buffer. @callback runs in the thread-default main context of the caller,
 * after this function has returned. No other read may be in progress on @stream.
 *
 * Since: 0.1
 */
void
gvc_input_stream_util_read_all_async(GInputStream *stream, void *buffer, gsize count,
                                     int io_priority, GCancellable *cancellable,
                                     GAsyncReadyCallback callback, gpointer user_data)
{
  g_return_if_fail(G_IS_INPUT_STREAM(stream));
  g_return_if_fail(buffer != NULL || count == 0);

  Reader::create<Reader>(stream, cancellable, callback, user_data,
                         gvc_input_stream_util_read_all_async)
      ->read_all(buffer, count, io_priority);
}

/**
 * gvc_input_stream_util_read_all_finish: (skip)
 * @stream: a #GInputStream
 * @result: the result that the callback received
 * @bytes_read: (out) (optional): the number of bytes that arrived; set after a failure too, and
 *   smaller than requested if the stream ended
 * @error: return location for a #GError
 *
 * Finishes gvc_input_stream_util_read_all_async(). Errors are those of @stream, unchanged; the end
 * of the stream is not an error.
 *
 * Returns: %TRUE unless a read failed
 *
 * Since: 0.1
 */
gboolean
gvc_input_stream_util_read_all_finish(GInputStream *stream, GAsyncResult *result, gsize *bytes_read,
                                      GError **error)
{
  g_return_val_if_fail(G_IS_INPUT_STREAM(stream), FALSE);
  g_return_val_if_fail(g_task_is_valid(result, stream), FALSE);

  if (bytes_read)
    *bytes_read = Reader::of<Reader>(result)->received();
  return g_task_propagate_boolean(G_TASK(result), error);
}
