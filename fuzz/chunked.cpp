// SPDX-License-Identifier: LGPL-2.1-or-later
// Decodes any bytes as a payload, raw or assembled from chunks whose number, sizes and total may be
// wrong. The result equals a simple reading of the chunk layout over the reference decoder.
#include "support.h"

#include <zelgvc/gvcwire.h>

#include "codec/lzo1x/lzo1x.h"
#include "platform/ipp/ipp.h"
#include "tests/codec/lzo1xreference.h"

#include <algorithm>

using namespace fuzz;

namespace
{

using Decoded = std::optional<Bytes>;

constexpr std::size_t room_limit = 1 << 16;

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

Bytes
encode(View plain)
{
  Bytes out(lzo1x::worstCase(plain.size()));
  std::vector<std::byte> state(lzo1x::encoderStateSize(plain.size()));
  const auto result = lzo1x::encode(plain, out, state);
  FUZZ_CHECK(result.status == lzo1x::Status::ok);
  out.resize(result.size);
  return out;
}

void
put_number(Bytes *to, std::size_t value)
{
  for (unsigned shift = 0; shift < 32; shift += 8)
    to->push_back(static_cast<std::uint8_t>(value >> shift));
}

// Some decisions change the value a little.
std::size_t
perhaps_wrong(std::size_t truth, Script *script)
{
  const auto decision = script->byte();
  return decision < 0xe0 ? truth : truth + decision - 0xf0;
}

// `plain` in the chunk layout.
Bytes
put_together(View plain, Script *script)
{
  const auto count = 1 + script->below(33);
  Bytes payload{0x55, static_cast<std::uint8_t>(count), static_cast<std::uint8_t>(count ^ 0x55)};
  put_number(&payload, perhaps_wrong(plain.size(), script));
  Bytes chunks;
  const auto share = plain.size() / count;
  for (std::size_t i = 0; i < count; i++) {
    const auto chunk =
        encode(i + 1 < count ? plain.subspan(i * share, share) : plain.subspan(i * share));
    if (i + 1 < count)
      put_number(&payload, perhaps_wrong(chunk.size(), script));
    chunks.insert(chunks.end(), chunk.begin(), chunk.end());
  }
  payload.insert(payload.end(), chunks.begin(), chunks.end());
  if (script->byte() & 0x80)
    payload.resize(perhaps_wrong(payload.size(), script) % (payload.size() + 16));
  return payload;
}

void
check(View payload, std::size_t room)
{
  // Of exactly these sizes, so that the sanitizer sees every overrun.
  const Bytes in(payload.begin(), payload.end());
  const std::unique_ptr<Ipp8u[]> out(new Ipp8u[room]);
  auto size = static_cast<Ipp32u>(room);
  const auto status = ippsDecodeLZO_8u(in.data(), static_cast<Ipp32u>(in.size()), out.get(), &size);
  const auto decoded = expected(payload, room);
  FUZZ_CHECK((status == ippStsNoErr) == decoded.has_value());
  if (decoded)
    FUZZ_CHECK(equal({out.get(), size}, *decoded));
  else
    FUZZ_CHECK(status == ippStsBrokenStreamErr && size == room);
}

} // namespace

// The script: whether the bytes are the payload or the data in it, the room, and wrong values.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, bytes] = split_input(data, size);
  const auto decision = script.byte();
  const auto room = (script.byte() | static_cast<std::size_t>(script.byte()) << 8) % room_limit;
  if (decision % 2 == 0) {
    check(bytes, room);
    return 0;
  }
  const auto payload = put_together(bytes, &script);
  check(payload, decision & 0x80 ? room : bytes.size());
  return 0;
}
