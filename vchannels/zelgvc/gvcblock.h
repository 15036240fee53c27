// SPDX-License-Identifier: LGPL-2.1-or-later
// The compressed stream is a sequence of blocks: the size of the payload and the size of what it
// decodes to, 4 bytes each, and the payload, an LZO1X stream. An empty block has no payload.
#pragma once

#include <glib.h>

namespace gvc
{

inline constexpr gsize block_src_size = 0;
inline constexpr gsize block_dest_size = 4;
inline constexpr gsize block_header = 8;

} // namespace gvc
