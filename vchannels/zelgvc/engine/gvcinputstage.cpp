// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcinputstage.h"
#include "gvcbuffer.h"
#include "gvcpollable.h"

#include <vchannels/zelgvc/gvcfixedtexts.h>

using gvc::Buffer;

// A unit is one block or record, the input of one conversion. Bytes move from the base stream to
// `raw`, and from there directly to the reader if the unit fits, else to `converted`.
G_DECLARE_FINAL_TYPE(GvcInputStage, gvc_input_stage, GVC, INPUT_STAGE, GConverterInputStream)

struct _GvcInputStage {
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

static gssize gvc_input_stage_read_nonblocking(GPollableInputStream *stream, void *buffer,
                                               gsize count, GError **error);

static void
gvc_input_stage_pollable_init(GPollableInputStreamInterface *iface)
{
  gvc::init_pollable_filter_input(iface);
  iface->read_nonblocking = gvc_input_stage_read_nonblocking;
}

G_DEFINE_TYPE_WITH_CODE(GvcInputStage, gvc_input_stage, G_TYPE_CONVERTER_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              gvc_input_stage_pollable_init))

// A peer can send empty units for ever. After this many a non-blocking read returns to the main
// loop.
static constexpr int max_empty_units = 256;

static constexpr gsize min_read = 4096;

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
  gsize have = self->raw.size(), likely = MAX(self->unit, min_read);

  if (self->raw.tail_room() < (have == 0 ? likely : min_read))
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

// Converts the next unit: to the reader's memory if it fits there, else to `converted`. *nread
// counts the bytes that the reader got. Fails with G_IO_ERROR_PARTIAL_INPUT if the unit is not
// complete.
static gboolean
convert_unit(GvcInputStage *self, void *to, gsize room, gsize *nread, GError **error)
{
  GError *failure = nullptr;
  auto result = convert(self, to, room, nread, &failure);

  for (gsize own_room = MAX(room, min_read);
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
    if (!blocking && units == max_empty_units) {
      gvc::set_would_block(error);
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
  return read_converted(GVC_INPUT_STAGE(stream), buffer, count, TRUE, cancellable, error);
}

static gssize
gvc_input_stage_read_nonblocking(GPollableInputStream *stream, void *buffer, gsize count,
                                 GError **error)
{
  return read_converted(GVC_INPUT_STAGE(stream), buffer, count, FALSE, nullptr, error);
}

static void
gvc_input_stage_constructed(GObject *object)
{
  auto *self = GVC_INPUT_STAGE(object);

  G_OBJECT_CLASS(gvc_input_stage_parent_class)->constructed(object);
  self->converter = g_converter_input_stream_get_converter(&self->parent);
  self->iface = G_CONVERTER_GET_IFACE(self->converter);
  if (GVC_IS_INPUT_STAGE(base_stream(self)))
    self->below = GVC_INPUT_STAGE(base_stream(self));
}

static void
gvc_input_stage_finalize(GObject *object)
{
  auto *self = GVC_INPUT_STAGE(object);

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

GInputStream *
gvc::input_stage_new(GInputStream *base_stream, GConverter *converter)
{
  if (!check_as_gio(G_IS_INPUT_STREAM(base_stream), "g_converter_input_stream_new",
                    "G_IS_INPUT_STREAM (base_stream)"))
    return nullptr;

  return G_INPUT_STREAM(g_object_new(gvc_input_stage_get_type(), "base-stream", base_stream,
                                     "converter", converter, nullptr));
}

GInputStream *
gvc::stage_base(GInputStream *stream)
{
  return GVC_IS_INPUT_STAGE(stream) ? base_stream(GVC_INPUT_STAGE(stream)) : nullptr;
}

static gboolean
holds_input(GvcInputStage *self)
{
  return self->converted.size() > 0 || self->finished || self->at_end ||
         (self->raw.size() > 0 && !self->starved);
}

gboolean
gvc::stages_hold_input(GInputStream *stream)
{
  for (; GVC_IS_INPUT_STAGE(stream); stream = base_stream(GVC_INPUT_STAGE(stream)))
    if (holds_input(GVC_INPUT_STAGE(stream)))
      return TRUE;
  return FALSE;
}

gsize
gvc::peek_stage(GInputStream *stage, void *to, gsize room)
{
  return GVC_INPUT_STAGE(stage)->converted.peek(to, room);
}
