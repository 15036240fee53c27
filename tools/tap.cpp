// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tap.h"
#include "errors.h"
#include "layers.h"

#include <zelgvc/gvcwire.h>

#include <bit>

struct _ToolTap {
  GObject parent;
  GConverter *inner;
  TapState *state;
  TapKind kind;
};

static void tool_tap_converter_init(GConverterIface *iface);

G_DECLARE_FINAL_TYPE(ToolTap, tool_tap, TOOL, TAP, GObject)
G_DEFINE_TYPE_WITH_CODE(ToolTap, tool_tap, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, tool_tap_converter_init))

static void
tool_tap_finalize(GObject *object)
{
  g_object_unref(TOOL_TAP(object)->inner);

  G_OBJECT_CLASS(tool_tap_parent_class)->finalize(object);
}

static void
tool_tap_class_init(ToolTapClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = tool_tap_finalize;
}

static void
tool_tap_init(ToolTap *)
{
}

// Records and blocks have headers of the same size.
static constexpr gsize header_size = gvc::wire::record::header_size;
static_assert(header_size == gvc::wire::block::header_size);

// An upper bound of the size after two stages, each of which adds as much as it can.
static guint64
with_overhead(guint64 size)
{
  return size > G_MAXINT32 ? G_MAXUINT64 : size + size / 4 + 1024;
}

// Whether a unit can start with this header. An encrypted stream starts with its IV.
static bool
is_plausible(const ToolTap *self, const void *header)
{
  auto most = with_overhead(self->state->limit);
  if (self->kind == TapKind::records) {
    auto length = gvc::wire::record::load_length(header);
    bool first = self->state->in == 0;
    return length <= most && length % gvc::wire::record::aes_block == 0 && (!first || length == 0);
  }
  auto payload = gvc::wire::block::load_payload_size(header);
  auto content = gvc::wire::block::load_decoded_size(header);
  return payload <= most && content <= most && plausible_block(payload, content);
}

// GIO's stream doubles a full buffer after these errors. The sizes of its buffers are powers of
// two.
static void
check_growth(gsize input, gsize output, GError **error)
{
  if (g_error_matches(*error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT) && std::has_single_bit(input))
    may_double(input, error);
  else if (g_error_matches(*error, G_IO_ERROR, G_IO_ERROR_NO_SPACE) && std::has_single_bit(output))
    may_double(output, error);
}

static GConverterResult
tool_tap_convert(GConverter *converter, const void *inbuf, gsize inbuf_size, void *outbuf,
                 gsize outbuf_size, GConverterFlags flags, gsize *bytes_read, gsize *bytes_written,
                 GError **error)
{
  auto *self = TOOL_TAP(converter);
  auto passed_on = static_cast<guint>(flags);
  bool incoming = self->kind != TapKind::outgoing;

  if (incoming && (flags & G_CONVERTER_INPUT_AT_END)) {
    if (inbuf_size == 0) {
      *bytes_read = *bytes_written = 0;
      return G_CONVERTER_FINISHED;
    }
    // With this flag, the stage would finish after the next record even if more follows.
    passed_on &= ~static_cast<guint>(G_CONVERTER_INPUT_AT_END);
  }

  if (self->state->deadline && !self->state->deadline->check(error))
    return G_CONVERTER_ERROR;
  if (incoming && inbuf_size >= header_size && !is_plausible(self, inbuf)) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                        self->kind == TapKind::records ? "no record of an encrypted stream"
                                                       : "no block of a compressed stream");
    return G_CONVERTER_ERROR;
  }

  auto result = g_converter_convert(self->inner, inbuf, inbuf_size, outbuf, outbuf_size,
                                    static_cast<GConverterFlags>(passed_on), bytes_read,
                                    bytes_written, error);
  if (result != G_CONVERTER_ERROR) {
    self->state->in += *bytes_read;
    self->state->out += *bytes_written;
  } else if (incoming) {
    check_growth(inbuf_size, outbuf_size, error);
  }
  return result;
}

static void
tool_tap_reset(GConverter *converter)
{
  g_converter_reset(TOOL_TAP(converter)->inner);
}

static void
tool_tap_converter_init(GConverterIface *iface)
{
  iface->convert = tool_tap_convert;
  iface->reset = tool_tap_reset;
}

GConverter *
tap_new(GConverter *inner, TapState *state, TapKind kind)
{
  auto *self = TOOL_TAP(g_object_new(tool_tap_get_type(), nullptr));
  self->inner = G_CONVERTER(g_object_ref(inner));
  self->state = state;
  self->kind = kind;
  return G_CONVERTER(self);
}
