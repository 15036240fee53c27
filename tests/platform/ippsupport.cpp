// SPDX-License-Identifier: LGPL-2.1-or-later
#include "ippsupport.h"

#include <lzo/lzo1x.h>

#include <algorithm>

Bytes
randomBytes(std::size_t size, guint32 seed)
{
  GRand *rand = g_rand_new_with_seed(seed);
  Bytes bytes(size);
  for (Ipp8u &byte : bytes)
    byte = static_cast<Ipp8u>(g_rand_int(rand));
  g_rand_free(rand);
  return bytes;
}

Bytes
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

Bytes
fromHex(const char *hex)
{
  Bytes bytes;
  for (; g_ascii_isxdigit(hex[0]); hex += 2)
    bytes.push_back(
        static_cast<Ipp8u>(g_ascii_xdigit_value(hex[0]) << 4 | g_ascii_xdigit_value(hex[1])));
  return bytes;
}

Bytes
concat(const Bytes &a, const Bytes &b)
{
  Bytes both(a);
  both.insert(both.end(), b.begin(), b.end());
  return both;
}

void
assertEqual(const Bytes &a, const Bytes &b)
{
  g_assert_cmpmem(a.data(), a.size(), b.data(), b.size());
}

bool
isAll(const Bytes &bytes, Ipp8u value)
{
  return std::all_of(bytes.begin(), bytes.end(), [value](Ipp8u byte) { return byte == value; });
}

bool
inChild()
{
  if (g_test_subprocess())
    return true;
  g_test_trap_subprocess(nullptr, 0, G_TEST_SUBPROCESS_INHERIT_STDERR);
  g_test_trap_assert_passed();
  return false;
}

Bytes
lzoDecode(const Bytes &stream, std::size_t room, bool *isOk)
{
  Bytes out(room + 1);
  lzo_uint size = room;
  *isOk =
      lzo1x_decompress_safe(stream.data(), stream.size(), out.data(), &size, nullptr) == LZO_E_OK;
  out.resize(*isOk ? size : 0);
  return out;
}

Bytes
lzoDecode(const Bytes &stream, std::size_t room)
{
  bool isOk = false;
  const Bytes out = lzoDecode(stream, room, &isOk);
  g_assert_true(isOk);
  return out;
}

Bytes
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

Bytes
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

std::vector<Bytes>
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

Bytes
likeChunks(Ipp8u count, std::size_t size)
{
  Bytes plain = randomBytes(68, 48);
  plain[0] = count;
  plain[1] = count ^ 0x55;
  while (plain.size() < size)
    plain.push_back(plain[(plain.size() - 68) % 40]);
  return plain;
}
