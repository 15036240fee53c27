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

} // namespace bench
