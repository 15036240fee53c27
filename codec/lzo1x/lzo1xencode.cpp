// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xcopy.h"
#include "codec/lzo1x/lzo1xcount.h"
#include "codec/lzo1x/lzo1xformat.h"

#include <algorithm>
#include <type_traits>

namespace lzo1x
{

namespace
{

// The hash table holds the latest place of a key, the bytes at a place, under its hash. It starts
// with zeros, and no place is asked for before 1, so every entry is a place before the one that is
// asked for; whether a match stands there is always compared. Places count from the beginning of a
// segment, so that small entries hold them and the table stays in the cache; segments overlap.
using Entry = std::uint16_t;
constexpr std::size_t segmentSize = std::size_t{1} << 16;
constexpr std::size_t segmentOverlap = segmentSize / 4;
// From a place before it, no place of the segment is too far for a match.
constexpr std::size_t firstTooFar = farMaxDistance + 1;
constexpr unsigned minTableBits = 6;
constexpr unsigned maxTableBits = 13;
// Up to this size a table has two entries for a byte; for a larger one clearing it would cost more
// than it brings.
constexpr unsigned roomyTableBits = 12;

// A key has the bytes of the shortest match, or more in data that shrink so well that fewer and
// longer matches cost little: behind a stretch of which less than longKeySixteenths() are left. A
// short input gains little by longer matches, as most of them are not there yet. The first
// stretches are short, so that this soon takes effect.
constexpr unsigned shortKey = 4;
constexpr unsigned longKey = 5;
constexpr std::size_t firstStretch = 256;
constexpr std::size_t stretchGrowth = 8;

constexpr std::size_t
longKeySixteenths(std::size_t stretchEnd)
{
  return stretchEnd < 16384 ? 4 : 9;
}

// After `few` literals in a row the search skips places, more and more of them. In every segment it
// takes the step back once to that behind restartLiterals: so it finds soon where data that did not
// shrink begin to do so.
constexpr std::size_t few = 32;
constexpr std::size_t restartLiterals = 512;

// Matches of 4 bytes and more are taken. Near ones save at least 2 bytes, and so do all of 5 and
// more; one of 4 bytes from farther than nearMaxDistance saves 1. What a match saves pays for the
// header of the run behind it: one byte up to 18 literals, else 2 and those by which the worst case
// grows for so many bytes. One byte can be left unpaid where a match saves 1 and a run of 19 or
// more follows, once in 23 bytes, but not before nearMaxDistance. worstCase() counts just these.
constexpr std::size_t minMatch = 4;

// How many bytes are compared at once behind a match of minMatch.
constexpr std::size_t compared = 16;

// Inputs up to this size are not searched: matches are sought where minMatch + compared bytes lie
// ahead.
constexpr std::size_t tinyInput = minMatch + compared;

constexpr unsigned
tableBits(std::size_t size)
{
  const unsigned bits = size < 2 ? 0 : static_cast<unsigned>(std::bit_width(size - 1));
  const unsigned roomy = std::max(bits, std::min(bits + 1, roomyTableBits));
  return std::clamp(roomy, minTableBits, maxTableBits);
}

// Every writer takes the position to write at and returns the one behind what it wrote, or nullptr
// if the room is too small.
struct Room {
  std::uint8_t *const begin;
  std::uint8_t *const end;

  std::size_t
  behind(const std::uint8_t *to) const
  {
    return static_cast<std::size_t>(end - to);
  }
};

// Length bytes for what is left of a length, at least 1.
constexpr std::size_t
lengthBytesSize(std::size_t rest)
{
  return (rest - 1) / lengthByteStep + 1;
}

// The caller has checked the room.
std::uint8_t *
putLengthBytes(std::uint8_t *to, std::size_t rest)
{
  const std::size_t zeros = lengthBytesSize(rest) - 1;
  if (zeros > 0) {
    std::memset(to, 0, zeros);
    to += zeros;
  }
  *to++ = static_cast<std::uint8_t>(rest - zeros * lengthByteStep);
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

std::uint8_t *
putLiterals(std::uint8_t *to, Room room, const std::uint8_t *from, std::size_t length)
{
  countCarefulStep();
  const bool opening = to == room.begin;
  const std::size_t header = runHeaderSize(length, opening);
  // Not a sum, which could wrap.
  if (room.behind(to) < header || room.behind(to) - header < length)
    return nullptr;
  if (length == 0)
    return to;
  if (opening && length <= openingRunMax) {
    *to++ = static_cast<std::uint8_t>(openingRunMark + length);
  } else if (length <= matchLiteralsMax) {
    to[-2] |= static_cast<std::uint8_t>(length);
  } else if (length <= runShortMax) {
    *to++ = static_cast<std::uint8_t>(length - runBias);
  } else {
    *to++ = 0;
    to = putLengthBytes(to, length - runShortMax);
  }
  copyRun(to, from, length);
  return to + length;
}

constexpr std::size_t
matchSize(std::size_t length, std::size_t distance)
{
  if (length <= nearMaxLength && distance <= nearMaxDistance)
    return 2;
  const unsigned shortMax = distance <= middleMaxDistance ? middleShortMax : farShortMax;
  return length <= shortMax ? 3 : 3 + lengthBytesSize(length - shortMax);
}

std::uint8_t *
putMatch(std::uint8_t *to, Room room, std::size_t length, std::size_t distance)
{
  countCarefulStep();
  if (room.behind(to) < matchSize(length, distance))
    return nullptr;
  if (length <= nearMaxLength && distance <= nearMaxDistance) {
    const std::size_t code = distance - 1;
    *to++ =
        static_cast<std::uint8_t>((length - nearLengthBias) << nearLengthShift | (code & 7) << 2);
    *to++ = static_cast<std::uint8_t>(code >> 3);
    return to;
  }
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
  return to;
}

std::uint8_t *
putEndMarker(std::uint8_t *to, Room room)
{
  if (room.behind(to) < sizeof endMarker)
    return nullptr;
  std::memcpy(to, endMarker, sizeof endMarker);
  return to + sizeof endMarker;
}

// In how many bytes two words agree that are not the same, given their differing bits.
template <typename Word>
constexpr std::size_t
equalBytes(Word differing) noexcept
{
  return static_cast<unsigned>(std::countr_zero(differing)) / 8;
}

// How many bytes are equal up to bEnd, where the first `compared` have been found equal.
std::size_t
commonMany(const std::uint8_t *a, const std::uint8_t *b, const std::uint8_t *bEnd) noexcept
{
  std::size_t length = compared;
  for (; static_cast<std::size_t>(bEnd - b) >= length + 8; length += 8) {
    const auto differing =
        loadLittleEndian<std::uint64_t>(a + length) ^ loadLittleEndian<std::uint64_t>(b + length);
    if (differing != 0)
      return length + equalBytes(differing);
  }
  while (b + length < bEnd && a[length] == b[length])
    length++;
  return length;
}

// The same value, and the compiler does not know it. So it computes no address of it ahead, or for
// two uses at once, on the way that the next search waits for.
[[gnu::always_inline]] inline std::size_t
unrelated(std::size_t value) noexcept
{
  asm("" : "+r"(value));
  return value;
}

// How much may be written behind a quick sequence: literals with a header byte, then a match of 3
// bytes as 4.
constexpr std::size_t quickLiterals = 16;
constexpr std::size_t quickRoom = 1 + quickLiterals + 4;

// The same as putLiterals() for up to quickLiterals that do not open the stream, without a branch
// on their number. Writes and reads a whole quickLiterals.
[[gnu::always_inline]] inline std::uint8_t *
putQuickLiterals(std::uint8_t *written, const std::uint8_t *from, std::size_t length) noexcept
{
  const bool header = length > matchLiteralsMax;
  written[-2] |= static_cast<std::uint8_t>(header ? 0 : length);
  *written = static_cast<std::uint8_t>(length - runBias);
  written += header;
  std::memcpy(written, from, quickLiterals);
  return written + length;
}

// The same as putMatch() for what the near form and the middle form without length bytes can say,
// without a branch on which it is. Writes 4 bytes.
[[gnu::always_inline]] inline std::uint8_t *
putQuickMatch(std::uint8_t *written, std::size_t length, std::size_t distance) noexcept
{
  const auto code = static_cast<std::uint32_t>(distance - 1);
  const auto size = static_cast<std::uint32_t>(length);
  const std::uint32_t two =
      (size - nearLengthBias) << nearLengthShift | (code & 7) << 2 | (code & ~7U) << 5;
  const std::uint32_t three = (middleMark + size - 2) | code << (8 + 2);
  // 1 where both differences are negative.
  const std::uint32_t near = ((size - (nearMaxLength + 1)) & (code - nearMaxDistance)) >> 31;
  storeLittleEndian(written, three ^ ((two ^ three) & (0 - near)));
  return written + 3 - near;
}

// The same for what the far form without length bytes can say.
[[gnu::always_inline]] inline std::uint8_t *
putQuickFarMatch(std::uint8_t *written, std::size_t length, std::size_t distance) noexcept
{
  const auto code = static_cast<std::uint32_t>(distance - middleMaxDistance);
  const auto size = static_cast<std::uint32_t>(length);
  static_assert(farHighDistance == 1U << 14);
  const std::uint32_t mark = farMark | (code >> 14) * farHighBit;
  storeLittleEndian(written, (mark + size - 2) | (code % farHighDistance) << (8 + 2));
  return written + 3;
}

// Holds a key in its low bytes; what stands above does not count.
template <unsigned bytes>
using Key = std::conditional_t<bytes <= sizeof(std::uint32_t), std::uint32_t, std::uint64_t>;

template <unsigned bytes>
constexpr unsigned
hashShift(unsigned bits) noexcept
{
  return 8 * sizeof(Key<bytes>) - bits;
}

template <unsigned bytes>
[[gnu::always_inline]] inline std::size_t
hash(Key<bytes> key, unsigned shift) noexcept
{
  constexpr auto factor = static_cast<Key<bytes>>(
      sizeof key == sizeof(std::uint32_t) ? 0x9e3779b1U : 0x9e3779b97f4a7c15U);
  return static_cast<std::size_t>((key << 8 * (sizeof key - bytes)) * factor >> shift);
}

struct HashTable {
  Entry *entries;
  unsigned bits;

  std::size_t
  size() const
  {
    return std::size_t{1} << bits;
  }
};

// Enters the places of a segment before `end` into a table that has them under other keys. Not all
// of them: a match that begins between two is found at its next one.
template <unsigned keyBytes>
void
learn(const std::uint8_t *segment, std::size_t end, HashTable table) noexcept
{
  constexpr std::size_t step = 4;
  const unsigned shift = hashShift<keyBytes>(table.bits);
  for (std::size_t place = 1; place < end; place += step)
    table.entries[hash<keyBytes>(loadLittleEndian<Key<keyBytes>>(segment + place), shift)] =
        static_cast<Entry>(place);
}

// Lets the places in the table count from `places` later on; those before become zeros.
void
forget(HashTable table, std::size_t places) noexcept
{
  typedef Entry Entries __attribute__((vector_size(16)));
  constexpr std::size_t entries = sizeof(Entries) / sizeof(Entry);
  const auto less = static_cast<Entry>(std::min(places, segmentSize - 1));
  for (std::size_t i = 0; i < table.size(); i += entries) {
    Entries some;
    std::memcpy(&some, &table.entries[i], sizeof some);
    // As compilers take it for a subtraction that stops at zero.
    some = (some > less ? some : less + (some ^ some)) - less;
    std::memcpy(&table.entries[i], &some, sizeof some);
  }
}

// What is still to be encoded and where it goes. Invariants: [pending, read) are literals not yet
// written, `written` never passes the end of the room.
struct Progress {
  const std::uint8_t *pending;
  std::uint8_t *written;
};

// Where matches are sought: the places of a segment from `first` up to `end`.
struct Stretch {
  const std::uint8_t *segment;
  std::size_t first;
  std::size_t end;
  std::size_t restart; // literals before this place count for no step
};

// Puts the matches of a stretch. Places count from the beginning of the segment. `first` has at
// least tinyInput bytes behind it.
template <unsigned keyBytes, bool endsTooFar> class Matcher
{
  using Key = lzo1x::Key<keyBytes>;

public:
  Matcher(Input in, Room out, HashTable hashTable, const Stretch &stretch,
          const Progress &start) noexcept
      : readEnd(in.data() + in.size()), room(out), table(hashTable.entries),
        shift(hashShift<keyBytes>(hashTable.bits)), begin(stretch.segment), written(start.written),
        quickEnd(out.end - std::min(out.behind(start.written), quickRoom)),
        last(std::min(static_cast<std::size_t>(readEnd - begin) - (minMatch + compared),
                      stretch.end - 1)),
        restart(stretch.restart), pending(start.pending), read(stretch.first)
  {
  }

  // Goes on until there are no more; the literals behind the last match stay pending. Moves `first`
  // to what has not been searched.
  [[gnu::always_inline]] bool
  run(Progress &end, Stretch &stretch) noexcept
  {
    while (find()) {
      extendBackwards();
      written = putPending();
      if (written == nullptr)
        return false;
      do {
        written = put();
        if (written == nullptr)
          return false;
        read += length;
        pending = begin + read;
      } while (findHere());
    }
    end.pending = pending;
    end.written = written;
    stretch.first = read;
    return true;
  }

private:
  [[gnu::always_inline]] std::size_t
  literals() const noexcept
  {
    return static_cast<std::size_t>(begin + read - pending);
  }

  [[gnu::always_inline]] Key
  keyAt(std::size_t place) const noexcept
  {
    return loadLittleEndian<Key>(begin + place);
  }

  [[gnu::always_inline]] std::uint64_t
  eightAt(std::size_t place) const noexcept
  {
    return loadLittleEndian<std::uint64_t>(begin + place);
  }

  // The latest place of `some` key, or any one before `place`; it is `place` from now on.
  [[gnu::always_inline]] std::size_t
  exchange(Key some, std::size_t place) noexcept
  {
    const std::size_t entry = hash<keyBytes>(some, shift);
    const std::size_t latest = table[entry];
    table[unrelated(entry)] = static_cast<Entry>(place);
    return latest;
  }

  // Whether a match begins at `read`, where `key` is. Sets `from` and, if so, `length` and `key`,
  // which is then the one behind the match: mostly it stands in the bytes that are at hand, and
  // they are there before a load from a place that depends on the length.
  [[gnu::always_inline]] bool
  matches() noexcept
  {
    from = exchange(key, read);
    if (loadLittleEndian<std::uint32_t>(begin + from) != static_cast<std::uint32_t>(key))
      return false;
    if (endsTooFar && read - from > farMaxDistance)
      return false;
    const auto here = eightAt(read + minMatch);
    const auto behind = eightAt(read + minMatch + 8);
    const auto differing = here ^ eightAt(from + minMatch);
    if (differing != 0) [[likely]] {
      const auto equalBits = static_cast<unsigned>(std::countr_zero(differing)) & ~7U;
      length = minMatch + equalBits / 8;
      key = static_cast<Key>(here >> equalBits | behind << 1 << (equalBits ^ 63));
    } else {
      measureOn(unrelated(from), unrelated(read), behind);
      key = keyAt(std::min(read + length, last));
    }
    return true;
  }

  // Sets `length` for a match of at least minMatch + 8 bytes; `behind` follows these at `to`.
  [[gnu::always_inline]] void
  measureOn(std::size_t before, std::size_t to, std::uint64_t behind) noexcept
  {
    const auto differing = behind ^ eightAt(before + minMatch + 8);
    length = minMatch;
    if (differing != 0) [[likely]]
      length += 8 + equalBytes(differing);
    else
      length += commonMany(begin + before + minMatch, begin + to + minMatch, readEnd);
  }

  // Tries all places as long as there have been few literals.
  [[gnu::always_inline]] bool
  find() noexcept
  {
    // The literals can begin before the segment.
    const auto denseEnd = std::min(static_cast<std::ptrdiff_t>(last + 1),
                                   pending - begin + static_cast<std::ptrdiff_t>(few));
    for (; static_cast<std::ptrdiff_t>(read) < denseEnd; read++) {
      key = keyAt(read);
      if (matches()) {
        return true;
      }
    }
    return findSparsely();
  }

  // The longer there was no match, the farther apart are the places tried.
  [[gnu::always_inline]] bool
  findSparsely() noexcept
  {
    const auto idle =
        static_cast<std::size_t>(std::max(pending - begin, static_cast<std::ptrdiff_t>(restart)));
    for (; read <= last; read += 1 + (read - idle) / few) {
      key = keyAt(read);
      if (matches()) {
        return true;
      }
    }
    return false;
  }

  // A match right behind the last one.
  [[gnu::always_inline]] bool
  findHere() noexcept
  {
    if (read > last)
      return false;
    if (matches())
      return true;
    exchange(keyAt(read - 1), read - 1);
    exchange(keyAt(read - 2), read - 2);
    read++;
    return false;
  }

  // At most by 7 bytes, without a branch on how many, where so many lie before.
  [[gnu::always_inline]] void
  extendBackwards() noexcept
  {
    const std::size_t most = literals();
    std::size_t equal = 0;
    if (from >= 8) [[likely]] {
      // The last byte in front, as that is the end that instructions count zeros from best. The bit
      // ends the count where all are equal.
      const auto differing = __builtin_bswap64(eightAt(read - 8) ^ eightAt(from - 8));
      equal = std::min(equalBytes(differing | std::uint64_t{1} << 63), most);
    } else {
      while (equal < most && equal < from && begin[read - 1 - equal] == begin[from - 1 - equal])
        equal++;
    }
    read -= equal;
    from -= equal;
    length += equal;
  }

  // `read` is at most `last`, so quickLiterals can be read from `pending`.
  [[gnu::always_inline]] std::uint8_t *
  putPending() noexcept
  {
    const std::size_t count = literals();
    if (count <= quickLiterals && written < quickEnd && written != room.begin)
      return putQuickLiterals(written, pending, count);
    return putLiterals(written, room, pending, count);
  }

  [[gnu::always_inline]] std::uint8_t *
  put() noexcept
  {
    const std::size_t distance = read - from;
    const bool quick = written < quickEnd;
    if (quick & (length <= middleShortMax) && distance <= middleMaxDistance) [[likely]]
      return putQuickMatch(written, length, distance);
    if (quick & (length <= farShortMax) && distance > middleMaxDistance)
      return putQuickFarMatch(written, length, distance);
    return putMatch(written, room, length, distance);
  }

  const std::uint8_t *const readEnd;
  const Room room;
  Entry *const table;
  const unsigned shift;
  const std::uint8_t *const begin;
  std::uint8_t *written;
  // As long as `written` is before it, a quick sequence can be written.
  std::uint8_t *const quickEnd;
  const std::size_t last;    // the last place where a match may be sought
  const std::size_t restart; // literals before this place count for no step
  const std::uint8_t *pending;
  std::size_t read;
  std::size_t from = 0;
  std::size_t length = 0;
  Key key = 0; // at `read`, where a match ended
};

// An input that is not searched: one opening run.
Result
encodeTiny(Input in, Output out) noexcept
{
  static_assert(tinyInput <= openingRunMax);
  const std::size_t header = in.empty() ? 0 : 1;
  const std::size_t size = header + in.size() + sizeof endMarker;
  if (out.size() < size)
    return {Status::noRoom, 0};
  if (!in.empty())
    out[0] = static_cast<std::uint8_t>(openingRunMark + in.size());
  copyRun(out.data() + header, in.data(), in.size());
  std::memcpy(out.data() + size - sizeof endMarker, endMarker, sizeof endMarker);
  return {Status::ok, size};
}

// Puts the matches of a stretch, by a Matcher that knows beforehand what it can.
template <unsigned keyBytes>
bool
putMatches(Input in, Room room, HashTable table, Stretch &stretch, Progress &at) noexcept
{
  const Progress start = at;
  if (stretch.end > firstTooFar)
    return Matcher<keyBytes, true>(in, room, table, stretch, start).run(at, stretch);
  return Matcher<keyBytes, false>(in, room, table, stretch, start).run(at, stretch);
}

// Whether less than so many sixteenths are left of what has been encoded between the two.
bool
shrinksTo(const Progress &from, const Progress &to, std::size_t sixteenths) noexcept
{
  return static_cast<std::size_t>(to.written - from.written) <
         static_cast<std::size_t>(to.pending - from.pending) / 16 * sixteenths;
}

// The end of the next stretch; the segment moves on behind its last one.
void
advance(Stretch &stretch, HashTable table) noexcept
{
  if (stretch.end < firstTooFar) {
    stretch.end = std::min(stretch.end * stretchGrowth, firstTooFar);
  } else if (stretch.end < segmentSize) {
    stretch.end = segmentSize;
    stretch.restart = stretch.first - restartLiterals;
  } else {
    const std::size_t forgotten = stretch.first - segmentOverlap;
    forget(table, forgotten);
    stretch.segment += forgotten;
    stretch.first = segmentOverlap;
    stretch.end = firstTooFar;
    stretch.restart = 0;
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
  if (in.size() <= tinyInput)
    return encodeTiny(in, out);
  const Room room{out.data(), out.data() + out.size()};
  const HashTable table{reinterpret_cast<Entry *>(state.data()), tableBits(in.size())};
  std::memset(table.entries, 0, sizeof(Entry) * table.size());
  const std::uint8_t *const readEnd = in.data() + in.size();
  Progress at{in.data(), out.data()};
  Stretch stretch{in.data(), 1, firstStretch, 0};
  bool longKeys = false;
  for (;;) {
    const Progress start = at;
    const bool fits = longKeys ? putMatches<longKey>(in, room, table, stretch, at)
                               : putMatches<shortKey>(in, room, table, stretch, at);
    if (!fits)
      return {Status::noRoom, 0};
    if (static_cast<std::size_t>(readEnd - stretch.segment) <= stretch.first + tinyInput)
      break;
    if (at.pending > start.pending &&
        shrinksTo(start, at, longKeySixteenths(stretch.end)) != longKeys) {
      longKeys = !longKeys;
      (longKeys ? learn<longKey> : learn<shortKey>)(stretch.segment,
                                                    std::min(stretch.first, stretch.end), table);
    }
    advance(stretch, table);
  }
  std::uint8_t *end =
      putLiterals(at.written, room, at.pending, static_cast<std::size_t>(readEnd - at.pending));
  if (end != nullptr)
    end = putEndMarker(end, room);
  if (end == nullptr)
    return {Status::noRoom, 0};
  return {Status::ok, static_cast<std::size_t>(end - out.data())};
}

} // namespace lzo1x
