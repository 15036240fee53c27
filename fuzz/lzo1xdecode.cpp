// SPDX-License-Identifier: LGPL-2.1-or-later
// Any bytes as an LZO1X stream, after three bytes that say how much room there is: nothing outside
// of stream and room is touched.
#include "codec/lzo1x/lzo1x.h"

#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  if (size < 3)
    return 0;
  const std::size_t room =
      (data[0] | static_cast<std::size_t>(data[1]) << 8 | static_cast<std::size_t>(data[2]) << 16) %
      (1 << 18);
  const std::size_t streamSize = size - 3;
  // Of exactly these sizes, so that the sanitizer sees every access outside.
  const std::unique_ptr<std::uint8_t[]> stream(new std::uint8_t[streamSize]);
  if (streamSize > 0)
    std::memcpy(stream.get(), data + 3, streamSize);
  const std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[room]);
  const auto result = lzo1x::decode({stream.get(), streamSize}, {out.get(), room});
  if (result.size > room || (result.status != lzo1x::Status::ok && result.size != 0))
    std::abort();
  return 0;
}
