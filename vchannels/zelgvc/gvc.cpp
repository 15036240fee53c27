// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvc.h"

#include <platform/ipp/ipp.h>

/**
 * gvc_init:
 *
 * Initialises the cryptography and compression engine.
 *
 * Call it once at start-up, before other threads use the library. It may be called again, and it
 * leaves alone a libgcrypt that the host has already initialised. It reports nothing: what depends
 * on the engine fails with its own error when the engine does not work.
 *
 * Since: 0.1
 */
void
gvc_init(void)
{
  ippInit();
}
