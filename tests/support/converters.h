/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Converters out of functions. */
#pragma once

#include "tests/support/values.h"

#include <gio/gio.h>

#include <functional>
#include <string_view>

namespace support
{

/* A converter out of a function, which has the arguments of g_converter_convert(). */
using ConvertFunction = std::function<GConverterResult(
    std::string_view in, char *out, gsize out_size, GConverterFlags flags, gsize *read,
    gsize *written, GError **error)>;
Ref<GConverter> new_converter(ConvertFunction conversion);
/* Sets an error in G_IO_ERROR; what the function then returns. */
GConverterResult conversion_error(GIOErrorEnum code, const char *message, GError **error);

/* A converter that maps each byte by itself and takes at most `max_per_call` bytes a time. */
Ref<GConverter> new_map_converter(std::function<guint8(guint8)> map, gsize max_per_call = 5);

} // namespace support
