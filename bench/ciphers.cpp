// SPDX-License-Identifier: LGPL-2.1-or-later
// Encryptor and decryptor beside bare libgcrypt and OpenSSL: one record again and again.
#include "corpora.h"
#include "groups.h"
#include "refs.h"

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
openEvp(unsigned bits, bool encrypt)
{
  Evp context(EVP_CIPHER_CTX_new());
  auto *cipher = bits == 256 ? EVP_aes_256_cbc() : EVP_aes_128_cbc();
  must(EVP_CipherInit_ex(context.get(), cipher, nullptr, key, nullptr, encrypt) == 1, nullptr,
       "EVP");
  return context;
}

// A record and the buffers for both directions. libgcrypt does not pad, so its text is padded.
struct Record {
  Record(unsigned bits, std::size_t size)
      : length(size + block - size % block), plain(source(size)), padded(plain),
        sealed(2 * header + block + length), out(header + length + block)
  {
    padded.resize(length, static_cast<std::uint8_t>(length - size));
    Ref<GBytes> bytes(g_bytes_new_static(key, sizeof key));
    encryptor.reset(gvc_encryptor_new(bytes.get()));
    gvc_encryptor_set_key_length(encryptor.get(), bits);
    decryptor.reset(gvc_decryptor_new(bytes.get()));
    gvc_decryptor_set_key_length(decryptor.get(), bits);
    // The first call makes the record of the IV, the second one the record of the text.
    for (std::size_t at = 0; at < sealed.size();)
      at += convert(G_CONVERTER(encryptor.get()), plain.data(), size, sealed.data() + at,
                    sealed.size() - at);
  }

  const guint8 *
  iv() const
  {
    return sealed.data() + header;
  }
  const guint8 *
  record() const
  {
    return sealed.data() + header + block;
  }

  std::size_t length; // of the encrypted text
  Bytes plain;
  Bytes padded;
  Bytes sealed; // the IV's record and the record
  Bytes out;
  Ref<GvcEncryptor> encryptor;
  Ref<GvcDecryptor> decryptor;
};

using Call = std::function<void()>;

// One record through EVP: a new IV, the text, the padding.
Call
throughEvp(EVP_CIPHER_CTX *context, const guint8 *iv, const guint8 *in, std::size_t size,
           guint8 *out)
{
  return [=] {
    int written;
    int last;
    must(EVP_CipherInit_ex(context, nullptr, nullptr, nullptr, iv, -1) == 1 &&
             EVP_CipherUpdate(context, out, &written, in, static_cast<int>(size)) == 1 &&
             EVP_CipherFinal_ex(context, out + written, &last) == 1,
         nullptr, "EVP");
  };
}

void
expect(const Bytes &expected, const std::uint8_t *out, const char *what)
{
  must(std::memcmp(out, expected.data(), expected.size()) == 0, nullptr, what);
}

void
raceEncryption(const Report &report, const Parameters &parameters, unsigned bits, std::size_t size)
{
  Record r(bits, size);
  auto gcrypt = openGcrypt(bits);
  auto evp = openEvp(bits, true);
  Call ours = [&] {
    convert(G_CONVERTER(r.encryptor.get()), r.plain.data(), size, r.out.data(), r.out.size());
  };
  Call bare = [&] {
    must(gcry_cipher_encrypt(gcrypt.get(), r.out.data(), r.length, r.padded.data(), r.length) == 0,
         nullptr, "gcry_cipher_encrypt");
  };
  auto openssl = throughEvp(evp.get(), r.iv(), r.plain.data(), size, r.out.data());

  Bytes expected(r.record() + header, r.record() + header + r.length);
  must(gcry_cipher_setiv(gcrypt.get(), r.iv(), block) == 0, nullptr, "gcry_cipher_setiv");
  for (const auto &peer : {bare, openssl}) {
    peer();
    expect(expected, r.out.data(), "the ciphers differ");
  }
  report.race(
      parameters,
      {{"zelgvc", repeat(ours)}, {"libgcrypt", repeat(bare)}, {"openssl", repeat(openssl)}});
}

void
raceDecryption(const Report &report, const Parameters &parameters, unsigned bits, std::size_t size)
{
  Record r(bits, size);
  auto gcrypt = openGcrypt(bits);
  auto evp = openEvp(bits, false);
  auto *decryptor = G_CONVERTER(r.decryptor.get());
  Call ours = [&] {
    convert(decryptor, r.record(), header + r.length, r.out.data(), r.out.size());
  };
  Call bare = [&] {
    must(gcry_cipher_decrypt(gcrypt.get(), r.out.data(), r.length, r.record() + header, r.length) ==
             0,
         nullptr, "gcry_cipher_decrypt");
  };
  auto openssl = throughEvp(evp.get(), r.iv(), r.record() + header, r.length, r.out.data());

  convert(decryptor, r.sealed.data(), r.sealed.size(), r.out.data(), r.out.size());
  must(gcry_cipher_setiv(gcrypt.get(), r.iv(), block) == 0, nullptr, "gcry_cipher_setiv");
  for (const auto &peer : {ours, bare, openssl}) {
    peer();
    expect(r.plain, r.out.data(), "the ciphers differ");
  }
  // From the second time on, the first block comes out wrong because its chain is broken. The cost
  // is the same.
  report.race(
      parameters,
      {{"zelgvc", repeat(ours)}, {"libgcrypt", repeat(bare)}, {"openssl", repeat(openssl)}});
}

} // namespace

void
measureCiphers(const Report &report)
{
  std::vector<std::int64_t> sizes = {16, 64, 256, 1024, 4096, 16384, 65536, 262144, 1 << 20};
  if (report.effort().quick)
    sizes = {64, 4096, 65536};
  for (unsigned bits : {128U, 256U})
    for (auto size : sizes)
      for (bool encrypt : {true, false}) {
        Parameters parameters = {
            {"direction", encrypt ? "encrypt" : "decrypt"}, {"bits", bits}, {"size", size}};
        auto *race = encrypt ? raceEncryption : raceDecryption;
        if (report.wants(parameters))
          race(report, parameters, bits, static_cast<std::size_t>(size));
      }
}

} // namespace bench
