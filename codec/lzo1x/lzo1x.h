// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X codec: plain functions over byte spans. No allocation, no global state, no GLib.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace lzo1x
{

using Input = std::span<const std::uint8_t>;
using Output = std::span<std::uint8_t>;

enum class Status {
  ok,
  // Decoder: the stream is not a valid LZO1X stream.
  inputOverrun,  // an instruction or a literal run reaches past the input, or the end marker is
                 // missing
  outputOverrun, // the stream holds more than the output room
  badDistance,   // a match reaches back before the first byte written
  trailingBytes, // bytes follow the end marker
  // Encoder: the room is too small for the encoded bytes.
  noRoom,
};

struct Result {
  Status status;
  std::size_t size; // bytes produced; 0 unless status is ok
};

// Decodes one whole stream, its end marker included. Reads nothing outside `in` and writes nothing
// outside `out`, whatever `in` holds; what stands in `out` behind the bytes produced is
// unspecified.
[[nodiscard]] Result decode(Input in, Output out) noexcept;

// The most bytes that encode() can produce for `size` input bytes, end marker included. Never more
// than size + size / 10 from 40 bytes on. The parts: the input as one run of literals, the end
// marker, and one byte for each time that a match may not pay for the run behind it.
[[nodiscard]] constexpr std::size_t
worstCase(std::size_t size) noexcept
{
  return size + (size > 238 ? (size - 19) / 255 + 2 : 1) + 3 +
         (size > 2048 ? (size - 2048) / 23 : 0);
}

// Bytes of working memory that encode() needs for an input of up to `maxInput` bytes; grows with
// it.
[[nodiscard]] std::size_t encoderStateSize(std::size_t maxInput) noexcept;

// Encodes `in` as one stream closed by the end marker; any input size up to 2^32 - 1, 0 included.
// `state` is at least encoderStateSize(in.size()) bytes, of any content and aligned for uint32_t.
// Writes nothing outside `out`.
[[nodiscard]] Result encode(Input in, Output out, std::span<std::byte> state) noexcept;

} // namespace lzo1x
