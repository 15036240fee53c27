// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcoutputstage.h"
#include "gvcpollable.h"

#include <cstring>

namespace
{

// Bytes on their way: appended at the end, taken from the front. They are what a stage below may
// be there to encrypt, so the memory is wiped before it is given back.
class Buffer
{
public:
  gsize
  size() const
  {
    return end_ - begin_;
  }
  const guint8 *
  data() const
  {
    return memory_ + begin_;
  }
  guint8 *
  tail() const
  {
    return memory_ + end_;
  }
  gsize
  tail_room() const
  {
    return capacity_ - end_;
  }

  // Makes tail_room() at least `room`.
  void
  reserve(gsize room)
  {
    if (tail_room() >= room)
      return;
    if (size() > 0)
      std::memmove(memory_, data(), size());
    end_ -= begin_;
    begin_ = 0;
    if (tail_room() >= room)
      return;

    Buffer grown;
    grown.capacity_ = end_ + room;
    grown.memory_ = static_cast<guint8 *>(g_malloc(grown.capacity_));
    if (end_ > 0)
      std::memcpy(grown.memory_, memory_, end_);
    grown.end_ = end_;
    release();
    *this = grown;
  }
  void
  produced(gsize count)
  {
    end_ += count;
  }
  void
  append(const void *bytes, gsize count)
  {
    reserve(count);
    std::memcpy(tail(), bytes, count);
    produced(count);
  }
  void
  truncate(gsize count)
  {
    end_ -= count;
  }
  void
  consume(gsize count)
  {
    begin_ += count;
    if (begin_ < end_)
      return;
    begin_ = end_ = 0;
    // A channel that has carried one large message does not keep the memory for it.
    if (capacity_ > kept_capacity)
      release();
  }
  void
  release()
  {
    if (memory_)
      explicit_bzero(memory_, capacity_);
    g_free(memory_);
    *this = Buffer();
  }

private:
  static constexpr gsize kept_capacity = 128 * 1024;

  guint8 *memory_ = nullptr;
  gsize begin_ = 0;
  gsize end_ = 0;
  gsize capacity_ = 0;
};

struct GvcOutputStage {
  GConverterOutputStream parent;
  Buffer unconverted; // what the converter wants more input for
  Buffer converted;   // what the base stream has not taken yet
  GError *deferred;   // met after the bytes of a write had been accepted; for the next operation
  gsize kept;         // of a blocking write that failed: bytes that it accepted all the same
  gboolean finished;  // the converter has said so; nothing more is accepted
};

struct GvcOutputStageClass {
  GConverterOutputStreamClass parent_class;
};

} // namespace

static GType gvc_output_stage_get_type();
static void gvc_output_stage_pollable_init(GPollableOutputStreamInterface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcOutputStage, gvc_output_stage, G_TYPE_CONVERTER_OUTPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_OUTPUT_STREAM,
                                              gvc_output_stage_pollable_init))

static GOutputStream *
base_stream(GvcOutputStage *self)
{
  return self->parent.parent_instance.base_stream;
}

// The most of a write that is converted at once. It bounds the memory of both peers, who hold a
// whole block or record at a time, and how long one step of a main loop takes.
static constexpr gsize most_at_once = 1024 * 1024;

// How much room `size` bytes of input most likely need: enough for each of the library's own
// converters, and for others a first offer, with what is needed to end a flush in one call (zlib
// begins it anew when it runs out of room).
static gsize
likely_room(gsize size)
{
  constexpr gsize least = 4096;
  return MAX(size + size / 10 + 64, least);
}

// One call of the converter on `in`, repeated with more room for as long as it asks for that.
static GConverterResult
convert_once(GvcOutputStage *self, const guint8 *in, gsize size, GConverterFlags flags,
             gsize *consumed, GError **error)
{
  auto *converter = g_converter_output_stream_get_converter(&self->parent);
  gsize room = likely_room(size);

  for (;;) {
    GError *failure = nullptr;
    gsize produced = 0;
    *consumed = 0;
    self->converted.reserve(room);
    auto result =
        g_converter_convert(converter, in, size, self->converted.tail(),
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

// Converts `in` as far as it goes. An error counts only where nothing could be converted before it:
// otherwise it comes again with the next call.
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

static GvcOutputStage *
as_stage(GOutputStream *stream)
{
  return G_TYPE_CHECK_INSTANCE_TYPE(stream, gvc_output_stage_get_type())
             ? reinterpret_cast<GvcOutputStage *>(stream)
             : nullptr;
}

// As g_output_stream_write_all(), but *written counts what a stage has kept of a write that failed:
// it is on its way, and must not come twice.
static gboolean
write_all(GOutputStream *stream, const Buffer &bytes, gsize *written, GCancellable *cancellable,
          GError **error)
{
  auto *stage = as_stage(stream);

  if (stage)
    stage->kept = 0;
  if (g_output_stream_write_all(stream, bytes.data(), bytes.size(), written, cancellable, error))
    return TRUE;
  if (stage)
    *written += stage->kept;
  return FALSE;
}

// Hands converted bytes to the base stream until there are none.
static gboolean
push_blocking(GvcOutputStage *self, GCancellable *cancellable, GError **error)
{
  if (self->deferred) {
    g_propagate_error(error, g_steal_pointer(&self->deferred));
    return FALSE;
  }

  gsize written = 0;
  gboolean done = self->converted.size() == 0 ||
                  write_all(base_stream(self), self->converted, &written, cancellable, error);
  self->converted.consume(written);
  return done;
}

static gboolean
push_nonblocking(GvcOutputStage *self, GError **error)
{
  if (self->deferred) {
    g_propagate_error(error, g_steal_pointer(&self->deferred));
    return FALSE;
  }

  while (self->converted.size() > 0) {
    gssize written =
        gvc::write_nonblocking(reinterpret_cast<GPollableOutputStream *>(base_stream(self)),
                               self->converted.data(), self->converted.size(), error);
    if (written < 0)
      return FALSE;
    self->converted.consume(static_cast<gsize>(written));
  }
  return TRUE;
}

static gssize
gvc_output_stage_write(GOutputStream *stream, const void *buffer, gsize count,
                       GCancellable *cancellable, GError **error)
{
  auto *self = reinterpret_cast<GvcOutputStage *>(stream);
  auto *in = static_cast<const guint8 *>(buffer);
  gsize accepted = 0, part, taken;

  if (!push_blocking(self, cancellable, error))
    return -1;
  do {
    part = MIN(count - accepted, most_at_once);
    gssize result = accept(self, in + accepted, part, accepted == 0 ? error : nullptr);
    if (result < 0)
      return accepted > 0 ? static_cast<gssize>(accepted) : -1;
    taken = static_cast<gsize>(result);
    accepted += taken;
    if (!push_blocking(self, cancellable, error)) {
      self->kept = accepted;
      return -1;
    }
  } while (taken == part && accepted < count);
  return static_cast<gssize>(accepted);
}

static gboolean
gvc_output_stage_flush(GOutputStream *stream, GCancellable *cancellable, GError **error)
{
  auto *self = reinterpret_cast<GvcOutputStage *>(stream);
  gboolean closing = g_output_stream_is_closing(stream);
  auto flags = closing ? G_CONVERTER_INPUT_AT_END : G_CONVERTER_FLUSH;
  auto result = G_CONVERTER_CONVERTED;

  if (!push_blocking(self, cancellable, error))
    return FALSE;
  while (result != G_CONVERTER_FLUSHED && !self->finished) {
    gsize consumed;
    result = convert_once(self, self->unconverted.data(), self->unconverted.size(), flags,
                          &consumed, error);
    if (result == G_CONVERTER_ERROR)
      return FALSE;
    self->unconverted.consume(consumed);
  }
  if (!push_blocking(self, cancellable, error))
    return FALSE;

  // Closing goes on to the base stream by itself.
  return closing || g_output_stream_flush(base_stream(self), cancellable, error);
}

static void
gvc_output_stage_finalize(GObject *object)
{
  auto *self = reinterpret_cast<GvcOutputStage *>(object);

  self->unconverted.release();
  self->converted.release();
  g_clear_error(&self->deferred);

  G_OBJECT_CLASS(gvc_output_stage_parent_class)->finalize(object);
}

static void
gvc_output_stage_class_init(GvcOutputStageClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = gvc_output_stage_finalize;
  G_OUTPUT_STREAM_CLASS(klass)->write_fn = gvc_output_stage_write;
  G_OUTPUT_STREAM_CLASS(klass)->flush = gvc_output_stage_flush;
}

static void
gvc_output_stage_init(GvcOutputStage *)
{
}

static gssize
gvc_output_stage_write_nonblocking(GPollableOutputStream *stream, const void *buffer, gsize count,
                                   GError **error)
{
  auto *self = reinterpret_cast<GvcOutputStage *>(stream);

  // Nothing is accepted before the last write has left, so a slow peer cannot make this grow.
  if (!push_nonblocking(self, error))
    return -1;
  gssize taken = accept(self, static_cast<const guint8 *>(buffer), MIN(count, most_at_once), error);
  if (taken >= 0 && !push_nonblocking(self, &self->deferred) &&
      g_error_matches(self->deferred, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK))
    g_clear_error(&self->deferred);
  return taken;
}

static void
gvc_output_stage_pollable_init(GPollableOutputStreamInterface *iface)
{
  gvc::init_pollable_filter_output(iface);
  iface->write_nonblocking = gvc_output_stage_write_nonblocking;
}

GOutputStream *
gvc::output_stage_new(GOutputStream *base_stream, GConverter *converter)
{
  // As GIO's constructor says it.
  if (!G_IS_OUTPUT_STREAM(base_stream)) {
    g_return_if_fail_warning("GLib-GIO", "g_converter_output_stream_new",
                             "G_IS_OUTPUT_STREAM (base_stream)");
    return nullptr;
  }

  return static_cast<GOutputStream *>(g_object_new(gvc_output_stage_get_type(), "base-stream",
                                                   base_stream, "converter", converter, nullptr));
}

gvc::Drained
gvc::drain_stages(GOutputStream *stream, GPollableOutputStream **wait_for, GError **error)
{
  // From the caller down, since what one stage passes on lands in the next.
  for (; G_IS_FILTER_OUTPUT_STREAM(stream);
       stream = g_filter_output_stream_get_base_stream(G_FILTER_OUTPUT_STREAM(stream))) {
    auto *stage = as_stage(stream);
    if (!stage)
      continue;
    // What cannot be polled was written by a thread of GIO's, which blocks until all has left.
    auto *base = gvc::pollable_base(&stage->parent.parent_instance);
    GError *failure = nullptr;
    if (!base || push_nonblocking(stage, &failure))
      continue;
    if (g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      g_error_free(failure);
      *wait_for = base;
      return Drained::blocked;
    }
    g_propagate_error(error, failure);
    return Drained::failed;
  }
  return Drained::done;
}
