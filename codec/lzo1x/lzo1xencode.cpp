// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xcopy.h"
#include "codec/lzo1x/lzo1xformat.h"

#include <algorithm>
#include <type_traits>

namespace lzo1x
{

namespace
{

// The table holds the latest place of a key, the bytes at a place, under its hash. It starts with
// zeros, and no place is asked for before 1, so every entry is a place before the one that is asked
// for; whether a match stands there is always compared. Places count from the beginning of a
// segment, so that small entries hold them and the table stays in the cache; segments overlap.
using Entry = std::uint16_t;
constexpr std::size_t segmentSize = std::size_t{1} << 16;
constexpr std::size_t segmentOverlap = segmentSize / 4;
// From a place before it, no place of the segment is too far for a match.
constexpr std::size_t firstTooFar = farMaxDistance + 1;
constexpr unsigned minTableBits = 6;
constexpr unsigned maxTableBits = 12;

// A key has the bytes of the shortest match, or more where the data shrink so well that the longer
// match is worth more than the nearer one: behind a stretch that has shrunk by more than
// longKeyGain. The first stretches are short, so that this soon comes to bear.
constexpr unsigned shortKey = 4;
constexpr unsigned longKey = 6;
constexpr std::size_t longKeyGain = 4;
constexpr std::size_t firstStretch = 512;
constexpr std::size_t stretchGrowth = 8;

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
  return bits < minTableBits ? minTableBits : bits > maxTableBits ? maxTableBits : bits;
}

// What is still to be encoded and where it goes. Invariants: [pending, read) are literals not yet
// written, `written` never passes writtenEnd.
struct Encoder {
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
  copyRun(at.written, at.pending, length);
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

// The same as putLiterals for up to quickLiterals that do not open the stream, without a branch on
// their number. Writes and reads a whole quickLiterals.
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

// The same as putMatch for what the near form and the middle form without length bytes can say,
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

// Enters the places of a segment before `end` into a table that has them under other keys. Not all
// of them: a match that begins between two is found at its next one.
template <unsigned keyBytes>
void
learn(const std::uint8_t *segment, std::size_t end, Entry *table, unsigned bits) noexcept
{
  constexpr std::size_t step = 4;
  for (std::size_t place = 1; place < end; place += step)
    table[hash<keyBytes>(loadLittleEndian<Key<keyBytes>>(segment + place),
                         hashShift<keyBytes>(bits))] = static_cast<Entry>(place);
}

// Puts the matches of a segment into the output that `at` describes, whose `pending` and `written`
// are kept here. Places count from the beginning of the segment, which is searched from `first` on,
// where at least tinyInput bytes are left, up to `end`.
template <unsigned keyBytes, bool endsTooFar> class Matcher
{
  using Key = lzo1x::Key<keyBytes>;

public:
  Matcher(const Encoder &start, const std::uint8_t *segment, std::size_t first, std::size_t end,
          Entry *entries, unsigned bits) noexcept
      : at(start), table(entries), shift(hashShift<keyBytes>(bits)), begin(segment),
        written(start.written), quickEnd(start.writtenEnd - std::min(start.room(), quickRoom)),
        last(std::min(static_cast<std::size_t>(start.readEnd - segment) - (minMatch + compared),
                      end - 1)),
        pending(start.pending), read(first)
  {
  }

  // Goes on until there are no more; the literals behind the last match stay pending. Moves `first`
  // to what has not been searched.
  [[gnu::always_inline]] bool
  run(Encoder &end, std::size_t &first) noexcept
  {
    while (find()) {
      extendBackwards();
      if (!putPending())
        return false;
      do {
        if (!put())
          return false;
      } while (findHere());
    }
    end.pending = pending;
    end.written = written;
    first = read;
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
      length += commonMany(begin + before + minMatch, begin + to + minMatch, at.readEnd);
  }

  // Goes through all places for as long as there have been few literals. The longer there was no
  // match then, the farther apart are the places tried.
  [[gnu::always_inline]] bool
  find() noexcept
  {
    constexpr std::size_t few = 32;
    // The literals can begin before the segment.
    const auto denseEnd = std::min(static_cast<std::ptrdiff_t>(last + 1),
                                   pending - begin + static_cast<std::ptrdiff_t>(few));
    for (; static_cast<std::ptrdiff_t>(read) < denseEnd; read++) {
      key = keyAt(read);
      if (matches())
        return true;
    }
    for (; read <= last; read += 1 + literals() / few) {
      key = keyAt(read);
      if (matches())
        return true;
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
  [[gnu::always_inline]] bool
  putPending() noexcept
  {
    const std::size_t count = literals();
    if (count <= quickLiterals && written < quickEnd && written != at.outBegin) {
      written = putQuickLiterals(written, pending, count);
      return true;
    }
    Encoder careful = at;
    careful.pending = pending;
    careful.written = written;
    const bool fits = putLiterals(careful, begin + read);
    written = careful.written;
    return fits;
  }

  [[gnu::always_inline]] bool
  put() noexcept
  {
    const std::size_t distance = read - from;
    const bool quick = written < quickEnd;
    bool fits = true;
    if (quick & (length <= middleShortMax) && distance <= middleMaxDistance) [[likely]] {
      written = putQuickMatch(written, length, distance);
    } else if (quick & (length <= farShortMax) && distance > middleMaxDistance) {
      written = putQuickFarMatch(written, length, distance);
    } else {
      Encoder careful = at;
      careful.written = written;
      fits = putMatch(careful, length, distance);
      written = careful.written;
    }
    read += length;
    pending = begin + read;
    return fits;
  }

  const Encoder &at;
  Entry *const table;
  const unsigned shift;
  const std::uint8_t *const begin;
  std::uint8_t *written;
  // As long as `written` is before it, a quick sequence can be written.
  std::uint8_t *const quickEnd;
  const std::size_t last; // the last place where a match may be sought
  const std::uint8_t *pending;
  std::size_t read;
  std::size_t from = 0;
  std::size_t length = 0;
  Key key = 0; // at `read`, where a match ended
};

} // namespace

std::size_t
encoderStateSize(std::size_t maxInput) noexcept
{
  return sizeof(Entry) << tableBits(maxInput);
}

namespace
{

// An input that is not searched: one opening run.
inline Result
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

} // namespace

namespace
{

// Lets the places in the table count from `places` later on; those before become zeros.
void
forget(Entry *table, unsigned bits, std::size_t places) noexcept
{
  typedef Entry Entries __attribute__((vector_size(16)));
  constexpr std::size_t entries = sizeof(Entries) / sizeof(Entry);
  const auto less = static_cast<Entry>(std::min(places, segmentSize - 1));
  for (std::size_t i = 0; i < std::size_t{1} << bits; i += entries) {
    Entries some;
    std::memcpy(&some, table + i, sizeof some);
    // As compilers take it for a subtraction that stops at zero.
    some = (some > less ? some : less + (some ^ some)) - less;
    std::memcpy(table + i, &some, sizeof some);
  }
}

} // namespace

namespace
{

// Puts the matches of a stretch of a segment, by a Matcher that knows beforehand what it can.
template <unsigned keyBytes>
[[gnu::always_inline]] inline bool
putMatches(Encoder &at, const std::uint8_t *segment, std::size_t &first, std::size_t end,
           Entry *table, unsigned bits) noexcept
{
  const Encoder start = at;
  if (end > firstTooFar)
    return Matcher<keyBytes, true>(start, segment, first, end, table, bits).run(at, first);
  return Matcher<keyBytes, false>(start, segment, first, end, table, bits).run(at, first);
}

// Whether long keys suit what has been encoded between the two.
bool
shrinksWell(const Encoder &from, const Encoder &to) noexcept
{
  return static_cast<std::size_t>(to.written - from.written) * longKeyGain <
         static_cast<std::size_t>(to.pending - from.pending);
}

} // namespace

Result
encode(Input in, Output out, std::span<std::byte> state) noexcept
{
  if (in.size() <= tinyInput)
    return encodeTiny(in, out);
  const unsigned bits = tableBits(in.size());
  auto *const table = reinterpret_cast<Entry *>(state.data());
  Encoder at{.readEnd = in.data() + in.size(),
             .pending = in.data(),
             .written = out.data(),
             .outBegin = out.data(),
             .writtenEnd = out.data() + out.size()};
  const std::uint8_t *segment = in.data();
  std::memset(table, 0, sizeof(Entry) << bits);
  std::size_t end = firstStretch;
  bool longKeys = false;
  for (std::size_t first = 1;;) {
    const Encoder start = at;
    const bool fits = longKeys ? putMatches<longKey>(at, segment, first, end, table, bits)
                               : putMatches<shortKey>(at, segment, first, end, table, bits);
    if (!fits)
      return {Status::noRoom, 0};
    if (static_cast<std::size_t>(at.readEnd - segment) <= first + tinyInput)
      break;
    if (at.pending > start.pending && shrinksWell(start, at) != longKeys) {
      longKeys = !longKeys;
      (longKeys ? learn<longKey> : learn<shortKey>)(segment, std::min(first, end), table, bits);
    }
    if (end < firstTooFar) {
      end = std::min(end * stretchGrowth, firstTooFar);
    } else if (end < segmentSize) {
      end = segmentSize;
    } else {
      const std::size_t forgotten = first - segmentOverlap;
      forget(table, bits, forgotten);
      segment += forgotten;
      first = segmentOverlap;
      end = firstTooFar;
    }
  }
  if (!putLiterals(at, at.readEnd) || !putEndMarker(at))
    return {Status::noRoom, 0};
  return {Status::ok, static_cast<std::size_t>(at.written - out.data())};
}

} // namespace lzo1x
