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

// The hash table maps the hash of a key, the first bytes at a position, to the latest position with
// that hash. Positions count from the beginning of a segment, so they fit into 16 bits and the
// table stays in the cache. Segments overlap. The table starts with zeros and the search at
// position 1, so every entry lies before the current position. The search always compares the bytes
// there.
using Entry = std::uint16_t;
constexpr std::size_t segmentSize = std::size_t{1} << 16;
constexpr std::size_t segmentOverlap = segmentSize / 4;
// A match up to this position of a segment cannot be too far away.
constexpr std::size_t firstTooFar = farMaxDistance + 1;
constexpr unsigned minTableBits = 6;
constexpr unsigned maxTableBits = 13;
// Up to this size a table has two entries for each input byte. Clearing a larger table would cost
// more time than its additional matches save.
constexpr unsigned sparseTableBits = 12;

// The search chooses its parameters for one stretch of a segment from the yield of the stretch
// before. The first stretches are short, so that the choice takes effect soon.
constexpr std::size_t firstStretch = 256;
constexpr std::size_t stretchGrowth = 8;

// Long keys find fewer and longer matches. They pay off after a stretch that shrank to less than
// longKeySixteenths(). A short input gains less, as it has few long matches yet.
constexpr unsigned shortKey = 4;
constexpr unsigned longKey = 5;

constexpr std::size_t
longKeySixteenths(std::size_t stretchEnd)
{
  return stretchEnd < 16384 ? 4 : 9;
}

// The search tries every position up to so many literals behind a match, then skips more and more
// positions.
constexpr std::size_t denseLiterals = 32;
// In the last stretch of each segment the steps shrink once to those behind so many literals. So
// the search notices soon if data become compressible.
constexpr std::size_t restartLiterals = 512;
// After a poor stretch the search skips positions as it does behind so many literals, until it
// finds a long match. Noisy pictures are poor: many short matches that save hardly a byte each, and
// each costs a misprediction or two.
constexpr std::size_t sparseLiterals = 1024;

// The encoder takes matches of 4 bytes and more. Near ones save at least 2 bytes, and so do all of
// 5 bytes and more; one of 4 bytes from beyond nearMaxDistance saves 1. These bytes pay for the
// header of the run behind the match: one byte up to 18 literals, else 2 and as many as the worst
// case adds for such a run. So 1 byte remains unpaid if a match saves 1 and at least 19 literals
// follow: once in 23 bytes, but not before nearMaxDistance. worstCase() counts exactly these.
constexpr std::size_t minMatch = 4;

// The search compares so many bytes at once behind the first minMatch bytes.
constexpr std::size_t compared = 16;

// Inputs up to this size are not searched, as the search reads minMatch + compared bytes ahead.
constexpr std::size_t tinyInput = minMatch + compared;

constexpr unsigned
tableBits(std::size_t size)
{
  const unsigned bits = size < 2 ? 0 : static_cast<unsigned>(std::bit_width(size - 1));
  return std::clamp(std::max(bits, std::min(bits + 1, sparseTableBits)), minTableBits,
                    maxTableBits);
}

// Every writer takes the position to write at and returns the position behind its output, or
// nullptr if the room is too small.
struct Room {
  std::uint8_t *const begin;
  std::uint8_t *const end;

  std::size_t
  left(const std::uint8_t *to) const
  {
    return static_cast<std::size_t>(end - to);
  }
};

// The number of length bytes for a remaining length of at least 1.
constexpr std::size_t
lengthBytesSize(std::size_t remaining)
{
  return (remaining - 1) / lengthByteStep + 1;
}

// Writes length bytes. The caller has checked the room.
std::uint8_t *
putLengthBytes(std::uint8_t *to, std::size_t remaining)
{
  const std::size_t zeros = lengthBytesSize(remaining) - 1;
  if (zeros > 0)
    std::memset(to, 0, zeros);
  to[zeros] = static_cast<std::uint8_t>(remaining - zeros * lengthByteStep);
  return to + zeros + 1;
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
  // Two comparisons, as the sum of header and length could wrap.
  if (room.left(to) < header || room.left(to) - header < length)
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

// The length up to which a match at this distance needs no length bytes.
constexpr std::size_t
shortMaxAt(std::size_t distance) noexcept
{
  return distance <= middleMaxDistance ? middleShortMax : farShortMax;
}

constexpr std::size_t
matchSize(std::size_t length, std::size_t distance)
{
  if (length <= nearMaxLength && distance <= nearMaxDistance)
    return 2;
  const std::size_t shortMax = shortMaxAt(distance);
  return length <= shortMax ? 3 : 3 + lengthBytesSize(length - shortMax);
}

std::uint8_t *
putMatch(std::uint8_t *to, Room room, std::size_t length, std::size_t distance)
{
  countCarefulStep();
  if (room.left(to) < matchSize(length, distance))
    return nullptr;
  if (length <= nearMaxLength && distance <= nearMaxDistance) {
    const std::size_t code = distance - 1;
    *to++ =
        static_cast<std::uint8_t>((length - nearLengthBias) << nearLengthShift | (code & 7) << 2);
    *to++ = static_cast<std::uint8_t>(code >> 3);
    return to;
  }
  const bool middle = distance <= middleMaxDistance;
  const std::size_t shortMax = shortMaxAt(distance);
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
  if (room.left(to) < sizeof endMarker)
    return nullptr;
  std::memcpy(to, endMarker, sizeof endMarker);
  return to + sizeof endMarker;
}

// The number of equal low bytes of two different words, given their differing bits.
template <typename Word>
constexpr std::size_t
equalBytes(Word differing) noexcept
{
  return static_cast<unsigned>(std::countr_zero(differing)) / 8;
}

// The number of equal bytes before bEnd, given that the first `length` are equal.
inline std::size_t
common(const std::uint8_t *a, const std::uint8_t *b, const std::uint8_t *bEnd,
       std::size_t length) noexcept
{
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

// The same for long matches, in larger steps. Those would be slower for short matches.
[[gnu::noinline]] std::size_t
commonLong(const std::uint8_t *a, const std::uint8_t *b, const std::uint8_t *bEnd,
           std::size_t length) noexcept
{
  constexpr std::size_t step = 32;
  for (; static_cast<std::size_t>(bEnd - b) >= length + step; length += step) {
    std::uint64_t differing = 0;
    for (std::size_t i = 0; i < step; i += 8)
      differing |= loadLittleEndian<std::uint64_t>(a + length + i) ^
                   loadLittleEndian<std::uint64_t>(b + length + i);
    if (differing != 0)
      break;
  }
  return common(a, b, bEnd, length);
}

// The number of equal bytes before bEnd, given that the first `compared` are equal.
std::size_t
commonMany(const std::uint8_t *a, const std::uint8_t *b, const std::uint8_t *bEnd) noexcept
{
  constexpr std::size_t shortMax = 80;
  const std::size_t left = static_cast<std::size_t>(bEnd - b);
  const std::size_t length = common(a, b, b + std::min(left, shortMax), compared);
  return length < shortMax ? length : commonLong(a, b, bEnd, length);
}

// Hides the value from the optimiser, which would otherwise compute an address early or share it
// between two uses, on the critical path to the next search.
[[gnu::always_inline]] inline std::size_t
opaque(std::size_t value) noexcept
{
  asm("" : "+r"(value));
  return value;
}

// The most bytes that a quick sequence writes: a header byte, the literals, and a match of 3 bytes
// as 4.
constexpr std::size_t quickLiterals = 16;
constexpr std::size_t quickRoom = 1 + quickLiterals + 4;

// Does the same as putLiterals() without a branch on the number of literals. The literals do not
// open the stream. Reads and writes quickLiterals bytes.
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

// Does the same as putMatch() for a match without length bytes, without a branch on the form.
// Writes 4 bytes.
template <bool mayBeFar>
[[gnu::always_inline]] inline std::uint8_t *
putQuickMatch(std::uint8_t *written, std::size_t length, std::size_t distance) noexcept
{
  const auto code = static_cast<std::uint32_t>(distance - 1);
  const auto size = static_cast<std::uint32_t>(length);
  const std::uint32_t two =
      (size - nearLengthBias) << nearLengthShift | (code & 7) << 2 | (code & ~7U) << 5;
  std::uint32_t three = (middleMark + size - 2) | code << (8 + 2);
  if constexpr (mayBeFar) {
    static_assert(farHighDistance == 1U << 14);
    // All bits are set if the distance is far.
    const std::uint32_t far = 0 - ((middleMaxDistance - 1 - code) >> 31);
    const std::uint32_t mark = middleMark - (far & (middleMark - farMark));
    const std::uint32_t rest = code - (far & (middleMaxDistance - 1));
    three = (mark + size - 2) | (rest >> 14) * farHighBit | (rest % farHighDistance) << (8 + 2);
  }
  // 1 if both differences are negative.
  const std::uint32_t near = ((size - (nearMaxLength + 1)) & (code - nearMaxDistance)) >> 31;
  storeLittleEndian(written, three ^ ((two ^ three) & (0 - near)));
  return written + 3 - near;
}

// An integer whose low bytes are the key. hash() ignores the other bytes.
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

  void
  clear() const
  {
    std::memset(entries, 0, sizeof(Entry) * size());
  }
};

// Enters the last positions of a segment before `end` under keys of another length. Every fourth
// position is enough: a match that begins between two of them is found at the second one.
template <unsigned keyBytes>
void
rehash(const std::uint8_t *segment, std::size_t end, HashTable table) noexcept
{
  constexpr std::size_t step = 4;
  constexpr std::size_t reach = 16384;
  const unsigned shift = hashShift<keyBytes>(table.bits);
  for (std::size_t at = std::max(end, reach + 1) - reach; at < end; at += step)
    table.entries[hash<keyBytes>(loadLittleEndian<Key<keyBytes>>(segment + at), shift)] =
        static_cast<Entry>(at);
}

// Subtracts `offset` from all positions in the table. Those before it become 0.
void
rebase(HashTable table, std::size_t offset) noexcept
{
  typedef Entry Entries __attribute__((vector_size(16)));
  constexpr std::size_t entries = sizeof(Entries) / sizeof(Entry);
  const auto less = static_cast<Entry>(std::min(offset, segmentSize - 1));
  for (std::size_t i = 0; i < table.size(); i += entries) {
    Entries some;
    std::memcpy(&some, &table.entries[i], sizeof some);
    // Compilers recognise this as a saturating subtraction.
    some = (some > less ? some : less + (some ^ some)) - less;
    std::memcpy(&table.entries[i], &some, sizeof some);
  }
}

// Invariants: the literals from `pending` to the current position are not yet written, and
// `written` never passes the end of the room.
struct Progress {
  const std::uint8_t *pending;
  std::uint8_t *written;
};

// The part of a segment that is searched next: the positions from `first` to `end`.
struct Stretch {
  const std::uint8_t *segment;
  std::size_t first;
  std::size_t end;
  std::size_t restart = 0; // literals before this position do not widen the steps
  bool sparse = false;     // skip positions until a long match is found
  bool longMatch = false;  // the search has found a match of minMatch + 8 bytes or more
};

// Encodes the matches of a stretch, at least tinyInput bytes of which follow `first`. Positions
// count from the beginning of the segment.
template <unsigned keyBytes, bool mayBeFar> class Matcher
{
  using Key = lzo1x::Key<keyBytes>;
  // Enter the second position of each match, not the last ones of a chain of matches. That shrinks
  // short inputs more and is faster. In pictures, the second position displaces better ones.
  static constexpr bool entersInside = keyBytes == shortKey && !mayBeFar;

public:
  Matcher(Input in, Room out, HashTable hashTable, const Stretch &stretch,
          const Progress &start) noexcept
      : readEnd(in.data() + in.size()), room(out), table(hashTable.entries),
        shift(hashShift<keyBytes>(hashTable.bits)), begin(stretch.segment), written(start.written),
        quickEnd(out.end - std::min(out.left(start.written), quickRoom)),
        last(std::min(static_cast<std::size_t>(readEnd - begin) - (minMatch + compared),
                      stretch.end - 1)),
        restart(static_cast<std::ptrdiff_t>(stretch.restart)), pending(start.pending),
        read(stretch.first)
  {
    if (stretch.sparse) {
      denseEnd = 0;
      idleMax = static_cast<std::ptrdiff_t>(read) - static_cast<std::ptrdiff_t>(sparseLiterals);
    }
  }

  // Leaves the literals behind the last match pending. Moves `first` behind the searched positions.
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
        read = next;
        pending = begin + read;
      } while (findHere());
    }
    end.pending = pending;
    end.written = written;
    stretch.first = read;
    stretch.longMatch = longMatch;
    return true;
  }

private:
  [[gnu::always_inline]] std::size_t
  literals() const noexcept
  {
    return static_cast<std::size_t>(begin + read - pending);
  }

  [[gnu::always_inline]] Key
  keyAt(std::size_t at) const noexcept
  {
    return loadLittleEndian<Key>(begin + at);
  }

  [[gnu::always_inline]] std::uint64_t
  eightAt(std::size_t at) const noexcept
  {
    return loadLittleEndian<std::uint64_t>(begin + at);
  }

  // Enters position `at` under its key. Returns the position that was there before.
  [[gnu::always_inline]] std::size_t
  exchange(Key some, std::size_t at) noexcept
  {
    const std::size_t entry = hash<keyBytes>(some, shift);
    const std::size_t latest = table[entry];
    table[opaque(entry)] = static_cast<Entry>(at);
    return latest;
  }

  // Tells whether a match begins at `read`, whose key is `key`. If so, sets `from` and `length`,
  // and `next` and `key` to the position behind the match and its key. That key is mostly in the
  // bytes that were compared. A load would have to wait for the length.
  [[gnu::always_inline]] bool
  matches() noexcept
  {
    from = exchange(key, read);
    if (loadLittleEndian<std::uint32_t>(begin + from) != static_cast<std::uint32_t>(key))
      return false;
    if (mayBeFar && read - from > farMaxDistance)
      return false;
    if constexpr (entersInside)
      exchange(keyAt(read + 1), read + 1);
    const auto here = eightAt(read + minMatch);
    const auto behind = eightAt(read + minMatch + 8);
    const auto differing = here ^ eightAt(from + minMatch);
    if (differing != 0) [[likely]] {
      const auto equalBits = static_cast<unsigned>(std::countr_zero(differing)) & ~7U;
      length = minMatch + equalBits / 8;
      key = static_cast<Key>(here >> equalBits | behind << 1 << (equalBits ^ 63));
    } else {
      measureLong(opaque(from), opaque(read), behind);
      key = keyAt(std::min(read + length, last));
    }
    // Opaque, as extendBackwards() keeps the sum, but takes longer than the search can wait.
    next = opaque(read + length);
    return true;
  }

  // Sets `length` for a match of at least minMatch + 8 bytes. `behind` follows these at `to`.
  [[gnu::always_inline]] void
  measureLong(std::size_t before, std::size_t to, std::uint64_t behind) noexcept
  {
    const auto differing = behind ^ eightAt(before + minMatch + 8);
    longMatch = true;
    length = minMatch;
    if (differing != 0) [[likely]]
      length += 8 + equalBytes(differing);
    else
      length += commonMany(begin + before + minMatch, begin + to + minMatch, readEnd);
  }

  // Tries every position up to denseLiterals behind the last match, then fewer.
  [[gnu::always_inline]] bool
  find() noexcept
  {
    // Signed, as the pending literals can begin before the segment.
    const auto end =
        std::min(denseEnd, pending - begin + static_cast<std::ptrdiff_t>(denseLiterals));
    for (; static_cast<std::ptrdiff_t>(read) < end; read++) {
      key = keyAt(read);
      if (matches())
        return true;
    }
    return findSparsely();
  }

  // Takes larger and larger steps.
  [[gnu::always_inline]] bool
  findSparsely() noexcept
  {
    const auto idle = std::max(std::min(pending - begin, idleMax), restart);
    for (; read <= last; read += 1 + (read - static_cast<std::size_t>(idle)) / denseLiterals) {
      key = keyAt(read);
      if (!matches())
        continue;
      if (denseEnd == 0) [[unlikely]]
        leaveSparseSearch();
      return true;
    }
    return false;
  }

  [[gnu::always_inline]] void
  leaveSparseSearch() noexcept
  {
    if (!longMatch)
      return;
    denseEnd = static_cast<std::ptrdiff_t>(last + 1);
    idleMax = PTRDIFF_MAX;
  }

  // Looks for a match right behind the last one.
  [[gnu::always_inline]] bool
  findHere() noexcept
  {
    if (read > last)
      return false;
    if (matches())
      return true;
    if constexpr (!entersInside) {
      if constexpr (keyBytes == shortKey)
        exchange(keyAt(read - 1), read - 1);
      exchange(keyAt(read - 2), read - 2);
    }
    read++;
    return false;
  }

  // Extends the match by up to 7 bytes, without a branch on their number if 8 bytes lie before it.
  [[gnu::always_inline]] void
  extendBackwards() noexcept
  {
    const std::size_t max = literals();
    std::size_t equal = 0;
    if (from >= 8) [[likely]] {
      // Swapped, as processors count zeros best from the low end. The high bit ends the count if
      // all bytes are equal.
      const auto differing = __builtin_bswap64(eightAt(read - 8) ^ eightAt(from - 8));
      equal = std::min(equalBytes(differing | std::uint64_t{1} << 63), max);
    } else {
      while (equal < max && equal < from && begin[read - 1 - equal] == begin[from - 1 - equal])
        equal++;
    }
    read -= equal;
    from -= equal;
    length += equal;
  }

  // `read` is at most `last`, so quickLiterals bytes can be read from `pending`.
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
    const std::size_t shortMax = mayBeFar ? shortMaxAt(distance) : middleShortMax;
    if ((written < quickEnd) & (length <= shortMax)) [[likely]]
      return putQuickMatch<mayBeFar>(written, length, distance);
    return putMatch(written, room, length, distance);
  }

  const std::uint8_t *const readEnd;
  const Room room;
  Entry *const table;
  const unsigned shift;
  const std::uint8_t *const begin;
  std::uint8_t *written;
  // While `written` is before it, a quick sequence fits.
  std::uint8_t *const quickEnd;
  const std::size_t last;       // the last position to search
  const std::ptrdiff_t restart; // literals before this position do not widen the steps
  std::ptrdiff_t denseEnd = static_cast<std::ptrdiff_t>(last + 1); // of the dense search, or 0
  std::ptrdiff_t idleMax = PTRDIFF_MAX; // literals behind this position widen the steps at least
  bool longMatch = false;
  const std::uint8_t *pending;
  std::size_t read;
  std::size_t from = 0;
  std::size_t length = 0;
  std::size_t next = 0;
  Key key = 0; // at `next`, if there is a match, then at `read`
};

// Writes the last literals and the end marker.
Result
finish(Room room, std::uint8_t *to, Input pending) noexcept
{
  to = putLiterals(to, room, pending.data(), pending.size());
  if (to != nullptr)
    to = putEndMarker(to, room);
  if (to == nullptr)
    return {Status::noRoom, 0};
  return {Status::ok, static_cast<std::size_t>(to - room.begin)};
}

// Searches a stretch with a Matcher that omits needless checks.
template <unsigned keyBytes>
bool
putMatches(Input in, Room room, HashTable table, Stretch &stretch, Progress &at) noexcept
{
  const Progress start = at;
  if (stretch.end > middleMaxDistance)
    return Matcher<keyBytes, true>(in, room, table, stretch, start).run(at, stretch);
  return Matcher<keyBytes, false>(in, room, table, stretch, start).run(at, stretch);
}

// The bytes that the search of a stretch read and wrote, without the pending literals.
struct Yield {
  std::size_t read;
  std::size_t written;

  // Whether the output has less than n/d of the bytes read.
  bool
  shrinksTo(std::size_t n, std::size_t d) const
  {
    return written < read / d * n;
  }
};

// Sets the next stretch. The segment moves on behind its last stretch.
void
advance(Stretch &stretch, HashTable table, const Yield &yield) noexcept
{
  const bool poor =
      yield.read > 0 && !stretch.longMatch && stretch.end >= firstTooFar && !yield.shrinksTo(7, 8);
  // Such data can still become worth a dense search, so every other stretch has one.
  const bool dense = stretch.sparse || (poor && !yield.shrinksTo(127, 128));
  if (stretch.end < firstTooFar) {
    stretch.end = std::min(stretch.end * stretchGrowth, firstTooFar);
  } else if (stretch.end < segmentSize) {
    stretch.end = segmentSize;
    stretch.restart = stretch.first - restartLiterals;
  } else {
    // Without a match lately, the table is hardly worth the time to rebase it.
    const std::size_t overlap = yield.read > 0 ? segmentOverlap : 1;
    const std::size_t offset = stretch.first - overlap;
    if (yield.read > 0)
      rebase(table, offset);
    else
      table.clear();
    stretch = {.segment = stretch.segment + offset, .first = overlap, .end = firstTooFar};
  }
  if (dense)
    stretch.restart = stretch.first;
  stretch.sparse = poor && !dense;
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
  const Room room{out.data(), out.data() + out.size()};
  if (in.size() <= tinyInput)
    return finish(room, room.begin, in);
  const HashTable table{reinterpret_cast<Entry *>(state.data()), tableBits(in.size())};
  table.clear();
  const std::uint8_t *const readEnd = in.data() + in.size();
  Progress at{in.data(), out.data()};
  Stretch stretch{.segment = in.data(), .first = 1, .end = firstStretch};
  bool longKeys = false;
  for (;;) {
    const Progress start = at;
    const bool fits = longKeys ? putMatches<longKey>(in, room, table, stretch, at)
                               : putMatches<shortKey>(in, room, table, stretch, at);
    if (!fits)
      return {Status::noRoom, 0};
    if (static_cast<std::size_t>(readEnd - stretch.segment) <= stretch.first + tinyInput)
      break;
    const Yield yield{static_cast<std::size_t>(at.pending - start.pending),
                      static_cast<std::size_t>(at.written - start.written)};
    if (yield.read > 0 && yield.shrinksTo(longKeySixteenths(stretch.end), 16) != longKeys) {
      longKeys = !longKeys;
      (longKeys ? rehash<longKey> : rehash<shortKey>)(stretch.segment,
                                                      std::min(stretch.first, stretch.end), table);
    }
    advance(stretch, table, yield);
  }
  return finish(room, at.written, {at.pending, readEnd});
}

} // namespace lzo1x
