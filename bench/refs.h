// SPDX-License-Identifier: LGPL-2.1-or-later
// References that count themselves, and the end of the program for calls that must not fail here.
#pragma once

#include <gio/gio.h>

#include <memory>

namespace bench
{

struct Unref {
  void
  operator()(gpointer object) const
  {
    g_object_unref(object);
  }
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};

template <typename T> using Ref = std::unique_ptr<T, Unref>;

template <typename T>
Ref<T>
share(T *object)
{
  return Ref<T>(static_cast<T *>(g_object_ref(object)));
}

// Ends the program if a call failed: a benchmark of failing calls measures nothing.
inline void
must(bool success, const GError *error, const char *what)
{
  if (!success)
    g_error("%s: %s", what, error ? error->message : "failed");
}

// Converts all of `in`; returns the size of the output.
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
