// SPDX-License-Identifier: LGPL-2.1-or-later
// Helpers of the tests of the platform functions.
#pragma once

#include "platform/ipp/ipp.h"

#include <glib.h>

#include <cstddef>
#include <vector>

using Bytes = std::vector<Ipp8u>;

inline constexpr Ipp8u canary = 0xc7;

Bytes randomBytes(std::size_t size, guint32 seed);
// Literal runs and repetitions of many lengths and distances in turn.
Bytes compressibleBytes(std::size_t size, guint32 seed);
Bytes fromHex(const char *hex);
Bytes concat(const Bytes &a, const Bytes &b);
void assertEqual(const Bytes &a, const Bytes &b);
bool isAll(const Bytes &bytes, Ipp8u value);

// True in the child; when this returns false, the parent has run the child and judged it.
bool inChild();

// With liblzo2.
Bytes lzoDecode(const Bytes &stream, std::size_t room, bool *isOk);
Bytes lzoDecode(const Bytes &stream, std::size_t room);
Bytes lzoEncode(const Bytes &plain);

// With the platform, which must succeed.
Bytes decode(const Bytes &payload, std::size_t room);

// Data of many sizes that compresses well, a little and not at all.
std::vector<Bytes> samples();

// Data that starts like the header of chunks and whose first 68 bytes do not compress.
Bytes likeChunks(Ipp8u count, std::size_t size);

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

// Each compares a little output with that of OpenSSL.
void assertCipherWorks();
void assertGeneratorWorks();

void addEngineTests();
void addCipherTests();
void addGeneratorTests();
void addEncoderTests();
void addDecoderTests();
