// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvccryptutilsprivate.h"
#include "gvcfixedtexts.h"

// The host's logger. The reference is weak because a host need not define it.
extern "C" __attribute__((weak)) void zel_log(const char *log_domain, int log_level,
                                              const char *function, int line, const char *format,
                                              ...) G_GNUC_PRINTF(5, 6);

/**
 * gvc_get_crypt_key_len:
 * @value: a #GValue that holds an int
 *
 * Converts a configured key length to one that gvc_encryptor_set_key_length() and
 * gvc_decryptor_set_key_length() accept. Logs a warning in the domain "ZEL" if the value is neither
 * 128 nor 256: with the host's function `zel_log` if there is one, else with g_log().
 *
 * Returns: the key length in bits, 128 or 256; 256 if @value holds anything else
 *
 * Since: 0.1
 */
gint
gvc_get_crypt_key_len(const GValue *value)
{
  gint key_len = g_value_get_int(value);
  if (key_len == 128 || key_len == 256)
    return key_len;

  if (zel_log)
    zel_log(gvc::key_length_domain, G_LOG_LEVEL_WARNING, __func__, gvc::key_length_line,
            gvc::key_length_format, key_len);
  else
    g_log(gvc::key_length_domain, G_LOG_LEVEL_WARNING, gvc::key_length_format, key_len);
  return 256;
}
