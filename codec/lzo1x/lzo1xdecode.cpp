// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xcopy.h"
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

inline Status
copyLiterals(Position &at, std::size_t length) noexcept
{
  if (length > at.readLeft())
    return Status::inputOverrun;
  if (length > at.room())
    return Status::outputOverrun;
  copyRun(at.written, at.read, length);
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

// Adds the length bytes from `read` to readEnd, if there are, to `length` and moves behind them. No
// length above `most` can be meant; up to most / 255 zeros the length stays below most + 3 * 255,
// which cannot wrap, as no object is longer than half of what size_t can say.
inline Status
readLengthBytes(const std::uint8_t *&read, const std::uint8_t *readEnd, std::size_t most,
                std::size_t &length) noexcept
{
  const std::uint8_t *const first = read;
  while (read < readEnd && *read == 0)
    read++;
  if (read >= readEnd)
    return Status::inputOverrun;
  const auto zeros = static_cast<std::size_t>(read - first);
  if (zeros > most / lengthByteStep)
    return Status::outputOverrun;
  length += zeros * lengthByteStep + *read++;
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
    if (const Status status = readLengthBytes(at.read, at.readEnd, at.room(), length);
        status != Status::ok)
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
  const unsigned literals =
      distanceBytes == 2 ? word >> 8 & matchLiteralsMax : t & matchLiteralsMax;
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

// Decodes as long as nothing is special and there is room around: it stops near the ends, at the
// end marker and at what may be broken, always between two instructions. A match of up to `span`
// bytes is copied as so many.
template <std::size_t span> class FastDecoder
{
public:
  explicit FastDecoder(const Position &at) noexcept
      : read(at.read), readEnd(at.readEnd), readLast(at.readEnd - readSlack), written(at.written),
        begin(at.begin), writtenLast(at.writtenEnd - writeSlack),
        literals(at.context == afterMatch         ? 0
                 : at.context == afterFewLiterals ? 1
                                                  : runMin)
  {
  }

  static bool
  hasRoom(const Position &at) noexcept
  {
    return at.readLeft() >= readSlack && at.room() >= writeSlack;
  }

  [[gnu::always_inline]] void
  decode(Position &at) noexcept
  {
    while (read <= readLast && written <= writtenLast) {
      const unsigned t = *read;
      if (!(t < farMark ? run(t) : match(t)))
        break;
    }
    at.read = read;
    at.written = written;
    at.context = literals == 0 ? afterMatch : literals < runMin ? afterFewLiterals : afterRun;
  }

private:
  // What can be read behind readLast: a match of three bytes, and 4 for its literals, of which up
  // to 3 are used.
  static constexpr std::size_t readSlack = 3 + 4;
  // What can be written behind writtenLast: a match of up to `span` bytes, and 15 more by repeat().
  // A run without length bytes, or 4 bytes for the literals of a match, take less.
  static constexpr std::size_t writeSlack = span + 15;
  static_assert(writeSlack >= runShortMax && writeSlack >= span + 4);

  [[gnu::always_inline]] bool
  run(unsigned t) noexcept
  {
    if (literals != 0) // not a run but a rare match
      return false;
    const std::uint8_t *from = read + 1;
    std::size_t length = t + runBias;
    if (t != 0) {
      if (static_cast<std::size_t>(readEnd - from) < runShortMax)
        return false;
      copyFixed<runShortMax>(written, from);
    } else {
      length = runShortMax;
      if (readLengthBytes(from, readEnd, roomToLast(), length) != Status::ok ||
          length > roomToLast() || length > static_cast<std::size_t>(readEnd - from))
        return false;
      copyRun(written, from, length);
    }
    written += length;
    read = from + length;
    literals = runMin;
    return true;
  }

  // Everything that the next instruction waits for is computed without a branch: whether a match
  // has two or three bytes, and how many literals follow it.
  [[gnu::always_inline]] bool
  match(unsigned t) noexcept
  {
    const auto word = loadLittleEndian<std::uint32_t>(read);
    const Instruction &instruction = instructions[afterMatch][t];
    const unsigned threeBytes = (t - nearMark) >> 31;
    const unsigned length = instruction.lengthAndFlag;
    if (length > span) [[unlikely]]
      return longMatch(t, word, instruction);
    const std::size_t distance = instruction.distance(word);
    if (!isPlain(distance)) [[unlikely]]
      return false;
    const std::uint8_t *const from = written - distance;
    if (distance < (length < chunk ? length : chunk)) [[unlikely]] {
      repeat(written, distance, length);
    } else {
      copyFixed<chunk>(written, from);
      if constexpr (span > chunk)
        copyFixed<chunk>(written + chunk, from + chunk);
    }
    written += length;
    copyMatchLiterals(read + 2 + threeBytes, word >> (8 * threeBytes));
    return true;
  }

  // A match of three bytes that is longer than `span` or has length bytes.
  [[gnu::always_inline]] bool
  longMatch(unsigned t, std::uint32_t word, const Instruction &instruction) noexcept
  {
    const std::uint8_t *next = read + 3;
    std::size_t length = instruction.length();
    if (instruction.hasLengthBytes()) {
      next = read + 1;
      // Up to readLast, so that the distance bytes and the literals can be read behind.
      if (readLengthBytes(next, readLast, roomToLast(), length) != Status::ok)
        return false;
      word =
          t | static_cast<std::uint32_t>(next[0]) << 8 | static_cast<std::uint32_t>(next[1]) << 16;
      next += 2;
    }
    const std::size_t distance = instruction.distance(word);
    if (length > roomToLast() || !isPlain(distance))
      return false;
    if (distance < chunk)
      repeat(written, distance, length);
    else
      copyLong(written, written - distance, length);
    written += length;
    copyMatchLiterals(next, word >> 8);
    return true;
  }

  // `length` bytes, of which there may be less than a chunk, from at least a chunk before.
  [[gnu::always_inline]] static void
  copyLong(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
  {
    copyFixed<chunk>(to, from);
    if constexpr (span > chunk) {
      copyFixed<chunk>(to + chunk, from + chunk);
      copyFixed<chunk>(to + 2 * chunk, from + 2 * chunk);
      if (length > 3 * chunk)
        copyChunks(to + 2 * chunk, from + 2 * chunk, length - 2 * chunk);
    } else if (length > chunk) {
      copyChunks(to, from, length);
    }
  }

  [[gnu::always_inline]] void
  copyMatchLiterals(const std::uint8_t *from, std::uint32_t count) noexcept
  {
    literals = count & matchLiteralsMax;
    copyFixed<4>(written, from);
    written += literals;
    read = from + literals;
  }

  // Not in the end marker (the middle form says this distance too, but seldom), and not too far.
  [[gnu::always_inline]] bool
  isPlain(std::size_t distance) const noexcept
  {
    return distance <= static_cast<std::size_t>(written - begin) && distance != middleMaxDistance;
  }

  [[gnu::always_inline]] std::size_t
  roomToLast() const noexcept
  {
    return static_cast<std::size_t>(writtenLast - written);
  }

  const std::uint8_t *read;
  const std::uint8_t *const readEnd;
  const std::uint8_t *const readLast;
  std::uint8_t *written;
  std::uint8_t *const begin;
  std::uint8_t *const writtenLast;
  std::size_t literals; // since the last match, or runMin for a run
};

template <std::size_t span>
inline void
decodeFast(Position &at) noexcept
{
  if (FastDecoder<span>::hasRoom(at))
    FastDecoder<span>(at).decode(at);
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
