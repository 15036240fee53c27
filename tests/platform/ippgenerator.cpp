// SPDX-License-Identifier: LGPL-2.1-or-later
// Seed numbers and the generator.
#include "ippsupport.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <string.h>
#include <algorithm>
#include <array>

using Words = std::array<Ipp32u, 16>;

static Words
randomWords(guint32 seed)
{
  Words words;
  const Bytes bytes = randomBytes(sizeof words, seed);
  memcpy(words.data(), bytes.data(), sizeof words);
  return words;
}

static std::size_t
numberSize(int words)
{
  int size = 0;
  g_assert_cmpint(ippsBigNumGetSize(words, &size), ==, ippStsNoErr);
  g_assert_cmpint(size, >=, words * 4);
  return static_cast<std::size_t>(size);
}

class Number : public Memory<IppsBigNumState>
{
public:
  explicit Number(int words = 16) : Memory(numberSize(words), 0x5a)
  {
    g_assert_cmpint(ippsBigNumInit(words, get()), ==, ippStsNoErr);
  }
  explicit Number(const Words &words) : Number()
  {
    g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, 16, words.data(), get()), ==, ippStsNoErr);
  }
};

static std::size_t
generatorSize()
{
  int size = 0;
  g_assert_cmpint(ippsPRNGGetSize(&size), ==, ippStsNoErr);
  g_assert_cmpint(size, >, 0);
  return static_cast<std::size_t>(size);
}

class Generator : public Memory<IppsPRNGState>
{
public:
  explicit Generator(int seedBits = 64) : Memory(generatorSize(), 0x5a)
  {
    g_assert_cmpint(ippsPRNGInit(seedBits, get()), ==, ippStsNoErr);
  }
  explicit Generator(const Words &seed, int seedBits = 512) : Generator(seedBits)
  {
    Number number(seed);
    g_assert_cmpint(ippsPRNGSetSeed(number.get(), get()), ==, ippStsNoErr);
  }
  Bytes
  next(int bits)
  {
    const std::size_t size = (static_cast<std::size_t>(bits) + 7) / 8;
    Bytes out(size + 1, canary);
    g_assert_cmpint(ippsPRNGen(reinterpret_cast<Ipp32u *>(out.data()), bits, get()), ==,
                    ippStsNoErr);
    g_assert_cmpint(out.back(), ==, canary);
    out.pop_back();
    return out;
  }
};

// OpenSSL's HASH-DRBG, its entropy and nonce fed with the bytes of a seed.
class OpensslGenerator
{
public:
  OpensslGenerator(const Words &seed, std::size_t entropySize)
  {
    Bytes bytes;
    for (const Ipp32u word : seed)
      for (unsigned shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<Ipp8u>(word >> shift));
    unsigned strength = 256;
    OSSL_PARAM source[] = {
        OSSL_PARAM_construct_uint(OSSL_RAND_PARAM_STRENGTH, &strength),
        OSSL_PARAM_construct_octet_string(OSSL_RAND_PARAM_TEST_ENTROPY, bytes.data(), entropySize),
        OSSL_PARAM_construct_octet_string(OSSL_RAND_PARAM_TEST_NONCE, bytes.data() + entropySize,
                                          bytes.size() - entropySize),
        OSSL_PARAM_construct_end(),
    };
    parent = create("TEST-RAND", nullptr, source);
    char digest[] = "SHA256";
    unsigned reseedRequests = 0;
    guint64 reseedSeconds = 0;
    OSSL_PARAM choice[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_DRBG_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_uint(OSSL_DRBG_PARAM_RESEED_REQUESTS, &reseedRequests),
        OSSL_PARAM_construct_uint64(OSSL_DRBG_PARAM_RESEED_TIME_INTERVAL, &reseedSeconds),
        OSSL_PARAM_construct_end(),
    };
    generator = create("HASH-DRBG", parent, choice);
  }
  OpensslGenerator(const OpensslGenerator &) = delete;
  OpensslGenerator &operator=(const OpensslGenerator &) = delete;
  ~OpensslGenerator()
  {
    EVP_RAND_CTX_free(generator);
    EVP_RAND_CTX_free(parent);
  }
  Bytes
  next(std::size_t size)
  {
    Bytes out(size);
    g_assert_cmpint(EVP_RAND_generate(generator, out.data(), size, 256, 0, nullptr, 0), ==, 1);
    return out;
  }

private:
  static EVP_RAND_CTX *
  create(const char *name, EVP_RAND_CTX *parent, const OSSL_PARAM *params)
  {
    EVP_RAND *rand = EVP_RAND_fetch(nullptr, name, nullptr);
    g_assert_nonnull(rand);
    EVP_RAND_CTX *context = EVP_RAND_CTX_new(rand, parent);
    EVP_RAND_free(rand);
    g_assert_cmpint(EVP_RAND_CTX_set_params(context, params), ==, 1);
    // Without a personalisation string, OpenSSL takes one of its own.
    static constexpr Ipp8u none[1] = {};
    g_assert_cmpint(EVP_RAND_instantiate(context, 256, 0, none, 0, nullptr), ==, 1);
    return context;
  }

  EVP_RAND_CTX *parent = nullptr;
  EVP_RAND_CTX *generator = nullptr;
};

void
assertGeneratorWorks()
{
  const Words seed = randomWords(30);
  Generator ours(seed);
  OpensslGenerator theirs(seed, 32);
  for (int i = 0; i < 3; i++)
    assertEqual(ours.next(128), theirs.next(16));
}

static void
testGeneratorMatchesOpenssl()
{
  Words timeSeed = {};
  timeSeed[0] = 0x89ab'cdefU;
  timeSeed[1] = 0x0006'0123U;
  const Words seeds[] = {randomWords(31), timeSeed, Words{}, randomWords(32)};
  for (const Words &seed : seeds)
    for (const std::size_t entropySize : {32U, 40U, 48U}) {
      Generator ours(seed);
      OpensslGenerator theirs(seed, entropySize);
      for (std::size_t size = 1; size <= 200; size++)
        assertEqual(ours.next(static_cast<int>(size * 8)), theirs.next(size));
      for (int i = 0; i < 1000; i++)
        assertEqual(ours.next(128), theirs.next(16));
    }
}

// One generate call gives at most 65536 bytes; what is longer is split there on both sides.
static void
testLongRequestsAreSplit()
{
  const Words seed = randomWords(33);
  Generator ours(seed);
  OpensslGenerator theirs(seed, 48);
  for (const std::size_t size : {65535U, 65536U, 65537U, 131072U, 131073U, 1'000'000U, 16U})
    assertEqual(ours.next(static_cast<int>(size * 8)), theirs.next(size));

  Generator whole(seed);
  Generator parts(seed);
  Bytes pieces = parts.next(65536 * 8);
  pieces = concat(pieces, parts.next(8));
  assertEqual(whole.next(65537 * 8), pieces);
}

static void
testSurplusBitsAreZero()
{
  const Words seed = randomWords(34);
  for (int bits = 1; bits <= 64; bits++) {
    Generator exact(seed);
    Generator whole(seed);
    const Bytes out = exact.next(bits);
    Bytes expected = whole.next((bits + 7) / 8 * 8);
    if (bits % 8 != 0)
      expected.back() &= static_cast<Ipp8u>((1 << bits % 8) - 1);
    assertEqual(out, expected);
  }
}

static void
testUnalignedDestinations()
{
  const Words seed = randomWords(35);
  for (std::size_t shift = 0; shift < 8; shift++) {
    Generator ours(seed);
    OpensslGenerator theirs(seed, 32);
    Bytes out(shift + 21 + 1, canary);
    g_assert_cmpint(ippsPRNGen(reinterpret_cast<Ipp32u *>(out.data() + shift), 21 * 8, ours.get()),
                    ==, ippStsNoErr);
    assertEqual(Bytes(out.begin() + static_cast<long>(shift), out.end() - 1), theirs.next(21));
    g_assert_cmpint(out.back(), ==, canary);
    g_assert_true(isAll(Bytes(out.begin(), out.begin() + static_cast<long>(shift)), canary));
  }
}

static void
testOutputFollowsFromTheSeedAlone()
{
  Words seed = {};
  seed[0] = 12345;
  Generator first(seed, 64);
  Generator second(seed, 512);
  const Bytes stream = first.next(4096);
  assertEqual(second.next(4096), stream);
  for (std::size_t bit = 0; bit < 512; bit++) {
    Words other = seed;
    other[bit / 32] ^= 1U << (bit % 32);
    Generator changed(other, 64);
    g_assert_false(changed.next(4096) == stream);
  }
  // Seeding again starts over.
  Number number(seed);
  g_assert_cmpint(ippsPRNGSetSeed(number.get(), first.get()), ==, ippStsNoErr);
  assertEqual(first.next(4096), stream);
}

static void
testWordsNotGivenAreZero()
{
  const Words random = randomWords(36);
  for (const int words : {1, 2, 15}) {
    Words shortSeed = {};
    std::copy_n(random.begin(), words, shortSeed.begin());
    const Bytes stream = Generator(shortSeed).next(512);

    Number overwritten(random);
    Number small(words);
    for (Number *number : {&overwritten, &small}) {
      g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, words, random.data(), number->get()), ==,
                      ippStsNoErr);
      Generator generator;
      g_assert_cmpint(ippsPRNGSetSeed(number->get(), generator.get()), ==, ippStsNoErr);
      assertEqual(generator.next(512), stream);
    }
  }
}

static void
testNumbersRefuseBadArguments()
{
  int size = -7;
  const Words words = {};
  Number number(8);
  for (const int len : {0, -1, G_MININT, 17, G_MAXINT}) {
    g_assert_cmpint(ippsBigNumGetSize(len, &size), ==, ippStsLengthErr);
    g_assert_cmpint(ippsBigNumInit(len, number.get()), ==, ippStsLengthErr);
    g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, len, words.data(), number.get()), ==,
                    ippStsLengthErr);
  }
  g_assert_cmpint(size, ==, -7);
  g_assert_cmpint(ippsBigNumGetSize(16, nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsBigNumInit(16, nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, 8, nullptr, number.get()), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, 8, words.data(), nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, 9, words.data(), number.get()), ==, ippStsLengthErr);
  g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, 8, words.data(), number.get()), ==, ippStsNoErr);
  for (const int sign : {int{IppsBigNumNEG}, 2, -1})
    g_assert_cmpint(ippsSet_BN(static_cast<IppsBigNumSGN>(sign), 8, words.data(), number.get()), ==,
                    ippStsBadArgErr);
  Memory<IppsBigNumState> blank(numberSize(16), 0);
  g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, 8, words.data(), blank.get()), ==,
                  ippStsContextMatchErr);
}

static void
testGeneratorRefusesBadArguments()
{
  Ipp32u out = 0;
  Generator seeded(Words{});
  g_assert_cmpint(ippsPRNGGetSize(nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsPRNGInit(64, nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsPRNGen(nullptr, 32, seeded.get()), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsPRNGen(&out, 32, nullptr), ==, ippStsNullPtrErr);
  for (const int bits : {0, -1, -8, G_MININT})
    g_assert_cmpint(ippsPRNGen(&out, bits, seeded.get()), ==, ippStsLengthErr);
  Memory<IppsPRNGState> blank(generatorSize(), 0);
  for (const int bits : {0, -1, 513, G_MININT, G_MAXINT})
    g_assert_cmpint(ippsPRNGInit(bits, blank.get()), ==, ippStsLengthErr);
  for (const int bits : {1, 64, 512})
    Generator accepted(bits);
}

static void
testNothingIsGeneratedWithoutASeed()
{
  Ipp32u out = 0xdead'beefU;
  Number set(Words{});
  Number unset;
  Memory<IppsBigNumState> blankNumber(numberSize(16), 0);
  Memory<IppsPRNGState> blank(generatorSize(), 0);
  Generator unseeded;
  g_assert_cmpint(ippsPRNGSetSeed(nullptr, unseeded.get()), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsPRNGSetSeed(set.get(), nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsPRNGSetSeed(set.get(), blank.get()), ==, ippStsContextMatchErr);
  g_assert_cmpint(ippsPRNGSetSeed(unset.get(), unseeded.get()), ==, ippStsContextMatchErr);
  g_assert_cmpint(ippsPRNGSetSeed(blankNumber.get(), unseeded.get()), ==, ippStsContextMatchErr);
  g_assert_cmpint(ippsPRNGen(&out, 32, unseeded.get()), ==, ippStsContextMatchErr);
  g_assert_cmpint(ippsPRNGen(&out, 32, blank.get()), ==, ippStsContextMatchErr);
  Generator seeded(Words{});
  g_assert_cmpint(ippsPRNGInit(64, seeded.get()), ==, ippStsNoErr);
  g_assert_cmpint(ippsPRNGen(&out, 32, seeded.get()), ==, ippStsContextMatchErr);
  g_assert_cmpuint(out, ==, 0xdead'beefU);
}

void
addGeneratorTests()
{
  g_test_add_func("/generator/matches-openssl-hash-drbg", testGeneratorMatchesOpenssl);
  g_test_add_func("/generator/long-requests-are-split", testLongRequestsAreSplit);
  g_test_add_func("/generator/surplus-bits-are-zero", testSurplusBitsAreZero);
  g_test_add_func("/generator/unaligned-destinations", testUnalignedDestinations);
  g_test_add_func("/generator/output-follows-from-the-seed", testOutputFollowsFromTheSeedAlone);
  g_test_add_func("/generator/words-not-given-are-zero", testWordsNotGivenAreZero);
  g_test_add_func("/generator/numbers-refuse-bad-arguments", testNumbersRefuseBadArguments);
  g_test_add_func("/generator/refuses-bad-arguments", testGeneratorRefusesBadArguments);
  g_test_add_func("/generator/nothing-without-a-seed", testNothingIsGeneratedWithoutASeed);
}
