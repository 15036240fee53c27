// SPDX-License-Identifier: LGPL-2.1-or-later
// Owners for what GLib counts, and the end of the program for what must not fail here.
#pragma once

#include <gio/gio.h>

#include <memory>

namespace bench
{

struct ObjectUnref {
  void
  operator()(gpointer object) const
  {
    g_object_unref(object);
  }
};

struct BytesUnref {
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};

template <typename Type> using Object = std::unique_ptr<Type, ObjectUnref>;
using SharedBytes = std::unique_ptr<GBytes, BytesUnref>;

template <typename Type>
Object<Type>
share(Type *object)
{
  return Object<Type>(static_cast<Type *>(g_object_ref(object)));
}

// Ends the program where a call failed: a benchmark of calls that fail measures nothing.
inline void
must(bool success, GError *error, const char *what)
{
  if (!success)
    g_error("%s: %s", what, error ? error->message : "failed");
}

// Filters on streams that others still need do not close them.
template <typename Filter>
Object<Filter>
keepingBaseOpen(Filter *filter)
{
  gpointer stream = filter;
  if (G_IS_FILTER_INPUT_STREAM(stream))
    g_filter_input_stream_set_close_base_stream(static_cast<GFilterInputStream *>(stream), FALSE);
  else
    g_filter_output_stream_set_close_base_stream(static_cast<GFilterOutputStream *>(stream), FALSE);
  return Object<Filter>(filter);
}

// One call of a converter that must succeed; returns how much it wrote.
inline std::size_t
convert(GConverter *converter, const void *in, std::size_t size, void *out, std::size_t room)
{
  gsize nread;
  gsize written;
  GError *error = nullptr;
  auto result = g_converter_convert(converter, in, size, out, room, G_CONVERTER_NO_FLAGS, &nread,
                                    &written, &error);
  must(result == G_CONVERTER_CONVERTED, error, "convert");
  return written;
}

} // namespace bench
