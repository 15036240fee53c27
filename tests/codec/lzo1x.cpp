// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X codec against liblzo2, against a plain reference decoder and against its own bounds.
#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"

#include <glib.h>
#include <lzo/lzo1x.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

using lzo1x::Status;
using Bytes = std::vector<std::uint8_t>;

namespace
{

// Memory between two pages that cannot be touched, so that an access outside faults. A block of it
// stands flush against one of the two.
class Guarded
{
public:
  enum class Against { front, back };

  explicit Guarded(std::size_t capacity)
  {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    inner = std::max(page, (capacity + page - 1) / page * page);
    whole = inner + 2 * page;
    void *const mapped = mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    g_assert_true(mapped != MAP_FAILED);
    base = static_cast<std::uint8_t *>(mapped);
    g_assert_cmpint(mprotect(base + page, inner, PROT_READ | PROT_WRITE), ==, 0);
    first = base + page;
  }
  Guarded(const Guarded &) = delete;
  Guarded &operator=(const Guarded &) = delete;
  ~Guarded()
  {
    munmap(base, whole);
  }

  std::span<std::uint8_t>
  block(std::size_t size, Against against)
  {
    g_assert_cmpuint(size, <=, inner);
    return {against == Against::front ? first : first + inner - size, size};
  }

  std::span<std::uint8_t>
  block(const Bytes &content, Against against)
  {
    const auto to = block(content.size(), against);
    std::copy(content.begin(), content.end(), to.begin());
    return to;
  }

private:
  std::uint8_t *base;
  std::uint8_t *first;
  std::size_t inner;
  std::size_t whole;
};

constexpr std::size_t largest = 1 << 20;
constexpr Guarded::Against bothEnds[] = {Guarded::Against::front, Guarded::Against::back};

Guarded &
readSide()
{
  static Guarded memory(2 * largest);
  return memory;
}

Guarded &
writeSide()
{
  static Guarded memory(2 * largest);
  return memory;
}

struct Decoded {
  Status status;
  Bytes bytes;
};

bool
operator==(const Decoded &a, const Decoded &b)
{
  return a.status == b.status && a.bytes == b.bytes;
}

Decoded
decodeAgainst(Guarded::Against against, const Bytes &stream, std::size_t room)
{
  const auto in = readSide().block(stream, against);
  const auto out = writeSide().block(room, against);
  const auto result = lzo1x::decode(in, out);
  g_assert_cmpuint(result.size, <=, room);
  if (result.status != Status::ok)
    g_assert_cmpuint(result.size, ==, 0);
  return {result.status, Bytes(out.data(), out.data() + result.size)};
}

Decoded
decode(const Bytes &stream, std::size_t room)
{
  const Decoded front = decodeAgainst(Guarded::Against::front, stream, room);
  g_assert_true(front == decodeAgainst(Guarded::Against::back, stream, room));
  return front;
}

struct Encoded {
  Status status;
  Bytes bytes;
};

Encoded
encodeAgainst(Guarded::Against against, const Bytes &content, std::size_t room)
{
  const auto in = readSide().block(content, against);
  const auto out = writeSide().block(room, against);
  std::vector<std::uint32_t> state((lzo1x::encoderStateSize(content.size()) + 3) / 4, 0xa5c3f00d);
  const auto result = lzo1x::encode(in, out, std::as_writable_bytes(std::span(state)));
  g_assert_cmpuint(result.size, <=, room);
  return {result.status, Bytes(out.data(), out.data() + result.size)};
}

Bytes
encode(const Bytes &content)
{
  const std::size_t room = lzo1x::worstCase(content.size());
  const Encoded front = encodeAgainst(Guarded::Against::front, content, room);
  g_assert_true(front.status == Status::ok);
  const Encoded back = encodeAgainst(Guarded::Against::back, content, room);
  g_assert_true(back.status == Status::ok);
  g_assert_true(front.bytes == back.bytes);
  return front.bytes;
}

Bytes
peerEncode(const Bytes &content, bool best)
{
  Bytes out(content.size() + content.size() / 16 + 67);
  Bytes work(best ? LZO1X_999_MEM_COMPRESS : LZO1X_1_MEM_COMPRESS);
  lzo_uint size = out.size();
  const auto compress = best ? lzo1x_999_compress : lzo1x_1_compress;
  g_assert_cmpint(compress(content.data(), content.size(), out.data(), &size, work.data()), ==,
                  LZO_E_OK);
  out.resize(size);
  return out;
}

Decoded
peerDecode(const Bytes &stream, std::size_t room)
{
  Bytes out(room + 1); // never a null pointer
  lzo_uint size = room;
  const int result =
      lzo1x_decompress_safe(stream.data(), stream.size(), out.data(), &size, nullptr);
  if (result != LZO_E_OK)
    return {Status::inputOverrun, {}};
  out.resize(size);
  return {Status::ok, out};
}

using Random = std::mt19937_64;

Random
seeded()
{
  return Random(static_cast<std::uint32_t>(g_test_rand_int()));
}

std::size_t
below(Random &random, std::size_t limit)
{
  return static_cast<std::size_t>(random() % limit);
}

Bytes
noise(Random &random, std::size_t size, unsigned alphabet = 256)
{
  Bytes bytes(size);
  for (auto &byte : bytes)
    byte = static_cast<std::uint8_t>(random() % alphabet);
  return bytes;
}

Bytes
runs(Random &random, std::size_t size)
{
  Bytes bytes;
  while (bytes.size() < size)
    bytes.insert(bytes.end(), 1 + (below(random, 8) == 0 ? below(random, 5000) : below(random, 40)),
                 static_cast<std::uint8_t>(random() % 4));
  bytes.resize(size);
  return bytes;
}

Bytes
textLike(Random &random, std::size_t size)
{
  std::vector<Bytes> words;
  for (int i = 0; i < 300; i++) {
    Bytes word = noise(random, 1 + below(random, 11), 26);
    for (auto &byte : word)
      byte = static_cast<std::uint8_t>(byte + 'a');
    words.push_back(word);
  }
  Bytes bytes;
  while (bytes.size() < size) {
    const std::size_t most = 1 + below(random, words.size());
    const Bytes &word = words[below(random, most)];
    bytes.insert(bytes.end(), word.begin(), word.end());
    bytes.push_back(below(random, 12) == 0 ? '\n' : ' ');
  }
  bytes.resize(size);
  return bytes;
}

Bytes
periodic(Random &random, std::size_t size)
{
  const Bytes period = noise(random, 1 + below(random, 40));
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; i++)
    bytes[i] = period[i % period.size()];
  for (std::size_t i = below(random, 4); i > 0 && size > 0; i--)
    bytes[below(random, size)] ^= 1;
  return bytes;
}

// Noise in which pieces come again from just at, below and beyond the reach of each match form.
Bytes
farRepeats(Random &random, std::size_t size)
{
  constexpr std::size_t reaches[] = {1024, 2048, 2049, 3072, 16384, 32768, 49151};
  Bytes bytes = noise(random, size);
  std::size_t at = 0;
  while (at < size) {
    const std::size_t distance = reaches[below(random, std::size(reaches))] - 2 + below(random, 5);
    const std::size_t most = below(random, 16) == 0 ? 600 : below(random, 4) == 0 ? 40 : 12;
    const std::size_t length = std::min(size - at, 2 + below(random, most));
    for (std::size_t i = 0; i < length && distance <= at; i++)
      bytes[at + i] = bytes[at + i - distance];
    at += length + below(random, below(random, 8) == 0 ? 700 : 24);
  }
  return bytes;
}

Bytes
sparse(Random &random, std::size_t size)
{
  Bytes bytes(size);
  for (std::size_t at = below(random, 200); at < size; at += 1 + below(random, 200))
    bytes[at] = static_cast<std::uint8_t>(random());
  return bytes;
}

void
addFile(std::vector<Bytes> &files, const char *path)
{
  gchar *content = nullptr;
  gsize size = 0;
  if (g_file_get_contents(path, &content, &size, nullptr) && size > 0)
    files.emplace_back(content, content + size);
  g_free(content);
}

// This program, its loaded libraries, and headers if there are any.
const std::vector<Bytes> &
realFiles()
{
  static const std::vector<Bytes> files = [] {
    std::vector<Bytes> found;
    addFile(found, "/proc/self/exe");
    gchar *maps = nullptr;
    std::string last;
    if (g_file_get_contents("/proc/self/maps", &maps, nullptr, nullptr)) {
      gchar **const lines = g_strsplit(maps, "\n", -1);
      for (gchar **line = lines; *line != nullptr; line++) {
        const char *const path = std::strchr(*line, '/');
        if (path != nullptr && last != path && std::strstr(path, ".so") != nullptr)
          addFile(found, path);
        last = path != nullptr ? path : "";
      }
      g_strfreev(lines);
    }
    g_free(maps);
    for (const char *header : {"/usr/include/stdio.h", "/usr/include/stdlib.h",
                               "/usr/include/elf.h", "/usr/include/lzo/lzoconf.h"})
      addFile(found, header);
    g_assert_false(found.empty());
    return found;
  }();
  return files;
}

Bytes
fileSlice(Random &random, std::size_t size)
{
  const Bytes &file = realFiles()[below(random, realFiles().size())];
  const std::size_t length = std::min(size, file.size());
  const std::size_t from = below(random, file.size() - length + 1);
  return Bytes(file.data() + from, file.data() + from + length);
}

Bytes
fewSymbols(Random &random, std::size_t size)
{
  return noise(random, size, 2 + static_cast<unsigned>(random() % 6));
}

Bytes
allSymbols(Random &random, std::size_t size)
{
  return noise(random, size);
}

// One kind after the other in one block.
Bytes mixture(Random &random, std::size_t size);

// Pixels of two colours in shapes that come again and again: these shrink so well that the encoder
// looks for longer matches.
Bytes
shapes(Random &random, std::size_t size)
{
  std::vector<Bytes> all(16);
  for (auto &shape : all)
    for (int pixel = 0; pixel < 32; pixel++)
      shape.insert(shape.end(), 4, random() % 4 != 0 ? 0xf0 : 0x10);
  Bytes bytes;
  while (bytes.size() < size) {
    const Bytes &shape = all[below(random, all.size())];
    bytes.insert(bytes.end(), shape.begin(), shape.end());
  }
  bytes.resize(size);
  return bytes;
}

using Generator = Bytes (*)(Random &, std::size_t);
constexpr Generator generators[] = {allSymbols, fewSymbols, runs,      textLike, periodic,
                                    farRepeats, sparse,     fileSlice, shapes,   mixture};

Bytes
mixture(Random &random, std::size_t size)
{
  Bytes bytes;
  while (bytes.size() < size) {
    const auto generator = generators[below(random, std::size(generators) - 1)];
    const Bytes part = generator(random, 1 + below(random, 1 + size / 2));
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  bytes.resize(size);
  return bytes;
}

// Many small sizes, some around the limits of the format, few large ones.
std::size_t
anySize(Random &random, unsigned round)
{
  constexpr std::size_t limits[] = {0,    18,   19,    238,   239,   273,   274,   2048,
                                    4096, 8192, 16384, 32768, 49151, 65536, 131072};
  if (round % 64 == 0)
    return below(random, largest + 1);
  if (round % 8 == 0)
    return limits[below(random, std::size(limits))] + below(random, 8);
  return below(random, std::size_t{1} << below(random, 17));
}

void
forManyInputs(unsigned rounds, const std::function<void(const Bytes &)> &check)
{
  Random random = seeded();
  for (unsigned round = 0; round < rounds; round++)
    for (const auto generator : generators)
      check(generator(random, anySize(random, round)));
}

unsigned
roundsOf(unsigned rounds)
{
  return g_test_thorough() ? rounds * 10 : rounds;
}

void
checkRoundTrip(const Bytes &content)
{
  const Bytes stream = encode(content);
  g_assert_cmpuint(stream.size(), <=, lzo1x::worstCase(content.size()));
  const Decoded own = decode(stream, content.size());
  g_assert_true(own.status == Status::ok);
  g_assert_true(own.bytes == content);
  const Decoded peer = peerDecode(stream, content.size());
  g_assert_true(peer.status == Status::ok);
  g_assert_true(peer.bytes == content);
  const auto plain = referenceDecode(stream.data(), stream.size(), content.size());
  g_assert_true(plain.has_value() && *plain == content);
}

// The same bytes twice, so many bytes apart; between them nothing that the encoder would have to
// remember.
std::size_t
encodedSizeOfTwice(const Bytes &twice, std::size_t distance)
{
  Bytes content(64);
  content.insert(content.end(), twice.begin(), twice.end());
  content.resize(64 + distance);
  content.insert(content.end(), twice.begin(), twice.end());
  content.resize(content.size() + 64);
  checkRoundTrip(content);
  return encode(content).size();
}

void
append(Bytes &to, const Bytes &bytes)
{
  to.insert(to.end(), bytes.begin(), bytes.end());
}

void
append(Bytes &to, std::initializer_list<unsigned> bytes)
{
  for (const unsigned byte : bytes)
    to.push_back(static_cast<std::uint8_t>(byte));
}

void
appendLengthBytes(Bytes &to, std::size_t rest)
{
  for (; rest > 255; rest -= 255)
    to.push_back(0);
  to.push_back(static_cast<std::uint8_t>(rest));
}

void
appendRun(Bytes &to, const Bytes &literals)
{
  if (literals.size() <= 18) {
    append(to, {static_cast<unsigned>(literals.size() - 3)});
  } else {
    append(to, {0});
    appendLengthBytes(to, literals.size() - 18);
  }
  append(to, literals);
}

void
appendEnd(Bytes &to)
{
  append(to, {0x11, 0, 0});
}

Decoded
checkAgainstReference(const Bytes &stream, std::size_t room)
{
  const Decoded own = decode(stream, room);
  const auto plain = referenceDecode(stream.data(), stream.size(), room);
  g_assert_cmpint(own.status == Status::ok, ==, plain.has_value());
  if (plain.has_value())
    g_assert_true(own.bytes == *plain);
  return own;
}

// The same, and liblzo2 agrees on all that we accept.
Decoded
checkAgainstBoth(const Bytes &stream, std::size_t room)
{
  const Decoded own = checkAgainstReference(stream, room);
  if (own.status == Status::ok)
    g_assert_true(peerDecode(stream, room) == own);
  return own;
}

// `history` bytes of output, after which `context` literals (4: a run) stand behind the last match.
Bytes
preamble(Random &random, std::size_t history, unsigned context)
{
  Bytes stream;
  appendRun(stream, noise(random, std::max<std::size_t>(history, 4)));
  if (context < 4) {
    append(stream, {0x40 | context, 0});
    append(stream, noise(random, context));
  }
  return stream;
}

// Streams made of random instructions, most of them valid: forms that no compressor writes.
Bytes
inventedStream(Random &random)
{
  Bytes stream;
  std::size_t written = 1 + below(random, 238);
  unsigned context = written < 4 ? static_cast<unsigned>(written) : 4;
  append(stream, {static_cast<unsigned>(17 + written)});
  append(stream, noise(random, written));
  for (std::size_t left = below(random, 60); left > 0; left--) {
    unsigned t = static_cast<unsigned>(random() % 256);
    if (written < 16384 && t >= 16 && t < 32)
      t += 16;
    append(stream, {t});
    if (t < 16 && context == 0) {
      const std::size_t more = below(random, 8) == 0 ? below(random, 900) + 1 : 1;
      if (t == 0)
        appendLengthBytes(stream, more);
      append(stream, noise(random, t == 0 ? 18 + more : t + 3));
      written += t == 0 ? 18 + more : t + 3;
      context = 4;
      continue;
    }
    const unsigned literals = static_cast<unsigned>(random() % 4);
    if (t >= 64 || t < 16) {
      stream.back() = static_cast<std::uint8_t>((t & 0xfc) | literals);
      append(stream,
             {static_cast<unsigned>(below(random, 1 + std::min<std::size_t>(written / 8, 255)))});
      written += 2;
    } else {
      if ((t & (t >= 32 ? 31 : 7)) == 0)
        appendLengthBytes(stream, 1 + below(random, below(random, 8) == 0 ? 900 : 20));
      const std::size_t code = below(random, std::min<std::size_t>(written, 16384));
      append(stream, {static_cast<unsigned>((code << 2 & 0xff) | literals),
                      static_cast<unsigned>(code >> 6)});
      written += 2;
    }
    append(stream, noise(random, literals));
    written += literals;
    context = literals;
  }
  appendEnd(stream);
  return stream;
}

void
checkMutations(Guarded::Against against, const Bytes &stream, std::size_t room)
{
  const auto in = readSide().block(stream, against);
  const auto out = writeSide().block(room, against);
  for (std::size_t at = 0; at < in.size(); at++) {
    const std::uint8_t original = in[at];
    for (unsigned change = 1; change < 256; change++) {
      in[at] = static_cast<std::uint8_t>(original ^ change);
      const auto own = lzo1x::decode(in, out);
      const auto plain = referenceDecode(in.data(), in.size(), room);
      g_assert_cmpint(own.status == Status::ok, ==, plain.has_value());
      if (plain.has_value()) {
        g_assert_cmpuint(own.size, ==, plain->size());
        g_assert_true(std::equal(plain->begin(), plain->end(), out.begin()));
      }
    }
    in[at] = original;
  }
}

Status
statusOf(std::initializer_list<unsigned> bytes, std::size_t room)
{
  Bytes stream;
  append(stream, bytes);
  return checkAgainstReference(stream, room).status;
}

void
testRoundTrip()
{
  forManyInputs(roundsOf(256), checkRoundTrip);
}

// Data with many short matches, as noisy pictures have them, are searched sparsely in every other
// stretch, until a long match comes there.
void
testSparseSearch()
{
  Random random = seeded();
  Bytes content;
  const auto grow = [&](std::size_t size) {
    while (content.size() < size) {
      append(content, noise(random, 24));
      if (content.size() > 500)
        for (int i = 0; i < 8; i++)
          content.push_back(content[content.size() - 500]);
    }
  };
  for (std::size_t size = 460'000; size < 500'000; size += 5'000) {
    grow(size);
    const std::size_t encoded = encode(content).size();
    g_assert_cmpuint(encoded, >, size / 8 * 7);
    g_assert_cmpuint(encoded, <, size / 128 * 127);
    Bytes more = content;
    for (int i = 0; i < 1'000; i++)
      more.push_back(more[more.size() - 30'000]);
    checkRoundTrip(more);
  }
}

void
testEverySmallSize()
{
  Random random = seeded();
  for (std::size_t size = 0; size <= 600; size++)
    for (const auto generator : generators)
      checkRoundTrip(generator(random, size));
}

void
testPeerStreams()
{
  forManyInputs(roundsOf(128), [](const Bytes &content) {
    for (const bool best : {false, true}) {
      if (best && content.size() > 100000)
        continue; // the thorough compressor takes a second for some of these
      const Bytes stream = peerEncode(content, best);
      const Decoded exact = decode(stream, content.size());
      g_assert_true(exact.status == Status::ok);
      g_assert_true(exact.bytes == content);
      const Decoded roomy = decode(stream, content.size() + 100);
      g_assert_true(roomy == exact);
    }
  });
}

void
testRoomIsRespected()
{
  forManyInputs(roundsOf(40), [](const Bytes &content) {
    const Bytes stream = encode(content);
    for (const auto against : bothEnds) {
      const Encoded exact = encodeAgainst(against, content, stream.size());
      g_assert_true(exact.status == Status::ok);
      g_assert_true(exact.bytes == stream);
      const std::size_t steps[] = {1, 2, 3, 4, 5, 16, 17, stream.size() / 2, stream.size()};
      for (const std::size_t less : steps)
        if (less > 0 && less <= stream.size())
          g_assert_true(encodeAgainst(against, content, stream.size() - less).status ==
                        Status::noRoom);
      if (!content.empty())
        g_assert_true(decode(stream, content.size() - 1).status == Status::outputOverrun);
    }
  });
}

void
testEveryRoom()
{
  Random random = seeded();
  for (const auto generator : generators) {
    const Bytes content = generator(random, 300);
    const Bytes stream = encode(content);
    for (std::size_t room = 0; room <= stream.size() + 20; room++)
      g_assert_true((encodeAgainst(Guarded::Against::back, content, room).status == Status::ok) ==
                    (room >= stream.size()));
    for (std::size_t room = 0; room < content.size(); room++)
      g_assert_true(decode(stream, room).status == Status::outputOverrun);
  }
}

// Wherever in a large input the room ends.
void
testTooLittleRoomForLargeInputs()
{
  Random random = seeded();
  for (const auto generator : generators) {
    const Bytes content = generator(random, 150000);
    const std::size_t size = encode(content).size();
    for (int i = 0; i < 60; i++)
      g_assert_true(encodeAgainst(Guarded::Against::back, content, below(random, size)).status ==
                    Status::noRoom);
  }
}

// Inputs that come as near to the bound as matches can drive them: matches of the least gain, each
// followed by a run whose header just takes another byte.
void
testWorstCaseHolds()
{
  Random random = seeded();
  constexpr std::size_t runLengths[] = {3, 4, 18, 19, 238, 239, 272, 273, 274, 275, 528, 529};
  for (const std::size_t distance : {8UL, 2000UL, 2048UL, 2049UL, 16384UL, 16385UL, 49151UL})
    for (const std::size_t run : runLengths)
      for (const std::size_t match : {3UL, 4UL, 5UL, 6UL, 8UL, 9UL}) {
        Bytes content = noise(random, distance + 20);
        for (int i = 0; i < 30; i++) {
          for (std::size_t k = 0; k < match; k++)
            content.push_back(content[content.size() - distance]);
          const Bytes between = noise(random, run);
          content.insert(content.end(), between.begin(), between.end());
        }
        checkRoundTrip(content);
      }
  // The same with distances that stay within what the encoder has seen closely. With runs of 19 the
  // output is larger than as a single run, which shows that the last part of the bound is needed.
  Random fixed(1);
  for (const std::size_t run : {18UL, 19UL, 20UL, 274UL}) {
    Bytes content;
    while (content.size() < 60000) {
      if (content.size() < 2500)
        content.resize(content.size() + 4);
      else
        for (std::size_t k = 0; k < 4; k++)
          content.push_back(content[content.size() - 2500]);
      const Bytes between = noise(fixed, run);
      content.insert(content.end(), between.begin(), between.end());
    }
    checkRoundTrip(content);
    if (run == 19)
      g_assert_cmpuint(encode(content).size(), >, content.size() + (content.size() - 19) / 255 + 5);
  }
  for (std::size_t size = 40; size < 100000; size++)
    g_assert_cmpuint(lzo1x::worstCase(size), <=, size + size / 10);
}

void
testReachOfMatches()
{
  Random random = seeded();
  Bytes twice = noise(random, 30);
  for (auto &byte : twice)
    byte = static_cast<std::uint8_t>(byte | 1);
  for (const std::size_t distance :
       {2047, 2048, 2049, 16383, 16384, 16385, 32767, 32768, 49149, 49150, 49151})
    g_assert_cmpuint(encodedSizeOfTwice(twice, distance) + 20, <, encodedSizeOfTwice(twice, 49152));
  for (const std::size_t distance : {49153, 65535, 65536, 65537, 131072})
    g_assert_cmpuint(encodedSizeOfTwice(twice, distance) + 20, >, encodedSizeOfTwice(twice, 49152));
}

// The encoder's window moves with it in large inputs. It finds repeats anywhere, also behind a
// match that is larger than the window.
void
testReachInLargeInputs()
{
  Random random = seeded();
  // Zeros in between keep the encoder from striding over it.
  Bytes start = noise(random, 200000);
  for (std::size_t i = 0; i < start.size(); i++)
    if (i % 32 >= 12)
      start[i] = 0;
  for (const std::size_t place :
       {65515, 65535, 65536, 65537, 81919, 114687, 114688, 163839, 200000})
    for (const std::size_t distance : {100, 2048, 16000}) {
      Bytes content(start.begin(), start.begin() + static_cast<std::ptrdiff_t>(place));
      const std::size_t without = encode(content).size();
      for (int i = 0; i < 4000; i++)
        content.push_back(content[content.size() - distance]);
      checkRoundTrip(content);
      g_assert_cmpuint(encode(content).size(), <, without + 1000);
    }
  for (const std::size_t length : {65536, 70000, 131072, 300000, 800000}) {
    Bytes content(length, 'x');
    content.insert(content.end(), start.begin(), start.begin() + 70000);
    content.insert(content.end(), start.begin() + 60000, start.begin() + 70000);
    content.resize(content.size() + length);
    checkRoundTrip(content);
    g_assert_cmpuint(encode(content).size(), <, 70000 + 300 + 2 * length / 250 + 1000);
  }
}

// The search skips more and more of what does not shrink, and takes that back with every segment.
void
testBehindNoise()
{
  Random random = seeded();
  const Bytes piece = noise(random, 200);
  for (const auto &[before, most] :
       {std::pair<std::size_t, std::size_t>{48000, 9000}, {300000, 40000}, {600000, 40000}}) {
    Bytes content = noise(random, before);
    for (int i = 0; i < 1000; i++)
      append(content, piece);
    checkRoundTrip(content);
    g_assert_cmpuint(encode(content).size(), <, before + before / 250 + most);
  }
}

// Data that shrink well are sought by other keys than data that shrink little; the table outlives
// the change, and segments move on in between.
void
testChangesOfKeys()
{
  Random random = seeded();
  const Bytes pieces = noise(random, 2000);
  for (int round = 0; round < 10; round++) {
    Bytes content;
    while (content.size() < 800000) {
      for (std::size_t left = 1000 + below(random, 6000); left > 0; left--) {
        const auto piece = pieces.begin() + static_cast<std::ptrdiff_t>(below(random, 1900));
        content.insert(content.end(), piece, piece + 24);
      }
      append(content, farRepeats(random, 100000 + below(random, 100000)));
    }
    checkRoundTrip(content);
  }
}

// The bytes behind a pixel differ more than the pixel. So the latest place with the same beginning
// is a poor match.
void
testRepeatedShapes()
{
  Random fixed(1);
  for (const std::size_t size : {4096, 65536, 200000}) {
    const Bytes content = shapes(fixed, size);
    checkRoundTrip(content);
    // Only from the places that begin with the same pixel, a quarter more.
    g_assert_cmpuint(encode(content).size(), <, content.size() / 5);
  }
}

void
testStateGrowsWithInput()
{
  g_assert_cmpuint(lzo1x::encoderStateSize(4), <=, 256);
  g_assert_cmpuint(lzo1x::encoderStateSize(SIZE_MAX), <=, 65536);
  for (std::size_t size = 1; size < 200000; size += 37)
    g_assert_cmpuint(lzo1x::encoderStateSize(size - 1), <=, lzo1x::encoderStateSize(size));
}

// Every T in every context, with distance bytes at their limits; short and long streams, so that
// the instruction stands near the end of the input and far from it.
void
testEveryInstruction()
{
  Random random = seeded();
  constexpr unsigned codes[][2] = {{0, 0},    {1, 0},    {2, 0},       {3, 0},       {4, 0},
                                   {0xff, 0}, {0, 1},    {0xfc, 0xff}, {0xff, 0xff}, {0xfd, 0x7f},
                                   {0, 0x80}, {7, 0x1f}, {0x1f, 7}};
  unsigned valid = 0;
  for (const std::size_t history : {4UL, 40UL, 3100UL, 50000UL})
    for (unsigned context = 0; context <= 4; context++) {
      const Bytes before = preamble(random, history, context);
      for (unsigned t = 0; t < (history > 16384 ? 48U : 256U); t++)
        for (const auto &code : codes)
          for (const std::size_t tail : {0, 1, 100}) {
            if (history > 10000 && tail == 1)
              continue;
            Bytes stream = before;
            append(stream, {t});
            if (t < 16 && context == 0) {
              if (t == 0)
                append(stream, {code[0] | 1});
              append(stream, noise(random, t == 0 ? 18 + (code[0] | 1) : t + 3));
            } else if (t >= 64 || t < 16) {
              append(stream, {code[1]});
              append(stream, noise(random, t & 3));
            } else {
              if ((t & (t >= 32 ? 31 : 7)) == 0)
                append(stream, {1 + code[1] % 255});
              append(stream, {code[0], code[1]});
              append(stream, noise(random, code[0] & 3));
            }
            if (tail != 0) {
              append(stream, {0x40, 0}); // so that a run can follow whatever stood before
              appendRun(stream, noise(random, 3 + tail));
            }
            appendEnd(stream);
            valid += checkAgainstBoth(stream, history + 2000).status == Status::ok;
          }
    }
  g_assert_cmpuint(valid, >, 10000);
}

// The meaning of the three long forms of instructions, stated once more in numbers.
void
testFormsByHand()
{
  struct Form {
    Bytes instruction;
    std::size_t length;
    std::size_t distance;
  };
  const std::vector<Form> forms = {
      {{0x40, 0x00}, 3, 1},
      {{0x5c, 0xff}, 3, 2048},
      {{0xe0, 0x00}, 8, 1},
      {{0xfc, 0xff}, 8, 2048},
      {{0x21, 0x00, 0x00}, 3, 1},
      {{0x3f, 0xfc, 0xff}, 33, 16384},
      {{0x20, 0x01, 0x04, 0x00}, 34, 2},
      {{0x20, 0xff, 0x04, 0x00}, 288, 2},
      {{0x20, 0x00, 0x01, 0x04, 0x00}, 289, 2},
      {{0x11, 0x04, 0x00}, 3, 16385},
      {{0x17, 0xfc, 0xff}, 9, 32767},
      {{0x19, 0x00, 0x00}, 3, 32768},
      {{0x1f, 0xfc, 0xff}, 9, 49151},
      {{0x10, 0x01, 0x04, 0x00}, 10, 16385},
      {{0x18, 0x00, 0xff, 0xfc, 0xff}, 519, 49151},
      {{0x00, 0x00}, 3, 2049}, // after a run
      {{0x0c, 0xff}, 3, 3072},
  };
  Random random = seeded();
  const Bytes history = noise(random, 49151);
  for (const Form &form : forms) {
    Bytes stream;
    appendRun(stream, history);
    append(stream, form.instruction);
    appendEnd(stream);
    Bytes expected = history;
    for (std::size_t i = 0; i < form.length; i++)
      expected.push_back(expected[expected.size() - form.distance]);
    const Decoded own = checkAgainstBoth(stream, expected.size());
    g_assert_true(own.status == Status::ok);
    g_assert_true(own.bytes == expected);
  }
}

// A match of any length from any small distance, in the middle of a stream and at its very end;
// with little room behind it and with so much that more than needed is copied.
void
testOverlappingMatches()
{
  Random random = seeded();
  for (std::size_t distance = 1; distance <= 70; distance++)
    for (std::size_t length = 3; length <= 150; length++)
      for (const std::size_t tail : {0, 4, 120, 2000}) {
        Bytes stream;
        appendRun(stream, noise(random, 75));
        if (length <= 33) {
          append(stream, {static_cast<unsigned>(0x20 | (length - 2))});
        } else {
          append(stream, {0x20});
          appendLengthBytes(stream, length - 33);
        }
        append(stream, {static_cast<unsigned>((distance - 1) << 2 & 0xff),
                        static_cast<unsigned>((distance - 1) >> 6)});
        if (tail != 0)
          appendRun(stream, noise(random, tail));
        appendEnd(stream);
        const Decoded own = checkAgainstBoth(stream, 75 + length + tail);
        g_assert_true(own.status == Status::ok);
        g_assert_cmpuint(own.bytes.size(), ==, 75 + length + tail);
      }
}

void
testRunLengths()
{
  Random random = seeded();
  for (const std::size_t length :
       {1, 3, 4, 17, 18, 19, 237, 238, 239, 240, 272, 273, 274, 528, 5000, 65535, 65536, 100000}) {
    const auto content = noise(random, static_cast<std::size_t>(length));
    for (const bool opening : {true, false}) {
      if (opening ? content.size() > 238 : content.size() < 4)
        continue;
      Bytes stream;
      if (opening) {
        append(stream, {static_cast<unsigned>(17 + content.size())});
        append(stream, content);
      } else {
        appendRun(stream, content);
      }
      appendEnd(stream);
      const Decoded own = checkAgainstBoth(stream, content.size());
      g_assert_true(own.status == Status::ok);
      g_assert_true(own.bytes == content);
      g_assert_true(decode(stream, content.size() - 1).status == Status::outputOverrun);
    }
  }
}

void
testInventedStreams()
{
  Random random = seeded();
  unsigned valid = 0;
  for (unsigned round = 0; round < roundsOf(20000); round++) {
    const Bytes stream = inventedStream(random);
    const Decoded own = checkAgainstBoth(stream, 70000);
    if (own.status != Status::ok)
      continue;
    valid++;
    g_assert_true(checkAgainstBoth(stream, own.bytes.size()) == own);
    if (!own.bytes.empty())
      g_assert_true(decode(stream, own.bytes.size() - 1).status == Status::outputOverrun);
  }
  g_assert_cmpuint(valid, >, 1000);
}

void
testTruncation()
{
  Random random = seeded();
  for (int round = 0; round < 20; round++)
    for (const auto generator : generators) {
      const Bytes content = generator(random, 1 + below(random, 700));
      for (const Bytes &stream : {encode(content), peerEncode(content, true)})
        for (std::size_t size = 0; size < stream.size(); size++) {
          const Bytes part(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(size));
          g_assert_true(decode(part, content.size()).status == Status::inputOverrun);
        }
    }
}

void
testMutations()
{
  Random random = seeded();
  for (int round = 0; round < 12; round++)
    for (const auto generator : generators) {
      const Bytes content = generator(random, 1 + below(random, 150));
      checkMutations(bothEnds[round % 2], encode(content), content.size() + below(random, 40));
      checkMutations(bothEnds[round % 2], peerEncode(content, true),
                     content.size() + below(random, 40));
    }
  for (int round = 0; round < 30; round++) {
    const Bytes stream = inventedStream(random);
    if (stream.size() < 300)
      checkMutations(bothEnds[round % 2], stream, 2000);
  }
}

void
testNoise()
{
  Random random = seeded();
  for (unsigned round = 0; round < roundsOf(100000); round++) {
    Bytes stream = noise(random, below(random, 80));
    if (below(random, 2) == 0)
      appendEnd(stream);
    checkAgainstReference(stream, below(random, 400));
  }
}

void
testBrokenStreams()
{
  g_assert_true(statusOf({}, 10) == Status::inputOverrun);
  g_assert_true(statusOf({0x11, 0, 0}, 0) == Status::ok);
  g_assert_true(statusOf({0x11, 0, 0, 0}, 10) == Status::trailingBytes);
  g_assert_true(statusOf({0x12, 'a', 0x11, 0, 0, 0x11, 0, 0}, 10) == Status::trailingBytes);
  g_assert_true(statusOf({0x12, 'a'}, 10) == Status::inputOverrun);
  g_assert_true(statusOf({0x14, 'a', 'b'}, 10) == Status::inputOverrun);
  g_assert_true(statusOf({0x12, 'a', 0x11, 0}, 10) == Status::inputOverrun);
  g_assert_true(statusOf({0x12, 'a', 0x11, 0, 0}, 0) == Status::outputOverrun);
  g_assert_true(statusOf({0x11, 4, 0, 0x11, 0, 0}, 10) == Status::badDistance);
  g_assert_true(statusOf({0x12, 'a', 0x44, 0, 0x11, 0, 0}, 10) == Status::badDistance);
  g_assert_true(statusOf({0x12, 'a', 0x40, 0, 0x11, 0, 0}, 4) == Status::ok);
  g_assert_true(statusOf({0x12, 'a', 0x40, 0, 0x11, 0, 0}, 3) == Status::outputOverrun);
  g_assert_true(statusOf({0x12, 'a', 0x41, 0, 'b', 0x11, 0, 0}, 5) == Status::ok);
  g_assert_true(statusOf({0x12, 'a', 0x41, 0, 'b', 0x11, 0, 0}, 4) == Status::outputOverrun);
  // The far form with the marker's distance is only valid as the whole marker.
  g_assert_true(statusOf({0x12, 'a', 0x11, 1, 0, 'b'}, 10) == Status::badDistance);
  g_assert_true(statusOf({0x12, 'a', 0x12, 0, 0}, 10) == Status::badDistance);
  g_assert_true(statusOf({0x12, 'a', 0x10, 1, 0, 0}, 10) == Status::badDistance);
}

void
testEndlessLengths()
{
  for (const unsigned opening : {0x00U, 0x20U, 0x10U}) {
    Bytes stream;
    append(stream, {0x12, 'a', 0x40, 0, opening});
    stream.resize(stream.size() + largest, 0);
    g_assert_true(decode(stream, 1000).status == Status::inputOverrun);
    append(stream, {1, 0, 0});
    appendEnd(stream);
    g_assert_true(decode(stream, 1000).status == Status::outputOverrun);
  }
}

void
testEmptyInput()
{
  const Bytes stream = encode({});
  Bytes marker;
  appendEnd(marker);
  g_assert_true(stream == marker);
  const auto none = lzo1x::decode({}, {});
  g_assert_true(none.status == Status::inputOverrun);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_assert_cmpint(lzo_init(), ==, LZO_E_OK);
  g_test_add_func("/lzo1x/round-trip-also-through-liblzo2", testRoundTrip);
  g_test_add_func("/lzo1x/round-trip-of-every-small-size", testEverySmallSize);
  g_test_add_func("/lzo1x/decodes-liblzo2-streams", testPeerStreams);
  g_test_add_func("/lzo1x/writes-only-within-its-room", testRoomIsRespected);
  g_test_add_func("/lzo1x/every-room-succeeds-or-fails-cleanly", testEveryRoom);
  g_test_add_func("/lzo1x/too-little-room-for-large-inputs", testTooLittleRoomForLargeInputs);
  g_test_add_func("/lzo1x/worst-case-holds", testWorstCaseHolds);
  g_test_add_func("/lzo1x/matches-reach-as-far-as-the-format", testReachOfMatches);
  g_test_add_func("/lzo1x/matches-are-found-all-over-large-inputs", testReachInLargeInputs);
  g_test_add_func("/lzo1x/matches-are-found-soon-behind-noise", testBehindNoise);
  g_test_add_func("/lzo1x/keys-change-within-an-input", testChangesOfKeys);
  g_test_add_func("/lzo1x/repeated-shapes-are-found-whole", testRepeatedShapes);
  g_test_add_func("/lzo1x/state-grows-with-input", testStateGrowsWithInput);
  g_test_add_func("/lzo1x/every-instruction-in-every-context", testEveryInstruction);
  g_test_add_func("/lzo1x/forms-by-hand", testFormsByHand);
  g_test_add_func("/lzo1x/overlapping-matches", testOverlappingMatches);
  g_test_add_func("/lzo1x/run-lengths", testRunLengths);
  g_test_add_func("/lzo1x/invented-streams-decode-as-the-reference-does", testInventedStreams);
  g_test_add_func("/lzo1x/truncated-anywhere-is-an-input-overrun", testTruncation);
  g_test_add_func("/lzo1x/sparse-search", testSparseSearch);
  g_test_add_func("/lzo1x/mutations-decode-as-the-reference-does", testMutations);
  g_test_add_func("/lzo1x/noise-decodes-as-the-reference-does", testNoise);
  g_test_add_func("/lzo1x/broken-streams-name-their-fault", testBrokenStreams);
  g_test_add_func("/lzo1x/endless-lengths-are-refused", testEndlessLengths);
  g_test_add_func("/lzo1x/empty-input-is-the-end-marker-alone", testEmptyInput);
  return g_test_run();
}
