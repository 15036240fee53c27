// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcerror.h"

/**
 * gvc_error_quark:
 *
 * Gets the error domain of the message streams, "gvc-error-quark". Any thread may call this
 * function.
 *
 * Returns: the quark behind %GVC_ERROR
 *
 * Since: 0.1
 */
GQuark
gvc_error_quark(void)
{
  // GLib's own caching, as in G_DEFINE_QUARK(), has a data race.
  return g_quark_from_static_string("gvc-error-quark");
}
