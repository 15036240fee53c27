// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcbytesinputstream.h"
#include "gvcerror.h"
#include "gvcfixedtexts.h"
#include "gvcinitialisers.h"
#include "gvcwire.h"

#include "engine/gvcpollable.h"
#include "engine/gvcreader.h"

#include <platform/hugepages.h>

/**
 * GvcBytesInputStream:
 *
 * A filter stream that reads the frames that #GvcBytesOutputStream writes: the length of a message
 * in 4 bytes, little-endian, and then the message.
 *
 * Blocking and asynchronous readers treat the end of a channel differently:
 *
 * - Blocking readers fail with %GVC_ERROR_DISCONNECTED if the length is 0 or the stream has ended.
 *   If the stream ends within a message, the missing bytes read as zeros.
 * - Asynchronous readers return an empty message if the length is 0. They fail with
 *   %GVC_ERROR_DISCONNECTED if the stream ends before the end of a message.
 *
 * A message is read into one allocation of its announced size, up to 2 GiB.
 *
 * Start the next message only after the last one has ended. Closing the stream closes its base
 * stream. Use a stream from one thread at a time.
 *
 * Since: 0.1
 */
G_DEFINE_TYPE_WITH_CODE(GvcBytesInputStream, gvc_bytes_input_stream, G_TYPE_FILTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              gvc::init_pollable_filter_input))
GVC_NO_INITIALISERS(GvcBytesInputStream, gvc_bytes_input_stream)

static void
set_disconnected(GError **error)
{
  g_set_error_literal(error, GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
}

static void
set_no_memory(GError **error)
{
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_NO_SPACE, "Not enough memory for the frame");
}

// Allocates memory for the length that a prefix announces. Returns NULL for a length of 0, and NULL
// with an error if the length is invalid or there is not enough memory.
static void *
allocate_payload(const void *prefix, gsize *size, GError **error)
{
  auto length = gvc::wire::frame::load_length(prefix);
  if (length < 0) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "Invalid frame length");
    return nullptr;
  }

  *size = static_cast<gsize>(length);
  void *buffer = g_try_malloc(*size);
  if (!buffer && *size > 0)
    set_no_memory(error);
  if (buffer)
    platform::preferHugePages(buffer, *size);
  return buffer;
}

// Converts a type string to a definite type. Returns NULL after a critical of GLib's or `function`.
static const GVariantType *
check_format(const gchar *format, const char *function)
{
  auto *type = G_VARIANT_TYPE(format);
  if (!type || g_variant_type_is_definite(type))
    return type;
  g_return_if_fail_warning(nullptr, function, "g_variant_type_is_definite(type)");
  return nullptr;
}

namespace
{

// The prefix is read at the priority of the caller, the payload at the default priority.
class FrameRead final : public gvc::Reader
{
public:
  // Reads a GBytes if `type` is NULL, else a variant.
  void
  begin(const GVariantType *type, int io_priority)
  {
    type_ = type ? g_variant_type_copy(type) : nullptr;
    expect(&prefix_, sizeof prefix_);
    start(io_priority);
  }
  ~FrameRead()
  {
    g_free(payload_);
    g_clear_pointer(&type_, g_variant_type_free);
  }

private:
  gvc::Next
  part_done() override
  {
    if (received() < (in_payload_ ? size_ : sizeof prefix_))
      set_disconnected(&error_);
    else if (!in_payload_)
      payload_ = allocate_payload(&prefix_, &size_, &error_);
    if (in_payload_ || error_)
      return gvc::Next::done;

    in_payload_ = TRUE;
    expect(payload_, size_);
    return next_part();
  }
  void
  succeed() override
  {
    g_autoptr(GBytes) bytes = g_bytes_new_take(g_steal_pointer(&payload_), size_);
    if (type_)
      g_task_return_pointer(task_, g_variant_new_from_bytes(type_, bytes, FALSE),
                            reinterpret_cast<GDestroyNotify>(g_variant_unref));
    else
      g_task_return_pointer(task_, g_steal_pointer(&bytes),
                            reinterpret_cast<GDestroyNotify>(g_bytes_unref));
  }

  guint32 prefix_ = 0; // in the byte order of the wire
  gsize size_ = 0;
  void *payload_ = nullptr; // until the result owns it
  GVariantType *type_ = nullptr;
  gboolean in_payload_ = FALSE;
};

} // namespace

// Zeros hide old memory behind the received part of a truncated payload. Fresh zeroed memory costs
// no page until it is used: a peer can announce 2 GiB and send nothing.
static void *
zero_missing(void *buffer, gsize size, gsize nread, GError **error)
{
  void *zeroed = g_try_malloc0(size);
  if (zeroed)
    memcpy(zeroed, buffer, nread);
  else
    set_no_memory(error);
  g_free(buffer);
  return zeroed;
}

// A blocking read only reads from the base stream, unless a derived class overrides it. Then a
// frame is read there directly, which saves a layer of calls for each part.
static gboolean
passes_on(GInputStream *stream)
{
  return G_INPUT_STREAM_GET_CLASS(stream)->read_fn ==
         static_cast<GInputStreamClass *>(gvc_bytes_input_stream_parent_class)->read_fn;
}

static GBytes *
read_frame(GInputStream *in, GCancellable *cancellable, GError **error)
{
  gint32 prefix = 0;
  gsize nread;
  if (!g_input_stream_read_all(in, &prefix, sizeof prefix, &nread, cancellable, error))
    return nullptr;
  if (nread < sizeof prefix || prefix == 0) {
    set_disconnected(error);
    return nullptr;
  }

  gsize size;
  g_autofree void *buffer = allocate_payload(&prefix, &size, error);
  if (!buffer || !g_input_stream_read_all(in, buffer, size, &nread, cancellable, error))
    return nullptr;

  if (nread < size)
    buffer = zero_missing(buffer, size, nread, error);
  return buffer ? g_bytes_new_take(g_steal_pointer(&buffer), size) : nullptr;
}

/**
 * gvc_bytes_input_stream_new:
 * @base_stream: the stream to read frames from
 *
 * Creates a stream that reads frames from @base_stream, for example the input stream of a
 * #GvcConnection.
 *
 * Returns: (transfer full): a new stream, which holds a reference to @base_stream; release it with
 *   g_object_unref()
 *
 * Since: 0.1
 */
GvcBytesInputStream *
gvc_bytes_input_stream_new(GInputStream *base_stream)
{
  g_return_val_if_fail(G_IS_INPUT_STREAM(base_stream), nullptr);

  return GVC_BYTES_INPUT_STREAM(
      g_object_new(GVC_TYPE_BYTES_INPUT_STREAM, "base-stream", base_stream, nullptr));
}

/**
 * gvc_bytes_input_stream_read_bytes:
 * @stream: a #GvcBytesInputStream
 * @cancellable: (nullable): a #GCancellable
 * @error: return location for a #GError
 *
 * Reads one message and blocks until it has arrived.
 *
 * Fails with %GVC_ERROR_DISCONNECTED if the length is 0 or the stream has ended, with
 * %G_IO_ERROR_INVALID_DATA if the length is negative, and with %G_IO_ERROR_NO_SPACE if there is no
 * memory for the message. Other errors are those of the base stream, unchanged. If the stream ends
 * within the message, the missing bytes read as zeros.
 *
 * Returns: (transfer full): the message, or %NULL with @error set
 *
 * Since: 0.1
 */
GBytes *
gvc_bytes_input_stream_read_bytes(GvcBytesInputStream *stream, GCancellable *cancellable,
                                  GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);

  auto *in = G_INPUT_STREAM(stream);
  if (!passes_on(in))
    return read_frame(in, cancellable, error);

  if (!g_input_stream_set_pending(in, error))
    return nullptr;
  auto *bytes = read_frame(stream->parent.base_stream, cancellable, error);
  g_input_stream_clear_pending(in);
  return bytes;
}

/**
 * gvc_bytes_input_stream_read_variant:
 * @stream: a #GvcBytesInputStream
 * @format: the type string of the message, a definite type
 * @cancellable: (nullable): a #GCancellable
 * @error: return location for a #GError
 *
 * Reads one message as a value of type @format and blocks until it has arrived. The data is not
 * trusted: malformed data reads as default values. The errors are those of
 * gvc_bytes_input_stream_read_bytes().
 *
 * Returns: (transfer floating): the value, with a floating reference, or %NULL with @error set
 *
 * Since: 0.1
 */
GVariant *
gvc_bytes_input_stream_read_variant(GvcBytesInputStream *stream, const gchar *format,
                                    GCancellable *cancellable, GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);

  // Checks before the read, so that a wrong format loses no message.
  auto *type = check_format(format, __func__);
  if (!type)
    return nullptr;

  g_autoptr(GBytes) bytes = gvc_bytes_input_stream_read_bytes(stream, cancellable, error);
  return bytes ? g_variant_new_from_bytes(type, bytes, FALSE) : nullptr;
}

/**
 * gvc_bytes_input_stream_read_bytes_async:
 * @stream: a #GvcBytesInputStream
 * @io_priority: the priority for reading the length; the message itself is read at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the message has arrived or the read has failed
 * @user_data: data for @callback
 *
 * Reads one message without blocking. @callback runs in the thread-default main context of the
 * caller, after this function has returned. The arguments are not checked.
 *
 * Since: 0.1
 */
void
gvc_bytes_input_stream_read_bytes_async(GvcBytesInputStream *stream, int io_priority,
                                        GCancellable *cancellable, GAsyncReadyCallback callback,
                                        gpointer user_data)
{
  FrameRead::create<FrameRead>(stream, cancellable, callback, user_data,
                               gvc_bytes_input_stream_read_bytes_async)
      ->begin(nullptr, io_priority);
}

/**
 * gvc_bytes_input_stream_read_bytes_finish:
 * @stream: a #GvcBytesInputStream
 * @result: the result that the callback received
 * @error: return location for a #GError
 *
 * Finishes gvc_bytes_input_stream_read_bytes_async().
 *
 * Fails with %GVC_ERROR_DISCONNECTED if the stream ended before the message did, with
 * %G_IO_ERROR_INVALID_DATA if the length is negative, and with %G_IO_ERROR_NO_SPACE if there is no
 * memory for the message. Other errors are those of the base stream, unchanged.
 *
 * Returns: (transfer full): the message, which may be empty, or %NULL with @error set
 *
 * Since: 0.1
 */
GBytes *
gvc_bytes_input_stream_read_bytes_finish(GvcBytesInputStream *stream, GAsyncResult *result,
                                         GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);
  g_return_val_if_fail(g_task_is_valid(result, stream), nullptr);

  return static_cast<GBytes *>(g_task_propagate_pointer(G_TASK(result), error));
}

/**
 * gvc_bytes_input_stream_read_variant_async:
 * @stream: a #GvcBytesInputStream
 * @format: the type string of the message, a definite type; it is copied
 * @io_priority: the priority for reading the length; the message itself is read at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the message has arrived or the read has failed
 * @user_data: data for @callback
 *
 * Reads one message as a value of type @format without blocking. If @format is invalid, the
 * operation fails with %G_IO_ERROR_INVALID_ARGUMENT and reads nothing. Otherwise this works like
 * gvc_bytes_input_stream_read_bytes_async().
 *
 * Since: 0.1
 */
void
gvc_bytes_input_stream_read_variant_async(GvcBytesInputStream *stream, const gchar *format,
                                          int io_priority, GCancellable *cancellable,
                                          GAsyncReadyCallback callback, gpointer user_data)
{
  auto tag = reinterpret_cast<gpointer>(gvc_bytes_input_stream_read_variant_async);

  // Checks before the read, so that a wrong format loses no message.
  auto *type = check_format(format, __func__);
  if (!type) {
    g_task_report_new_error(stream, callback, user_data, tag, G_IO_ERROR,
                            G_IO_ERROR_INVALID_ARGUMENT, "Invalid variant type string");
    return;
  }
  FrameRead::create<FrameRead>(stream, cancellable, callback, user_data, tag)
      ->begin(type, io_priority);
}

/**
 * gvc_bytes_input_stream_read_variant_finish:
 * @stream: a #GvcBytesInputStream
 * @result: the result that the callback received
 * @error: return location for a #GError
 *
 * Finishes gvc_bytes_input_stream_read_variant_async(). The data is not trusted: malformed data
 * reads as default values. The errors are those of gvc_bytes_input_stream_read_bytes_finish(), and
 * %G_IO_ERROR_INVALID_ARGUMENT for an invalid format.
 *
 * Returns: (transfer floating): the value, with a floating reference, or %NULL with @error set
 *
 * Since: 0.1
 */
GVariant *
gvc_bytes_input_stream_read_variant_finish(GvcBytesInputStream *stream, GAsyncResult *result,
                                           GError **error)
{
  g_return_val_if_fail(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);
  g_return_val_if_fail(g_task_is_valid(result, stream), nullptr);

  return static_cast<GVariant *>(g_task_propagate_pointer(G_TASK(result), error));
}
