// SPDX-License-Identifier: LGPL-2.1-or-later
// Seed numbers and the random generator.
//
// The generator is Hash_DRBG with SHA-256 of NIST SP 800-90A Rev. 1 (section 10.1.1), seedlen 440
// bits, no prediction resistance, no additional input and no reseeding:
//
//   - ippsPRNGSetSeed instantiates it. Entropy input and nonce together are the 64 bytes of the
//     seed number: its 16 words from the lowest to the highest, each with its low byte first,
//     whatever the byte order of the machine. There is no personalisation string.
//   - ippsPRNGen is one generate call, the output bytes standing in memory in the order in which
//     the standard gives them. A request of more than 2^19 bits is the concatenation of generate
//     calls of 2^19 bits each and one of the rest. Where nBits is not a multiple of 8, the bits of
//     the last byte from bit nBits % 8 up are zero.
//
// Equal seeds give equal output everywhere; nothing else enters.
#include "platform/ipp/ippcore.h"

#include <gcrypt.h>
#include <string.h>
#include <algorithm>

static constexpr int seedWords = 16;
static constexpr std::size_t seedBytes = seedWords * sizeof(Ipp32u);

struct IppsBigNumState {
  Ipp32u seal; // numberSeal once initialised
  int room;    // words that ippsSet_BN may give
  bool isSet;
  Ipp32u words[seedWords]; // lowest first; those that were not given are 0
};

static constexpr std::size_t hashSize = 32;
static constexpr std::size_t valueSize = 55;                 // seedlen, 440 bits
static constexpr std::size_t requestLimit = (1U << 19) / 8;  // bytes of one generate call
static constexpr std::uint64_t reseedInterval = 1ULL << 48U; // generate calls of one seed

struct IppsPRNGState {
  Ipp32u seal; // generatorSeal once initialised
  bool isSeeded;
  Ipp8u v[valueSize]; // V, C and reseed_counter of the standard; big-endian numbers
  Ipp8u c[valueSize];
  std::uint64_t reseedCounter;
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

[[nodiscard]] static bool
hash(const Ipp8u *data, std::size_t size, Ipp8u *digest)
{
  const gcry_buffer_t piece = {
      .size = size, .off = 0, .len = size, .data = const_cast<Ipp8u *>(data)};
  return gcry_md_hash_buffers(GCRY_MD_SHA256, 0, digest, &piece, 1) == 0;
}

// Hash_df with an output of `valueSize` bytes.
[[nodiscard]] static bool
deriveValue(const Ipp8u *data, std::size_t size, Ipp8u *value)
{
  Ipp8u prefix[5] = {0, 0, 0, (valueSize * 8) >> 8U, (valueSize * 8) & 0xffU};
  const gcry_buffer_t pieces[2] = {
      {.size = sizeof prefix, .off = 0, .len = sizeof prefix, .data = prefix},
      {.size = size, .off = 0, .len = size, .data = const_cast<Ipp8u *>(data)},
  };
  for (std::size_t at = 0; at < valueSize; at += hashSize) {
    Ipp8u digest[hashSize];
    prefix[0]++;
    if (gcry_md_hash_buffers(GCRY_MD_SHA256, 0, digest, pieces, 2) != 0)
      return false;
    memcpy(value + at, digest, std::min(hashSize, valueSize - at));
    explicit_bzero(digest, sizeof digest);
  }
  return true;
}

// value += number modulo 2^440, both big-endian; size is at most valueSize.
static void
add(Ipp8u *value, const Ipp8u *number, std::size_t size)
{
  unsigned carry = 0;
  for (std::size_t i = 1; i <= valueSize && (i <= size || carry != 0); i++) {
    carry += value[valueSize - i] + (i <= size ? unsigned{number[size - i]} : 0U);
    value[valueSize - i] = static_cast<Ipp8u>(carry & 0xffU);
    carry >>= 8U;
  }
}

static void
add(Ipp8u *value, std::uint64_t number)
{
  Ipp8u bytes[8];
  for (unsigned i = 0; i < 8; i++)
    bytes[i] = static_cast<Ipp8u>(number >> (56U - 8U * i));
  add(value, bytes, sizeof bytes);
}

// The standard tells apart the uses of V by the byte that stands before it.
struct TaggedValue {
  Ipp8u bytes[1 + valueSize];

  TaggedValue(Ipp8u tag, const Ipp8u *value)
  {
    bytes[0] = tag;
    memcpy(bytes + 1, value, valueSize);
  }
  ~TaggedValue()
  {
    explicit_bzero(bytes, sizeof bytes);
  }
};

[[nodiscard]] static bool
instantiate(const Ipp8u *entropy, std::size_t size, IppsPRNGState *state)
{
  if (!deriveValue(entropy, size, state->v))
    return false;
  const TaggedValue input(0x00, state->v);
  state->reseedCounter = 1;
  return deriveValue(input.bytes, sizeof input.bytes, state->c);
}

[[nodiscard]] static bool
fill(Ipp8u *out, std::size_t size, const Ipp8u *v)
{
  static constexpr Ipp8u one[1] = {1};
  Ipp8u data[valueSize];
  bool done = true;
  memcpy(data, v, valueSize);
  for (std::size_t at = 0; done && at < size; at += hashSize) {
    Ipp8u digest[hashSize];
    done = hash(data, valueSize, digest);
    if (done)
      memcpy(out + at, digest, std::min(hashSize, size - at));
    explicit_bzero(digest, sizeof digest); // what exceeds the request is nobody's
    add(data, one, 1);
  }
  explicit_bzero(data, sizeof data);
  return done;
}

// One generate call, of at most requestLimit bytes. The state is left as it was on failure.
[[nodiscard]] static bool
generate(Ipp8u *out, std::size_t size, IppsPRNGState *state)
{
  const TaggedValue input(0x03, state->v);
  Ipp8u digest[hashSize];
  if (state->reseedCounter > reseedInterval || !fill(out, size, state->v) ||
      !hash(input.bytes, sizeof input.bytes, digest))
    return false;
  add(state->v, digest, hashSize);
  add(state->v, state->c, valueSize);
  add(state->v, state->reseedCounter);
  state->reseedCounter++;
  return true;
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
  pCtx->isSeeded = instantiate(entropy, sizeof entropy, pCtx);
  explicit_bzero(entropy, sizeof entropy);
  // libgcrypt's one-shot hash does not wipe what it hashed, here and in ippsPRNGen.
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
  for (std::size_t at = 0; done && at < size; at += requestLimit)
    done = generate(out + at, std::min(requestLimit, size - at), state);
  ipp::wipeStackBelow();
  if (!done)
    return ippStsErr;
  if (bits % 8 != 0)
    out[size - 1] &= static_cast<Ipp8u>((1U << (bits % 8)) - 1);
  return ippStsNoErr;
}
