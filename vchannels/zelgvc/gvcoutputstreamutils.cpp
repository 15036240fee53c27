// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcoutputstreamutils.h"
#include "gvcfixedtexts.h"
#include "engine/gvcwriter.h"

using gvc::Writer;

/**
 * gvc_output_stream_util_write_all_async: (skip)
 * @stream: a #GOutputStream
 * @buffer: (array length=count) (element-type guint8) (nullable): the bytes to write; they must
 * stay valid until @callback has run
 * @count: how many bytes to write
 * @io_priority: the priority of each write
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when all bytes are written or a write failed
 * @user_data: data for @callback
 *
 * Writes @count bytes directly from @buffer. Each write offers all remaining bytes. @callback runs
 * in the thread-default main context of the caller, after this function has returned. No other
 * write may be in progress on @stream.
 *
 * Over the output stages of a #GvcConnection the operation ends when the socket has accepted the
 * last converted byte.
 *
 * Since: 0.1
 */
void
gvc_output_stream_util_write_all_async(GOutputStream *stream, const void *buffer, gsize count,
                                       int io_priority, GCancellable *cancellable,
                                       GAsyncReadyCallback callback, gpointer user_data)
{
  g_return_if_fail(G_IS_OUTPUT_STREAM(stream));
  g_return_if_fail(buffer != NULL || count == 0);

  Writer::create<Writer>(stream, cancellable, callback, user_data,
                         gvc_output_stream_util_write_all_async)
      ->write_all(buffer, count, io_priority);
}

/**
 * gvc_output_stream_util_write_all_finish: (skip)
 * @stream: a #GOutputStream
 * @result: the result that the callback received
 * @bytes_written: (out) (optional): the number of written bytes; set after a failure too
 * @error: return location for a #GError
 *
 * Finishes gvc_output_stream_util_write_all_async(). Errors are those of @stream, unchanged.
 *
 * Returns: %TRUE when all bytes were written
 *
 * Since: 0.1
 */
gboolean
gvc_output_stream_util_write_all_finish(GOutputStream *stream, GAsyncResult *result,
                                        gsize *bytes_written, GError **error)
{
  g_return_val_if_fail(G_IS_OUTPUT_STREAM(stream), FALSE);
  g_return_val_if_fail(g_task_is_valid(result, stream), FALSE);

  if (bytes_written)
    *bytes_written = Writer::of<Writer>(result)->accepted();
  return g_task_propagate_boolean(G_TASK(result), error);
}
