// SPDX-License-Identifier: LGPL-2.1-or-later
// The results of a convert operation, the same for all four converters.
#pragma once

#include <gio/gio.h>

namespace gvc
{

inline GConverterResult
converted(GConverterFlags flags, gsize consumed, gsize produced, gsize *bytes_read,
          gsize *bytes_written)
{
  *bytes_read = consumed;
  *bytes_written = produced;
  return flags & G_CONVERTER_INPUT_AT_END ? G_CONVERTER_FINISHED : G_CONVERTER_CONVERTED;
}

// No converter holds bytes between two calls, so there is nothing to flush.
inline GConverterResult
flushed(gsize *bytes_read, gsize *bytes_written)
{
  *bytes_read = 0;
  *bytes_written = 0;
  return G_CONVERTER_FLUSHED;
}

inline GConverterResult
failed(GError **error, GIOErrorEnum code, const char *message)
{
  g_set_error_literal(error, G_IO_ERROR, code, message);
  return G_CONVERTER_ERROR;
}

// A peer can announce more than it will ever send, and GIO's converter streams then double their
// buffers again and again. A conversion that must fail in the end fails once a buffer has this
// size.
inline constexpr guint64 hopeless_from = 1024 * 1024;

} // namespace gvc
