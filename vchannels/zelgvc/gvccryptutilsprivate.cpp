// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvccryptutilsprivate.h"
#include "gvcfixedtexts.h"

// The host's logger. A host without one does not define it, so the reference is weak.
extern "C" __attribute__((weak)) void zel_log(const char *log_domain, int log_level,
                                              const char *function, int line, const char *format,
                                              ...) G_GNUC_PRINTF(5, 6);

/**
 * gvc_get_crypt_key_len:
 * @value: a #GValue that holds an int
 *
 * Turns a configured key length into one that gvc_encryptor_set_key_length() and
 * gvc_decryptor_set_key_length() accept. Any other value than 128 and 256 is logged as a warning in
 * the domain "ZEL", through the host's function `zel_log` where there is one and through g_log()
 * otherwise.
 *
 * Returns: 128 or 256, in bits; 256 where @value holds anything else
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
