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

// Invariants: `read` never passes readEnd, `written` never passes writtenEnd, and the output so far
// is from `begin` to `written`.
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

// Selects a value without a branch, which would often be mispredicted. Hidden values leave the
// compiler no reason for a branch.
template <typename Value>
[[gnu::always_inline]] inline Value
choose(bool first, Value a, Value b) noexcept
{
  asm("" : "+r"(a), "+r"(b));
  return first ? a : b;
}

// Builds a match with a distance below vectorSize from two words in registers, so that no load
// waits for a store. The match repeats a pattern of `period` bytes: the first word at 0, the second
// at `offset`. Below a distance of 8, both words are the last `distance` bytes, repeated by a
// multiplication with `ones`. They fit again at the largest multiple of the distance up to 8.
struct Repetition {
  std::uint64_t mask;
  std::uint64_t ones;
  std::uint8_t offset;
  std::uint8_t period;
  std::uint8_t back; // the smallest multiple of the distance from vectorSize on
};

constexpr Repetition
repetition(unsigned distance)
{
  Repetition it{};
  it.back = static_cast<std::uint8_t>((vectorSize - 1 + distance) / distance * distance);
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

constexpr std::array<Repetition, vectorSize> repetitions = [] {
  std::array<Repetition, vectorSize> table{};
  for (unsigned distance = 1; distance < vectorSize; distance++)
    table[distance] = repetition(distance);
  return table;
}();

// Writes a match with a distance below vectorSize.
class Repeater
{
public:
  Repeater(const std::uint8_t *to, std::size_t distance) noexcept : it(repetitions[distance])
  {
    first = (loadLittleEndian<std::uint64_t>(to - distance) & it.mask) * it.ones;
    // The output may have fewer than 8 bytes.
    const auto before = loadLittleEndian<std::uint64_t>(to - std::min<std::size_t>(distance, 8));
    second = choose(distance < 8, first, before);
  }

  // Writes up to 15 bytes more than `length`.
  [[gnu::always_inline]] void
  repeat(std::uint8_t *to, std::size_t length) const noexcept
  {
    for (std::uint8_t *const end = to + length; to < end; to += it.period)
      once(to);
  }

  // Writes at least `span` bytes and at most twice as many.
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

// Writes exactly `length` bytes of a match with a distance below vectorSize.
inline void
repeatExactly(std::uint8_t *to, std::size_t distance, std::size_t length) noexcept
{
  if (length >= 2 * vectorSize) {
    // repeat() stays within `length`. The last vector is copied from a multiple of the distance
    // before, which is at most distance + vectorSize - 1, so the output has these bytes.
    Repeater(to, distance).repeat(to, length - (vectorSize - 1));
    copyFixed<vectorSize>(to + length - vectorSize,
                          to + length - vectorSize - repetitions[distance].back);
    return;
  }
  // Each copy doubles the number of bytes that the next one can copy.
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
  if (length < vectorSize && length <= distance) {
    copyFew(to, from, length);
  } else if (length >= vectorSize && distance >= vectorSize) {
    copyVectors(to, from, length);
  } else {
    repeatExactly(to, distance, length);
  }
  return Status::ok;
}

// Adds the length bytes at `read` to `length` and moves behind them. Refuses more zeros than a
// length of `max` has. So the length stays below max + 3 * 255, which cannot wrap, as no object is
// larger than PTRDIFF_MAX.
inline Status
readLengthBytes(const std::uint8_t *&read, const std::uint8_t *readEnd, std::size_t max,
                std::size_t &length) noexcept
{
  const std::uint8_t *const first = read;
  if (read < readEnd && *read == 0) [[unlikely]] {
    // A long run of literals has many of them.
    while (readEnd - read >= 8 && loadLittleEndian<std::uint64_t>(read) == 0)
      read += 8;
    while (read < readEnd && *read == 0)
      read++;
  }
  if (read >= readEnd)
    return Status::inputOverrun;
  const auto zeros = static_cast<std::size_t>(read - first);
  if (zeros > max / lengthByteStep)
    return Status::outputOverrun;
  length += zeros * lengthByteStep + *read++;
  return Status::ok;
}

// Decodes the first byte of a stream if it is an opening run.
inline Status
openingRun(Position &at) noexcept
{
  if (at.readLeft() == 0 || *at.read <= openingRunMark)
    return Status::ok;
  const unsigned length = *at.read++ - openingRunMark;
  at.context = length < runMin ? afterFewLiterals : afterRun;
  return copyLiterals(at, length);
}

// Decodes one instruction with its literals and checks every access. Sets `done` at the end marker.
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

// Decodes while input and output have the slack that its copies need. Stops between two
// instructions: near the ends, at the end marker, and at possibly invalid ones. Copies a match of
// up to `span` bytes as `span` bytes.
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

  // The most bytes read from readLast on: a match of three bytes, and 4 bytes for its literals.
  static constexpr std::size_t readSlack = 3 + 4;
  // The most bytes written from writtenLast on: a match of up to `span` bytes, or twice as many if
  // it overlaps, and 4 bytes for its literals. A run without length bytes and the excess of a long
  // match need less. The small span copies overlapping matches exactly, to get nearer to the end.
  static constexpr std::size_t writeSlack = (span == vectorSize ? span : 2 * span) + 4;
  static_assert(writeSlack >= runShortMax && writeSlack >= vectorSize - 1 + 4);

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
      copyFixed<vectorSize>(written, from);
      copyFixed<runShortMax - vectorSize>(written + vectorSize, from + vectorSize);
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

  // Decodes a match of up to `span` bytes. Computes the size of the instruction and the number of
  // literals without a branch, as the next instruction waits for them.
  [[gnu::always_inline]] bool
  match(unsigned t) noexcept
  {
    const auto word = loadLittleEndian<std::uint32_t>(read);
    const Instruction &instruction = instructions[afterMatch][t];
    const std::size_t length = instruction.lengthAndFlag;
    const std::size_t distance = instruction.distance(word);
    if (length > span) [[unlikely]]
      return anyMatch(t, word, instruction);
    if (distance < std::min(length, vectorSize)) [[unlikely]]
      return span == vectorSize ? anyMatch(t, word, instruction)
                                : overlappingMatch(t, word, length, distance);
    if (!isPlain(distance)) [[unlikely]]
      return false;
    const std::uint8_t *const from = written - distance;
    copyFixed<vectorSize>(written, from);
    if constexpr (span > vectorSize) {
      // Loads unused bytes from elsewhere: a load of just-written output would stall on store
      // forwarding.
      const auto *const spare = reinterpret_cast<const std::uint8_t *>(&instructions);
      copyFixed<vectorSize>(written + vectorSize,
                            choose(length > vectorSize, from + vectorSize, spare));
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

  // Decodes a match of up to `span` bytes that overlaps its output.
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

  // Decodes any match that leaves enough room.
  [[gnu::always_inline]] bool
  anyMatch(unsigned t, std::uint32_t word, const Instruction &instruction) noexcept
  {
    const std::uint8_t *next = read + instruction.size;
    std::size_t length = instruction.length();
    if (instruction.hasLengthBytes()) {
      next = read + 1;
      // Up to readLast, so that the distance bytes and the literals behind are readable.
      if (readLengthBytes(next, readLast, roomToLast(), length) != Status::ok)
        return false;
      word =
          t | static_cast<std::uint32_t>(next[0]) << 8 | static_cast<std::uint32_t>(next[1]) << 16;
      next += 2;
    }
    const std::size_t distance = instruction.distance(word);
    if (length > roomToLast() || !isPlain(distance))
      return false;
    if (distance < vectorSize)
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

  // Copies as much as fits into the slack without a loop, whose end would be mispredicted.
  [[gnu::always_inline]] static void
  copyLong(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
  {
    constexpr std::size_t atOnce = writeSlack / vectorSize * vectorSize;
    for (std::size_t at = 0; at < atOnce; at += vectorSize)
      copyFixed<vectorSize>(to + at, from + at);
    if (length > atOnce)
      copyOver(to + atOnce, from + atOnce, length - atOnce);
  }

  // False beyond the output, and for the distance of the end marker. The middle form rarely has it.
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

// Up to so much room the small span alone is faster: it gets nearer to the end, and the first
// matches of a block are short.
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
      decodeFast<2 * vectorSize>(at);
    decodeFast<vectorSize>(at);
    do
      status = step(at, done);
    while (status == Status::ok && !done && at.room() < FastDecoder<vectorSize>::writeSlack);
  }
  if (status != Status::ok)
    return {status, 0};
  if (at.readLeft() != 0)
    return {Status::trailingBytes, 0};
  return {Status::ok, at.produced()};
}

} // namespace lzo1x
