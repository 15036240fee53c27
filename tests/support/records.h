// SPDX-License-Identifier: LGPL-2.1-or-later
// The encrypted record stream as the tests compute it, over OpenSSL's EVP.
#pragma once

#include "tests/support/convert.h"

#include <openssl/evp.h>

inline constexpr gsize aes_block = 16;
inline constexpr gsize length_size = 8;
inline constexpr gsize iv_record_size = length_size + aes_block;

// AES-CBC over the first `bits` / 8 bytes of `key`. With `padding` the whole of PKCS#7 is
// OpenSSL's: it appends the bytes when encrypting and checks and strips them when decrypting.
inline Bytes
evp_cbc(bool encrypt, bool padding, ByteView key, int bits, ByteView iv, ByteView data)
{
  g_assert_cmpuint(key.size(), >=, bits / 8);
  g_assert_cmpuint(iv.size(), ==, aes_block);
  const EVP_CIPHER *cipher = bits == 128 ? EVP_aes_128_cbc() : EVP_aes_256_cbc();
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  g_assert_true(EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv.data(), encrypt) == 1);
  EVP_CIPHER_CTX_set_padding(ctx, padding);
  Bytes out(data.size() + 2 * aes_block);
  int size = 0, rest = 0;
  const guint8 nothing = 0;
  g_assert_true(EVP_CipherUpdate(ctx, out.data(), &size, data.empty() ? &nothing : data.data(),
                                 static_cast<int>(data.size())) == 1);
  g_assert_true(EVP_CipherFinal_ex(ctx, out.data() + size, &rest) == 1);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(size + rest);
  return out;
}

inline Bytes
iv_record(ByteView iv)
{
  g_assert_cmpuint(iv.size(), ==, aes_block);
  return join({little_endian(0, length_size), iv});
}

// A length field and whatever follows it.
inline Bytes
raw_record(guint64 length, ByteView payload)
{
  return join({little_endian(length, length_size), payload});
}

// Writes the record stream: what an encryptor with this key must produce.
class Sealer
{
public:
  Sealer(ByteView key, int bits, ByteView chain)
      : key_(key.begin(), key.end()), bits_{bits}, chain_(chain.begin(), chain.end())
  {
  }
  Bytes
  record(ByteView plain)
  {
    const Bytes cipher = evp_cbc(true, true, key_, bits_, chain_, plain);
    chain_.assign(cipher.end() - aes_block, cipher.end());
    return raw_record(cipher.size(), cipher);
  }
  // A record whose whole plain text, padding included, is given.
  Bytes
  record_unpadded(ByteView plain)
  {
    const Bytes cipher = evp_cbc(true, false, key_, bits_, chain_, plain);
    chain_.assign(cipher.end() - aes_block, cipher.end());
    return raw_record(cipher.size(), cipher);
  }
  void
  set_chain(ByteView chain)
  {
    chain_.assign(chain.begin(), chain.end());
  }
  const Bytes &
  chain() const
  {
    return chain_;
  }

private:
  Bytes key_;
  int bits_;
  Bytes chain_;
};

// Reads the record stream: IV records replace the chain, data records must decrypt with PKCS#7
// padding that OpenSSL accepts.
class Opener
{
public:
  Opener(ByteView key, int bits) : key_(key.begin(), key.end()), bits_{bits} {}
  // Takes a run of whole records and returns their plain text, joined.
  Bytes
  open(ByteView stream)
  {
    Bytes plain;
    while (!stream.empty()) {
      const guint64 length = load_little_endian(stream, 0, length_size);
      stream = stream.subspan(length_size);
      if (length == 0) {
        g_assert_cmpuint(stream.size(), >=, aes_block);
        chain_.assign(stream.begin(), stream.begin() + aes_block);
        iv_records++;
        stream = stream.subspan(aes_block);
        continue;
      }
      g_assert_cmpuint(length % aes_block, ==, 0);
      g_assert_cmpuint(length, <=, stream.size());
      g_assert_cmpuint(chain_.size(), ==, aes_block); // an IV record comes first
      const ByteView cipher = stream.first(length);
      const Bytes part = evp_cbc(false, true, key_, bits_, chain_, cipher);
      g_assert_cmpuint(length - part.size(), >=, 1);
      g_assert_cmpuint(length - part.size(), <=, aes_block);
      plain.insert(plain.end(), part.begin(), part.end());
      chain_.assign(cipher.end() - aes_block, cipher.end());
      data_records++;
      stream = stream.subspan(length);
    }
    return plain;
  }

  guint iv_records = 0;
  guint data_records = 0;

private:
  Bytes key_;
  int bits_;
  Bytes chain_;
};
