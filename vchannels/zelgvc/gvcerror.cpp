// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcerror.h"
#include "gvcquark.h"

/**
 * gvc_error_quark:
 *
 * The error domain of the message streams, with the quark string "gvc-error-quark". May be called
 * from any thread.
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
