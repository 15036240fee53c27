// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcbytesinputstream.h"
#include "gvcchecks.h"
#include "gvcerror.h"
#include "gvcpollable.h"
#include "gvcreadall.h"
#include "gvcwire.h"

#include <sys/mman.h>
#include <unistd.h>

/**
 * GvcBytesInputStream:
 *
 * A filter stream that reads the frames that #GvcBytesOutputStream writes: the length of a message
 * in 4 bytes, little-endian, and then the message.
 *
 * The two ways of reading take the end of a channel differently. The blocking readers report a
 * length of 0, which a stream that has ended also yields, as %GVC_ERROR_DISCONNECTED, and do not
 * notice a stream that ends within a message: what is missing reads as zeros. The asynchronous
 * readers take a length of 0 for an empty message, and report %GVC_ERROR_DISCONNECTED when the
 * stream ends anywhere before the end of a message.
 *
 * A message is read into one allocation of its announced size, up to 2 GiB.
 *
 * One message at a time may be in progress on a stream. Closing the stream closes its base stream.
 *
 * Since: 0.1
 */
G_DEFINE_TYPE_WITH_CODE(GvcBytesInputStream, gvc_bytes_input_stream, G_TYPE_FILTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              gvc::init_pollable_filter_input))

namespace
{
struct AsyncRead {
  gvc::Transfer step;
  gint32 bytes_size;   // as it stands on the wire: the prefix is read into here
  gsize bytes_to_read; // by the current step
  void *buffer;        // the payload's, until the result owns it
};
} // namespace

static void
free_async_data(gpointer user_data)
{
  auto *data = static_cast<AsyncRead *>(user_data);

  data->step.clear();
  g_free(data->buffer);
  g_slice_free(AsyncRead, data);
}

static void
set_no_memory(GError **error)
{
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_NO_SPACE, "Not enough memory for the frame");
}

// From this size on glibc maps each block of its own, so that all of its pages are fresh from the
// system: faulting them in one by one takes several times as long as the reading. The mapping goes
// away with the block, and with it the advice.
static constexpr gsize mapped_from = 32 * 1024 * 1024;

static void
prefer_huge_pages(void *block, gsize size)
{
#ifdef MADV_HUGEPAGE
  auto page = static_cast<gsize>(sysconf(_SC_PAGESIZE));
  auto before = reinterpret_cast<guintptr>(block) % page;
  // The start of the page in which the block starts is malloc()'s header.
  madvise(static_cast<guint8 *>(block) - before, size + before, MADV_HUGEPAGE);
#endif
}

// The length that the 4 bytes of a prefix announce, and memory for it: NULL for a length of 0, and
// NULL with an error where the length cannot be met.
static void *
allocate_payload(const void *prefix, gsize *size, GError **error)
{
  auto length = static_cast<gint32>(gvc::load_u32(prefix));
  if (length < 0) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "Invalid frame length");
    return nullptr;
  }

  *size = static_cast<gsize>(length);
  void *buffer = g_try_malloc(*size);
  if (!buffer && *size > 0)
    set_no_memory(error);
  if (buffer && *size >= mapped_from)
    prefer_huge_pages(buffer, *size);
  return buffer;
}

// A type string as a definite type, or NULL with a critical, of `function` where it is not GLib's.
static const GVariantType *
check_format(const gchar *format, const char *function)
{
  auto *type = G_VARIANT_TYPE(format);
  if (!type || g_variant_type_is_definite(type))
    return type;
  g_return_if_fail_warning(nullptr, function, "g_variant_type_is_definite(type)");
  return nullptr;
}

// The payload of a frame that broke off: what never arrived must not hand out what the allocator
// left there. It is not written to either, since a peer can announce 2 GiB and send nothing.
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

// Whether a blocking read does no more than to read from the base stream. Then a frame can come
// from there directly, which saves a layer of calls for each of its parts.
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
    g_set_error_literal(error, GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
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

static void
gvc_bytes_input_stream_class_init(GvcBytesInputStreamClass *)
{
}

static void
gvc_bytes_input_stream_init(GvcBytesInputStream *)
{
}

/**
 * gvc_bytes_input_stream_new:
 * @base_stream: the stream to read frames from
 *
 * Creates a stream that reads frames from @base_stream, the input stream of a #GvcConnection, say.
 *
 * Returns: (transfer full): a new stream, which holds a reference to @base_stream; release it with
 *   g_object_unref()
 *
 * Since: 0.1
 */
GvcBytesInputStream *
gvc_bytes_input_stream_new(GInputStream *base_stream)
{
  GVC_CHECK_VAL(G_IS_INPUT_STREAM(base_stream), nullptr);

  return static_cast<GvcBytesInputStream *>(
      g_object_new(GVC_TYPE_BYTES_INPUT_STREAM, "base-stream", base_stream, nullptr));
}

/**
 * gvc_bytes_input_stream_read_bytes:
 * @stream: a #GvcBytesInputStream
 * @cancellable: (nullable): a #GCancellable
 * @error: return location for a #GError
 *
 * Reads one message; blocks until it is there.
 *
 * Fails with %GVC_ERROR_DISCONNECTED when the length is 0 or the stream has ended before it, with
 * %G_IO_ERROR_INVALID_DATA when the length is negative, and with %G_IO_ERROR_NO_SPACE when there is
 * no memory for the message. Other errors are those of the base stream, unchanged. When the stream
 * ends within the message, what is missing reads as zeros.
 *
 * Returns: (transfer full): the message, or %NULL with @error set
 *
 * Since: 0.1
 */
GBytes *
gvc_bytes_input_stream_read_bytes(GvcBytesInputStream *stream, GCancellable *cancellable,
                                  GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);

  auto *in = reinterpret_cast<GInputStream *>(stream);
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
 * Reads one message as a value of type @format; blocks until it is there. The data is not trusted:
 * malformed data reads as default values. Fails as gvc_bytes_input_stream_read_bytes() does.
 *
 * Returns: (transfer floating): the value, with a floating reference, or %NULL with @error set
 *
 * Since: 0.1
 */
GVariant *
gvc_bytes_input_stream_read_variant(GvcBytesInputStream *stream, const gchar *format,
                                    GCancellable *cancellable, GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);

  // Before the read, so that a wrong format costs no message.
  auto *type = check_format(format, __func__);
  if (!type)
    return nullptr;

  g_autoptr(GBytes) bytes = gvc_bytes_input_stream_read_bytes(stream, cancellable, error);
  return bytes ? g_variant_new_from_bytes(type, bytes, FALSE) : nullptr;
}

// Returns the error of a step that did not bring what it was to.
static gboolean
check_step(GTask *task, AsyncRead *data)
{
  if (data->step.error)
    g_task_return_error(task, static_cast<GError *>(g_steal_pointer(&data->step.error)));
  else if (data->step.moved != data->bytes_to_read)
    g_task_return_new_error(task, GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
  else
    return !g_task_return_error_if_cancelled(task);
  return FALSE;
}

static void
payload_done(GTask *chain)
{
  g_autoptr(GTask) task = chain;
  auto *data = static_cast<AsyncRead *>(g_task_get_task_data(task));

  if (!check_step(task, data))
    return;
  auto *bytes = g_bytes_new_take(g_steal_pointer(&data->buffer), data->bytes_to_read);
  g_task_return_pointer(task, bytes, reinterpret_cast<GDestroyNotify>(g_bytes_unref));
}

static void
prefix_done(GTask *chain)
{
  g_autoptr(GTask) task = chain;
  auto *data = static_cast<AsyncRead *>(g_task_get_task_data(task));
  GError *error = nullptr;

  if (!check_step(task, data))
    return;
  data->buffer = allocate_payload(&data->bytes_size, &data->bytes_to_read, &error);
  if (error) {
    g_task_return_error(task, error);
    return;
  }

  // The task's own priority was never set: the payload is read at the default priority, whatever
  // the prefix had.
  chain = static_cast<GTask *>(g_steal_pointer(&task));
  gvc::read_all(chain, data->buffer, data->bytes_to_read, g_task_get_priority(chain), payload_done);
}

/**
 * gvc_bytes_input_stream_read_bytes_async:
 * @stream: a #GvcBytesInputStream
 * @io_priority: the priority of the read of the length; the message itself is read at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the message is there or the read has failed
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
  auto *task = g_task_new(stream, cancellable, callback, user_data);
  auto *data = g_slice_new0(AsyncRead);
  data->bytes_to_read = sizeof data->bytes_size;
  g_task_set_task_data(task, data, free_async_data);

  if (gvc::check_input_stream(stream))
    gvc::read_all(task, &data->bytes_size, data->bytes_to_read, io_priority, prefix_done);
}

/**
 * gvc_bytes_input_stream_read_bytes_finish:
 * @stream: a #GvcBytesInputStream
 * @result: the result that the callback was given
 * @error: return location for a #GError
 *
 * Ends gvc_bytes_input_stream_read_bytes_async().
 *
 * Fails with %GVC_ERROR_DISCONNECTED when the stream ended before the message did, with
 * %G_IO_ERROR_INVALID_DATA when the length is negative, and with %G_IO_ERROR_NO_SPACE when there is
 * no memory for the message. Other errors are those of the base stream, unchanged.
 *
 * Returns: (transfer full): the message, which may be empty, or %NULL with @error set
 *
 * Since: 0.1
 */
GBytes *
gvc_bytes_input_stream_read_bytes_finish(GvcBytesInputStream *stream, GAsyncResult *result,
                                         GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);
  GVC_CHECK_VAL(g_task_is_valid(result, stream), nullptr);

  return static_cast<GBytes *>(g_task_propagate_pointer(reinterpret_cast<GTask *>(result), error));
}

static void
read_variant_size_callback(GObject *source, GAsyncResult *result, gpointer user_data)
{
  g_autoptr(GTask) task = static_cast<GTask *>(user_data);
  GError *error = nullptr;

  g_autoptr(GBytes) bytes = gvc_bytes_input_stream_read_bytes_finish(
      reinterpret_cast<GvcBytesInputStream *>(source), result, &error);
  if (!bytes) {
    g_task_return_error(task, error);
    return;
  }

  auto *type = check_format(static_cast<const gchar *>(g_task_get_task_data(task)),
                            "gvc_bytes_input_stream_read_variant_async");
  if (!type) {
    g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                            "Invalid variant type string");
    return;
  }
  g_task_return_pointer(task, g_variant_new_from_bytes(type, bytes, FALSE),
                        reinterpret_cast<GDestroyNotify>(g_variant_unref));
}

/**
 * gvc_bytes_input_stream_read_variant_async:
 * @stream: a #GvcBytesInputStream
 * @format: the type string of the message, a definite type; it is copied
 * @io_priority: the priority of the read of the length; the message itself is read at
 *   %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the message is there or the read has failed
 * @user_data: data for @callback
 *
 * Reads one message as a value of type @format without blocking. Like
 * gvc_bytes_input_stream_read_bytes_async() otherwise.
 *
 * Since: 0.1
 */
void
gvc_bytes_input_stream_read_variant_async(GvcBytesInputStream *stream, const gchar *format,
                                          int io_priority, GCancellable *cancellable,
                                          GAsyncReadyCallback callback, gpointer user_data)
{
  auto *task = g_task_new(stream, cancellable, callback, user_data);
  g_task_set_task_data(task, g_strdup(format), g_free);

  gvc_bytes_input_stream_read_bytes_async(stream, io_priority, cancellable,
                                          read_variant_size_callback, task);
}

/**
 * gvc_bytes_input_stream_read_variant_finish:
 * @stream: a #GvcBytesInputStream
 * @result: the result that the callback was given
 * @error: return location for a #GError
 *
 * Ends gvc_bytes_input_stream_read_variant_async(). The data is not trusted: malformed data reads
 * as default values. Fails as gvc_bytes_input_stream_read_bytes_finish() does.
 *
 * Returns: (transfer floating): the value, with a floating reference, or %NULL with @error set
 *
 * Since: 0.1
 */
GVariant *
gvc_bytes_input_stream_read_variant_finish(GvcBytesInputStream *stream, GAsyncResult *result,
                                           GError **error)
{
  GVC_CHECK_VAL(GVC_IS_BYTES_INPUT_STREAM(stream), nullptr);
  GVC_CHECK_VAL(g_task_is_valid(result, stream), nullptr);

  return static_cast<GVariant *>(
      g_task_propagate_pointer(reinterpret_cast<GTask *>(result), error));
}
