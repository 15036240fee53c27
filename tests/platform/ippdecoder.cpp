// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X decoder, and the chunks that it accepts too.
#include "ippsupport.h"

#include <algorithm>

static IppStatus
decodeStatus(const Bytes &payload, std::size_t room)
{
  Bytes out(room + 16, canary);
  auto size = static_cast<Ipp32u>(room);
  const IppStatus status =
      ippsDecodeLZO_8u(payload.data(), static_cast<Ipp32u>(payload.size()), out.data(), &size);
  g_assert_true(isAll(Bytes(out.begin() + static_cast<long>(room), out.end()), canary));
  if (status != ippStsNoErr)
    g_assert_cmpuint(size, ==, room);
  return status;
}

static void
assertBroken(const Bytes &payload, std::size_t room)
{
  g_assert_cmpint(decodeStatus(payload, room), ==, ippStsBrokenStreamErr);
}

// A payload that is not recognised as chunks must decode as a plain stream does.
static void
assertReadAsOneStream(const Bytes &payload, std::size_t room)
{
  bool isOk = false;
  const Bytes expected = lzoDecode(payload, room, &isOk);
  if (isOk)
    assertEqual(decode(payload, room), expected);
  else
    assertBroken(payload, room);
}

struct Chunked {
  Bytes payload;
  std::size_t table; // where the sizes and
  std::size_t data;  // the chunks start
};

static void
append32(Bytes *bytes, std::size_t value)
{
  for (unsigned shift = 0; shift < 32; shift += 8)
    bytes->push_back(static_cast<Ipp8u>(value >> shift));
}

static void
store32(Bytes *bytes, std::size_t at, std::size_t value)
{
  for (unsigned i = 0; i < 4; i++)
    (*bytes)[at + i] = static_cast<Ipp8u>(value >> (8 * i));
}

// The chunked layout over streams of liblzo2's, `shares` being what each chunk holds of `plain`.
static Chunked
makeChunks(const Bytes &plain, const std::vector<std::size_t> &shares)
{
  const std::size_t count = shares.size();
  std::vector<Bytes> streams;
  auto at = plain.begin();
  for (const std::size_t share : shares) {
    streams.push_back(lzoEncode(Bytes(at, at + static_cast<long>(share))));
    at += static_cast<long>(share);
  }
  g_assert_true(at == plain.end());
  Bytes payload = {0x55, static_cast<Ipp8u>(count), static_cast<Ipp8u>(count ^ 0x55)};
  append32(&payload, plain.size());
  for (std::size_t i = 0; i + 1 < count; i++)
    append32(&payload, streams[i].size());
  const std::size_t data = payload.size();
  for (const Bytes &stream : streams)
    payload = concat(payload, stream);
  return {payload, 7, data};
}

static std::vector<std::size_t>
equalShares(std::size_t total, std::size_t count)
{
  std::vector<std::size_t> shares(count, total / count);
  shares.back() += total % count;
  return shares;
}

static Chunked
makeChunks(const Bytes &plain, std::size_t count)
{
  return makeChunks(plain, equalShares(plain.size(), count));
}

static void
testDecoderReadsOneStream()
{
  for (const Bytes &plain : samples()) {
    const Bytes stream = lzoEncode(plain);
    assertEqual(decode(stream, plain.size()), plain);
    assertEqual(decode(stream, plain.size() + 100), plain);
  }
  assertEqual(decode(fromHex("110000"), 0), {});
  assertEqual(decode(fromHex("110000"), 10), {});
  Ipp32u none = 0;
  const Bytes empty = fromHex("110000");
  g_assert_cmpint(ippsDecodeLZO_8u(empty.data(), 3, nullptr, &none), ==, ippStsNoErr);
  g_assert_cmpuint(none, ==, 0);
}

static void
testEmptyPayloadGivesNothing()
{
  Ipp8u out = canary;
  for (const Ipp32u room : {0U, 1U, 1000U}) {
    Ipp32u size = room;
    g_assert_cmpint(ippsDecodeLZO_8u(nullptr, 0, nullptr, &size), ==, ippStsNoErr);
    g_assert_cmpuint(size, ==, 0);
    size = room;
    g_assert_cmpint(ippsDecodeLZO_8u(&out, 0, &out, &size), ==, ippStsNoErr);
    g_assert_cmpuint(size, ==, 0);
  }
  g_assert_cmpint(out, ==, canary);
}

static void
testOutputBeyondTheRoomIsABrokenStream()
{
  for (const std::size_t size : {1U, 4U, 68U, 300U, 5000U})
    for (const Bytes &plain : {randomBytes(size, 50), compressibleBytes(size, 51)}) {
      const std::size_t step = std::max<std::size_t>(1, size / 100);
      for (std::size_t room = 0; room < size; room += step) {
        assertBroken(lzoEncode(plain), room);
        assertBroken(makeChunks(plain, 4).payload, room);
      }
      assertBroken(lzoEncode(plain), size - 1);
      assertBroken(makeChunks(plain, 4).payload, size - 1);
    }
}

static void
testTruncatedAndProlongedStreamsAreBroken()
{
  const Bytes plain = compressibleBytes(2000, 52);
  const Bytes stream = lzoEncode(plain);
  for (std::size_t size = 1; size < stream.size(); size++)
    assertBroken(Bytes(stream.begin(), stream.begin() + static_cast<long>(size)), 2000);
  for (const Ipp8u tail : {Ipp8u{0}, Ipp8u{0x11}, Ipp8u{0xff}})
    assertBroken(concat(stream, {tail}), 3000);
  assertBroken(concat(stream, stream), 5000);
}

static void
testChunksAreDecoded()
{
  for (std::size_t count = 1; count <= 32; count++) {
    const std::size_t totals[] = {0,    1,    count - 1, count,     count + 1, 2 * count - 1,
                                  1000, 4097, 65'537,    count * 64};
    for (const std::size_t total : totals)
      for (const Bytes &plain : {randomBytes(total, 53), compressibleBytes(total, 54)}) {
        const Bytes payload = makeChunks(plain, count).payload;
        assertEqual(decode(payload, total), plain);
        assertEqual(decode(payload, total + 33), plain);
      }
  }
}

static void
testChunkCountsOutOfRangeAreNoChunks()
{
  const Bytes plain = randomBytes(3300, 55);
  for (const std::size_t count : {33U, 64U, 255U})
    assertReadAsOneStream(makeChunks(plain, count).payload, plain.size());
  Bytes none = makeChunks(plain, 1).payload;
  none[1] = 0;
  none[2] = 0x55;
  assertReadAsOneStream(none, plain.size());
  assertBroken(none, plain.size());
}

static void
testCorruptedHeadersAreNotTakenForChunks()
{
  const Bytes plain = randomBytes(3001, 56);
  for (const std::size_t count : {1U, 2U, 7U, 32U}) {
    const Chunked chunked = makeChunks(plain, count);
    for (std::size_t at = 0; at < 3; at++)
      for (unsigned change = 1; change < 256; change++) {
        Bytes payload = chunked.payload;
        payload[at] ^= static_cast<Ipp8u>(change);
        assertReadAsOneStream(payload, plain.size());
        assertReadAsOneStream(payload, 4000);
      }
  }
}

// Bytes 1 and 2 changed together make a header of another count of chunks.
static void
testLyingChunkCountsAreBroken()
{
  const Bytes plain = randomBytes(3001, 57);
  for (const std::size_t count : {1U, 2U, 7U, 32U})
    for (std::size_t lie = 1; lie <= 32; lie++) {
      Bytes payload = makeChunks(plain, count).payload;
      payload[1] = static_cast<Ipp8u>(lie);
      payload[2] = static_cast<Ipp8u>(lie ^ 0x55);
      if (lie != count)
        assertBroken(payload, 4000);
    }
}

static void
testLyingTotalsAreBroken()
{
  const Bytes plain = randomBytes(3001, 58);
  for (const std::size_t count : {1U, 2U, 7U, 32U}) {
    const Chunked chunked = makeChunks(plain, count);
    for (std::size_t at = 3; at < 7; at++)
      for (unsigned change = 1; change < 256; change++) {
        Bytes payload = chunked.payload;
        payload[at] ^= static_cast<Ipp8u>(change);
        assertBroken(payload, plain.size());
        assertBroken(payload, 70'000);
      }
    for (const std::size_t total : {std::size_t{0}, plain.size() - 1, plain.size() + 1,
                                    std::size_t{0x7fff'ffffU}, std::size_t{0xffff'ffffU}}) {
      Bytes payload = chunked.payload;
      store32(&payload, 3, total);
      assertBroken(payload, 70'000);
    }
  }
}

static void
testLyingChunkSizesAreBroken()
{
  const Bytes plain = randomBytes(3001, 59);
  for (const std::size_t count : {2U, 3U, 7U, 32U}) {
    const Chunked chunked = makeChunks(plain, count);
    for (std::size_t at = chunked.table; at < chunked.data; at++)
      for (unsigned change = 1; change < 256; change++) {
        Bytes payload = chunked.payload;
        payload[at] ^= static_cast<Ipp8u>(change);
        // Without its first size a payload is not recognised.
        at < chunked.table + 4 ? assertReadAsOneStream(payload, 4000) : assertBroken(payload, 4000);
      }
    for (std::size_t i = 0; i + 1 < count; i++)
      for (const std::size_t lie :
           {0U, 1U, 2U, 3U, 0x7fff'ffffU, 0x8000'0000U, 0xffff'fff9U, 0xffff'fffdU, 0xffff'ffffU}) {
        Bytes payload = chunked.payload;
        store32(&payload, chunked.table + 4 * i, lie);
        i == 0 ? assertReadAsOneStream(payload, 4000) : assertBroken(payload, 4000);
      }
  }
}

// The sizes agree with the streams and the total with the output; only the shares differ.
static void
testChunksOfOtherSharesAreBroken()
{
  const Bytes plain = randomBytes(400, 60);
  assertEqual(decode(makeChunks(plain, {100, 100, 100, 100}).payload, 400), plain);
  const std::vector<std::size_t> others[] = {
      {101, 99, 100, 100}, {99, 101, 100, 100}, {100, 100, 101, 99}, {400, 0, 0, 0}, {0, 0, 0, 400},
  };
  for (const std::vector<std::size_t> &shares : others)
    for (const std::size_t room : {400U, 1000U})
      assertBroken(makeChunks(plain, shares).payload, room);
}

static void
testTruncatedAndProlongedChunksAreBroken()
{
  const Bytes plain = randomBytes(900, 61);
  for (const std::size_t count : {1U, 2U, 5U, 32U}) {
    const Bytes payload = makeChunks(plain, count).payload;
    for (std::size_t size = 1; size < payload.size(); size++)
      assertReadAsOneStream(Bytes(payload.begin(), payload.begin() + static_cast<long>(size)), 900);
    if (count == 1)
      assertReadAsOneStream(concat(payload, {0}), 900);
    else
      assertBroken(concat(payload, {0}), 900);
    assertBroken(concat(payload, fromHex("110000")), 1000);
  }
}

static void
testCorruptedChunkDataStaysInsideItsRoom()
{
  const Bytes plain = compressibleBytes(1500, 62);
  GRand *rand = g_rand_new_with_seed(63);
  for (const std::size_t count : {1U, 3U, 32U}) {
    const Bytes payload = makeChunks(plain, count).payload;
    for (int i = 0; i < 5000; i++) {
      Bytes corrupt = payload;
      for (int change = g_rand_int_range(rand, 1, 4); change > 0; change--)
        corrupt[static_cast<std::size_t>(g_rand_int_range(
            rand, 3, static_cast<int>(corrupt.size())))] = static_cast<Ipp8u>(g_rand_int(rand));
      const IppStatus status = decodeStatus(corrupt, plain.size());
      g_assert_true(status == ippStsNoErr || status == ippStsBrokenStreamErr);
    }
  }
  g_rand_free(rand);
}

// A plain stream of 68 literals whose first bytes are the header of two chunks: it is one stream
// unless an end marker stands where the size of the first chunk says.
static void
testStreamsLikeChunksAreReadAsOneStream()
{
  Bytes plain = likeChunks(2, 68);
  const std::size_t rest = 72 - 11; // of the stream, behind header and table
  for (const std::size_t first : {std::size_t{0}, std::size_t{2}, rest + 1, std::size_t{72},
                                  std::size_t{0xffff'fff5U}, std::size_t{0xffff'ffffU}}) {
    store32(&plain, 6, first);
    const Bytes stream = concat(concat({0x55}, plain), fromHex("110000"));
    assertEqual(lzoDecode(stream, 68), plain);
    assertEqual(decode(stream, 68), plain);
  }
  for (std::size_t first = 3; first < rest; first++) {
    store32(&plain, 6, first);
    assertEqual(decode(concat(concat({0x55}, plain), fromHex("110000")), 68), plain);
  }
  store32(&plain, 6, rest);
  assertBroken(concat(concat({0x55}, plain), fromHex("110000")), 68);
}

// A plain stream that starts like a single chunk, and is one of the same size too: nothing tells
// where a single chunk ends, so what decodes to just the room is the plain stream.
static void
testStreamsWinOverASingleChunk()
{
  Bytes plain = fromHex("0154440000004a4142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e"
                        "5f606162636465666768696a6b6c6d6e6f70717273747576777879280d0021");
  const Bytes stream = lzoEncode(plain);
  assertEqual(stream, concat(concat({0x55}, plain), fromHex("110000")));
  const Bytes chunk = lzoDecode(Bytes(stream.begin() + 7, stream.end()), 68);
  g_assert_cmpuint(chunk.size(), ==, 68);
  g_assert_true(chunk != plain);
  assertEqual(decode(stream, 68), plain);
  assertEqual(decode(stream, 69), chunk);
  assertBroken(stream, 67);

  // A chunk that does not decode is a plain stream in a larger room too.
  store32(&plain, 2, 69);
  assertEqual(decode(concat(concat({0x55}, plain), fromHex("110000")), 69), plain);
}

static void
testDecoderRefusesBadArguments()
{
  const Bytes stream = lzoEncode(Bytes(10, 'x'));
  const auto size = static_cast<Ipp32u>(stream.size());
  Bytes out(10, canary);
  Ipp32u room = 10;
  g_assert_cmpint(ippsDecodeLZO_8u(nullptr, size, out.data(), &room), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsDecodeLZO_8u(stream.data(), size, nullptr, &room), ==, ippStsNullPtrErr);
  g_assert_cmpint(ippsDecodeLZO_8u(stream.data(), size, out.data(), nullptr), ==, ippStsNullPtrErr);
  g_assert_cmpuint(room, ==, 10);
  g_assert_true(isAll(out, canary));
}

void
addDecoderTests()
{
  g_test_add_func("/decoder/reads-one-stream", testDecoderReadsOneStream);
  g_test_add_func("/decoder/empty-payload-gives-nothing", testEmptyPayloadGivesNothing);
  g_test_add_func("/decoder/output-beyond-the-room", testOutputBeyondTheRoomIsABrokenStream);
  g_test_add_func("/decoder/damaged-streams-are-broken", testTruncatedAndProlongedStreamsAreBroken);
  g_test_add_func("/decoder/refuses-bad-arguments", testDecoderRefusesBadArguments);
  g_test_add_func("/chunks/are-decoded", testChunksAreDecoded);
  g_test_add_func("/chunks/counts-out-of-range", testChunkCountsOutOfRangeAreNoChunks);
  g_test_add_func("/chunks/corrupted-headers", testCorruptedHeadersAreNotTakenForChunks);
  g_test_add_func("/chunks/lying-counts-are-broken", testLyingChunkCountsAreBroken);
  g_test_add_func("/chunks/lying-totals-are-broken", testLyingTotalsAreBroken);
  g_test_add_func("/chunks/lying-sizes-are-broken", testLyingChunkSizesAreBroken);
  g_test_add_func("/chunks/other-shares-are-broken", testChunksOfOtherSharesAreBroken);
  g_test_add_func("/chunks/damaged-layouts-are-broken", testTruncatedAndProlongedChunksAreBroken);
  g_test_add_func("/chunks/corrupted-data-stays-inside", testCorruptedChunkDataStaysInsideItsRoom);
  g_test_add_func("/chunks/streams-that-look-like-chunks", testStreamsLikeChunksAreReadAsOneStream);
  g_test_add_func("/chunks/streams-win-over-a-single-chunk", testStreamsWinOverASingleChunk);
}
