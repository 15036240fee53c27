// SPDX-License-Identifier: LGPL-2.1-or-later
// Decodes any bytes as an LZO1X stream, after three bytes with the size of the room, and accesses
// nothing outside stream and room. The reference decoder must agree.
#include "support.h"

#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"

using namespace fuzz;

extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  if (size < 3)
    return 0;
  const std::size_t room = (data[0] | data[1] << 8 | data[2] << 16) % (1 << 18);
  // Of exactly these sizes, so that the sanitizer sees every overrun.
  const Bytes stream(data + 3, data + size);
  const std::unique_ptr<std::uint8_t[]> out(new std::uint8_t[room]);
  const auto result = lzo1x::decode(stream, {out.get(), room});
  const auto expected = referenceDecode(stream.data(), stream.size(), room);
  FUZZ_CHECK((result.status == lzo1x::Status::ok) == expected.has_value());
  FUZZ_CHECK(result.size <= room);
  FUZZ_CHECK(expected ? equal(*expected, View(out.get(), result.size)) : result.size == 0);
  return 0;
}
