// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xformat.h"

#include <algorithm>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace lzo1x
{

namespace
{

// A position is remembered by its 16 low bits, under the hash of the 4 bytes that stand there. As
// the table starts with zeros, every entry is the low half of a position seen before, or of
// position 0; so its distance modulo 2^16 is never more than the position itself.
using Entry = std::uint16_t;
constexpr unsigned minTableBits = 6;
constexpr unsigned maxTableBits = 13;

constexpr std::size_t minMatch = 4;
// Every match saves at least this much. The header of the literal run that follows it costs at most
// 2 bytes more than the worst case grows by for the bytes of match and run, so the output never
// exceeds the worst case.
constexpr std::size_t minGain = 2;

// Inputs up to this size are not searched.
constexpr std::size_t tinyInput = 20;

constexpr unsigned
tableBits(std::size_t size)
{
  const unsigned bits = size < 2 ? 0 : static_cast<unsigned>(std::bit_width(size - 1));
  return bits < minTableBits ? minTableBits : bits > maxTableBits ? maxTableBits : bits;
}

// What is still to be encoded and where it goes. Invariants: [pending, read) are literals not yet
// written, `written` never passes writtenEnd.
struct Encoder {
  const std::uint8_t *const begin;
  const std::uint8_t *const readEnd;
  const std::uint8_t *pending;
  std::uint8_t *written;
  std::uint8_t *const outBegin;
  std::uint8_t *const writtenEnd;

  std::size_t
  room() const
  {
    return static_cast<std::size_t>(writtenEnd - written);
  }
};

// Length bytes for what is left of a length, at least 1.
constexpr std::size_t
lengthBytesSize(std::size_t rest)
{
  return (rest - 1) / lengthByteStep + 1;
}

std::uint8_t *
putLengthBytes(std::uint8_t *to, std::size_t rest)
{
  for (; rest > lengthByteStep; rest -= lengthByteStep)
    *to++ = 0;
  *to++ = static_cast<std::uint8_t>(rest);
  return to;
}

std::size_t
runHeaderSize(std::size_t length, bool opening)
{
  if (length == 0)
    return 0;
  if (opening && length <= openingRunMax)
    return 1;
  if (length <= matchLiteralsMax)
    return 0;
  return length <= runShortMax ? 1 : 1 + lengthBytesSize(length - runShortMax);
}

// Writes the literals from pending to `to`.
bool
putLiterals(Encoder &at, const std::uint8_t *to)
{
  const auto length = static_cast<std::size_t>(to - at.pending);
  const bool opening = at.written == at.outBegin;
  const std::size_t header = runHeaderSize(length, opening);
  // Not a sum, which could wrap.
  if (at.room() < header || at.room() - header < length)
    return false;
  if (length == 0)
    return true;
  if (opening && length <= openingRunMax) {
    *at.written++ = static_cast<std::uint8_t>(openingRunMark + length);
  } else if (length <= matchLiteralsMax) {
    at.written[-2] |= static_cast<std::uint8_t>(length);
  } else if (length <= runShortMax) {
    *at.written++ = static_cast<std::uint8_t>(length - runBias);
  } else {
    *at.written++ = 0;
    at.written = putLengthBytes(at.written, length - runShortMax);
  }
  std::memcpy(at.written, at.pending, length);
  at.written += length;
  at.pending = to;
  return true;
}

constexpr std::size_t
matchSize(std::size_t length, std::size_t distance)
{
  if (length <= nearMaxLength && distance <= nearMaxDistance)
    return 2;
  const unsigned shortMax = distance <= middleMaxDistance ? middleShortMax : farShortMax;
  return length <= shortMax ? 3 : 3 + lengthBytesSize(length - shortMax);
}

bool
putMatch(Encoder &at, std::size_t length, std::size_t distance)
{
  if (at.room() < matchSize(length, distance))
    return false;
  std::uint8_t *to = at.written;
  if (length <= nearMaxLength && distance <= nearMaxDistance) {
    const std::size_t code = distance - 1;
    *to++ =
        static_cast<std::uint8_t>((length - nearLengthBias) << nearLengthShift | (code & 7) << 2);
    *to++ = static_cast<std::uint8_t>(code >> 3);
  } else {
    const bool middle = distance <= middleMaxDistance;
    const unsigned shortMax = middle ? middleShortMax : farShortMax;
    std::size_t code = distance - (middle ? 1 : middleMaxDistance);
    unsigned mark = middle ? middleMark : farMark;
    if (!middle && code >= farHighDistance) {
      mark |= farHighBit;
      code -= farHighDistance;
    }
    if (length <= shortMax) {
      *to++ = static_cast<std::uint8_t>(mark | (length - 2));
    } else {
      *to++ = static_cast<std::uint8_t>(mark);
      to = putLengthBytes(to, length - shortMax);
    }
    *to++ = static_cast<std::uint8_t>(code << 2);
    *to++ = static_cast<std::uint8_t>(code >> 6);
  }
  at.written = to;
  at.pending += length;
  return true;
}

bool
putEndMarker(Encoder &at)
{
  if (at.room() < sizeof endMarker)
    return false;
  std::memcpy(at.written, endMarker, sizeof endMarker);
  at.written += sizeof endMarker;
  return true;
}

constexpr std::size_t compared = 16;

// How many of the first 16 bytes are equal.
inline std::size_t
commonFew(const std::uint8_t *a, const std::uint8_t *b) noexcept
{
#ifdef __SSE2__
  const __m128i equal = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(a)),
                                       _mm_loadu_si128(reinterpret_cast<const __m128i *>(b)));
  return static_cast<std::size_t>(std::countr_zero(~static_cast<unsigned>(_mm_movemask_epi8(equal))));
#else
  const auto low = loadLittleEndian<std::uint64_t>(a) ^ loadLittleEndian<std::uint64_t>(b);
  if (low != 0)
    return static_cast<std::size_t>(std::countr_zero(low)) / 8;
  const auto high = loadLittleEndian<std::uint64_t>(a + 8) ^ loadLittleEndian<std::uint64_t>(b + 8);
  return 8 + static_cast<std::size_t>(std::countr_zero(high)) / 8;
#endif
}

// The same up to bEnd, where the first 16 have been found equal.
std::size_t
commonMany(const std::uint8_t *a, const std::uint8_t *b, const std::uint8_t *bEnd) noexcept
{
  std::size_t length = compared;
  while (static_cast<std::size_t>(bEnd - b) >= length + compared) {
    const std::size_t more = commonFew(a + length, b + length);
    length += more;
    if (more < compared)
      return length;
  }
  while (b + length < bEnd && a[length] == b[length])
    length++;
  return length;
}

// How much may be written behind what is meant by a quick sequence: literals, then a match.
constexpr std::size_t quickRoom = 64;
constexpr std::size_t quickLiterals = 16;

inline unsigned
hash(std::uint32_t word, unsigned shift) noexcept
{
  return word * 0x9e3779b1U >> shift;
}

// Finds and writes matches until there are none; the literals after the last one stay pending.
bool
putMatches(Encoder &at, Entry *table, unsigned bits) noexcept
{
  const unsigned shift = 32 - bits;
  const std::uint8_t *const begin = at.begin;
  const std::uint8_t *const readEnd = at.readEnd;
  const std::uint8_t *const last = readEnd - (minMatch + compared);
  const std::uint8_t *pending = begin;
  std::uint8_t *written = at.written;
  std::uint8_t *const quickEnd = at.writtenEnd - std::min(at.room(), quickRoom);
  const std::uint8_t *read = begin + 1;
  for (;;) {
    std::size_t distance;
    const std::uint8_t *from;
    std::size_t length;
    for (;; read += 1 + (static_cast<std::size_t>(read - pending) >> 5)) {
      if (read > last) {
        at.pending = pending;
        at.written = written;
        return true;
      }
      const auto word = loadLittleEndian<std::uint32_t>(read);
      Entry &entry = table[hash(word, shift)];
      const auto position = static_cast<std::uint32_t>(read - begin);
      distance = static_cast<Entry>(position - entry);
      entry = static_cast<Entry>(position);
      from = read - distance;
      if (distance - 1 < farMaxDistance && loadLittleEndian<std::uint32_t>(from) == word) {
        length = minMatch + commonFew(from + minMatch, read + minMatch);
        if (length > minMatch || distance <= nearMaxDistance)
          break;
      }
    }
    if (length == minMatch + compared) [[unlikely]]
      length = minMatch + commonMany(from + minMatch, read + minMatch, readEnd);
    while (read > pending && from > begin && read[-1] == from[-1]) {
      read--;
      from--;
      length++;
    }
    const auto literals = static_cast<std::size_t>(read - pending);
    if (literals <= quickLiterals && written < quickEnd && pending != begin) {
      const bool header = literals > matchLiteralsMax;
      written[-2] |= static_cast<std::uint8_t>(header ? 0 : literals);
      *written = static_cast<std::uint8_t>(literals - runBias);
      written += header;
      std::memcpy(written, pending, quickLiterals);
      written += literals;
    } else {
      Encoder slow = at;
      slow.written = written;
      slow.pending = pending;
      if (!putLiterals(slow, read))
        return false;
      written = slow.written;
    }
    for (;;) {
      if ((length <= middleShortMax) & (distance <= middleMaxDistance) & (written < quickEnd)) [[likely]] {
        const auto code = static_cast<std::uint32_t>(distance - 1);
        const auto size = static_cast<std::uint32_t>(length);
        const std::uint32_t two = (size - nearLengthBias) << nearLengthShift | (code & 7) << 2 | (code & ~7U) << 5;
        const std::uint32_t three = (middleMark - 2 + size) | code << (8 + 2);
        // All ones for the near form, made so that no branch on it is.
        const std::uint32_t near = ((size - nearMaxLength - 1) & (code - nearMaxDistance)) >> 31;
        const std::uint32_t word = three ^ ((two ^ three) & (0 - near));
        std::memcpy(written, &word, 4);
        written += 3 - near;
      } else {
        Encoder slow = at;
        slow.written = written;
        if (!putMatch(slow, length, distance))
          return false;
        written = slow.written;
      }
      read += length;
      pending = read;
      if (read > last)
        break;
      table[hash(loadLittleEndian<std::uint32_t>(read - 2), shift)] = static_cast<Entry>(read - 2 - begin);
      const auto word = loadLittleEndian<std::uint32_t>(read);
      Entry &entry = table[hash(word, shift)];
      const auto position = static_cast<std::uint32_t>(read - begin);
      distance = static_cast<Entry>(position - entry);
      entry = static_cast<Entry>(position);
      from = read - distance;
      if (distance - 1 >= farMaxDistance || loadLittleEndian<std::uint32_t>(from) != word) {
        read++;
        break;
      }
      length = minMatch + commonFew(from + minMatch, read + minMatch);
      if ((length == minMatch) & (distance > nearMaxDistance)) {
        read++;
        break;
      }
      if (length == minMatch + compared) [[unlikely]]
        length = minMatch + commonMany(from + minMatch, read + minMatch, readEnd);
    }
  }
}

} // namespace

std::size_t
encoderStateSize(std::size_t maxInput) noexcept
{
  return sizeof(Entry) << tableBits(maxInput);
}

Result
encode(Input in, Output out, std::span<std::byte> state) noexcept
{
  Encoder at{.begin = in.data(),
             .readEnd = in.data() + in.size(),
             .pending = in.data(),
             .written = out.data(),
             .outBegin = out.data(),
             .writtenEnd = out.data() + out.size()};
  if (in.size() > tinyInput) {
    const unsigned bits = tableBits(in.size());
    auto *const table = reinterpret_cast<Entry *>(state.data());
    std::memset(table, 0, sizeof(Entry) << bits);
    if (!putMatches(at, table, bits))
      return {Status::noRoom, 0};
  }
  if (!putLiterals(at, at.readEnd) || !putEndMarker(at))
    return {Status::noRoom, 0};
  return {Status::ok, static_cast<std::size_t>(at.written - out.data())};
}

} // namespace lzo1x
