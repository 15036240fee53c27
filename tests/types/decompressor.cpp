// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/blocks.h"
#include "tests/types/convertercontract.h"

#include <zelgvc/zelgvc.h>

#include <algorithm>
#include <set>
#include <thread>

using namespace support;
using contract::input_over;
using contract::script_of;
using contract::stream_fails;

namespace
{

constexpr gsize mib = 1 << 20;
const Bytes end_marker = {0x11, 0, 0};

Ref<GvcDecompressor>
new_decompressor()
{
  auto decompressor = own(gvc_decompressor_new());
  g_assert_true(GVC_IS_DECOMPRESSOR(decompressor.get()));
  return decompressor;
}

void
assert_opens(GvcDecompressor *decompressor, ByteView wire, ByteView plain)
{
  const Conversion c = convert(decompressor, wire, plain.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, wire.size(), plain.size());
  ASSERT_BYTES(c.produced(), plain);
}

// One block around a payload, with a truthful header.
Bytes
block_of(ByteView payload, gsize plain_size)
{
  return raw_block(payload.size(), plain_size, payload);
}

/* ---- Type and lifetime ---- */

void
test_type()
{
  contract::is_a_plain_converter(GVC_TYPE_DECOMPRESSOR, "GvcDecompressor",
                                 sizeof(GvcDecompressorClass), sizeof(GvcDecompressor));
}

void
test_new_gives_one_reference()
{
  contract::gives_one_reference(own(G_CONVERTER(gvc_decompressor_new())),
                                [](gpointer decompressor) {
                                  const Bytes plain = sample(Kind::text, 1000);
                                  assert_opens(GVC_DECOMPRESSOR(decompressor), block(plain), plain);
                                });
}

/* ---- Blocks of liblzo2 ---- */

void
test_blocks_of_liblzo2(gconstpointer data)
{
  const auto effort = static_cast<Effort>(GPOINTER_TO_INT(data));
  const auto decompressor = new_decompressor();
  for (Kind kind : all_kinds) {
    for (gsize size = 0; size <= 300; size++) {
      const Bytes plain = sample(kind, size, size);
      assert_opens(decompressor.get(), block(plain, effort), plain);
    }
    for (gsize size : {2047, 2048, 2049, 4096, 16383, 16384, 16385, 49150, 49151, 49152, 65535,
                       65536, 65537, 300001, 1 << 20}) {
      const Bytes plain = sample(kind, size, size);
      assert_opens(decompressor.get(), block(plain, effort), plain);
    }
  }
}

void
test_many_random_blocks()
{
  const auto decompressor = new_decompressor();
  std::mt19937 random{12};
  for (guint i = 0; i < 2000; i++) {
    const gsize limit = gsize{1} << (random() % 15);
    const Bytes plain = sample(all_kinds[random() % 5], random() % limit, random());
    assert_opens(decompressor.get(), block(plain, i % 8 == 0 ? Effort::best : Effort::fast), plain);
  }
}

void
test_repeats_at_every_kind_of_distance()
{
  const auto decompressor = new_decompressor();
  for (gsize distance : {1, 2, 3, 8, 255, 256, 2047, 2048, 2049, 3071, 3072, 3073, 16383, 16384,
                         16385, 32767, 32768, 49150, 49151})
    for (gsize length : {2, 3, 4, 8, 9, 33, 34, 264, 265, 5000}) {
      Bytes plain = sample(Kind::noise, distance, distance + length);
      for (gsize i = 0; i < length; i++)
        plain.push_back(plain[plain.size() - distance]);
      assert_opens(decompressor.get(), block(plain, Effort::fast), plain);
      if (length > 9)
        assert_opens(decompressor.get(), block(plain, Effort::best), plain);
    }
}

void
test_empty_block()
{
  const auto decompressor = new_decompressor();
  const Bytes empty(8, 0);
  for (gsize room : {0, 1, 100}) {
    ASSERT_CONVERTED(convert(decompressor.get(), empty, room), G_CONVERTER_CONVERTED, 8, 0);
    ASSERT_CONVERTED(convert(decompressor.get(), empty, room, G_CONVERTER_INPUT_AT_END),
                     G_CONVERTER_FINISHED, 8, 0);
  }
  // A payload that holds an end marker and nothing else is empty as well.
  ASSERT_CONVERTED(convert(decompressor.get(), block_of(end_marker, 0), 0), G_CONVERTER_CONVERTED,
                   11, 0);
}

/* ---- The chunked layout ---- */

void
test_chunked_payloads()
{
  const auto decompressor = new_decompressor();
  for (gsize size : {100, 101, 4096, 100003})
    for (Kind kind : {Kind::text, Kind::noise, Kind::zeros})
      for (guint n = 1; n <= 32; n++) {
        const Bytes plain = sample(kind, size, n);
        const Effort effort = n % 4 == 0 && size < 5000 ? Effort::best : Effort::fast;
        const Bytes wire = block_of(chunked_payload(plain, n, effort), size);
        assert_opens(decompressor.get(), wire, plain);
        ASSERT_FAILED(convert(decompressor.get(), wire, size - 1), G_IO_ERROR_NO_SPACE,
                      "Not enough space");
      }
}

// A literal run whose count and first bytes look like the start of the chunked layout.
void
test_plain_payload_that_looks_chunked()
{
  const auto decompressor = new_decompressor();
  for (guint n = 1; n <= 33; n++) {
    Bytes plain = sample(Kind::noise, 0x55 - 17, n);
    plain[0] = static_cast<guint8>(n);
    plain[1] = static_cast<guint8>(n ^ 0x55);
    const Bytes start = {0x55};
    const Bytes payload = join({start, plain, end_marker});
    const std::optional<Bytes> decoded = lzo2_decompress(payload, plain.size());
    g_assert_true(decoded.has_value());
    ASSERT_BYTES(*decoded, plain);
    assert_opens(decompressor.get(), block_of(payload, plain.size()), plain);
  }
}

void
test_broken_chunked_payloads()
{
  const auto decompressor = new_decompressor();
  const Bytes plain = sample(Kind::text, 4000);
  const Bytes payload = chunked_payload(plain, 4);
  assert_opens(decompressor.get(), block_of(payload, 4000), plain);
  auto assert_broken = [&](ByteView broken, gsize dest_size) {
    ASSERT_FAILED(convert(decompressor.get(), block_of(broken, dest_size), 20000),
                  G_IO_ERROR_FAILED, "Failed to decode LZO");
  };
  assert_broken(payload, 3999); // the total is beyond the announced
  assert_broken(ByteView{payload}.first(payload.size() - 1), 4000); // no last end marker
  assert_broken(join({payload, Bytes(1)}), 4000);
  for (gsize total : {0, 3999, 4001, 4004, 8000}) { // chunks do not decode to their share
    Bytes broken = payload;
    const Bytes field = little_endian(total, 4);
    std::copy(field.begin(), field.end(), broken.begin() + 3);
    assert_broken(broken, 20000);
  }
  for (guint64 size : {guint64{0}, guint64{3}, guint64{0x7fffffff}, guint64{0xffffffff}}) {
    Bytes broken = payload;
    const Bytes field = little_endian(size, 4);
    std::copy(field.begin(), field.end(), broken.begin() + 11); // the second chunk's
    assert_broken(broken, 20000);
  }
}

/* ---- The order of checks, and room ---- */

void
test_short_headers()
{
  const auto decompressor = new_decompressor();
  for (gsize size = 0; size < 8; size++)
    for (guint8 fill : {0, 1, 255})
      for (gsize room : {0, 1, 100})
        for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
          ASSERT_FAILED(convert(decompressor.get(), Bytes(size, fill), room, flags),
                        G_IO_ERROR_PARTIAL_INPUT, "Partial header");
}

void
test_sizes_beyond_the_input()
{
  const auto decompressor = new_decompressor();
  for (guint32 src_size : {1u, 2u, 9u, 100u, 0x7fffffffu, 0x80000000u, 0xfffffff8u, 0xffffffffu})
    for (guint32 dest_size : {0u, 1u, 0xffffffffu})
      for (gsize room : {0, 1, 100}) {
        const Bytes payload(MIN(src_size - 1, 50u), 0x11);
        ASSERT_FAILED(convert(decompressor.get(), raw_block(src_size, dest_size, payload), room),
                      G_IO_ERROR_PARTIAL_INPUT, "Partial data");
      }
}

void
test_cut_off_at_every_byte()
{
  const auto decompressor = new_decompressor();
  for (gsize size : {1, 20, 300}) {
    const Bytes plain = sample(Kind::text, size);
    const Bytes wire = block(plain);
    for (gsize cut = 0; cut < wire.size(); cut++)
      for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
        for (gsize room : {gsize{0}, size})
          ASSERT_FAILED(convert(decompressor.get(), ByteView{wire}.first(cut), room, flags),
                        G_IO_ERROR_PARTIAL_INPUT, cut < 8 ? "Partial header" : "Partial data");
    assert_opens(decompressor.get(), wire, plain);
  }
}

void
test_room_is_asked_for_before_decoding()
{
  const auto decompressor = new_decompressor();
  for (gsize size : {1, 2, 300, 5000}) {
    const Bytes plain = sample(Kind::text, size);
    const Bytes wire = block(plain);
    Bytes broken = wire;
    std::fill(broken.begin() + 8, broken.end(), 0);
    for (gsize room : {gsize{0}, size / 2, size - 1}) {
      ASSERT_FAILED(convert(decompressor.get(), wire, room), G_IO_ERROR_NO_SPACE,
                    "Not enough space");
      const Conversion c = convert(decompressor.get(), broken, room);
      ASSERT_FAILED(c, G_IO_ERROR_NO_SPACE, "Not enough space");
      // The room is as it was given.
      g_assert_true(std::adjacent_find(c.room.begin(), c.room.end(), std::not_equal_to{}) ==
                    c.room.end());
    }
    ASSERT_FAILED(convert(decompressor.get(), broken, size), G_IO_ERROR_FAILED,
                  "Failed to decode LZO");
    assert_opens(decompressor.get(), wire, plain);
  }
}

void
test_one_block_per_call()
{
  const auto decompressor = new_decompressor();
  const Bytes one = sample(Kind::text, 300), two = sample(Kind::noise, 50);
  const Bytes first = block(one), second = block(two, Effort::best);
  const Bytes both = join({first, second});
  const Conversion c = convert(decompressor.get(), both, 1000);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, first.size(), 300);
  ASSERT_BYTES(c.produced(), one);
  const Conversion d = convert(decompressor.get(), ByteView{both}.subspan(c.read), 1000);
  ASSERT_CONVERTED(d, G_CONVERTER_CONVERTED, second.size(), 50);
  ASSERT_BYTES(d.produced(), two);
  const Conversion e = convert(decompressor.get(), both, 1000, G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(e, G_CONVERTER_FINISHED, first.size(), 300);
}

void
test_flush_comes_first()
{
  const auto decompressor = new_decompressor();
  const Bytes wire = block(sample(Kind::text, 300));
  for (int flags : {int{G_CONVERTER_FLUSH}, G_CONVERTER_FLUSH | G_CONVERTER_INPUT_AT_END})
    for (gsize room : {0, 1, 1000}) {
      ASSERT_CONVERTED(convert(decompressor.get(), {}, room, flags), G_CONVERTER_FLUSHED, 0, 0);
      ASSERT_CONVERTED(convert(decompressor.get(), Bytes(5), room, flags), G_CONVERTER_FLUSHED, 0,
                       0);
      ASSERT_CONVERTED(convert(decompressor.get(), wire, room, flags), G_CONVERTER_FLUSHED, 0, 0);
    }
}

void
test_reset_changes_nothing()
{
  const auto decompressor = new_decompressor();
  const Bytes plain = sample(Kind::text, 300);
  g_converter_reset(G_CONVERTER(decompressor.get()));
  assert_opens(decompressor.get(), block(plain), plain);
  g_converter_reset(G_CONVERTER(decompressor.get()));
  assert_opens(decompressor.get(), block(plain), plain);
}

/* ---- Headers that lie ---- */

// The decoded count is reported as it is; the announced size has only asked for room.
void
test_announcing_more_than_the_payload_holds()
{
  const auto decompressor = new_decompressor();
  const Bytes plain = sample(Kind::text, 1000);
  const Bytes payload = lzo2_compress(plain);
  for (gsize announced : {1001, 1500, 100000}) {
    const Bytes wire = raw_block(payload.size(), announced, payload);
    ASSERT_FAILED(convert(decompressor.get(), wire, announced - 1), G_IO_ERROR_NO_SPACE,
                  "Not enough space");
    const Conversion c = convert(decompressor.get(), wire, announced);
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, wire.size(), 1000);
    ASSERT_BYTES(c.produced(), plain);
  }
  const Conversion c = convert(decompressor.get(), raw_block(0, 77, {}), 77);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 8, 0);
}

// Were it "Not enough space", the caller would offer ever more room in vain.
void
test_announcing_less_than_the_payload_holds()
{
  const auto decompressor = new_decompressor();
  for (Kind kind : all_kinds)
    for (gsize size : {1, 3, 4, 20, 300, 1000, 70000}) {
      const Bytes plain = sample(kind, size);
      for (Effort effort : {Effort::fast, Effort::best}) {
        const Bytes payload = lzo2_compress(plain, effort);
        for (gsize announced : {gsize{0}, size / 2, size - 1})
          for (gsize room : {announced, size, 4 * size})
            ASSERT_FAILED(
                convert(decompressor.get(), raw_block(payload.size(), announced, payload), room),
                G_IO_ERROR_FAILED, "Failed to decode LZO");
      }
    }
}

// Once the room is more than any payload of that size can fill, and a whole mebibyte, the answer
// turns from "Not enough space" to a failure.
void
test_announcing_more_than_any_payload_holds()
{
  const auto decompressor = new_decompressor();
  Reserve out{16 * mib};
  for (guint32 announced : {0x7fffffffu, 0x80000000u, 0xffffffffu})
    for (gsize payload_size : {0, 3, 100, 4112, 4113, 8192, 40000}) {
      const Bytes wire = raw_block(payload_size, announced, Bytes(payload_size, 0x20));
      const gsize enough = MAX(255 * payload_size, mib);
      for (gsize room : {gsize{0}, gsize{1}, gsize{4096}, enough / 2, enough - 1}) {
        const Conversion c =
            convert_in_place(decompressor.get(), wire.data(), wire.size(), out.data(), room);
        ASSERT_FAILED(c, G_IO_ERROR_NO_SPACE, "Not enough space");
      }
      for (gsize room : {enough, enough + 1, out.size()}) {
        const Conversion c =
            convert_in_place(decompressor.get(), wire.data(), wire.size(), out.data(), room);
        ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Failed to decode LZO");
      }
    }
}

// A payload that is one literal and one match of nothing but length bytes, the most that a stream
// of its size can hold, stays below that bound at every room that is offered on the way.
void
test_the_most_compressed_block_still_opens()
{
  const auto decompressor = new_decompressor();
  for (gsize length_bytes : {1, 100, 4000, 5000, 250000}) {
    const Bytes payload =
        join({Bytes{0x12, 'z', 0x20}, Bytes(length_bytes, 0), Bytes{0xff, 0, 0}, end_marker});
    const Bytes plain(1 + 33 + 255 * length_bytes + 255, 'z');
    const gsize size = plain.size();
    const std::optional<Bytes> decoded = lzo2_decompress(payload, size);
    g_assert_true(decoded.has_value());
    ASSERT_BYTES(*decoded, plain);
    const Bytes wire = block_of(payload, size);
    for (gsize room = 100; room < size; room *= 2)
      ASSERT_FAILED(convert(decompressor.get(), wire, room), G_IO_ERROR_NO_SPACE,
                    "Not enough space");
    ASSERT_FAILED(convert(decompressor.get(), wire, size - 1), G_IO_ERROR_NO_SPACE,
                  "Not enough space");
    assert_opens(decompressor.get(), wire, plain);
  }
}

void
test_corrupted_payloads()
{
  const auto decompressor = new_decompressor();
  const Bytes plain = sample(Kind::text, 500);
  const Bytes payload = lzo2_compress(plain);
  auto assert_broken = [&](ByteView broken) {
    g_assert_false(lzo2_decompress(broken, 500).has_value());
    for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
      ASSERT_FAILED(convert(decompressor.get(), block_of(broken, 500), 500, flags),
                    G_IO_ERROR_FAILED, "Failed to decode LZO");
  };
  for (gsize size = 1; size < payload.size(); size++)
    assert_broken(ByteView{payload}.first(size));
  assert_broken(join({payload, Bytes(1)}));
  assert_broken(join({payload, end_marker}));
  assert_broken(Bytes{0x11, 0, 0, 0});
  assert_broken(Bytes{0x12, 'a', 0x40, 0xff, 0x11, 0, 0}); // a match before the first byte
  assert_broken(Bytes{0xff, 'a', 0x11, 0, 0});             // literals past the input
  assert_broken(Bytes{0x00, 0x00, 0x00, 0x00});            // a length without an end
  assert_broken(Bytes(500, 0x00));
  assert_broken(Bytes(500, 0xff));
}

// Every mutation of a payload is judged as liblzo2's safe decoder judges it, and decodes to the
// same bytes where it is still valid. One thing liblzo2 is lenient with: it takes any match
// instruction of distance 16384 for the end marker, whatever its length. Its last bytes can only
// look like the true marker where a length byte stands before them.
void
test_mutations_are_judged_as_by_liblzo2()
{
  const auto decompressor = new_decompressor();
  std::mt19937 random{13};
  guint valid = 0, broken = 0;
  for (guint i = 0; i < 20000; i++) {
    const gsize size = 1 + random() % 400;
    Bytes payload = lzo2_compress(sample(all_kinds[random() % 5], size, random()),
                                  random() % 8 == 0 ? Effort::best : Effort::fast);
    for (guint j = random() % 4; j > 0; j--)
      payload[random() % payload.size()] = static_cast<guint8>(random());
    if (random() % 8 == 0)
      payload.insert(payload.begin() + random() % payload.size(), static_cast<guint8>(random()));
    if (random() % 8 == 0)
      payload.erase(payload.begin() + random() % payload.size());
    if (payload[0] == 0x55)
      continue; // may be the chunked layout, which liblzo2 does not know
    const gsize announced = random() % 4 == 0 ? random() % 800 : size;
    const Conversion c =
        convert(decompressor.get(), block_of(payload, announced), announced + random() % 9);
    const std::optional<Bytes> expected = lzo2_decompress(payload, announced);
    const bool marked =
        payload.size() >= 3 && std::equal(end_marker.begin(), end_marker.end(), payload.end() - 3);
    const bool lenient = payload.size() >= 4 && (payload.end()[-4] & 0xef) == 0;
    if (expected && marked && lenient && c.error)
      continue;
    if (expected && marked) {
      ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, payload.size() + 8, expected->size());
      ASSERT_BYTES(c.produced(), *expected);
      valid++;
    } else {
      ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Failed to decode LZO");
      broken++;
    }
  }
  g_assert_cmpuint(valid, >, 1000);
  g_assert_cmpuint(broken, >, 1000);
}

void
test_noise()
{
  const std::set<std::string> messages = {"Partial header", "Partial data", "Not enough space",
                                          "Failed to decode LZO"};
  const auto decompressor = new_decompressor();
  std::mt19937 random{14};
  guint converted = 0;
  for (guint i = 0; i < 20000; i++) {
    Bytes in = sample(Kind::noise, random() % 120, random());
    if (in.size() >= 11 && random() % 4 != 0) {
      const Bytes header =
          join({little_endian(in.size() - 8, 4), little_endian(random() % 300, 4)});
      std::copy(header.begin(), header.end(), in.begin());
      if (random() % 2 == 0)
        std::copy(end_marker.begin(), end_marker.end(), in.end() - 3);
      if (random() % 2 == 0)
        in[8] = static_cast<guint8>(17 + in.size() - 12); // literals up to the marker, perhaps
    }
    const Conversion c = convert(decompressor.get(), in, random() % 400, random() % 2);
    if (c.error)
      g_assert_true(messages.contains(c.error->message));
    else
      converted++;
  }
  g_assert_cmpuint(converted, >, 100);
}

/* ---- Threads ---- */

void
test_one_object_serves_many_threads()
{
  const auto decompressor = new_decompressor();
  std::vector<std::thread> threads;
  for (guint i = 0; i < 4; i++)
    threads.emplace_back([&decompressor, i] {
      for (guint j = 0; j < 300; j++) {
        const Bytes plain = sample(all_kinds[j % 5], 10 * j, i * 1000 + j);
        const Bytes wire = block(plain);
        Bytes out(plain.size() + 1);
        const Conversion c = convert_in_place(decompressor.get(), wire.data(), wire.size(),
                                              out.data(), plain.size());
        ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, wire.size(), plain.size());
        const ByteView got = ByteView{out}.first(c.written);
        ASSERT_BYTES(got, plain);
      }
    });
  for (std::thread &thread : threads)
    thread.join();
}

/* ---- Converter streams ---- */

// Blocks of random sizes over `plain`, with empty and chunked ones among them.
Bytes
block_stream(ByteView plain, std::mt19937 &random)
{
  Bytes stream;
  while (!plain.empty()) {
    const gsize limit = gsize{1} << (random() % 21);
    const gsize piece = std::min<gsize>(plain.size(), 1 + random() % limit);
    const ByteView part = plain.first(piece);
    if (random() % 8 == 0)
      stream = join({stream, Bytes(8, 0)});
    const guint n = 2 + random() % 31;
    const Bytes one = random() % 8 == 0 && piece >= 100
                          ? block_of(chunked_payload(part, n), piece)
                          : block(part, piece < 5000 ? Effort::best : Effort::fast);
    stream.insert(stream.end(), one.begin(), one.end());
    plain = plain.subspan(piece);
  }
  return stream;
}

void
test_input_stream(gconstpointer per_call)
{
  std::mt19937 random{31};
  for (Kind kind : all_kinds)
    for (gsize size : {0, 1, 15, 16, 17, 255, 4095, 4096, 4097, 65536, 300001, 1 << 20}) {
      const Bytes plain = sample(kind, size, size);
      contract::input_stream_decodes(new_decompressor().get(), block_stream(plain, random), plain,
                                     GPOINTER_TO_SIZE(per_call), random);
    }
}

void
test_cut_off_stream()
{
  const Bytes one = sample(Kind::text, 50), two = sample(Kind::ramp, 20);
  const Bytes first = block(one), whole = join({first, block(two)});
  for (gsize per_call : {1, 7, 10000})
    for (gsize cut = 0; cut <= whole.size(); cut++) {
      const auto decompressor = new_decompressor();
      const auto stream =
          input_over(decompressor.get(), script_of(ByteView{whole}.first(cut), per_call));
      const Bytes expected = cut < first.size()   ? Bytes{}
                             : cut < whole.size() ? one
                                                  : join({one, two});
      const gsize start = cut < first.size() ? 0 : cut < whole.size() ? first.size() : cut;
      stream_fails(stream.get(), expected, G_IO_ERROR_PARTIAL_INPUT,
                   cut - start < 8 ? "Partial header" : "Partial data");
    }
}

void
test_output_stream(gconstpointer per_call)
{
  std::mt19937 random{32};
  for (gsize size : {1, 16, 1000, 65537, 1 << 20}) {
    const Bytes plain = sample(Kind::mixture, size, size);
    contract::output_stream_decodes(new_decompressor().get(), block_stream(plain, random), plain,
                                    GPOINTER_TO_SIZE(per_call), random);
  }
}

void
test_socket(gconstpointer family)
{
  std::mt19937 random{33};
  const Bytes plain = sample(Kind::mixture, mib, 77);
  contract::socket_decodes(family, new_decompressor().get(), block_stream(plain, random), plain,
                           random);
}

// Every hostile block ends the stream with an error, after what came before it, and with bounded
// room; a decoder that asked for ever more would never come back from read_to_end().
void
test_streams_of_lying_blocks_end()
{
  const Bytes good = sample(Kind::text, 700), start = block(good);
  const Bytes payload = lzo2_compress(good);
  const struct {
    Bytes tail;
    GIOErrorEnum code;
    const char *message;
  } cases[] = {
      {raw_block(payload.size(), 699, payload), G_IO_ERROR_FAILED, "Failed to decode LZO"},
      {raw_block(payload.size(), 0, payload), G_IO_ERROR_FAILED, "Failed to decode LZO"},
      {raw_block(3, 0xffffffff, end_marker), G_IO_ERROR_FAILED, "Failed to decode LZO"},
      {raw_block(0, 0xffffffff, {}), G_IO_ERROR_FAILED, "Failed to decode LZO"},
      {raw_block(payload.size(), 0xffffffff, payload), G_IO_ERROR_FAILED, "Failed to decode LZO"},
      {raw_block(0xffffffff, 100, payload), G_IO_ERROR_PARTIAL_INPUT, "Partial data"},
      {raw_block(0xffffffff, 0xffffffff, payload), G_IO_ERROR_PARTIAL_INPUT, "Partial data"},
      {raw_block(100, 500, Bytes(100)), G_IO_ERROR_FAILED, "Failed to decode LZO"},
  };
  for (const auto &one : cases)
    for (gsize per_call : {1, 7, 100000}) {
      const auto decompressor = new_decompressor();
      const auto stream =
          input_over(decompressor.get(), script_of(join({start, one.tail}), per_call));
      stream_fails(stream.get(), good, one.code, one.message);
    }
}

void
test_growth_of_the_room_is_bounded()
{
  const Bytes payload = lzo2_compress(sample(Kind::noise, 20000));
  const Bytes wires[] = {raw_block(3, 0xffffffff, end_marker),
                         raw_block(payload.size(), 0xffffffff, payload)};
  for (const Bytes &wire : wires) {
    const auto decompressor = new_decompressor();
    gsize most_room = 0;
    const auto watcher =
        new_converter([&](std::string_view in, char *out, gsize room, GConverterFlags flags,
                          gsize *read, gsize *written, GError **error) {
          most_room = std::max(most_room, room);
          return g_converter_convert(G_CONVERTER(decompressor.get()), in.data(), in.size(), out,
                                     room, flags, read, written, error);
        });
    const auto stream = input_over(watcher.get(), script_of(wire, 100000));
    stream_fails(stream.get(), {}, G_IO_ERROR_FAILED, "Failed to decode LZO");
    // GIO doubles: one step beyond the bound at the most.
    g_assert_cmpuint(most_room, >=, MAX(mib, 255 * (wire.size() - 8)));
    g_assert_cmpuint(most_room, <=, 2 * MAX(mib, 255 * (wire.size() - 8)) + 65536);
  }
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  g_test_add_func("/decompressor/type", test_type);
  g_test_add_func("/decompressor/new-gives-one-reference", test_new_gives_one_reference);
  g_test_add_data_func("/decompressor/blocks-of-liblzo2/fast",
                       GINT_TO_POINTER(static_cast<int>(Effort::fast)), test_blocks_of_liblzo2);
  g_test_add_data_func("/decompressor/blocks-of-liblzo2/best",
                       GINT_TO_POINTER(static_cast<int>(Effort::best)), test_blocks_of_liblzo2);
  g_test_add_func("/decompressor/many-random-blocks", test_many_random_blocks);
  g_test_add_func("/decompressor/repeats-at-every-kind-of-distance",
                  test_repeats_at_every_kind_of_distance);
  g_test_add_func("/decompressor/empty-block", test_empty_block);
  g_test_add_func("/decompressor/chunked-payloads", test_chunked_payloads);
  g_test_add_func("/decompressor/plain-payload-that-looks-chunked",
                  test_plain_payload_that_looks_chunked);
  g_test_add_func("/decompressor/broken-chunked-payloads", test_broken_chunked_payloads);
  g_test_add_func("/decompressor/short-headers", test_short_headers);
  g_test_add_func("/decompressor/sizes-beyond-the-input", test_sizes_beyond_the_input);
  g_test_add_func("/decompressor/cut-off-at-every-byte", test_cut_off_at_every_byte);
  g_test_add_func("/decompressor/room-is-asked-for-before-decoding",
                  test_room_is_asked_for_before_decoding);
  g_test_add_func("/decompressor/one-block-per-call", test_one_block_per_call);
  g_test_add_func("/decompressor/flush-comes-first", test_flush_comes_first);
  g_test_add_func("/decompressor/reset-changes-nothing", test_reset_changes_nothing);
  g_test_add_func("/decompressor/announcing-more-than-the-payload-holds",
                  test_announcing_more_than_the_payload_holds);
  g_test_add_func("/decompressor/announcing-less-than-the-payload-holds",
                  test_announcing_less_than_the_payload_holds);
  g_test_add_func("/decompressor/announcing-more-than-any-payload-holds",
                  test_announcing_more_than_any_payload_holds);
  g_test_add_func("/decompressor/the-most-compressed-block-still-opens",
                  test_the_most_compressed_block_still_opens);
  g_test_add_func("/decompressor/corrupted-payloads", test_corrupted_payloads);
  g_test_add_func("/decompressor/mutations-are-judged-as-by-liblzo2",
                  test_mutations_are_judged_as_by_liblzo2);
  g_test_add_func("/decompressor/noise", test_noise);
  g_test_add_func("/decompressor/one-object-serves-many-threads",
                  test_one_object_serves_many_threads);
  contract::add_for_pieces("/decompressor/input-stream", test_input_stream);
  g_test_add_func("/decompressor/cut-off-stream", test_cut_off_stream);
  contract::add_for_pieces("/decompressor/output-stream", test_output_stream);
  contract::add_for_sockets("/decompressor/socket", test_socket);
  g_test_add_func("/decompressor/streams-of-lying-blocks-end", test_streams_of_lying_blocks_end);
  g_test_add_func("/decompressor/growth-of-the-room-is-bounded",
                  test_growth_of_the_room_is_bounded);
  return g_test_run();
}
