// SPDX-License-Identifier: LGPL-2.1-or-later
// The platform functions that the library calls: AES-CBC, the random generator and the LZO1X codec,
// under the names, signatures and status codes that the library's algorithms are written against.
#pragma once

#include <cstdint>

using Ipp8u = std::uint8_t;
using Ipp32u = std::uint32_t;

enum IppStatus : int {
  ippStsNoErr = 0,
  ippStsErr = -2,                 // the engine failed
  ippStsBadArgErr = -5,           // an argument has no legal value
  ippStsNullPtrErr = -8,          // an argument is NULL
  ippStsContextMatchErr = -13,    // a context that was never initialised, or whose Init failed
  ippStsLengthErr = -15,          // a length is negative, zero or otherwise out of range
  ippStsUnderRunErr = -1005,      // the source is not a whole number of cipher blocks
  ippStsBrokenStreamErr = -1006,  // the source is not a valid LZO stream for the announced room
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

// Initialises the engine. Every other function also works when this was never called.
IppStatus ippInit(void);

// AES with 128-bit blocks in CBC mode. A context block is memory of the caller's, of the size that
// GetSize reports and zero-filled before Init; Release must come before the memory is freed.
// Release does nothing to a block whose Init was never called or failed; cipher calls on one fail.
// Init on a block that is already initialised releases what it held first. A block is not a context
// any more once it is copied or moved, and one thread at a time uses it.
// A cipher call takes a length of 16 bytes or more, a multiple of 16 (0 is ippStsLengthErr), leaves
// pIV as it is, and works in place: pSrc and pDst are equal or do not overlap.
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

// Unsigned numbers of a fixed count of 32-bit words, 1 to 16; here they carry seeds. Words that
// Set_BN is not given are 0; a number that was never set is not a seed.
IppStatus ippsBigNumGetSize(int len32, int *pSize);
IppStatus ippsBigNumInit(int len32, IppsBigNumState *pBN);
IppStatus ippsSet_BN(IppsBigNumSGN sgn, int len32, const Ipp32u *pData, IppsBigNumState *pBN);

// A deterministic random generator: plain memory, all of its output follows from the installed
// seed. seedBits is 1 to 512; the whole seed number is used whatever it says. PRNGen writes exactly
// (nBits + 7) / 8 bytes, surplus high bits of the last one being 0, and fails until a seed was set;
// pRand need not be aligned.
IppStatus ippsPRNGGetSize(int *pSize);
IppStatus ippsPRNGInit(int seedBits, IppsPRNGState *pCtx);
IppStatus ippsPRNGSetSeed(const IppsBigNumState *pSeed, IppsPRNGState *pCtx);
IppStatus ippsPRNGen(Ipp32u *pRand, int nBits, void *pCtx);

// LZO1X. The encoder's state is plain memory of the caller's; its size grows with the announced
// input length. *pDstLen is the room on entry and the count of bytes produced on success; it is
// unchanged on failure. A source of 0 bytes gives 0 bytes; pSrc and pDst may then be NULL.
// The decoder reports output beyond the room as ippStsBrokenStreamErr, never as 33.
IppStatus ippsEncodeLZOGetSize(IppLZOMethod method, Ipp32u maxInputLen, Ipp32u *pSize);
IppStatus ippsEncodeLZOInit_8u(IppLZOMethod method, Ipp32u maxInputLen, IppLZOState_8u *pLZOState);
IppStatus ippsEncodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen,
                           IppLZOState_8u *pLZOState);
IppStatus ippsDecodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen);
}
