// SPDX-License-Identifier: LGPL-2.1-or-later
// Compressed blocks as the tests make and read them, over liblzo2.
#pragma once

#include "tests/support/convert.h"

#include <lzo/lzo1x.h>

#include <optional>

inline constexpr gsize header_size = 8;

enum class Effort { fast, best };

// One LZO1X stream with its end marker.
inline Bytes
lzo2_compress(ByteView data, Effort effort = Effort::fast)
{
  g_assert_cmpint(lzo_init(), ==, LZO_E_OK);
  Bytes memory(effort == Effort::fast ? LZO1X_1_MEM_COMPRESS : LZO1X_999_MEM_COMPRESS);
  Bytes out(data.size() + data.size() / 16 + 64 + 3);
  lzo_uint size = out.size();
  const auto compress = effort == Effort::fast ? lzo1x_1_compress : lzo1x_999_compress;
  const guint8 nothing = 0;
  g_assert_cmpint(compress(data.empty() ? &nothing : data.data(), data.size(), out.data(), &size,
                           memory.data()),
                  ==, LZO_E_OK);
  out.resize(size);
  return out;
}

// Decodes the payload into `room` bytes. Returns nothing if liblzo2's safe decoder refuses it.
inline std::optional<Bytes>
lzo2_decompress(ByteView payload, gsize room)
{
  g_assert_cmpint(lzo_init(), ==, LZO_E_OK);
  Bytes out(room + 1); // a vector of size 0 has no address to give
  lzo_uint size = room;
  const guint8 nothing = 0;
  const int status = lzo1x_decompress_safe(payload.empty() ? &nothing : payload.data(),
                                           payload.size(), out.data(), &size, nullptr);
  if (status != LZO_E_OK)
    return std::nullopt;
  out.resize(size);
  return out;
}

// A header that announces these sizes, truthful or not, and the payload.
inline Bytes
raw_block(guint32 src_size, guint32 dest_size, ByteView payload)
{
  return join({little_endian(src_size, 4), little_endian(dest_size, 4), payload});
}

inline Bytes
block(ByteView data, Effort effort = Effort::fast)
{
  if (data.empty())
    return raw_block(0, 0, {});
  const Bytes payload = lzo2_compress(data, effort);
  return raw_block(static_cast<guint32>(payload.size()), static_cast<guint32>(data.size()),
                   payload);
}

// The chunked payload layout over `data`: the first n - 1 chunks hold data.size() / n bytes each,
// the last one the rest.
inline Bytes
chunked_payload(ByteView data, guint8 n, Effort effort = Effort::fast)
{
  Bytes sizes, chunks;
  for (guint8 i = 0; i < n; i++) {
    const gsize size = data.size() / n;
    const bool last = i == n - 1;
    const Bytes chunk =
        lzo2_compress(last ? data.subspan(i * size) : data.subspan(i * size, size), effort);
    if (!last)
      sizes = join({sizes, little_endian(chunk.size(), 4)});
    chunks = join({chunks, chunk});
  }
  const guint8 start[] = {0x55, n, static_cast<guint8>(n ^ 0x55)};
  return join({start, little_endian(data.size(), 4), sizes, chunks});
}

// Reads a stream of whole blocks and returns what they decode to, joined.
inline Bytes
open_blocks(ByteView stream, guint *count)
{
  Bytes plain;
  *count = 0;
  while (!stream.empty()) {
    const guint64 src_size = load_little_endian(stream, 0, 4);
    const guint64 dest_size = load_little_endian(stream, 4, 4);
    stream = stream.subspan(header_size);
    g_assert_cmpuint(src_size, <=, stream.size());
    if (src_size == 0) {
      g_assert_cmpuint(dest_size, ==, 0);
    } else {
      const std::optional<Bytes> part = lzo2_decompress(stream.first(src_size), dest_size);
      g_assert_true(part.has_value());
      g_assert_cmpuint(part->size(), ==, dest_size);
      plain.insert(plain.end(), part->begin(), part->end());
    }
    stream = stream.subspan(src_size);
    ++*count;
  }
  return plain;
}
