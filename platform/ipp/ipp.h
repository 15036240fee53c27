// SPDX-License-Identifier: LGPL-2.1-or-later
// The platform functions that the library calls: AES-CBC, a random generator and the LZO1X codec.
// Their names, signatures and status codes are fixed.
#pragma once

#include <cstdint>

using Ipp8u = std::uint8_t;
using Ipp32u = std::uint32_t;

enum IppStatus : int {
  ippStsNoErr = 0,
  ippStsErr = -2,                 // the engine failed
  ippStsBadArgErr = -5,           // an argument has no legal value
  ippStsNullPtrErr = -8,          // an argument is NULL
  ippStsContextMatchErr = -13,    // the context was never initialised, or its Init failed
  ippStsLengthErr = -15,          // a length is negative, zero or otherwise out of range
  ippStsUnderRunErr = -1005,      // the source is not a whole number of cipher blocks
  ippStsBrokenStreamErr = -1006,  // the source is no valid LZO stream, or exceeds the room
  ippStsDstSizeLessExpected = 33, // the destination is too small
};

enum IppsRijndaelKeyLength : int {
  IppsRijndaelKey128 = 128,
  IppsRijndaelKey256 = 256,
};

enum IppsCPPadding : int {
  IppsCPPaddingNONE = 0,
};

enum IppsBigNumSGN : int {
  IppsBigNumNEG = 0,
  IppsBigNumPOS = 1,
};

enum IppLZOMethod : int {
  IppLZO1XST = 0, // one stream
  IppLZO1XMT = 1,
};

struct IppsRijndael128Spec;
struct IppsPRNGState;
struct IppsBigNumState;
struct IppLZOState_8u;

extern "C" {

// Initialises the engine. All other functions also work without it.
IppStatus ippInit(void);

// AES with 128-bit blocks in CBC mode. The caller allocates a context of the size from GetSize,
// fills it with zeros before the first Init, and calls Release before freeing it. Cipher calls fail
// and Release does nothing without a successful Init. Init releases a context that is already
// initialised. A context must not be copied or moved, and only one thread at a time may use it.
// Cipher calls take a positive multiple of 16 bytes and do not change pIV. pSrc and pDst are equal
// or do not overlap.
IppStatus ippsRijndael128GetSize(int *pSize);
IppStatus ippsRijndael128Init(const Ipp8u *pKey, IppsRijndaelKeyLength keyLen,
                              IppsRijndael128Spec *pCtx);
IppStatus ippsRijndael128EncryptCBC(const Ipp8u *pSrc, Ipp8u *pDst, int len,
                                    const IppsRijndael128Spec *pCtx, const Ipp8u *pIV,
                                    IppsCPPadding padding);
IppStatus ippsRijndael128DecryptCBC(const Ipp8u *pSrc, Ipp8u *pDst, int len,
                                    const IppsRijndael128Spec *pCtx, const Ipp8u *pIV,
                                    IppsCPPadding padding);
void ippsRijndael128Release(IppsRijndael128Spec *pCtx);

// Unsigned numbers of 1 to 16 words of 32 bits, which carry seeds. Words that Set_BN does not get
// are 0. A number must be set before it can be a seed.
IppStatus ippsBigNumGetSize(int len32, int *pSize);
IppStatus ippsBigNumInit(int len32, IppsBigNumState *pBN);
IppStatus ippsSet_BN(IppsBigNumSGN sgn, int len32, const Ipp32u *pData, IppsBigNumState *pBN);

// A deterministic random generator in plain memory. seedBits is 1 to 512, but the whole seed number
// counts. PRNGen fails before SetSeed. It writes (nBits + 7) / 8 bytes, with surplus high bits of
// the last byte 0; pRand may be unaligned.
IppStatus ippsPRNGGetSize(int *pSize);
IppStatus ippsPRNGInit(int seedBits, IppsPRNGState *pCtx);
IppStatus ippsPRNGSetSeed(const IppsBigNumState *pSeed, IppsPRNGState *pCtx);
IppStatus ippsPRNGen(Ipp32u *pRand, int nBits, void *pCtx);

// LZO1X. The caller allocates the encoder's state, whose size grows with maxInputLen. *pDstLen is
// the room on entry and the size of the output on success; a failure leaves it unchanged. An empty
// source gives empty output, and pSrc and pDst may then be NULL. If the output exceeds the room,
// the decoder returns ippStsBrokenStreamErr.
IppStatus ippsEncodeLZOGetSize(IppLZOMethod method, Ipp32u maxInputLen, Ipp32u *pSize);
IppStatus ippsEncodeLZOInit_8u(IppLZOMethod method, Ipp32u maxInputLen, IppLZOState_8u *pLZOState);
IppStatus ippsEncodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen,
                           IppLZOState_8u *pLZOState);
IppStatus ippsDecodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen);
}
