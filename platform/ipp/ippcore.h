// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared by the files of this directory: start-up of libgcrypt and wiping of the stack.
#pragma once

#include "platform/ipp/ipp.h"

namespace ipp
{

// Initialises libgcrypt unless the host has. Returns ippStsErr if the libgcrypt at run time is too
// old. Thread-safe; cheap after the first call.
[[nodiscard]] IppStatus startEngine() noexcept;

// Wipes 1 KiB of stack, which functions that the caller has called may have filled.
void wipeStackBelow() noexcept;

} // namespace ipp
