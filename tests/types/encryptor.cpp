// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/convert.h"
#include "tests/support/records.h"
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <climits>
#include <set>
#include <thread>

using namespace support;

namespace
{

constexpr gsize key_size = 32;

Bytes
test_key()
{
  return sample(Kind::noise, key_size, 4711);
}

BytesRef
bytes_ref(ByteView data)
{
  return BytesRef{g_bytes_new(data.data(), data.size())};
}

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

/* ---- Type, properties, arguments ---- */

void
test_type()
{
  assert_converter_type(GVC_TYPE_ENCRYPTOR, "GvcEncryptor", sizeof(GObjectClass), 80);
  g_assert_cmpuint(sizeof(GvcEncryptorClass), ==, sizeof(GObjectClass));
  g_assert_cmpuint(own_signals(GVC_TYPE_ENCRYPTOR).size(), ==, 0);
}

void
test_properties()
{
  const std::vector<std::string> names = own_properties(GVC_TYPE_ENCRYPTOR);
  g_assert_true(std::set<std::string>(names.begin(), names.end()) ==
                (std::set<std::string>{"key", "key-length"}));
  assert_property(GVC_TYPE_ENCRYPTOR, "key", G_TYPE_BYTES, "key", "key", 235);
  assert_property(GVC_TYPE_ENCRYPTOR, "key-length", G_TYPE_UINT, "key length", "key length", 231);

  gpointer klass = g_type_class_ref(GVC_TYPE_ENCRYPTOR);
  auto *spec = G_PARAM_SPEC_UINT(g_object_class_find_property(G_OBJECT_CLASS(klass), "key-length"));
  g_assert_cmpuint(spec->minimum, ==, 128);
  g_assert_cmpuint(spec->maximum, ==, 256);
  g_assert_cmpuint(spec->default_value, ==, 256);
  g_type_class_unref(klass);
}

void
test_property_values()
{
  const BytesRef key = bytes_ref(test_key());
  const auto encryptor = own(gvc_encryptor_new(key.get()));
  g_autoptr(GBytes) got = nullptr;
  guint length = 0;
  g_object_get(encryptor.get(), "key", &got, "key-length", &length, nullptr);
  g_assert_true(got == key.get());
  g_assert_cmpuint(length, ==, 256);

  gvc_encryptor_set_key_length(encryptor.get(), 128);
  g_object_get(encryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 128);

  const auto by_name = own(static_cast<GvcEncryptor *>(
      g_object_new(GVC_TYPE_ENCRYPTOR, "key-length", 128, "key", key.get(), nullptr)));
  g_object_get(by_name.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 128);
  Sealer sealer{test_key(), 128, take_iv(by_name.get())};
  assert_record(by_name.get(), sealer, sample(Kind::text, 50));
}

void
test_new_checks_its_key()
{
  LogCapture log;
  g_assert_null(gvc_encryptor_new(nullptr));
  log.expect({failed_check("gvc_encryptor_new", "key != NULL")});
  for (gsize size : {0, 1, 16, 31, 33, 64}) {
    const BytesRef key = bytes_ref(sample(Kind::noise, size));
    g_assert_null(gvc_encryptor_new(key.get()));
    log.expect({failed_check("gvc_encryptor_new", "g_bytes_get_size(key) == (256 / 8)")});
  }
}

void
test_set_key_length_checks_its_arguments()
{
  const auto encryptor = new_encryptor();
  const auto other = own(gvc_compressor_new());
  const Bytes iv = take_iv(encryptor.get());
  const LogMessage wrong_object =
      failed_check("gvc_encryptor_set_key_length", "GVC_IS_ENCRYPTOR(encryptor)");
  const LogMessage wrong_length =
      failed_check("gvc_encryptor_set_key_length", "key_length == 128 || key_length == 256");

  LogCapture log;
  gvc_encryptor_set_key_length(nullptr, 256);
  log.expect({wrong_object});
  gvc_encryptor_set_key_length(reinterpret_cast<GvcEncryptor *>(other.get()), 1);
  log.expect({wrong_object});
  for (guint length : {0u, 1u, 127u, 129u, 192u, 255u, 257u, 512u, G_MAXUINT}) {
    gvc_encryptor_set_key_length(encryptor.get(), length);
    log.expect({wrong_length});
  }

  guint length = 0;
  g_object_get(encryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 256);
  Sealer sealer{test_key(), 256, iv};
  assert_record(encryptor.get(), sealer, sample(Kind::text, 20));
}

void
test_property_rejects_192()
{
  const auto encryptor = new_encryptor();
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  LogCapture log;
  g_object_set(encryptor.get(), "key-length", 192, nullptr);
  log.expect(
      {failed_check("gvc_encryptor_set_key_length", "key_length == 128 || key_length == 256")});
  guint length = 0;
  g_object_get(encryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 256);
  assert_record(encryptor.get(), sealer, sample(Kind::text, 20));

  // Below and above its range the property refuses the value itself.
  for (guint outside : {127u, 257u}) {
    g_object_set(encryptor.get(), "key-length", outside, nullptr);
    const std::vector<LogMessage> messages = log.take();
    g_assert_cmpuint(messages.size(), ==, 1);
    g_assert_true(messages[0].domain == "GLib-GObject");
    g_object_get(encryptor.get(), "key-length", &length, nullptr);
    g_assert_cmpuint(length, ==, 256);
  }
}

// The setter leaves the length at 0, and any length but 128 means AES-256.
void
test_construction_with_192_uses_the_whole_key()
{
  const BytesRef key = bytes_ref(test_key());
  LogCapture log;
  const auto encryptor = own(static_cast<GvcEncryptor *>(
      g_object_new(GVC_TYPE_ENCRYPTOR, "key", key.get(), "key-length", 192, nullptr)));
  log.expect(
      {failed_check("gvc_encryptor_set_key_length", "key_length == 128 || key_length == 256")});
  guint length = 1;
  g_object_get(encryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 0);
  Sealer sealer{test_key(), 256, take_iv(encryptor.get())};
  assert_record(encryptor.get(), sealer, sample(Kind::text, 40));
}

void
count_notify(GObject *, GParamSpec *pspec, gpointer counter)
{
  g_assert_cmpstr(pspec->name, ==, "key-length");
  ++*static_cast<guint *>(counter);
}

void
test_notifies_on_change_only()
{
  const auto encryptor = new_encryptor();
  guint notified = 0;
  g_signal_connect(encryptor.get(), "notify", G_CALLBACK(count_notify), &notified);
  gvc_encryptor_set_key_length(encryptor.get(), 256);
  g_assert_cmpuint(notified, ==, 0);
  gvc_encryptor_set_key_length(encryptor.get(), 128);
  g_assert_cmpuint(notified, ==, 1);
  gvc_encryptor_set_key_length(encryptor.get(), 128);
  g_assert_cmpuint(notified, ==, 1);
  g_object_set(encryptor.get(), "key-length", 256, nullptr);
  g_assert_cmpuint(notified, ==, 2);
  g_converter_reset(G_CONVERTER(encryptor.get()));
  g_assert_cmpuint(notified, ==, 2);
}

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

void
test_unknown_property_warns()
{
  const auto encryptor = new_encryptor();
  GObjectClass *klass = G_OBJECT_GET_CLASS(encryptor.get());
  GParamSpec *pspec = g_object_class_find_property(klass, "key-length");
  g_auto(GValue) value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_UINT);
  g_value_set_uint(&value, 128);

  LogCapture log;
  klass->set_property(G_OBJECT(encryptor.get()), 77, &value, pspec);
  klass->get_property(G_OBJECT(encryptor.get()), 78, &value, pspec);
  const std::vector<LogMessage> messages = log.take();
  g_assert_cmpuint(messages.size(), ==, 2);
  const char *const rest = ": invalid property id %u for \"key-length\" of type 'GParamUInt' in "
                           "'GvcEncryptor'";
  for (guint i = 0; i < 2; i++) {
    g_assert_false(messages[i].domain.has_value());
    g_assert_cmpint(messages[i].level, ==, G_LOG_LEVEL_WARNING);
    g_autofree char *tail = g_strdup_printf(rest, 77 + i);
    g_autofree char *quoted = g_regex_escape_string(tail, -1);
    g_autofree char *whole =
        g_strconcat("^vchannels/zelgvc/gvcencryptor:[1-9][0-9]*", quoted, "$", nullptr);
    if (!g_regex_match_simple(whole, messages[i].text.c_str(), G_REGEX_DEFAULT,
                              G_REGEX_MATCH_DEFAULT))
      g_error("%s", messages[i].text.c_str());
  }
  g_assert_cmpuint(g_value_get_uint(&value), ==, 128);
  guint length = 0;
  g_object_get(encryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 256);
}

void
test_owns_a_reference_to_its_key()
{
  LifeWatch watch;
  BytesRef key = watch.add_bytes(to_text(test_key()));
  auto encryptor = own(gvc_encryptor_new(key.get()));
  watch.add(encryptor.get());
  assert_refcount(encryptor.get(), 1);
  GBytes *borrowed = key.get();
  key.reset();
  g_assert_cmpuint(watch.alive(), ==, 2);
  {
    g_autoptr(GBytes) got = nullptr;
    g_object_get(encryptor.get(), "key", &got, nullptr);
    g_assert_true(got == borrowed);
  }
  g_assert_cmpuint(watch.alive(), ==, 2);
  g_converter_reset(G_CONVERTER(encryptor.get()));
  gvc_encryptor_set_key_length(encryptor.get(), 128);
  Sealer sealer{test_key(), 128, take_iv(encryptor.get())};
  assert_record(encryptor.get(), sealer, sample(Kind::text, 64));
  g_assert_cmpuint(watch.alive(), ==, 2);
  encryptor.reset();
  g_assert_cmpuint(watch.alive(), ==, 0);
}

void
test_refused_construction_keeps_no_reference()
{
  LifeWatch watch;
  BytesRef key = watch.add_bytes("sixteen bytes...");
  LogCapture log;
  g_assert_null(gvc_encryptor_new(key.get()));
  log.expect({failed_check("gvc_encryptor_new", "g_bytes_get_size(key) == (256 / 8)")});
  key.reset();
  g_assert_cmpuint(watch.alive(), ==, 0);
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
assert_cannot_encrypt(GvcEncryptor *encryptor)
{
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

void
test_without_a_key()
{
  const auto encryptor =
      own(static_cast<GvcEncryptor *>(g_object_new(GVC_TYPE_ENCRYPTOR, nullptr)));
  guint length = 0;
  g_autoptr(GBytes) key = nullptr;
  g_object_get(encryptor.get(), "key-length", &length, "key", &key, nullptr);
  g_assert_cmpuint(length, ==, 256);
  g_assert_null(key);
  assert_cannot_encrypt(encryptor.get());
  gvc_encryptor_set_key_length(encryptor.get(), 128);
  assert_cannot_encrypt(encryptor.get());
}

void
test_with_a_key_of_the_wrong_size()
{
  for (gsize size : {0, 1, 15, 16, 31, 33, 48})
    for (guint length : {128, 256}) {
      LifeWatch watch;
      {
        // A key at the end of its own allocation, so that reading past it is seen.
        const BytesRef key = watch.add_bytes(to_text(sample(Kind::noise, size)));
        const auto encryptor = own(static_cast<GvcEncryptor *>(
            g_object_new(GVC_TYPE_ENCRYPTOR, "key", key.get(), "key-length", length, nullptr)));
        assert_cannot_encrypt(encryptor.get());
      }
      g_assert_cmpuint(watch.alive(), ==, 0);
    }
}

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

std::shared_ptr<Script>
slow_script(gsize per_call)
{
  auto script = std::make_shared<Script>();
  script->max_per_call = per_call;
  return script;
}

void
test_output_stream(gconstpointer data)
{
  const gsize per_call = GPOINTER_TO_SIZE(data);
  std::mt19937 random{99};
  for (int bits : {128, 256})
    for (gsize size : {0, 1, 15, 16, 17, 255, 4095, 4096, 4097, 65536, 300001, 1 << 20}) {
      const Bytes plain = sample(Kind::mixture, size, size + bits);
      const auto script = slow_script(per_call);
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
test_input_stream(gconstpointer data)
{
  const gsize per_call = GPOINTER_TO_SIZE(data);
  std::mt19937 random{98};
  for (gsize size : {1, 16, 1000, 65537, 1 << 20}) {
    const Bytes plain = sample(Kind::mixture, size, size);
    const auto script = slow_script(per_call);
    script->data = to_text(plain);
    const auto encryptor = new_encryptor();
    const auto base = new_scripted_input(script);
    const auto stream = own(g_converter_input_stream_new(base.get(), G_CONVERTER(encryptor.get())));
    ErrorPtr error;
    const Bytes wire = read_to_end(stream.get(), &error);
    g_assert_no_error(error.get());
    Opener opener{test_key(), 256};
    ASSERT_BYTES(opener.open(wire), plain);
    g_assert_cmpuint(opener.iv_records, ==, 1);
  }
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
test_socket(gconstpointer data)
{
  const auto family = static_cast<Family>(GPOINTER_TO_INT(data));
  SocketPair pair = new_socket_pair(family);
  const Bytes plain = sample(Kind::mixture, 1 << 20, 77);

  std::thread writer{[&] {
    std::mt19937 random{5};
    const auto encryptor = new_encryptor();
    const auto stream = own(g_converter_output_stream_new(
        g_io_stream_get_output_stream(G_IO_STREAM(pair.a.get())), G_CONVERTER(encryptor.get())));
    write_in_pieces(stream.get(), plain, random);
    g_assert_true(g_output_stream_close(stream.get(), nullptr, nullptr));
    g_assert_true(g_io_stream_close(G_IO_STREAM(pair.a.get()), nullptr, nullptr));
  }};
  ErrorPtr error;
  const Bytes wire = read_to_end(g_io_stream_get_input_stream(G_IO_STREAM(pair.b.get())), &error);
  writer.join();
  g_assert_no_error(error.get());
  Opener opener{test_key(), 256};
  ASSERT_BYTES(opener.open(wire), plain);
  g_assert_cmpuint(opener.iv_records, ==, 1);
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

  g_test_add_func("/encryptor/type", test_type);
  g_test_add_func("/encryptor/properties", test_properties);
  g_test_add_func("/encryptor/property-values", test_property_values);
  g_test_add_func("/encryptor/new-checks-its-key", test_new_checks_its_key);
  g_test_add_func("/encryptor/set-key-length-checks-its-arguments",
                  test_set_key_length_checks_its_arguments);
  g_test_add_func("/encryptor/property-rejects-192", test_property_rejects_192);
  g_test_add_func("/encryptor/construction-with-192-uses-the-whole-key",
                  test_construction_with_192_uses_the_whole_key);
  g_test_add_func("/encryptor/notifies-on-change-only", test_notifies_on_change_only);
  g_test_add_func("/encryptor/notifies-after-the-reset", test_notifies_after_the_reset);
  g_test_add_func("/encryptor/unknown-property-warns", test_unknown_property_warns);
  g_test_add_func("/encryptor/owns-a-reference-to-its-key", test_owns_a_reference_to_its_key);
  g_test_add_func("/encryptor/refused-construction-keeps-no-reference",
                  test_refused_construction_keeps_no_reference);
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
  g_test_add_func("/encryptor/without-a-key", test_without_a_key);
  g_test_add_func("/encryptor/with-a-key-of-the-wrong-size", test_with_a_key_of_the_wrong_size);
  g_test_add_func("/encryptor/more-than-int-max-bytes-fail", test_more_than_int_max_bytes_fail);
  g_test_add_data_func("/encryptor/output-stream/whole", GSIZE_TO_POINTER(1 << 30),
                       test_output_stream);
  g_test_add_data_func("/encryptor/output-stream/7-bytes-a-call", GSIZE_TO_POINTER(7),
                       test_output_stream);
  g_test_add_data_func("/encryptor/output-stream/1-byte-a-call", GSIZE_TO_POINTER(1),
                       test_output_stream);
  g_test_add_data_func("/encryptor/input-stream/whole", GSIZE_TO_POINTER(1 << 30),
                       test_input_stream);
  g_test_add_data_func("/encryptor/input-stream/7-bytes-a-call", GSIZE_TO_POINTER(7),
                       test_input_stream);
  g_test_add_data_func("/encryptor/input-stream/1-byte-a-call", GSIZE_TO_POINTER(1),
                       test_input_stream);
  g_test_add_func("/encryptor/reset-in-mid-stream", test_reset_in_mid_stream);
  g_test_add_data_func("/encryptor/socket/tcp", GINT_TO_POINTER(static_cast<int>(Family::tcp4)),
                       test_socket);
  g_test_add_data_func("/encryptor/socket/unix",
                       GINT_TO_POINTER(static_cast<int>(Family::unix_domain)), test_socket);
  g_test_add_func("/encryptor/failing-base-stream", test_failing_base_stream);
  return g_test_run();
}
