// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcbytesoutputstream.h"
#include "gvcchecks.h"
#include "gvcpollable.h"
#include "gvcwire.h"
#include "gvcwriteall.h"

/**
 * GvcBytesOutputStream:
 *
 * A filter stream that writes messages as frames: the length of the message in 4 bytes,
 * little-endian, and then the message. #GvcBytesInputStream reads them.
 *
 * A message is a #GBytes or the serialised data of a #GVariant, whose type is not sent. Messages of
 * 2 GiB and more cannot be expressed. An empty message is legal, but the blocking reader takes it
 * for the end of the channel.
 *
 * One message at a time may be in progress on a stream. Closing the stream closes its base stream.
 *
 * Since: 0.1
 */
G_DEFINE_TYPE_WITH_CODE(GvcBytesOutputStream, gvc_bytes_output_stream, G_TYPE_FILTER_OUTPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_OUTPUT_STREAM,
                                              gvc::init_pollable_filter_output))

namespace
{
struct AsyncWrite {
  gvc::Transfer step;
  GBytes *bytes;
  gint32 bytes_size; // as it stands on the wire: the prefix is written from here
};
} // namespace

static gint32
wire_size(GBytes *bytes)
{
  return static_cast<gint32>(GUINT32_TO_LE(static_cast<guint32>(g_bytes_get_size(bytes))));
}

// Whether a blocking write does no more than to write to the base stream. Then a frame can go there
// directly, which saves a layer of calls for each of its parts.
static gboolean
passes_on(GOutputStream *stream)
{
  return G_OUTPUT_STREAM_GET_CLASS(stream)->write_fn ==
         static_cast<GOutputStreamClass *>(gvc_bytes_output_stream_parent_class)->write_fn;
}

static gboolean
write_frame(GOutputStream *out, GBytes *bytes, GCancellable *cancellable, GError **error)
{
  gint32 prefix = wire_size(bytes);
  gsize size;
  auto *payload = g_bytes_get_data(bytes, &size);
  return g_output_stream_write_all(out, &prefix, sizeof prefix, nullptr, cancellable, error) &&
         g_output_stream_write_all(out, payload, size, nullptr, cancellable, error);
}

static void
free_async_data(gpointer user_data)
{
  auto *data = static_cast<AsyncWrite *>(user_data);

  data->step.clear();
  g_bytes_unref(data->bytes);
  g_slice_free(AsyncWrite, data);
}

static void
gvc_bytes_output_stream_class_init(GvcBytesOutputStreamClass *)
{
}

static void
gvc_bytes_output_stream_init(GvcBytesOutputStream *)
{
}

/**
 * gvc_bytes_output_stream_new:
 * @base_stream: the stream to write frames to
 *
 * Creates a stream that writes frames to @base_stream, the output stream of a #GvcConnection, say.
 *
 * Returns: (transfer full): a new stream, which holds a reference to @base_stream; release it with
 *   g_object_unref()
 *
 * Since: 0.1
 */
GvcBytesOutputStream *
gvc_bytes_output_stream_new(GOutputStream *base_stream)
{
  GVC_CHECK_VAL(G_IS_OUTPUT_STREAM (base_stream), nullptr);

  return static_cast<GvcBytesOutputStream *>(
      g_object_new(GVC_TYPE_BYTES_OUTPUT_STREAM, "base-stream", base_stream, nullptr));
}

/**
 * gvc_bytes_output_stream_put_bytes:
 * @stream: a #GvcBytesOutputStream
 * @bytes: the message, less than 2 GiB
 * @cancellable: (nullable): a #GCancellable
 * @error: return location for a #GError
 *
 * Writes @bytes as one frame; blocks until the base stream has taken it. Errors are those of the
 * base stream, unchanged; after one, part of the frame may have been written.
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_bytes(GvcBytesOutputStream *stream, GBytes *bytes,
                                  GCancellable *cancellable, GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_OUTPUT_STREAM (stream), FALSE);
  GVC_CHECK_VAL(bytes != NULL, FALSE);

  auto *out = reinterpret_cast<GOutputStream *>(stream);
  if (!passes_on(out))
    return write_frame(out, bytes, cancellable, error);

  if (!g_output_stream_set_pending(out, error))
    return FALSE;
  gboolean done = write_frame(stream->parent.base_stream, bytes, cancellable, error);
  g_output_stream_clear_pending(out);
  return done;
}

/**
 * gvc_bytes_output_stream_put_variant:
 * @stream: a #GvcBytesOutputStream
 * @variant: the message; a floating reference is not sunk
 * @cancellable: (nullable): a #GCancellable
 * @error: return location for a #GError
 *
 * Writes the serialised data of @variant as one frame, in the byte order that @variant has. Like
 * gvc_bytes_output_stream_put_bytes() otherwise.
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_variant(GvcBytesOutputStream *stream, GVariant *variant,
                                    GCancellable *cancellable, GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_OUTPUT_STREAM (stream), FALSE);
  GVC_CHECK_VAL(variant != NULL, FALSE);

  g_autoptr(GBytes) bytes = g_variant_get_data_as_bytes(variant);
  return gvc_bytes_output_stream_put_bytes(stream, bytes, cancellable, error);
}

static void
prefix_done(GTask *task)
{
  auto *data = static_cast<AsyncWrite *>(g_task_get_task_data(task));

  if (!data->step.error)
    g_cancellable_set_error_if_cancelled(g_task_get_cancellable(task), &data->step.error);
  if (data->step.error) {
    gvc::Transfer::return_outcome(task);
    return;
  }

  // The task's own priority was never set: the payload goes out at the default priority, whatever
  // the prefix had.
  data->step.eager = FALSE;
  gvc::write_all(task, g_bytes_get_data(data->bytes, nullptr), g_bytes_get_size(data->bytes),
                 g_task_get_priority(task), gvc::Transfer::return_outcome);
}

/**
 * gvc_bytes_output_stream_put_bytes_async:
 * @stream: a #GvcBytesOutputStream
 * @bytes: the message, less than 2 GiB; held until the operation has ended
 * @io_priority: the priority of the write of the length; the message itself is written at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the frame is written or has failed
 * @user_data: data for @callback
 *
 * Writes @bytes as one frame without blocking. @callback runs in the thread-default main context of
 * the caller, after this function has returned. The arguments are not checked.
 *
 * Since: 0.1
 */
void
gvc_bytes_output_stream_put_bytes_async(GvcBytesOutputStream *stream, GBytes *bytes,
                                        int io_priority, GCancellable *cancellable,
                                        GAsyncReadyCallback callback, gpointer user_data)
{
  auto *task = g_task_new(stream, cancellable, callback, user_data);
  auto *data = g_slice_new0(AsyncWrite);
  data->bytes = g_bytes_ref(bytes);
  data->bytes_size = wire_size(bytes);
  g_task_set_task_data(task, data, free_async_data);

  // Where nothing can come between the length and the message, neither a cancellation nor sources
  // of a priority between the two, the message does not wait for the main loop.
  data->step.eager =
      !cancellable && io_priority == g_task_get_priority(task) && g_bytes_get_size(bytes) > 0;
  if (gvc::check_output_stream(stream))
    gvc::write_all(task, &data->bytes_size, sizeof data->bytes_size, io_priority, prefix_done);
}

/**
 * gvc_bytes_output_stream_put_bytes_finish:
 * @stream: a #GvcBytesOutputStream
 * @result: the result that the callback was given
 * @error: return location for a #GError
 *
 * Ends gvc_bytes_output_stream_put_bytes_async(). Errors are those of the base stream, unchanged.
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_bytes_finish(GvcBytesOutputStream *stream, GAsyncResult *result,
                                         GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_OUTPUT_STREAM(stream), FALSE);
  GVC_CHECK_VAL(g_task_is_valid(result, stream), FALSE);

  return g_task_propagate_boolean(reinterpret_cast<GTask *>(result), error);
}

static void
write_variant_callback(GObject *source, GAsyncResult *result, gpointer user_data)
{
  g_autoptr(GTask) task = static_cast<GTask *>(user_data);
  GError *error = nullptr;

  gboolean res = gvc_bytes_output_stream_put_bytes_finish(
      reinterpret_cast<GvcBytesOutputStream *>(source), result, &error);
  if (error)
    g_task_return_error(task, error);
  else
    g_task_return_boolean(task, res);
}

/**
 * gvc_bytes_output_stream_put_variant_async:
 * @stream: a #GvcBytesOutputStream
 * @variant: the message; a floating reference is not sunk
 * @io_priority: the priority of the write of the length; the message itself is written at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the frame is written or has failed
 * @user_data: data for @callback
 *
 * Writes the serialised data of @variant as one frame without blocking. Like
 * gvc_bytes_output_stream_put_bytes_async() otherwise.
 *
 * Since: 0.1
 */
void
gvc_bytes_output_stream_put_variant_async(GvcBytesOutputStream *stream, GVariant *variant,
                                          int io_priority, GCancellable *cancellable,
                                          GAsyncReadyCallback callback, gpointer user_data)
{
  auto *bytes = g_variant_get_data_as_bytes(variant);
  auto *task = g_task_new(stream, cancellable, callback, user_data);
  g_task_set_task_data(task, bytes, reinterpret_cast<GDestroyNotify>(g_bytes_unref));

  gvc_bytes_output_stream_put_bytes_async(stream, bytes, io_priority, cancellable,
                                          write_variant_callback, task);
}

/**
 * gvc_bytes_output_stream_put_variant_finish:
 * @stream: a #GvcBytesOutputStream
 * @result: the result that the callback was given
 * @error: return location for a #GError
 *
 * Ends gvc_bytes_output_stream_put_variant_async(). Errors are those of the base stream, unchanged.
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_variant_finish(GvcBytesOutputStream *stream, GAsyncResult *result,
                                           GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_OUTPUT_STREAM(stream), FALSE);
  GVC_CHECK_VAL(g_task_is_valid(result, stream), FALSE);

  return g_task_propagate_boolean(reinterpret_cast<GTask *>(result), error);
}
