// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcerror.h"
#include "gvcquark.h"

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
  static std::atomic<GQuark> cache;

  return gvc::quark(cache, "gvc-error-quark");
}
