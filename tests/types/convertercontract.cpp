// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/types/convertercontract.h"

#include "tests/support/resources.h"

#include <set>
#include <thread>

using namespace support;

namespace contract
{

// ---- Converters ----

void
is_a_plain_converter(GType type, const char *name, gsize class_size, gsize instance_size)
{
  assert_converter_type(type, name, sizeof(GObjectClass), sizeof(GObject));
  g_assert_cmpuint(class_size, ==, sizeof(GObjectClass));
  g_assert_cmpuint(instance_size, ==, sizeof(GObject));
  g_assert_cmpuint(own_properties(type).size(), ==, 0);
  g_assert_cmpuint(own_signals(type).size(), ==, 0);
}

void
gives_one_reference(Ref<GConverter> converter, const std::function<void(gpointer)> &convert)
{
  LifeWatch watch;
  watch.add(converter.get());
  assert_refcount(converter.get(), 1);
  convert(converter.get());
  assert_refcount(converter.get(), 1);
  converter.reset();
  g_assert_cmpuint(watch.alive(), ==, 0);
}

void
add_for_pieces(const std::string &path, GTestDataFunc test)
{
  g_test_add_data_func((path + "/whole").c_str(), GSIZE_TO_POINTER(1 << 30), test);
  g_test_add_data_func((path + "/7-bytes-a-call").c_str(), GSIZE_TO_POINTER(7), test);
  g_test_add_data_func((path + "/1-byte-a-call").c_str(), GSIZE_TO_POINTER(1), test);
}

void
add_for_sockets(const std::string &path, GTestDataFunc test)
{
  const auto tcp = GINT_TO_POINTER(static_cast<int>(Family::tcp4));
  const auto local = GINT_TO_POINTER(static_cast<int>(Family::unix_domain));
  g_test_add_data_func((path + "/tcp").c_str(), tcp, test);
  g_test_add_data_func((path + "/unix").c_str(), local, test);
}

std::shared_ptr<Script>
script_of(ByteView data, gsize per_call)
{
  return new_script(std::string(to_text(data)), per_call);
}

Ref<GInputStream>
input_over(gpointer converter, std::shared_ptr<Script> script)
{
  const auto base = new_scripted_input(std::move(script));
  return own(g_converter_input_stream_new(base.get(), G_CONVERTER(converter)));
}

void
input_stream_encodes(gpointer encoder, ByteView plain, gsize per_call, const Open &open)
{
  const auto stream = input_over(encoder, script_of(plain, per_call));
  ErrorPtr error;
  const Bytes wire = read_to_end(stream.get(), &error);
  g_assert_no_error(error.get());
  ASSERT_BYTES(open(wire), plain);
}

void
socket_carries_encoded(gconstpointer family, gpointer encoder, ByteView plain, const Open &open)
{
  SocketPair pair = new_socket_pair(static_cast<Family>(GPOINTER_TO_INT(family)));
  std::thread writer{[&] {
    std::mt19937 random{5};
    const auto stream = own(g_converter_output_stream_new(
        g_io_stream_get_output_stream(G_IO_STREAM(pair.a.get())), G_CONVERTER(encoder)));
    write_in_pieces(stream.get(), plain, random);
    g_assert_true(g_output_stream_close(stream.get(), nullptr, nullptr));
    g_assert_true(g_io_stream_close(G_IO_STREAM(pair.a.get()), nullptr, nullptr));
  }};
  ErrorPtr error;
  const Bytes wire = read_to_end(g_io_stream_get_input_stream(G_IO_STREAM(pair.b.get())), &error);
  writer.join();
  g_assert_no_error(error.get());
  ASSERT_BYTES(open(wire), plain);
}

void
stream_fails(GInputStream *stream, ByteView plain, GIOErrorEnum code, const char *message)
{
  ErrorPtr error;
  ASSERT_BYTES(read_to_end(stream, &error), plain);
  g_assert_error(error.get(), G_IO_ERROR, code);
  g_assert_cmpstr(error->message, ==, message);
}

// A stream that ends between two records or blocks lacks the header of the next one.
void
input_stream_decodes(gpointer decoder, ByteView wire, ByteView plain, gsize per_call,
                     std::mt19937 &random)
{
  const auto stream = input_over(decoder, script_of(wire, per_call));
  ASSERT_BYTES(read_in_pieces(stream.get(), plain.size(), random), plain);
  stream_fails(stream.get(), {}, G_IO_ERROR_PARTIAL_INPUT, "Partial header");
}

void
output_stream_decodes(gpointer decoder, ByteView wire, ByteView plain, gsize per_call,
                      std::mt19937 &random)
{
  const auto script = new_script({}, per_call);
  const auto base = new_scripted_output(script);
  const auto stream = own(g_converter_output_stream_new(base.get(), G_CONVERTER(decoder)));
  write_in_pieces(stream.get(), wire, random);
  g_assert_true(g_output_stream_flush(stream.get(), nullptr, nullptr));
  ASSERT_BYTES(to_bytes(script->written()), plain);
}

void
socket_decodes(gconstpointer family, gpointer decoder, ByteView wire, ByteView plain,
               std::mt19937 &random)
{
  SocketPair pair = new_socket_pair(static_cast<Family>(GPOINTER_TO_INT(family)));
  std::thread writer{[&] {
    std::mt19937 splits{6};
    write_in_pieces(g_io_stream_get_output_stream(G_IO_STREAM(pair.a.get())), wire, splits);
    g_assert_true(g_io_stream_close(G_IO_STREAM(pair.a.get()), nullptr, nullptr));
  }};
  const auto stream = own(g_converter_input_stream_new(
      g_io_stream_get_input_stream(G_IO_STREAM(pair.b.get())), G_CONVERTER(decoder)));
  const Bytes got = read_in_pieces(stream.get(), plain.size(), random);
  stream_fails(stream.get(), {}, G_IO_ERROR_PARTIAL_INPUT, "Partial header");
  writer.join();
  ASSERT_BYTES(got, plain);
}

// ---- Ciphers ----

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

namespace
{

const Cipher &
cipher_of(gconstpointer data)
{
  return *static_cast<const Cipher *>(data);
}

Ref<GObject>
new_cipher(const Cipher &cipher)
{
  return own(static_cast<GObject *>(cipher.create(bytes_ref(test_key()).get())));
}

guint
key_length(const Ref<GObject> &object)
{
  guint length = 4711;
  g_object_get(object.get(), "key-length", &length, nullptr);
  return length;
}

LogMessage
wrong_key(const Cipher &cipher, const char *check)
{
  return failed_check((std::string("gvc_") + cipher.name + "_new").c_str(), check);
}

LogMessage
wrong_length(const Cipher &cipher)
{
  return failed_check((std::string("gvc_") + cipher.name + "_set_key_length").c_str(),
                      "key_length == 128 || key_length == 256");
}

constexpr char whole_key_check[] = "g_bytes_get_size(key) == (256 / 8)";

} // namespace

void
type(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  assert_converter_type(cipher.get_type(), cipher.type_name, sizeof(GObjectClass),
                        cipher.instance_size);
  g_assert_cmpuint(cipher.class_size, ==, sizeof(GObjectClass));
  g_assert_cmpuint(own_signals(cipher.get_type()).size(), ==, 0);
}

void
properties(gconstpointer data)
{
  const GType type = cipher_of(data).get_type();
  const std::vector<std::string> names = own_properties(type);
  g_assert_true(std::set<std::string>(names.begin(), names.end()) ==
                (std::set<std::string>{"key", "key-length"}));
  assert_property(type, "key", G_TYPE_BYTES, "key", "key", 235);
  assert_property(type, "key-length", G_TYPE_UINT, "key length", "key length", 231);

  gpointer klass = g_type_class_ref(type);
  auto *spec = G_PARAM_SPEC_UINT(g_object_class_find_property(G_OBJECT_CLASS(klass), "key-length"));
  g_assert_cmpuint(spec->minimum, ==, 128);
  g_assert_cmpuint(spec->maximum, ==, 256);
  g_assert_cmpuint(spec->default_value, ==, 256);
  g_type_class_unref(klass);
}

void
property_values(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  const BytesRef key = bytes_ref(test_key());
  const auto object = own(static_cast<GObject *>(cipher.create(key.get())));
  g_autoptr(GBytes) got = nullptr;
  g_object_get(object.get(), "key", &got, nullptr);
  g_assert_true(got == key.get());
  g_assert_cmpuint(key_length(object), ==, 256);
  cipher.set_key_length(object.get(), 128);
  g_assert_cmpuint(key_length(object), ==, 128);

  const auto by_name = own(static_cast<GObject *>(
      g_object_new(cipher.get_type(), "key-length", 128, "key", key.get(), nullptr)));
  g_assert_cmpuint(key_length(by_name), ==, 128);
  cipher.begin(by_name.get(), 128)(sample(Kind::text, 50));
}

void
new_checks_its_key(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  LogCapture log;
  g_assert_null(cipher.create(nullptr));
  log.expect({wrong_key(cipher, "key != NULL")});
  for (gsize size : {0, 1, 16, 31, 33, 64}) {
    g_assert_null(cipher.create(bytes_ref(sample(Kind::noise, size)).get()));
    log.expect({wrong_key(cipher, whole_key_check)});
  }
}

void
set_key_length_checks_its_arguments(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  const auto object = new_cipher(cipher);
  const auto other = new_map_converter([](guint8 byte) { return byte; });
  const auto go_on = cipher.begin(object.get(), 256);
  const std::string name = cipher.name;
  const std::string check =
      "GVC_IS_" + std::string(Mem<char>(g_ascii_strup(cipher.name, -1)).get()) + "(" + name + ")";
  const auto wrong_object =
      failed_check(("gvc_" + name + "_set_key_length").c_str(), check.c_str());

  LogCapture log;
  cipher.set_key_length(nullptr, 256);
  log.expect({wrong_object});
  cipher.set_key_length(other.get(), 1);
  log.expect({wrong_object});
  for (guint length : {0u, 1u, 127u, 129u, 192u, 255u, 257u, 512u, G_MAXUINT}) {
    cipher.set_key_length(object.get(), length);
    log.expect({wrong_length(cipher)});
  }
  g_assert_cmpuint(key_length(object), ==, 256);
  go_on(sample(Kind::text, 20));
}

// The setter refuses 192. The property itself refuses values outside its range.
void
property_rejects_other_lengths(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  const auto object = new_cipher(cipher);
  const auto go_on = cipher.begin(object.get(), 256);
  LogCapture log;
  g_object_set(object.get(), "key-length", 192, nullptr);
  log.expect({wrong_length(cipher)});
  g_assert_cmpuint(key_length(object), ==, 256);
  for (guint outside : {127u, 257u}) {
    g_object_set(object.get(), "key-length", outside, nullptr);
    const std::vector<LogMessage> messages = log.take();
    g_assert_cmpuint(messages.size(), ==, 1);
    g_assert_true(messages[0].domain == "GLib-GObject");
    g_assert_cmpuint(key_length(object), ==, 256);
  }
  go_on(sample(Kind::text, 20));
}

// The setter leaves the length at 0, and any length but 128 means AES-256.
void
construction_with_192_uses_the_whole_key(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  LogCapture log;
  const auto object = own(static_cast<GObject *>(g_object_new(
      cipher.get_type(), "key", bytes_ref(test_key()).get(), "key-length", 192, nullptr)));
  log.expect({wrong_length(cipher)});
  g_assert_cmpuint(key_length(object), ==, 0);
  cipher.begin(object.get(), 256)(sample(Kind::text, 40));
}

void
notifies_on_change_only(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  const auto object = new_cipher(cipher);
  guint notified = 0;
  const auto count = +[](GObject *, GParamSpec *pspec, gpointer counter) {
    g_assert_cmpstr(pspec->name, ==, "key-length");
    ++*static_cast<guint *>(counter);
  };
  g_signal_connect(object.get(), "notify", G_CALLBACK(count), &notified);
  cipher.set_key_length(object.get(), 256);
  g_assert_cmpuint(notified, ==, 0);
  cipher.set_key_length(object.get(), 128);
  g_assert_cmpuint(notified, ==, 1);
  cipher.set_key_length(object.get(), 128);
  g_assert_cmpuint(notified, ==, 1);
  g_object_set(object.get(), "key-length", 256, nullptr);
  g_assert_cmpuint(notified, ==, 2);
  g_converter_reset(G_CONVERTER(object.get()));
  g_assert_cmpuint(notified, ==, 2);
}

void
unknown_property_warns(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  const auto object = new_cipher(cipher);
  GObjectClass *klass = G_OBJECT_GET_CLASS(object.get());
  for (const char *name : {"key", "key-length"}) {
    GParamSpec *pspec = g_object_class_find_property(klass, name);
    g_auto(GValue) value = G_VALUE_INIT;
    g_value_init(&value, pspec->value_type);
    if (G_IS_PARAM_SPEC_UINT(pspec))
      g_value_set_uint(&value, 128);
    g_auto(GValue) before = G_VALUE_INIT;
    g_value_init(&before, pspec->value_type);
    g_value_copy(&value, &before);

    LogCapture log;
    klass->set_property(object.get(), 77, &value, pspec);
    klass->get_property(object.get(), 78, &value, pspec);
    const std::vector<LogMessage> messages = log.take();
    g_assert_cmpuint(messages.size(), ==, 2);
    for (guint i = 0; i < 2; i++) {
      g_assert_false(messages[i].domain.has_value());
      g_assert_cmpint(messages[i].level, ==, G_LOG_LEVEL_WARNING);
      g_autofree char *tail =
          g_strdup_printf(": invalid property id %u for \"%s\" of type '%s' in '%s'", 77 + i, name,
                          g_type_name(G_PARAM_SPEC_TYPE(pspec)), cipher.type_name);
      g_autofree char *quoted = g_regex_escape_string(tail, -1);
      g_autofree char *whole =
          g_strconcat("^vchannels/zelgvc/gvc", cipher.name, ":[1-9][0-9]*", quoted, "$", nullptr);
      if (!g_regex_match_simple(whole, messages[i].text.c_str(), G_REGEX_DEFAULT,
                                G_REGEX_MATCH_DEFAULT))
        g_error("%s", messages[i].text.c_str());
    }
    g_assert_cmpint(g_param_values_cmp(pspec, &value, &before), ==, 0);
  }
  g_assert_cmpuint(key_length(object), ==, 256);
}

void
owns_a_reference_to_its_key(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  LifeWatch watch;
  BytesRef key = watch.add_bytes(to_text(test_key()));
  auto object = own(static_cast<GObject *>(cipher.create(key.get())));
  watch.add(object.get());
  assert_refcount(object.get(), 1);
  GBytes *borrowed = key.get();
  key.reset();
  g_assert_cmpuint(watch.alive(), ==, 2);
  {
    g_autoptr(GBytes) got = nullptr;
    g_object_get(object.get(), "key", &got, nullptr);
    g_assert_true(got == borrowed);
  }
  g_assert_cmpuint(watch.alive(), ==, 2);
  g_converter_reset(G_CONVERTER(object.get()));
  cipher.set_key_length(object.get(), 128);
  cipher.begin(object.get(), 128)(sample(Kind::text, 64));
  g_assert_cmpuint(watch.alive(), ==, 2);
  object.reset();
  g_assert_cmpuint(watch.alive(), ==, 0);
}

void
refused_construction_keeps_no_reference(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  LifeWatch watch;
  BytesRef key = watch.add_bytes("sixteen bytes...");
  LogCapture log;
  g_assert_null(cipher.create(key.get()));
  log.expect({wrong_key(cipher, whole_key_check)});
  key.reset();
  g_assert_cmpuint(watch.alive(), ==, 0);
}

void
leaves_no_memory(gconstpointer data)
{
  if (!heap_is_known())
    return g_test_skip("the heap is not known");
  const BytesRef key = bytes_ref(test_key());
  const auto use = [&](int count) {
    for (int i = 0; i < count; i++)
      g_object_unref(cipher_of(data).create(key.get()));
  };
  use(1000);
  const Resources before = Resources::now();
  use(50'000);
  g_assert_true(Resources::now().returned_to(before));
}

void
without_a_key(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  const auto object = own(static_cast<GObject *>(g_object_new(cipher.get_type(), nullptr)));
  g_autoptr(GBytes) key = nullptr;
  g_object_get(object.get(), "key", &key, nullptr);
  g_assert_null(key);
  g_assert_cmpuint(key_length(object), ==, 256);
  cipher.assert_useless(object.get());
  cipher.set_key_length(object.get(), 128);
  cipher.assert_useless(object.get());
}

void
with_a_key_of_the_wrong_size(gconstpointer data)
{
  const Cipher &cipher = cipher_of(data);
  for (gsize size : {0, 1, 15, 16, 31, 33, 48})
    for (guint length : {128, 256}) {
      LifeWatch watch;
      {
        // A key at the end of its own allocation: a read past it is noticed.
        const BytesRef key = watch.add_bytes(to_text(sample(Kind::noise, size)));
        const auto object = own(static_cast<GObject *>(
            g_object_new(cipher.get_type(), "key", key.get(), "key-length", length, nullptr)));
        cipher.assert_useless(object.get());
      }
      g_assert_cmpuint(watch.alive(), ==, 0);
    }
}

} // namespace contract
