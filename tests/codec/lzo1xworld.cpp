// SPDX-License-Identifier: LGPL-2.1-or-later
// Every LZO1X stream of up to five instructions before its end marker: all classes, with the
// lengths and distances at which something changes, in every size of room and cut at every byte.
// The fast decoder must do as the plain one does.
//
// There are too many for every run. Of the longer ones a fixed sample is taken; `-m thorough` takes
// all of them, in hours.
#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"

#include <glib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

using lzo1x::Status;
using Bytes = std::vector<std::uint8_t>;

namespace
{

constexpr unsigned mostInstructions = 5;
// Up to so many instructions, each has all lengths and distances; further ones have fewer.
constexpr unsigned richInstructions = 2;

// More room than the content needs, in steps of one byte, and far more.
constexpr std::size_t spareRoom = 48;
constexpr std::size_t wideRoom = 4096;

// Memory that ends at a page that cannot be touched.
class Guarded
{
public:
  explicit Guarded(std::size_t capacity)
  {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t size = (capacity + page - 1) / page * page;
    void *const mapped =
        mmap(nullptr, size + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    g_assert_true(mapped != MAP_FAILED);
    end_ = static_cast<std::uint8_t *>(mapped) + size;
    g_assert_cmpint(mprotect(end_, page, PROT_NONE), ==, 0);
  }
  std::span<std::uint8_t>
  last(std::size_t size) const
  {
    return {end_ - size, size};
  }

private:
  std::uint8_t *end_;
};

constexpr std::size_t capacity = 1 << 17;
const Guarded input(capacity), output(capacity);

/* ---- One stream ---- */

struct Tally {
  guint64 streams = 0, broken = 0, calls = 0;
};

std::string
digits(const Bytes &stream)
{
  std::string text;
  for (std::size_t at = stream.size() > 200 ? stream.size() - 200 : 0; at < stream.size(); at++) {
    char byte[4];
    g_snprintf(byte, sizeof byte, "%02x ", stream[at]);
    text += byte;
  }
  return text;
}

// The plain decoder goes from front to back, and asks for its end and for room only when it gets
// there. So one run of it says what comes of each room and each cut: a stream that it decodes to
// `size` bytes needs `size` bytes of room and its last byte; any other stream always fails.
class Case
{
public:
  // Smaller rooms and earlier cuts than these are left to shorter streams.
  Case(const Bytes &stream, std::size_t leastRoom, std::size_t leastCut, Tally *tally)
      : stream_{stream}, tally_{tally}, plain_{
                                            referenceDecode(stream.data(), stream.size(), capacity)}
  {
    tally->streams++;
    tally->broken += !plain_;
    const std::size_t size = plain_ ? plain_->size() : leastRoom;
    place(stream.size());
    for (std::size_t room = leastRoom; room <= size + spareRoom; room++)
      checkRoom(room);
    checkRoom(size + wideRoom);
    for (std::size_t cut = leastCut; plain_ && cut < stream.size(); cut++) {
      place(cut);
      checkStatus(size, Status::inputOverrun);
      checkStatus(size + wideRoom, Status::inputOverrun);
    }
    if (plain_) {
      place(stream.size() + 1);
      checkStatus(size + wideRoom, Status::trailingBytes);
    }
  }

private:
  void
  place(std::size_t size)
  {
    in_ = input.last(size);
    std::copy_n(stream_.begin(), std::min(size, stream_.size()), in_.begin());
  }
  void
  checkRoom(std::size_t room)
  {
    const auto out = output.last(room);
    std::ranges::fill(out, 0xa5); // the last call's bytes would be the right ones
    const auto result = lzo1x::decode(in_, out);
    const bool fits = plain_ && room >= plain_->size();
    if ((result.status == Status::ok) != fits || result.size != (fits ? plain_->size() : 0))
      fail(room, "another result");
    if (fits && !std::equal(plain_->begin(), plain_->end(), out.begin()))
      fail(room, "other bytes");
    tally_->calls++;
  }
  void
  checkStatus(std::size_t room, Status expected)
  {
    if (lzo1x::decode(in_, output.last(room)).status != expected)
      fail(room, "another status");
    tally_->calls++;
  }
  void
  fail(std::size_t room, const char *what) const
  {
    g_error("%s: %zu bytes, in a room of %zu, of ... %s", what, in_.size(), room,
            digits(stream_).c_str());
  }

  const Bytes &stream_;
  Tally *tally_;
  std::optional<Bytes> plain_;
  std::span<std::uint8_t> in_;
};

/* ---- Instructions ---- */

// A stream without its end, and what the next instruction depends on.
struct Stream {
  Bytes bytes;
  unsigned instructions = 0;
  std::size_t produced = 0;
  unsigned literals = 0; // of the last instruction; 4 stands for more
  bool broken = false;
  bool falseEnd = false;

  bool
  rich() const
  {
    return instructions < richInstructions;
  }
  void
  put(std::size_t byte)
  {
    bytes.push_back(static_cast<std::uint8_t>(byte));
  }
  // The part of a length that T does not say.
  void
  lengthBytes(std::size_t rest)
  {
    for (; rest > 255; rest -= 255)
      put(0);
    put(rest);
  }
  void
  content(std::size_t count)
  {
    for (std::size_t i = 0; i < count; i++)
      put((bytes.size() * 2654435761U) >> 13);
    produced += count;
    literals = static_cast<unsigned>(std::min<std::size_t>(count, 4));
  }
  void
  match(std::size_t length, std::size_t distance, std::size_t trailing)
  {
    broken = distance > produced;
    produced += length;
    content(trailing);
  }
};

using Visit = std::function<void(Stream &)>;
using Sizes = std::vector<std::size_t>;

// Calls `make` on a copy of the stream for each distance from `least` to `most` at which something
// changes, and each number of literals behind the match.
void
eachMatch(const Stream &stream, std::size_t least, std::size_t most, const Visit &visit,
          const std::function<void(Stream &, std::size_t, std::size_t)> &make)
{
  Sizes distances = {least, 7, 16, stream.produced};
  Sizes trailings = {0, 3};
  if (stream.rich()) {
    distances.insert(distances.end(), {2, 8, 15, most, stream.produced + 1});
    trailings.push_back(1);
  }
  std::ranges::sort(distances);
  distances.erase(std::unique(distances.begin(), distances.end()), distances.end());
  for (const std::size_t distance : distances)
    for (const std::size_t trailing : trailings) {
      if (distance < least || distance > most)
        continue;
      Stream next = stream;
      make(next, distance, trailing);
      visit(next);
    }
}

// Each run; the first one also in the opening form, and long enough for all distances.
void
eachRun(const Stream &stream, const Visit &visit)
{
  const auto add = [&](std::size_t length, bool opening) {
    Stream next = stream;
    next.put(opening ? length + 17 : length > 18 ? 0 : length - 3);
    if (!opening && length > 18)
      next.lengthBytes(length - 18);
    next.content(length);
    visit(next);
  };
  const bool first = stream.instructions == 0;
  if (first)
    for (const std::size_t length : {1, 3, 4, 17, 238})
      add(length, true);
  if (stream.literals != 0)
    return;
  for (const std::size_t length : {4, 18, 19, 274})
    add(length, false);
  if (stream.rich())
    for (const std::size_t length : {15, 16, 273})
      add(length, false);
  if (first)
    for (const std::size_t length : {3100, 49200})
      add(length, false);
}

// T below 16, behind literals.
void
eachRareMatch(const Stream &stream, const Visit &visit)
{
  if (stream.literals == 0)
    return;
  const bool run = stream.literals == 4;
  const std::size_t least = run ? 2049 : 1;
  eachMatch(stream, least, least + 1023, visit,
            [&](Stream &next, std::size_t distance, std::size_t trailing) {
              next.put((distance - least) % 4 << 2 | trailing);
              next.put((distance - least) / 4);
              next.match(run ? 3 : 2, distance, trailing);
            });
}

void
eachNearMatch(const Stream &stream, const Visit &visit)
{
  for (const std::size_t length : {3, 8})
    eachMatch(stream, 1, 2048, visit,
              [&](Stream &next, std::size_t distance, std::size_t trailing) {
                next.put((length - 1) << 5 | (distance - 1) % 8 << 2 | trailing);
                next.put((distance - 1) / 8);
                next.match(length, distance, trailing);
              });
}

void
eachMiddleOrFarMatch(const Stream &stream, bool far, const Visit &visit)
{
  const std::size_t most = far ? 9 : 33; // that T says
  Sizes lengths = {3, 17, most + 1};
  if (stream.rich())
    lengths.insert(lengths.end(), {16, 32, most, most + 255, most + 256});
  for (const std::size_t length : lengths)
    eachMatch(stream, far ? 16385 : 1, far ? 49151 : 16384, visit,
              [&](Stream &next, std::size_t distance, std::size_t trailing) {
                const std::size_t code = distance - (far ? 16384 : 1);
                next.put((far ? 16 | code >> 14 << 3 : 32) | (length > most ? 0 : length - 2));
                if (length > most)
                  next.lengthBytes(length - most);
                next.put(code % 64 << 2 | trailing);
                next.put(code / 64 % 256);
                next.match(length, distance, trailing);
              });
}

// The bytes that encode the distance of the end marker.
void
eachFalseEnd(const Stream &stream, const Visit &visit)
{
  constexpr std::uint8_t ends[][3] = {{17, 0, 0}, {17, 1, 0}, {18, 0, 0}, {23, 3, 0}};
  for (const auto &end : ends) {
    Stream next = stream;
    next.bytes.insert(next.bytes.end(), end, end + 3);
    next.broken = next.falseEnd = true;
    visit(next);
  }
}

void
eachInstruction(const Stream &stream, const Visit &visit)
{
  eachRun(stream, visit);
  eachRareMatch(stream, visit);
  eachNearMatch(stream, visit);
  eachMiddleOrFarMatch(stream, false, visit);
  eachMiddleOrFarMatch(stream, true, visit);
  eachFalseEnd(stream, visit);
}

/* ---- All streams ---- */

// Behind a long first run, streams take much more time each, and one instruction less.
constexpr unsigned mostBehindLongRun = 4;

class World
{
public:
  // `history` is what a long first run has produced.
  void
  visit(const Stream &stream, std::size_t history)
  {
    if (stream.instructions == (history > 0 ? mostBehindLongRun : mostInstructions) ||
        stream.broken)
      return;
    eachInstruction(stream, [&](Stream &next) {
      next.instructions++;
      const std::size_t begin =
          next.instructions == 1 && next.produced > 2000 ? next.produced : history;
      if (!taken(next.instructions, begin > 0))
        return;
      check(next, begin);
      visit(next, begin);
    });
  }
  const Tally &
  tally() const
  {
    return tally_;
  }

private:
  // Of the streams that go on from one that was taken, one in so many; spread over all of them,
  // since a step would fall on the same instructions again and again.
  bool
  taken(unsigned instructions, bool behindLongRun)
  {
    constexpr unsigned oneIn[][mostInstructions + 1] = {{1, 1, 1, 1, 64, 64}, {1, 1, 1, 16, 16, 1}};
    // Under valgrind and the like.
    static const unsigned slowly = g_getenv("TEST_PATIENCE") ? 64 : 1;
    const unsigned step =
        g_test_thorough() || instructions < 3 ? 1 : slowly * oneIn[behindLongRun][instructions];
    return (count_++ * 2654435761U >> 8) % step == 0;
  }
  void
  check(const Stream &stream, std::size_t history)
  {
    Bytes bytes = stream.bytes;
    const auto checkWith = [&](std::initializer_list<std::uint8_t> more) {
      bytes.insert(bytes.end(), more);
      Case(bytes, history, history, &tally_);
    };
    // Also as the last bytes, and with enough behind them for a fast path.
    if (stream.falseEnd)
      checkWith({});
    checkWith({17, 0, 0});
    if (stream.falseEnd)
      checkWith({1, 'r', 'u', 'n', '.', 17, 0, 0});
  }

  Tally tally_;
  guint32 count_ = 0;
};

void
testEveryShortStream()
{
  World world;
  world.visit(Stream(), 0);
  const auto &tally = world.tally();
  g_test_message("%" G_GUINT64_FORMAT " streams, %" G_GUINT64_FORMAT
                 " of them broken; %" G_GUINT64_FORMAT " calls",
                 tally.streams, tally.broken, tally.calls);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/lzo1x/every-short-stream", testEveryShortStream);
  return g_test_run();
}
