// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xformat.h"

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

[[gnu::always_inline]] inline std::size_t
commonLength(const std::uint8_t *a, const std::uint8_t *b, const std::uint8_t *bEnd)
{
  const std::uint8_t *const begin = b;
  while (bEnd - b >= 16) {
    const auto d1 = loadLittleEndian<std::uint64_t>(a) ^ loadLittleEndian<std::uint64_t>(b);
    const auto d2 = loadLittleEndian<std::uint64_t>(a+8) ^ loadLittleEndian<std::uint64_t>(b+8);
    if ((d1 | d2) != 0) {
      unsigned z1 = static_cast<unsigned>(__builtin_ctzll(d1 | (1ull << 63)));
      unsigned z2 = static_cast<unsigned>(__builtin_ctzll(d2 | (1ull << 63)));
      unsigned m = d1 == 0 ? 64 + z2 : z1;
      return static_cast<std::size_t>(b - begin) + m / 8;
    }
    a += 16;
    b += 16;
  }
  while (b < bEnd && *a == *b) {
    a++;
    b++;
  }
  return static_cast<std::size_t>(b - begin);
}

// How much may be written behind what is meant by a quick sequence: literals, then a match.
constexpr std::size_t quickRoom = 64;
constexpr std::size_t quickLiterals = 16;

// The same as putLiterals for up to quickLiterals that do not open the stream.
inline void
putFewLiterals(Encoder &at, std::size_t length)
{
  const bool header = length > matchLiteralsMax;
  at.written[-2] |= static_cast<std::uint8_t>(header ? 0 : length);
  *at.written = static_cast<std::uint8_t>(length - runBias);
  at.written += header;
  std::memcpy(at.written, at.pending, quickLiterals);
  at.written += length;
  at.pending += length;
}

inline void
putShortMatch(Encoder &at, std::size_t length, std::size_t distance)
{
  const auto code = static_cast<std::uint32_t>(distance - 1);
  const auto size = static_cast<std::uint32_t>(length);
  const std::uint32_t two = (size - nearLengthBias) << nearLengthShift | (code & 7) << 2 | code >> 3 << 8;
  const std::uint32_t three = middleMark | (size - 2) | code << (8 + 2);
  // All ones for the near form, made so that no branch on it is.
  const std::uint32_t near = static_cast<std::uint32_t>(((size - nearMaxLength - 1) & (code - nearMaxDistance)) >> 31);
  const std::uint32_t nearMask = 0 - near;
  const std::uint32_t word = three ^ ((two ^ three) & nearMask);
  std::memcpy(at.written, &word, 4);
  at.written += 3 - near;
  at.pending += length;
}

inline unsigned
hash(std::uint32_t word, unsigned shift)
{
  return word * 0x9e3779b1U >> shift;
}

// Finds and writes matches until there are none; the literals after the last one stay pending.
bool
putMatches(Encoder &outer, Entry *table, unsigned bits)
{
  Encoder at = outer;
  const unsigned shift = 32 - bits;
  const std::uint8_t *const begin = at.begin;
  const std::uint8_t *const last = at.readEnd - 16;
  const std::uint8_t *next = begin + 1;
  for (;;) {
    std::uint32_t word = loadLittleEndian<std::uint32_t>(next);
    const std::uint8_t *read;
    std::size_t distance;
    for (;;) {
      read = next;
      next += 1 + (static_cast<std::size_t>(read - at.pending) >> 5);
      if (next > last) {
        outer.pending = at.pending;
        outer.written = at.written;
        return true;
      }
      Entry &entry = table[hash(word, shift)];
      const auto position = static_cast<std::size_t>(read - begin);
      distance = static_cast<Entry>(position - entry);
      entry = static_cast<Entry>(position);
      if (distance - 1 < farMaxDistance && loadLittleEndian<std::uint32_t>(read - distance) == word
      && (distance <= nearMaxDistance || read[4] == *(read - distance + 4)))
        break;
      word = loadLittleEndian<std::uint32_t>(next);
    }
    const std::uint8_t *from = read - distance;
    std::size_t length = 0;
    while (read > at.pending && from > begin && read[-1] == from[-1]) {
      read--;
      from--;
      length++;
    }
    const auto literals = static_cast<std::size_t>(read - at.pending);
    if (literals <= quickLiterals && at.room() >= quickRoom && at.written != at.outBegin)
      putFewLiterals(at, literals);
    else if (!putLiterals(at, read))
      return false;
    length += minMatch;
    for (;;) {
      length += commonLength(from + length, read + length, at.readEnd);
      if (length <= middleShortMax && distance <= middleMaxDistance && at.room() >= quickRoom)
        putShortMatch(at, length, distance);
      else if (!putMatch(at, length, distance))
        return false;
      read = at.pending;
      if (read > last) {
        next = read;
        break;
      }
      table[hash(loadLittleEndian<std::uint32_t>(read - 2), shift)] = static_cast<Entry>(read - 2 - begin);
      word = loadLittleEndian<std::uint32_t>(read);
      Entry &entry = table[hash(word, shift)];
      const auto position = static_cast<std::size_t>(read - begin);
      distance = static_cast<Entry>(position - entry);
      entry = static_cast<Entry>(position);
      if (!(distance - 1 < farMaxDistance && loadLittleEndian<std::uint32_t>(read - distance) == word
      && (distance <= nearMaxDistance || read[4] == *(read - distance + 4)))) {
        next = read + 1;
        break;
      }
      from = read - distance;
      length = minMatch;
    }
    if (next > last) {
        outer.pending = at.pending;
        outer.written = at.written;
        return true;
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
