// SPDX-License-Identifier: LGPL-2.1-or-later
// Start-up of the engine behind the platform functions. For the files of this directory only.
#pragma once

#include "platform/ipp/ipp.h"

namespace ipp
{

// Makes libgcrypt usable: ippStsNoErr, or ippStsErr where the libgcrypt found at run time is too
// old. Callable from any thread at any time; after the first call it costs one comparison.
[[nodiscard]] IppStatus startEngine() noexcept;

} // namespace ipp
