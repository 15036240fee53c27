// SPDX-License-Identifier: LGPL-2.1-or-later
// Seed numbers and the random generator.
//
// The entropy input and nonce of the generator are the 64 bytes of the seed number: its 16 words
// from the lowest to the highest, each little-endian. A request of more than 2^19 bits is split
// into generate() calls of 2^19 bits each and one of the remainder. If nBits is not a multiple of
// 8, the surplus high bits of the last byte are zero.
#include "platform/ipp/hashdrbg.h"
#include "platform/ipp/ippcore.h"

#include <string.h>
#include <algorithm>

static constexpr int seedWords = 16;
static constexpr std::size_t seedBytes = seedWords * sizeof(Ipp32u);

struct IppsBigNumState {
  Ipp32u seal; // numberSeal once initialised
  int room;    // words that ippsSet_BN may give
  bool isSet;
  Ipp32u words[seedWords]; // lowest first
};

struct IppsPRNGState {
  Ipp32u seal; // generatorSeal once initialised
  bool isSeeded;
  ipp::HashDrbg drbg;
};

static constexpr Ipp32u numberSeal = 0x6e42'5331U;
static constexpr Ipp32u generatorSeal = 0x6e47'5231U;

IppStatus
ippsBigNumGetSize(int len32, int *pSize)
{
  if (pSize == nullptr)
    return ippStsNullPtrErr;
  if (len32 < 1 || len32 > seedWords)
    return ippStsLengthErr;
  *pSize = static_cast<int>(sizeof(IppsBigNumState));
  return ippStsNoErr;
}

IppStatus
ippsBigNumInit(int len32, IppsBigNumState *pBN)
{
  if (pBN == nullptr)
    return ippStsNullPtrErr;
  if (len32 < 1 || len32 > seedWords)
    return ippStsLengthErr;
  *pBN = IppsBigNumState{};
  pBN->room = len32;
  pBN->seal = numberSeal;
  return ippStsNoErr;
}

IppStatus
ippsSet_BN(IppsBigNumSGN sgn, int len32, const Ipp32u *pData, IppsBigNumState *pBN)
{
  if (pData == nullptr || pBN == nullptr)
    return ippStsNullPtrErr;
  if (pBN->seal != numberSeal)
    return ippStsContextMatchErr;
  if (sgn != IppsBigNumPOS)
    return ippStsBadArgErr;
  if (len32 < 1 || len32 > pBN->room)
    return ippStsLengthErr;
  std::fill_n(std::copy_n(pData, len32, pBN->words), seedWords - len32, 0U);
  pBN->isSet = true;
  return ippStsNoErr;
}

IppStatus
ippsPRNGGetSize(int *pSize)
{
  if (pSize == nullptr)
    return ippStsNullPtrErr;
  *pSize = static_cast<int>(sizeof(IppsPRNGState));
  return ippStsNoErr;
}

IppStatus
ippsPRNGInit(int seedBits, IppsPRNGState *pCtx)
{
  if (pCtx == nullptr)
    return ippStsNullPtrErr;
  if (seedBits < 1 || seedBits > static_cast<int>(seedBytes * 8))
    return ippStsLengthErr;
  *pCtx = IppsPRNGState{};
  pCtx->seal = generatorSeal;
  return ippStsNoErr;
}

IppStatus
ippsPRNGSetSeed(const IppsBigNumState *pSeed, IppsPRNGState *pCtx)
{
  if (pSeed == nullptr || pCtx == nullptr)
    return ippStsNullPtrErr;
  if (pSeed->seal != numberSeal || !pSeed->isSet || pCtx->seal != generatorSeal)
    return ippStsContextMatchErr;
  pCtx->isSeeded = false;
  if (ipp::startEngine() != ippStsNoErr)
    return ippStsErr;
  Ipp8u entropy[seedBytes];
  for (std::size_t i = 0; i < seedBytes; i++)
    entropy[i] = static_cast<Ipp8u>(pSeed->words[i / 4] >> (8 * (i % 4)));
  pCtx->isSeeded = pCtx->drbg.instantiate(entropy, sizeof entropy);
  explicit_bzero(entropy, sizeof entropy);
  // libgcrypt's one-shot hash does not wipe its input, here and in ippsPRNGen.
  ipp::wipeStackBelow();
  return pCtx->isSeeded ? ippStsNoErr : ippStsErr;
}

IppStatus
ippsPRNGen(Ipp32u *pRand, int nBits, void *pCtx)
{
  if (pRand == nullptr || pCtx == nullptr)
    return ippStsNullPtrErr;
  auto *state = static_cast<IppsPRNGState *>(pCtx);
  if (state->seal != generatorSeal || !state->isSeeded)
    return ippStsContextMatchErr;
  if (nBits < 1)
    return ippStsLengthErr;
  auto *out = reinterpret_cast<Ipp8u *>(pRand);
  const auto bits = static_cast<std::size_t>(nBits);
  const std::size_t size = (bits + 7) / 8;
  bool done = true;
  for (std::size_t at = 0; done && at < size; at += ipp::HashDrbg::requestLimit)
    done = state->drbg.generate(out + at, std::min(ipp::HashDrbg::requestLimit, size - at));
  ipp::wipeStackBelow();
  if (!done)
    return ippStsErr;
  if (bits % 8 != 0)
    out[size - 1] &= static_cast<Ipp8u>((1U << (bits % 8)) - 1);
  return ippStsNoErr;
}
