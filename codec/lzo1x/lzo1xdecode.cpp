// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xcopy.h"
#include "codec/lzo1x/lzo1xcount.h"
#include "codec/lzo1x/lzo1xformat.h"

#include <algorithm>
#include <array>

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

// Chooses without a branch, where a branch would be mispredicted: the compiler cannot know the two
// values, so nothing is gained by one.
template <typename Value>
[[gnu::always_inline]] inline Value
choose(bool first, Value a, Value b) noexcept
{
  asm("" : "+r"(a), "+r"(b));
  return first ? a : b;
}

// How a match nearer than a chunk comes from two words, so that no load waits for a store: the
// pattern is as long as `period`, begins with the first word, and the second one stands at
// `offset`. Below a distance of 8 both are the bytes of the distance repeated, by multiplying them
// with ones that stand so many bytes apart; they fit again at the largest multiple up to 8.
struct Repetition {
  std::uint64_t mask;
  std::uint64_t ones;
  std::uint8_t offset;
  std::uint8_t period;
  std::uint8_t back; // the smallest multiple of the distance that makes a chunk or more
};

constexpr Repetition
repetition(unsigned distance)
{
  Repetition it{};
  it.back = static_cast<std::uint8_t>((chunk - 1 + distance) / distance * distance);
  if (distance >= 8) {
    it.mask = ~std::uint64_t{0};
    it.ones = 1;
    it.offset = static_cast<std::uint8_t>(distance - 8);
    it.period = static_cast<std::uint8_t>(distance);
    return it;
  }
  it.mask = (std::uint64_t{1} << 8 * distance) - 1;
  for (unsigned at = 0; at < 8; at += distance)
    it.ones |= std::uint64_t{1} << 8 * at;
  it.offset = static_cast<std::uint8_t>(8 / distance * distance);
  it.period = static_cast<std::uint8_t>(2 * it.offset);
  return it;
}

constexpr std::array<Repetition, chunk> repetitions = [] {
  std::array<Repetition, chunk> table{};
  for (unsigned distance = 1; distance < chunk; distance++)
    table[distance] = repetition(distance);
  return table;
}();

// Writes a match nearer than a chunk.
class Repeater
{
public:
  Repeater(const std::uint8_t *to, std::size_t distance) noexcept : it(repetitions[distance])
  {
    first = (loadLittleEndian<std::uint64_t>(to - distance) & it.mask) * it.ones;
    // Not from 8 before, as so much may not be there.
    const auto before = loadLittleEndian<std::uint64_t>(to - std::min<std::size_t>(distance, 8));
    second = choose(distance < 8, first, before);
  }

  // Up to 15 bytes behind `length` are written too.
  [[gnu::always_inline]] void
  repeat(std::uint8_t *to, std::size_t length) const noexcept
  {
    for (std::uint8_t *const end = to + length; to < end; to += it.period)
      once(to);
  }

  // At least `span` bytes and at most twice as many.
  template <std::size_t span>
  [[gnu::always_inline]] void
  repeatFew(std::uint8_t *to) const noexcept
  {
    for (std::size_t i = 0; i < span / 8; i++)
      once(to + i * it.period);
  }

private:
  [[gnu::always_inline]] void
  once(std::uint8_t *to) const noexcept
  {
    storeLittleEndian(to, first);
    storeLittleEndian(to + it.offset, second);
  }

  const Repetition &it;
  std::uint64_t first;
  std::uint64_t second;
};

// A match nearer than a chunk, and nothing behind it.
inline void
repeatExactly(std::uint8_t *to, std::size_t distance, std::size_t length) noexcept
{
  if (length >= 2 * chunk) {
    // repeat() writes up to the end. The last chunk comes from as many whole distances before it as
    // make a chunk or more: that is at most distance + chunk - 1, so still from behind `from`.
    Repeater(to, distance).repeat(to, length - (chunk - 1));
    copyFixed<chunk>(to + length - chunk, to + length - chunk - repetitions[distance].back);
    return;
  }
  // What has been written doubles what can be copied at once.
  const std::uint8_t *const from = to - distance;
  std::size_t there = distance;
  for (; there < length; length -= there, to += there, there = static_cast<std::size_t>(to - from))
    copyRun(to, from, there);
  copyRun(to, from, length);
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
    repeatExactly(to, distance, length);
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
  if (read < readEnd && *read == 0) [[unlikely]] {
    // A long run of literals has so many that they take time.
    while (readEnd - read >= 8 && loadLittleEndian<std::uint64_t>(read) == 0)
      read += 8;
    while (read < readEnd && *read == 0)
      read++;
  }
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
  countCarefulStep();
  if (at.readLeft() == 0)
    return Status::inputOverrun;
  if (at.readLeft() == sizeof endMarker && std::memcmp(at.read, endMarker, sizeof endMarker) == 0) {
    at.read += sizeof endMarker;
    done = true;
    return Status::ok;
  }
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

// Decodes as long as there is room around: it stops near the ends, at the end marker and at what
// may be broken, always between two instructions. A match of up to `span` bytes is copied as so
// many.
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
      if (!(t < farMark ? runOrRareMatch(t) : match(t)))
        break;
    }
    at.read = read;
    at.written = written;
    at.context = context();
  }

  // What can be read behind readLast: a match of three bytes, and 4 for its literals, of which up
  // to 3 are used.
  static constexpr std::size_t readSlack = 3 + 4;
  // The most that can be written behind writtenLast: a match of up to `span` bytes, or twice as
  // many where it repeats itself, and 4 for its literals. A run without length bytes takes less,
  // and so does what a long match writes behind its end. The small span repeats with care, to come
  // nearer to the end.
  static constexpr std::size_t writeSlack = (span == chunk ? span : 2 * span) + 4;
  static_assert(writeSlack >= runShortMax && writeSlack >= chunk - 1 + 4);

private:
  Context
  context() const noexcept
  {
    return literals == 0 ? afterMatch : literals < runMin ? afterFewLiterals : afterRun;
  }

  [[gnu::always_inline]] bool
  runOrRareMatch(unsigned t) noexcept
  {
    if (literals != 0) [[unlikely]]
      return anyMatch(t, loadLittleEndian<std::uint32_t>(read), instructions[context()][t]);
    const std::uint8_t *from = read + 1;
    std::size_t length = t + runBias;
    if (t != 0) {
      if (static_cast<std::size_t>(readEnd - from) < runShortMax)
        return false;
      copyFixed<chunk>(written, from);
      copyFixed<runShortMax - chunk>(written + chunk, from + chunk);
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
    const std::size_t length = instruction.lengthAndFlag;
    const std::size_t distance = instruction.distance(word);
    if (length > span) [[unlikely]]
      return anyMatch(t, word, instruction);
    if (distance < std::min(length, chunk)) [[unlikely]]
      return span == chunk ? anyMatch(t, word, instruction)
                           : overlappingMatch(t, word, length, distance);
    if (!isPlain(distance)) [[unlikely]]
      return false;
    const std::uint8_t *const from = written - distance;
    copyFixed<chunk>(written, from);
    if constexpr (span > chunk) {
      // What nobody needs is not read from where it may just have been written, for which it would
      // have to wait.
      const auto *const spare = reinterpret_cast<const std::uint8_t *>(&instructions);
      copyFixed<chunk>(written + chunk, choose(length > chunk, from + chunk, spare));
    }
    written += length;
    const bool threeBytes = t < nearMark;
    const std::uint8_t *const literalsFrom = read + 2 + threeBytes;
    const std::uint8_t *const next = choose(threeBytes, read + 3 + (read[1] & matchLiteralsMax),
                                            read + 2 + (t & matchLiteralsMax));
    copyFixed<4>(written, literalsFrom);
    literals = static_cast<std::size_t>(next - literalsFrom);
    written += literals;
    read = next;
    return true;
  }

  // A match of up to `span` bytes, nearer than a chunk, that overlaps what it writes.
  [[gnu::always_inline]] bool
  overlappingMatch(unsigned t, std::uint32_t word, std::size_t length,
                   std::size_t distance) noexcept
  {
    if (!isPlain(distance))
      return false;
    Repeater(written, distance).repeatFew<span>(written);
    const bool threeBytes = t < nearMark;
    const std::uint8_t *const next = read + 2 + threeBytes;
    written += length;
    literals = choose(threeBytes, word >> 8, t) & matchLiteralsMax;
    copyFixed<4>(written, next);
    written += literals;
    read = next + literals;
    return true;
  }

  // Any match of any length that leaves enough room.
  [[gnu::always_inline]] bool
  anyMatch(unsigned t, std::uint32_t word, const Instruction &instruction) noexcept
  {
    const std::uint8_t *next = read + instruction.size;
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
      Repeater(written, distance).repeat(written, length);
    else
      copyLong(written, written - distance, length);
    written += length;
    literals = (instruction.size == 2 ? t : word >> 8) & matchLiteralsMax;
    copyFixed<4>(written, next);
    written += literals;
    read = next + literals;
    return true;
  }

  // As much as the slack has room for is copied without a loop, whose end would be mispredicted.
  [[gnu::always_inline]] static void
  copyLong(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
  {
    constexpr std::size_t atOnce = writeSlack / chunk * chunk;
    for (std::size_t at = 0; at < atOnce; at += chunk)
      copyFixed<chunk>(to + at, from + at);
    if (length > atOnce)
      copyOver(to + atOnce, from + atOnce, length - atOnce);
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

// So much room or less is filled with the small span alone: it comes nearer to the end, and the
// first matches of a block are short.
constexpr std::size_t smallBlock = 900;

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
    if (at.room() > smallBlock)
      decodeFast<2 * chunk>(at);
    decodeFast<chunk>(at);
    do
      status = step(at, done);
    while (status == Status::ok && !done && at.room() < FastDecoder<chunk>::writeSlack);
  }
  if (status != Status::ok)
    return {status, 0};
  if (at.readLeft() != 0)
    return {Status::trailingBytes, 0};
  return {Status::ok, at.produced()};
}

} // namespace lzo1x
