// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xformat.h"

namespace lzo1x
{

namespace
{

// Where a decoder stands. Invariants: `read` never passes readEnd, `written` never passes
// writtenEnd, and what lies between `begin` and `written` is the output so far.
struct Position {
  const std::uint8_t *read;
  const std::uint8_t *readEnd;
  std::uint8_t *written;
  std::uint8_t *begin;
  std::uint8_t *writtenEnd;
  Context context;

  std::size_t
  readLeft() const
  {
    return static_cast<std::size_t>(readEnd - read);
  }

  std::size_t
  room() const
  {
    return static_cast<std::size_t>(writtenEnd - written);
  }

  std::size_t
  produced() const
  {
    return static_cast<std::size_t>(written - begin);
  }
};

// The size of one copy that compilers turn into a single load and store.
constexpr std::size_t chunk = 16;

template <std::size_t size>
inline void
copyFixed(std::uint8_t *to, const std::uint8_t *from) noexcept
{
  std::memcpy(to, from, size);
}

// Exactly `length` bytes, at least a chunk. `from` lies at least a chunk before `to`, or in other
// memory; so no chunk is read before it is written, nor does the last one, which may repeat bytes,
// read what it writes.
[[gnu::always_inline]] inline void
copyChunks(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  const std::size_t last = length - chunk;
  for (std::size_t at = 0; at < last; at += chunk)
    copyFixed<chunk>(to + at, from + at);
  copyFixed<chunk>(to + last, from + last);
}

// Exactly `length` bytes, less than a chunk, from memory that does not overlap.
inline void
copyFew(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  if (length >= 8) {
    copyFixed<8>(to, from);
    copyFixed<8>(to + length - 8, from + length - 8);
  } else if (length >= 4) {
    copyFixed<4>(to, from);
    copyFixed<4>(to + length - 4, from + length - 4);
  } else {
    for (; length > 0; length--)
      *to++ = *from++;
  }
}

inline Status
copyLiterals(Position &at, std::size_t length) noexcept
{
  if (length > at.readLeft())
    return Status::inputOverrun;
  if (length > at.room())
    return Status::outputOverrun;
  if (length >= 256)
    std::memcpy(at.written, at.read, length);
  else if (length >= chunk)
    copyChunks(at.written, at.read, length);
  else
    copyFew(at.written, at.read, length);
  at.read += length;
  at.written += length;
  return Status::ok;
}

inline Status
copyMatch(Position &at, std::size_t distance, std::size_t length) noexcept
{
  if (distance > at.produced())
    return Status::badDistance;
  if (length > at.room())
    return Status::outputOverrun;
  const std::uint8_t *from = at.written - distance;
  std::uint8_t *const to = at.written;
  at.written += length;
  if (length < chunk && length <= distance) {
    copyFew(to, from, length);
  } else if (length >= chunk && distance >= chunk) {
    copyChunks(to, from, length);
  } else {
    for (std::size_t i = 0; i < length; i++)
      to[i] = from[i];
  }
  return Status::ok;
}

// Adds the length bytes to `length`.
inline Status
readLengthBytes(Position &at, std::size_t &length) noexcept
{
  const std::uint8_t *const first = at.read;
  while (at.read < at.readEnd && *at.read == 0)
    at.read++;
  if (at.read == at.readEnd)
    return Status::inputOverrun;
  // No length beyond the room can be meant. Up to room / 255 zeros the length stays below
  // room + 3 * 255, which cannot wrap, as no object is longer than half of what size_t can say.
  const auto zeros = static_cast<std::size_t>(at.read - first);
  if (zeros > at.room() / lengthByteStep)
    return Status::outputOverrun;
  length += zeros * lengthByteStep + *at.read++;
  return Status::ok;
}

// The opening byte of a stream may be a run of its own kind.
inline Status
openingRun(Position &at) noexcept
{
  if (at.readLeft() == 0 || *at.read <= openingRunMark)
    return Status::ok;
  const unsigned length = *at.read++ - openingRunMark;
  at.context = length < runMin ? afterFewLiterals : afterRun;
  return copyLiterals(at, length);
}

// One instruction with its literals, every access checked; `done` tells that it was the end marker.
inline Status
step(Position &at, bool &done) noexcept
{
  if (at.readLeft() == 0)
    return Status::inputOverrun;
  const unsigned t = *at.read++;
  const Instruction &instruction = instructions[at.context][t];
  std::size_t length = instruction.length();
  if (instruction.hasLengthBytes()) {
    if (const Status status = readLengthBytes(at, length); status != Status::ok)
      return status;
  }
  if (instruction.isRun()) {
    at.context = afterRun;
    return copyLiterals(at, length);
  }
  const unsigned distanceBytes = instruction.size - 1U;
  if (distanceBytes > at.readLeft())
    return Status::inputOverrun;
  std::uint32_t word = t | static_cast<std::uint32_t>(at.read[0]) << 8;
  if (distanceBytes == 2)
    word |= static_cast<std::uint32_t>(at.read[1]) << 16;
  at.read += distanceBytes;
  if ((word & endDistanceMask) == endDistanceWord) {
    done = word == endMarkerWord;
    return done ? Status::ok : Status::badDistance;
  }
  if (const Status status = copyMatch(at, instruction.distance(word), length); status != Status::ok)
    return status;
  const unsigned literals = distanceBytes == 2 ? word >> 8 & matchLiteralsMax : t & matchLiteralsMax;
  at.context = literals == 0 ? afterMatch : afterFewLiterals;
  return copyLiterals(at, literals);
}

// A match nearer than a chunk. Up to 15 bytes behind it are written too.
inline void
repeat(std::uint8_t *to, std::size_t distance, std::size_t length) noexcept
{
  // What is written comes from two words, so that no load waits for a store: the pattern is as long
  // as `period`, begins with `first` and ends with `second`, which stands at `offset`.
  std::uint64_t first = loadLittleEndian<std::uint64_t>(to - distance);
  std::uint64_t second = first;
  std::size_t period = distance;
  std::size_t offset = distance - 8;
  if (distance < 8) {
    // The pattern repeated by multiplying it with ones that stand `distance` bytes apart; it fits
    // again at the largest multiple of the distance up to 8.
    static constexpr std::uint64_t ones[8] = {0,
                                              0x0101010101010101,
                                              0x0001000100010001,
                                              0x0001000001000001,
                                              0x0000000100000001,
                                              0x0000010000000001,
                                              0x0001000000000001,
                                              0x0100000000000001};
    static constexpr std::uint8_t multiples[8] = {8, 8, 8, 6, 8, 5, 6, 7};
    first = (first & ((std::uint64_t{1} << (8 * distance)) - 1)) * ones[distance];
    second = first;
    offset = multiples[distance];
    period = 2 * offset;
  } else {
    second = loadLittleEndian<std::uint64_t>(to - 8);
  }
  for (std::uint8_t *const end = to + length; to < end; to += period) {
    storeLittleEndian(to, first);
    storeLittleEndian(to + offset, second);
  }
}

// The fast loop runs while so much can be read and written behind the current position.
// Read: a match of three bytes, and 4 for its literals, of which up to 3 are used.
constexpr std::size_t readSlack = 3 + 4;
// A match of up to `span` bytes is written as so many, which leaves room for 4 bytes as its
// literals, of which up to 3 are used.
template <std::size_t span> constexpr std::size_t writeSlack = span + 16;

template <std::size_t span>
[[gnu::always_inline]] inline void
decodeFast(Position &at) noexcept
{
  if (at.readLeft() < readSlack || at.room() < writeSlack<span>)
    return;
  const std::uint8_t *read = at.read;
  const std::uint8_t *const readLast = at.readEnd - readSlack;
  std::uint8_t *written = at.written;
  std::uint8_t *const writtenLast = at.writtenEnd - writeSlack<span>;
  std::size_t literals = at.context == afterFewLiterals ? 1 : at.context == afterMatch ? 0 : runMin;
  while (read <= readLast && written <= writtenLast) {
    const unsigned t = *read;
    if (t < farMark) {
      if (literals != 0)
        break;
      std::size_t length = t + runBias;
      const std::uint8_t *from = read + 1;
      if (t != 0) {
        if (static_cast<std::size_t>(at.readEnd - from) < runShortMax)
          break;
        copyFixed<16>(written, from);
        copyFixed<2>(written + 16, from + 16);
      } else {
        while (from < readLast && *from == 0)
          from++;
        if (from >= readLast)
          break;
        length = runShortMax + lengthByteStep * static_cast<std::size_t>(from - read - 1) + *from;
        from++;
        if (length > static_cast<std::size_t>(writtenLast - written) || length > static_cast<std::size_t>(at.readEnd - from))
          break;
        if (length >= 256)
          std::memcpy(written, from, length);
        else
          copyChunks(written, from, length);
      }
      written += length;
      read = from + length;
      literals = runMin;
      continue;
    }
    std::uint32_t word = loadLittleEndian<std::uint32_t>(read);
    const Instruction &instruction = instructions[afterMatch][t];
    const unsigned literalShift = (t - nearMark) >> 28 & 8;
    const std::uint8_t *next = read + 2 + (literalShift >> 3);
    std::size_t length = instruction.lengthAndFlag;
    if (length > span) [[unlikely]] {
      if (instruction.hasLengthBytes()) {
        length = instruction.length();
        const std::uint8_t *p = read + 1;
        while (p < readLast && *p == 0)
          p++, length += lengthByteStep;
        if (p >= readLast)
          break;
        length += *p++;
        word = t | static_cast<std::uint32_t>(p[0]) << 8 | static_cast<std::uint32_t>(p[1]) << 16;
        next = p + 2;
      }
      if (length > static_cast<std::size_t>(writtenLast - written))
        break;
      const std::size_t distance = instruction.distance(word);
      if (distance > static_cast<std::size_t>(written - at.begin) || distance == middleMaxDistance)
        break;
      if (distance < chunk)
        repeat(written, distance, length);
      else {
        const std::uint8_t *const from = written - distance;
        copyFixed<chunk>(written, from);
        if constexpr (span > chunk) {
        copyFixed<chunk>(written+16, from+16);
        copyFixed<chunk>(written+32, from+32);
        if (length > 48)
          copyChunks(written + 32, from + 32, length - 32);
        } else if (length > chunk)
          copyChunks(written, from, length);
      }
    } else {
      const std::size_t distance = instruction.distance(word);
      const auto from = reinterpret_cast<const std::uint8_t *>(
          reinterpret_cast<std::uintptr_t>(written) - distance);
      if (from < at.begin || distance == middleMaxDistance) [[unlikely]]
        break;
      if (distance < (length < chunk ? length : chunk)) [[unlikely]] {
        repeat(written, distance, length);
      } else {
        copyFixed<chunk>(written, from);
        if constexpr (span > chunk)
          copyFixed<chunk>(written + chunk, from + chunk);
      }
    }
    literals = word >> literalShift & matchLiteralsMax;
    written += length;
    copyFixed<4>(written, next);
    written += literals;
    read = next + literals;
  }
  at.read = read;
  at.written = written;
  at.context = literals == 0 ? afterMatch : literals == runMin ? afterRun : afterFewLiterals;
}

} // namespace

Result
decode(Input in, Output out) noexcept
{
  Position at{.read = in.data(),
              .readEnd = in.data() + in.size(),
              .written = out.data(),
              .begin = out.data(),
              .writtenEnd = out.data() + out.size(),
              .context = afterMatch};
  bool done = false;
  Status status = openingRun(at);
  while (status == Status::ok && !done) {
    decodeFast<2 * chunk>(at);
    decodeFast<chunk>(at);
    status = step(at, done);
  }
  if (status != Status::ok)
    return {status, 0};
  if (at.readLeft() != 0)
    return {Status::trailingBytes, 0};
  return {Status::ok, at.produced()};
}

} // namespace lzo1x
