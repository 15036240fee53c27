// SPDX-License-Identifier: LGPL-2.1-or-later
// Decodes any bytes as an LZO1X stream, after three bytes with the size of the room, and accesses
// nothing outside stream and room. Built with FUZZ_REFERENCE, the reference decoder must agree.
#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"

#include <algorithm>
#include <cstdlib>
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
  // Of exactly these sizes, so that the sanitizer sees every overrun.
  const std::unique_ptr<std::uint8_t[]> stream(new std::uint8_t[streamSize]);
  std::copy_n(data + 3, streamSize, stream.get());
  const std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[room]);
  const auto result = lzo1x::decode({stream.get(), streamSize}, {out.get(), room});
  const bool decoded = result.status == lzo1x::Status::ok;
  if (result.size > room || (!decoded && result.size != 0))
    std::abort();
#ifdef FUZZ_REFERENCE
  const auto expected = referenceDecode(stream.get(), streamSize, room);
  if (decoded != expected.has_value() ||
      (decoded && !std::ranges::equal(*expected, std::span(out.get(), result.size))))
    std::abort();
#endif
  return 0;
}
