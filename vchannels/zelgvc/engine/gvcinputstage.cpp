// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcinputstage.h"
#include "gvcbuffer.h"
#include "gvcpollable.h"

using gvc::Buffer;

// A unit is what the converter takes at once: a block or a record. Bytes go from the base stream to
// `raw`, and from there straight to the reader if a unit fits, else to `converted`.
namespace
{

struct GvcInputStage {
  GConverterInputStream parent;
  GConverter *converter; // that of the parent
  GConverterIface *iface;
  GvcInputStage *below; // the base stream if it is a stage
  Buffer raw;
  Buffer converted;
  gsize unit; // the larger one of the last two, for the next read from the base stream
  gsize last_unit;
  gboolean starved;  // the converter needs more than `raw` holds
  gboolean at_end;   // of the base stream
  gboolean finished; // the converter has said so
};

struct GvcInputStageClass {
  GConverterInputStreamClass parent_class;
};

} // namespace

static GType gvc_input_stage_get_type();
static void gvc_input_stage_pollable_init(GPollableInputStreamInterface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcInputStage, gvc_input_stage, G_TYPE_CONVERTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              gvc_input_stage_pollable_init))

// A peer may send units that hold nothing for as long as it likes. After so many a read that must
// not block lets the main loop turn.
static constexpr int most_empty_units = 256;

static constexpr gsize least_read = 4096;

static GInputStream *
base_stream(GvcInputStage *self)
{
  return self->parent.parent_instance.base_stream;
}

static gssize read_converted(GvcInputStage *self, void *to, gsize room, gboolean blocking,
                             GCancellable *cancellable, GError **error);

static gssize
read_base(GvcInputStage *self, void *to, gsize room, gboolean blocking, GCancellable *cancellable,
          GError **error)
{
  auto *base = base_stream(self);

  if (!self->below)
    return g_pollable_stream_read(base, to, room, blocking, cancellable, error);
  if (blocking && !g_input_stream_set_pending(base, error))
    return -1;
  gssize nread = read_converted(self->below, to, room, blocking, cancellable, error);
  if (blocking)
    g_input_stream_clear_pending(base);
  return nread;
}

// Reads more from the base stream, at first with room for a unit as large as the last ones. The
// buffer grows when it is nearly full: a large unit may come in many small parts.
static gboolean
fill(GvcInputStage *self, gboolean blocking, GCancellable *cancellable, GError **error)
{
  gsize have = self->raw.size(), likely = MAX(self->unit, least_read);

  if (self->raw.tail_room() < (have == 0 ? likely : least_read))
    self->raw.reserve(MAX(likely, have));
  gssize nread =
      read_base(self, self->raw.tail(), self->raw.tail_room(), blocking, cancellable, error);
  if (nread < 0) {
    self->raw.consume(0);
    return FALSE;
  }
  self->raw.produced(static_cast<gsize>(nread));
  self->at_end = nread == 0;
  self->starved = FALSE;
  return TRUE;
}

// One call of the converter, on all that there is.
static GConverterResult
convert(GvcInputStage *self, void *to, gsize room, gsize *produced, GError **error)
{
  auto flags = self->at_end ? G_CONVERTER_INPUT_AT_END : G_CONVERTER_NO_FLAGS;
  gsize consumed = 0;

  *produced = 0;
  auto result = self->iface->convert(self->converter, self->raw.data(), self->raw.size(), to, room,
                                     flags, &consumed, produced, error);
  if (result == G_CONVERTER_ERROR) {
    // A converter may have set its counts before it failed.
    *produced = 0;
    return result;
  }
  self->unit = MAX(consumed, self->last_unit);
  self->last_unit = consumed;
  self->raw.consume(consumed);
  self->finished = result == G_CONVERTER_FINISHED;
  return result;
}

// Converts the next unit: to the reader's memory if it fits there, else to `converted`. Counts in
// *nread what has come to the reader. FALSE with an error, which may be that the converter needs
// more input.
static gboolean
convert_unit(GvcInputStage *self, void *to, gsize room, gsize *nread, GError **error)
{
  GError *failure = nullptr;
  auto result = convert(self, to, room, nread, &failure);

  for (gsize own_room = MAX(room, least_read);
       g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_NO_SPACE); own_room *= 2) {
    gsize produced;
    g_clear_error(&failure);
    self->converted.reserve(own_room);
    result =
        convert(self, self->converted.tail(), self->converted.tail_room(), &produced, &failure);
    self->converted.produced(produced);
  }
  if (result == G_CONVERTER_ERROR) {
    self->converted.consume(0);
    g_propagate_error(error, failure);
    return FALSE;
  }
  *nread += self->converted.take(static_cast<guint8 *>(to) + *nread, room - *nread);
  return TRUE;
}

static gssize
read_converted(GvcInputStage *self, void *to, gsize room, gboolean blocking,
               GCancellable *cancellable, GError **error)
{
  gsize nread = self->converted.take(to, room);

  for (int units = 0; nread == 0 && !self->finished; units++) {
    if (!blocking && units == most_empty_units) {
      g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, g_strerror(EAGAIN));
      return -1;
    }
    // A converter that has just taken all input and produced nothing may keep output of its own.
    gboolean needs_input = self->starved || (units == 0 && self->raw.size() == 0);
    if (needs_input && !self->at_end && !fill(self, blocking, cancellable, error))
      return -1;

    GError *failure = nullptr;
    if (convert_unit(self, to, room, &nread, &failure))
      continue;
    if (self->at_end || !g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT)) {
      g_propagate_error(error, failure);
      return -1;
    }
    g_error_free(failure);
    self->starved = TRUE;
  }
  return static_cast<gssize>(nread);
}

static gssize
gvc_input_stage_read(GInputStream *stream, void *buffer, gsize count, GCancellable *cancellable,
                     GError **error)
{
  return read_converted(reinterpret_cast<GvcInputStage *>(stream), buffer, count, TRUE, cancellable,
                        error);
}

static void
gvc_input_stage_constructed(GObject *object)
{
  auto *self = reinterpret_cast<GvcInputStage *>(object);

  G_OBJECT_CLASS(gvc_input_stage_parent_class)->constructed(object);
  self->converter = g_converter_input_stream_get_converter(&self->parent);
  self->iface = G_CONVERTER_GET_IFACE(self->converter);
  if (gvc::stage_base(base_stream(self)))
    self->below = reinterpret_cast<GvcInputStage *>(base_stream(self));
}

static void
gvc_input_stage_finalize(GObject *object)
{
  auto *self = reinterpret_cast<GvcInputStage *>(object);

  self->raw.release();
  self->converted.release();

  G_OBJECT_CLASS(gvc_input_stage_parent_class)->finalize(object);
}

static void
gvc_input_stage_class_init(GvcInputStageClass *klass)
{
  auto *input_class = static_cast<GInputStreamClass *>(g_type_class_peek(G_TYPE_INPUT_STREAM));

  G_OBJECT_CLASS(klass)->constructed = gvc_input_stage_constructed;
  G_OBJECT_CLASS(klass)->finalize = gvc_input_stage_finalize;
  G_INPUT_STREAM_CLASS(klass)->read_fn = gvc_input_stage_read;
  // That of streams in general, which reads and forgets.
  G_INPUT_STREAM_CLASS(klass)->skip = input_class->skip;
}

static void
gvc_input_stage_init(GvcInputStage *)
{
}

// ---- Polling ----

static gboolean
holds_input(GvcInputStage *self)
{
  return self->converted.size() > 0 || self->finished || self->at_end ||
         (self->raw.size() > 0 && !self->starved);
}

static gboolean
gvc_input_stage_can_poll(GPollableInputStream *stream)
{
  auto *base = base_stream(reinterpret_cast<GvcInputStage *>(stream));
  return G_IS_POLLABLE_INPUT_STREAM(base) &&
         g_pollable_input_stream_can_poll(reinterpret_cast<GPollableInputStream *>(base));
}

static gboolean
gvc_input_stage_is_readable(GPollableInputStream *stream)
{
  auto *self = reinterpret_cast<GvcInputStage *>(stream);
  return holds_input(self) || g_pollable_input_stream_is_readable(
                                  reinterpret_cast<GPollableInputStream *>(base_stream(self)));
}

static gssize
gvc_input_stage_read_nonblocking(GPollableInputStream *stream, void *buffer, gsize count,
                                 GError **error)
{
  return read_converted(reinterpret_cast<GvcInputStage *>(stream), buffer, count, FALSE, nullptr,
                        error);
}

static gboolean
is_ready(gpointer stage)
{
  return holds_input(static_cast<GvcInputStage *>(stage)) ||
         g_input_stream_is_closed(static_cast<GInputStream *>(stage));
}

static GSource *
gvc_input_stage_create_source(GPollableInputStream *stream, GCancellable *cancellable)
{
  auto *base = base_stream(reinterpret_cast<GvcInputStage *>(stream));
  return gvc::source_with(stream,
                          g_pollable_input_stream_create_source(
                              reinterpret_cast<GPollableInputStream *>(base), nullptr),
                          is_ready, cancellable);
}

static void
gvc_input_stage_pollable_init(GPollableInputStreamInterface *iface)
{
  iface->can_poll = gvc_input_stage_can_poll;
  iface->is_readable = gvc_input_stage_is_readable;
  iface->create_source = gvc_input_stage_create_source;
  iface->read_nonblocking = gvc_input_stage_read_nonblocking;
}

// ---- For the engine ----

GInputStream *
gvc::input_stage_new(GInputStream *base_stream, GConverter *converter)
{
  // As GIO's constructor says it.
  if (!G_IS_INPUT_STREAM(base_stream)) {
    g_return_if_fail_warning("GLib-GIO", "g_converter_input_stream_new",
                             "G_IS_INPUT_STREAM (base_stream)");
    return nullptr;
  }

  return static_cast<GInputStream *>(g_object_new(gvc_input_stage_get_type(), "base-stream",
                                                  base_stream, "converter", converter, nullptr));
}

GInputStream *
gvc::stage_base(GInputStream *stream)
{
  return G_TYPE_CHECK_INSTANCE_TYPE(stream, gvc_input_stage_get_type())
             ? base_stream(reinterpret_cast<GvcInputStage *>(stream))
             : nullptr;
}

gboolean
gvc::stages_hold_input(GInputStream *stream)
{
  for (; auto *below = stage_base(stream); stream = below)
    if (holds_input(reinterpret_cast<GvcInputStage *>(stream)))
      return TRUE;
  return FALSE;
}

gsize
gvc::peek_stage(GInputStream *stage, void *to, gsize room)
{
  auto *self = reinterpret_cast<GvcInputStage *>(stage);
  gsize count = MIN(room, self->converted.size());
  if (count > 0)
    std::memcpy(to, self->converted.data(), count);
  return count;
}
