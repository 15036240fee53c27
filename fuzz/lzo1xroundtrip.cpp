// SPDX-License-Identifier: LGPL-2.1-or-later
// Any bytes encoded, after one byte that says how much less room than the worst case there is: the
// result fits and decodes to the same bytes, here and in the plain reference decoder, or there was
// no room.
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
  if (inSize > 0)
    std::memcpy(in.get(), data + 1, inSize);
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
  if (decoded.status != lzo1x::Status::ok || decoded.size != inSize || !plain.has_value() ||
      plain->size() != inSize)
    std::abort();
  if (inSize > 0 && (std::memcmp(out.get(), in.get(), inSize) != 0 ||
                     std::memcmp(plain->data(), in.get(), inSize) != 0))
    std::abort();
  return 0;
}
