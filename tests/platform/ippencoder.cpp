// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X encoder.
#include "ippsupport.h"
#include "codec/lzo1x/lzo1x.h"

static Ipp32u
stateSize(Ipp32u maxInput, IppLZOMethod method = IppLZO1XMT)
{
  Ipp32u size = 0;
  g_assert_cmpint(ippsEncodeLZOGetSize(method, maxInput, &size), ==, ippStsNoErr);
  g_assert_cmpuint(size, >, 0);
  return size;
}

class State : public Memory<IppLZOState_8u>
{
public:
  explicit State(std::size_t maxInput, IppLZOMethod method = IppLZO1XMT)
      : Memory(stateSize(static_cast<Ipp32u>(maxInput), method), 0xe7)
  {
    g_assert_cmpint(ippsEncodeLZOInit_8u(method, static_cast<Ipp32u>(maxInput), get()), ==,
                    ippStsNoErr);
  }
};

static Bytes
encode(const Bytes &plain, IppLZOMethod method = IppLZO1XMT)
{
  State state(plain.size(), method);
  Bytes out(lzo1x::worstCase(plain.size()) + 2, canary);
  auto size = static_cast<Ipp32u>(out.size() - 1);
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(plain.size()), out.data(),
                                   &size, state.get()),
                  ==, ippStsNoErr);
  g_assert_cmpint(out.back(), ==, canary);
  out.resize(size);
  return out;
}

static void
assertTooSmall(const Bytes &plain, std::size_t room)
{
  State state(plain.size());
  Bytes out(plain.size() + 100, canary);
  auto size = static_cast<Ipp32u>(room);
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(plain.size()), out.data(),
                                   &size, state.get()),
                  ==, ippStsDstSizeLessExpected);
  g_assert_cmpuint(size, ==, room);
  g_assert_true(isAll(Bytes(out.begin() + static_cast<long>(room), out.end()), canary));
}

// Also for the method that is asked for chunks: the payload is one stream up to its last byte.
static void
testEncoderWritesOneStream()
{
  for (const IppLZOMethod method : {IppLZO1XST, IppLZO1XMT})
    for (const Bytes &plain : samples()) {
      const Bytes stream = encode(plain, method);
      g_assert_cmpuint(stream.size(), >, 3);
      g_assert_cmpmem(&stream[stream.size() - 3], 3, "\x11\0\0", 3);
      assertEqual(lzoDecode(stream, plain.size()), plain);
      assertEqual(decode(stream, plain.size()), plain);
    }
}

static void
testEncoderCompresses()
{
  g_assert_cmpuint(encode(Bytes(100'000, 'x')).size(), <, 1000);
  g_assert_cmpuint(encode(compressibleBytes(100'000, 43)).size(), <, 80'000);
}

static void
testEmptySourceGivesNothing()
{
  Ipp8u out = canary;
  for (const std::size_t maxInput : {0U, 1000U})
    for (const Ipp32u room : {0U, 1U, 1000U}) {
      State state(maxInput);
      Ipp32u size = room;
      g_assert_cmpint(ippsEncodeLZO_8u(nullptr, 0, nullptr, &size, state.get()), ==, ippStsNoErr);
      g_assert_cmpuint(size, ==, 0);
      size = room;
      g_assert_cmpint(ippsEncodeLZO_8u(&out, 0, &out, &size, state.get()), ==, ippStsNoErr);
      g_assert_cmpuint(size, ==, 0);
    }
  g_assert_cmpint(out, ==, canary);
}

static void
testStateGrowsWithTheAnnouncedInput()
{
  Ipp32u last = 0;
  for (Ipp32u maxInput = 0; maxInput < (1U << 24); maxInput = maxInput * 2 + 1) {
    const Ipp32u size = stateSize(maxInput);
    g_assert_cmpuint(size, >=, last);
    last = size;
  }
  g_assert_cmpuint(stateSize(0), <=, 4096);
  g_assert_cmpuint(stateSize(4), <=, 4096);
  g_assert_cmpuint(stateSize(G_MAXUINT32), >, stateSize(4));
}

static void
testLongerSourceThanAnnouncedIsRefused()
{
  const Bytes plain = randomBytes(501, 44);
  Bytes out(1000, canary);
  State state(500);
  Ipp32u size = 1000;
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), 501, out.data(), &size, state.get()), ==,
                  ippStsLengthErr);
  g_assert_cmpuint(size, ==, 1000);
  g_assert_true(isAll(out, canary));
  g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), 500, out.data(), &size, state.get()), ==,
                  ippStsNoErr);
  assertEqual(lzoDecode(Bytes(out.begin(), out.begin() + size), 500),
              Bytes(plain.begin(), plain.end() - 1));
}

static void
testStateServesManySources()
{
  State state(5000);
  for (const std::size_t size : {5000U, 1U, 300U, 4999U, 5000U}) {
    const Bytes plain = compressibleBytes(size, static_cast<guint32>(size));
    Bytes out(lzo1x::worstCase(size));
    auto count = static_cast<Ipp32u>(out.size());
    g_assert_cmpint(
        ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(size), out.data(), &count, state.get()),
        ==, ippStsNoErr);
    out.resize(count);
    assertEqual(lzoDecode(out, size), plain);
  }
}

static void
testTooSmallRoomIsReported()
{
  for (const std::size_t size : {1U, 4U, 40U, 68U, 100U, 700U})
    for (const Bytes &plain : {randomBytes(size, 45), compressibleBytes(size, 46)}) {
      const Bytes stream = encode(plain);
      for (std::size_t room = 0; room < stream.size(); room++)
        assertTooSmall(plain, room);
      State state(size);
      Bytes out(stream.size() + 1, canary);
      auto count = static_cast<Ipp32u>(stream.size());
      g_assert_cmpint(ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(size), out.data(), &count,
                                       state.get()),
                      ==, ippStsNoErr);
      g_assert_cmpint(out.back(), ==, canary);
      out.resize(count);
      assertEqual(out, stream);
    }
}

// A caller may announce more room than it has, as long as the worst case fits in.
static void
testLyingRoomIsNotUsed()
{
  for (const std::size_t size : {1U, 3U, 39U, 40U, 67U, 238U, 239U, 1000U, 70'000U}) {
    const Bytes plain = randomBytes(size, 47);
    State state(size);
    const std::size_t most = lzo1x::worstCase(size);
    Bytes out(most + 4096, canary);
    Ipp32u count = G_MAXUINT32;
    g_assert_cmpint(
        ippsEncodeLZO_8u(plain.data(), static_cast<Ipp32u>(size), out.data(), &count, state.get()),
        ==, ippStsNoErr);
    g_assert_cmpuint(count, <=, most);
    g_assert_true(isAll(Bytes(out.begin() + static_cast<long>(most), out.end()), canary));
    out.resize(count);
    assertEqual(lzoDecode(out, size), plain);
  }
}

static void
testStreamsNeverStartLikeChunks()
{
  for (const std::size_t size : {68U, 80U, 110U, 500U}) {
    unsigned longRuns = 0;
    for (unsigned count = 0; count < 256; count++) {
      const Bytes plain = likeChunks(static_cast<Ipp8u>(count), size);
      const Bytes stream = encode(plain);
      const bool startsLikeChunks =
          stream[0] == 0x55 && stream[1] >= 1 && stream[1] <= 32 && stream[2] == (stream[1] ^ 0x55);
      g_assert_false(startsLikeChunks);
      longRuns += stream[0] == 0 && stream[1] == 50 ? 1 : 0;
      assertEqual(decode(stream, size), plain);
      assertEqual(lzoDecode(stream, size), plain);
    }
    // An encoder need not find the match that ends the first run in every one of the 32, nor look
    // for one so near to the end as in 80 bytes.
    g_assert_cmpuint(longRuns, <=, 32);
    if (size != 80)
      g_assert_cmpuint(longRuns, >=, size == 68 ? 32 : 16);
  }
}

static void
testStreamsLikeChunksStayInsideTheRoom()
{
  const Bytes plain = likeChunks(1, 68);
  const Bytes stream = encode(plain);
  g_assert_cmpuint(stream.size(), ==, 73);
  // Ten bytes for each hundred is what the compressor sets aside.
  g_assert_cmpuint(stream.size(), <=, plain.size() + plain.size() / 10);
  for (const std::size_t room : {71U, 72U})
    assertTooSmall(plain, room);
}

static void
testEncoderRefusesBadArguments()
{
  Bytes plain(100);
  Bytes out(200, canary);
  Ipp32u size = 200;
  State state(100);
  IppLZOState_8u *valid = state.get();
  const auto call = [&](const Ipp8u *src, Ipp8u *dst, Ipp32u *count, IppLZOState_8u *memory) {
    return ippsEncodeLZO_8u(src, 100, dst, count, memory);
  };
  g_assert_cmpint(call(nullptr, out.data(), &size, valid), ==, ippStsNullPtrErr);
  g_assert_cmpint(call(plain.data(), nullptr, &size, valid), ==, ippStsNullPtrErr);
  g_assert_cmpint(call(plain.data(), out.data(), nullptr, valid), ==, ippStsNullPtrErr);
  g_assert_cmpint(call(plain.data(), out.data(), &size, nullptr), ==, ippStsNullPtrErr);
  Memory<IppLZOState_8u> blank(stateSize(100), 0);
  g_assert_cmpint(call(plain.data(), out.data(), &size, blank.get()), ==, ippStsContextMatchErr);
  g_assert_cmpuint(size, ==, 200);
  g_assert_true(isAll(out, canary));

  g_assert_cmpint(ippsEncodeLZOGetSize(IppLZO1XMT, 100, nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsEncodeLZOInit_8u(IppLZO1XMT, 100, nullptr), ==, ippStsNullPtrErr);
  for (const int method : {-1, 2, G_MAXINT}) {
    const auto unknown = static_cast<IppLZOMethod>(method);
    g_assert_cmpint(ippsEncodeLZOGetSize(unknown, 100, &size), ==, ippStsBadArgErr);
    g_assert_cmpint(ippsEncodeLZOInit_8u(unknown, 100, blank.get()), ==, ippStsBadArgErr);
  }
  g_assert_cmpuint(size, ==, 200);
  g_assert_cmpint(call(plain.data(), out.data(), &size, blank.get()), ==, ippStsContextMatchErr);
}

void
addEncoderTests()
{
  g_test_add_func("/encoder/writes-one-stream", testEncoderWritesOneStream);
  g_test_add_func("/encoder/compresses", testEncoderCompresses);
  g_test_add_func("/encoder/empty-source-gives-nothing", testEmptySourceGivesNothing);
  g_test_add_func("/encoder/state-grows-with-the-input", testStateGrowsWithTheAnnouncedInput);
  g_test_add_func("/encoder/longer-source-is-refused", testLongerSourceThanAnnouncedIsRefused);
  g_test_add_func("/encoder/state-serves-many-sources", testStateServesManySources);
  g_test_add_func("/encoder/too-small-room-is-reported", testTooSmallRoomIsReported);
  g_test_add_func("/encoder/lying-room-is-not-used", testLyingRoomIsNotUsed);
  g_test_add_func("/encoder/never-starts-like-chunks", testStreamsNeverStartLikeChunks);
  g_test_add_func("/encoder/like-chunks-inside-the-room", testStreamsLikeChunksStayInsideTheRoom);
  g_test_add_func("/encoder/refuses-bad-arguments", testEncoderRefusesBadArguments);
}
