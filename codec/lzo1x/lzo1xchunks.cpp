// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1xchunks.h"
#include "codec/lzo1x/lzo1xformat.h"

#include <algorithm>

namespace lzo1x
{
namespace
{

constexpr std::uint8_t chunkMagic = 0x55;
constexpr std::size_t chunksMax = 32;
constexpr std::size_t totalAt = 3;
constexpr std::size_t sizesAt = 7;

bool
startsLikeChunks(Input payload)
{
  return payload.size() >= totalAt && payload[0] == chunkMagic && payload[1] >= 1 &&
         payload[1] <= chunksMax && payload[2] == (payload[1] ^ chunkMagic);
}

std::uint32_t
load32(Input payload, std::size_t at)
{
  return loadLittleEndian<std::uint32_t>(&payload[at]);
}

// The offset of the first chunk.
std::size_t
chunksAt(std::size_t count)
{
  return sizesAt + 4 * (count - 1);
}

// The size of chunk `i` from the header. The last chunk has none there and takes all that is
// `left`.
std::size_t
chunkSize(Input payload, std::size_t i, std::size_t count, std::size_t left)
{
  return i + 1 < count ? load32(payload, sizesAt + 4 * i) : left;
}

// Whether the payload has the chunk layout: the magic bytes, and an end marker at the end of the
// first chunk.
bool
isChunked(Input payload)
{
  if (!startsLikeChunks(payload))
    return false;
  const std::size_t count = payload[1];
  const std::size_t start = chunksAt(count);
  if (payload.size() < start)
    return false;
  const std::size_t left = payload.size() - start;
  const std::size_t first = chunkSize(payload, 0, count, left);
  if (first < sizeof endMarker || first > left)
    return false;
  return std::ranges::equal(payload.subspan(start, first).last(sizeof endMarker), endMarker);
}

// Decodes a payload for which isChunked() holds, so the header lies inside the payload.
Result
decodeChunks(Input payload, Output out)
{
  const std::size_t count = payload[1];
  const std::size_t total = load32(payload, totalAt);
  if (total > out.size())
    return {Status::outputOverrun, 0};
  Input input = payload.subspan(chunksAt(count));
  Output output = out.first(total);
  for (std::size_t i = 0; i < count; i++) {
    const std::size_t size = chunkSize(payload, i, count, input.size());
    const std::size_t share = i + 1 < count ? total / count : output.size();
    if (size > input.size())
      return {Status::inputOverrun, 0};
    const Result result = decode(input.first(size), output.first(share));
    if (result.status != Status::ok || result.size != share)
      return {Status::inputOverrun, 0};
    input = input.subspan(size);
    output = output.subspan(share);
  }
  return {Status::ok, total};
}

// A stream that opens with a run of this many literals starts with the magic byte.
constexpr std::uint8_t ambiguousRun = chunkMagic - openingRunMark;
static_assert(worstCase(ambiguousRun) + 1 <= ambiguousRun + ambiguousRun / 10);

} // namespace

Result
encodePayload(Input in, Output out, std::span<std::byte> state) noexcept
{
  Result result = encode(in, out.first(std::min(out.size(), worstCase(in.size()))), state);
  if (result.status != Status::ok || !startsLikeChunks(out.first(result.size)))
    return result;
  if (result.size == out.size())
    return {Status::noRoom, 0};
  // The long form of the same run starts with 0 and takes one byte more.
  std::memmove(&out[2], &out[1], result.size - 1);
  out[0] = 0;
  out[1] = ambiguousRun - runShortMax;
  result.size++;
  return result;
}

// A payload may be both a stream and a single chunk. It is the stream if that fills the room, else
// the chunk if that decodes.
Result
decodePayload(Input payload, Output out) noexcept
{
  if (!isChunked(payload))
    return decode(payload, out);
  if (payload[1] > 1)
    return decodeChunks(payload, out);
  const Result plain = decode(payload, out);
  if (plain.status == Status::ok && plain.size == out.size())
    return plain;
  const Result chunk = decodeChunks(payload, out);
  // The chunk has overwritten what the stream decoded to.
  const bool again = chunk.status != Status::ok && plain.status == Status::ok;
  return again ? decode(payload, out) : chunk;
}

} // namespace lzo1x
