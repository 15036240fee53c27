// SPDX-License-Identifier: LGPL-2.1-or-later
// Argument checks, assertions and property warnings with the texts that callers know. GLib's own
// macros print the whole signature as the function's name when they are compiled as C++.
#pragma once

#include <glib-object.h>

// A failed check prints a critical that names the plain function and the expression as written
// here, blanks included, and returns. There is no log domain.
#define GVC_CHECK(expr)                                                                            \
  do {                                                                                             \
    if (G_UNLIKELY(!(expr))) {                                                                     \
      g_return_if_fail_warning(nullptr, __func__, #expr);                                          \
      return;                                                                                      \
    }                                                                                              \
  } while (false)

#define GVC_CHECK_VAL(expr, val)                                                                   \
  do {                                                                                             \
    if (G_UNLIKELY(!(expr))) {                                                                     \
      g_return_if_fail_warning(nullptr, __func__, #expr);                                          \
      return (val);                                                                                \
    }                                                                                              \
  } while (false)

namespace gvc
{

// Where in the library a message comes from, as its texts name it: source file without ending,
// line.
struct Location {
  const char *file;
  int line;
};

#define GVC_LOCATION(stem) (gvc::Location{"vchannels/zelgvc/" stem, __LINE__})

// The warning for a property id that the type does not have.
inline void
warn_invalid_property(Location where, GObject *object, guint id, GParamSpec *pspec)
{
  g_autofree char *location = g_strdup_printf("%s:%d", where.file, where.line);
  g_log(nullptr, G_LOG_LEVEL_WARNING, "%s: invalid %s id %u for \"%s\" of type '%s' in '%s'",
        location, "property", id, pspec->name, G_OBJECT_TYPE_NAME(pspec),
        G_OBJECT_TYPE_NAME(object));
}

// Aborts with GLib's integer comparison message unless moved <= wanted: a stream that claims to
// have moved more bytes than it was offered has already written or read out of bounds.
inline void
assert_not_more(gint64 moved, gint64 wanted, Location where, const char *function,
                const char *expression)
{
  if (G_UNLIKELY(moved > wanted))
    g_assertion_message_cmpnum(nullptr, where.file, where.line, function, expression,
                               static_cast<long double>(moved),
                               "<=", static_cast<long double>(wanted), 'i');
}

} // namespace gvc
