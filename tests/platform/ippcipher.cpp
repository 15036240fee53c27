// SPDX-License-Identifier: LGPL-2.1-or-later
// AES-CBC.
#include "ippsupport.h"

#include <gcrypt.h>
#include <openssl/evp.h>

#include <string.h>
#include <algorithm>
#include <map>

static constexpr IppsCPPadding noPadding = IppsCPPaddingNONE;

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

using CipherCall = decltype(&ippsRijndael128EncryptCBC);
static constexpr CipherCall cipherCalls[] = {ippsRijndael128EncryptCBC, ippsRijndael128DecryptCBC};

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

void
assertCipherWorks()
{
  const Bytes key = randomBytes(32, 22);
  const Bytes iv = randomBytes(16, 23);
  const Bytes plain = randomBytes(256, 24);
  const Block block(key, 256);
  assertEqual(encrypt(block, plain, iv), opensslEncrypt(key, 256, iv, plain));
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

void
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
