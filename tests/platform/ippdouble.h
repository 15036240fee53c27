// SPDX-License-Identifier: LGPL-2.1-or-later
// A double of the platform functions, linked in place of them, that fails on demand.
//
// Left alone it works, with toys: the cipher XORs each block with the folded key and the block
// before it, the generator is a 64-bit mixer over the seed, and the codec stores its input as it
// stands. Both directions fit together, and arguments are refused as the real functions refuse
// them. Nothing here is secure or compresses.
//
// While a context or state is live, the whole of its memory, of the size that its GetSize reports,
// is filled with `liveFill`: with a sanitizer, memory that was allocated too small is seen.
#pragma once

#include "platform/ipp/ipp.h"

#include <cstddef>
#include <optional>
#include <vector>

namespace ippdouble
{

enum class Function {
  init,
  rijndaelGetSize,
  rijndaelInit,
  encryptCbc,
  decryptCbc,
  rijndaelRelease,
  bigNumGetSize,
  bigNumInit,
  setBn,
  prngGetSize,
  prngInit,
  prngSetSeed,
  prnGen,
  encodeLzoGetSize,
  encodeLzoInit,
  encodeLzo,
  decodeLzo,
  count,
};

// The behaviour of one function from now on. Calls count from 1 since reset().
struct Plan {
  unsigned failFrom = 0;         // the first call that fails; 0 for none
  unsigned failTimes = 1;        // how many calls fail from there
  IppStatus status = ippStsErr;  // what they return; they do nothing else
  std::optional<long long> size; // a GetSize reports this; Init then leaves the memory untouched
  std::optional<std::vector<Ipp8u>> output; // written to the destination as it stands, by the
                                            // codec whole, by the others up to the length asked
  std::optional<Ipp32u> produced;           // the count that the codec reports
};

// One call. Members for which the function has no argument stay empty.
struct Call {
  Function function = Function::count;
  IppStatus status = ippStsNoErr; // what it returned
  const void *context = nullptr;  // context, state or number
  const void *source = nullptr;   // key, seed words or seed number, plaintext, ciphertext, payload
  void *destination = nullptr;
  std::vector<Ipp8u> data; // the bytes at `source` when the call began; not those of a seed
                           // number or of a length that no function accepts
  std::vector<Ipp8u> iv;
  long long length = 0;       // bytes (for the codec's GetSize and Init the maximum), bits or words
  long long room = 0;         // *pDstLen on entry
  int option = 0;             // key length, padding, sign, seed bits or method
  bool wasZeroFilled = false; // rijndaelInit: the block was all zero (unknown where GetSize lies)
};

inline constexpr Ipp8u liveFill = 0xd7;
inline constexpr int rijndaelSize = 24;
inline constexpr int bigNumSize = 80;
inline constexpr int prngSize = 40;
// The codec's state for an input of up to `maxInput` bytes.
constexpr Ipp32u
encodeLzoSize(Ipp32u maxInput)
{
  return 16 + maxInput % 4096;
}

// Forgets all calls, plans and live contexts.
void reset();

// The plan of `function`, to be changed while no other thread calls it.
Plan &plan(Function function);

// Lets the `call`-th call since reset() fail with `status`, or every call from it on.
void failAt(Function function, unsigned call, IppStatus status = ippStsErr);
void failFrom(Function function, unsigned call, IppStatus status = ippStsErr);

// Lets the `call`-th call of any function but Release fail, counted from 1 since reset(), and where
// `onward` is set all after it. 0 ends that.
void failAny(unsigned call, bool onward = false, IppStatus status = ippStsErr);
// How many calls that counts so far, and the function of one of them.
unsigned anyCount();
Function anyFunction(unsigned call);

// The calls since reset(), in order: all of them, those of one function, and how many those are.
std::vector<Call> calls();
std::vector<Call> calls(Function function);
std::size_t callCount(Function function);

// Cipher contexts that were initialised and not released yet, and how often one was initialised
// over such a context: memory freed without Release shows up in either.
std::size_t liveContexts();
std::size_t initsOverLiveContexts();

} // namespace ippdouble
