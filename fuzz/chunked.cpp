// SPDX-License-Identifier: LGPL-2.1-or-later
// Decodes any bytes as a payload. The result equals a simple reading of the chunk layout over the
// reference decoder.
#include "support.h"

#include <zelgvc/gvcwire.h>

#include "platform/ipp/ipp.h"
#include "tests/codec/lzo1xreference.h"

using namespace fuzz;

namespace
{

using Decoded = std::optional<Bytes>;

std::size_t
number(View payload, std::size_t at)
{
  return gvc::wire::load<std::uint32_t>(payload.data() + at);
}

Decoded
decode_plainly(View stream, std::size_t room)
{
  return referenceDecode(stream.data(), stream.size(), room);
}

// The chunks of a payload with the magic bytes. Nothing if the first chunk does not end with the
// end marker, so that the payload is a plain stream; no chunks if a size is wrong.
std::optional<std::vector<View>>
chunks_of(View payload)
{
  const std::size_t count = payload[1];
  auto at = 7 + 4 * (count - 1);
  if (payload.size() < at)
    return std::nullopt;
  std::vector<View> chunks;
  for (std::size_t i = 0; i < count; i++) {
    const auto rest = payload.size() - at;
    const auto size = i + 1 < count ? number(payload, 7 + 4 * i) : rest;
    const bool lies = size > rest;
    if (i == 0 && (lies || size < 3 || payload[at + size - 3] != 0x11 ||
                   payload[at + size - 2] != 0 || payload[at + size - 1] != 0))
      return std::nullopt;
    if (lies)
      return std::vector<View>(); // broken
    chunks.push_back(payload.subspan(at, size));
    at += size;
  }
  return chunks;
}

Decoded
decode_chunks(const std::vector<View> &chunks, std::size_t total)
{
  if (chunks.empty())
    return std::nullopt;
  Bytes out;
  const auto share = total / chunks.size();
  for (std::size_t i = 0; i < chunks.size(); i++) {
    const auto wanted = i + 1 < chunks.size() ? share : total - share * (chunks.size() - 1);
    const auto part = decode_plainly(chunks[i], wanted);
    if (!part || part->size() != wanted)
      return std::nullopt;
    out.insert(out.end(), part->begin(), part->end());
  }
  return out;
}

Decoded
expected(View payload, std::size_t room)
{
  if (payload.empty())
    return Bytes();
  const bool like_chunks = payload.size() >= 3 && payload[0] == 0x55 && payload[1] >= 1 &&
                           payload[1] <= 32 && payload[2] == (payload[1] ^ 0x55);
  const auto chunks = like_chunks ? chunks_of(payload) : std::nullopt;
  if (!chunks)
    return decode_plainly(payload, room);
  // A plain stream can look like a single chunk.
  const auto plain = payload[1] == 1 ? decode_plainly(payload, room) : std::nullopt;
  if (plain && plain->size() == room)
    return plain;
  const auto total = number(payload, 3);
  const auto decoded = total <= room ? decode_chunks(*chunks, total) : std::nullopt;
  return decoded ? decoded : plain;
}

} // namespace

// Two bytes with the size of the room, and the payload.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  if (size < 2)
    return 0;
  const std::size_t room = data[0] | data[1] << 8;
  // Of exactly these sizes, so that the sanitizer sees every overrun.
  const Bytes payload(data + 2, data + size);
  const std::unique_ptr<Ipp8u[]> out(new Ipp8u[room]);
  auto left = static_cast<Ipp32u>(room);
  const auto status =
      ippsDecodeLZO_8u(payload.data(), static_cast<Ipp32u>(payload.size()), out.get(), &left);
  const auto decoded = expected(payload, room);
  FUZZ_CHECK((status == ippStsNoErr) == decoded.has_value());
  if (decoded)
    FUZZ_CHECK(equal(View(out.get(), left), *decoded));
  else
    FUZZ_CHECK(status == ippStsBrokenStreamErr && left == room);
  return 0;
}
