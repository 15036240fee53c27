/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/converters.h"

#include <algorithm>

namespace support
{

namespace
{

GQuark
conversion_quark()
{
  return g_quark_from_static_string("test-conversion");
}

GConverterResult
convert(GConverter *converter, const void *in, gsize in_size, void *out, gsize out_size,
        GConverterFlags flags, gsize *read, gsize *written, GError **error)
{
  const auto conversion =
      static_cast<ConvertFunction *>(g_object_get_qdata(G_OBJECT(converter), conversion_quark()));
  return (*conversion)({static_cast<const char *>(in), in_size}, static_cast<char *>(out), out_size,
                       flags, read, written, error);
}

GType
converter_type()
{
  static const GType type = [] {
    const GType registered =
        g_type_register_static_simple(G_TYPE_OBJECT, "TestConverter", sizeof(GObjectClass), nullptr,
                                      sizeof(GObject), nullptr, GTypeFlags(0));
    const GInterfaceInfo converter = {[](gpointer iface, gpointer) {
                                        const auto operations =
                                            static_cast<GConverterIface *>(iface);
                                        operations->convert = convert;
                                        operations->reset = [](GConverter *) {};
                                      },
                                      nullptr, nullptr};
    g_type_add_interface_static(registered, G_TYPE_CONVERTER, &converter);
    return registered;
  }();
  return type;
}

} // namespace

Ref<GConverter>
new_converter(ConvertFunction conversion)
{
  Ref<GConverter> converter(G_CONVERTER(g_object_new(converter_type(), nullptr)));
  g_object_set_qdata_full(G_OBJECT(converter.get()), conversion_quark(),
                          new ConvertFunction(std::move(conversion)),
                          [](gpointer data) { delete static_cast<ConvertFunction *>(data); });
  return converter;
}

GConverterResult
conversion_error(GIOErrorEnum code, const char *message, GError **error)
{
  g_set_error_literal(error, G_IO_ERROR, code, message);
  return G_CONVERTER_ERROR;
}

Ref<GConverter>
new_map_converter(std::function<guint8(guint8)> map, gsize max_per_call)
{
  return new_converter([map = std::move(map), max_per_call](
                           std::string_view in, char *out, gsize out_size, GConverterFlags flags,
                           gsize *read, gsize *written, GError **error) {
    const gsize count = std::min({in.size(), out_size, max_per_call});
    if (count == 0 && !in.empty())
      return conversion_error(G_IO_ERROR_NO_SPACE, "No room", error);
    if (count == 0 && (flags & (G_CONVERTER_INPUT_AT_END | G_CONVERTER_FLUSH)) == 0)
      return conversion_error(G_IO_ERROR_PARTIAL_INPUT, "No input", error);
    std::transform(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(count), out,
                   [&](char c) { return static_cast<char>(map(static_cast<guint8>(c))); });
    *read = *written = count;
    if (count == in.size() && (flags & G_CONVERTER_INPUT_AT_END) != 0)
      return G_CONVERTER_FINISHED;
    if (count == in.size() && (flags & G_CONVERTER_FLUSH) != 0)
      return G_CONVERTER_FLUSHED;
    return G_CONVERTER_CONVERTED;
  });
}

} // namespace support
