// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tap.h"

#include <initializer_list>

struct ToolTap {
  GObject parent;
  GConverter *inner;
  TapCounts *counts;
  bool incoming;
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

static GConverterResult
tool_tap_convert(GConverter *converter, const void *inbuf, gsize inbuf_size, void *outbuf,
                 gsize outbuf_size, GConverterFlags flags, gsize *bytes_read, gsize *bytes_written,
                 GError **error)
{
  auto *self = reinterpret_cast<ToolTap *>(converter);
  auto passed_on = static_cast<guint>(flags);

  if (self->incoming && (flags & G_CONVERTER_INPUT_AT_END)) {
    if (inbuf_size == 0) {
      *bytes_read = *bytes_written = 0;
      return G_CONVERTER_FINISHED;
    }
    // With the flag the stage would be finished after the next record, whatever follows it.
    passed_on &= ~static_cast<guint>(G_CONVERTER_INPUT_AT_END);
  }

  auto result = g_converter_convert(self->inner, inbuf, inbuf_size, outbuf, outbuf_size,
                                    static_cast<GConverterFlags>(passed_on), bytes_read,
                                    bytes_written, error);
  if (result != G_CONVERTER_ERROR) {
    self->counts->in += *bytes_read;
    self->counts->out += *bytes_written;
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
tap_new(GConverter *inner, TapCounts *counts, bool incoming)
{
  auto *self = static_cast<ToolTap *>(g_object_new(tool_tap_get_type(), nullptr));
  self->inner = G_CONVERTER(g_object_ref(inner));
  self->counts = counts;
  self->incoming = incoming;
  return G_CONVERTER(self);
}
