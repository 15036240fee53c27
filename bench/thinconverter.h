// SPDX-License-Identifier: LGPL-2.1-or-later
// A GConverter that does nothing but to call a function: the least that any converter costs.
#pragma once

#include "owners.h"

#include <cstdint>

namespace bench
{

// Returns how many bytes it made of all of `in`.
using Conversion = std::size_t (*)(const std::uint8_t *in, std::size_t size, std::uint8_t *out,
                                   std::size_t room, void *user_data);

Object<GConverter> makeThinConverter(Conversion conversion, void *user_data);

} // namespace bench
