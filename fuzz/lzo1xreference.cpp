// SPDX-License-Identifier: LGPL-2.1-or-later
// Any bytes as an LZO1X stream, after two bytes that say how much room there is: the decoder and
// the plain reference decoder produce the same, or both refuse.
#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"

#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  if (size < 2)
    return 0;
  const std::size_t room = data[0] | static_cast<std::size_t>(data[1]) << 8;
  const std::size_t streamSize = size - 2;
  // Of exactly these sizes, so that the sanitizer sees every access outside.
  const std::unique_ptr<std::uint8_t[]> stream(new std::uint8_t[streamSize]);
  if (streamSize > 0)
    std::memcpy(stream.get(), data + 2, streamSize);
  const std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[room]());
  const auto result = lzo1x::decode({stream.get(), streamSize}, {out.get(), room});
  const auto expected = referenceDecode(stream.get(), streamSize, room);
  if ((result.status == lzo1x::Status::ok) != expected.has_value())
    std::abort();
  if (expected.has_value() &&
      (result.size != expected->size() ||
       (result.size > 0 && std::memcmp(out.get(), expected->data(), result.size) != 0)))
    std::abort();
  return 0;
}
