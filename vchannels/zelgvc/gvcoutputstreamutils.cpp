// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcoutputstreamutils.h"
#include "gvcchecks.h"
#include "gvcoutputstage.h"

// The mirror image of the loop in gvcinputstreamutils.cpp.

namespace
{
struct AsyncWriteAll {
  const guint8 *buffer; // the caller's
  gsize to_write;
  gsize bytes_written; // also the offset in buffer of the next write
};
} // namespace

static void
free_async_write_all(gpointer data)
{
  g_slice_free(AsyncWriteAll, data);
}

static gboolean drain_callback(GObject *pollable, gpointer user_data);

// The stream has accepted everything, but stages below may hold some of it still. Returns the
// task's result once they hold nothing, and waits for the peer where it is slow. The stream is
// marked as busy meanwhile.
static void
return_when_drained(GTask *task)
{
  auto *stream = static_cast<GOutputStream *>(g_task_get_source_object(task));
  GPollableOutputStream *wait_for = nullptr;
  GError *error = nullptr;

  auto drained = gvc::drain_stages(stream, &wait_for, &error);
  if (drained == gvc::Drained::blocked && g_output_stream_set_pending(stream, &error)) {
    g_autoptr(GSource) source =
        g_pollable_output_stream_create_source(wait_for, g_task_get_cancellable(task));
    g_task_attach_source(task, source, G_SOURCE_FUNC(drain_callback));
  } else if (drained == gvc::Drained::done) {
    g_task_return_boolean(task, TRUE);
  } else {
    g_task_return_error(task, error);
  }
}

static gboolean
drain_callback(GObject *, gpointer user_data)
{
  auto *task = static_cast<GTask *>(user_data);

  g_output_stream_clear_pending(static_cast<GOutputStream *>(g_task_get_source_object(task)));
  if (!g_task_return_error_if_cancelled(task))
    return_when_drained(task);
  return G_SOURCE_REMOVE;
}

static void
write_all_callback(GObject *source, GAsyncResult *result, gpointer user_data)
{
  auto *stream = reinterpret_cast<GOutputStream *>(source);
  g_autoptr(GTask) task = static_cast<GTask *>(user_data);
  auto *data = static_cast<AsyncWriteAll *>(g_task_get_task_data(task));

  if (result) {
    GError *error = nullptr;
    gssize nwritten = g_output_stream_write_finish(stream, result, &error);
    if (nwritten < 0) {
      g_task_return_error(task, error);
      return;
    }

    gvc::assert_not_more(nwritten, static_cast<gint64>(data->to_write),
                         {"vchannels/zelgvc/gvcoutputstreamutils", 48}, __func__,
                         "nwritten <= data->to_write");
    // A stream that accepts nothing is asked again: there is no end of stream on this side.
    if (nwritten <= 0)
      g_warn_message(nullptr, "vchannels/zelgvc/gvcoutputstreamutils", 49, __func__,
                     "nwritten > 0");
    data->to_write -= static_cast<gsize>(nwritten);
    data->bytes_written += static_cast<gsize>(nwritten);
  }

  if (data->to_write == 0) {
    if (result)
      return_when_drained(task);
    else
      g_task_return_boolean(task, TRUE);
    return;
  }

  auto *chain = static_cast<GTask *>(g_steal_pointer(&task));
  g_output_stream_write_async(stream, data->buffer + data->bytes_written, data->to_write,
                              g_task_get_priority(chain), g_task_get_cancellable(chain),
                              write_all_callback, chain);
}

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
 * Writes @count bytes, straight from @buffer; each write offers all that is left. @callback is
 * never called before this function returns; it runs in the thread-default main context of the
 * caller. No other write may be in progress on @stream.
 *
 * Over the output stages of a #GvcConnection the operation ends when the socket has taken the last
 * converted byte.
 *
 * Since: 0.1
 */
void
gvc_output_stream_util_write_all_async(GOutputStream *stream, const void *buffer, gsize count,
                                       int io_priority, GCancellable *cancellable,
                                       GAsyncReadyCallback callback, gpointer user_data)
{
  GVC_CHECK(G_IS_OUTPUT_STREAM(stream));
  GVC_CHECK(buffer != NULL || count == 0);

  auto *task = g_task_new(stream, cancellable, callback, user_data);
  auto *data = g_slice_new0(AsyncWriteAll);
  data->buffer = static_cast<const guint8 *>(buffer);
  data->to_write = count;
  g_task_set_task_data(task, data, free_async_write_all);
  g_task_set_priority(task, io_priority);

  write_all_callback(G_OBJECT(stream), nullptr, task);
}

/**
 * gvc_output_stream_util_write_all_finish: (skip)
 * @stream: a #GOutputStream
 * @result: the result that the callback was given
 * @bytes_written: (out) (optional): how many bytes were written; set on failure too
 * @error: return location for a #GError
 *
 * Ends gvc_output_stream_util_write_all_async(). Errors are those of @stream, unchanged.
 *
 * Returns: %TRUE when all bytes were written
 *
 * Since: 0.1
 */
gboolean
gvc_output_stream_util_write_all_finish(GOutputStream *stream, GAsyncResult *result,
                                        gsize *bytes_written, GError **error)
{
  GVC_CHECK_VAL(G_IS_OUTPUT_STREAM(stream), FALSE);
  GVC_CHECK_VAL(g_task_is_valid(result, stream), FALSE);

  auto *task = reinterpret_cast<GTask *>(result);
  if (bytes_written)
    *bytes_written = static_cast<AsyncWriteAll *>(g_task_get_task_data(task))->bytes_written;
  return g_task_propagate_boolean(task, error);
}
