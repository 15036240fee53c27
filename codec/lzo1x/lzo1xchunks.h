// SPDX-License-Identifier: LGPL-2.1-or-later
// Payloads: the compressed data of a block. A payload is one LZO1X stream, or has the chunk layout:
//
//   0x55, N, N ^ 0x55     N chunks, 1 to 32
//   total                 32 bits, little-endian: the decoded size of all chunks
//   N - 1 sizes           32 bits, little-endian: the encoded size of each chunk but the last
//   N chunks              one LZO1X stream each; the last one ends with the payload
//
// Each chunk decodes to total / N bytes. The last chunk also takes the remainder.
#pragma once

#include "codec/lzo1x/lzo1x.h"

namespace lzo1x
{

// Encodes `in` like encode(), as a stream that no decoder takes for the chunk layout. The stream
// has at most worstCase(in.size()) + 1 bytes, and still at most size + size / 10 from 40 bytes on.
[[nodiscard]] Result encodePayload(Input in, Output out, std::span<std::byte> state) noexcept;

// Decodes a payload in either form. `out` should have the size of the original data, which tells a
// stream from a single chunk if the payload can be both.
[[nodiscard]] Result decodePayload(Input payload, Output out) noexcept;

} // namespace lzo1x
