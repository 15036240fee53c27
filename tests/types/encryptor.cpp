// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/records.h"
#include "tests/types/convertercontract.h"

#include <zelgvc/zelgvc.h>

#include <climits>
#include <set>
#include <thread>

using namespace support;
using contract::bytes_ref;
using contract::test_key;

namespace
{

Ref<GvcEncryptor>
new_encryptor(int bits = 256)
{
  const BytesRef key = bytes_ref(test_key());
  auto encryptor = own(gvc_encryptor_new(key.get()));
  g_assert_true(GVC_IS_ENCRYPTOR(encryptor.get()));
  if (bits != 256)
    gvc_encryptor_set_key_length(encryptor.get(), bits);
  return encryptor;
}

// Takes the IV record that the encryptor must emit now, and returns its 16 bytes.
Bytes
take_iv(GvcEncryptor *encryptor)
{
  const Conversion c = convert(encryptor, {}, iv_record_size);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 0, iv_record_size);
  g_assert_cmpuint(load_little_endian(c.room, 0, length_size), ==, 0);
  return Bytes(c.room.begin() + length_size, c.room.end());
}

// Room that any record over `size` bytes fits in.
constexpr gsize
ample(gsize size)
{
  return size + 2 * aes_block + length_size;
}

void
assert_record(GvcEncryptor *encryptor, Sealer &sealer, ByteView plain)
{
  const Bytes expected = sealer.record(plain);
  const Conversion c = convert(encryptor, plain, ample(plain.size()));
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, plain.size(), expected.size());
  ASSERT_BYTES(c.produced(), expected);
}

void
assert_cannot_encrypt(gpointer cipher)
{
  GvcEncryptor *const encryptor = GVC_ENCRYPTOR(cipher);
  const Bytes iv = take_iv(encryptor);
  for (gsize size : {1, 15, 16, 40, 5000})
    ASSERT_FAILED(convert(encryptor, sample(Kind::text, size), ample(size)), G_IO_ERROR_FAILED,
                  "Encryption failed");
  ASSERT_CONVERTED(convert(encryptor, {}, 10, G_CONVERTER_INPUT_AT_END), G_CONVERTER_FINISHED, 0,
                   0);
  g_converter_reset(G_CONVERTER(encryptor));
  g_assert_false(take_iv(encryptor) == iv);
  ASSERT_FAILED(convert(encryptor, sample(Kind::text, 9), 100), G_IO_ERROR_FAILED,
                "Encryption failed");
}

const contract::Cipher cipher = {
    .name = "encryptor",
    .type_name = "GvcEncryptor",
    .get_type = [] { return GVC_TYPE_ENCRYPTOR; },
    .class_size = sizeof(GvcEncryptorClass),
    .instance_size = 80,
    .create = [](GBytes *key) -> gpointer { return gvc_encryptor_new(key); },
    .set_key_length =
        [](gpointer object, guint bits) {
          gvc_encryptor_set_key_length(static_cast<GvcEncryptor *>(object), bits);
        },
    .begin = [](gpointer object, int bits) -> std::function<void(ByteView)> {
      GvcEncryptor *const encryptor = GVC_ENCRYPTOR(object);
      const auto sealer = std::make_shared<Sealer>(test_key(), bits, take_iv(encryptor));
      return [=](ByteView plain) { assert_record(encryptor, *sealer, plain); };
    },
    .assert_useless = assert_cannot_encrypt,
};

Bytes
open_with_one_iv(ByteView wire)
{
  Opener opener{test_key(), 256};
  Bytes plain = opener.open(wire);
  g_assert_cmpuint(opener.iv_records, ==, 1);
  return plain;
}

/* ---- Key length ---- */

// The notification comes after the new length is in force, and the reset done.
void
test_notifies_after_the_reset()
{
  const auto encryptor = new_encryptor();
  take_iv(encryptor.get());
  static Bytes iv;
  iv.clear();
  g_signal_connect(encryptor.get(), "notify::key-length",
                   G_CALLBACK(+[](GObject *object, GParamSpec *, gpointer) {
                     guint length = 0;
                     g_object_get(object, "key-length", &length, nullptr);
                     g_assert_cmpuint(length, ==, 128);
                     iv = take_iv(GVC_ENCRYPTOR(object));
                   }),
                   nullptr);
  gvc_encryptor_set_key_length(encryptor.get(), 128);
  g_assert_cmpuint(iv.size(), ==, aes_block);
  Sealer sealer{test_key(), 128, iv};
  assert_record(encryptor.get(), sealer, sample(Kind::text, 33));
}

/* ---- The IV record ---- */

void
test_first_call_emits_only_the_iv_record()
{
  const auto encryptor = new_encryptor();
  const Bytes plain = sample(Kind::text, 10);
  const Conversion first = convert(encryptor.get(), plain, 100);
  ASSERT_CONVERTED(first, G_CONVERTER_CONVERTED, 0, 24);
  g_assert_cmpuint(load_little_endian(first.room, 0, 8), ==, 0);

  const Conversion second = convert(encryptor.get(), plain, 100);
  ASSERT_CONVERTED(second, G_CONVERTER_CONVERTED, 10, 24);
  g_assert_cmpuint(load_little_endian(second.room, 0, 8), ==, 16);
  Sealer sealer{test_key(), 256, first.produced().subspan(8)};
  ASSERT_BYTES(second.produced(), sealer.record(plain));
}

void
test_iv_record_finishes_at_the_end_of_input()
{
  const Bytes plain = sample(Kind::text, 10);
  const auto with_input = new_encryptor();
  const Conversion c = convert(with_input.get(), plain, 100, G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(c, G_CONVERTER_FINISHED, 0, 24);

  const auto without = new_encryptor();
  const Conversion d = convert(without.get(), {}, 24, G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(d, G_CONVERTER_FINISHED, 0, 24);
  g_assert_cmpuint(load_little_endian(d.room, 0, 8), ==, 0);
}

void
test_iv_record_needs_24_bytes()
{
  const auto encryptor = new_encryptor();
  const Bytes plain = sample(Kind::text, 10);
  for (gsize room = 0; room < 24; room++) {
    ASSERT_FAILED(convert(encryptor.get(), plain, room), G_IO_ERROR_NO_SPACE,
                  "Not enough space for initial IV");
    ASSERT_FAILED(convert(encryptor.get(), {}, room, G_CONVERTER_INPUT_AT_END), G_IO_ERROR_NO_SPACE,
                  "Not enough space for initial IV");
  }
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  assert_record(encryptor.get(), sealer, plain);
}

void
test_ivs_differ()
{
  std::set<Bytes> ivs;
  const auto encryptor = new_encryptor();
  for (int i = 0; i < 50; i++) {
    ivs.insert(take_iv(encryptor.get()));
    g_converter_reset(G_CONVERTER(encryptor.get()));
  }
  for (int i = 0; i < 10; i++) {
    g_usleep(1000); // generators of one microsecond share their seed
    ivs.insert(take_iv(new_encryptor().get()));
  }
  g_assert_cmpuint(ivs.size(), ==, 60);
}

/* ---- Data records ---- */

void
test_records_equal_openssl(gconstpointer data)
{
  const int bits = GPOINTER_TO_INT(data);
  const auto encryptor = new_encryptor(bits);
  Sealer sealer{test_key(), bits, take_iv(encryptor.get())};
  for (gsize size = 1; size <= 200; size++)
    assert_record(encryptor.get(), sealer, sample(Kind::noise, size, size));
  for (gsize size : {4095, 4096, 4097, 65535, 65536, 1 << 20, (1 << 20) + 5})
    for (Kind kind : all_kinds)
      assert_record(encryptor.get(), sealer, sample(kind, size, size));
}

void
test_record_lengths()
{
  const struct {
    gsize input, length;
  } cases[] = {{1, 16}, {15, 16}, {16, 32}, {17, 32}, {31, 32}, {32, 48}, {33, 48}};
  const auto encryptor = new_encryptor();
  take_iv(encryptor.get());
  for (const auto &one : cases) {
    const Conversion c = convert(encryptor.get(), sample(Kind::text, one.input), 100);
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, one.input, 8 + one.length);
    g_assert_cmpuint(load_little_endian(c.room, 0, 8), ==, one.length);
  }
}

// The padding bytes themselves, seen without letting OpenSSL strip them.
void
test_padding_is_its_own_count()
{
  const auto encryptor = new_encryptor();
  Bytes chain = take_iv(encryptor.get());
  for (gsize size = 1; size <= 48; size++) {
    const Bytes plain = sample(Kind::noise, size, size);
    const Conversion c = convert(encryptor.get(), plain, ample(size));
    const ByteView cipher = c.produced().subspan(length_size);
    const Bytes whole = evp_cbc(false, false, test_key(), 256, chain, cipher);
    const gsize padding = 16 - size % 16;
    ASSERT_BYTES(whole, join({plain, Bytes(padding, static_cast<guint8>(padding))}));
    chain.assign(cipher.end() - aes_block, cipher.end());
  }
}

void
test_exact_room()
{
  const auto encryptor = new_encryptor();
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  for (gsize size = 1; size <= 70; size++) {
    const Bytes plain = sample(Kind::text, size, size);
    const gsize need = size + (16 - size % 16) + 8;
    for (gsize room : {gsize{0}, gsize{7}, gsize{8}, size, need - 16, need - 8, need - 1})
      ASSERT_FAILED(convert(encryptor.get(), plain, room), G_IO_ERROR_NO_SPACE, "Not enough space");
    const Conversion c = convert(encryptor.get(), plain, need);
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, size, need);
    // The failed calls advanced nothing: the record is the one of a direct call.
    ASSERT_BYTES(c.produced(), sealer.record(plain));
  }
}

void
test_empty_input_makes_no_record()
{
  const auto encryptor = new_encryptor();
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  ASSERT_CONVERTED(convert(encryptor.get(), {}, 100), G_CONVERTER_CONVERTED, 0, 0);
  ASSERT_CONVERTED(convert(encryptor.get(), {}, 0), G_CONVERTER_CONVERTED, 0, 0);
  ASSERT_CONVERTED(convert(encryptor.get(), {}, 0, G_CONVERTER_INPUT_AT_END), G_CONVERTER_FINISHED,
                   0, 0);
  assert_record(encryptor.get(), sealer, sample(Kind::text, 16));
}

void
test_end_of_input_finishes()
{
  const auto encryptor = new_encryptor();
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  const Bytes plain = sample(Kind::text, 21);
  const Conversion c = convert(encryptor.get(), plain, 100, G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(c, G_CONVERTER_FINISHED, 21, 40);
  ASSERT_BYTES(c.produced(), sealer.record(plain));
}

void
test_flush_comes_first()
{
  const auto encryptor = new_encryptor();
  const Bytes plain = sample(Kind::text, 21);
  auto flush_everything = [&] {
    for (int flags : {int{G_CONVERTER_FLUSH}, G_CONVERTER_FLUSH | G_CONVERTER_INPUT_AT_END})
      for (gsize room : {0, 1, 23, 24, 100}) {
        ASSERT_CONVERTED(convert(encryptor.get(), {}, room, flags), G_CONVERTER_FLUSHED, 0, 0);
        ASSERT_CONVERTED(convert(encryptor.get(), plain, room, flags), G_CONVERTER_FLUSHED, 0, 0);
      }
  };
  flush_everything();
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  flush_everything();
  assert_record(encryptor.get(), sealer, plain);
  flush_everything();
  assert_record(encryptor.get(), sealer, plain);
}

void
test_chain_runs_across_records()
{
  const auto encryptor = new_encryptor();
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  const Bytes plain = sample(Kind::text, 40);
  const Conversion one = convert(encryptor.get(), plain, 100);
  const Conversion two = convert(encryptor.get(), plain, 100);
  g_assert_false(one.room == two.room);
  ASSERT_BYTES(one.produced(), sealer.record(plain));
  ASSERT_BYTES(two.produced(), sealer.record(plain));
}

/* ---- Key length and reset ---- */

void
test_change_of_key_length_starts_anew()
{
  const auto encryptor = new_encryptor();
  const Bytes plain = sample(Kind::text, 40);
  const Bytes first_iv = take_iv(encryptor.get());
  Sealer sealer{test_key(), 256, first_iv};
  assert_record(encryptor.get(), sealer, plain);
  gvc_encryptor_set_key_length(encryptor.get(), 256);
  assert_record(encryptor.get(), sealer, plain);

  gvc_encryptor_set_key_length(encryptor.get(), 128);
  const Bytes second_iv = take_iv(encryptor.get());
  g_assert_false(first_iv == second_iv);
  Sealer half{ByteView{test_key()}.first(16), 128, second_iv};
  assert_record(encryptor.get(), half, plain);

  gvc_encryptor_set_key_length(encryptor.get(), 256);
  Sealer whole{test_key(), 256, take_iv(encryptor.get())};
  assert_record(encryptor.get(), whole, plain);
}

void
test_reset_starts_anew()
{
  const auto encryptor = new_encryptor(128);
  const Bytes plain = sample(Kind::text, 40);
  std::set<Bytes> ivs;
  for (int i = 0; i < 5; i++) {
    const Bytes iv = take_iv(encryptor.get());
    g_assert_true(ivs.insert(iv).second);
    Sealer sealer{test_key(), 128, iv};
    assert_record(encryptor.get(), sealer, plain);
    assert_record(encryptor.get(), sealer, plain);
    g_converter_reset(G_CONVERTER(encryptor.get()));
  }
  guint length = 0;
  g_object_get(encryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 128);
}

/* ---- Misuse and bounds ---- */

void
test_more_than_int_max_bytes_fail()
{
  // The engine counts in an int; 2^32 + 16 is 16 once cut to 32 bits.
  const gsize sizes[] = {gsize{INT_MAX} + 1, (gsize{1} << 32) + 16, (gsize{1} << 32) + 17};
  const auto encryptor = new_encryptor();
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  for (gsize size : sizes) {
    const Reserve in{size}, out{ample(size)};
    Conversion c = convert_in_place(encryptor.get(), in.data(), size, out.data(), size);
    ASSERT_FAILED(c, G_IO_ERROR_NO_SPACE, "Not enough space");
    c = convert_in_place(encryptor.get(), in.data(), size, out.data(), out.size());
    ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Encryption failed");
    assert_record(encryptor.get(), sealer, sample(Kind::text, 30));
  }
  // A size at which adding the padding and the length field would wrap.
  guint8 byte = 0;
  const Conversion c = convert_in_place(encryptor.get(), &byte, G_MAXSIZE - 3, &byte, 1);
  ASSERT_FAILED(c, G_IO_ERROR_NO_SPACE, "Not enough space");
}

/* ---- Converter streams ---- */

void
test_output_stream(gconstpointer data)
{
  const gsize per_call = GPOINTER_TO_SIZE(data);
  std::mt19937 random{99};
  for (int bits : {128, 256})
    for (gsize size : {0, 1, 15, 16, 17, 255, 4095, 4096, 4097, 65536, 300001, 1 << 20}) {
      const Bytes plain = sample(Kind::mixture, size, size + bits);
      const auto script = new_script({}, per_call);
      const auto encryptor = new_encryptor(bits);
      const auto base = new_scripted_output(script);
      const auto stream =
          own(g_converter_output_stream_new(base.get(), G_CONVERTER(encryptor.get())));
      write_in_pieces(stream.get(), plain, random);
      g_autoptr(GError) error = nullptr;
      g_output_stream_flush(stream.get(), nullptr, &error);
      g_assert_no_error(error);
      g_output_stream_close(stream.get(), nullptr, &error);
      g_assert_no_error(error);

      Opener opener{test_key(), bits};
      const Bytes wire = to_bytes(script->written());
      ASSERT_BYTES(opener.open(wire), plain);
      g_assert_cmpuint(opener.iv_records, ==, 1);
      if (size == 0)
        g_assert_cmpuint(wire.size(), ==, iv_record_size);
    }
}

void
test_input_stream(gconstpointer per_call)
{
  for (gsize size : {1, 16, 1000, 65537, 1 << 20})
    contract::input_stream_encodes(new_encryptor().get(), sample(Kind::mixture, size, size),
                                   GPOINTER_TO_SIZE(per_call), open_with_one_iv);
}

void
test_reset_in_mid_stream()
{
  const auto encryptor = new_encryptor();
  const auto base = own(g_memory_output_stream_new_resizable());
  const auto stream = own(g_converter_output_stream_new(base.get(), G_CONVERTER(encryptor.get())));
  std::mt19937 random{3};
  const Bytes plain = sample(Kind::text, 5000);
  for (int i = 0; i < 3; i++) {
    write_in_pieces(stream.get(), plain, random);
    g_converter_reset(G_CONVERTER(encryptor.get()));
  }
  write_in_pieces(stream.get(), plain, random);
  g_assert_true(g_output_stream_close(stream.get(), nullptr, nullptr));
  auto *memory = G_MEMORY_OUTPUT_STREAM(base.get());
  const ByteView wire{static_cast<const guint8 *>(g_memory_output_stream_get_data(memory)),
                      g_memory_output_stream_get_data_size(memory)};
  Opener opener{test_key(), 256};
  ASSERT_BYTES(opener.open(wire), join({plain, plain, plain, plain}));
  g_assert_cmpuint(opener.iv_records, ==, 4);
}

void
test_socket(gconstpointer family)
{
  contract::socket_carries_encoded(family, new_encryptor().get(),
                                   sample(Kind::mixture, 1 << 20, 77), open_with_one_iv);
}

// A stream that fails in the middle takes nothing of the converter with it.
void
test_failing_base_stream()
{
  auto script = std::make_shared<Script>();
  script->max_per_call = 7;
  script->from_call = {5, Step::fail(G_IO_ERROR_BROKEN_PIPE, "gone")};
  LifeWatch watch;
  {
    const auto encryptor = new_encryptor();
    watch.add(encryptor.get());
    const auto base = new_scripted_output(script);
    watch.add(base.get());
    const auto stream =
        own(g_converter_output_stream_new(base.get(), G_CONVERTER(encryptor.get())));
    watch.add(stream.get());
    const Bytes plain = sample(Kind::text, 500);
    Error error;
    // The write itself may be taken into the converter stream's own buffer.
    if (g_output_stream_write_all(stream.get(), plain.data(), plain.size(), nullptr, nullptr,
                                  &error))
      g_assert_false(g_output_stream_flush(stream.get(), nullptr, &error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE, "gone");
  }
  g_assert_cmpuint(watch.alive(), ==, 0);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  g_test_add_data_func("/encryptor/type", &cipher, contract::type);
  g_test_add_data_func("/encryptor/properties", &cipher, contract::properties);
  g_test_add_data_func("/encryptor/property-values", &cipher, contract::property_values);
  g_test_add_data_func("/encryptor/new-checks-its-key", &cipher, contract::new_checks_its_key);
  g_test_add_data_func("/encryptor/set-key-length-checks-its-arguments", &cipher,
                       contract::set_key_length_checks_its_arguments);
  g_test_add_data_func("/encryptor/property-rejects-192", &cipher,
                       contract::property_rejects_other_lengths);
  g_test_add_data_func("/encryptor/construction-with-192-uses-the-whole-key", &cipher,
                       contract::construction_with_192_uses_the_whole_key);
  g_test_add_data_func("/encryptor/notifies-on-change-only", &cipher,
                       contract::notifies_on_change_only);
  g_test_add_func("/encryptor/notifies-after-the-reset", test_notifies_after_the_reset);
  g_test_add_data_func("/encryptor/unknown-property-warns", &cipher,
                       contract::unknown_property_warns);
  g_test_add_data_func("/encryptor/owns-a-reference-to-its-key", &cipher,
                       contract::owns_a_reference_to_its_key);
  g_test_add_data_func("/encryptor/refused-construction-keeps-no-reference", &cipher,
                       contract::refused_construction_keeps_no_reference);
  g_test_add_func("/encryptor/first-call-emits-only-the-iv-record",
                  test_first_call_emits_only_the_iv_record);
  g_test_add_func("/encryptor/iv-record-finishes-at-the-end-of-input",
                  test_iv_record_finishes_at_the_end_of_input);
  g_test_add_func("/encryptor/iv-record-needs-24-bytes", test_iv_record_needs_24_bytes);
  g_test_add_func("/encryptor/ivs-differ", test_ivs_differ);
  g_test_add_data_func("/encryptor/records-equal-openssl/128", GINT_TO_POINTER(128),
                       test_records_equal_openssl);
  g_test_add_data_func("/encryptor/records-equal-openssl/256", GINT_TO_POINTER(256),
                       test_records_equal_openssl);
  g_test_add_func("/encryptor/record-lengths", test_record_lengths);
  g_test_add_func("/encryptor/padding-is-its-own-count", test_padding_is_its_own_count);
  g_test_add_func("/encryptor/exact-room", test_exact_room);
  g_test_add_func("/encryptor/empty-input-makes-no-record", test_empty_input_makes_no_record);
  g_test_add_func("/encryptor/end-of-input-finishes", test_end_of_input_finishes);
  g_test_add_func("/encryptor/flush-comes-first", test_flush_comes_first);
  g_test_add_func("/encryptor/chain-runs-across-records", test_chain_runs_across_records);
  g_test_add_func("/encryptor/change-of-key-length-starts-anew",
                  test_change_of_key_length_starts_anew);
  g_test_add_func("/encryptor/reset-starts-anew", test_reset_starts_anew);
  g_test_add_data_func("/encryptor/leaves-no-memory", &cipher, contract::leaves_no_memory);
  g_test_add_data_func("/encryptor/without-a-key", &cipher, contract::without_a_key);
  g_test_add_data_func("/encryptor/with-a-key-of-the-wrong-size", &cipher,
                       contract::with_a_key_of_the_wrong_size);
  g_test_add_func("/encryptor/more-than-int-max-bytes-fail", test_more_than_int_max_bytes_fail);
  contract::add_for_pieces("/encryptor/output-stream", test_output_stream);
  contract::add_for_pieces("/encryptor/input-stream", test_input_stream);
  g_test_add_func("/encryptor/reset-in-mid-stream", test_reset_in_mid_stream);
  contract::add_for_sockets("/encryptor/socket", test_socket);
  g_test_add_func("/encryptor/failing-base-stream", test_failing_base_stream);
  return g_test_run();
}
