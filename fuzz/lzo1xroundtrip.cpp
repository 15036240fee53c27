// SPDX-License-Identifier: LGPL-2.1-or-later
// Encodes any bytes, after one byte by which the room is less than the worst case. The result fits
// and decodes to the same bytes, also in the reference decoder, or there was no room.
#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  if (size < 1)
    return 0;
  const std::size_t inSize = size - 1;
  const std::unique_ptr<std::uint8_t[]> in(new std::uint8_t[inSize]);
  std::copy_n(data + 1, inSize, in.get());
  const std::size_t worst = lzo1x::worstCase(inSize);
  const std::size_t room = worst - std::min<std::size_t>(worst, data[0]);
  const std::unique_ptr<std::uint8_t[]> stream(new std::uint8_t[room]);
  const std::size_t stateSize = lzo1x::encoderStateSize(inSize);
  const std::unique_ptr<std::byte[]> state(new std::byte[stateSize]);
  std::memset(state.get(), data[0], stateSize);
  const auto encoded =
      lzo1x::encode({in.get(), inSize}, {stream.get(), room}, {state.get(), stateSize});
  if (encoded.status != lzo1x::Status::ok) {
    if (room == worst)
      std::abort();
    return 0;
  }
  const std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[inSize]);
  const auto decoded = lzo1x::decode({stream.get(), encoded.size}, {out.get(), inSize});
  const auto plain = referenceDecode(stream.get(), encoded.size, inSize);
  const std::span<const std::uint8_t> expected(in.get(), inSize);
  if (decoded.status != lzo1x::Status::ok || !plain.has_value() ||
      !std::ranges::equal(expected, std::span(out.get(), decoded.size)) ||
      !std::ranges::equal(expected, *plain))
    std::abort();
  return 0;
}
