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

  // Writes up to 15 bytes more than `length`, which is not 0.
  [[gnu::always_inline]] void
  repeat(std::uint8_t *to, std::size_t length) const noexcept
  {
    std::uint8_t *const end = to + length;
    do {
      once(to);
      to += it.period;
    } while (to < end);
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

// Writes exactly `length` bytes.
inline void
copyExactly(std::uint8_t *to, std::size_t distance, std::size_t length) noexcept
{
  if (length < vectorSize && length <= distance) {
    copyFew(to, to - distance, length);
  } else if (length >= vectorSize && distance >= vectorSize) {
    copyVectors(to, to - distance, length);
  } else {
    repeatExactly(to, distance, length);
  }
}

inline Status
copyMatch(Position &at, std::size_t distance, std::size_t length) noexcept
{
  if (distance > at.produced())
    return Status::badDistance;
  if (length > at.room())
    return Status::outputOverrun;
  copyExactly(at.written, distance, length);
  at.written += length;
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

// Properties of the matches from farMark on, by their first byte T, for the fast path. Fields 8
// bytes apart are addressed without arithmetic.
struct Matches {
  struct Bits {
    std::uint32_t factor; // moves the distance bits of an instruction to distanceShift
    std::uint32_t mask;
  };
  struct Bounds {
    std::uint32_t distanceBase;
    std::uint32_t nearest; // a match at a smaller distance overlaps, or is the end marker
  };
  static constexpr unsigned distanceShift = 18;

  std::array<Bits, 256> bits;
  std::array<Bounds, 256> bounds;
  std::array<std::uint64_t, 256> lengthAndFlag;
};

constexpr Matches matches = [] {
  Matches table{};
  for (unsigned t = farMark; t < 256; t++) {
    const Instruction &it = instructions[afterMatch][t];
    table.bits[t] = {.factor = 1U << (Matches::distanceShift - it.distanceShift),
                     .mask = it.distanceMask};
    table.bounds[t].distanceBase = it.distanceBase;
    table.bounds[t].nearest = it.distanceBase == middleMaxDistance
                                  ? middleMaxDistance + 1
                                  : std::min<std::uint32_t>(it.lengthAndFlag, vectorSize);
    table.lengthAndFlag[t] = it.lengthAndFlag;
  }
  return table;
}();

// Decodes while input and output have the slack that its copies need. Stops between two
// instructions: near the ends, at the end marker, and at possibly invalid ones. Copies a match of
// up to `span` bytes as `span` bytes. With `joinsRuns`, decodes a short run together with the match
// before it, as a branch to frequent runs is often mispredicted.
template <std::size_t span, bool joinsRuns> class FastDecoder
{
public:
  // Starts the last instruction within `stretch` bytes of output from here.
  FastDecoder(const Position &from, std::size_t stretch) noexcept
      : read(from.read), readEnd(from.readEnd), readLast(from.readEnd - readSlack),
        begin(from.begin), at(from.produced()), last(at + from.room() - writeSlack),
        stop(std::min(last, at + stretch)), literals(from.context == afterMatch         ? 0
                                                     : from.context == afterFewLiterals ? 1
                                                                                        : runMin)
  {
  }

  static bool
  hasRoom(const Position &at) noexcept
  {
    return at.readLeft() >= readSlack && at.room() >= writeSlack;
  }

  // Returns the number of runs.
  [[gnu::always_inline]] std::size_t
  decode(Position &to) noexcept
  {
    do
      while (inBounds() && commonInstruction())
        ;
    while (inBounds() && anyMatch());
    to.read = read;
    to.written = begin + at;
    to.context = context();
    return runs;
  }

  // The most bytes read from readLast on: a match of three bytes, then 4 bytes for its literals, or
  // a run with a vector of them.
  static constexpr std::size_t readSlack = 3 + (joinsRuns ? 1 + vectorSize : 4);
  // The most bytes written from `last` on: a match of up to `span` bytes, or twice as many if it
  // overlaps, and 4 bytes for its literals. A run without length bytes, a vector of literals, and
  // the excess of a long match need less. The small span has no excess for overlapping matches
  // beyond that, to get nearer to the end.
  static constexpr std::size_t writeSlack = (span == vectorSize ? span : 2 * span) + 4;
  static_assert(writeSlack >= runShortMax && writeSlack >= vectorSize - 1 + 4);
  static_assert(!joinsRuns || writeSlack >= span + vectorSize);

private:
  [[gnu::always_inline]] bool
  inBounds() const noexcept
  {
    return __builtin_expect(read <= readLast, 1) && __builtin_expect(at <= stop, 1);
  }

  Context
  context() const noexcept
  {
    return literals == 0 ? afterMatch : literals < runMin ? afterFewLiterals : afterRun;
  }

  // Decodes a run, or a match of up to `span` bytes. False for what anyMatch() decodes or refuses.
  [[gnu::always_inline]] bool
  commonInstruction() noexcept
  {
    const unsigned t = *read;
    // Small blocks have many runs.
    if (span == vectorSize ? t < farMark : __builtin_expect(t < farMark, 0))
      return literals == 0 && run(t);
    const auto word = loadLittleEndian<std::uint32_t>(read);
    const std::size_t length = matches.lengthAndFlag[t];
    if (length > span) [[unlikely]]
      return false;
    const std::size_t distance =
        (word * matches.bits[t].factor >> Matches::distanceShift & matches.bits[t].mask) +
        matches.bounds[t].distanceBase;
    if (distance > at) [[unlikely]]
      return false;
    std::uint8_t *const to = begin + at;
    if (distance >= matches.bounds[t].nearest) [[likely]] {
      for (std::size_t i = 0; i < span; i += vectorSize)
        copyFixed<vectorSize>(to + i, to - distance + i);
    } else if (distance >= vectorSize || !repeat(distance, length)) {
      return false;
    }
    at += length;
    if constexpr (joinsRuns)
      takeLiteralsOrRun(static_cast<int>(t), word);
    else
      takeLiterals(static_cast<int>(t));
    return true;
  }

  // Writes a match with a distance below vectorSize. False if the room is too small.
  [[gnu::always_inline]] bool
  repeat(std::size_t distance, std::size_t length) noexcept
  {
    std::uint8_t *const to = begin + at;
    if (span > vectorSize && length <= span) {
      Repeater(to, distance).template repeatFew<span>(to);
      return true;
    }
    if (length > last - at)
      return false;
    Repeater(to, distance).repeat(to, length);
    return true;
  }

  // The next instruction waits for the number of literals after this one. So these two functions
  // compute it without branches: hidden values leave the compiler no reason for one. x86 selects
  // by a comparison of signed values in one step, by one of unsigned values in two.
  [[gnu::always_inline]] void
  takeLiterals(int t) noexcept
  {
    const std::uint8_t *three = read + 3 + (read[1] & matchLiteralsMax);
    const std::uint8_t *two = read + 2 + (static_cast<unsigned>(t) & matchLiteralsMax);
    asm("" : "+r"(three), "+r"(two), "+r"(t));
    const bool threeBytes = t < static_cast<int>(nearMark);
    const std::uint8_t *const from = read + 2 + threeBytes;
    read = threeBytes ? three : two;
    literals = static_cast<std::size_t>(read - from);
    copyFixed<4>(begin + at, from);
    at += literals;
  }

  [[gnu::always_inline]] void
  takeLiteralsOrRun(int t, std::uint32_t word) noexcept
  {
    // The byte behind the instruction in the low bits, the number of literals in bits 16 and 17.
    std::uint32_t three = std::rotl(word, 8);
    std::uint32_t two = std::rotl(word, 16);
    asm("" : "+r"(three), "+r"(two), "+r"(t));
    const bool threeBytes = t < static_cast<int>(nearMark);
    const std::uint32_t next = threeBytes ? three : two;
    const std::uint8_t *from = read + 2 + threeBytes;
    int key = static_cast<int>(next & (matchLiteralsMax << 16 | 0xff)); // of a run: its T
    if (key == 0) [[unlikely]] {                                        // a run with length bytes
      literals = 0;
      read = from;
      return;
    }
    const std::uint8_t *behindFew = from + (next >> 16 & matchLiteralsMax);
    const std::uint8_t *behindRun = from + 1 + runBias + key;
    asm("" : "+r"(behindFew), "+r"(behindRun), "+r"(key));
    const bool isRun = key <= static_cast<int>(vectorSize - runBias);
    from += isRun;
    runs += isRun;
    read = isRun ? behindRun : behindFew;
    literals = static_cast<std::size_t>(read - from);
    copyFixed<vectorSize>(begin + at, from);
    at += literals;
  }

  [[gnu::always_inline]] bool
  run(unsigned t) noexcept
  {
    const std::uint8_t *from = read + 1;
    std::size_t length = t + runBias;
    if (t != 0 && static_cast<std::size_t>(readEnd - from) >= runShortMax) {
      copyFixed<vectorSize>(begin + at, from);
      copyFixed<runShortMax - vectorSize>(begin + at + vectorSize, from + vectorSize);
    } else {
      // The copy is exact, so it may end at the very ends of input and output.
      const std::size_t room = last - at + writeSlack;
      if (t == 0) {
        length = runShortMax;
        if (readLengthBytes(from, readEnd, room, length) != Status::ok)
          return false;
      }
      if (length > room || length > static_cast<std::size_t>(readEnd - from))
        return false;
      copyRun(begin + at, from, length);
    }
    at += length;
    read = from + length;
    literals = runMin;
    runs++;
    countLoneRun();
    return true;
  }

  // Decodes any match that leaves enough room.
  [[gnu::always_inline]] bool
  anyMatch() noexcept
  {
    const unsigned t = *read;
    const Instruction &instruction = instructions[t < farMark ? context() : afterMatch][t];
    if (instruction.isRun())
      return false;
    auto word = loadLittleEndian<std::uint32_t>(read);
    const std::uint8_t *next = read + instruction.size;
    std::size_t length = instruction.length();
    if (instruction.hasLengthBytes()) {
      next = read + 1;
      // Up to readLast, so that the distance bytes and the literals behind are readable.
      if (readLengthBytes(next, readLast, last - at + writeSlack, length) != Status::ok)
        return false;
      word =
          t | static_cast<std::uint32_t>(next[0]) << 8 | static_cast<std::uint32_t>(next[1]) << 16;
      next += 2;
    }
    const std::size_t distance = instruction.distance(word);
    // The middle form rarely has the distance of the end marker.
    if (distance > at || distance == middleMaxDistance)
      return false;
    const std::size_t few = (instruction.size == 2 ? t : word >> 8) & matchLiteralsMax;
    if (length > last - at) [[unlikely]] {
      // Without literals behind it, the match may end at the very end of the output.
      if (few != 0 || length > last - at + writeSlack)
        return false;
      copyExactly(begin + at, distance, length);
      at += length;
      read = next;
      literals = 0;
      return true;
    }
    if (distance >= vectorSize)
      copyLong(begin + at, begin + at - distance, length);
    else
      repeat(distance, length);
    at += length;
    copyFixed<4>(begin + at, next);
    literals = few;
    at += few;
    read = next + few;
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

  const std::uint8_t *read;
  const std::uint8_t *const readEnd;
  const std::uint8_t *const readLast;
  std::uint8_t *const begin;
  std::size_t at; // the end of the output, counted from `begin` like `last` and `stop`
  const std::size_t last;
  const std::size_t stop;
  std::size_t literals; // since the last match, or at least runMin for a run
  std::size_t runs = 0;
};

// Up to so much room the small span alone is faster, as it gets nearer to the end.
constexpr std::size_t smallBlock = 400;

// A stretch with so many runs makes the next one join them.
constexpr std::size_t stretch = 2048;
constexpr std::size_t manyRuns = 16;

// Returns the number of runs.
template <std::size_t span, bool joinsRuns>
inline std::size_t
decodeFast(Position &at, std::size_t most) noexcept
{
  if (!FastDecoder<span, joinsRuns>::hasRoom(at))
    return 0;
  return FastDecoder<span, joinsRuns>(at, most).decode(at);
}

inline void
decodeStretches(Position &at) noexcept
{
  std::size_t runs = manyRuns;
  std::size_t before;
  do {
    before = at.produced();
    runs = runs >= manyRuns ? decodeFast<2 * vectorSize, true>(at, stretch)
                            : decodeFast<2 * vectorSize, false>(at, stretch);
  } while (at.produced() - before > stretch);
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
    // The hint leaves the registers to small blocks. Large ones hardly need them here.
    if (at.room() > smallBlock) [[unlikely]]
      decodeStretches(at);
    decodeFast<vectorSize, false>(at, at.room());
    do
      status = step(at, done);
    while (status == Status::ok && !done && at.room() < FastDecoder<vectorSize, false>::writeSlack);
  }
  if (status != Status::ok)
    return {status, 0};
  if (at.readLeft() != 0)
    return {Status::trailingBytes, 0};
  return {Status::ok, at.produced()};
}

} // namespace lzo1x
