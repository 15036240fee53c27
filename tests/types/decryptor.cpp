// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/records.h"
#include "tests/types/convertercontract.h"

#include <zelgvc/zelgvc.h>

#include <algorithm>
#include <climits>
#include <set>
#include <thread>

using namespace support;
using contract::bytes_ref;
using contract::input_over;
using contract::key_size;
using contract::script_of;
using contract::stream_fails;
using contract::test_key;

namespace
{

constexpr gsize mib = 1 << 20;

Bytes
test_iv(guint32 seed = 1)
{
  return sample(Kind::noise, aes_block, 100 + seed);
}

const Bytes zero_iv(aes_block, 0);

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

void
assert_cannot_decrypt(gpointer cipher)
{
  GvcDecryptor *const decryptor = GVC_DECRYPTOR(cipher);
  Sealer sealer{test_key(), 256, test_iv()};
  const Bytes record = sealer.record(sample(Kind::text, 100));
  give_iv(decryptor, test_iv());
  ASSERT_FAILED(convert(decryptor, record, 200), G_IO_ERROR_FAILED, "Decryption failed");
  ASSERT_FAILED(convert(decryptor, record, 10), G_IO_ERROR_NO_SPACE, "Not enough space");
  g_converter_reset(G_CONVERTER(decryptor));
  ASSERT_FAILED(convert(decryptor, record, 200), G_IO_ERROR_FAILED, "Decryption failed");
}

const contract::Cipher cipher = {
    .name = "decryptor",
    .type_name = "GvcDecryptor",
    .get_type = [] { return GVC_TYPE_DECRYPTOR; },
    .class_size = sizeof(GvcDecryptorClass),
    .instance_size = 64,
    .create = [](GBytes *key) -> gpointer { return gvc_decryptor_new(key); },
    .set_key_length =
        [](gpointer object, guint bits) {
          gvc_decryptor_set_key_length(static_cast<GvcDecryptor *>(object), bits);
        },
    .begin = [](gpointer object, int bits) -> std::function<void(ByteView)> {
      const auto sealer = std::make_shared<Sealer>(test_key(), bits, zero_iv);
      return [=](ByteView plain) { assert_opens(GVC_DECRYPTOR(object), *sealer, plain); };
    },
    .assert_useless = assert_cannot_decrypt,
};

const guint64 lengths_above_int_max[] = {guint64{INT_MAX} + 1,    guint64{1} << 32,
                                         (guint64{1} << 32) + 16, guint64{1} << 63,
                                         G_MAXUINT64 - 31,        G_MAXUINT64 - 15};

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
      // The chain has not advanced.
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

void
test_input_stream(gconstpointer per_call)
{
  std::mt19937 random{41};
  for (int bits : {128, 256})
    for (gsize size : {0, 1, 15, 16, 17, 255, 4095, 4096, 4097, 65536, 300001, 1 << 20}) {
      const Bytes plain = sample(Kind::mixture, size, size + bits);
      contract::input_stream_decodes(new_decryptor(bits).get(), sealed_stream(plain, bits, random),
                                     plain, GPOINTER_TO_SIZE(per_call), random);
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
      const Bytes expected = cut < first_end ? Bytes{} : cut < second_end ? one : join({one, two});
      const gsize start = cut < 24 ? 0 : cut < first_end ? 24 : cut < second_end ? first_end : cut;
      const char *message = cut - start < 8 ? "Partial header"
                            : start == 0    ? "Partial IV"
                                            : "Partial data";
      stream_fails(stream.get(), expected, G_IO_ERROR_PARTIAL_INPUT, message);
    }
}

void
test_output_stream(gconstpointer per_call)
{
  std::mt19937 random{42};
  for (gsize size : {1, 16, 1000, 65537, 1 << 20}) {
    const Bytes plain = sample(Kind::mixture, size, size);
    contract::output_stream_decodes(new_decryptor().get(), sealed_stream(plain, 256, random), plain,
                                    GPOINTER_TO_SIZE(per_call), random);
  }
}

void
test_socket(gconstpointer family)
{
  std::mt19937 random{43};
  const Bytes plain = sample(Kind::mixture, mib, 77);
  contract::socket_decodes(family, new_decryptor().get(), sealed_stream(plain, 256, random), plain,
                           random);
}

// A length that nothing can follow up must not make the reader gather bytes without end.
void
test_stream_of_a_huge_record_ends()
{
  for (guint64 length : lengths_above_int_max) {
    const auto decryptor = new_decryptor();
    const auto script = script_of(join({raw_record(length, {}), Bytes(16 * mib, 0xaa)}), 100000);
    const auto stream = input_over(decryptor.get(), script);
    stream_fails(stream.get(), {}, G_IO_ERROR_FAILED, "Decryption failed");
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
      stream_fails(stream.get(), good, G_IO_ERROR_FAILED, one.message);
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

  g_test_add_data_func("/decryptor/type", &cipher, contract::type);
  g_test_add_data_func("/decryptor/properties", &cipher, contract::properties);
  g_test_add_data_func("/decryptor/property-values", &cipher, contract::property_values);
  g_test_add_data_func("/decryptor/new-checks-its-key", &cipher, contract::new_checks_its_key);
  g_test_add_data_func("/decryptor/set-key-length-checks-its-arguments", &cipher,
                       contract::set_key_length_checks_its_arguments);
  g_test_add_data_func("/decryptor/property-rejects-192", &cipher,
                       contract::property_rejects_other_lengths);
  g_test_add_data_func("/decryptor/construction-with-192-uses-the-whole-key", &cipher,
                       contract::construction_with_192_uses_the_whole_key);
  g_test_add_data_func("/decryptor/notifies-on-change-only", &cipher,
                       contract::notifies_on_change_only);
  g_test_add_data_func("/decryptor/unknown-property-warns", &cipher,
                       contract::unknown_property_warns);
  g_test_add_data_func("/decryptor/owns-a-reference-to-its-key", &cipher,
                       contract::owns_a_reference_to_its_key);
  g_test_add_data_func("/decryptor/refused-construction-keeps-no-reference", &cipher,
                       contract::refused_construction_keeps_no_reference);
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
  g_test_add_data_func("/decryptor/leaves-no-memory", &cipher, contract::leaves_no_memory);
  g_test_add_data_func("/decryptor/without-a-key", &cipher, contract::without_a_key);
  g_test_add_data_func("/decryptor/with-a-key-of-the-wrong-size", &cipher,
                       contract::with_a_key_of_the_wrong_size);
  g_test_add_func("/decryptor/lengths-above-int-max", test_lengths_above_int_max);
  g_test_add_func("/decryptor/whole-records-above-int-max-fail",
                  test_whole_records_above_int_max_fail);
  contract::add_for_pieces("/decryptor/input-stream", test_input_stream);
  g_test_add_func("/decryptor/cut-off-stream", test_cut_off_stream);
  contract::add_for_pieces("/decryptor/output-stream", test_output_stream);
  contract::add_for_sockets("/decryptor/socket", test_socket);
  g_test_add_func("/decryptor/stream-of-a-huge-record-ends", test_stream_of_a_huge_record_ends);
  g_test_add_func("/decryptor/stream-of-broken-records-ends", test_stream_of_broken_records_ends);
  g_test_add_func("/decryptor/noise", test_noise);
  return g_test_run();
}
