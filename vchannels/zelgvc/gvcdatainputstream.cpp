// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcdatainputstream.h"
#include "gvcchecks.h"
#include "gvcpollable.h"
#include "gvcreadall.h"

/**
 * GvcDataInputStream:
 *
 * A filter stream that reads strings closed by a terminator byte of the caller's choice.
 *
 * A string is ended by its terminator, by a read error or by cancellation, and by nothing else: at
 * the end of the stream the readers go on asking for more, so give them a #GCancellable. There is
 * no limit to the length of a string. Bytes are read one at a time, so nothing behind the
 * terminator is consumed.
 *
 * One string at a time may be in progress on a stream. Closing the stream closes its base stream.
 *
 * Since: 0.1
 */
G_DEFINE_TYPE_WITH_CODE(GvcDataInputStream, gvc_data_input_stream, G_TYPE_FILTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              gvc::init_pollable_filter_input))

static constexpr gsize initial_buffer_length = 1024;

namespace
{
struct AsyncRead {
  gvc::Transfer step;
  gchar string_end;
  gchar *buffer; // until the result owns it
  gsize buffer_length;
  gsize read; // bytes received, terminator included once it is there
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

// Doubles a buffer that is full.
static gchar *
grow_if_full(gchar *buffer, gsize *buffer_length, gsize used)
{
  if (used < *buffer_length)
    return buffer;
  *buffer_length *= 2;
  return static_cast<gchar *>(g_realloc(buffer, *buffer_length));
}

static void
gvc_data_input_stream_class_init(GvcDataInputStreamClass *)
{
}

static void
gvc_data_input_stream_init(GvcDataInputStream *)
{
}

/**
 * gvc_data_input_stream_new:
 * @base_stream: the stream to read strings from
 *
 * Creates a stream that reads strings from @base_stream, the input stream of a #GvcConnection, say.
 *
 * Returns: (transfer full): a new stream, which holds a reference to @base_stream; release it with
 *   g_object_unref()
 *
 * Since: 0.1
 */
GvcDataInputStream *
gvc_data_input_stream_new(GInputStream *base_stream)
{
  GVC_CHECK_VAL(G_IS_INPUT_STREAM(base_stream), nullptr);

  return static_cast<GvcDataInputStream *>(
      g_object_new(GVC_TYPE_DATA_INPUT_STREAM, "base-stream", base_stream, nullptr));
}

/**
 * gvc_data_input_stream_read_string:
 * @stream: a #GvcDataInputStream
 * @string_end: the terminator
 * @length: (out) (optional): the length of the string in bytes, terminator included
 * @cancellable: (nullable): a #GCancellable
 * @error: return location for a #GError
 *
 * Reads one string; blocks until its terminator is there. The end of the stream does not end it.
 * Errors are those of the base stream, unchanged; what had arrived of the string is lost then.
 *
 * Returns: (transfer full) (array length=length) (element-type guint8): the string with its
 *   terminator and no NUL behind it, or %NULL with @error set; free it with g_free()
 *
 * Since: 0.1
 */
gchar *
gvc_data_input_stream_read_string(GvcDataInputStream *stream, gchar string_end, gsize *length,
                                  GCancellable *cancellable, GError **error)
{
  GVC_CHECK_VAL(GVC_IS_DATA_INPUT_STREAM(stream), nullptr);

  auto *in = reinterpret_cast<GInputStream *>(stream);
  gsize buffer_length = initial_buffer_length;
  g_autofree gchar *buffer = static_cast<gchar *>(g_malloc(buffer_length));
  gsize count = 0;

  for (;;) {
    gssize nread = g_input_stream_read(in, buffer + count, 1, cancellable, error);
    if (nread < 0)
      return nullptr;
    if (nread == 0)
      continue;
    count++;
    if (buffer[count - 1] == string_end)
      break;
    buffer = grow_if_full(buffer, &buffer_length, count);
  }

  if (length)
    *length = count;
  return static_cast<gchar *>(g_steal_pointer(&buffer));
}

static void
byte_done(GTask *chain)
{
  g_autoptr(GTask) task = chain;
  auto *data = static_cast<AsyncRead *>(g_task_get_task_data(task));

  if (data->step.error) {
    g_task_return_error(task, static_cast<GError *>(g_steal_pointer(&data->step.error)));
    return;
  }

  if (data->step.moved > 0) {
    data->read++;
    if (data->buffer[data->read - 1] == data->string_end) {
      g_task_return_pointer(task, g_steal_pointer(&data->buffer), g_free);
      return;
    }
    data->buffer = grow_if_full(data->buffer, &data->buffer_length, data->read);
  }

  // One byte in each turn of the main loop.
  chain = static_cast<GTask *>(g_steal_pointer(&task));
  data->step.in_loop = FALSE;
  gvc::read_all(chain, data->buffer + data->read, 1, g_task_get_priority(chain), byte_done);
}

/**
 * gvc_data_input_stream_read_string_async:
 * @stream: a #GvcDataInputStream
 * @string_end: the terminator
 * @io_priority: the priority of the first read; the others are made at %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the string is there or a read has failed
 * @user_data: data for @callback
 *
 * Reads one string without blocking. @callback runs in the thread-default main context of the
 * caller, after this function has returned. The arguments are not checked.
 *
 * Since: 0.1
 */
void
gvc_data_input_stream_read_string_async(GvcDataInputStream *stream, gchar string_end,
                                        int io_priority, GCancellable *cancellable,
                                        GAsyncReadyCallback callback, gpointer user_data)
{
  auto *task = g_task_new(stream, cancellable, callback, user_data);
  auto *data = g_slice_new0(AsyncRead);
  data->string_end = string_end;
  data->buffer = static_cast<gchar *>(g_malloc(initial_buffer_length));
  data->buffer_length = initial_buffer_length;
  g_task_set_task_data(task, data, free_async_data);

  gvc::read_all(task, data->buffer, 1, io_priority, byte_done);
}

/**
 * gvc_data_input_stream_read_string_finish:
 * @stream: a #GvcDataInputStream
 * @result: the result that the callback was given
 * @length: (out) (optional): the length of the string in bytes, terminator included
 * @error: return location for a #GError
 *
 * Ends gvc_data_input_stream_read_string_async(). Errors are those of the base stream, unchanged.
 *
 * Returns: (transfer full) (array length=length) (element-type guint8): the string with its
 *   terminator and no NUL behind it, or %NULL with @error set; free it with g_free()
 *
 * Since: 0.1
 */
gchar *
gvc_data_input_stream_read_string_finish(GvcDataInputStream *stream, GAsyncResult *result,
                                         gsize *length, GError **error)
{
  GVC_CHECK_VAL(GVC_IS_DATA_INPUT_STREAM(stream), nullptr);
  GVC_CHECK_VAL(g_task_is_valid(result, stream), nullptr);

  auto *task = reinterpret_cast<GTask *>(result);
  auto *string = static_cast<gchar *>(g_task_propagate_pointer(task, error));
  if (string && length)
    *length = static_cast<AsyncRead *>(g_task_get_task_data(task))->read;
  return string;
}
