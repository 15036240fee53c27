// SPDX-License-Identifier: LGPL-2.1-or-later
// AES-CBC over a libgcrypt cipher handle.
//
// The context holds the handle and the state of its chain. libgcrypt owns the only copy of the key
// and wipes it in gcry_cipher_close().
#include "platform/ipp/ippcore.h"

#include <gcrypt.h>
#include <string.h>

struct IppsRijndael128Spec {
  std::uintptr_t seal; // sealOf() this context while `handle` is open and has its key
  gcry_cipher_hd_t handle;
  // The last ciphertext block of the previous call, from which the handle continues the chain. If
  // the next IV is the same, gcry_cipher_setiv(), which costs as much as a block, is not needed.
  mutable bool hasChain;
  mutable Ipp8u chain[16];
};

static constexpr int blockSize = 16;

// The seal depends on the address, so a copied context is not valid and two contexts never own one
// handle. The seal is odd, because addresses are even, so it never equals 0.
static std::uintptr_t
sealOf(const IppsRijndael128Spec *ctx)
{
  constexpr std::uintptr_t magic = static_cast<std::uintptr_t>(0xa5c3'91e7'52d8'6b1fU);
  return reinterpret_cast<std::uintptr_t>(ctx) ^ magic;
}

static bool
isOpen(const IppsRijndael128Spec *ctx)
{
  return ctx->seal == sealOf(ctx);
}

static gcry_cipher_hd_t
openCipher(const Ipp8u *key, IppsRijndaelKeyLength keyLen)
{
  const int algorithm = keyLen == IppsRijndaelKey128 ? GCRY_CIPHER_AES128 : GCRY_CIPHER_AES256;
  gcry_cipher_hd_t handle = nullptr;
  if (gcry_cipher_open(&handle, algorithm, GCRY_CIPHER_MODE_CBC, 0) != 0)
    return nullptr;
  if (gcry_cipher_setkey(handle, key, static_cast<std::size_t>(keyLen) / 8) == 0)
    return handle;
  gcry_cipher_close(handle);
  return nullptr;
}

IppStatus
ippsRijndael128GetSize(int *pSize)
{
  if (pSize == nullptr)
    return ippStsNullPtrErr;
  *pSize = static_cast<int>(sizeof(IppsRijndael128Spec));
  return ippStsNoErr;
}

IppStatus
ippsRijndael128Init(const Ipp8u *pKey, IppsRijndaelKeyLength keyLen, IppsRijndael128Spec *pCtx)
{
  if (pCtx == nullptr)
    return ippStsNullPtrErr;
  // A failed Init leaves no usable context.
  ippsRijndael128Release(pCtx);
  if (pKey == nullptr)
    return ippStsNullPtrErr;
  if (keyLen != IppsRijndaelKey128 && keyLen != IppsRijndaelKey256)
    return ippStsLengthErr;
  if (ipp::startEngine() != ippStsNoErr)
    return ippStsErr;
  gcry_cipher_hd_t handle = openCipher(pKey, keyLen);
  if (handle == nullptr)
    return ippStsErr;
  pCtx->handle = handle;
  pCtx->hasChain = false;
  pCtx->seal = sealOf(pCtx);
  return ippStsNoErr;
}

static IppStatus
checkCall(const Ipp8u *src, const Ipp8u *dst, int len, const IppsRijndael128Spec *ctx,
          const Ipp8u *iv, IppsCPPadding padding)
{
  if (src == nullptr || dst == nullptr || ctx == nullptr || iv == nullptr)
    return ippStsNullPtrErr;
  if (!isOpen(ctx))
    return ippStsContextMatchErr;
  if (len < 1)
    return ippStsLengthErr;
  if (len % blockSize != 0)
    return ippStsUnderRunErr;
  if (padding != IppsCPPaddingNONE)
    return ippStsBadArgErr;
  return ippStsNoErr;
}

[[nodiscard]] static bool
startChain(const IppsRijndael128Spec *ctx, const Ipp8u *iv)
{
  const bool runsOn = ctx->hasChain && memcmp(ctx->chain, iv, blockSize) == 0;
  // After a failure the state of the handle's chain is unknown.
  ctx->hasChain = false;
  return runsOn || gcry_cipher_setiv(ctx->handle, iv, blockSize) == 0;
}

static void
endChain(const IppsRijndael128Spec *ctx, const Ipp8u *lastBlock)
{
  memcpy(ctx->chain, lastBlock, blockSize);
  ctx->hasChain = true;
}

IppStatus
ippsRijndael128EncryptCBC(const Ipp8u *pSrc, Ipp8u *pDst, int len, const IppsRijndael128Spec *pCtx,
                          const Ipp8u *pIV, IppsCPPadding padding)
{
  if (const IppStatus status = checkCall(pSrc, pDst, len, pCtx, pIV, padding); status != 0)
    return status;
  const auto size = static_cast<std::size_t>(len);
  if (!startChain(pCtx, pIV) || gcry_cipher_encrypt(pCtx->handle, pDst, size, pSrc, size) != 0)
    return ippStsErr;
  endChain(pCtx, pDst + size - blockSize);
  return ippStsNoErr;
}

IppStatus
ippsRijndael128DecryptCBC(const Ipp8u *pSrc, Ipp8u *pDst, int len, const IppsRijndael128Spec *pCtx,
                          const Ipp8u *pIV, IppsCPPadding padding)
{
  if (const IppStatus status = checkCall(pSrc, pDst, len, pCtx, pIV, padding); status != 0)
    return status;
  const auto size = static_cast<std::size_t>(len);
  // Decrypting in place overwrites the ciphertext.
  Ipp8u lastBlock[blockSize];
  memcpy(lastBlock, pSrc + size - blockSize, blockSize);
  if (!startChain(pCtx, pIV) || gcry_cipher_decrypt(pCtx->handle, pDst, size, pSrc, size) != 0)
    return ippStsErr;
  endChain(pCtx, lastBlock);
  return ippStsNoErr;
}

void
ippsRijndael128Release(IppsRijndael128Spec *pCtx)
{
  if (pCtx == nullptr || !isOpen(pCtx))
    return;
  gcry_cipher_close(pCtx->handle);
  explicit_bzero(pCtx, sizeof *pCtx);
}
