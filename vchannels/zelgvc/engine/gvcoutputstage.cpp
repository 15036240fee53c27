// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcoutputstage.h"
#include "gvcbuffer.h"
#include "gvcpollable.h"

#include <vchannels/zelgvc/gvcfixedtexts.h>

#include <utility>

using gvc::Buffer;
using gvc::Sending;

G_DECLARE_FINAL_TYPE(GvcOutputStage, gvc_output_stage, GVC, OUTPUT_STAGE, GConverterOutputStream)

struct _GvcOutputStage {
  GConverterOutputStream parent;
  GConverter *converter; // that of the parent
  GConverterIface *iface;
  Buffer unconverted; // incomplete input of the converter
  Buffer converted;   // not yet accepted by the base stream
  gsize first_part;   // of `converted`, made of the first of two vectors
  Buffer retried;     // accepted by a write that failed: not accepted twice if it is tried again
  GError *deferred;   // met after the bytes of a write had been accepted; for the next operation
  gboolean finished;  // the converter has said so; nothing more is accepted
  gboolean gathered;  // by the base stream
};

static void gvc_output_stage_pollable_init(GPollableOutputStreamInterface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcOutputStage, gvc_output_stage, G_TYPE_CONVERTER_OUTPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_OUTPUT_STREAM,
                                              gvc_output_stage_pollable_init))

static GOutputStream *
base_stream(GvcOutputStage *self)
{
  return self->parent.parent_instance.base_stream;
}

// A larger write is converted in pieces. This bounds the memory of both peers, which hold a whole
// block or record at a time, and the time of one dispatch.
static constexpr gsize max_at_once = 1024 * 1024;

// The room that `size` bytes of input probably need: enough for the library's own converters. The
// minimum lets other converters end a flush in one call: zlib starts again when it runs out of
// room.
static gsize
likely_room(gsize size)
{
  constexpr gsize minimum = 4096;
  return MAX(size + size / 10 + 64, minimum);
}

// One call of the converter on `in`, repeated with more room for as long as it asks for that.
static GConverterResult
convert_once(GvcOutputStage *self, const guint8 *in, gsize size, GConverterFlags flags,
             gsize *consumed, GError **error)
{
  gsize room = likely_room(size);

  for (;;) {
    GError *failure = nullptr;
    gsize produced = 0;
    *consumed = 0;
    self->converted.reserve(room);
    auto result =
        self->iface->convert(self->converter, in, size, self->converted.tail(),
                             self->converted.tail_room(), flags, consumed, &produced, &failure);
    if (result != G_CONVERTER_ERROR) {
      self->converted.produced(produced);
      self->finished |= result == G_CONVERTER_FINISHED;
      return result;
    }
    if (!g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_NO_SPACE)) {
      g_propagate_error(error, failure);
      return result;
    }
    g_clear_error(&failure);
    room = self->converted.tail_room() * 2;
  }
}

// Converts as much of `in` as possible. Reports an error only if nothing was converted before it:
// otherwise the next call meets the error again.
static gboolean
convert_all(GvcOutputStage *self, const guint8 *in, gsize size, gsize *used, GError **error)
{
  *used = 0;
  while (*used < size && !self->finished) {
    GError *failure = nullptr;
    gsize consumed;
    if (convert_once(self, in + *used, size - *used, G_CONVERTER_NO_FLAGS, &consumed, &failure) ==
        G_CONVERTER_ERROR) {
      if (*used == 0) {
        g_propagate_error(error, failure);
        return FALSE;
      }
      g_error_free(failure);
      break;
    }
    *used += consumed;
  }
  return TRUE;
}

// Takes over up to `size` bytes of the caller's: converts them, or keeps them for a converter that
// needs more at once. Returns how many were taken, or -1 with an error and none taken.
static gssize
accept(GvcOutputStage *self, const guint8 *in, gsize size, GError **error)
{
  gboolean buffered = self->unconverted.size() > 0;
  GError *failure = nullptr;
  gsize used;

  if (buffered)
    self->unconverted.append(in, size);
  gboolean done = buffered ? convert_all(self, self->unconverted.data(), self->unconverted.size(),
                                         &used, &failure)
                           : convert_all(self, in, size, &used, &failure);
  if (done) {
    if (!buffered)
      return static_cast<gssize>(used);
    self->unconverted.consume(used);
    return static_cast<gssize>(size);
  }

  if (g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT)) {
    g_error_free(failure);
    if (!buffered)
      self->unconverted.append(in, size);
    return static_cast<gssize>(size);
  }
  if (buffered)
    self->unconverted.truncate(size);
  g_propagate_error(error, failure);
  return -1;
}

// Answers a write after the end of the converted stream as GIO's own class does.
static gssize
write_after_end(GError **error)
{
  if (glib_check_version(2, 83, 1))
    return 0;
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                      "The converted stream has ended");
  return -1;
}

// Splits `converted` into the writes to the base stream.
static gsize
parts(GvcOutputStage *self, GOutputVector vectors[2])
{
  auto *data = self->converted.data();
  gsize size = self->converted.size(), first = self->first_part;

  if (first == 0 || first >= size) {
    vectors[0] = {.buffer = data, .size = size};
    return size > 0 ? 1 : 0;
  }
  vectors[0] = {.buffer = data, .size = first};
  vectors[1] = {.buffer = data + first, .size = size - first};
  return self->gathered ? 2 : 1;
}

static gssize
write_parts(GvcOutputStage *self, GOutputVector *vectors, gsize n_vectors, gboolean blocking,
            GCancellable *cancellable, GError **error)
{
  auto *base = base_stream(self);
  gsize written = 0;

  if (blocking && n_vectors == 1)
    return g_output_stream_write(base, vectors->buffer, vectors->size, cancellable, error);
  if (blocking)
    return g_output_stream_writev(base, vectors, n_vectors, &written, cancellable, error)
               ? static_cast<gssize>(written)
               : -1;
  if (!g_output_stream_set_pending(base, error))
    return -1;
  gssize result = gvc::write_nonblocking(base, vectors, n_vectors, Sending::kept, nullptr, error);
  g_output_stream_clear_pending(base);
  return result;
}

// Hands converted bytes to the base stream until there are none.
static gboolean
push(GvcOutputStage *self, gboolean blocking, GCancellable *cancellable, GError **error)
{
  GOutputVector vectors[2];

  if (self->deferred) {
    g_propagate_error(error, std::exchange(self->deferred, nullptr));
    return FALSE;
  }
  while (gsize n_vectors = parts(self, vectors)) {
    GError *failure = nullptr;
    gssize result = write_parts(self, vectors, n_vectors, blocking, cancellable, &failure);
    if (result < 0) {
      g_propagate_error(error, gvc::or_unknown(failure));
      return FALSE;
    }
    auto written = static_cast<gsize>(result);
    self->converted.consume(written);
    self->first_part -= MIN(written, self->first_part);
    if (written > 0)
      continue;
    // As GIO's own class, but without blocking the main loop gets its turn.
    g_log("GLib-GIO", G_LOG_LEVEL_WARNING, "Write returned zero without error");
    if (!blocking) {
      gvc::set_would_block(error);
      return FALSE;
    }
  }
  return TRUE;
}

// Accepts the first vector, up to the most that is converted at once, and the second one if there
// was room for all of the first. Returns how many bytes were taken, or -1 with an error and none.
// An error of the second vector is for the next operation.
static gssize
accept_vectors(GvcOutputStage *self, const GOutputVector *vectors, gsize n_vectors, GError **error,
               GError **next_error)
{
  auto accept_one = [self](const GOutputVector &vector, GError **failure) {
    return accept(self, static_cast<const guint8 *>(vector.buffer), MIN(vector.size, max_at_once),
                  failure);
  };
  gssize first = accept_one(vectors[0], error);
  if (n_vectors < 2 || first != static_cast<gssize>(vectors[0].size) || self->finished)
    return first;

  self->first_part = self->converted.size();
  gssize second = accept_one(vectors[1], next_error);
  return first + MAX(second, 0);
}

// How many bytes at the start of the vectors a failed write has left with the stage: a write may be
// tried again in smaller pieces. -1 if they are other bytes.
static gssize
count_retried(GvcOutputStage *self, const GOutputVector *vectors, gsize n_vectors)
{
  auto *expected = self->retried.data();
  gsize left = self->retried.size();

  for (gsize i = 0; i < n_vectors && left > 0; i++) {
    gsize part = MIN(left, vectors[i].size);
    if (part > 0 && std::memcmp(expected, vectors[i].buffer, part) != 0)
      return -1;
    expected += part;
    left -= part;
  }
  return static_cast<gssize>(self->retried.size() - left);
}

static void
remember_retry(GvcOutputStage *self, const GOutputVector *vectors, gsize n_vectors, gsize count)
{
  for (gsize i = 0; i < n_vectors && count > 0; i++) {
    gsize part = MIN(count, vectors[i].size);
    self->retried.append(vectors[i].buffer, part);
    count -= part;
  }
}

static gboolean
send(GvcOutputStage *self, Sending sending, GCancellable *cancellable, GError **error)
{
  return push(self, sending == Sending::blocking, cancellable, error) &&
         (sending != Sending::until_sent || gvc::drain_stages(base_stream(self), error));
}

// Nothing is accepted before the last write has left, so a slow peer cannot make a stage grow.
static gssize
write_vectors(GvcOutputStage *self, const GOutputVector *vectors, gsize n_vectors, Sending sending,
              GCancellable *cancellable, GError **error)
{
  if (!send(self, sending, cancellable, error))
    return -1;
  if (self->retried.size() > 0) {
    gssize again = count_retried(self, vectors, n_vectors);
    self->retried.consume(static_cast<gsize>(MAX(again, 0)));
    if (again < 0 || self->retried.size() == 0)
      self->retried.release();
    if (again >= 0)
      return again;
  }
  if (self->finished)
    return write_after_end(error);

  GError *failure = nullptr;
  gssize taken = accept_vectors(self, vectors, n_vectors, error, &self->deferred);
  if (taken < 0)
    return -1;
  // The second vector waits for the next operation to fail.
  auto *next_error = std::exchange(self->deferred, nullptr);
  gboolean sent = send(self, sending, cancellable, &failure);
  self->deferred = next_error;
  if (sent)
    return taken;
  gboolean would_block = g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK);
  // The first failure is reported first; the other one comes again.
  if (!would_block && self->deferred) {
    g_error_free(failure);
    failure = std::exchange(self->deferred, nullptr);
  }
  if (sending != Sending::kept) {
    remember_retry(self, vectors, n_vectors, static_cast<gsize>(taken));
    g_propagate_error(error, failure);
    return -1;
  }
  if (!would_block)
    self->deferred = std::exchange(failure, nullptr);
  g_clear_error(&failure);
  return taken;
}

static gssize
gvc_output_stage_write(GOutputStream *stream, const void *buffer, gsize count,
                       GCancellable *cancellable, GError **error)
{
  GOutputVector vector = {.buffer = buffer, .size = count};
  return write_vectors(GVC_OUTPUT_STAGE(stream), &vector, 1, Sending::blocking, cancellable, error);
}

static gboolean
gvc_output_stage_writev(GOutputStream *stream, const GOutputVector *vectors, gsize n_vectors,
                        gsize *bytes_written, GCancellable *cancellable, GError **error)
{
  gssize written = write_vectors(GVC_OUTPUT_STAGE(stream), vectors, n_vectors, Sending::blocking,
                                 cancellable, error);
  *bytes_written = static_cast<gsize>(MAX(written, 0));
  return written >= 0;
}

static gboolean
gvc_output_stage_flush(GOutputStream *stream, GCancellable *cancellable, GError **error)
{
  auto *self = GVC_OUTPUT_STAGE(stream);
  gboolean closing = g_output_stream_is_closing(stream);
  auto flags = closing ? G_CONVERTER_INPUT_AT_END : G_CONVERTER_FLUSH;
  auto result = G_CONVERTER_CONVERTED;

  if (!push(self, TRUE, cancellable, error))
    return FALSE;
  while (result != G_CONVERTER_FLUSHED && !self->finished) {
    gsize consumed;
    result = convert_once(self, self->unconverted.data(), self->unconverted.size(), flags,
                          &consumed, error);
    if (result == G_CONVERTER_ERROR)
      return FALSE;
    self->unconverted.consume(consumed);
  }
  if (!push(self, TRUE, cancellable, error))
    return FALSE;

  // Closing a filter stream closes its base stream as well.
  return closing || g_output_stream_flush(base_stream(self), cancellable, error);
}

static void
gvc_output_stage_constructed(GObject *object)
{
  auto *self = GVC_OUTPUT_STAGE(object);

  G_OBJECT_CLASS(gvc_output_stage_parent_class)->constructed(object);
  self->converter = g_converter_output_stream_get_converter(&self->parent);
  self->iface = G_CONVERTER_GET_IFACE(self->converter);
  self->gathered = gvc::gathers(base_stream(self));
}

static void
gvc_output_stage_finalize(GObject *object)
{
  auto *self = GVC_OUTPUT_STAGE(object);

  self->unconverted.release();
  self->converted.release();
  self->retried.release();
  g_clear_error(&self->deferred);

  G_OBJECT_CLASS(gvc_output_stage_parent_class)->finalize(object);
}

static void
gvc_output_stage_class_init(GvcOutputStageClass *klass)
{
  G_OBJECT_CLASS(klass)->constructed = gvc_output_stage_constructed;
  G_OBJECT_CLASS(klass)->finalize = gvc_output_stage_finalize;
  G_OUTPUT_STREAM_CLASS(klass)->write_fn = gvc_output_stage_write;
  G_OUTPUT_STREAM_CLASS(klass)->writev_fn = gvc_output_stage_writev;
  G_OUTPUT_STREAM_CLASS(klass)->flush = gvc_output_stage_flush;
}

static void
gvc_output_stage_init(GvcOutputStage *)
{
}

// GIO's asynchronous writes end when the bytes have left, as with the filters of gvcpollable.h.
static gssize
write_nonblocking(GPollableOutputStream *stream, const GOutputVector *vectors, gsize n_vectors,
                  GError **error)
{
  auto *stage = G_OUTPUT_STREAM(stream);
  auto sending = g_output_stream_has_pending(stage) ? Sending::until_sent : Sending::kept;
  return gvc::write_to_stage(stage, vectors, n_vectors, sending, error);
}

static gssize
gvc_output_stage_write_nonblocking(GPollableOutputStream *stream, const void *buffer, gsize count,
                                   GError **error)
{
  GOutputVector vector = {.buffer = buffer, .size = count};
  return write_nonblocking(stream, &vector, 1, error);
}

static GPollableReturn
gvc_output_stage_writev_nonblocking(GPollableOutputStream *stream, const GOutputVector *vectors,
                                    gsize n_vectors, gsize *bytes_written, GError **error)
{
  GError *failure = nullptr;
  gssize written = write_nonblocking(stream, vectors, n_vectors, &failure);

  *bytes_written = static_cast<gsize>(MAX(written, 0));
  if (written >= 0)
    return G_POLLABLE_RETURN_OK;
  if (g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
    g_error_free(failure);
    return G_POLLABLE_RETURN_WOULD_BLOCK;
  }
  g_propagate_error(error, failure);
  return G_POLLABLE_RETURN_FAILED;
}

static void
gvc_output_stage_pollable_init(GPollableOutputStreamInterface *iface)
{
  gvc::init_pollable_filter_output(iface);
  iface->write_nonblocking = gvc_output_stage_write_nonblocking;
  iface->writev_nonblocking = gvc_output_stage_writev_nonblocking;
}

GOutputStream *
gvc::output_stage_new(GOutputStream *base_stream, GConverter *converter)
{
  if (!check_as_gio(G_IS_OUTPUT_STREAM(base_stream), "g_converter_output_stream_new",
                    "G_IS_OUTPUT_STREAM (base_stream)"))
    return nullptr;

  return G_OUTPUT_STREAM(g_object_new(gvc_output_stage_get_type(), "base-stream", base_stream,
                                      "converter", converter, nullptr));
}

GOutputStream *
gvc::stage_base(GOutputStream *stream)
{
  return GVC_IS_OUTPUT_STAGE(stream) ? base_stream(GVC_OUTPUT_STAGE(stream)) : nullptr;
}

gboolean
gvc::drain_stages(GOutputStream *stream, GError **error)
{
  // From the caller down, since the bytes that one stage passes on land in the next.
  for (; GVC_IS_OUTPUT_STAGE(stream); stream = base_stream(GVC_OUTPUT_STAGE(stream)))
    if (!push(GVC_OUTPUT_STAGE(stream), FALSE, nullptr, error))
      return FALSE;
  return TRUE;
}

gssize
gvc::write_to_stage(GOutputStream *stage, const GOutputVector *vectors, gsize n_vectors,
                    Sending sending, GError **error)
{
  return write_vectors(GVC_OUTPUT_STAGE(stage), vectors, n_vectors, sending, nullptr, error);
}
