// SPDX-License-Identifier: LGPL-2.1-or-later
// What the platform functions share: start-up of the engine, and leaving no traces. For the files
// of this directory only.
#pragma once

#include "platform/ipp/ipp.h"

namespace ipp
{

// Makes libgcrypt usable: ippStsNoErr, or ippStsErr where the libgcrypt found at run time is too
// old. Callable from any thread at any time; after the first call it costs one comparison.
[[nodiscard]] IppStatus startEngine() noexcept;

// Wipes what the functions that its caller has called have left on the stack, up to 1 KiB of it.
void wipeStackBelow() noexcept;

} // namespace ipp
