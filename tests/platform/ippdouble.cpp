// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/platform/ippdouble.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <mutex>

namespace ippdouble
{
namespace
{

using Key = std::array<Ipp8u, 16>;

struct Number {
  int room = 0;
  std::optional<std::uint64_t> value; // of what was set, if anything was
};

struct World {
  std::array<Plan, static_cast<std::size_t>(Function::count)> plans;
  std::array<unsigned, static_cast<std::size_t>(Function::count)> counts{};
  std::vector<Call> log;
  std::vector<Function> any; // of failAny(), in order
  unsigned failAny = 0;
  bool failAnyOnward = false;
  IppStatus failAnyStatus = ippStsErr;
  std::map<const void *, Key> contexts;
  std::map<const void *, Number> numbers;
  std::map<const void *, std::optional<std::uint64_t>> generators; // by their state, if seeded
  std::map<const void *, Ipp32u> encoders;                         // by the maximum input length
  std::size_t initsOverLive = 0;
};

std::recursive_mutex mutex;
World world;

std::size_t
indexOf(Function function)
{
  return static_cast<std::size_t>(function);
}

// One call under way: counts it, says whether it fails as planned, and logs it when it returns.
class Recorder
{
public:
  explicit Recorder(Function function) : lock(mutex), plan(world.plans[indexOf(function)])
  {
    call.function = function;
    const unsigned number = ++world.counts[indexOf(function)];
    isPlannedToFail =
        plan.failFrom != 0 && number >= plan.failFrom && number - plan.failFrom < plan.failTimes;
    status = plan.status;
    if (function == Function::rijndaelRelease)
      return;
    world.any.push_back(function);
    const auto any = static_cast<unsigned>(world.any.size());
    if (world.failAny != 0 &&
        (any == world.failAny || (world.failAnyOnward && any > world.failAny))) {
      isPlannedToFail = true;
      status = world.failAnyStatus;
    }
  }
  Recorder(const Recorder &) = delete;
  Recorder &operator=(const Recorder &) = delete;
  ~Recorder()
  {
    world.log.push_back(call);
  }

  // The planned failure before anything else, then what the function itself answers.
  template <typename Work>
  IppStatus
  run(Work work)
  {
    call.status = isPlannedToFail ? status : work();
    return call.status;
  }

private:
  std::lock_guard<std::recursive_mutex> lock;

public:
  const Plan &plan;
  Call call;

private:
  bool isPlannedToFail = false;
  IppStatus status = ippStsErr;
};

std::vector<Ipp8u>
copyOf(const void *bytes, long long size)
{
  const auto *first = static_cast<const Ipp8u *>(bytes);
  if (first == nullptr || size < 1)
    return {};
  return {first, first + size};
}

// Fills the memory of a context or state, unless a test made its GetSize lie.
void
fillMemory(Function getSize, void *memory, std::size_t size, Ipp8u value)
{
  if (!world.plans[indexOf(getSize)].size)
    std::memset(memory, value, size);
}

template <typename Size>
IppStatus
reportSize(Recorder &recorder, long long size, Size *out)
{
  if (out == nullptr)
    return ippStsNullPtrErr;
  *out = static_cast<Size>(recorder.plan.size.value_or(size));
  return ippStsNoErr;
}

bool
isKeyLength(int bits)
{
  return bits == IppsRijndaelKey128 || bits == IppsRijndaelKey256;
}

Key
foldKey(const Ipp8u *key, int bits)
{
  Key folded;
  for (std::size_t i = 0; i < folded.size(); i++)
    folded[i] = static_cast<Ipp8u>(key[i] ^ (bits == 256 ? key[16 + i] ^ 0xa5 : 0x5a));
  return folded;
}

// The toy cipher: what is chained to a block is the ciphertext block before it.
void
convertBlocks(bool isEncryption, const Key &key, Key chain, const Ipp8u *in, Ipp8u *out,
              std::size_t size)
{
  for (std::size_t i = 0; i < size; i++) {
    const Ipp8u from = in[i];
    out[i] = from ^ key[i % 16] ^ chain[i % 16];
    chain[i % 16] = isEncryption ? out[i] : from;
  }
}

IppStatus
checkCipherCall(const Call &call)
{
  if (call.source == nullptr || call.destination == nullptr || call.context == nullptr ||
      call.iv.empty())
    return ippStsNullPtrErr;
  if (!world.contexts.contains(call.context))
    return ippStsContextMatchErr;
  if (call.length < 1)
    return ippStsLengthErr;
  if (call.length % 16 != 0)
    return ippStsUnderRunErr;
  return call.option == IppsCPPaddingNONE ? ippStsNoErr : ippStsBadArgErr;
}

IppStatus
runCipher(Recorder &recorder)
{
  const Call &call = recorder.call;
  if (const IppStatus status = checkCipherCall(call); status != ippStsNoErr)
    return status;
  auto *out = static_cast<Ipp8u *>(call.destination);
  const auto size = static_cast<std::size_t>(call.length);
  if (recorder.plan.output) {
    std::copy_n(recorder.plan.output->begin(), std::min(size, recorder.plan.output->size()), out);
    return ippStsNoErr;
  }
  Key chain;
  std::copy_n(call.iv.begin(), chain.size(), chain.begin());
  convertBlocks(call.function == Function::encryptCbc, world.contexts[call.context], chain,
                call.data.data(), out, size);
  return ippStsNoErr;
}

IppStatus
callCipher(Function function, const Ipp8u *src, Ipp8u *dst, int len, const IppsRijndael128Spec *ctx,
           const Ipp8u *iv, IppsCPPadding padding)
{
  Recorder recorder(function);
  recorder.call.context = ctx;
  recorder.call.source = src;
  recorder.call.destination = dst;
  if (len % 16 == 0)
    recorder.call.data = copyOf(src, len);
  recorder.call.iv = copyOf(iv, 16);
  recorder.call.length = len;
  recorder.call.option = padding;
  return recorder.run([&] { return runCipher(recorder); });
}

std::uint64_t
mix(std::uint64_t value)
{
  value = (value ^ (value >> 30U)) * 0xbf58'476d'1ce4'e5b9U;
  value = (value ^ (value >> 27U)) * 0x94d0'49bb'1331'11ebU;
  return value ^ (value >> 31U);
}

IppStatus
runGenerator(Recorder &recorder)
{
  const Call &call = recorder.call;
  if (call.destination == nullptr || call.context == nullptr)
    return ippStsNullPtrErr;
  const auto generator = world.generators.find(call.context);
  if (generator == world.generators.end() || !generator->second)
    return ippStsContextMatchErr;
  if (call.length < 1)
    return ippStsLengthErr;
  auto *out = static_cast<Ipp8u *>(call.destination);
  const auto size = static_cast<std::size_t>((call.length + 7) / 8);
  for (std::size_t i = 0; i < size; i++) {
    *generator->second += 0x9e37'79b9'7f4a'7c15U;
    out[i] = static_cast<Ipp8u>(mix(*generator->second));
  }
  if (recorder.plan.output)
    std::copy_n(recorder.plan.output->begin(), std::min(size, recorder.plan.output->size()), out);
  return ippStsNoErr;
}

// Both directions of the codec do this if their arguments are valid.
IppStatus
store(Recorder &recorder, IppStatus whenTooSmall, Ipp32u *count)
{
  const Call &call = recorder.call;
  const std::vector<Ipp8u> &output = recorder.plan.output ? *recorder.plan.output : call.data;
  if (!recorder.plan.output && call.length > call.room)
    return whenTooSmall;
  if (!output.empty())
    std::copy(output.begin(), output.end(), static_cast<Ipp8u *>(call.destination));
  *count = recorder.plan.produced.value_or(static_cast<Ipp32u>(output.size()));
  return ippStsNoErr;
}

void
recordCodecCall(Call &call, const Ipp8u *src, Ipp32u srcLen, Ipp8u *dst, const Ipp32u *dstLen)
{
  call.source = src;
  call.destination = dst;
  call.data = copyOf(src, srcLen);
  call.length = srcLen;
  call.room = dstLen == nullptr ? 0 : *dstLen;
}

bool
isMethod(int method)
{
  return method == IppLZO1XST || method == IppLZO1XMT;
}

} // namespace

void
reset()
{
  const std::lock_guard lock(mutex);
  world = World{};
}

Plan &
plan(Function function)
{
  return world.plans[indexOf(function)];
}

void
failAt(Function function, unsigned call, IppStatus status)
{
  const std::lock_guard lock(mutex);
  Plan &changed = plan(function);
  changed.failFrom = call;
  changed.failTimes = 1;
  changed.status = status;
}

void
failAny(unsigned call, bool onward, IppStatus status)
{
  const std::lock_guard lock(mutex);
  world.failAny = call;
  world.failAnyOnward = onward;
  world.failAnyStatus = status;
}

unsigned
anyCount()
{
  const std::lock_guard lock(mutex);
  return static_cast<unsigned>(world.any.size());
}

Function
anyFunction(unsigned call)
{
  const std::lock_guard lock(mutex);
  return world.any.at(call - 1);
}

void
failFrom(Function function, unsigned call, IppStatus status)
{
  const std::lock_guard lock(mutex);
  failAt(function, call, status);
  plan(function).failTimes = ~0U;
}

std::vector<Call>
calls()
{
  const std::lock_guard lock(mutex);
  return world.log;
}

std::vector<Call>
calls(Function function)
{
  const std::lock_guard lock(mutex);
  std::vector<Call> found;
  std::copy_if(world.log.begin(), world.log.end(), std::back_inserter(found),
               [function](const Call &call) { return call.function == function; });
  return found;
}

std::size_t
callCount(Function function)
{
  const std::lock_guard lock(mutex);
  return world.counts[indexOf(function)];
}

std::size_t
liveContexts()
{
  const std::lock_guard lock(mutex);
  return world.contexts.size();
}

std::size_t
initsOverLiveContexts()
{
  const std::lock_guard lock(mutex);
  return world.initsOverLive;
}

} // namespace ippdouble

using namespace ippdouble;

IppStatus
ippInit(void)
{
  return Recorder(Function::init).run([] { return ippStsNoErr; });
}

IppStatus
ippsRijndael128GetSize(int *pSize)
{
  Recorder recorder(Function::rijndaelGetSize);
  return recorder.run([&] { return reportSize(recorder, rijndaelSize, pSize); });
}

IppStatus
ippsRijndael128Init(const Ipp8u *pKey, IppsRijndaelKeyLength keyLen, IppsRijndael128Spec *pCtx)
{
  Recorder recorder(Function::rijndaelInit);
  auto &call = recorder.call;
  call.context = pCtx;
  call.source = pKey;
  call.option = keyLen;
  if (isKeyLength(keyLen))
    call.data = copyOf(pKey, keyLen / 8);
  return recorder.run([&]() -> IppStatus {
    if (pCtx == nullptr)
      return ippStsNullPtrErr;
    world.initsOverLive += world.contexts.erase(pCtx);
    const bool isSizeTrue = !world.plans[indexOf(Function::rijndaelGetSize)].size;
    const std::vector<Ipp8u> block = isSizeTrue ? copyOf(pCtx, rijndaelSize) : std::vector<Ipp8u>();
    call.wasZeroFilled = std::count(block.begin(), block.end(), 0) == rijndaelSize;
    if (pKey == nullptr)
      return ippStsNullPtrErr;
    if (!isKeyLength(keyLen))
      return ippStsLengthErr;
    world.contexts[pCtx] = foldKey(pKey, keyLen);
    fillMemory(Function::rijndaelGetSize, pCtx, rijndaelSize, liveFill);
    return ippStsNoErr;
  });
}

IppStatus
ippsRijndael128EncryptCBC(const Ipp8u *pSrc, Ipp8u *pDst, int len, const IppsRijndael128Spec *pCtx,
                          const Ipp8u *pIV, IppsCPPadding padding)
{
  return callCipher(Function::encryptCbc, pSrc, pDst, len, pCtx, pIV, padding);
}

IppStatus
ippsRijndael128DecryptCBC(const Ipp8u *pSrc, Ipp8u *pDst, int len, const IppsRijndael128Spec *pCtx,
                          const Ipp8u *pIV, IppsCPPadding padding)
{
  return callCipher(Function::decryptCbc, pSrc, pDst, len, pCtx, pIV, padding);
}

void
ippsRijndael128Release(IppsRijndael128Spec *pCtx)
{
  Recorder recorder(Function::rijndaelRelease);
  recorder.call.context = pCtx;
  if (world.contexts.erase(pCtx) != 0)
    fillMemory(Function::rijndaelGetSize, pCtx, rijndaelSize, 0);
}

IppStatus
ippsBigNumGetSize(int len32, int *pSize)
{
  Recorder recorder(Function::bigNumGetSize);
  recorder.call.length = len32;
  return recorder.run([&] {
    return len32 < 1 || len32 > 16 ? ippStsLengthErr : reportSize(recorder, bigNumSize, pSize);
  });
}

IppStatus
ippsBigNumInit(int len32, IppsBigNumState *pBN)
{
  Recorder recorder(Function::bigNumInit);
  recorder.call.context = pBN;
  recorder.call.length = len32;
  return recorder.run([&] {
    if (pBN == nullptr)
      return ippStsNullPtrErr;
    if (len32 < 1 || len32 > 16)
      return ippStsLengthErr;
    world.numbers[pBN] = {.room = len32, .value = std::nullopt};
    fillMemory(Function::bigNumGetSize, pBN, bigNumSize, liveFill);
    return ippStsNoErr;
  });
}

IppStatus
ippsSet_BN(IppsBigNumSGN sgn, int len32, const Ipp32u *pData, IppsBigNumState *pBN)
{
  Recorder recorder(Function::setBn);
  auto &call = recorder.call;
  call.context = pBN;
  call.source = pData;
  call.length = len32;
  call.option = sgn;
  if (len32 >= 1 && len32 <= 16)
    call.data = copyOf(pData, 4LL * len32);
  return recorder.run([&] {
    if (pData == nullptr || pBN == nullptr)
      return ippStsNullPtrErr;
    const auto number = world.numbers.find(pBN);
    if (number == world.numbers.end())
      return ippStsContextMatchErr;
    if (sgn != IppsBigNumPOS)
      return ippStsBadArgErr;
    if (call.data.empty() || len32 > number->second.room)
      return ippStsLengthErr;
    std::uint64_t folded = 0;
    for (const Ipp8u byte : call.data)
      folded = mix(folded * 257 + byte + 1);
    number->second.value = folded;
    return ippStsNoErr;
  });
}

IppStatus
ippsPRNGGetSize(int *pSize)
{
  Recorder recorder(Function::prngGetSize);
  return recorder.run([&] { return reportSize(recorder, prngSize, pSize); });
}

IppStatus
ippsPRNGInit(int seedBits, IppsPRNGState *pCtx)
{
  Recorder recorder(Function::prngInit);
  recorder.call.context = pCtx;
  recorder.call.option = seedBits;
  return recorder.run([&] {
    if (pCtx == nullptr)
      return ippStsNullPtrErr;
    if (seedBits < 1 || seedBits > 512)
      return ippStsLengthErr;
    world.generators[pCtx] = std::nullopt;
    fillMemory(Function::prngGetSize, pCtx, prngSize, liveFill);
    return ippStsNoErr;
  });
}

IppStatus
ippsPRNGSetSeed(const IppsBigNumState *pSeed, IppsPRNGState *pCtx)
{
  Recorder recorder(Function::prngSetSeed);
  recorder.call.context = pCtx;
  recorder.call.source = pSeed;
  return recorder.run([&] {
    if (pSeed == nullptr || pCtx == nullptr)
      return ippStsNullPtrErr;
    const auto number = world.numbers.find(pSeed);
    const auto generator = world.generators.find(pCtx);
    if (number == world.numbers.end() || !number->second.value ||
        generator == world.generators.end())
      return ippStsContextMatchErr;
    generator->second = number->second.value;
    return ippStsNoErr;
  });
}

IppStatus
ippsPRNGen(Ipp32u *pRand, int nBits, void *pCtx)
{
  Recorder recorder(Function::prnGen);
  recorder.call.context = pCtx;
  recorder.call.destination = pRand;
  recorder.call.length = nBits;
  return recorder.run([&] { return runGenerator(recorder); });
}

IppStatus
ippsEncodeLZOGetSize(IppLZOMethod method, Ipp32u maxInputLen, Ipp32u *pSize)
{
  Recorder recorder(Function::encodeLzoGetSize);
  recorder.call.length = maxInputLen;
  recorder.call.option = method;
  return recorder.run([&] {
    return isMethod(method) ? reportSize(recorder, encodeLzoSize(maxInputLen), pSize)
                            : ippStsBadArgErr;
  });
}

IppStatus
ippsEncodeLZOInit_8u(IppLZOMethod method, Ipp32u maxInputLen, IppLZOState_8u *pLZOState)
{
  Recorder recorder(Function::encodeLzoInit);
  recorder.call.context = pLZOState;
  recorder.call.length = maxInputLen;
  recorder.call.option = method;
  return recorder.run([&] {
    if (pLZOState == nullptr)
      return ippStsNullPtrErr;
    if (!isMethod(method))
      return ippStsBadArgErr;
    world.encoders[pLZOState] = maxInputLen;
    fillMemory(Function::encodeLzoGetSize, pLZOState, encodeLzoSize(maxInputLen), liveFill);
    return ippStsNoErr;
  });
}

IppStatus
ippsEncodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen,
                 IppLZOState_8u *pLZOState)
{
  Recorder recorder(Function::encodeLzo);
  recorder.call.context = pLZOState;
  recordCodecCall(recorder.call, pSrc, srcLen, pDst, pDstLen);
  return recorder.run([&] {
    if (pDstLen == nullptr || pLZOState == nullptr ||
        (srcLen != 0 && (pSrc == nullptr || pDst == nullptr)))
      return ippStsNullPtrErr;
    const auto encoder = world.encoders.find(pLZOState);
    if (encoder == world.encoders.end())
      return ippStsContextMatchErr;
    if (srcLen > encoder->second)
      return ippStsLengthErr;
    return store(recorder, ippStsDstSizeLessExpected, pDstLen);
  });
}

IppStatus
ippsDecodeLZO_8u(const Ipp8u *pSrc, Ipp32u srcLen, Ipp8u *pDst, Ipp32u *pDstLen)
{
  Recorder recorder(Function::decodeLzo);
  recordCodecCall(recorder.call, pSrc, srcLen, pDst, pDstLen);
  return recorder.run([&] {
    if (pDstLen == nullptr ||
        (srcLen != 0 && (pSrc == nullptr || (pDst == nullptr && *pDstLen != 0))))
      return ippStsNullPtrErr;
    return store(recorder, ippStsBrokenStreamErr, pDstLen);
  });
}
