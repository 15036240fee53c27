// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X codec on machines of any word size and byte order: needs nothing but the codec and a
// C++ library. What liblzo2 and our encoder wrote on another machine comes in a file of
// tests/codec/lzo1xgolden.cpp.
#include "codec/lzo1x/lzo1x.h"
#include "tests/codec/lzo1xreference.h"
#include "tests/codec/lzo1xsamples.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

using lzo1x::Status;

namespace
{

bool failed;

#define EXPECT(condition)                                                                          \
  do {                                                                                             \
    if (!(condition)) {                                                                            \
      std::printf("# line %d: %s\n", __LINE__, #condition);                                        \
      failed = true;                                                                               \
      return;                                                                                      \
    }                                                                                              \
  } while (0)

// A block that ends where memory ends.
class Guarded
{
public:
  explicit Guarded(std::size_t capacity)
  {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t inner = (capacity + page) / page * page;
    void *const mapped =
        mmap(nullptr, inner + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
      std::abort();
    end = static_cast<std::uint8_t *>(mapped) + inner;
    if (mprotect(end, page, PROT_NONE) != 0)
      std::abort();
  }

  std::span<std::uint8_t>
  block(std::size_t size)
  {
    return {end - size, size};
  }

private:
  std::uint8_t *end;
};

constexpr std::size_t largest = 1 << 20;

struct Decoded {
  Status status;
  Bytes bytes;
};

Decoded
decode(const Bytes &stream, std::size_t room)
{
  static Guarded readSide(largest);
  static Guarded writeSide(largest);
  const auto in = readSide.block(stream.size());
  const auto out = writeSide.block(room);
  std::copy(stream.begin(), stream.end(), in.begin());
  const auto result = lzo1x::decode(in, out);
  return {result.status, Bytes(out.data(), out.data() + result.size)};
}

void
checkStream(const Bytes &stream, const Bytes &content)
{
  const Decoded own = decode(stream, content.size());
  EXPECT(own.status == Status::ok);
  EXPECT(own.bytes == content);
  EXPECT(decode(stream, content.size() + 100).bytes == content);
}

void
checkAgainstReference(const Bytes &stream, std::size_t room)
{
  const Decoded own = decode(stream, room);
  const auto plain = referenceDecode(stream.data(), stream.size(), room);
  EXPECT((own.status == Status::ok) == plain.has_value());
  EXPECT(!plain.has_value() || own.bytes == *plain);
}

bool
take(std::FILE *file, Bytes &bytes)
{
  std::uint8_t size[4];
  if (std::fread(size, 1, 4, file) != 4)
    return false;
  bytes.resize(size[0] | size[1] << 8 | size[2] << 16 | static_cast<std::uint32_t>(size[3]) << 24);
  return std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
}

const char *goldenPath;

void
checkRoundTrip(const Bytes &content)
{
  const Bytes stream = encoded(content);
  checkStream(stream, content);
  const auto plain = referenceDecode(stream.data(), stream.size(), content.size());
  EXPECT(plain.has_value() && *plain == content);
  if (!content.empty())
    EXPECT(decode(stream, content.size() - 1).status == Status::outputOverrun);
}

void
testGoldenStreams()
{
  std::FILE *const file = std::fopen(goldenPath, "rb");
  EXPECT(file != nullptr);
  unsigned count = 0;
  for (Bytes content; !failed && take(file, content); count++) {
    Bytes quick, best, ours;
    EXPECT(take(file, quick) && take(file, best) && take(file, ours));
    for (const Bytes &stream : {quick, best, ours})
      checkStream(stream, content);
    // The encoder writes the same bytes on every machine.
    EXPECT(encoded(content) == ours);
  }
  std::fclose(file);
  EXPECT(count >= 40);
}

void
testRoundTrips()
{
  Random random(2);
  for (std::size_t size = 0; size < 300 && !failed; size++)
    for (const auto generator : generators)
      checkRoundTrip(generator(random, size));
  for (const std::size_t size : {1499, 1501, 4096, 65555, 65556, 65557, 131072, 300000})
    for (const auto generator : generators)
      checkRoundTrip(generator(random, size));
}

// Any small distance and length, with little and with much room behind.
void
testOverlappingMatches()
{
  Random random(3);
  for (unsigned distance = 1; distance <= 34 && !failed; distance++)
    for (unsigned length = 3; length <= 80; length++)
      for (const std::size_t tail : {0, 30, 1600}) {
        Bytes stream = {17 + 40};
        const Bytes before = noise(random, 40);
        stream.insert(stream.end(), before.begin(), before.end());
        stream.push_back(static_cast<std::uint8_t>(length <= 33 ? 0x20 | (length - 2) : 0x20));
        if (length > 33)
          stream.push_back(static_cast<std::uint8_t>(length - 33));
        stream.push_back(static_cast<std::uint8_t>((distance - 1) << 2));
        stream.push_back(static_cast<std::uint8_t>((distance - 1) >> 6));
        for (std::size_t left = tail; left > 0; left -= std::min<std::size_t>(left, 8))
          stream.insert(stream.end(), {0xfc, 0}); // 8 bytes from 8 before
        stream.insert(stream.end(), {0x11, 0, 0});
        checkAgainstReference(stream, 40 + length + tail + 7);
        checkAgainstReference(stream, 40 + length + (tail + 7) / 8 * 8);
      }
}

void
testMutations()
{
  Random random(4);
  for (const auto generator : generators)
    for (const std::size_t size : {40, 120}) {
      const Bytes content = generator(random, size);
      Bytes stream = encoded(content);
      for (auto &byte : stream)
        for (unsigned change = 1; change < 256 && !failed; change += 1 + random() % 8) {
          byte = static_cast<std::uint8_t>(byte ^ change);
          checkAgainstReference(stream, size + 20);
          byte = static_cast<std::uint8_t>(byte ^ change);
        }
    }
}

void
testTruncation()
{
  Random random(5);
  for (const auto generator : generators) {
    const Bytes content = generator(random, 400);
    const Bytes stream = encoded(content);
    for (std::size_t size = 0; size < stream.size(); size++)
      EXPECT(decode(Bytes(stream.data(), stream.data() + size), 400).status ==
             Status::inputOverrun);
  }
}

void
testNoise()
{
  Random random(6);
  for (unsigned round = 0; round < 20000 && !failed; round++) {
    Bytes stream = noise(random, below(random, 80));
    if (round % 2 == 0)
      stream.insert(stream.end(), {0x11, 0, 0});
    checkAgainstReference(stream, below(random, 400));
  }
}

} // namespace

int
main(int argc, char **argv)
{
  if (argc != 2) {
    std::fprintf(stderr, "usage: lzo1xportable FILE\n");
    return 2;
  }
  goldenPath = argv[1];
  const struct {
    const char *name;
    void (*run)();
  } cases[] = {{"golden-streams", testGoldenStreams},
               {"round-trips", testRoundTrips},
               {"overlapping-matches", testOverlappingMatches},
               {"mutations", testMutations},
               {"truncation", testTruncation},
               {"noise", testNoise}};
  std::printf("1..%zu\n", std::size(cases));
  int status = 0;
  unsigned number = 0;
  for (const auto &one : cases) {
    failed = false;
    one.run();
    std::printf("%sok %u %s\n", failed ? "not " : "", ++number, one.name);
    std::fflush(stdout);
    if (failed)
      status = 1;
  }
  return status;
}
