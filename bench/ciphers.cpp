// SPDX-License-Identifier: LGPL-2.1-or-later
#include "corpora.h"
#include "groups.h"
#include "owners.h"
#include "thinconverter.h"

#include <gcrypt.h>
#include <openssl/evp.h>
#include <zelgvc/zelgvc.h>

#include <cstring>

namespace bench
{

namespace
{

constexpr std::size_t block = 16;
constexpr std::size_t header = 8;
constexpr std::size_t ivRecord = header + block;
const guint8 key[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9};

struct CipherDeleter {
  void
  operator()(gcry_cipher_hd_t handle) const
  {
    gcry_cipher_close(handle);
  }
  void
  operator()(EVP_CIPHER_CTX *context) const
  {
    EVP_CIPHER_CTX_free(context);
  }
};

using Gcrypt = std::unique_ptr<gcry_cipher_handle, CipherDeleter>;
using Evp = std::unique_ptr<EVP_CIPHER_CTX, CipherDeleter>;

// What one record of `size` bytes needs, and the plain text padded to whole blocks for those who do
// not pad.
struct Record {
  explicit Record(std::size_t size)
      : plain(repeated(corpus("source"), size)), length(size + block - size % block), padded(plain),
        sealed(ivRecord + header + length), out(header + length + block)
  {
    padded.resize(length, static_cast<std::uint8_t>(length - size));
  }

  Bytes plain;
  std::size_t length; // of the encrypted record
  Bytes padded;
  Bytes sealed; // the library's IV record and record
  Bytes out;
};

Gcrypt
openGcrypt(unsigned bits)
{
  gcry_cipher_hd_t handle;
  must(gcry_cipher_open(&handle, bits == 256 ? GCRY_CIPHER_AES256 : GCRY_CIPHER_AES128,
                        GCRY_CIPHER_MODE_CBC, 0) == 0 &&
           gcry_cipher_setkey(handle, key, bits / 8) == 0,
       nullptr, "libgcrypt");
  return Gcrypt(handle);
}

Evp
openEvp(unsigned bits, const guint8 *iv, bool encrypt)
{
  Evp context(EVP_CIPHER_CTX_new());
  auto *cipher = bits == 256 ? EVP_aes_256_cbc() : EVP_aes_128_cbc();
  must(EVP_CipherInit_ex(context.get(), cipher, nullptr, key, iv, encrypt) == 1, nullptr, "EVP");
  return context;
}

// One record through EVP, padding included: a new IV, the text, the last block.
void
evpRecord(EVP_CIPHER_CTX *context, const guint8 *iv, const guint8 *in, std::size_t size,
          guint8 *out)
{
  int written;
  int last;
  must(EVP_CipherInit_ex(context, nullptr, nullptr, nullptr, iv, -1) == 1 &&
           EVP_CipherUpdate(context, out, &written, in, static_cast<int>(size)) == 1 &&
           EVP_CipherFinal_ex(context, out + written, &last) == 1,
       nullptr, "EVP");
}

Object<GvcEncryptor>
makeEncryptor(unsigned bits)
{
  SharedBytes bytes(g_bytes_new_static(key, sizeof key));
  Object<GvcEncryptor> encryptor(gvc_encryptor_new(bytes.get()));
  gvc_encryptor_set_key_length(encryptor.get(), bits);
  return encryptor;
}

Object<GvcDecryptor>
makeDecryptor(unsigned bits)
{
  SharedBytes bytes(g_bytes_new_static(key, sizeof key));
  Object<GvcDecryptor> decryptor(gvc_decryptor_new(bytes.get()));
  gvc_decryptor_set_key_length(decryptor.get(), bits);
  return decryptor;
}

// libgcrypt's call alone, inside a converter.
std::size_t
encryptBare(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t, void *handle)
{
  must(gcry_cipher_encrypt(static_cast<gcry_cipher_hd_t>(handle), out, size, in, size) == 0,
       nullptr, "gcry_cipher_encrypt");
  return size;
}

std::size_t
decryptBare(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t, void *handle)
{
  must(gcry_cipher_decrypt(static_cast<gcry_cipher_hd_t>(handle), out, size, in, size) == 0,
       nullptr, "gcry_cipher_decrypt");
  return size;
}

void
raceEncryption(Report &report, unsigned bits, std::size_t size)
{
  Parameters parameters = {
      {"direction", "encrypt"}, {"bits", bits}, {"size", static_cast<std::int64_t>(size)}};
  if (!report.wants(parameters))
    return;
  Record record(size);
  auto encryptor = makeEncryptor(bits);
  auto *converter = G_CONVERTER(encryptor.get());
  convert(converter, record.plain.data(), size, record.sealed.data(), record.sealed.size());
  const guint8 *iv = record.sealed.data() + header;
  auto gcrypt = openGcrypt(bits);
  auto evp = openEvp(bits, iv, true);

  auto ours = [&] {
    convert(converter, record.plain.data(), size, record.out.data(), record.out.size());
  };
  auto bare = [&] {
    must(gcry_cipher_encrypt(gcrypt.get(), record.out.data(), record.length, record.padded.data(),
                             record.length) == 0,
         nullptr, "gcry_cipher_encrypt");
  };
  auto openssl = [&] { evpRecord(evp.get(), iv, record.plain.data(), size, record.out.data()); };
  auto thinConverter = makeThinConverter(encryptBare, gcrypt.get());
  auto thin = [&] {
    convert(thinConverter.get(), record.padded.data(), record.length, record.out.data(),
            record.out.size());
  };

  // The same record from all three.
  must(gcry_cipher_setiv(gcrypt.get(), iv, block) == 0, nullptr, "gcry_cipher_setiv");
  ours();
  Bytes expected(record.out.begin() + header, record.out.begin() + header + record.length);
  for (const std::function<void()> &peer : {std::function<void()>(bare), {openssl}}) {
    peer();
    must(std::memcmp(record.out.data(), expected.data(), expected.size()) == 0, nullptr,
         "the ciphers differ");
  }

  report.race(parameters, static_cast<std::int64_t>(size),
              {{"zelgvc", repeat(ours)},
               {"libgcrypt", repeat(bare)},
               {"thin", repeat(thin)},
               {"openssl", repeat(openssl)}});
}

void
raceDecryption(Report &report, unsigned bits, std::size_t size)
{
  Parameters parameters = {
      {"direction", "decrypt"}, {"bits", bits}, {"size", static_cast<std::int64_t>(size)}};
  if (!report.wants(parameters))
    return;
  Record record(size);
  auto encryptor = makeEncryptor(bits);
  auto decryptor = makeDecryptor(bits);
  auto *converter = G_CONVERTER(decryptor.get());
  for (std::size_t at = 0; at < record.sealed.size();)
    at += convert(G_CONVERTER(encryptor.get()), record.plain.data(), size,
                  record.sealed.data() + at, record.sealed.size() - at);
  const guint8 *iv = record.sealed.data() + header;
  const guint8 *sealed = record.sealed.data() + ivRecord;
  auto gcrypt = openGcrypt(bits);
  auto evp = openEvp(bits, iv, false);

  auto ours = [&] {
    convert(converter, sealed, header + record.length, record.out.data(), record.out.size());
  };
  auto bare = [&] {
    must(gcry_cipher_decrypt(gcrypt.get(), record.out.data(), record.length, sealed + header,
                             record.length) == 0,
         nullptr, "gcry_cipher_decrypt");
  };
  auto openssl = [&] {
    evpRecord(evp.get(), iv, sealed + header, record.length, record.out.data());
  };
  auto thinConverter = makeThinConverter(decryptBare, gcrypt.get());
  auto thin = [&] {
    convert(thinConverter.get(), sealed + header, record.length, record.out.data(),
            record.out.size());
  };

  convert(converter, record.sealed.data(), record.sealed.size(), record.out.data(),
          record.out.size());
  must(gcry_cipher_setiv(gcrypt.get(), iv, block) == 0, nullptr, "gcry_cipher_setiv");
  for (const std::function<void()> &each : {std::function<void()>(ours), {bare}, {openssl}}) {
    each();
    must(std::memcmp(record.out.data(), record.plain.data(), size) == 0, nullptr,
         "the ciphers differ");
  }

  // The one record over and over: its first block, which is chained to another one then, comes out
  // wrong, at the same cost.
  report.race(parameters, static_cast<std::int64_t>(size),
              {{"zelgvc", repeat(ours)},
               {"libgcrypt", repeat(bare)},
               {"thin", repeat(thin)},
               {"openssl", repeat(openssl)}});
}

} // namespace

void
measureCiphers(Report &report)
{
  report.begin(
      "ciphers", "Encryptor and decryptor beside bare libgcrypt and OpenSSL",
      "convert() of one record, AES-CBC. libgcrypt: one call on text that is already "
      "padded, the chain going on from call to call, no IV set; thin: the same call inside a "
      "GConverter that does nothing else. openssl: EVP with a new IV and its padding. One thread, "
      "the same buffers again and again.");
  std::vector<std::size_t> sizes = {16, 64, 256, 1024, 4096, 16384, 65536, 262144, 1 << 20};
  if (report.effort().quick)
    sizes = {64, 4096, 65536};

  for (unsigned bits : {128U, 256U})
    for (auto size : sizes) {
      raceEncryption(report, bits, size);
      raceDecryption(report, bits, size);
    }
}

} // namespace bench
