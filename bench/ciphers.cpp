// SPDX-License-Identifier: LGPL-2.1-or-later
// Encryptor and decryptor beside bare libgcrypt: one record again and again.
#include "corpora.h"
#include "measure.h"
#include "refs.h"

#include <gcrypt.h>
#include <zelgvc/zelgvc.h>

#include <cstring>

namespace bench
{

namespace
{

constexpr std::size_t block = 16;
constexpr std::size_t header = 8;
const guint8 key[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9};

struct CipherClose {
  void
  operator()(gcry_cipher_hd_t handle) const
  {
    gcry_cipher_close(handle);
  }
};

using Gcrypt = std::unique_ptr<gcry_cipher_handle, CipherClose>;

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
    // So does the decryptor read them.
    convert(G_CONVERTER(decryptor.get()), sealed.data(), header + block, out.data(), out.size());
    convert(G_CONVERTER(decryptor.get()), record(), header + length, out.data(), out.size());
    expect(plain, out.data());

    gcry_cipher_hd_t handle;
    auto algorithm = bits == 256 ? GCRY_CIPHER_AES256 : GCRY_CIPHER_AES128;
    must(gcry_cipher_open(&handle, algorithm, GCRY_CIPHER_MODE_CBC, 0) == 0 &&
             gcry_cipher_setkey(handle, key, bits / 8) == 0 &&
             gcry_cipher_setiv(handle, sealed.data() + header, block) == 0,
         nullptr, "libgcrypt");
    gcrypt.reset(handle);
  }

  static void
  expect(const Bytes &expected, const std::uint8_t *bytes)
  {
    must(std::memcmp(bytes, expected.data(), expected.size()) == 0, nullptr, "the ciphers differ");
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
  Gcrypt gcrypt;
};

} // namespace

void
measureCiphers(const Report &report)
{
  std::vector<std::int64_t> sizes = {16, 64, 256, 1024, 4096, 16384, 65536, 262144, 1 << 20};
  if (report.effort.quick)
    sizes = {64, 4096, 65536};
  for (unsigned bits : {128U, 256U})
    for (auto size : sizes) {
      Record r(bits, static_cast<std::size_t>(size));
      auto encrypt = [&] {
        convert(G_CONVERTER(r.encryptor.get()), r.plain.data(), r.plain.size(), r.out.data(),
                r.out.size());
      };
      auto encryptBare = [&] {
        must(gcry_cipher_encrypt(r.gcrypt.get(), r.out.data(), r.length, r.padded.data(),
                                 r.length) == 0,
             nullptr, "gcry_cipher_encrypt");
      };
      // From the second time on, the first block comes out wrong because its chain is broken. The
      // cost is the same.
      auto decrypt = [&] {
        convert(G_CONVERTER(r.decryptor.get()), r.record(), header + r.length, r.out.data(),
                r.out.size());
      };
      auto decryptBare = [&] {
        must(gcry_cipher_decrypt(r.gcrypt.get(), r.out.data(), r.length, r.record() + header,
                                 r.length) == 0,
             nullptr, "gcry_cipher_decrypt");
      };
      encryptBare();
      Record::expect({r.record() + header, r.record() + header + r.length}, r.out.data());
      report.race({{"direction", "encrypt"}, {"bits", bits}, {"size", size}},
                  {{"zelgvc", repeat(encrypt)}, {"libgcrypt", repeat(encryptBare)}});
      report.race({{"direction", "decrypt"}, {"bits", bits}, {"size", size}},
                  {{"zelgvc", repeat(decrypt)}, {"libgcrypt", repeat(decryptBare)}});
    }
}

} // namespace bench
