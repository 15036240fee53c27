// SPDX-License-Identifier: LGPL-2.1-or-later
// Encryptor and decryptor beside bare libgcrypt: one record again and again.
#include "corpora.h"
#include "measure.h"

#include <gcrypt.h>
#include <zelgvc/zelgvc.h>

#include <algorithm>

namespace bench
{

namespace
{

constexpr std::size_t block = 16;
constexpr std::size_t header = 8;
const guint8 key[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9};

Ref<GConverter>
makeConverter(GType type, unsigned bits)
{
  BytesRef bytes(g_bytes_new_static(key, sizeof key));
  return support::own(
      G_CONVERTER(g_object_new(type, "key", bytes.get(), "key-length", bits, nullptr)));
}

// A record and the buffers for both directions. libgcrypt does not pad, so its text is padded.
struct Record {
  Record(unsigned bits, std::size_t size)
      : plain(source(size)), padded(plain), ivRecord(header + block),
        encryptor(makeConverter(GVC_TYPE_ENCRYPTOR, bits)),
        decryptor(makeConverter(GVC_TYPE_DECRYPTOR, bits))
  {
    auto padding = block - size % block;
    padded.resize(size + padding, static_cast<std::uint8_t>(padding));
    sealed.resize(header + padded.size());
    out.resize(sealed.size() + block);
    // The first call makes the record of the IV, the second one the record of the text.
    convert(encryptor.get(), plain, ivRecord);
    convert(encryptor.get(), plain, sealed);
    convert(decryptor.get(), ivRecord, out);
    convert(decryptor.get(), sealed, out);
    expect(plain);

    auto algorithm = bits == 256 ? GCRY_CIPHER_AES256 : GCRY_CIPHER_AES128;
    must(gcry_cipher_open(&gcrypt, algorithm, GCRY_CIPHER_MODE_CBC, 0) == 0 &&
             gcry_cipher_setkey(gcrypt, key, bits / 8) == 0 &&
             gcry_cipher_setiv(gcrypt, ivRecord.data() + header, block) == 0,
         nullptr, "libgcrypt");
  }
  ~Record()
  {
    gcry_cipher_close(gcrypt);
  }
  Record(const Record &) = delete;

  // libgcrypt's function on a text.
  void
  bare(decltype(&gcry_cipher_encrypt) function, std::span<const std::uint8_t> text)
  {
    must(function(gcrypt, out.data(), text.size(), text.data(), text.size()) == 0, nullptr,
         "libgcrypt");
  }
  std::span<const std::uint8_t>
  cipherText() const
  {
    return std::span(sealed).subspan(header);
  }
  void
  expect(std::span<const std::uint8_t> expected) const
  {
    must(std::ranges::equal(expected, std::span(out).first(expected.size())), nullptr,
         "the ciphers differ");
  }

  Bytes plain;
  Bytes padded;
  Bytes ivRecord;
  Bytes sealed; // the record
  Bytes out;
  Ref<GConverter> encryptor;
  Ref<GConverter> decryptor;
  gcry_cipher_hd_t gcrypt = nullptr;
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
      auto encrypt = [&] { convert(r.encryptor.get(), r.plain, r.out); };
      auto encryptBare = [&] { r.bare(gcry_cipher_encrypt, r.padded); };
      // From the second time on, the first block comes out wrong because its chain is broken. The
      // cost is the same.
      auto decrypt = [&] { convert(r.decryptor.get(), r.sealed, r.out); };
      auto decryptBare = [&] { r.bare(gcry_cipher_decrypt, r.cipherText()); };
      encryptBare();
      r.expect(r.cipherText());
      report.race({{"direction", "encrypt"}, {"bits", std::int64_t{bits}}, {"size", size}},
                  {{"zelgvc", repeat(encrypt)}, {"libgcrypt", repeat(encryptBare)}});
      report.race({{"direction", "decrypt"}, {"bits", std::int64_t{bits}}, {"size", size}},
                  {{"zelgvc", repeat(decrypt)}, {"libgcrypt", repeat(decryptBare)}});
    }
}

} // namespace bench
