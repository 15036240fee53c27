// SPDX-License-Identifier: LGPL-2.1-or-later
// The output stages of a channel beside GIO's own converter output stream: for any converter and
// any sequence of writes and flushes the same bytes and the same errors.
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <thread>

using namespace support;

namespace
{

using MakeConverter = std::function<Ref<GConverter>()>;

// The only stage of a channel, whose peer receives all the time.
struct Stage {
  RawPeer peer{Family::unix_domain};
  Ref<GvcConnection> connection;
  GOutputStream *out;
  std::string received;
  std::thread receiver;

  explicit Stage(const MakeConverter &make) : connection(own(gvc_connection_new(peer.connection())))
  {
    auto in = new_map_converter([](guint8 byte) { return byte; });
    auto converter = make();
    gvc_connection_add_converters(connection.get(), in.get(), converter.get());
    out = g_io_stream_get_output_stream(G_IO_STREAM(connection.get()));
    receiver = std::thread([this] { received = peer.receive_all(); });
  }
  ~Stage()
  {
    end();
  }

  // The peer's bytes once the stage is closed.
  std::string
  close()
  {
    Error error;
    g_assert_true(g_output_stream_close(out, nullptr, &error));
    end();
    return received;
  }
  void
  end()
  {
    g_socket_shutdown(g_socket_connection_get_socket(peer.connection()), FALSE, TRUE, nullptr);
    if (receiver.joinable())
      receiver.join();
  }
};

struct GioStage {
  Ref<GOutputStream> memory = own(g_memory_output_stream_new_resizable());
  Ref<GOutputStream> out;

  explicit GioStage(const MakeConverter &make)
  {
    auto converter = make();
    out = own(g_converter_output_stream_new(memory.get(), converter.get()));
  }

  std::string
  close()
  {
    Error error;
    g_assert_true(g_output_stream_close(out.get(), nullptr, &error));
    auto bytes =
        BytesRef(g_memory_output_stream_steal_as_bytes(G_MEMORY_OUTPUT_STREAM(memory.get())));
    return bytes_string(bytes.get());
  }
};

// The outcome of an operation as a text.
std::string
outcome(gssize count, const Error &error)
{
  if (!error)
    return std::to_string(count);
  return std::string(g_quark_to_string(error.get()->domain)) + ' ' +
         std::to_string(error.get()->code) + ' ' + error.get()->message;
}

std::string
write_outcome(GOutputStream *out, std::string_view data)
{
  Error error;
  const gssize count = g_output_stream_write(out, data.data(), data.size(), nullptr, &error);
  return outcome(count, error);
}

std::string
flush_outcome(GOutputStream *out)
{
  Error error;
  const gboolean flushed = g_output_stream_flush(out, nullptr, &error);
  return outcome(flushed, error);
}

void
assert_like_gio(const MakeConverter &make, const std::string &text, guint32 seed)
{
  Stage stage(make);
  GioStage gio(make);
  auto *generator = g_rand_new_with_seed(seed);

  for (size_t at = 0; at < text.size();) {
    const auto size =
        std::min<size_t>(text.size() - at,
                         static_cast<size_t>(g_rand_int_range(generator, 1, 1 << (seed % 14 + 1))));
    const auto part = std::string_view(text).substr(at, size);
    assert_bytes(write_outcome(stage.out, part), write_outcome(gio.out.get(), part));
    at += size;
    if (g_rand_int_range(generator, 0, 4) == 0) {
      assert_bytes(flush_outcome(stage.out), flush_outcome(gio.out.get()));
    }
  }
  g_rand_free(generator);
  assert_bytes(stage.close(), gio.close());
}

Ref<GConverter>
zlib()
{
  return own(G_CONVERTER(g_zlib_compressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP, 6)));
}

Ref<GConverter>
compressor()
{
  return own(G_CONVERTER(gvc_compressor_new()));
}

Ref<GConverter>
to_utf16()
{
  return own(G_CONVERTER(g_charset_converter_new("UTF-16LE", "UTF-8", nullptr)));
}

Ref<GConverter>
small_steps()
{
  return new_map_converter([](guint8 byte) { return static_cast<guint8>(byte ^ 0x20); });
}

template <Ref<GConverter> make()>
void
test_same_bytes()
{
  for (guint32 seed = 0; seed < 40; seed++)
    assert_like_gio(make, pattern(seed * 700, seed), seed);
}

// The pieces end in the middle of characters, which the converter wants to see whole.
void
test_incomplete_input_is_kept()
{
  std::string text;
  for (int i = 0; i < 400; i++)
    text += "a\u00e4\u20ac\U0001F600";
  for (guint32 seed = 0; seed < 40; seed++)
    assert_like_gio(to_utf16, text, seed);
}

void
test_errors_are_those_of_the_converter()
{
  for (const char *text : {"\xff", "good\xff", "\xc3(", "good\xc3(more"}) {
    Stage stage(to_utf16);
    GioStage gio(to_utf16);
    for (int round = 0; round < 3; round++)
      assert_bytes(write_outcome(stage.out, text), write_outcome(gio.out.get(), text));
    assert_bytes(stage.close(), gio.close());
  }
}

// The stage drops the bytes of a refused write, and keeps earlier ones.
void
test_refused_write_leaves_what_was_kept()
{
  Stage stage(to_utf16);
  for (const char *text : {"x", "\xe2", "(", "\x82", "((", "\xac", "y"}) {
    Error error;
    bool refused = text[0] == '(';
    g_assert_cmpint(g_output_stream_write(stage.out, text, strlen(text), nullptr, &error), ==,
                    refused ? -1 : static_cast<gssize>(strlen(text)));
    if (refused)
      error.assert_is(G_IO_ERROR, G_IO_ERROR_INVALID_DATA);
  }
  assert_bytes(stage.close(), std::string_view("x\0\xac\x20y\0", 6));
}

// A converter that needs far more room than was offered first, and says so.
void
test_room_grows_until_it_is_enough()
{
  const std::string text(1000000, 'z');
  auto packer = own(gvc_compressor_new());
  std::string block(text.size() * 2, '\0');
  gsize consumed, produced;
  Error error;
  g_converter_convert(G_CONVERTER(packer.get()), text.data(), text.size(), block.data(),
                      block.size(), G_CONVERTER_NO_FLAGS, &consumed, &produced, &error);
  error.assert_none();
  block.resize(produced);

  Stage stage([] { return own(G_CONVERTER(gvc_decompressor_new())); });
  for (int i = 0; i < 2; i++)
    assert_bytes(write_outcome(stage.out, block), std::to_string(block.size()));
  stage.end();
  assert_bytes(stage.received, text + text);
}

// A flush goes on to the stages below, here to one that holds everything back until then.
void
test_flush_reaches_the_stages_below()
{
  Stage stage(zlib);
  auto in = new_map_converter([](guint8 byte) { return byte; });
  auto upper = small_steps();
  gvc_connection_add_converters(stage.connection.get(), in.get(), upper.get());
  auto *out = g_io_stream_get_output_stream(G_IO_STREAM(stage.connection.get()));
  Error error;
  g_assert_true(g_output_stream_write_all(out, "FLUSHED", 7, nullptr, nullptr, &error));
  g_assert_true(g_output_stream_flush(out, nullptr, &error));
  stage.end();

  auto unpacker = own(g_zlib_decompressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP));
  char text[64];
  gsize consumed, produced = 0;
  g_converter_convert(G_CONVERTER(unpacker.get()), stage.received.data(), stage.received.size(),
                      text, sizeof text, G_CONVERTER_NO_FLAGS, &consumed, &produced, nullptr);
  assert_bytes(std::string_view(text, produced), "flushed");
}

// Bytes that were accepted cannot be refused any more when the base fails afterwards: the error is
// the outcome of the next operation, once.
void
test_deferred_error_comes_with_the_next_operation(gconstpointer is_blocking)
{
  Stage stage(compressor);
  stage.end();
  auto *pollable = G_POLLABLE_OUTPUT_STREAM(stage.out);
  Error error;
  g_assert_cmpint(g_pollable_output_stream_write_nonblocking(pollable, "abc", 3, nullptr, &error),
                  ==, 3);
  error.assert_none();
  gssize count =
      is_blocking ? g_output_stream_write(stage.out, "d", 1, nullptr, &error)
                  : g_pollable_output_stream_write_nonblocking(pollable, "d", 1, nullptr, &error);
  g_assert_cmpint(count, ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE);
}

void
test_error_at_the_end_of_the_input()
{
  Stage stage(to_utf16);
  GioStage gio(to_utf16);
  for (auto *out : {stage.out, gio.out.get()}) {
    Error error;
    g_assert_true(g_output_stream_write_all(out, "x\xc3\xa4\xc3", 4, nullptr, nullptr, &error));
  }
  Error mine, gios;
  g_assert_false(g_output_stream_close(stage.out, nullptr, &mine));
  g_assert_false(g_output_stream_close(gio.out.get(), nullptr, &gios));
  mine.assert_is(gios.get()->domain, gios.get()->code, gios.get()->message);
}

// The kinds of a stage and what it is made from are those of GIO's stream.
void
test_is_a_converter_output_stream()
{
  Stage stage(compressor);
  g_assert_true(G_IS_CONVERTER_OUTPUT_STREAM(stage.out));
  g_assert_true(GVC_IS_COMPRESSOR(
      g_converter_output_stream_get_converter(G_CONVERTER_OUTPUT_STREAM(stage.out))));
  g_assert_true(g_filter_output_stream_get_base_stream(G_FILTER_OUTPUT_STREAM(stage.out)) ==
                g_io_stream_get_output_stream(G_IO_STREAM(stage.peer.connection())));
  g_assert_true(g_filter_output_stream_get_close_base_stream(G_FILTER_OUTPUT_STREAM(stage.out)));
  g_assert_true(g_pollable_output_stream_can_poll(G_POLLABLE_OUTPUT_STREAM(stage.out)));
}

// Blocks of at most 1 MiB, so that neither peer needs room for more than that at once.
void
test_large_writes_become_several_blocks()
{
  constexpr size_t mebibyte = 1024 * 1024;
  RawPeer peer(Family::unix_domain);
  auto connection = own(gvc_connection_new(peer.connection()));
  auto in = own(gvc_decompressor_new());
  auto out = own(gvc_compressor_new());
  gvc_connection_add_converters(connection.get(), G_CONVERTER(in.get()), G_CONVERTER(out.get()));
  const std::string text(3 * mebibyte + 5, 'z');
  Error error;
  g_assert_true(
      g_output_stream_write_all(g_io_stream_get_output_stream(G_IO_STREAM(connection.get())),
                                text.data(), text.size(), nullptr, nullptr, &error));

  for (const size_t expected : {mebibyte, mebibyte, mebibyte, size_t{5}}) {
    const std::string header = peer.receive(8);
    assert_bytes(header.substr(4), le32(static_cast<guint32>(expected)));
    guint32 payload;
    memcpy(&payload, header.data(), sizeof payload);
    peer.receive(GUINT32_FROM_LE(payload));
  }
}

// A failed write of the base reaches the writer at once, and is not kept for the next write.
void
test_write_error_is_reported_by_the_write()
{
  Stage stage(compressor);
  stage.end();
  Error error;
  g_assert_cmpint(g_output_stream_write(stage.out, "x", 1, nullptr, &error), ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  g_test_add_func("/output-stage/same-bytes-as-gio/zlib", test_same_bytes<zlib>);
  g_test_add_func("/output-stage/same-bytes-as-gio/compressor", test_same_bytes<compressor>);
  g_test_add_func("/output-stage/same-bytes-as-gio/small-steps", test_same_bytes<small_steps>);
  g_test_add_func("/output-stage/incomplete-input-is-kept", test_incomplete_input_is_kept);
  g_test_add_func("/output-stage/errors-are-those-of-the-converter",
                  test_errors_are_those_of_the_converter);
  g_test_add_func("/output-stage/refused-write-leaves-what-was-kept",
                  test_refused_write_leaves_what_was_kept);
  g_test_add_func("/output-stage/room-grows-until-it-is-enough",
                  test_room_grows_until_it_is_enough);
  g_test_add_data_func("/output-stage/deferred-error-comes-with-the-next-operation/blocking",
                       GINT_TO_POINTER(TRUE), test_deferred_error_comes_with_the_next_operation);
  g_test_add_data_func("/output-stage/deferred-error-comes-with-the-next-operation/nonblocking",
                       nullptr, test_deferred_error_comes_with_the_next_operation);
  g_test_add_func("/output-stage/flush-reaches-the-stages-below",
                  test_flush_reaches_the_stages_below);
  g_test_add_func("/output-stage/error-at-the-end-of-the-input",
                  test_error_at_the_end_of_the_input);
  g_test_add_func("/output-stage/is-a-converter-output-stream", test_is_a_converter_output_stream);
  g_test_add_func("/output-stage/large-writes-become-several-blocks",
                  test_large_writes_become_several_blocks);
  g_test_add_func("/output-stage/write-error-is-reported-by-the-write",
                  test_write_error_is_reported_by_the_write);
  return g_test_run();
}
