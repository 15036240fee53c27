// SPDX-License-Identifier: LGPL-2.1-or-later
// Texts and source locations that hosts know and match, and that therefore never change. Everything
// else uses GLib's own macros.
#pragma once

#include <gio/gio.h>

// GLib's checks name the plain function here, as in C. In C++ they would print the whole signature.
#undef G_STRFUNC
#define G_STRFUNC (static_cast<const char *>(__func__))

namespace gvc
{

struct Assertion {
  const char *file; // without its ending
  int line;
  const char *function;
  const char *expression;
};

inline constexpr char connection_file[] = "vchannels/zelgvc/gvcconnection";
inline constexpr int connection_setter_line = 68;
inline constexpr int connection_getter_line = 90;
inline constexpr Assertion read_assertion = {.file = "vchannels/zelgvc/gvcinputstreamutils",
                                             .line = 49,
                                             .function = "read_all_callback",
                                             .expression = "nread <= data->to_read"};
inline constexpr Assertion write_assertion = {.file = "vchannels/zelgvc/gvcoutputstreamutils",
                                              .line = 48,
                                              .function = "write_all_callback",
                                              .expression = "nwritten <= data->to_write"};
inline constexpr Assertion write_warning = {.file = "vchannels/zelgvc/gvcoutputstreamutils",
                                            .line = 49,
                                            .function = "write_all_callback",
                                            .expression = "nwritten > 0"};

// The warning about a key length: also its function, the only one that logs it.
inline constexpr char key_length_domain[] = "ZEL";
inline constexpr char key_length_format[] = "Invalid key length %d";
inline constexpr int key_length_line = 24;

// The generator's messages on standard error. A failed Init reports the text of SetSeed.
inline constexpr char prng_init_failed[] = "ippsPRNGSetSeed return error\n";
inline constexpr char prng_seed_failed[] = "ippsPRNGSetSeed return error\n";
inline constexpr char big_number_size_failed[] = "ippsBigNumGetSize return error\n";
inline constexpr char big_number_init_failed[] = "ippsBigNumInit return error\n";
inline constexpr char big_number_set_failed[] = "ippsSet_BN return error\n";

// The warning for a property id that the type does not have. `file` is without its ending.
inline void
warn_invalid_property(const char *file, int line, GObject *object, guint id, GParamSpec *pspec)
{
  g_warning("%s:%d: invalid %s id %u for \"%s\" of type '%s' in '%s'", file, line, "property", id,
            pspec->name, G_OBJECT_TYPE_NAME(pspec), G_OBJECT_TYPE_NAME(object));
}

// Aborts with GLib's integer comparison message unless moved <= wanted: a stream that claims to
// have moved more bytes than it was offered has already written or read out of bounds.
inline void
assert_not_more(const Assertion &assertion, gssize moved, gsize wanted)
{
  if (G_UNLIKELY(gint64{moved} > static_cast<gint64>(wanted)))
    g_assertion_message_cmpnum(G_LOG_DOMAIN, assertion.file, assertion.line, assertion.function,
                               assertion.expression, static_cast<long double>(moved),
                               "<=", static_cast<long double>(wanted), 'i');
}

// The asynchronous functions of the message streams check nothing, and log the critical of the
// read-all or write-all utility unless `stream` is a stream of `type`.
inline gboolean
check_stream(gpointer stream, GType type)
{
  gboolean reads = type == G_TYPE_INPUT_STREAM;

  if (G_TYPE_CHECK_INSTANCE_TYPE(stream, type))
    return TRUE;
  g_return_if_fail_warning(G_LOG_DOMAIN,
                           reads ? "gvc_input_stream_util_read_all_async"
                                 : "gvc_output_stream_util_write_all_async",
                           reads ? "G_IS_INPUT_STREAM(stream)" : "G_IS_OUTPUT_STREAM(stream)");
  return FALSE;
}

// Logs a critical as a function of GIO's.
inline gboolean
check_as_gio(gboolean holds, const char *function, const char *expression)
{
  if (!holds)
    g_return_if_fail_warning("GLib-GIO", function, expression);
  return holds;
}

} // namespace gvc
