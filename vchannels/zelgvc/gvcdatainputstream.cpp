// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcdatainputstream.h"
#include "gvcfixedtexts.h"
#include "gvcinitialisers.h"

#include "engine/gvcpollable.h"
#include "engine/gvcreader.h"

#include <utility>

/**
 * GvcDataInputStream:
 *
 * A filter stream that reads strings that end with a terminator byte of the caller's choice.
 *
 * Only the terminator, a read error or a cancellation ends a string. At the end of the stream the
 * readers keep reading, so pass a #GCancellable. A string can have any length.
 *
 * The readers consume no byte after the terminator. They look ahead into the socket, the stages of
 * a channel or a #GBufferedInputStream, and read exactly the bytes of the string. They read any
 * other base stream one byte at a time.
 *
 * Start the next string only after the last one has ended. Closing the stream closes its base
 * stream. Use a stream from one thread at a time.
 *
 * Since: 0.1
 */
G_DEFINE_TYPE_WITH_CODE(GvcDataInputStream, gvc_data_input_stream, G_TYPE_FILTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              gvc::init_pollable_filter_input))
GVC_NO_INITIALISERS(GvcDataInputStream, gvc_data_input_stream)

// The stream to look into for the bytes of the next read: the base stream, unless a derived class
// overrides reading.
static GInputStream *
read_from(GInputStream *stream)
{
  auto *own = G_INPUT_STREAM_GET_CLASS(stream);
  auto *parent = static_cast<GInputStreamClass *>(gvc_data_input_stream_parent_class);
  return own->read_fn == parent->read_fn && own->read_async == parent->read_async
             ? G_FILTER_INPUT_STREAM(stream)->base_stream
             : stream;
}

namespace
{

// A string as it arrives, in a buffer that doubles when it is full.
class PartialString
{
public:
  explicit PartialString(gchar string_end = 0)
      : end_(string_end), buffer_(static_cast<gchar *>(g_malloc(initial_length)))
  {
  }
  PartialString(const PartialString &) = delete;
  ~PartialString()
  {
    g_free(buffer_);
  }

  void
  set_end(gchar string_end)
  {
    end_ = string_end;
  }
  gsize
  size() const
  {
    return used_;
  }
  gchar *
  tail() const
  {
    return buffer_ + used_;
  }
  gsize
  room() const
  {
    return length_ - used_;
  }
  // The size of the next read. `ahead` bytes at the tail are known to come.
  gsize
  wanted(gssize ahead) const
  {
    if (ahead <= 0)
      return 1;
    auto *end = static_cast<gchar *>(memchr(tail(), end_, static_cast<gsize>(ahead)));
    return static_cast<gsize>(end ? end - tail() + 1 : ahead);
  }
  // Accepts `count` bytes at the tail. Returns TRUE if the last one is the terminator.
  gboolean
  add(gsize count)
  {
    used_ += count;
    if (count > 0 && buffer_[used_ - 1] == end_)
      return TRUE;
    if (used_ == length_) {
      length_ *= 2;
      buffer_ = static_cast<gchar *>(g_realloc(buffer_, length_));
    }
    return FALSE;
  }
  gchar *
  steal()
  {
    return std::exchange(buffer_, nullptr);
  }

private:
  static constexpr gsize initial_length = 1024;

  gchar end_;
  gchar *buffer_;
  gsize length_ = initial_length;
  gsize used_ = 0;
};

// Reads bytes that belong to the string for certain, and single bytes if it cannot look ahead.
class StringRead final : public gvc::Reader
{
public:
  void
  begin(gchar string_end, int io_priority)
  {
    string_.set_end(string_end);
    expect(string_.tail(), 1);
    start(io_priority);
  }
  gsize
  length() const
  {
    return string_.size();
  }

private:
  gvc::Next
  attempt() override
  {
    if (g_cancellable_set_error_if_cancelled(cancellable(), &error_))
      return gvc::Next::done;
    gssize ahead = gvc::look_ahead(polls_ ? target_ : read_from(stream_), string_.tail(),
                                   string_.room(), &error_);
    if (ahead < 0)
      return blocked_or_failed();
    budget_ = ahead > 0 ? attempts_ahead : attempts_bytewise;
    expect(string_.tail(), string_.wanted(ahead));
    return Reader::attempt();
  }
  // The first read has the priority of the caller, the others the default priority.
  gvc::Next
  part_done() override
  {
    if (received() > 0 && string_.add(received()))
      return gvc::Next::done;
    auto next = next_part();
    // The end of the stream does not end the string.
    return received() > 0 ? next : gvc::Next::turn;
  }
  void
  succeed() override
  {
    g_task_return_pointer(task_, string_.steal(), g_free);
  }

  static constexpr int attempts_ahead = 4;
  static constexpr int attempts_bytewise = 256;

  PartialString string_;
};

} // namespace

/**
 * gvc_data_input_stream_new:
 * @base_stream: the stream to read strings from
 *
 * Creates a stream that reads strings from @base_stream, for example the input stream of a
 * #GvcConnection.
 *
 * Returns: (transfer full): a new stream, which holds a reference to @base_stream; release it with
 *   g_object_unref()
 *
 * Since: 0.1
 */
GvcDataInputStream *
gvc_data_input_stream_new(GInputStream *base_stream)
{
  g_return_val_if_fail(G_IS_INPUT_STREAM(base_stream), nullptr);

  return GVC_DATA_INPUT_STREAM(
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
 * Reads one string and blocks until its terminator arrives. The end of the stream does not end the
 * string. Errors are those of the base stream, unchanged; an error loses the bytes read so far.
 *
 * Returns: (transfer full) (array length=length) (element-type guint8): the string with its
 *   terminator and no additional NUL, or %NULL with @error set; free it with g_free()
 *
 * Since: 0.1
 */
gchar *
gvc_data_input_stream_read_string(GvcDataInputStream *stream, gchar string_end, gsize *length,
                                  GCancellable *cancellable, GError **error)
{
  g_return_val_if_fail(GVC_IS_DATA_INPUT_STREAM(stream), nullptr);

  auto *in = G_INPUT_STREAM(stream);
  auto *base = read_from(in);
  PartialString string(string_end);

  for (;;) {
    GError *failure = nullptr;
    gssize ahead = gvc::look_ahead(base, string.tail(), string.room(), &failure);
    if (failure && !g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      g_propagate_error(error, failure);
      return nullptr;
    }
    g_clear_error(&failure);
    gssize nread = g_input_stream_read(in, string.tail(), string.wanted(ahead), cancellable, error);
    if (nread < 0)
      return nullptr;
    if (string.add(static_cast<gsize>(nread)))
      break;
  }

  if (length)
    *length = string.size();
  return string.steal();
}

/**
 * gvc_data_input_stream_read_string_async:
 * @stream: a #GvcDataInputStream
 * @string_end: the terminator
 * @io_priority: the priority of the first read; the others are made at %G_PRIORITY_DEFAULT
 * @cancellable: (nullable): a #GCancellable
 * @callback: (scope async): called when the string has arrived or a read has failed
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
  StringRead::create<StringRead>(stream, cancellable, callback, user_data,
                                 gvc_data_input_stream_read_string_async)
      ->begin(string_end, io_priority);
}

/**
 * gvc_data_input_stream_read_string_finish:
 * @stream: a #GvcDataInputStream
 * @result: the result that the callback received
 * @length: (out) (optional): the length of the string in bytes, terminator included
 * @error: return location for a #GError
 *
 * Finishes gvc_data_input_stream_read_string_async(). Errors are those of the base stream,
 * unchanged.
 *
 * Returns: (transfer full) (array length=length) (element-type guint8): the string with its
 *   terminator and no additional NUL, or %NULL with @error set; free it with g_free()
 *
 * Since: 0.1
 */
gchar *
gvc_data_input_stream_read_string_finish(GvcDataInputStream *stream, GAsyncResult *result,
                                         gsize *length, GError **error)
{
  g_return_val_if_fail(GVC_IS_DATA_INPUT_STREAM(stream), nullptr);
  g_return_val_if_fail(g_task_is_valid(result, stream), nullptr);

  auto *string = static_cast<gchar *>(g_task_propagate_pointer(G_TASK(result), error));
  if (string && length)
    *length = StringRead::of<StringRead>(result)->length();
  return string;
}
