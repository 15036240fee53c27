// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tap.h"
#include "layers.h"

#include <cstring>

struct ToolTap {
  GObject parent;
  GConverter *inner;
  TapState *state;
  TapKind kind;
};

struct ToolTapClass {
  GObjectClass parent_class;
};

static void tool_tap_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(ToolTap, tool_tap, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, tool_tap_converter_init))

static void
tool_tap_finalize(GObject *object)
{
  g_object_unref(reinterpret_cast<ToolTap *>(object)->inner);

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

static constexpr gsize header_size = 8;

static guint64
load_le(const guint8 *from, gsize size)
{
  guint64 value = 0;
  while (size-- > 0)
    value = value << 8 | from[size];
  return value;
}

// What a stage may add to what it is given, stacked on another stage that has added as much.
static guint64
with_overhead(guint64 size)
{
  return size > G_MAXINT32 ? G_MAXUINT64 : size + size / 4 + 1024;
}

// Whether the header at the start of a unit can be one. An encrypted stream starts with its IV.
static bool
is_plausible(const ToolTap &self, const void *header)
{
  auto *bytes = static_cast<const guint8 *>(header);
  auto most = with_overhead(self.state->limit);

  if (self.kind == TapKind::records) {
    auto length = load_le(bytes, 8);
    bool first = self.state->in == 0;
    return length <= most && length % 16 == 0 && (!first || length == 0);
  }
  auto payload = static_cast<guint32>(load_le(bytes, 4));
  auto content = static_cast<guint32>(load_le(bytes + 4, 4));
  return payload <= most && content <= most && plausible_block(payload, content);
}

static GConverterResult
tool_tap_convert(GConverter *converter, const void *inbuf, gsize inbuf_size, void *outbuf,
                 gsize outbuf_size, GConverterFlags flags, gsize *bytes_read, gsize *bytes_written,
                 GError **error)
{
  auto *self = reinterpret_cast<ToolTap *>(converter);
  auto passed_on = static_cast<guint>(flags);
  bool incoming = self->kind != TapKind::outgoing;

  if (incoming && (flags & G_CONVERTER_INPUT_AT_END)) {
    if (inbuf_size == 0) {
      *bytes_read = *bytes_written = 0;
      return G_CONVERTER_FINISHED;
    }
    // With the flag the stage would be finished after the next record, whatever follows it.
    passed_on &= ~static_cast<guint>(G_CONVERTER_INPUT_AT_END);
  }

  if (incoming && inbuf_size >= header_size && !is_plausible(*self, inbuf)) {
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
  }
  return result;
}

static void
tool_tap_reset(GConverter *converter)
{
  g_converter_reset(reinterpret_cast<ToolTap *>(converter)->inner);
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
  auto *self = static_cast<ToolTap *>(g_object_new(tool_tap_get_type(), nullptr));
  self->inner = G_CONVERTER(g_object_ref(inner));
  self->state = state;
  self->kind = kind;
  return G_CONVERTER(self);
}
