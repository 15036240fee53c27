// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvc.h"

#include <platform/ipp/ipp.h>

/**
 * gvc_init:
 *
 * Initialises cryptography and compression.
 *
 * Call this function at start-up, before the first thread uses the library. More calls do no harm.
 * The function does not touch a libgcrypt that the host has already initialised. It reports
 * nothing: if the platform does not work, later functions fail with their own errors.
 *
 * Since: 0.1
 */
void
gvc_init(void)
{
  ippInit();
}
