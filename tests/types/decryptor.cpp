// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/convert.h"
#include "tests/support/records.h"
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <algorithm>
#include <climits>
#include <set>
#include <thread>

using namespace support;

namespace
{

constexpr gsize key_size = 32;
constexpr gsize mib = 1 << 20;

Bytes
test_key()
{
  return sample(Kind::noise, key_size, 4711);
}

Bytes
test_iv(guint32 seed = 1)
{
  return sample(Kind::noise, aes_block, 100 + seed);
}

const Bytes zero_iv(aes_block, 0);

BytesRef
bytes_ref(ByteView data)
{
  return BytesRef{g_bytes_new(data.data(), data.size())};
}

Ref<GvcDecryptor>
new_decryptor(int bits = 256)
{
  const BytesRef key = bytes_ref(test_key());
  auto decryptor = own(gvc_decryptor_new(key.get()));
  g_assert_true(GVC_IS_DECRYPTOR(decryptor.get()));
  if (bits != 256)
    gvc_decryptor_set_key_length(decryptor.get(), bits);
  return decryptor;
}

void
give_iv(GvcDecryptor *decryptor, ByteView iv)
{
  ASSERT_CONVERTED(convert(decryptor, iv_record(iv), 1), G_CONVERTER_CONVERTED, iv_record_size, 0);
}

void
assert_opens(GvcDecryptor *decryptor, Sealer &sealer, ByteView plain)
{
  const Bytes record = sealer.record(plain);
  const Conversion c = convert(decryptor, record, record.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, record.size(), plain.size());
  ASSERT_BYTES(c.produced(), plain);
}

/* ---- Type, properties, arguments ---- */

void
test_type()
{
  assert_converter_type(GVC_TYPE_DECRYPTOR, "GvcDecryptor", sizeof(GObjectClass), 64);
  g_assert_cmpuint(sizeof(GvcDecryptorClass), ==, sizeof(GObjectClass));
  g_assert_cmpuint(own_signals(GVC_TYPE_DECRYPTOR).size(), ==, 0);
}

void
test_properties()
{
  const std::vector<std::string> names = own_properties(GVC_TYPE_DECRYPTOR);
  g_assert_true(std::set<std::string>(names.begin(), names.end()) ==
                (std::set<std::string>{"key", "key-length"}));
  assert_property(GVC_TYPE_DECRYPTOR, "key", G_TYPE_BYTES, "key", "key", 235);
  assert_property(GVC_TYPE_DECRYPTOR, "key-length", G_TYPE_UINT, "key length", "key length", 231);

  gpointer klass = g_type_class_ref(GVC_TYPE_DECRYPTOR);
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
  const auto decryptor = own(gvc_decryptor_new(key.get()));
  g_autoptr(GBytes) got = nullptr;
  guint length = 0;
  g_object_get(decryptor.get(), "key", &got, "key-length", &length, nullptr);
  g_assert_true(got == key.get());
  g_assert_cmpuint(length, ==, 256);
  gvc_decryptor_set_key_length(decryptor.get(), 128);
  g_object_get(decryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 128);

  const auto by_name = own(static_cast<GvcDecryptor *>(
      g_object_new(GVC_TYPE_DECRYPTOR, "key-length", 128, "key", key.get(), nullptr)));
  g_object_get(by_name.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 128);
  Sealer sealer{test_key(), 128, zero_iv};
  assert_opens(by_name.get(), sealer, sample(Kind::text, 50));
}

void
test_new_checks_its_key()
{
  LogCapture log;
  g_assert_null(gvc_decryptor_new(nullptr));
  log.expect({failed_check("gvc_decryptor_new", "key != NULL")});
  for (gsize size : {0, 1, 16, 31, 33, 64}) {
    const BytesRef key = bytes_ref(sample(Kind::noise, size));
    g_assert_null(gvc_decryptor_new(key.get()));
    log.expect({failed_check("gvc_decryptor_new", "g_bytes_get_size(key) == (256 / 8)")});
  }
}

void
test_set_key_length_checks_its_arguments()
{
  const auto decryptor = new_decryptor();
  const auto other = own(gvc_decompressor_new());
  const LogMessage wrong_object =
      failed_check("gvc_decryptor_set_key_length", "GVC_IS_DECRYPTOR(decryptor)");
  const LogMessage wrong_length =
      failed_check("gvc_decryptor_set_key_length", "key_length == 128 || key_length == 256");

  LogCapture log;
  gvc_decryptor_set_key_length(nullptr, 256);
  log.expect({wrong_object});
  gvc_decryptor_set_key_length(reinterpret_cast<GvcDecryptor *>(other.get()), 1);
  log.expect({wrong_object});
  for (guint length : {0u, 1u, 127u, 129u, 192u, 255u, 257u, 512u, G_MAXUINT}) {
    gvc_decryptor_set_key_length(decryptor.get(), length);
    log.expect({wrong_length});
  }

  guint length = 0;
  g_object_get(decryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 256);
  Sealer sealer{test_key(), 256, zero_iv};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 20));
}

void
test_property_rejects_192()
{
  const auto decryptor = new_decryptor();
  LogCapture log;
  g_object_set(decryptor.get(), "key-length", 192, nullptr);
  log.expect(
      {failed_check("gvc_decryptor_set_key_length", "key_length == 128 || key_length == 256")});
  guint length = 0;
  g_object_get(decryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 256);
  Sealer sealer{test_key(), 256, zero_iv};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 20));
}

// The setter leaves the length at 0, and any length but 128 means AES-256.
void
test_construction_with_192_uses_the_whole_key()
{
  const BytesRef key = bytes_ref(test_key());
  LogCapture log;
  const auto decryptor = own(static_cast<GvcDecryptor *>(
      g_object_new(GVC_TYPE_DECRYPTOR, "key", key.get(), "key-length", 192, nullptr)));
  log.expect(
      {failed_check("gvc_decryptor_set_key_length", "key_length == 128 || key_length == 256")});
  guint length = 1;
  g_object_get(decryptor.get(), "key-length", &length, nullptr);
  g_assert_cmpuint(length, ==, 0);
  Sealer sealer{test_key(), 256, zero_iv};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 40));
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
  const auto decryptor = new_decryptor();
  guint notified = 0;
  g_signal_connect(decryptor.get(), "notify", G_CALLBACK(count_notify), &notified);
  gvc_decryptor_set_key_length(decryptor.get(), 256);
  g_assert_cmpuint(notified, ==, 0);
  gvc_decryptor_set_key_length(decryptor.get(), 128);
  g_assert_cmpuint(notified, ==, 1);
  gvc_decryptor_set_key_length(decryptor.get(), 128);
  g_assert_cmpuint(notified, ==, 1);
  g_object_set(decryptor.get(), "key-length", 256, nullptr);
  g_assert_cmpuint(notified, ==, 2);
  g_converter_reset(G_CONVERTER(decryptor.get()));
  g_assert_cmpuint(notified, ==, 2);
}

void
test_unknown_property_warns()
{
  const auto decryptor = new_decryptor();
  GObjectClass *klass = G_OBJECT_GET_CLASS(decryptor.get());
  GParamSpec *pspec = g_object_class_find_property(klass, "key");
  g_auto(GValue) value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_BYTES);

  LogCapture log;
  klass->set_property(G_OBJECT(decryptor.get()), 77, &value, pspec);
  klass->get_property(G_OBJECT(decryptor.get()), 78, &value, pspec);
  const std::vector<LogMessage> messages = log.take();
  g_assert_cmpuint(messages.size(), ==, 2);
  const char *const rest =
      ": invalid property id %u for \"key\" of type 'GParamBoxed' in 'GvcDecryptor'";
  for (guint i = 0; i < 2; i++) {
    g_assert_false(messages[i].domain.has_value());
    g_assert_cmpint(messages[i].level, ==, G_LOG_LEVEL_WARNING);
    g_autofree char *tail = g_strdup_printf(rest, 77 + i);
    g_autofree char *quoted = g_regex_escape_string(tail, -1);
    g_autofree char *whole =
        g_strconcat("^vchannels/zelgvc/gvcdecryptor:[1-9][0-9]*", quoted, "$", nullptr);
    if (!g_regex_match_simple(whole, messages[i].text.c_str(), G_REGEX_DEFAULT,
                              G_REGEX_MATCH_DEFAULT))
      g_error("%s", messages[i].text.c_str());
  }
  g_assert_null(g_value_get_boxed(&value));
}

void
test_owns_a_reference_to_its_key()
{
  LifeWatch watch;
  BytesRef key = watch.add_bytes(to_text(test_key()));
  auto decryptor = own(gvc_decryptor_new(key.get()));
  watch.add(decryptor.get());
  assert_refcount(decryptor.get(), 1);
  key.reset();
  g_assert_cmpuint(watch.alive(), ==, 2);
  g_converter_reset(G_CONVERTER(decryptor.get()));
  gvc_decryptor_set_key_length(decryptor.get(), 128);
  Sealer sealer{test_key(), 128, zero_iv};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 64));
  g_assert_cmpuint(watch.alive(), ==, 2);
  decryptor.reset();
  g_assert_cmpuint(watch.alive(), ==, 0);
}

void
test_refused_construction_keeps_no_reference()
{
  LifeWatch watch;
  BytesRef key = watch.add_bytes("sixteen bytes...");
  LogCapture log;
  g_assert_null(gvc_decryptor_new(key.get()));
  log.expect({failed_check("gvc_decryptor_new", "g_bytes_get_size(key) == (256 / 8)")});
  key.reset();
  g_assert_cmpuint(watch.alive(), ==, 0);
}

/* ---- Records ---- */

void
test_short_headers()
{
  const auto decryptor = new_decryptor();
  for (gsize size = 0; size < 8; size++)
    for (guint8 fill : {0, 16, 255})
      for (gsize room : {0, 1, 100})
        for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
          ASSERT_FAILED(convert(decryptor.get(), Bytes(size, fill), room, flags),
                        G_IO_ERROR_PARTIAL_INPUT, "Partial header");
}

void
test_iv_record()
{
  const auto decryptor = new_decryptor();
  const Bytes record = iv_record(test_iv());
  for (gsize size = 8; size < 24; size++)
    ASSERT_FAILED(convert(decryptor.get(), ByteView{record}.first(size), 100),
                  G_IO_ERROR_PARTIAL_INPUT, "Partial IV");
  ASSERT_CONVERTED(convert(decryptor.get(), record, 0), G_CONVERTER_CONVERTED, 24, 0);
  Sealer sealer{test_key(), 256, test_iv()};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 70));
}

void
test_partial_iv_changes_nothing()
{
  const auto decryptor = new_decryptor();
  give_iv(decryptor.get(), test_iv(1));
  const Bytes other = iv_record(test_iv(2));
  ASSERT_FAILED(convert(decryptor.get(), ByteView{other}.first(23), 100), G_IO_ERROR_PARTIAL_INPUT,
                "Partial IV");
  Sealer sealer{test_key(), 256, test_iv(1)};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 70));
}

void
test_length_must_be_whole_blocks()
{
  const auto decryptor = new_decryptor();
  ASSERT_FAILED(convert(decryptor.get(), raw_record(20, {}), 100), G_IO_ERROR_FAILED,
                "Not multiple of AES block");
  ASSERT_FAILED(convert(decryptor.get(), raw_record(20, Bytes(100)), 0), G_IO_ERROR_FAILED,
                "Not multiple of AES block");
  for (guint64 length :
       {guint64{1}, guint64{15}, guint64{17}, guint64{INT_MAX}, (guint64{1} << 32) + 1,
        (guint64{1} << 63) + 8, G_MAXUINT64 - 7, G_MAXUINT64})
    for (gsize payload : {0, 16, 100})
      ASSERT_FAILED(convert(decryptor.get(), raw_record(length, Bytes(payload)), 100),
                    G_IO_ERROR_FAILED, "Not multiple of AES block");
}

void
test_order_of_checks()
{
  const auto decryptor = new_decryptor();
  Sealer sealer{test_key(), 256, zero_iv};
  const Bytes plain = sample(Kind::text, 20);
  const Bytes record = sealer.record(plain);
  g_assert_cmpuint(record.size(), ==, 40);
  const ByteView cut = ByteView{record}.first(39);
  ASSERT_FAILED(convert(decryptor.get(), cut, 31), G_IO_ERROR_PARTIAL_INPUT, "Partial data");
  ASSERT_FAILED(convert(decryptor.get(), cut, 32), G_IO_ERROR_PARTIAL_INPUT, "Partial data");
  ASSERT_FAILED(convert(decryptor.get(), record, 31), G_IO_ERROR_NO_SPACE, "Not enough space");
  // Fewer bytes come out, but the room must hold the padding too.
  ASSERT_FAILED(convert(decryptor.get(), record, 20), G_IO_ERROR_NO_SPACE, "Not enough space");
  ASSERT_FAILED(convert(decryptor.get(), record, 0), G_IO_ERROR_NO_SPACE, "Not enough space");
  const Conversion c = convert(decryptor.get(), record, 32);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 40, 20);
  ASSERT_BYTES(c.produced(), plain);
}

void
test_records_of_openssl(gconstpointer data)
{
  const int bits = GPOINTER_TO_INT(data);
  const auto decryptor = new_decryptor(bits);
  give_iv(decryptor.get(), test_iv());
  Sealer sealer{test_key(), bits, test_iv()};
  for (gsize size = 0; size <= 200; size++)
    assert_opens(decryptor.get(), sealer, sample(Kind::noise, size, size));
  for (gsize size : {4095, 4096, 4097, 65535, 65536, 1 << 20, (1 << 20) + 5})
    for (Kind kind : all_kinds)
      assert_opens(decryptor.get(), sealer, sample(kind, size, size));
}

// 128 bits take the first half of the key only.
void
test_half_of_the_key()
{
  const auto decryptor = new_decryptor(128);
  Sealer sealer{ByteView{test_key()}.first(16), 128, zero_iv};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 33));
}

void
test_starts_with_a_chain_of_zeros()
{
  const auto decryptor = new_decryptor();
  Sealer sealer{test_key(), 256, zero_iv};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 33));
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 33));
}

void
test_iv_record_replaces_the_chain()
{
  const auto decryptor = new_decryptor();
  Sealer sealer{test_key(), 256, zero_iv};
  for (guint32 i = 1; i < 5; i++) {
    give_iv(decryptor.get(), test_iv(i));
    give_iv(decryptor.get(), test_iv(i + 10));
    sealer.set_chain(test_iv(i + 10));
    assert_opens(decryptor.get(), sealer, sample(Kind::text, 33 * i));
    assert_opens(decryptor.get(), sealer, sample(Kind::text, 16 * i));
  }
}

void
test_one_record_per_call()
{
  const auto decryptor = new_decryptor();
  Sealer sealer{test_key(), 256, test_iv()};
  const Bytes one = sample(Kind::text, 100), two = sample(Kind::ramp, 31);
  const Bytes first = sealer.record(one), second = sealer.record(two);
  const Bytes stream = join({iv_record(test_iv()), first, second});
  ByteView rest{stream};

  Conversion c = convert(decryptor.get(), rest, 1000);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 24, 0);
  rest = rest.subspan(24);
  c = convert(decryptor.get(), rest, 1000);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, first.size(), one.size());
  ASSERT_BYTES(c.produced(), one);
  rest = rest.subspan(first.size());
  c = convert(decryptor.get(), rest, 1000);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, second.size(), two.size());
  ASSERT_BYTES(c.produced(), two);
}

void
test_end_of_input_finishes_after_one_record()
{
  const auto decryptor = new_decryptor();
  Sealer sealer{test_key(), 256, test_iv()};
  const Bytes plain = sample(Kind::text, 100);
  const Bytes first = sealer.record(plain), second = sealer.record(plain);
  const Bytes stream = join({first, second});
  ASSERT_CONVERTED(convert(decryptor.get(), join({iv_record(test_iv()), stream}), 1000,
                           G_CONVERTER_INPUT_AT_END),
                   G_CONVERTER_FINISHED, 24, 0);
  const Conversion c = convert(decryptor.get(), stream, 1000, G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(c, G_CONVERTER_FINISHED, first.size(), 100);
  ASSERT_BYTES(c.produced(), plain);
  const Conversion d = convert(decryptor.get(), second, 1000, G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(d, G_CONVERTER_FINISHED, second.size(), 100);
  ASSERT_BYTES(d.produced(), plain);
}

void
test_flush_comes_first()
{
  const auto decryptor = new_decryptor();
  Sealer sealer{test_key(), 256, zero_iv};
  const Bytes plain = sample(Kind::text, 21);
  const Bytes record = sealer.record(plain);
  for (int flags : {int{G_CONVERTER_FLUSH}, G_CONVERTER_FLUSH | G_CONVERTER_INPUT_AT_END})
    for (gsize room : {0, 1, 100}) {
      ASSERT_CONVERTED(convert(decryptor.get(), {}, room, flags), G_CONVERTER_FLUSHED, 0, 0);
      ASSERT_CONVERTED(convert(decryptor.get(), iv_record(test_iv()), room, flags),
                       G_CONVERTER_FLUSHED, 0, 0);
      ASSERT_CONVERTED(convert(decryptor.get(), record, room, flags), G_CONVERTER_FLUSHED, 0, 0);
      ASSERT_CONVERTED(convert(decryptor.get(), raw_record(20, {}), room, flags),
                       G_CONVERTER_FLUSHED, 0, 0);
    }
  const Conversion c = convert(decryptor.get(), record, 32);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 40, 21);
  ASSERT_BYTES(c.produced(), plain);
}

// At every length that is cut short the answer is the first check that fails, and the whole record
// still opens afterwards.
void
test_cut_off_at_every_byte()
{
  for (gsize size : {1, 15, 16, 47, 100}) {
    const auto decryptor = new_decryptor();
    Sealer sealer{test_key(), 256, test_iv()};
    const Bytes plain = sample(Kind::text, size);
    const Bytes iv = iv_record(test_iv()), record = sealer.record(plain);
    for (gsize cut = 0; cut < iv.size(); cut++)
      ASSERT_FAILED(convert(decryptor.get(), ByteView{iv}.first(cut), 1000),
                    G_IO_ERROR_PARTIAL_INPUT, cut < 8 ? "Partial header" : "Partial IV");
    give_iv(decryptor.get(), test_iv());
    for (gsize cut = 0; cut < record.size(); cut++)
      for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
        ASSERT_FAILED(convert(decryptor.get(), ByteView{record}.first(cut), 1000, flags),
                      G_IO_ERROR_PARTIAL_INPUT, cut < 8 ? "Partial header" : "Partial data");
    const Conversion c = convert(decryptor.get(), record, 1000);
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, record.size(), size);
    ASSERT_BYTES(c.produced(), plain);
  }
}

void
test_retry_with_larger_room()
{
  const auto decryptor = new_decryptor();
  give_iv(decryptor.get(), test_iv());
  Sealer sealer{test_key(), 256, test_iv()};
  for (gsize size = 0; size <= 64; size++) {
    const Bytes plain = sample(Kind::noise, size, size);
    const Bytes record = sealer.record(plain);
    for (gsize room = 0; room < record.size() - 8; room++)
      ASSERT_FAILED(convert(decryptor.get(), record, room), G_IO_ERROR_NO_SPACE,
                    "Not enough space");
    const Conversion c = convert(decryptor.get(), record, record.size() - 8);
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, record.size(), size);
    ASSERT_BYTES(c.produced(), plain);
  }
}

/* ---- Padding ---- */

// Only the last byte counts, and it counts up to the whole record.
void
test_padding_is_trusted()
{
  const auto decryptor = new_decryptor();
  Sealer sealer{test_key(), 256, zero_iv};
  for (gsize length : {16, 32, 64, 240, 256, 272})
    for (gsize last = 0; last <= MIN(length, gsize{255}); last++) {
      Bytes plain = sample(Kind::noise, length, last + 1);
      plain.back() = static_cast<guint8>(last);
      const Bytes record = sealer.record_unpadded(plain);
      const Conversion c = convert(decryptor.get(), record, length);
      ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, length + 8, length - last);
      ASSERT_BYTES(c.produced(), ByteView{plain}.first(length - last));
    }
}

void
test_padding_beyond_the_record_fails()
{
  const auto decryptor = new_decryptor();
  give_iv(decryptor.get(), test_iv());
  Sealer sealer{test_key(), 256, test_iv()};
  for (gsize length : {16, 32, 64, 240})
    for (gsize last = length + 1; last <= 255; last++) {
      Bytes plain = sample(Kind::noise, length, last);
      plain.back() = static_cast<guint8>(last);
      Sealer liar = sealer;
      const Bytes record = liar.record_unpadded(plain);
      for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
        ASSERT_FAILED(convert(decryptor.get(), record, length + 5, flags), G_IO_ERROR_FAILED,
                      "Decryption failed");
      // The chain is where it was.
      assert_opens(decryptor.get(), sealer, sample(Kind::text, last));
    }
}

void
test_wrong_key_is_not_a_crash()
{
  const BytesRef key = bytes_ref(sample(Kind::noise, key_size, 99));
  const auto decryptor = own(gvc_decryptor_new(key.get()));
  Sealer sealer{test_key(), 256, zero_iv};
  guint refused = 0, delivered = 0;
  for (guint i = 0; i < 500; i++) {
    const Bytes plain = sample(Kind::text, 1 + i % 100, i);
    const Bytes chain = sealer.chain();
    const Bytes record = sealer.record(plain);
    const Bytes garbage = evp_cbc(false, false, sample(Kind::noise, key_size, 99), 256, chain,
                                  ByteView{record}.subspan(8));
    give_iv(decryptor.get(), chain);
    const Conversion c = convert(decryptor.get(), record, record.size());
    if (garbage.back() > garbage.size()) {
      ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Decryption failed");
      refused++;
    } else {
      ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, record.size(), garbage.size() - garbage.back());
      ASSERT_BYTES(c.produced(), ByteView{garbage}.first(c.written));
      delivered++;
    }
  }
  g_assert_cmpuint(refused, >, 0);
  g_assert_cmpuint(delivered, >, 0);
}

/* ---- Key length and reset ---- */

void
test_reset_keeps_the_chain()
{
  const auto decryptor = new_decryptor();
  give_iv(decryptor.get(), test_iv());
  Sealer sealer{test_key(), 256, test_iv()};
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 33));
  g_converter_reset(G_CONVERTER(decryptor.get()));
  assert_opens(decryptor.get(), sealer, sample(Kind::text, 33));
}

void
test_change_of_key_length_keeps_the_chain()
{
  const auto decryptor = new_decryptor();
  give_iv(decryptor.get(), test_iv());
  Sealer whole{test_key(), 256, test_iv()};
  assert_opens(decryptor.get(), whole, sample(Kind::text, 33));
  gvc_decryptor_set_key_length(decryptor.get(), 256);
  assert_opens(decryptor.get(), whole, sample(Kind::text, 33));
  gvc_decryptor_set_key_length(decryptor.get(), 128);
  Sealer half{test_key(), 128, whole.chain()};
  assert_opens(decryptor.get(), half, sample(Kind::text, 33));
  give_iv(decryptor.get(), test_iv(2));
  half.set_chain(test_iv(2));
  assert_opens(decryptor.get(), half, sample(Kind::text, 33));
}

/* ---- Misuse and bounds ---- */

void
assert_cannot_decrypt(GvcDecryptor *decryptor)
{
  Sealer sealer{test_key(), 256, test_iv()};
  const Bytes record = sealer.record(sample(Kind::text, 100));
  give_iv(decryptor, test_iv());
  ASSERT_FAILED(convert(decryptor, record, 200), G_IO_ERROR_FAILED, "Decryption failed");
  ASSERT_FAILED(convert(decryptor, record, 10), G_IO_ERROR_NO_SPACE, "Not enough space");
  g_converter_reset(G_CONVERTER(decryptor));
  ASSERT_FAILED(convert(decryptor, record, 200), G_IO_ERROR_FAILED, "Decryption failed");
}

void
test_without_a_key()
{
  const auto decryptor =
      own(static_cast<GvcDecryptor *>(g_object_new(GVC_TYPE_DECRYPTOR, nullptr)));
  assert_cannot_decrypt(decryptor.get());
  gvc_decryptor_set_key_length(decryptor.get(), 128);
  assert_cannot_decrypt(decryptor.get());
}

void
test_with_a_key_of_the_wrong_size()
{
  for (gsize size : {0, 1, 15, 16, 31, 33, 48})
    for (guint length : {128, 256}) {
      LifeWatch watch;
      {
        const BytesRef key = watch.add_bytes(to_text(sample(Kind::noise, size)));
        const auto decryptor = own(static_cast<GvcDecryptor *>(
            g_object_new(GVC_TYPE_DECRYPTOR, "key", key.get(), "key-length", length, nullptr)));
        assert_cannot_decrypt(decryptor.get());
      }
      g_assert_cmpuint(watch.alive(), ==, 0);
    }
}

const guint64 lengths_above_int_max[] = {guint64{INT_MAX} + 1,    guint64{1} << 32,
                                         (guint64{1} << 32) + 16, guint64{1} << 63,
                                         G_MAXUINT64 - 31,        G_MAXUINT64 - 15};

void
test_lengths_above_int_max()
{
  const auto decryptor = new_decryptor();
  give_iv(decryptor.get(), test_iv());
  Sealer sealer{test_key(), 256, test_iv()};
  Reserve in{2 * mib}, out{mib};
  for (guint64 length : lengths_above_int_max) {
    const Bytes header = little_endian(length, 8);
    std::copy(header.begin(), header.end(), in.data());
    for (gsize arrived : {gsize{8}, gsize{24}, gsize{40}, gsize{4096}, mib - 1})
      for (gsize room : {gsize{0}, gsize{16}, mib}) {
        const Conversion c =
            convert_in_place(decryptor.get(), in.data(), arrived, out.data(), room);
        ASSERT_FAILED(c, G_IO_ERROR_PARTIAL_INPUT, "Partial data");
      }
    for (gsize arrived : {mib + 8, 2 * mib})
      for (gsize room : {gsize{0}, gsize{16}, mib}) {
        const Conversion c =
            convert_in_place(decryptor.get(), in.data(), arrived, out.data(), room);
        ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Decryption failed");
      }
    assert_opens(decryptor.get(), sealer, sample(Kind::text, 33));
  }
}

// All of the record is there, and the room for it: the engine's count would be cut to an int.
void
test_whole_records_above_int_max_fail()
{
  const auto decryptor = new_decryptor();
  give_iv(decryptor.get(), test_iv());
  Sealer sealer{test_key(), 256, test_iv()};
  for (guint64 length : {guint64{INT_MAX} + 1, (guint64{1} << 32) + 16}) {
    Reserve in{length + 8}, out{length};
    const Bytes header = little_endian(length, 8);
    std::copy(header.begin(), header.end(), in.data());
    const Conversion c =
        convert_in_place(decryptor.get(), in.data(), in.size(), out.data(), out.size());
    ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Decryption failed");
    assert_opens(decryptor.get(), sealer, sample(Kind::text, 33));
  }
}

/* ---- Converter streams ---- */

Ref<GInputStream>
input_over(GvcDecryptor *decryptor, const std::shared_ptr<Script> &script)
{
  const auto base = new_scripted_input(script);
  return own(g_converter_input_stream_new(base.get(), G_CONVERTER(decryptor)));
}

std::shared_ptr<Script>
script_of(ByteView data, gsize per_call)
{
  auto script = std::make_shared<Script>();
  script->data = to_text(data);
  script->max_per_call = per_call;
  return script;
}

// A whole stream over `plain`, cut into records of random sizes, with further IV records among
// them.
Bytes
sealed_stream(ByteView plain, int bits, std::mt19937 &random)
{
  Sealer sealer{test_key(), bits, test_iv()};
  Bytes stream = iv_record(test_iv());
  while (!plain.empty()) {
    const gsize limit = gsize{1} << (random() % 21);
    const gsize piece = std::min<gsize>(plain.size(), 1 + random() % limit);
    if (random() % 8 == 0) {
      const Bytes iv = test_iv(random());
      stream = join({stream, iv_record(iv)});
      sealer.set_chain(iv);
    }
    const Bytes record = sealer.record(plain.first(piece));
    stream.insert(stream.end(), record.begin(), record.end());
    plain = plain.subspan(piece);
  }
  return stream;
}

void
test_input_stream(gconstpointer data)
{
  const gsize per_call = GPOINTER_TO_SIZE(data);
  std::mt19937 random{41};
  for (int bits : {128, 256})
    for (gsize size : {0, 1, 15, 16, 17, 255, 4095, 4096, 4097, 65536, 300001, 1 << 20}) {
      const Bytes plain = sample(Kind::mixture, size, size + bits);
      const auto decryptor = new_decryptor(bits);
      const auto stream =
          input_over(decryptor.get(), script_of(sealed_stream(plain, bits, random), per_call));
      ASSERT_BYTES(read_in_pieces(stream.get(), size, random), plain);
      // An end at the border of two records shows as a header that does not come.
      ErrorPtr error;
      g_assert_cmpuint(read_to_end(stream.get(), &error).size(), ==, 0);
      g_assert_error(error.get(), G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
      g_assert_cmpstr(error->message, ==, "Partial header");
    }
}

// A stream cut at any byte delivers the records that are whole and then says what is missing.
void
test_cut_off_stream()
{
  Sealer sealer{test_key(), 256, test_iv()};
  const Bytes one = sample(Kind::text, 50), two = sample(Kind::ramp, 20);
  const gsize first_end = 24 + 8 + 64, second_end = first_end + 8 + 32;
  const Bytes whole = join({iv_record(test_iv()), sealer.record(one), sealer.record(two)});
  g_assert_cmpuint(whole.size(), ==, second_end);
  for (gsize per_call : {1, 7, 10000})
    for (gsize cut = 0; cut <= whole.size(); cut++) {
      const auto decryptor = new_decryptor();
      const auto stream =
          input_over(decryptor.get(), script_of(ByteView{whole}.first(cut), per_call));
      ErrorPtr error;
      const Bytes got = read_to_end(stream.get(), &error);
      const Bytes expected = cut < first_end ? Bytes{} : cut < second_end ? one : join({one, two});
      ASSERT_BYTES(got, expected);
      const gsize start = cut < 24 ? 0 : cut < first_end ? 24 : cut < second_end ? first_end : cut;
      const char *message = cut - start < 8 ? "Partial header"
                            : start == 0    ? "Partial IV"
                                            : "Partial data";
      g_assert_error(error.get(), G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
      g_assert_cmpstr(error->message, ==, message);
    }
}

void
test_output_stream(gconstpointer data)
{
  const gsize per_call = GPOINTER_TO_SIZE(data);
  std::mt19937 random{42};
  for (gsize size : {1, 16, 1000, 65537, 1 << 20}) {
    const Bytes plain = sample(Kind::mixture, size, size);
    auto script = std::make_shared<Script>();
    script->max_per_call = per_call;
    const auto decryptor = new_decryptor();
    const auto base = new_scripted_output(script);
    const auto stream =
        own(g_converter_output_stream_new(base.get(), G_CONVERTER(decryptor.get())));
    write_in_pieces(stream.get(), sealed_stream(plain, 256, random), random);
    g_assert_true(g_output_stream_flush(stream.get(), nullptr, nullptr));
    ASSERT_BYTES(to_bytes(script->written()), plain);
  }
}

void
test_socket(gconstpointer data)
{
  const auto family = static_cast<Family>(GPOINTER_TO_INT(data));
  std::mt19937 random{43};
  const Bytes plain = sample(Kind::mixture, mib, 77);
  const Bytes wire = sealed_stream(plain, 256, random);
  SocketPair pair = new_socket_pair(family);
  std::thread writer{[&] {
    std::mt19937 splits{6};
    write_in_pieces(g_io_stream_get_output_stream(G_IO_STREAM(pair.a.get())), wire, splits);
    g_assert_true(g_io_stream_close(G_IO_STREAM(pair.a.get()), nullptr, nullptr));
  }};
  const auto decryptor = new_decryptor();
  const auto stream = own(g_converter_input_stream_new(
      g_io_stream_get_input_stream(G_IO_STREAM(pair.b.get())), G_CONVERTER(decryptor.get())));
  const Bytes got = read_in_pieces(stream.get(), plain.size(), random);
  ErrorPtr error;
  g_assert_cmpuint(read_to_end(stream.get(), &error).size(), ==, 0);
  writer.join();
  ASSERT_BYTES(got, plain);
  g_assert_error(error.get(), G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
  g_assert_cmpstr(error->message, ==, "Partial header");
}

// A length that nothing can follow up must not make the reader gather bytes without end.
void
test_stream_of_a_huge_record_ends()
{
  for (guint64 length : lengths_above_int_max) {
    const auto decryptor = new_decryptor();
    const auto script = script_of(join({raw_record(length, {}), Bytes(16 * mib, 0xaa)}), 100000);
    const auto stream = input_over(decryptor.get(), script);
    ErrorPtr error;
    g_assert_cmpuint(read_to_end(stream.get(), &error).size(), ==, 0);
    g_assert_error(error.get(), G_IO_ERROR, G_IO_ERROR_FAILED);
    g_assert_cmpstr(error->message, ==, "Decryption failed");
    g_assert_cmpuint(script->moved(), <=, 4 * mib);
  }
}

void
test_stream_of_broken_records_ends()
{
  Sealer sealer{test_key(), 256, zero_iv};
  const Bytes good = sample(Kind::text, 77);
  const Bytes start = sealer.record(good);
  Bytes lie(32, 0);
  lie.back() = 33;
  const struct {
    Bytes tail;
    const char *message;
  } cases[] = {{raw_record(20, Bytes(5000)), "Not multiple of AES block"},
               {join({sealer.record_unpadded(lie), Bytes(5000)}), "Decryption failed"}};
  for (const auto &one : cases)
    for (gsize per_call : {1, 7, 100000}) {
      const auto decryptor = new_decryptor();
      const auto stream = input_over(decryptor.get(), script_of(join({start, one.tail}), per_call));
      ErrorPtr error;
      ASSERT_BYTES(read_to_end(stream.get(), &error), good);
      g_assert_error(error.get(), G_IO_ERROR, G_IO_ERROR_FAILED);
      g_assert_cmpstr(error->message, ==, one.message);
    }
}

// Random bytes end in one of the six errors or in plain text, never elsewhere.
void
test_noise()
{
  const std::set<std::string> messages = {
      "Partial header", "Partial IV",       "Not multiple of AES block",
      "Partial data",   "Not enough space", "Decryption failed"};
  std::mt19937 random{7};
  const auto decryptor = new_decryptor();
  guint converted = 0;
  for (guint i = 0; i < 20000; i++) {
    Bytes in = sample(Kind::noise, random() % 200, random());
    if (in.size() >= 8 && random() % 4 != 0) {
      const Bytes header = little_endian(random() % 12 * 16, 8);
      std::copy(header.begin(), header.end(), in.begin());
    }
    const Conversion c = convert(decryptor.get(), in, random() % 200, random() % 2);
    if (c.error)
      g_assert_true(messages.contains(c.error->message));
    else
      converted++;
  }
  g_assert_cmpuint(converted, >, 100);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  const gpointer whole = GSIZE_TO_POINTER(1 << 30);
  g_test_add_func("/decryptor/type", test_type);
  g_test_add_func("/decryptor/properties", test_properties);
  g_test_add_func("/decryptor/property-values", test_property_values);
  g_test_add_func("/decryptor/new-checks-its-key", test_new_checks_its_key);
  g_test_add_func("/decryptor/set-key-length-checks-its-arguments",
                  test_set_key_length_checks_its_arguments);
  g_test_add_func("/decryptor/property-rejects-192", test_property_rejects_192);
  g_test_add_func("/decryptor/construction-with-192-uses-the-whole-key",
                  test_construction_with_192_uses_the_whole_key);
  g_test_add_func("/decryptor/notifies-on-change-only", test_notifies_on_change_only);
  g_test_add_func("/decryptor/unknown-property-warns", test_unknown_property_warns);
  g_test_add_func("/decryptor/owns-a-reference-to-its-key", test_owns_a_reference_to_its_key);
  g_test_add_func("/decryptor/refused-construction-keeps-no-reference",
                  test_refused_construction_keeps_no_reference);
  g_test_add_func("/decryptor/short-headers", test_short_headers);
  g_test_add_func("/decryptor/iv-record", test_iv_record);
  g_test_add_func("/decryptor/partial-iv-changes-nothing", test_partial_iv_changes_nothing);
  g_test_add_func("/decryptor/length-must-be-whole-blocks", test_length_must_be_whole_blocks);
  g_test_add_func("/decryptor/order-of-checks", test_order_of_checks);
  g_test_add_data_func("/decryptor/records-of-openssl/128", GINT_TO_POINTER(128),
                       test_records_of_openssl);
  g_test_add_data_func("/decryptor/records-of-openssl/256", GINT_TO_POINTER(256),
                       test_records_of_openssl);
  g_test_add_func("/decryptor/half-of-the-key", test_half_of_the_key);
  g_test_add_func("/decryptor/starts-with-a-chain-of-zeros", test_starts_with_a_chain_of_zeros);
  g_test_add_func("/decryptor/iv-record-replaces-the-chain", test_iv_record_replaces_the_chain);
  g_test_add_func("/decryptor/one-record-per-call", test_one_record_per_call);
  g_test_add_func("/decryptor/end-of-input-finishes-after-one-record",
                  test_end_of_input_finishes_after_one_record);
  g_test_add_func("/decryptor/flush-comes-first", test_flush_comes_first);
  g_test_add_func("/decryptor/cut-off-at-every-byte", test_cut_off_at_every_byte);
  g_test_add_func("/decryptor/retry-with-larger-room", test_retry_with_larger_room);
  g_test_add_func("/decryptor/padding-is-trusted", test_padding_is_trusted);
  g_test_add_func("/decryptor/padding-beyond-the-record-fails",
                  test_padding_beyond_the_record_fails);
  g_test_add_func("/decryptor/wrong-key-is-not-a-crash", test_wrong_key_is_not_a_crash);
  g_test_add_func("/decryptor/reset-keeps-the-chain", test_reset_keeps_the_chain);
  g_test_add_func("/decryptor/change-of-key-length-keeps-the-chain",
                  test_change_of_key_length_keeps_the_chain);
  g_test_add_func("/decryptor/without-a-key", test_without_a_key);
  g_test_add_func("/decryptor/with-a-key-of-the-wrong-size", test_with_a_key_of_the_wrong_size);
  g_test_add_func("/decryptor/lengths-above-int-max", test_lengths_above_int_max);
  g_test_add_func("/decryptor/whole-records-above-int-max-fail",
                  test_whole_records_above_int_max_fail);
  g_test_add_data_func("/decryptor/input-stream/whole", whole, test_input_stream);
  g_test_add_data_func("/decryptor/input-stream/7-bytes-a-call", GSIZE_TO_POINTER(7),
                       test_input_stream);
  g_test_add_data_func("/decryptor/input-stream/1-byte-a-call", GSIZE_TO_POINTER(1),
                       test_input_stream);
  g_test_add_func("/decryptor/cut-off-stream", test_cut_off_stream);
  g_test_add_data_func("/decryptor/output-stream/whole", whole, test_output_stream);
  g_test_add_data_func("/decryptor/output-stream/7-bytes-a-call", GSIZE_TO_POINTER(7),
                       test_output_stream);
  g_test_add_data_func("/decryptor/output-stream/1-byte-a-call", GSIZE_TO_POINTER(1),
                       test_output_stream);
  g_test_add_data_func("/decryptor/socket/tcp", GINT_TO_POINTER(static_cast<int>(Family::tcp4)),
                       test_socket);
  g_test_add_data_func("/decryptor/socket/unix",
                       GINT_TO_POINTER(static_cast<int>(Family::unix_domain)), test_socket);
  g_test_add_func("/decryptor/stream-of-a-huge-record-ends", test_stream_of_a_huge_record_ends);
  g_test_add_func("/decryptor/stream-of-broken-records-ends", test_stream_of_broken_records_ends);
  g_test_add_func("/decryptor/noise", test_noise);
  return g_test_run();
}
