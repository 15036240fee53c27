// SPDX-License-Identifier: LGPL-2.1-or-later
// The platform functions, against implementations that are not ours: OpenSSL for the cipher and the
// generator, liblzo2 for the codec's streams. A case that needs a process in which nobody has
// touched libgcrypt yet runs itself again as a child.
#include "platform/ipp/ipp.h"
#include "codec/lzo1x/lzo1x.h"

#include <gcrypt.h>
#include <glib.h>
#include <lzo/lzo1x.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <string.h>
#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using Bytes = std::vector<Ipp8u>;

static constexpr IppsCPPadding noPadding = IppsCPPaddingNONE;
static constexpr Ipp8u canary = 0xc7;

static Bytes
randomBytes(std::size_t size, guint32 seed)
{
  GRand *rand = g_rand_new_with_seed(seed);
  Bytes bytes(size);
  for (Ipp8u &byte : bytes)
    byte = static_cast<Ipp8u>(g_rand_int(rand));
  g_rand_free(rand);
  return bytes;
}

// Literal runs and repetitions of many lengths and distances in turn.
static Bytes
compressibleBytes(std::size_t size, guint32 seed)
{
  GRand *rand = g_rand_new_with_seed(seed);
  Bytes bytes;
  while (bytes.size() < size) {
    for (int i = g_rand_int_range(rand, 1, 20); i > 0; i--)
      bytes.push_back(static_cast<Ipp8u>(g_rand_int(rand)));
    const auto reach = static_cast<gint32>(std::min<std::size_t>(bytes.size(), 40'000));
    const auto distance = static_cast<std::size_t>(g_rand_int_range(rand, 1, reach + 1));
    for (int i = g_rand_int_range(rand, 3, 60); i > 0; i--)
      bytes.push_back(bytes[bytes.size() - distance]);
  }
  g_rand_free(rand);
  bytes.resize(size);
  return bytes;
}

static Bytes
fromHex(const char *hex)
{
  Bytes bytes;
  for (; g_ascii_isxdigit(hex[0]); hex += 2)
    bytes.push_back(
        static_cast<Ipp8u>(g_ascii_xdigit_value(hex[0]) << 4 | g_ascii_xdigit_value(hex[1])));
  return bytes;
}

static Bytes
concat(const Bytes &a, const Bytes &b)
{
  Bytes both(a);
  both.insert(both.end(), b.begin(), b.end());
  return both;
}

static void
assertEqual(const Bytes &a, const Bytes &b)
{
  g_assert_cmpmem(a.data(), a.size(), b.data(), b.size());
}

static bool
isAll(const Bytes &bytes, Ipp8u value)
{
  return std::all_of(bytes.begin(), bytes.end(), [value](Ipp8u byte) { return byte == value; });
}

// TRUE in the child; the parent has run the child and its verdict when this returns FALSE.
static bool
inChild()
{
  if (g_test_subprocess())
    return true;
  g_test_trap_subprocess(nullptr, 0, G_TEST_SUBPROCESS_INHERIT_STDERR);
  g_test_trap_assert_passed();
  return false;
}

// --- AES-CBC -------------------------------------------------------------------------------------

// A context block as the library handles one, with a canary behind it.
class Block
{
public:
  Block()
  {
    g_assert_cmpint(ippsRijndael128GetSize(&size), ==, ippStsNoErr);
    g_assert_cmpint(size, >, 0);
    memory = static_cast<Ipp8u *>(g_malloc0(static_cast<gsize>(size) + 1));
    memory[size] = canary;
  }
  Block(const Bytes &key, int bits) : Block()
  {
    g_assert_cmpint(init(key.data(), bits), ==, ippStsNoErr);
  }
  Block(const Block &) = delete;
  Block &operator=(const Block &) = delete;
  ~Block()
  {
    ippsRijndael128Release(context());
    g_assert_cmpint(memory[size], ==, canary);
    g_free(memory);
  }

  IppsRijndael128Spec *
  context() const
  {
    return reinterpret_cast<IppsRijndael128Spec *>(memory);
  }
  IppStatus
  init(const Ipp8u *key, int bits) const
  {
    return ippsRijndael128Init(key, static_cast<IppsRijndaelKeyLength>(bits), context());
  }
  Bytes
  content() const
  {
    return Bytes(memory, memory + size);
  }
  void
  overwrite(const Bytes &content) const
  {
    g_assert_cmpuint(content.size(), ==, static_cast<gsize>(size));
    memcpy(memory, content.data(), content.size());
  }

private:
  int size = 0;
  Ipp8u *memory = nullptr;
};

static Bytes
encrypt(const Block &block, const Bytes &plain, const Bytes &iv)
{
  Bytes out(plain.size());
  g_assert_cmpint(ippsRijndael128EncryptCBC(plain.data(), out.data(),
                                            static_cast<int>(plain.size()), block.context(),
                                            iv.data(), noPadding),
                  ==, ippStsNoErr);
  return out;
}

static Bytes
decrypt(const Block &block, const Bytes &cipher, const Bytes &iv)
{
  Bytes out(cipher.size());
  g_assert_cmpint(ippsRijndael128DecryptCBC(cipher.data(), out.data(),
                                            static_cast<int>(cipher.size()), block.context(),
                                            iv.data(), noPadding),
                  ==, ippStsNoErr);
  return out;
}

static Bytes
opensslEncrypt(const Bytes &key, int bits, const Bytes &iv, const Bytes &plain)
{
  EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
  const EVP_CIPHER *cipher = bits == 128 ? EVP_aes_128_cbc() : EVP_aes_256_cbc();
  Bytes out(plain.size() + 16);
  int size = 0;
  g_assert_cmpint(EVP_EncryptInit_ex(context, cipher, nullptr, key.data(), iv.data()), ==, 1);
  EVP_CIPHER_CTX_set_padding(context, 0);
  g_assert_cmpint(
      EVP_EncryptUpdate(context, out.data(), &size, plain.data(), static_cast<int>(plain.size())),
      ==, 1);
  EVP_CIPHER_CTX_free(context);
  g_assert_cmpuint(static_cast<gsize>(size), ==, plain.size());
  out.resize(plain.size());
  return out;
}

static void
testCipherMatchesOpenssl()
{
  const Bytes key = randomBytes(32, 1);
  for (const int bits : {128, 256}) {
    const Block block(key, bits);
    std::vector<std::size_t> sizes = {4096, 65536, 65552, 1 << 20};
    for (std::size_t size = 16; size <= 1200; size += 16)
      sizes.push_back(size);
    for (const std::size_t size : sizes) {
      const Bytes plain = randomBytes(size, static_cast<guint32>(size));
      const Bytes iv = randomBytes(16, static_cast<guint32>(size + 1));
      const Bytes cipher = encrypt(block, plain, iv);
      assertEqual(cipher, opensslEncrypt(key, bits, iv, plain));
      assertEqual(decrypt(block, cipher, iv), plain);
    }
  }
}

// SP 800-38A, F.2.1 and F.2.5.
static void
testCipherMatchesNistVectors()
{
  const Bytes iv = fromHex("000102030405060708090a0b0c0d0e0f");
  const Bytes plain = fromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                              "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  const struct {
    int bits;
    const char *key;
    const char *cipher;
  } vectors[] = {
      {128, "2b7e151628aed2a6abf7158809cf4f3c",
       "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
       "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
      {256, "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
       "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
       "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
  };
  for (const auto &vector : vectors) {
    const Block block(fromHex(vector.key), vector.bits);
    assertEqual(encrypt(block, plain, iv), fromHex(vector.cipher));
    assertEqual(decrypt(block, fromHex(vector.cipher), iv), plain);
  }
}

static void
testCipherAcceptsAnyAlignment()
{
  const Bytes key = randomBytes(32, 2);
  const Bytes iv = randomBytes(16, 3);
  const Bytes plain = randomBytes(272, 4);
  const Bytes expected = opensslEncrypt(key, 256, iv, plain);
  const Block block(key, 256);
  for (std::size_t shift = 0; shift < 16; shift++) {
    const Bytes from = concat(Bytes(shift), plain);
    const Bytes shiftedIv = concat(Bytes(15 - shift), iv);
    Bytes to(shift / 2 + plain.size() + 1, canary);
    Ipp8u *out = to.data() + shift / 2;
    g_assert_cmpint(ippsRijndael128EncryptCBC(from.data() + shift, out, 272, block.context(),
                                              shiftedIv.data() + 15 - shift, noPadding),
                    ==, ippStsNoErr);
    g_assert_cmpmem(out, 272, expected.data(), expected.size());
    g_assert_cmpint(to.back(), ==, canary);
  }
}

// One context in any order of calls: with the IV of where the last call ended, with another one,
// in either direction, in place or not, with refused calls between them.
static void
testCipherCallsAreIndependent()
{
  const Bytes key = randomBytes(32, 8);
  for (const int bits : {128, 256}) {
    const Block block(key, bits);
    auto *generator = g_rand_new_with_seed(9);
    Bytes iv = randomBytes(16, 10);
    for (guint32 i = 0; i < 2000; i++) {
      const Bytes plain = randomBytes(16 * (1 + i % 5), i);
      const Bytes expected = opensslEncrypt(key, bits, iv, plain);
      const bool decrypts = g_rand_int_range(generator, 0, 2) == 0;
      const auto call = decrypts ? ippsRijndael128DecryptCBC : ippsRijndael128EncryptCBC;
      const Bytes &from = decrypts ? expected : plain;
      Bytes out = from;
      const bool inPlace = g_rand_int_range(generator, 0, 2) == 0;
      g_assert_cmpint(call(inPlace ? out.data() : from.data(), out.data(),
                           static_cast<int>(out.size()), block.context(), iv.data(), noPadding),
                      ==, ippStsNoErr);
      assertEqual(out, decrypts ? plain : expected);
      if (g_rand_int_range(generator, 0, 4) == 0)
        g_assert_cmpint(call(from.data(), out.data(), 17, block.context(), iv.data(), noPadding),
                        !=, ippStsNoErr);
      if (g_rand_int_range(generator, 0, 4) == 0)
        iv = randomBytes(16, i + 5000);
      else if (g_rand_int_range(generator, 0, 8) != 0)
        iv.assign(expected.end() - 16, expected.end());
    }
    g_rand_free(generator);
  }
}

static void
testCipherWorksInPlace()
{
  const Bytes key = randomBytes(32, 5);
  const Bytes iv = randomBytes(16, 6);
  for (const int size : {16, 32, 128, 144, 4112}) {
    const Bytes plain = randomBytes(static_cast<std::size_t>(size), 7);
    const Block block(key, 128);
    Bytes data = plain;
    ippsRijndael128EncryptCBC(data.data(), data.data(), size, block.context(), iv.data(),
                              noPadding);
    assertEqual(data, opensslEncrypt(key, 128, iv, plain));
    ippsRijndael128DecryptCBC(data.data(), data.data(), size, block.context(), iv.data(),
                              noPadding);
    assertEqual(data, plain);
  }
}

static void
testCipherLeavesChainingToTheCaller()
{
  const Bytes key = randomBytes(32, 8);
  const Bytes iv = randomBytes(16, 9);
  const Bytes ivBefore = iv;
  const Bytes plain = randomBytes(160, 10);
  const Block block(key, 256);
  const Bytes whole = encrypt(block, plain, iv);
  assertEqual(iv, ivBefore);
  assertEqual(encrypt(block, plain, iv), whole);

  const Bytes head = encrypt(block, Bytes(plain.begin(), plain.begin() + 64), iv);
  const Bytes chain(head.end() - 16, head.end());
  const Bytes tail = encrypt(block, Bytes(plain.begin() + 64, plain.end()), chain);
  assertEqual(concat(head, tail), whole);
  assertEqual(decrypt(block, tail, chain), Bytes(plain.begin() + 64, plain.end()));
}

using CipherCall = decltype(&ippsRijndael128EncryptCBC);
static constexpr CipherCall cipherCalls[] = {ippsRijndael128EncryptCBC, ippsRijndael128DecryptCBC};

static void
testCipherRefusesBadArguments()
{
  const Block block(randomBytes(32, 11), 256);
  const Bytes in(32);
  const Bytes iv(16);
  Bytes out(32, canary);
  const IppsRijndael128Spec *context = block.context();
  for (const CipherCall call : cipherCalls) {
    const auto status = [&](const Ipp8u *src, Ipp8u *dst, int len, const Ipp8u *vector) {
      return call(src, dst, len, context, vector, noPadding);
    };
    g_assert_cmpint(status(nullptr, out.data(), 32, iv.data()), ==, ippStsNullPtrErr);
    g_assert_cmpint(status(in.data(), nullptr, 32, iv.data()), ==, ippStsNullPtrErr);
    g_assert_cmpint(status(in.data(), out.data(), 32, nullptr), ==, ippStsNullPtrErr);
    g_assert_cmpint(call(in.data(), out.data(), 32, nullptr, iv.data(), noPadding), ==,
                    ippStsNullPtrErr);
    for (const int len : {0, -1, -16, -32, G_MININT})
      g_assert_cmpint(status(in.data(), out.data(), len, iv.data()), ==, ippStsLengthErr);
    for (const int len : {1, 8, 15, 17, 24, 31, 33, G_MAXINT})
      g_assert_cmpint(status(in.data(), out.data(), len, iv.data()), ==, ippStsUnderRunErr);
    for (const int padding : {1, 2, -1})
      g_assert_cmpint(
          call(in.data(), out.data(), 32, context, iv.data(), static_cast<IppsCPPadding>(padding)),
          ==, ippStsBadArgErr);
  }
  g_assert_true(isAll(out, canary));
  g_assert_cmpint(ippsRijndael128GetSize(nullptr), ==, ippStsNullPtrErr);
}

static void
assertNoContext(const Block &block)
{
  const Bytes in(16);
  const Bytes iv(16);
  Bytes out(16, canary);
  for (const CipherCall call : cipherCalls)
    g_assert_cmpint(call(in.data(), out.data(), 16, block.context(), iv.data(), noPadding), ==,
                    ippStsContextMatchErr);
  g_assert_true(isAll(out, canary));
}

static void
testInitRefusesBadArguments()
{
  const Bytes key = randomBytes(32, 12);
  g_assert_cmpint(ippsRijndael128Init(key.data(), IppsRijndaelKey256, nullptr), ==,
                  ippStsNullPtrErr);
  const Block block;
  g_assert_cmpint(block.init(nullptr, 256), ==, ippStsNullPtrErr);
  assertNoContext(block);
  for (const int bits : {0, 1, 16, 32, 64, 127, 129, 192, 255, 257, 512, -128, -256, G_MININT})
    g_assert_cmpint(block.init(key.data(), bits), ==, ippStsLengthErr);
  assertNoContext(block);
}

static void
testCallsRefuseWhatIsNoContext()
{
  const Bytes key = randomBytes(32, 13);
  const Block fresh;
  assertNoContext(fresh);

  const Block released(key, 256);
  ippsRijndael128Release(released.context());
  assertNoContext(released);

  const Block garbage;
  garbage.overwrite(Bytes(garbage.content().size(), 0xa5));
  assertNoContext(garbage);

  // A context loses its key when it is initialised again without success.
  const Block failed(key, 256);
  g_assert_cmpint(failed.init(key.data(), 192), ==, ippStsLengthErr);
  assertNoContext(failed);
  const Block keyless(key, 256);
  g_assert_cmpint(keyless.init(nullptr, 256), ==, ippStsNullPtrErr);
  assertNoContext(keyless);
}

static void
testACopiedBlockIsNoContext()
{
  const Bytes key = randomBytes(32, 14);
  const Bytes iv(16);
  const Bytes plain(64, 3);
  const Block original(key, 256);
  {
    const Block copy;
    copy.overwrite(original.content());
    assertNoContext(copy);
    ippsRijndael128Release(copy.context());
  }
  assertEqual(encrypt(original, plain, iv), opensslEncrypt(key, 256, iv, plain));
}

static void
testReleaseZeroesTheBlock()
{
  for (const int bits : {128, 256}) {
    const Bytes key = randomBytes(32, 15);
    const Block block(key, bits);
    encrypt(block, Bytes(64), Bytes(16));
    g_assert_false(isAll(block.content(), 0));
    ippsRijndael128Release(block.context());
    g_assert_true(isAll(block.content(), 0));
    ippsRijndael128Release(block.context());
    g_assert_true(isAll(block.content(), 0));
  }
}

static void
testReleaseIgnoresWhatIsNoContext()
{
  ippsRijndael128Release(nullptr);
  const Block block;
  const Bytes garbage(block.content().size(), 0xa5);
  block.overwrite(garbage);
  ippsRijndael128Release(block.context());
  assertEqual(block.content(), garbage);
}

static void
testInitAgainReplacesTheKey()
{
  const Bytes iv = randomBytes(16, 16);
  const Bytes plain = randomBytes(96, 17);
  const Bytes first = randomBytes(32, 18);
  const Bytes second = randomBytes(32, 19);
  const Block block(first, 256);
  assertEqual(encrypt(block, plain, iv), opensslEncrypt(first, 256, iv, plain));
  g_assert_cmpint(block.init(second.data(), 128), ==, ippStsNoErr);
  assertEqual(encrypt(block, plain, iv), opensslEncrypt(second, 128, iv, plain));
  ippsRijndael128Release(block.context());
  g_assert_cmpint(block.init(first.data(), 256), ==, ippStsNoErr);
  assertEqual(encrypt(block, plain, iv), opensslEncrypt(first, 256, iv, plain));
}

// The memory that libgcrypt holds, as a host that gives it allocation functions sees it.
namespace watch
{
static std::map<void *, std::size_t> live;
static Bytes key;
static unsigned freedWithKey;

static bool
holdsKey(const void *memory, std::size_t size)
{
  for (std::size_t half = 0; half + 16 <= key.size(); half += 16)
    if (memmem(memory, size, key.data() + half, 16) != nullptr)
      return true;
  return false;
}

static unsigned
liveWithKey()
{
  unsigned count = 0;
  for (const auto &[memory, size] : live)
    count += holdsKey(memory, size) ? 1 : 0;
  return count;
}

static void *
allocate(std::size_t size)
{
  void *memory = calloc(1, size);
  live[memory] = size;
  return memory;
}

static void
release(void *memory)
{
  const auto found = live.find(memory);
  if (found == live.end())
    return;
  freedWithKey += holdsKey(memory, found->second) ? 1 : 0;
  live.erase(found);
  free(memory);
}

static void *
resize(void *memory, std::size_t size)
{
  void *larger = allocate(size);
  if (memory != nullptr)
    memcpy(larger, memory, std::min(size, live[memory]));
  release(memory);
  return larger;
}

static int
isSecure(const void *)
{
  return 0;
}

static void
install()
{
  // One of the AES implementations keeps its round keys in another form, in which a key could not
  // be found. It needs a processor without AES instructions, but with this feature.
  gcry_control(GCRYCTL_DISABLE_HWF, "intel-ssse3", nullptr);
  gcry_set_allocation_handler(allocate, allocate, isSecure, resize, release);
  g_assert_nonnull(gcry_check_version(nullptr));
  gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
}
} // namespace watch

static void
testInitAgainDoesNotLeak()
{
  if (!inChild())
    return;
  watch::install();
  const Bytes key = randomBytes(32, 20);
  const Block block(key, 256);
  const std::size_t handles = watch::live.size();
  g_assert_cmpuint(handles, >, 0);
  for (int i = 0; i < 10; i++)
    g_assert_cmpint(block.init(key.data(), i % 2 == 0 ? 128 : 256), ==, ippStsNoErr);
  g_assert_cmpuint(watch::live.size(), ==, handles);
  g_assert_cmpint(block.init(key.data(), 192), ==, ippStsLengthErr);
  const std::size_t afterFailure = watch::live.size();
  g_assert_cmpuint(afterFailure, <, handles);
  g_assert_cmpint(block.init(key.data(), 256), ==, ippStsNoErr);
  ippsRijndael128Release(block.context());
  g_assert_cmpuint(watch::live.size(), ==, afterFailure);
}

static void
testFreedMemoryDoesNotHoldTheKey()
{
  if (!inChild())
    return;
  watch::install();
  const Bytes key = randomBytes(32, 21);
  watch::key = key;
  for (const int bits : {128, 256}) {
    const Block block(key, bits);
    decrypt(block, encrypt(block, Bytes(64), Bytes(16)), Bytes(16));
    g_assert_false(watch::holdsKey(block.context(), block.content().size()));
    g_assert_cmpuint(watch::liveWithKey(), >, 0);
    ippsRijndael128Release(block.context());
    g_assert_cmpuint(watch::liveWithKey(), ==, 0);
    g_assert_cmpuint(watch::freedWithKey, ==, 0);
  }
}

// --- Start of the engine -------------------------------------------------------------------------

static void
assertCipherWorks()
{
  const Bytes key = randomBytes(32, 22);
  const Bytes iv = randomBytes(16, 23);
  const Bytes plain = randomBytes(256, 24);
  const Block block(key, 256);
  assertEqual(encrypt(block, plain, iv), opensslEncrypt(key, 256, iv, plain));
}

class Generator;
static void assertGeneratorWorks();

static bool
isLibgcryptInitialised()
{
  return gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0;
}

static void
testInitStartsLibgcrypt()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  g_assert_cmpint(ippInit(), ==, ippStsNoErr);
  g_assert_true(isLibgcryptInitialised());
  g_assert_cmpint(ippInit(), ==, ippStsNoErr);
  assertCipherWorks();
}

static void
testCipherWorksWithoutInit()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  assertCipherWorks();
  g_assert_true(isLibgcryptInitialised());
}

static void
testGeneratorWorksWithoutInit()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  assertGeneratorWorks();
  g_assert_true(isLibgcryptInitialised());
}

static void
testThreadsMayComeFirst()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  static gint waiting = 16;
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; i++)
    threads.emplace_back([i] {
      g_atomic_int_dec_and_test(&waiting);
      while (g_atomic_int_get(&waiting) != 0)
        std::this_thread::yield();
      for (int round = 0; round < 20; round++)
        (i + round) % 2 == 0 ? assertCipherWorks() : assertGeneratorWorks();
    });
  for (std::thread &thread : threads)
    thread.join();
}

// Secure memory, which the functions themselves would switch off, tells who configured libgcrypt.
static void
testTheHostsConfigurationIsKept()
{
  if (!inChild())
    return;
  g_assert_nonnull(gcry_check_version(nullptr));
  gcry_control(GCRYCTL_DISABLE_SECMEM_WARN);
  gcry_control(GCRYCTL_INIT_SECMEM, 16384, 0);
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  g_assert_cmpint(ippInit(), ==, ippStsNoErr);
  assertCipherWorks();
  assertGeneratorWorks();
  void *memory = gcry_malloc_secure(64);
  g_assert_true(gcry_is_secure(memory));
  gcry_free(memory);
}

// --- Seed numbers and the generator --------------------------------------------------------------

using Words = std::array<Ipp32u, 16>;

static Words
randomWords(guint32 seed)
{
  Words words;
  const Bytes bytes = randomBytes(sizeof words, seed);
  memcpy(words.data(), bytes.data(), sizeof words);
  return words;
}

// Memory of a reported size with a canary behind it, of any content before its Init.
template <typename State> class Memory
{
public:
  explicit Memory(std::size_t size, Ipp8u content) : bytes(size + 1, content)
  {
    bytes.back() = canary;
  }
  Memory(const Memory &) = delete;
  Memory &operator=(const Memory &) = delete;
  ~Memory()
  {
    g_assert_cmpint(bytes.back(), ==, canary);
  }
  State *
  get()
  {
    return reinterpret_cast<State *>(bytes.data());
  }

private:
  Bytes bytes;
};

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

static void
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

// --- LZO1X: encoder ------------------------------------------------------------------------------

static Bytes
lzoDecode(const Bytes &stream, std::size_t room, bool *isOk)
{
  Bytes out(room + 1);
  lzo_uint size = room;
  *isOk =
      lzo1x_decompress_safe(stream.data(), stream.size(), out.data(), &size, nullptr) == LZO_E_OK;
  out.resize(*isOk ? size : 0);
  return out;
}

static Bytes
lzoDecode(const Bytes &stream, std::size_t room)
{
  bool isOk = false;
  const Bytes out = lzoDecode(stream, room, &isOk);
  g_assert_true(isOk);
  return out;
}

static Bytes
lzoEncode(const Bytes &plain)
{
  Bytes out(plain.size() + plain.size() / 16 + 67);
  Bytes work(LZO1X_1_MEM_COMPRESS);
  lzo_uint size = 0;
  g_assert_cmpint(lzo1x_1_compress(plain.data(), plain.size(), out.data(), &size, work.data()), ==,
                  LZO_E_OK);
  out.resize(size);
  return out;
}

static Ipp32u
stateSize(Ipp32u maxInput, IppLZOMethod method = IppLZO1XMT)
{
  Ipp32u size = 0;
  g_assert_cmpint(ippsEncodeLZOGetSize(method, maxInput, &size), ==, ippStsNoErr);
  g_assert_cmpuint(size, >, 0);
  return size;
}

class State : public Memory<IppLZOState_8u>
{
public:
  explicit State(std::size_t maxInput, IppLZOMethod method = IppLZO1XMT)
      : Memory(stateSize(static_cast<Ipp32u>(maxInput), method), 0xe7)
  {
    g_assert_cmpint(ippsEncodeLZOInit_8u(method, static_cast<Ipp32u>(maxInput), get()), ==,
                    ippStsNoErr);
  }
};

static Bytes
encode(const Bytes &plain, IppLZOMethod method = IppLZO1XMT)
{
  State state(plain.size(), method);
  Bytes out(lzo1x::worstCase(plain.size()) + 2, canary);
  auto size = static_cast<Ipp32u>(out.size() - 1);
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(plain.size()), out.data(),
                                   &size, state.get()),
                  ==, ippStsNoErr);
  g_assert_cmpint(out.back(), ==, canary);
  out.resize(size);
  return out;
}

static Bytes
decode(const Bytes &payload, std::size_t room)
{
  Bytes out(room + 1, canary);
  auto size = static_cast<Ipp32u>(room);
  g_assert_cmpint(
      ippsDecodeLZO_8u(payload.data(), static_cast<Ipp32u>(payload.size()), out.data(), &size), ==,
      ippStsNoErr);
  g_assert_cmpint(out.back(), ==, canary);
  g_assert_cmpuint(size, <=, room);
  out.resize(size);
  return out;
}

static std::vector<Bytes>
samples()
{
  std::vector<Bytes> all;
  for (std::size_t size = 1; size <= 300; size++) {
    all.push_back(randomBytes(size, static_cast<guint32>(size)));
    all.push_back(compressibleBytes(size, static_cast<guint32>(size)));
  }
  for (const std::size_t size : {4096U, 65536U, 300'000U}) {
    all.push_back(randomBytes(size, 41));
    all.push_back(compressibleBytes(size, 42));
    all.push_back(Bytes(size, 0));
  }
  return all;
}

// Also for the method that is asked for chunks: the payload is one stream up to its last byte.
static void
testEncoderWritesOneStream()
{
  for (const IppLZOMethod method : {IppLZO1XST, IppLZO1XMT})
    for (const Bytes &plain : samples()) {
      const Bytes stream = encode(plain, method);
      g_assert_cmpuint(stream.size(), >, 3);
      g_assert_cmpmem(&stream[stream.size() - 3], 3, "\x11\0\0", 3);
      assertEqual(lzoDecode(stream, plain.size()), plain);
      assertEqual(decode(stream, plain.size()), plain);
    }
}

static void
testEncoderCompresses()
{
  g_assert_cmpuint(encode(Bytes(100'000, 'x')).size(), <, 1000);
  g_assert_cmpuint(encode(compressibleBytes(100'000, 43)).size(), <, 80'000);
}

static void
testEmptySourceGivesNothing()
{
  Ipp8u out = canary;
  for (const std::size_t maxInput : {0U, 1000U})
    for (const Ipp32u room : {0U, 1U, 1000U}) {
      State state(maxInput);
      Ipp32u size = room;
      g_assert_cmpint(ippsEncodeLZO_8u(nullptr, 0, nullptr, &size, state.get()), ==, ippStsNoErr);
      g_assert_cmpuint(size, ==, 0);
      size = room;
      g_assert_cmpint(ippsEncodeLZO_8u(&out, 0, &out, &size, state.get()), ==, ippStsNoErr);
      g_assert_cmpuint(size, ==, 0);
    }
  g_assert_cmpint(out, ==, canary);
}

static void
testStateGrowsWithTheAnnouncedInput()
{
  Ipp32u last = 0;
  for (Ipp32u maxInput = 0; maxInput < (1U << 24); maxInput = maxInput * 2 + 1) {
    const Ipp32u size = stateSize(maxInput);
    g_assert_cmpuint(size, >=, last);
    last = size;
  }
  g_assert_cmpuint(stateSize(0), <=, 4096);
  g_assert_cmpuint(stateSize(4), <=, 4096);
  g_assert_cmpuint(stateSize(G_MAXUINT32), >, stateSize(4));
}

static void
testLongerSourceThanAnnouncedIsRefused()
{
  const Bytes plain = randomBytes(501, 44);
  Bytes out(1000, canary);
  State state(500);
  Ipp32u size = 1000;
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), 501, out.data(), &size, state.get()), ==,
                  ippStsLengthErr);
  g_assert_cmpuint(size, ==, 1000);
  g_assert_true(isAll(out, canary));
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), 500, out.data(), &size, state.get()), ==,
                  ippStsNoErr);
  assertEqual(lzoDecode(Bytes(out.begin(), out.begin() + size), 500),
              Bytes(plain.begin(), plain.end() - 1));
}

static void
testStateServesManySources()
{
  State state(5000);
  for (const std::size_t size : {5000U, 1U, 300U, 4999U, 5000U}) {
    const Bytes plain = compressibleBytes(size, static_cast<guint32>(size));
    Bytes out(lzo1x::worstCase(size));
    auto count = static_cast<Ipp32u>(out.size());
    g_assert_cmpint(
        ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(size), out.data(), &count, state.get()),
        ==, ippStsNoErr);
    out.resize(count);
    assertEqual(lzoDecode(out, size), plain);
  }
}

static void
assertTooSmall(const Bytes &plain, std::size_t room)
{
  State state(plain.size());
  Bytes out(plain.size() + 100, canary);
  auto size = static_cast<Ipp32u>(room);
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(plain.size()), out.data(),
                                   &size, state.get()),
                  ==, ippStsDstSizeLessExpected);
  g_assert_cmpuint(size, ==, room);
  g_assert_true(isAll(Bytes(out.begin() + static_cast<long>(room), out.end()), canary));
}

static void
testTooSmallRoomIsReported()
{
  for (const std::size_t size : {1U, 4U, 40U, 68U, 100U, 700U})
    for (const Bytes &plain : {randomBytes(size, 45), compressibleBytes(size, 46)}) {
      const Bytes stream = encode(plain);
      for (std::size_t room = 0; room < stream.size(); room++)
        assertTooSmall(plain, room);
      State state(size);
      Bytes out(stream.size() + 1, canary);
      auto count = static_cast<Ipp32u>(stream.size());
      g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(size), out.data(), &count,
                                       state.get()),
                      ==, ippStsNoErr);
      g_assert_cmpint(out.back(), ==, canary);
      out.resize(count);
      assertEqual(out, stream);
    }
}

// A caller may announce more room than it has, as long as the worst case fits in.
static void
testLyingRoomIsNotUsed()
{
  for (const std::size_t size : {1U, 3U, 39U, 40U, 67U, 238U, 239U, 1000U, 70'000U}) {
    const Bytes plain = randomBytes(size, 47);
    State state(size);
    const std::size_t most = lzo1x::worstCase(size);
    Bytes out(most + 4096, canary);
    Ipp32u count = G_MAXUINT32;
    g_assert_cmpint(
        ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(size), out.data(), &count, state.get()),
        ==, ippStsNoErr);
    g_assert_cmpuint(count, <=, most);
    g_assert_true(isAll(Bytes(out.begin() + static_cast<long>(most), out.end()), canary));
    out.resize(count);
    assertEqual(lzoDecode(out, size), plain);
  }
}

// Data that starts like the header of chunks and whose first 68 bytes do not compress.
static Bytes
likeChunks(Ipp8u count, std::size_t size)
{
  Bytes plain = randomBytes(68, 48);
  plain[0] = count;
  plain[1] = count ^ 0x55;
  while (plain.size() < size)
    plain.push_back(plain[(plain.size() - 68) % 40]);
  return plain;
}

static void
testStreamsNeverStartLikeChunks()
{
  for (const std::size_t size : {68U, 80U, 110U, 500U}) {
    unsigned longRuns = 0;
    for (unsigned count = 0; count < 256; count++) {
      const Bytes plain = likeChunks(static_cast<Ipp8u>(count), size);
      const Bytes stream = encode(plain);
      const bool startsLikeChunks =
          stream[0] == 0x55 && stream[1] >= 1 && stream[1] <= 32 && stream[2] == (stream[1] ^ 0x55);
      g_assert_false(startsLikeChunks);
      longRuns += stream[0] == 0 && stream[1] == 50 ? 1 : 0;
      assertEqual(decode(stream, size), plain);
      assertEqual(lzoDecode(stream, size), plain);
    }
    // An encoder need not find the match that ends the first run in every one of the 32, nor look
    // for one so near to the end as in 80 bytes.
    g_assert_cmpuint(longRuns, <=, 32);
    if (size != 80)
      g_assert_cmpuint(longRuns, >=, size == 68 ? 32 : 16);
  }
}

static void
testStreamsLikeChunksStayInsideTheRoom()
{
  const Bytes plain = likeChunks(1, 68);
  const Bytes stream = encode(plain);
  g_assert_cmpuint(stream.size(), ==, 73);
  // Ten bytes for each hundred is what the compressor sets aside.
  g_assert_cmpuint(stream.size(), <=, plain.size() + plain.size() / 10);
  for (const std::size_t room : {71U, 72U})
    assertTooSmall(plain, room);
}

static void
testEncoderRefusesBadArguments()
{
  Bytes plain(100);
  Bytes out(200, canary);
  Ipp32u size = 200;
  State state(100);
  IppLZOState_8u *valid = state.get();
  const auto call = [&](const Ipp8u *src, Ipp8u *dst, Ipp32u *count, IppLZOState_8u *memory) {
    return ippsEncodeLZO_8u(src, 100, dst, count, memory);
  };
  g_assert_cmpint(call(nullptr, out.data(), &size, valid), ==, ippStsNullPtrErr);
  g_assert_cmpint(call(plain.data(), nullptr, &size, valid), ==, ippStsNullPtrErr);
  g_assert_cmpint(call(plain.data(), out.data(), nullptr, valid), ==, ippStsNullPtrErr);
  g_assert_cmpint(call(plain.data(), out.data(), &size, nullptr), ==, ippStsNullPtrErr);
  Memory<IppLZOState_8u> blank(stateSize(100), 0);
  g_assert_cmpint(call(plain.data(), out.data(), &size, blank.get()), ==, ippStsContextMatchErr);
  g_assert_cmpuint(size, ==, 200);
  g_assert_true(isAll(out, canary));

  g_assert_cmpint(ippsEncodeLZOGetSize(IppLZO1XMT, 100, nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsEncodeLZOInit_8u(IppLZO1XMT, 100, nullptr), ==, ippStsNullPtrErr);
  for (const int method : {-1, 2, G_MAXINT}) {
    const auto unknown = static_cast<IppLZOMethod>(method);
    g_assert_cmpint(ippsEncodeLZOGetSize(unknown, 100, &size), ==, ippStsBadArgErr);
    g_assert_cmpint(ippsEncodeLZOInit_8u(unknown, 100, blank.get()), ==, ippStsBadArgErr);
  }
  g_assert_cmpuint(size, ==, 200);
  g_assert_cmpint(call(plain.data(), out.data(), &size, blank.get()), ==, ippStsContextMatchErr);
}

// --- LZO1X: decoder ------------------------------------------------------------------------------

static IppStatus
decodeStatus(const Bytes &payload, std::size_t room)
{
  Bytes out(room + 16, canary);
  auto size = static_cast<Ipp32u>(room);
  const IppStatus status =
      ippsDecodeLZO_8u(payload.data(), static_cast<Ipp32u>(payload.size()), out.data(), &size);
  g_assert_true(isAll(Bytes(out.begin() + static_cast<long>(room), out.end()), canary));
  if (status != ippStsNoErr)
    g_assert_cmpuint(size, ==, room);
  return status;
}

static void
assertBroken(const Bytes &payload, std::size_t room)
{
  g_assert_cmpint(decodeStatus(payload, room), ==, ippStsBrokenStreamErr);
}

// A payload that is not recognised as chunks must decode as a plain stream does.
static void
assertReadAsOneStream(const Bytes &payload, std::size_t room)
{
  bool isOk = false;
  const Bytes expected = lzoDecode(payload, room, &isOk);
  if (isOk)
    assertEqual(decode(payload, room), expected);
  else
    assertBroken(payload, room);
}

struct Chunked {
  Bytes payload;
  std::size_t table; // where the sizes and
  std::size_t data;  // the chunks start
};

static void
append32(Bytes *bytes, std::size_t value)
{
  for (unsigned shift = 0; shift < 32; shift += 8)
    bytes->push_back(static_cast<Ipp8u>(value >> shift));
}

static void
store32(Bytes *bytes, std::size_t at, std::size_t value)
{
  for (unsigned i = 0; i < 4; i++)
    (*bytes)[at + i] = static_cast<Ipp8u>(value >> (8 * i));
}

// The chunked layout over streams of liblzo2's, `shares` being what each chunk holds of `plain`.
static Chunked
makeChunks(const Bytes &plain, const std::vector<std::size_t> &shares)
{
  const std::size_t count = shares.size();
  std::vector<Bytes> streams;
  auto at = plain.begin();
  for (const std::size_t share : shares) {
    streams.push_back(lzoEncode(Bytes(at, at + static_cast<long>(share))));
    at += static_cast<long>(share);
  }
  g_assert_true(at == plain.end());
  Bytes payload = {0x55, static_cast<Ipp8u>(count), static_cast<Ipp8u>(count ^ 0x55)};
  append32(&payload, plain.size());
  for (std::size_t i = 0; i + 1 < count; i++)
    append32(&payload, streams[i].size());
  const std::size_t data = payload.size();
  for (const Bytes &stream : streams)
    payload = concat(payload, stream);
  return {payload, 7, data};
}

static std::vector<std::size_t>
equalShares(std::size_t total, std::size_t count)
{
  std::vector<std::size_t> shares(count, total / count);
  shares.back() += total % count;
  return shares;
}

static Chunked
makeChunks(const Bytes &plain, std::size_t count)
{
  return makeChunks(plain, equalShares(plain.size(), count));
}

static void
testDecoderReadsOneStream()
{
  for (const Bytes &plain : samples()) {
    const Bytes stream = lzoEncode(plain);
    assertEqual(decode(stream, plain.size()), plain);
    assertEqual(decode(stream, plain.size() + 100), plain);
  }
  assertEqual(decode(fromHex("110000"), 0), {});
  assertEqual(decode(fromHex("110000"), 10), {});
  Ipp32u none = 0;
  const Bytes empty = fromHex("110000");
  g_assert_cmpint(ippsDecodeLZO_8u(empty.data(), 3, nullptr, &none), ==, ippStsNoErr);
  g_assert_cmpuint(none, ==, 0);
}

static void
testEmptyPayloadGivesNothing()
{
  Ipp8u out = canary;
  for (const Ipp32u room : {0U, 1U, 1000U}) {
    Ipp32u size = room;
    g_assert_cmpint(ippsDecodeLZO_8u(nullptr, 0, nullptr, &size), ==, ippStsNoErr);
    g_assert_cmpuint(size, ==, 0);
    size = room;
    g_assert_cmpint(ippsDecodeLZO_8u(&out, 0, &out, &size), ==, ippStsNoErr);
    g_assert_cmpuint(size, ==, 0);
  }
  g_assert_cmpint(out, ==, canary);
}

static void
testOutputBeyondTheRoomIsABrokenStream()
{
  for (const std::size_t size : {1U, 4U, 68U, 300U, 5000U})
    for (const Bytes &plain : {randomBytes(size, 50), compressibleBytes(size, 51)}) {
      const std::size_t step = std::max<std::size_t>(1, size / 100);
      for (std::size_t room = 0; room < size; room += step) {
        assertBroken(lzoEncode(plain), room);
        assertBroken(makeChunks(plain, 4).payload, room);
      }
      assertBroken(lzoEncode(plain), size - 1);
      assertBroken(makeChunks(plain, 4).payload, size - 1);
    }
}

static void
testTruncatedAndProlongedStreamsAreBroken()
{
  const Bytes plain = compressibleBytes(2000, 52);
  const Bytes stream = lzoEncode(plain);
  for (std::size_t size = 1; size < stream.size(); size++)
    assertBroken(Bytes(stream.begin(), stream.begin() + static_cast<long>(size)), 2000);
  for (const Ipp8u tail : {Ipp8u{0}, Ipp8u{0x11}, Ipp8u{0xff}})
    assertBroken(concat(stream, {tail}), 3000);
  assertBroken(concat(stream, stream), 5000);
}

static void
testChunksAreDecoded()
{
  for (std::size_t count = 1; count <= 32; count++) {
    const std::size_t totals[] = {0,    1,    count - 1, count,     count + 1, 2 * count - 1,
                                  1000, 4097, 65'537,    count * 64};
    for (const std::size_t total : totals)
      for (const Bytes &plain : {randomBytes(total, 53), compressibleBytes(total, 54)}) {
        const Bytes payload = makeChunks(plain, count).payload;
        assertEqual(decode(payload, total), plain);
        assertEqual(decode(payload, total + 33), plain);
      }
  }
}

static void
testChunkCountsOutOfRangeAreNoChunks()
{
  const Bytes plain = randomBytes(3300, 55);
  for (const std::size_t count : {33U, 64U, 255U})
    assertReadAsOneStream(makeChunks(plain, count).payload, plain.size());
  Bytes none = makeChunks(plain, 1).payload;
  none[1] = 0;
  none[2] = 0x55;
  assertReadAsOneStream(none, plain.size());
  assertBroken(none, plain.size());
}

static void
testCorruptedHeadersAreNotTakenForChunks()
{
  const Bytes plain = randomBytes(3001, 56);
  for (const std::size_t count : {1U, 2U, 7U, 32U}) {
    const Chunked chunked = makeChunks(plain, count);
    for (std::size_t at = 0; at < 3; at++)
      for (unsigned change = 1; change < 256; change++) {
        Bytes payload = chunked.payload;
        payload[at] ^= static_cast<Ipp8u>(change);
        assertReadAsOneStream(payload, plain.size());
        assertReadAsOneStream(payload, 4000);
      }
  }
}

// Bytes 1 and 2 changed together make a header of another count of chunks.
static void
testLyingChunkCountsAreBroken()
{
  const Bytes plain = randomBytes(3001, 57);
  for (const std::size_t count : {1U, 2U, 7U, 32U})
    for (std::size_t lie = 1; lie <= 32; lie++) {
      Bytes payload = makeChunks(plain, count).payload;
      payload[1] = static_cast<Ipp8u>(lie);
      payload[2] = static_cast<Ipp8u>(lie ^ 0x55);
      if (lie != count)
        assertBroken(payload, 4000);
    }
}

static void
testLyingTotalsAreBroken()
{
  const Bytes plain = randomBytes(3001, 58);
  for (const std::size_t count : {1U, 2U, 7U, 32U}) {
    const Chunked chunked = makeChunks(plain, count);
    for (std::size_t at = 3; at < 7; at++)
      for (unsigned change = 1; change < 256; change++) {
        Bytes payload = chunked.payload;
        payload[at] ^= static_cast<Ipp8u>(change);
        assertBroken(payload, plain.size());
        assertBroken(payload, 70'000);
      }
    for (const std::size_t total : {std::size_t{0}, plain.size() - 1, plain.size() + 1,
                                    std::size_t{0x7fff'ffffU}, std::size_t{0xffff'ffffU}}) {
      Bytes payload = chunked.payload;
      store32(&payload, 3, total);
      assertBroken(payload, 70'000);
    }
  }
}

static void
testLyingChunkSizesAreBroken()
{
  const Bytes plain = randomBytes(3001, 59);
  for (const std::size_t count : {2U, 3U, 7U, 32U}) {
    const Chunked chunked = makeChunks(plain, count);
    for (std::size_t at = chunked.table; at < chunked.data; at++)
      for (unsigned change = 1; change < 256; change++) {
        Bytes payload = chunked.payload;
        payload[at] ^= static_cast<Ipp8u>(change);
        // Without its first size a payload is not recognised.
        at < chunked.table + 4 ? assertReadAsOneStream(payload, 4000) : assertBroken(payload, 4000);
      }
    for (std::size_t i = 0; i + 1 < count; i++)
      for (const std::size_t lie :
           {0U, 1U, 2U, 3U, 0x7fff'ffffU, 0x8000'0000U, 0xffff'fff9U, 0xffff'fffdU, 0xffff'ffffU}) {
        Bytes payload = chunked.payload;
        store32(&payload, chunked.table + 4 * i, lie);
        i == 0 ? assertReadAsOneStream(payload, 4000) : assertBroken(payload, 4000);
      }
  }
}

// The sizes agree with the streams and the total with the output; only the shares differ.
static void
testChunksOfOtherSharesAreBroken()
{
  const Bytes plain = randomBytes(400, 60);
  assertEqual(decode(makeChunks(plain, {100, 100, 100, 100}).payload, 400), plain);
  const std::vector<std::size_t> others[] = {
      {101, 99, 100, 100}, {99, 101, 100, 100}, {100, 100, 101, 99}, {400, 0, 0, 0}, {0, 0, 0, 400},
  };
  for (const std::vector<std::size_t> &shares : others)
    for (const std::size_t room : {400U, 1000U})
      assertBroken(makeChunks(plain, shares).payload, room);
}

static void
testTruncatedAndProlongedChunksAreBroken()
{
  const Bytes plain = randomBytes(900, 61);
  for (const std::size_t count : {1U, 2U, 5U, 32U}) {
    const Bytes payload = makeChunks(plain, count).payload;
    for (std::size_t size = 1; size < payload.size(); size++)
      assertReadAsOneStream(Bytes(payload.begin(), payload.begin() + static_cast<long>(size)), 900);
    if (count == 1)
      assertReadAsOneStream(concat(payload, {0}), 900);
    else
      assertBroken(concat(payload, {0}), 900);
    assertBroken(concat(payload, fromHex("110000")), 1000);
  }
}

static void
testCorruptedChunkDataStaysInsideItsRoom()
{
  const Bytes plain = compressibleBytes(1500, 62);
  GRand *rand = g_rand_new_with_seed(63);
  for (const std::size_t count : {1U, 3U, 32U}) {
    const Bytes payload = makeChunks(plain, count).payload;
    for (int i = 0; i < 5000; i++) {
      Bytes corrupt = payload;
      for (int change = g_rand_int_range(rand, 1, 4); change > 0; change--)
        corrupt[static_cast<std::size_t>(g_rand_int_range(
            rand, 3, static_cast<int>(corrupt.size())))] = static_cast<Ipp8u>(g_rand_int(rand));
      const IppStatus status = decodeStatus(corrupt, plain.size());
      g_assert_true(status == ippStsNoErr || status == ippStsBrokenStreamErr);
    }
  }
  g_rand_free(rand);
}

// A plain stream of 68 literals whose first bytes are the header of two chunks: it is one stream
// unless an end marker stands where the size of the first chunk says.
static void
testStreamsLikeChunksAreReadAsOneStream()
{
  Bytes plain = likeChunks(2, 68);
  const std::size_t rest = 72 - 11; // of the stream, behind header and table
  for (const std::size_t first : {std::size_t{0}, std::size_t{2}, rest + 1, std::size_t{72},
                                  std::size_t{0xffff'fff5U}, std::size_t{0xffff'ffffU}}) {
    store32(&plain, 6, first);
    const Bytes stream = concat(concat({0x55}, plain), fromHex("110000"));
    assertEqual(lzoDecode(stream, 68), plain);
    assertEqual(decode(stream, 68), plain);
  }
  for (std::size_t first = 3; first < rest; first++) {
    store32(&plain, 6, first);
    assertEqual(decode(concat(concat({0x55}, plain), fromHex("110000")), 68), plain);
  }
  store32(&plain, 6, rest);
  assertBroken(concat(concat({0x55}, plain), fromHex("110000")), 68);
}

// A plain stream that starts like a single chunk, and is one of the same size too: nothing tells
// where a single chunk ends, so what decodes to just the room is the plain stream.
static void
testStreamsWinOverASingleChunk()
{
  Bytes plain = fromHex("0154440000004a4142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e"
                        "5f606162636465666768696a6b6c6d6e6f70717273747576777879280d0021");
  const Bytes stream = lzoEncode(plain);
  assertEqual(stream, concat(concat({0x55}, plain), fromHex("110000")));
  const Bytes chunk = lzoDecode(Bytes(stream.begin() + 7, stream.end()), 68);
  g_assert_cmpuint(chunk.size(), ==, 68);
  g_assert_true(chunk != plain);
  assertEqual(decode(stream, 68), plain);
  assertEqual(decode(stream, 69), chunk);
  assertBroken(stream, 67);

  // A chunk that does not decode is a plain stream in a larger room too.
  store32(&plain, 2, 69);
  assertEqual(decode(concat(concat({0x55}, plain), fromHex("110000")), 69), plain);
}

static void
testDecoderRefusesBadArguments()
{
  const Bytes stream = lzoEncode(Bytes(10, 'x'));
  const auto size = static_cast<Ipp32u>(stream.size());
  Bytes out(10, canary);
  Ipp32u room = 10;
  g_assert_cmpint(ippsDecodeLZO_8u(nullptr, size, out.data(), &room), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsDecodeLZO_8u(stream.data(), size, nullptr, &room), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsDecodeLZO_8u(stream.data(), size, out.data(), nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpuint(room, ==, 10);
  g_assert_true(isAll(out, canary));
}

static void
addEngineTests()
{
  g_test_add_func("/engine/init-starts-libgcrypt", testInitStartsLibgcrypt);
  g_test_add_func("/engine/cipher-works-without-init", testCipherWorksWithoutInit);
  g_test_add_func("/engine/generator-works-without-init", testGeneratorWorksWithoutInit);
  g_test_add_func("/engine/first-use-from-many-threads", testThreadsMayComeFirst);
  g_test_add_func("/engine/keeps-the-hosts-configuration", testTheHostsConfigurationIsKept);
}

static void
addCipherTests()
{
  g_test_add_func("/cipher/matches-openssl-cbc", testCipherMatchesOpenssl);
  g_test_add_func("/cipher/matches-nist-vectors", testCipherMatchesNistVectors);
  g_test_add_func("/cipher/accepts-any-alignment", testCipherAcceptsAnyAlignment);
  g_test_add_func("/cipher/works-in-place", testCipherWorksInPlace);
  g_test_add_func("/cipher/calls-are-independent", testCipherCallsAreIndependent);
  g_test_add_func("/cipher/leaves-chaining-to-the-caller", testCipherLeavesChainingToTheCaller);
  g_test_add_func("/cipher/refuses-bad-arguments", testCipherRefusesBadArguments);
  g_test_add_func("/cipher/init-refuses-bad-arguments", testInitRefusesBadArguments);
  g_test_add_func("/cipher/refuses-what-is-no-context", testCallsRefuseWhatIsNoContext);
  g_test_add_func("/cipher/a-copied-block-is-no-context", testACopiedBlockIsNoContext);
  g_test_add_func("/cipher/release-zeroes-the-block", testReleaseZeroesTheBlock);
  g_test_add_func("/cipher/release-ignores-what-is-no-context", testReleaseIgnoresWhatIsNoContext);
  g_test_add_func("/cipher/init-again-replaces-the-key", testInitAgainReplacesTheKey);
  g_test_add_func("/cipher/init-again-does-not-leak", testInitAgainDoesNotLeak);
  g_test_add_func("/cipher/freed-memory-does-not-hold-the-key", testFreedMemoryDoesNotHoldTheKey);
}

static void
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

static void
addEncoderTests()
{
  g_test_add_func("/encoder/writes-one-stream", testEncoderWritesOneStream);
  g_test_add_func("/encoder/compresses", testEncoderCompresses);
  g_test_add_func("/encoder/empty-source-gives-nothing", testEmptySourceGivesNothing);
  g_test_add_func("/encoder/state-grows-with-the-input", testStateGrowsWithTheAnnouncedInput);
  g_test_add_func("/encoder/longer-source-is-refused", testLongerSourceThanAnnouncedIsRefused);
  g_test_add_func("/encoder/state-serves-many-sources", testStateServesManySources);
  g_test_add_func("/encoder/too-small-room-is-reported", testTooSmallRoomIsReported);
  g_test_add_func("/encoder/lying-room-is-not-used", testLyingRoomIsNotUsed);
  g_test_add_func("/encoder/never-starts-like-chunks", testStreamsNeverStartLikeChunks);
  g_test_add_func("/encoder/like-chunks-inside-the-room", testStreamsLikeChunksStayInsideTheRoom);
  g_test_add_func("/encoder/refuses-bad-arguments", testEncoderRefusesBadArguments);
}

static void
addDecoderTests()
{
  g_test_add_func("/decoder/reads-one-stream", testDecoderReadsOneStream);
  g_test_add_func("/decoder/empty-payload-gives-nothing", testEmptyPayloadGivesNothing);
  g_test_add_func("/decoder/output-beyond-the-room", testOutputBeyondTheRoomIsABrokenStream);
  g_test_add_func("/decoder/damaged-streams-are-broken", testTruncatedAndProlongedStreamsAreBroken);
  g_test_add_func("/decoder/refuses-bad-arguments", testDecoderRefusesBadArguments);
  g_test_add_func("/chunks/are-decoded", testChunksAreDecoded);
  g_test_add_func("/chunks/counts-out-of-range", testChunkCountsOutOfRangeAreNoChunks);
  g_test_add_func("/chunks/corrupted-headers", testCorruptedHeadersAreNotTakenForChunks);
  g_test_add_func("/chunks/lying-counts-are-broken", testLyingChunkCountsAreBroken);
  g_test_add_func("/chunks/lying-totals-are-broken", testLyingTotalsAreBroken);
  g_test_add_func("/chunks/lying-sizes-are-broken", testLyingChunkSizesAreBroken);
  g_test_add_func("/chunks/other-shares-are-broken", testChunksOfOtherSharesAreBroken);
  g_test_add_func("/chunks/damaged-layouts-are-broken", testTruncatedAndProlongedChunksAreBroken);
  g_test_add_func("/chunks/corrupted-data-stays-inside", testCorruptedChunkDataStaysInsideItsRoom);
  g_test_add_func("/chunks/streams-that-look-like-chunks", testStreamsLikeChunksAreReadAsOneStream);
  g_test_add_func("/chunks/streams-win-over-a-single-chunk", testStreamsWinOverASingleChunk);
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_assert_cmpint(lzo_init(), ==, LZO_E_OK);
  addEngineTests();
  addCipherTests();
  addGeneratorTests();
  addEncoderTests();
  addDecoderTests();
  return g_test_run();
}
