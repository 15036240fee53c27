// SPDX-License-Identifier: LGPL-2.1-or-later
// LZO1X over the codec.
//
// A payload is one LZO1X stream, which is all that the encoder writes, or the chunked layout:
//
//   0x55, N, N ^ 0x55     N chunks, 1 to 32
//   total                 32 bits, little-endian: the bytes that all chunks decode to
//   N - 1 sizes           32 bits, little-endian: the bytes of every chunk but the last
//   N chunks              each one LZO1X stream; the last one ends with the payload
//
// Chunk i decodes to total / N bytes, the last chunk to the remainder also.
#include "platform/ipp/ippcore.h"
#include "codec/lzo1x/lzo1x.h"

#include <string.h>
#include <algorithm>

// The encoder's working memory follows this header.
struct IppLZOState_8u {
  Ipp32u seal; // stateSeal once initialised
  IppLZOMethod method;
  Ipp32u maxInputLen;
  Ipp32u workSize;
};
static_assert(sizeof(IppLZOState_8u) % alignof(Ipp32u) == 0, "the codec's memory must be aligned");

static constexpr Ipp32u stateSeal = 0x6e4c'5a31U;

static constexpr Ipp8u chunkMagic = 0x55;
static constexpr std::size_t chunksMax = 32;
static constexpr std::size_t chunkHeaderSize = 7;
static constexpr Ipp8u endMarker[3] = {0x11, 0x00, 0x00};

static IppStatus
checkMethod(IppLZOMethod method)
{
  return method == IppLZO1XST || method == IppLZO1XMT ? ippStsNoErr : ippStsBadArgErr;
}

IppStatus
ippsEncodeLZOGetSize(IppLZOMethod method, Ipp32u maxInputLen, Ipp32u *pSize)
{
  if (pSize == nullptr)
    return ippStsNullPtrErr;
  if (const IppStatus status = checkMethod(method); status != ippStsNoErr)
    return status;
  const std::uint64_t size =
      std::uint64_t{lzo1x::encoderStateSize(maxInputLen)} + sizeof(IppLZOState_8u);
  if (size > UINT32_MAX)
    return ippStsLengthErr;
  *pSize = static_cast<Ipp32u>(size);
  return ippStsNoErr;
}

IppStatus
ippsEncodeLZOInit_8u(IppLZOMethod method, Ipp32u maxInputLen, IppLZOState_8u *pLZOState)
{
  Ipp32u size = 0;
  if (pLZOState == nullptr)
    return ippStsNullPtrErr;
  if (const IppStatus status = ippsEncodeLZOGetSize(method, maxInputLen, &size); status != 0)
    return status;
  pLZOState->method = IppLZO1XST; // for IppLZO1XMT as well: every payload is one stream
  pLZOState->maxInputLen = maxInputLen;
  pLZOState->workSize = size - static_cast<Ipp32u>(sizeof *pLZOState);
  pLZOState->seal = stateSeal;
  return ippStsNoErr;
}

static bool
startsLikeChunks(lzo1x::Input payload)
{
  return payload.size() >= 3 && payload[0] == chunkMagic && payload[1] >= 1 &&
         payload[1] <= chunksMax && payload[2] == (payload[1] ^ chunkMagic);
}

// A stream that opens with a run of 68 literals has the first byte 0x55, so with data that starts
// with N, N ^ 0x55 a decoder could take it for chunks. The same run in its long form (0, then its
// length less 18) says the same and starts with 0. It is one byte longer: up to worstCase() + 1
// bytes in all, and still within size + size / 10 as there are 68 bytes of source or more.
static constexpr Ipp8u ambiguousRun = chunkMagic - 17;
static_assert(lzo1x::worstCase(ambiguousRun) + 1 <= ambiguousRun + ambiguousRun / 10);

static bool
avoidChunkMagic(Ipp8u *stream, std::size_t *size, std::size_t room)
{
  if (!startsLikeChunks({stream, *size}))
    return true;
  if (room == *size)
    return false;
  memmove(stream + 2, stream + 1, *size - 1);
  stream[0] = 0;
  stream[1] = ambiguousRun - 18;
  ++*size;
  return true;
}

IppStatus
ippsEncodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen,
                 IppLZOState_8u *pLZOState)
{
  if (pDstLen == nullptr || pLZOState == nullptr)
    return ippStsNullPtrErr;
  if (pLZOState->seal != stateSeal)
    return ippStsContextMatchErr;
  if (srcLen == 0) {
    *pDstLen = 0;
    return ippStsNoErr;
  }
  if (pSrc == nullptr || pDst == nullptr)
    return ippStsNullPtrErr;
  if (srcLen > pLZOState->maxInputLen)
    return ippStsLengthErr;

  const std::size_t room = std::min<std::size_t>(*pDstLen, lzo1x::worstCase(srcLen));
  const lzo1x::Result result =
      lzo1x::encode({pSrc, srcLen}, {pDst, room},
                    {reinterpret_cast<std::byte *>(pLZOState + 1), pLZOState->workSize});
  ipp::wipeStackBelow(); // the last bytes of the data can have passed through it
  std::size_t size = result.size;
  if (result.status != lzo1x::Status::ok || !avoidChunkMagic(pDst, &size, *pDstLen))
    return ippStsDstSizeLessExpected; // encode() fails for nothing else
  *pDstLen = static_cast<Ipp32u>(size);
  return ippStsNoErr;
}

static Ipp32u
load32(const Ipp8u *bytes)
{
  return bytes[0] | Ipp32u{bytes[1]} << 8U | Ipp32u{bytes[2]} << 16U | Ipp32u{bytes[3]} << 24U;
}

static std::size_t
chunksAt(std::size_t count)
{
  return chunkHeaderSize + 4 * (count - 1);
}

// The size of chunk `i` as the header gives it; for the last one, what the others leave (`rest`).
static std::uint64_t
chunkSize(lzo1x::Input payload, std::size_t i, std::size_t count, std::size_t rest)
{
  return i + 1 < count ? load32(&payload[chunkHeaderSize + 4 * i]) : rest;
}

// Whether the payload is in the chunked layout: it starts like it, and the first chunk's end
// marker stands where the first size says. A payload of a single chunk has no size; its marker
// stands at the end of the payload.
static bool
isChunked(lzo1x::Input payload)
{
  if (!startsLikeChunks(payload))
    return false;
  const std::size_t count = payload[1];
  const std::size_t start = chunksAt(count);
  if (payload.size() < start)
    return false;
  const std::size_t rest = payload.size() - start;
  const std::uint64_t first = chunkSize(payload, 0, count, rest);
  if (first < sizeof endMarker || first > rest)
    return false;
  const lzo1x::Input chunk = payload.subspan(start, static_cast<std::size_t>(first));
  return memcmp(chunk.last(sizeof endMarker).data(), endMarker, sizeof endMarker) == 0;
}

// Decodes a payload for which isChunked() holds: so the header and the table lie inside it.
static lzo1x::Result
decodeChunks(lzo1x::Input payload, lzo1x::Output out)
{
  const std::size_t count = payload[1];
  const std::size_t total = load32(&payload[3]);
  if (total > out.size())
    return {lzo1x::Status::outputOverrun, 0};
  lzo1x::Input input = payload.subspan(chunksAt(count));
  lzo1x::Output output = out.first(total);
  for (std::size_t i = 0; i < count; i++) {
    const std::uint64_t size = chunkSize(payload, i, count, input.size());
    const std::size_t share = i + 1 < count ? total / count : output.size();
    if (size > input.size())
      return {lzo1x::Status::inputOverrun, 0};
    const lzo1x::Result result =
        lzo1x::decode(input.first(static_cast<std::size_t>(size)), output.first(share));
    if (result.status != lzo1x::Status::ok || result.size != share)
      return {lzo1x::Status::inputOverrun, 0};
    input = input.subspan(static_cast<std::size_t>(size));
    output = output.subspan(share);
  }
  return {lzo1x::Status::ok, total};
}

// Nothing says where a single chunk ends, so a plain stream that starts like one is recognised too.
// The payload is that stream if it gives what the room was made for, and else a chunk if it can be.
static lzo1x::Result
decodePayload(lzo1x::Input payload, lzo1x::Output room)
{
  if (!isChunked(payload))
    return lzo1x::decode(payload, room);
  if (payload[1] > 1)
    return decodeChunks(payload, room);
  const lzo1x::Result plain = lzo1x::decode(payload, room);
  if (plain.status == lzo1x::Status::ok && plain.size == room.size())
    return plain;
  const lzo1x::Result chunk = decodeChunks(payload, room);
  // The chunk has written over what the stream gave.
  const bool again = chunk.status != lzo1x::Status::ok && plain.status == lzo1x::Status::ok;
  return again ? lzo1x::decode(payload, room) : chunk;
}

IppStatus
ippsDecodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen)
{
  if (pDstLen == nullptr)
    return ippStsNullPtrErr;
  if (srcLen == 0) {
    *pDstLen = 0;
    return ippStsNoErr;
  }
  if (pSrc == nullptr || (pDst == nullptr && *pDstLen != 0))
    return ippStsNullPtrErr;
  const lzo1x::Result result = decodePayload({pSrc, srcLen}, {pDst, *pDstLen});
  ipp::wipeStackBelow(); // as in ippsEncodeLZO_8u()
  // Output beyond the room is a broken stream too: the room is what the sender announced, so a
  // caller that answered with a larger one would never come to an end.
  if (result.status != lzo1x::Status::ok)
    return ippStsBrokenStreamErr;
  *pDstLen = static_cast<Ipp32u>(result.size);
  return ippStsNoErr;
}
