// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/blocks.h"
#include "tests/types/convertercontract.h"

#include <zelgvc/zelgvc.h>

#include <thread>

using namespace support;

namespace
{

Ref<GvcCompressor>
new_compressor()
{
  auto compressor = own(gvc_compressor_new());
  g_assert_true(GVC_IS_COMPRESSOR(compressor.get()));
  return compressor;
}

// The smallest room that the converter may be content with.
constexpr gsize
least_room(gsize size)
{
  return size + size / 10 + header_size;
}

// A room in which a block of `size` bytes must always succeed: what the least one is, and what the
// literal run, the end marker and the header of a very short input take.
constexpr gsize
ample_room(gsize size)
{
  return least_room(size) + 16;
}

// The bytes are one truthful block that liblzo2 decodes to `plain` and that ends with the end
// marker.
void
assert_block(ByteView wire, ByteView plain)
{
  g_assert_cmpuint(wire.size(), >=, header_size);
  g_assert_cmpuint(load_little_endian(wire, 0, 4), ==, wire.size() - header_size);
  g_assert_cmpuint(load_little_endian(wire, 4, 4), ==, plain.size());
  const ByteView payload = wire.subspan(header_size);
  if (plain.empty()) {
    g_assert_cmpuint(payload.size(), ==, 0);
    return;
  }
  const Bytes marker = {0x11, 0, 0};
  g_assert_cmpuint(payload.size(), >, marker.size());
  const ByteView tail = payload.last(marker.size());
  ASSERT_BYTES(tail, marker);
  const std::optional<Bytes> decoded = lzo2_decompress(payload, plain.size());
  g_assert_true(decoded.has_value());
  ASSERT_BYTES(*decoded, plain);
}

void
assert_compresses(GvcCompressor *compressor, ByteView plain)
{
  const Conversion c = convert(compressor, plain, ample_room(plain.size()));
  g_assert_no_error(c.error.get());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, plain.size(), c.written);
  assert_block(c.produced(), plain);
}

Bytes
open_all_blocks(ByteView wire)
{
  guint count = 0;
  Bytes plain = open_blocks(wire, &count);
  g_assert_cmpuint(count, >=, 1);
  return plain;
}

/* ---- Type and lifetime ---- */

void
test_type()
{
  contract::is_a_plain_converter(GVC_TYPE_COMPRESSOR, "GvcCompressor", sizeof(GvcCompressorClass),
                                 sizeof(GvcCompressor));
}

void
test_new_gives_one_reference()
{
  contract::gives_one_reference(own(G_CONVERTER(gvc_compressor_new())), [](gpointer compressor) {
    assert_compresses(GVC_COMPRESSOR(compressor), sample(Kind::text, 1000));
  });
}

/* ---- Blocks ---- */

void
test_blocks_open_with_liblzo2()
{
  const auto compressor = new_compressor();
  for (Kind kind : all_kinds) {
    for (gsize size = 0; size <= 600; size++)
      assert_compresses(compressor.get(), sample(kind, size, size));
    for (gsize size : {2047, 2048, 2049, 4096, 16383, 16384, 16385, 49150, 49151, 49152, 65535,
                       65536, 65537, 300001, 1 << 20})
      assert_compresses(compressor.get(), sample(kind, size, size));
  }
}

void
test_many_random_inputs()
{
  const auto compressor = new_compressor();
  std::mt19937 random{11};
  for (guint i = 0; i < 2000; i++) {
    const gsize limit = gsize{1} << (random() % 16);
    assert_compresses(compressor.get(),
                      sample(all_kinds[random() % 5], random() % limit, random()));
  }
}

// Each of these repeats itself at a distance near a limit of the format.
void
test_repeats_at_every_kind_of_distance()
{
  const auto compressor = new_compressor();
  for (gsize distance : {1,    2,     3,     8,     255,   256,   2047,  2048,  2049,  3071, 3072,
                         3073, 16383, 16384, 16385, 32767, 32768, 49150, 49151, 49152, 60000})
    for (gsize length : {2, 3, 4, 8, 9, 33, 34, 264, 265, 300, 5000}) {
      Bytes plain = sample(Kind::noise, distance, distance + length);
      for (gsize i = 0; i < length; i++)
        plain.push_back(plain[plain.size() - distance]);
      const Bytes tail = sample(Kind::noise, length % 7, 3);
      plain.insert(plain.end(), tail.begin(), tail.end());
      assert_compresses(compressor.get(), plain);
    }
}

void
test_repetitive_input_shrinks()
{
  const auto compressor = new_compressor();
  const gsize size = 1 << 20;
  for (Kind kind : {Kind::zeros, Kind::text, Kind::ramp}) {
    const Conversion c = convert(compressor.get(), sample(kind, size), ample_room(size));
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, size, c.written);
    g_assert_cmpuint(c.written, <, size / (kind == Kind::text ? 1 : 10));
  }
}

void
test_empty_input()
{
  const auto compressor = new_compressor();
  const Bytes zeros(8, 0);
  for (gsize room = 0; room < 8; room++)
    for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
      ASSERT_FAILED(convert(compressor.get(), {}, room, flags), G_IO_ERROR_NO_SPACE,
                    "Not enough space");
  for (gsize room : {8, 9, 100}) {
    Conversion c = convert(compressor.get(), {}, room, G_CONVERTER_INPUT_AT_END);
    ASSERT_CONVERTED(c, G_CONVERTER_FINISHED, 0, 8);
    ASSERT_BYTES(c.produced(), zeros);
    c = convert(compressor.get(), {}, room);
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 0, 8);
    ASSERT_BYTES(c.produced(), zeros);
  }
}

void
test_end_of_input_finishes()
{
  const auto compressor = new_compressor();
  const Bytes plain = sample(Kind::text, 500);
  const Conversion c = convert(compressor.get(), plain, ample_room(500), G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(c, G_CONVERTER_FINISHED, 500, c.written);
  assert_block(c.produced(), plain);
}

void
test_flush_comes_first()
{
  const auto compressor = new_compressor();
  for (int flags : {int{G_CONVERTER_FLUSH}, G_CONVERTER_FLUSH | G_CONVERTER_INPUT_AT_END})
    for (gsize room : {0, 1, 7, 8, 1000}) {
      ASSERT_CONVERTED(convert(compressor.get(), {}, room, flags), G_CONVERTER_FLUSHED, 0, 0);
      ASSERT_CONVERTED(convert(compressor.get(), sample(Kind::text, 100), room, flags),
                       G_CONVERTER_FLUSHED, 0, 0);
    }
}

void
test_blocks_are_independent()
{
  const auto compressor = new_compressor();
  const Bytes plain = sample(Kind::noise, 3000);
  const Conversion first = convert(compressor.get(), plain, ample_room(3000));
  g_converter_reset(G_CONVERTER(compressor.get()));
  const Conversion second = convert(compressor.get(), plain, ample_room(3000));
  ASSERT_CONVERTED(first, G_CONVERTER_CONVERTED, 3000, first.written);
  ASSERT_CONVERTED(second, G_CONVERTER_CONVERTED, 3000, first.written);
  ASSERT_BYTES(first.produced(), second.produced());
  assert_block(second.produced(), plain);
}

/* ---- Room ---- */

void
test_room_rule()
{
  const auto compressor = new_compressor();
  ASSERT_FAILED(convert(compressor.get(), sample(Kind::noise, 100), 117), G_IO_ERROR_NO_SPACE,
                "Not enough space");
  const Conversion exact = convert(compressor.get(), sample(Kind::noise, 100), 118);
  ASSERT_CONVERTED(exact, G_CONVERTER_CONVERTED, 100, exact.written);
  assert_block(exact.produced(), sample(Kind::noise, 100));

  for (Kind kind : all_kinds)
    for (gsize size : {40, 41, 49, 50, 99, 238, 239, 240, 255, 1000, 4096, 65536, 1 << 20}) {
      const Bytes plain = sample(kind, size, size);
      ASSERT_FAILED(convert(compressor.get(), plain, least_room(size) - 1), G_IO_ERROR_NO_SPACE,
                    "Not enough space");
      // Compressible as it may be, less room than the rule asks for is refused.
      ASSERT_FAILED(convert(compressor.get(), plain, size / 2), G_IO_ERROR_NO_SPACE,
                    "Not enough space");
      const Conversion c = convert(compressor.get(), plain, least_room(size));
      ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, size, c.written);
      assert_block(c.produced(), plain);
    }
}

// Below 40 bytes the smallest legal room can be too small for the block. Then it is refused like
// any other room that is too small; it is never overrun, which convert() checks.
void
test_short_inputs_stay_inside_the_room()
{
  const auto compressor = new_compressor();
  guint refused = 0;
  for (Kind kind : all_kinds)
    for (gsize size = 0; size < 48; size++)
      for (guint32 seed = 0; seed < 8; seed++) {
        const Bytes plain = sample(kind, size, 100 * seed + size);
        const Conversion direct = convert(compressor.get(), plain, ample_room(size));
        ASSERT_CONVERTED(direct, G_CONVERTER_CONVERTED, size, direct.written);
        assert_block(direct.produced(), plain);
        for (gsize room = 0; room < ample_room(size); room++) {
          const Conversion c = convert(compressor.get(), plain, room);
          if (room < least_room(size) || room < direct.written) {
            ASSERT_FAILED(c, G_IO_ERROR_NO_SPACE, "Not enough space");
            refused += room >= least_room(size);
          } else {
            ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, size, direct.written);
            ASSERT_BYTES(c.produced(), direct.produced());
          }
        }
      }
  g_assert_cmpuint(refused, >, 0);
}

// The block and the encoder get lengths cut to 32 bits, while all of the input
// counts as consumed.
void
test_inputs_above_32_bits_are_cut()
{
  const auto compressor = new_compressor();
  const gsize size = (gsize{1} << 32) + 1000;
  const gsize room = least_room(size);
  Reserve in{size}, out{room + 4096};
  const Bytes plain = sample(Kind::noise, 1000);
  std::copy(plain.begin(), plain.end(), in.data());

  Conversion c = convert_in_place(compressor.get(), in.data(), size, out.data(), room - 1);
  ASSERT_FAILED(c, G_IO_ERROR_NO_SPACE, "Not enough space");
  c = convert_in_place(compressor.get(), in.data(), size, out.data(), room);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, size, c.written);
  assert_block(ByteView{out.data(), c.written}, plain);
}

void
test_room_above_32_bits_is_cut()
{
  const auto compressor = new_compressor();
  const Bytes plain = sample(Kind::noise, 1000);
  Reserve out{(gsize{1} << 32) + 8192};
  // The encoder gets a size of 5 bytes.
  Conversion c = convert_in_place(compressor.get(), plain.data(), plain.size(), out.data(),
                                  (gsize{1} << 32) + 5);
  ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Failed to encode LZO");
  c = convert_in_place(compressor.get(), plain.data(), plain.size(), out.data(),
                       (gsize{1} << 32) + 8192);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 1000, c.written);
  assert_block(ByteView{out.data(), c.written}, plain);
}

/* ---- Threads ---- */

void
test_one_object_serves_many_threads()
{
  const auto compressor = new_compressor();
  std::vector<std::thread> threads;
  for (guint i = 0; i < 4; i++)
    threads.emplace_back([&compressor, i] {
      for (guint j = 0; j < 300; j++) {
        const Bytes plain = sample(all_kinds[j % 5], 10 * j, i * 1000 + j);
        Bytes out(ample_room(plain.size()));
        const Conversion c =
            convert_in_place(compressor.get(), plain.data(), plain.size(), out.data(), out.size());
        ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, plain.size(), c.written);
        assert_block(ByteView{out}.first(c.written), plain);
      }
    });
  for (std::thread &thread : threads)
    thread.join();
}

/* ---- Converter streams ---- */

void
test_output_stream(gconstpointer data)
{
  const gsize per_call = GPOINTER_TO_SIZE(data);
  std::mt19937 random{21};
  for (Kind kind : all_kinds)
    for (gsize size : {0, 1, 3, 4, 38, 39, 40, 255, 4095, 4096, 4097, 65536, 300001, 1 << 20}) {
      const Bytes plain = sample(kind, size, size);
      auto script = std::make_shared<Script>();
      script->max_per_call = per_call;
      const auto compressor = new_compressor();
      const auto base = new_scripted_output(script);
      const auto stream =
          own(g_converter_output_stream_new(base.get(), G_CONVERTER(compressor.get())));
      write_in_pieces(stream.get(), plain, random);
      Error error;
      g_assert_true(g_output_stream_flush(stream.get(), nullptr, &error));
      guint count = 0;
      ASSERT_BYTES(open_blocks(to_bytes(script->written()), &count), plain);

      // Closing adds one empty block: the end of an input that holds nothing any more.
      const gsize before = script->written().size();
      g_assert_true(g_output_stream_close(stream.get(), nullptr, &error));
      const Bytes wire = to_bytes(script->written());
      ASSERT_BYTES(ByteView{wire}.subspan(before), Bytes(8, 0));
    }
}

void
test_two_writes_make_two_blocks()
{
  const auto script = std::make_shared<Script>();
  const auto compressor = new_compressor();
  const auto base = new_scripted_output(script);
  const auto stream = own(g_converter_output_stream_new(base.get(), G_CONVERTER(compressor.get())));
  const Bytes one = sample(Kind::text, 300), two = sample(Kind::ramp, 40);
  for (const Bytes *part : {&one, &two})
    g_assert_true(g_output_stream_write_all(stream.get(), part->data(), part->size(), nullptr,
                                            nullptr, nullptr));
  g_assert_true(g_output_stream_flush(stream.get(), nullptr, nullptr));
  const Bytes wire = to_bytes(script->written());
  const gsize first = header_size + load_little_endian(wire, 0, 4);
  assert_block(ByteView{wire}.first(first), one);
  assert_block(ByteView{wire}.subspan(first), two);
}

void
test_input_stream(gconstpointer per_call)
{
  for (gsize size : {1, 16, 1000, 65537, 300001})
    contract::input_stream_encodes(new_compressor().get(), sample(Kind::mixture, size, size),
                                   GPOINTER_TO_SIZE(per_call), open_all_blocks);
}

void
test_socket(gconstpointer family)
{
  contract::socket_carries_encoded(family, new_compressor().get(),
                                   sample(Kind::mixture, 1 << 20, 77), open_all_blocks);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  g_test_add_func("/compressor/type", test_type);
  g_test_add_func("/compressor/new-gives-one-reference", test_new_gives_one_reference);
  g_test_add_func("/compressor/blocks-open-with-liblzo2", test_blocks_open_with_liblzo2);
  g_test_add_func("/compressor/many-random-inputs", test_many_random_inputs);
  g_test_add_func("/compressor/repeats-at-every-kind-of-distance",
                  test_repeats_at_every_kind_of_distance);
  g_test_add_func("/compressor/repetitive-input-shrinks", test_repetitive_input_shrinks);
  g_test_add_func("/compressor/empty-input", test_empty_input);
  g_test_add_func("/compressor/end-of-input-finishes", test_end_of_input_finishes);
  g_test_add_func("/compressor/flush-comes-first", test_flush_comes_first);
  g_test_add_func("/compressor/blocks-are-independent", test_blocks_are_independent);
  g_test_add_func("/compressor/room-rule", test_room_rule);
  g_test_add_func("/compressor/short-inputs-stay-inside-the-room",
                  test_short_inputs_stay_inside_the_room);
  g_test_add_func("/compressor/inputs-above-32-bits-are-cut", test_inputs_above_32_bits_are_cut);
  g_test_add_func("/compressor/room-above-32-bits-is-cut", test_room_above_32_bits_is_cut);
  g_test_add_func("/compressor/one-object-serves-many-threads",
                  test_one_object_serves_many_threads);
  contract::add_for_pieces("/compressor/output-stream", test_output_stream);
  g_test_add_func("/compressor/two-writes-make-two-blocks", test_two_writes_make_two_blocks);
  contract::add_for_pieces("/compressor/input-stream", test_input_stream);
  contract::add_for_sockets("/compressor/socket", test_socket);
  return g_test_run();
}
