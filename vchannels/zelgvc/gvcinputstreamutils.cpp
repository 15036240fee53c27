// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcinputstreamutils.h"
#include "gvcchecks.h"

// The mirror image of the loop in gvcoutputstreamutils.cpp.

namespace
{
struct AsyncReadAll {
  guint8 *buffer; // the caller's
  gsize to_read;
  gsize bytes_read; // also the offset in buffer at which the next read stores
};
} // namespace

static void
free_async_read_all(gpointer data)
{
  g_slice_free(AsyncReadAll, data);
}

static void
read_all_callback(GObject *source, GAsyncResult *result, gpointer user_data)
{
  auto *stream = reinterpret_cast<GInputStream *>(source);
  g_autoptr(GTask) task = static_cast<GTask *>(user_data);
  auto *data = static_cast<AsyncReadAll *>(g_task_get_task_data(task));

  if (result) {
    GError *error = nullptr;
    gssize nread = g_input_stream_read_finish(stream, result, &error);
    if (nread < 0) {
      g_task_return_error(task, error);
      return;
    }

    gvc::assert_not_more(nread, static_cast<gint64>(data->to_read),
                         {"vchannels/zelgvc/gvcinputstreamutils", 49}, __func__,
                         "nread <= data->to_read");
    data->to_read -= static_cast<gsize>(nread);
    data->bytes_read += static_cast<gsize>(nread);
    if (nread == 0) {
      g_task_return_boolean(task, TRUE);
      return;
    }
  }

  if (data->to_read == 0) {
    g_task_return_boolean(task, TRUE);
    return;
  }

  auto *chain = static_cast<GTask *>(g_steal_pointer(&task));
  g_input_stream_read_async(stream, data->buffer + data->bytes_read, data->to_read,
                            g_task_get_priority(chain), g_task_get_cancellable(chain),
                            read_all_callback, chain);
}

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
  auto *data = g_slice_new0(AsyncReadAll);
  data->buffer = static_cast<guint8 *>(buffer);
  data->to_read = count;
  g_task_set_task_data(task, data, free_async_read_all);
  g_task_set_priority(task, io_priority);

  read_all_callback(G_OBJECT(stream), nullptr, task);
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
    *bytes_read = static_cast<AsyncReadAll *>(g_task_get_task_data(task))->bytes_read;
  return g_task_propagate_boolean(task, error);
}
