// SPDX-License-Identifier: LGPL-2.1-or-later
#include "thinconverter.h"

struct BenchThinConverter {
  GObject parent;
  bench::Conversion conversion;
  void *user_data;
};

struct BenchThinConverterClass {
  GObjectClass parent_class;
};

static GType bench_thin_converter_get_type(void);
static void bench_thin_converter_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(BenchThinConverter, bench_thin_converter, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER,
                                              bench_thin_converter_converter_init))

static void
bench_thin_converter_class_init(BenchThinConverterClass *)
{
}

static void
bench_thin_converter_init(BenchThinConverter *)
{
}

static GConverterResult
bench_thin_converter_convert(GConverter *converter, const void *inbuf, gsize inbuf_size,
                             void *outbuf, gsize outbuf_size, GConverterFlags, gsize *bytes_read,
                             gsize *bytes_written, GError **)
{
  auto *self = reinterpret_cast<BenchThinConverter *>(converter);

  *bytes_written =
      self->conversion(static_cast<const std::uint8_t *>(inbuf), inbuf_size,
                       static_cast<std::uint8_t *>(outbuf), outbuf_size, self->user_data);
  *bytes_read = inbuf_size;
  return G_CONVERTER_CONVERTED;
}

static void
bench_thin_converter_reset(GConverter *)
{
}

static void
bench_thin_converter_converter_init(GConverterIface *iface)
{
  iface->convert = bench_thin_converter_convert;
  iface->reset = bench_thin_converter_reset;
}

bench::Object<GConverter>
bench::makeThinConverter(Conversion conversion, void *user_data)
{
  auto *self =
      static_cast<BenchThinConverter *>(g_object_new(bench_thin_converter_get_type(), nullptr));
  self->conversion = conversion;
  self->user_data = user_data;
  return Object<GConverter>(reinterpret_cast<GConverter *>(self));
}
