// SPDX-License-Identifier: LGPL-2.1-or-later
// Encodes any bytes, after one byte by which the room is less than the worst case. The result fits
// and decodes to the same bytes, also in the reference decoder, or there was no room.
#include "support.h"

#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"

using namespace fuzz;

extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  if (size < 1)
    return 0;
  // Of exactly these sizes, so that the sanitizer sees every overrun.
  const Bytes in(data + 1, data + size);
  const auto worst = lzo1x::worstCase(in.size());
  Bytes stream(worst - std::min<std::size_t>(worst, data[0]));
  std::vector<std::byte> state(lzo1x::encoderStateSize(in.size()), std::byte{data[0]});
  const auto encoded = lzo1x::encode(in, stream, state);
  if (encoded.status != lzo1x::Status::ok) {
    FUZZ_CHECK(stream.size() < worst);
    return 0;
  }
  Bytes out(in.size());
  const auto decoded = lzo1x::decode(View(stream).first(encoded.size), out);
  const auto plain = referenceDecode(stream.data(), encoded.size, in.size());
  FUZZ_CHECK(decoded.status == lzo1x::Status::ok && decoded.size == in.size());
  FUZZ_CHECK(out == in && plain == in);
  return 0;
}
