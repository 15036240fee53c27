// SPDX-License-Identifier: LGPL-2.1-or-later
// LZO1X over the codec.
#include "platform/ipp/ippcore.h"
#include "codec/lzo1x/lzo1xchunks.h"

// The encoder's working memory follows this header.
struct IppLZOState_8u {
  Ipp32u seal; // stateSeal once initialised
  IppLZOMethod method;
  Ipp32u maxInputLen;
  Ipp32u workSize;
};
static_assert(sizeof(IppLZOState_8u) % alignof(Ipp32u) == 0, "the codec's memory must be aligned");

static constexpr Ipp32u stateSeal = 0x6e4c'5a31U;

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
  pLZOState->method = IppLZO1XST; // for IppLZO1XMT too: every payload is one stream
  pLZOState->maxInputLen = maxInputLen;
  pLZOState->workSize = size - static_cast<Ipp32u>(sizeof *pLZOState);
  pLZOState->seal = stateSeal;
  return ippStsNoErr;
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

  const lzo1x::Result result =
      lzo1x::encodePayload({pSrc, srcLen}, {pDst, *pDstLen},
                           {reinterpret_cast<std::byte *>(pLZOState + 1), pLZOState->workSize});
  ipp::wipeStackBelow(); // it may hold the last bytes of the data
  if (result.status != lzo1x::Status::ok)
    return ippStsDstSizeLessExpected; // the encoder's only error
  *pDstLen = static_cast<Ipp32u>(result.size);
  return ippStsNoErr;
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
  const lzo1x::Result result = lzo1x::decodePayload({pSrc, srcLen}, {pDst, *pDstLen});
  ipp::wipeStackBelow(); // as in ippsEncodeLZO_8u()
  // The sender announced the room, so output beyond it is corrupt too: a caller that retried with
  // more room might never finish.
  if (result.status != lzo1x::Status::ok)
    return ippStsBrokenStreamErr;
  *pDstLen = static_cast<Ipp32u>(result.size);
  return ippStsNoErr;
}
