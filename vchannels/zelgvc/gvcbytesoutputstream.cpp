// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcbytesoutputstream.h"
#include "gvcfixedtexts.h"
#include "gvcinitialisers.h"
#include "gvcwire.h"

#include "engine/gvcpollable.h"
#include "engine/gvcwriter.h"

/**
 * GvcBytesOutputStream:
 *
 * A filter stream that writes messages as frames: the length of the message in 4 bytes,
 * little-endian, and then the message. #GvcBytesInputStream reads them.
 *
 * A message is a #GBytes or the serialised data of a #GVariant. The type of a variant is not sent.
 * A message must be smaller than 2 GiB. An empty message is legal, but the blocking reader takes it
 * for the end of the channel.
 *
 * Start the next message only after the last one has ended. Closing the stream closes its base
 * stream. Use a stream from one thread at a time.
 *
 * Since: 0.1
 */
G_DEFINE_TYPE_WITH_CODE(GvcBytesOutputStream, gvc_bytes_output_stream, G_TYPE_FILTER_OUTPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_OUTPUT_STREAM,
                                              gvc::init_pollable_filter_output))
GVC_NO_INITIALISERS(GvcBytesOutputStream, gvc_bytes_output_stream)

static guint32
prefix_of(GBytes *bytes)
{
  return gvc::wire::frame::prefix(g_bytes_get_size(bytes));
}

namespace
{

class FrameWrite final : public gvc::Writer
{
public:
  // Writes the prefix at `io_priority` and the payload at the default priority: in one call if both
  // are the same.
  void
  begin(GBytes *bytes, int io_priority)
  {
    payload_ = g_bytes_ref(bytes);
    prefix_ = prefix_of(bytes);
    offer(&prefix_, sizeof prefix_);
    if (io_priority == G_PRIORITY_DEFAULT)
      offer_payload();
    start(io_priority);
  }
  ~FrameWrite()
  {
    g_bytes_unref(payload_);
  }

private:
  void
  offer_payload()
  {
    gsize size;
    auto *data = g_bytes_get_data(payload_, &size);
    offer(data, size);
    payload_offered_ = TRUE;
  }
  gvc::Next
  all_accepted() override
  {
    if (payload_offered_)
      return Writer::all_accepted();
    offer_payload();
    return next_part();
  }

  GBytes *payload_ = nullptr;
  guint32 prefix_ = 0; // in the byte order of the wire
  gboolean payload_offered_ = FALSE;
};

} // namespace

// A blocking write only writes to the base stream, unless a derived class overrides it. Then a
// frame is written there directly, which saves a layer of calls for each part.
static gboolean
passes_on(GOutputStream *stream)
{
  return G_OUTPUT_STREAM_GET_CLASS(stream)->write_fn ==
         static_cast<GOutputStreamClass *>(gvc_bytes_output_stream_parent_class)->write_fn;
}

// Two writes, or one write of two vectors if the stream gathers.
static gboolean
write_frame(GOutputStream *out, GBytes *bytes, GCancellable *cancellable, GError **error)
{
  guint32 prefix = prefix_of(bytes);
  gsize size;
  auto *payload = g_bytes_get_data(bytes, &size);

  if (size > 0 && gvc::gathers(out)) {
    GOutputVector vectors[] = {{.buffer = &prefix, .size = sizeof prefix},
                               {.buffer = payload, .size = size}};
    return g_output_stream_writev_all(out, vectors, G_N_ELEMENTS(vectors), nullptr, cancellable,
                                      error);
  }
  return g_output_stream_write_all(out, &prefix, sizeof prefix, nullptr, cancellable, error) &&
         g_output_stream_write_all(out, payload, size, nullptr, cancellable, error);
}

/**
 * gvc_bytes_output_stream_new:
 * @base_stream: the stream to write frames to
 *
 * Creates a stream that writes frames to @base_stream, for example the output stream of a
 * #GvcConnection.
 *
 * Returns: (transfer full): a new stream, which holds a reference to @base_stream; release it with
 *   g_object_unref()
 *
 * Since: 0.1
 */
GvcBytesOutputStream *
gvc_bytes_output_stream_new(GOutputStream *base_stream)
{
  g_return_val_if_fail(G_IS_OUTPUT_STREAM (base_stream), nullptr);

  return GVC_BYTES_OUTPUT_STREAM(
      g_object_new(GVC_TYPE_BYTES_OUTPUT_STREAM, "base-stream", base_stream, nullptr));
}

/**
 * gvc_bytes_output_stream_put_bytes:
 * @stream: a #GvcBytesOutputStream
 * @bytes: the message, less than 2 GiB
 * @cancellable: (nullable): a #GCancellable
 * @error: return location for a #GError
 *
 * Writes @bytes as one frame and blocks until the base stream has accepted it.
 *
 * Errors are those of the base stream, unchanged, such as %G_IO_ERROR_CANCELLED. After an error, a
 * part of the frame may have been written. The stages of a channel may hold another part: the next
 * write, a flush or closing the stream sends it first.
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_bytes(GvcBytesOutputStream *stream, GBytes *bytes,
                                  GCancellable *cancellable, GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_OUTPUT_STREAM (stream), FALSE);
  g_return_val_if_fail(bytes != NULL, FALSE);

  auto *out = G_OUTPUT_STREAM(stream);
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
 * Writes the serialised data of @variant as one frame, in the byte order of @variant. Otherwise
 * this works like gvc_bytes_output_stream_put_bytes().
 *
 * Warning: a floating @variant is not sunk, so a call with an inline g_variant_new() leaks. Sink
 * the variant yourself:
 *
 * |[<!-- language="C" -->
 * g_autoptr(GVariant) v = g_variant_ref_sink(g_variant_new("(su)", name, id));
 *
 * gvc_bytes_output_stream_put_variant(stream, v, NULL, &error);
 * ]|
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_variant(GvcBytesOutputStream *stream, GVariant *variant,
                                    GCancellable *cancellable, GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_OUTPUT_STREAM (stream), FALSE);
  g_return_val_if_fail(variant != NULL, FALSE);

  g_autoptr(GBytes) bytes = g_variant_get_data_as_bytes(variant);
  return gvc_bytes_output_stream_put_bytes(stream, bytes, cancellable, error);
}

/**
 * gvc_bytes_output_stream_put_bytes_async:
 * @stream: a #GvcBytesOutputStream
 * @bytes: the message, less than 2 GiB; held until the operation has ended
 * @io_priority: the priority for writing the length; the message itself is written at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the frame is written or the write has failed
 * @user_data: data for @callback
 *
 * Writes @bytes as one frame without blocking. @callback runs in the thread-default main context of
 * the caller, after this function has returned. Over the stages of a #GvcConnection the operation
 * ends when the socket has accepted the last byte. The arguments are not checked.
 *
 * Since: 0.1
 */
void
gvc_bytes_output_stream_put_bytes_async(GvcBytesOutputStream *stream, GBytes *bytes,
                                        int io_priority, GCancellable *cancellable,
                                        GAsyncReadyCallback callback, gpointer user_data)
{
  FrameWrite::create<FrameWrite>(stream, cancellable, callback, user_data,
                                 gvc_bytes_output_stream_put_bytes_async)
      ->begin(bytes, io_priority);
}

/**
 * gvc_bytes_output_stream_put_bytes_finish:
 * @stream: a #GvcBytesOutputStream
 * @result: the result that the callback received
 * @error: return location for a #GError
 *
 * Finishes gvc_bytes_output_stream_put_bytes_async(). Errors are those of the base stream,
 * unchanged.
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_bytes_finish(GvcBytesOutputStream *stream, GAsyncResult *result,
                                         GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_OUTPUT_STREAM(stream), FALSE);
  g_return_val_if_fail(g_task_is_valid(result, stream), FALSE);

  return g_task_propagate_boolean(G_TASK(result), error);
}

/**
 * gvc_bytes_output_stream_put_variant_async:
 * @stream: a #GvcBytesOutputStream
 * @variant: the message; a floating reference is not sunk
 * @io_priority: the priority for writing the length; the message itself is written at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the frame is written or the write has failed
 * @user_data: data for @callback
 *
 * Writes the serialised data of @variant as one frame without blocking. Otherwise this works like
 * gvc_bytes_output_stream_put_bytes_async().
 *
 * Warning: a floating @variant is not sunk, so a call with an inline g_variant_new() leaks. Sink
 * the variant yourself, as with gvc_bytes_output_stream_put_variant(); the operation keeps its data
 * alive.
 *
 * Since: 0.1
 */
void
gvc_bytes_output_stream_put_variant_async(GvcBytesOutputStream *stream, GVariant *variant,
                                          int io_priority, GCancellable *cancellable,
                                          GAsyncReadyCallback callback, gpointer user_data)
{
  g_autoptr(GBytes) bytes = g_variant_get_data_as_bytes(variant);

  FrameWrite::create<FrameWrite>(stream, cancellable, callback, user_data,
                                 gvc_bytes_output_stream_put_variant_async)
      ->begin(bytes, io_priority);
}

/**
 * gvc_bytes_output_stream_put_variant_finish:
 * @stream: a #GvcBytesOutputStream
 * @result: the result that the callback received
 * @error: return location for a #GError
 *
 * Finishes gvc_bytes_output_stream_put_variant_async(). Errors are those of the base stream,
 * unchanged.
 *
 * Returns: %TRUE when the whole frame was written
 *
 * Since: 0.1
 */
gboolean
gvc_bytes_output_stream_put_variant_finish(GvcBytesOutputStream *stream, GAsyncResult *result,
                                           GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_OUTPUT_STREAM(stream), FALSE);
  g_return_val_if_fail(g_task_is_valid(result, stream), FALSE);

  return g_task_propagate_boolean(G_TASK(result), error);
}
