/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/types/streamcontract.h"

#include <zelgvc/zelgvc.h>

#include <sys/resource.h>

using namespace support;
using contract::both_ways;
using contract::Way;

using Fixture = contract::Reader<GvcBytesInputStream, gvc_bytes_input_stream_new>;
using InnerFixture = contract::InnerReader<GvcBytesInputStream, gvc_bytes_input_stream_get_type>;

static BytesRef
read_bytes(Way way, GvcBytesInputStream *stream, Error &error, GCancellable *cancellable = nullptr)
{
  if (way == Way::blocking)
    return BytesRef(gvc_bytes_input_stream_read_bytes(stream, cancellable, &error));
  Collector collector;
  gvc_bytes_input_stream_read_bytes_async(stream, G_PRIORITY_DEFAULT, cancellable, Collector::ready,
                                          &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  GAsyncResult *const result = collector.wait();
  g_assert_true(collector.source() == G_OBJECT(stream));
  return BytesRef(gvc_bytes_input_stream_read_bytes_finish(stream, result, &error));
}

/* The result as the reader hands it over, floating. */
static GVariant *
read_variant(Way way, GvcBytesInputStream *stream, const char *format, Error &error,
             GCancellable *cancellable = nullptr)
{
  if (way == Way::blocking)
    return gvc_bytes_input_stream_read_variant(stream, format, cancellable, &error);
  Collector collector;
  gvc_bytes_input_stream_read_variant_async(stream, format, G_PRIORITY_DEFAULT, cancellable,
                                            Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  GAsyncResult *const result = collector.wait();
  g_assert_true(collector.source() == G_OBJECT(stream));
  return gvc_bytes_input_stream_read_variant_finish(stream, result, &error);
}

static void
assert_message(Way way, GvcBytesInputStream *stream, std::string_view expected)
{
  Error error;
  const auto bytes = read_bytes(way, stream, error);
  error.assert_none();
  assert_bytes(bytes_string(bytes.get()), expected);
}

static void
assert_fails(Way way, GvcBytesInputStream *stream, GQuark domain, int code, const char *message)
{
  Error error;
  g_assert_null(read_bytes(way, stream, error).get());
  error.assert_is(domain, code, message);
}

static void
assert_disconnected(Way way, GvcBytesInputStream *stream)
{
  assert_fails(way, stream, GVC_ERROR, 0, "Disconnected");
}

/* Takes over a floating variant and compares its text with types. */
static void
assert_variant(GVariant *variant, const char *expected)
{
  g_assert_nonnull(variant);
  g_assert_true(g_variant_is_floating(variant));
  const VariantRef sunk(g_variant_ref_sink(variant));
  const Mem<char> text(g_variant_print(sunk.get(), TRUE));
  g_assert_cmpstr(text.get(), ==, expected);
}

static std::string
serialised(const char *text)
{
  const VariantRef variant(g_variant_ref_sink(g_variant_new_parsed(text)));
  const BytesRef bytes(g_variant_get_data_as_bytes(variant.get()));
  return bytes_string(bytes.get());
}

static bool
is_hello(GBytes *taken)
{
  const BytesRef bytes(taken);
  if (bytes != nullptr)
    assert_bytes(bytes_string(bytes.get()), "hello");
  return bytes != nullptr;
}

static bool
is_hello(GVariant *variant)
{
  if (variant != nullptr)
    assert_variant(variant, "[byte 0x68, 0x65, 0x6c, 0x6c, 0x6f]");
  return variant != nullptr;
}

static const contract::Operation read_bytes_operation = {
    .name = "gvc_bytes_input_stream_read_bytes",
    .payload = {},
    .bytes = frame("hello"),
    .sizes = {4, 5},
    .urgent = 4,
    .run =
        [](gpointer stream, GBytes *, GCancellable *cancellable, GError **error) {
          return is_hello(gvc_bytes_input_stream_read_bytes(
              static_cast<GvcBytesInputStream *>(stream), cancellable, error));
        },
    .start =
        [](gpointer stream, GBytes *, int priority, GCancellable *cancellable,
           GAsyncReadyCallback ready, gpointer data) {
          gvc_bytes_input_stream_read_bytes_async(static_cast<GvcBytesInputStream *>(stream),
                                                  priority, cancellable, ready, data);
        },
    .finish =
        [](gpointer stream, GAsyncResult *result, GError **error) {
          return is_hello(gvc_bytes_input_stream_read_bytes_finish(
              static_cast<GvcBytesInputStream *>(stream), result, error));
        },
    .propagate =
        [](GTask *task, GError **error) {
          return is_hello(static_cast<GBytes *>(g_task_propagate_pointer(task, error)));
        },
    .after_zero = false,
};

static const contract::Operation read_variant_operation = {
    .name = "gvc_bytes_input_stream_read_variant",
    .payload = {},
    .bytes = frame("hello"),
    .sizes = {4, 5},
    .urgent = 4,
    .run =
        [](gpointer stream, GBytes *, GCancellable *cancellable, GError **error) {
          return is_hello(gvc_bytes_input_stream_read_variant(
              static_cast<GvcBytesInputStream *>(stream), "ay", cancellable, error));
        },
    .start =
        [](gpointer stream, GBytes *, int priority, GCancellable *cancellable,
           GAsyncReadyCallback ready, gpointer data) {
          gvc_bytes_input_stream_read_variant_async(static_cast<GvcBytesInputStream *>(stream),
                                                    "ay", priority, cancellable, ready, data);
        },
    .finish =
        [](gpointer stream, GAsyncResult *result, GError **error) {
          return is_hello(gvc_bytes_input_stream_read_variant_finish(
              static_cast<GvcBytesInputStream *>(stream), result, error));
        },
    .after_zero = false,
};

static const contract::Type stream_type = {
    .reads = true,
    .check = "GVC_IS_BYTES_INPUT_STREAM(stream)",
    .blocking_check = "GVC_IS_BYTES_INPUT_STREAM(stream)",
    .operations = {read_bytes_operation, read_variant_operation},
    .get_type = [] { return GVC_TYPE_BYTES_INPUT_STREAM; },
    .name = "GvcBytesInputStream",
    .instance_size = sizeof(GvcBytesInputStream),
    .class_size = sizeof(GvcBytesInputStreamClass),
    .create = [](gpointer base) -> gpointer {
      return gvc_bytes_input_stream_new(static_cast<GInputStream *>(base));
    },
    .create_name = "gvc_bytes_input_stream_new",
    .create_check = "G_IS_INPUT_STREAM(base_stream)",
};

/* GLib's own critical, whose argument goes by different names in its versions. */
static void
expect_invalid_type_string(LogCapture &log)
{
  const auto messages = log.take();
  g_assert_cmpuint(messages.size(), ==, 1);
  g_assert_cmpint(messages[0].level, ==, G_LOG_LEVEL_CRITICAL);
  g_assert_true(messages[0].domain == "GLib");
  g_assert_true(g_pattern_match_simple(
      "g_variant_type_checked_: assertion 'g_variant_type_string_is_valid (*)' failed",
      messages[0].text.c_str()));
}

/* ---- Frames ---- */

static void
hello_is_read_from_its_known_bytes()
{
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      const Fixture fixture(unhex("05 00 00 00 68 65 6c 6c 6f"), kind);
      assert_message(way, fixture.stream.get(), "hello");
      g_assert_false(fixture.script->closed());
      assert_refcount_becomes(fixture.stream.get(), 1);
    }
  }
}

static void
frames_follow_each_other_with_nothing_between()
{
  std::vector<std::string> payloads;
  std::string data;
  for (const gsize size : {1, 2, 255, 256, 65535, 65536, 1000003, 4}) {
    payloads.push_back(pattern(size, static_cast<guint32>(size)));
    data += frame(payloads.back());
  }
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      const Fixture fixture(data, kind, 60000);
      for (const auto &payload : payloads)
        assert_message(way, fixture.stream.get(), payload);
      assert_disconnected(way, fixture.stream.get());
    }
  }
}

/* Nothing behind the frame is consumed. */
static void
reads_not_a_byte_too_many()
{
  for (const auto way : both_ways) {
    const Fixture fixture(frame("hello") + "rest");
    assert_message(way, fixture.stream.get(), "hello");
    g_assert_cmpuint(fixture.script->moved(), ==, 9);
  }
}

static void
any_split_gives_the_same_message()
{
  const auto payload = pattern(60);
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      for (gsize per_call = 1; per_call <= 8; per_call++) {
        const Fixture fixture(frame(payload), kind, per_call);
        assert_message(way, fixture.stream.get(), payload);
      }
    }
  }
}

static void
length_and_payload_are_two_reads()
{
  for (const auto way : both_ways) {
    const InnerFixture fixture(frame("hello") + frame("x"));
    assert_message(way, fixture.stream(), "hello");
    g_assert_true(fixture.script->sizes() == (std::vector<gsize>{4, 5}));
    assert_message(way, fixture.stream(), "x");
    g_assert_true(fixture.script->sizes() == (std::vector<gsize>{4, 5, 4, 1}));
  }
}

/* ---- Empty frames and ends ---- */

static void
empty_frame_is_a_disconnection_when_blocking()
{
  const Fixture fixture(unhex("00 00 00 00") + frame("next"));
  assert_disconnected(Way::blocking, fixture.stream.get());
  g_assert_cmpuint(fixture.script->moved(), ==, 4);
  assert_message(Way::blocking, fixture.stream.get(), "next");
}

static void
empty_frame_is_an_empty_message_when_asynchronous()
{
  for (const auto kind : all_stream_kinds) {
    const Fixture fixture(unhex("00 00 00 00") + frame("next"), kind);
    Error error;
    const auto bytes = read_bytes(Way::async, fixture.stream.get(), error);
    error.assert_none();
    g_assert_nonnull(bytes.get());
    g_assert_cmpuint(g_bytes_get_size(bytes.get()), ==, 0);
    g_assert_cmpuint(fixture.script->moved(), ==, 4);
    assert_message(Way::async, fixture.stream.get(), "next");
  }
}

/* The reader ignores part of a prefix, even if it looks like a length. */
static void
end_within_the_length_is_a_disconnection()
{
  for (const auto &prefix : {unhex("05 00 00 00"), unhex("ff ff ff ff"), unhex("00 00 00 01")}) {
    for (gsize cut = 0; cut < 4; cut++) {
      for (const auto way : both_ways) {
        for (const auto kind : all_stream_kinds) {
          for (const gsize per_call : {1, 4}) {
            const Fixture fixture(prefix.substr(0, cut), kind, per_call);
            assert_disconnected(way, fixture.stream.get());
            g_assert_cmpuint(fixture.script->moved(), ==, cut);
          }
        }
      }
    }
  }
}

static void
end_within_the_payload_is_a_disconnection_when_asynchronous()
{
  const auto whole = frame("ten bytes!");
  for (gsize cut = 4; cut < whole.size(); cut++) {
    for (const auto kind : all_stream_kinds) {
      for (const gsize per_call : {1, 3, 100}) {
        const Fixture fixture(whole.substr(0, cut), kind, per_call);
        assert_disconnected(Way::async, fixture.stream.get());
        g_assert_cmpuint(fixture.script->moved(), ==, cut);
      }
    }
  }
}

/* Missing bytes read as zeros, not as earlier contents of the memory. */
static void
end_within_the_payload_leaves_zeros_when_blocking()
{
  const auto whole = frame("ten bytes!");
  for (gsize cut = 4; cut < whole.size(); cut++) {
    for (const gsize per_call : {1, 3, 100}) {
      /* Freed memory that holds no zeros is what the payload is likely to be put into. */
      for (int i = 0; i < 8; i++) {
        void *const dirt = g_malloc(10);
        memset(dirt, 0xee, 10);
        g_free(dirt);
      }
      const Fixture fixture(whole.substr(0, cut), StreamKind::sync_only, per_call);
      auto expected = whole.substr(4, cut - 4);
      expected.resize(10, '\0');
      assert_message(Way::blocking, fixture.stream.get(), expected);
    }
  }
}

static void
ten_announced_and_three_delivered()
{
  const auto data = unhex("0a 00 00 00 61 62 63");
  const Fixture async_fixture(data);
  assert_disconnected(Way::async, async_fixture.stream.get());
  const Fixture fixture(data);
  Error error;
  const auto bytes = read_bytes(Way::blocking, fixture.stream.get(), error);
  error.assert_none();
  g_assert_cmpuint(g_bytes_get_size(bytes.get()), ==, 10);
  assert_bytes(bytes_string(bytes.get()).substr(0, 3), "abc");
}

/* ---- Lengths that cannot be ---- */

static void
negative_length_is_invalid()
{
  for (const auto *prefix : {"ff ff ff ff", "00 00 00 80", "01 00 00 80", "fe ff ff ff"}) {
    for (const auto way : both_ways) {
      for (const auto kind : all_stream_kinds) {
        LogCapture log;
        const Fixture fixture(unhex(prefix) + "payload", kind);
        assert_fails(way, fixture.stream.get(), G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                     "Invalid frame length");
        g_assert_cmpuint(fixture.script->moved(), ==, 4);
        Error error;
        const Fixture again(unhex(prefix) + "payload", kind);
        g_assert_null(read_variant(way, again.stream.get(), "s", error));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "Invalid frame length");
      }
    }
  }
}

/* In a process that may have no more than some 100 MiB beside what it has at the start. */
static void
length_without_memory_is_no_space()
{
  if (!g_test_subprocess()) {
    /* The address sanitizer keeps its shadow in address space without end; there its allocator is
     * told the limit instead. Without it nobody reads this variable. */
    const Mem<char> old(g_strdup(g_getenv("ASAN_OPTIONS")));
    const auto limited = std::string(old != nullptr ? old.get() : "") +
                         ":max_allocation_size_mb=256:allocator_may_return_null=1";
    g_setenv("ASAN_OPTIONS", limited.c_str(), TRUE);
    g_test_trap_subprocess(nullptr, 0, GTestSubprocessFlags(0));
    if (old != nullptr)
      g_setenv("ASAN_OPTIONS", old.get(), TRUE);
    else
      g_unsetenv("ASAN_OPTIONS");
    g_test_trap_assert_passed();
    return;
  }

#ifndef __SANITIZE_ADDRESS__
  const struct rlimit limit = {rlim_t(1) << 30, rlim_t(1) << 30};
  g_assert_no_errno(setrlimit(RLIMIT_AS, &limit));
#endif
  for (const auto way : both_ways) {
    const Fixture fixture(unhex("ff ff ff 7f") + "payload");
    assert_fails(way, fixture.stream.get(), G_IO_ERROR, G_IO_ERROR_NO_SPACE,
                 "Not enough memory for the frame");
    g_assert_cmpuint(fixture.script->moved(), ==, 4);
    Error error;
    const Fixture again(unhex("ff ff ff 7f") + "payload");
    g_assert_null(read_variant(way, again.stream.get(), "s", error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_NO_SPACE, "Not enough memory for the frame");
  }
}

/* Announced is not sent: the peer's claim alone fails nothing but its own message. */
static void
large_claim_and_little_data_is_a_disconnection()
{
  const Fixture fixture(unhex("00 00 00 04") + "little");
  assert_disconnected(Way::async, fixture.stream.get());
}

/* ---- Variants ---- */

static void
variant_comes_back()
{
  const struct {
    const char *type;
    const char *text;
  } values[] = {
      {"(su)", "('hello', uint32 4711)"},    {"u", "uint32 16909060"},
      {"a{sv}", "{'a': <1>, 'b': <'two'>}"}, {"as", "['', 'x', 'yy']"},
      {"ay", "[byte 0x01, 0x02]"},           {"v", "<(1, 2.5)>"},
  };
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      std::string data;
      for (const auto &value : values)
        data += frame(serialised(value.text));
      const Fixture fixture(data, kind, 7);
      Error error;
      for (const auto &value : values) {
        assert_variant(read_variant(way, fixture.stream.get(), value.type, error), value.text);
        error.assert_none();
      }
    }
  }
}

/* Independently of GVariant: a string with its NUL, padding, a number. */
static void
variant_from_known_bytes()
{
  for (const auto way : both_ways) {
    const Fixture fixture(unhex("09 00 00 00  68 69 00 00  04 03 02 01  03"));
    Error error;
    assert_variant(read_variant(way, fixture.stream.get(), "(su)", error),
                   "('hi', uint32 16909060)");
    error.assert_none();
  }
}

static void
empty_array_is_a_disconnection_when_blocking()
{
  const Fixture fixture(frame(serialised("@as []")));
  Error error;
  g_assert_null(read_variant(Way::blocking, fixture.stream.get(), "as", error));
  error.assert_is(GVC_ERROR, 0, "Disconnected");
}

static void
empty_array_comes_back_when_asynchronous()
{
  const Fixture fixture(frame(serialised("@as []")));
  Error error;
  assert_variant(read_variant(Way::async, fixture.stream.get(), "as", error), "@as []");
  error.assert_none();
}

/* Data from a peer is not trusted: what is not in normal form reads as defaults. */
static void
malformed_variant_reads_as_defaults()
{
  for (const auto way : both_ways) {
    LogCapture log;
    const Fixture fixture(frame("no terminator") + frame("\x01\x02\x03") +
                          frame(unhex("ff ff ff ff ff")) +
                          frame(unhex("68 69 00 00 04 03 02 01 ff")));
    Error error;
    GVariant *const string = read_variant(way, fixture.stream.get(), "s", error);
    g_assert_false(g_variant_is_normal_form(string));
    assert_variant(string, "''");
    assert_variant(read_variant(way, fixture.stream.get(), "u", error), "uint32 0");
    const VariantRef array(
        g_variant_ref_sink(read_variant(way, fixture.stream.get(), "as", error)));
    g_assert_cmpuint(g_variant_n_children(array.get()), ==, 0);
    const VariantRef pair(
        g_variant_ref_sink(read_variant(way, fixture.stream.get(), "(su)", error)));
    g_assert_false(g_variant_is_normal_form(pair.get()));
    const VariantRef first(g_variant_get_child_value(pair.get(), 0));
    g_assert_cmpstr(g_variant_get_string(first.get(), nullptr), ==, "");
    error.assert_none();
  }
}

static void
format_is_copied()
{
  const Fixture fixture(frame(serialised("('hello', uint32 4711)")));
  const Mem<char> format(g_strdup("(su)"));
  Collector collector;
  gvc_bytes_input_stream_read_variant_async(fixture.stream.get(), format.get(), 0, nullptr,
                                            Collector::ready, &collector);
  memset(format.get(), 'x', 4);
  Error error;
  assert_variant(
      gvc_bytes_input_stream_read_variant_finish(fixture.stream.get(), collector.wait(), &error),
      "('hello', uint32 4711)");
}

static void
invalid_format_costs_no_message_when_blocking()
{
  const Fixture fixture(frame(serialised("('hello', uint32 4711)")));
  LogCapture log;
  Error error;
  for (const auto *format : {"(s", "", "xyz!", "su", "a"}) {
    g_assert_null(
        gvc_bytes_input_stream_read_variant(fixture.stream.get(), format, nullptr, &error));
    expect_invalid_type_string(log);
    error.assert_none();
  }
  /* Valid, but not the type of any value. */
  for (const auto *format : {"*", "?", "r", "a*", "(s?)"}) {
    g_assert_null(
        gvc_bytes_input_stream_read_variant(fixture.stream.get(), format, nullptr, &error));
    const auto messages = log.take();
    g_assert_cmpuint(messages.size(), ==, 1);
    g_assert_cmpint(messages[0].level, ==, G_LOG_LEVEL_CRITICAL);
    error.assert_none();
  }
  g_assert_null(
      gvc_bytes_input_stream_read_variant(fixture.stream.get(), nullptr, nullptr, &error));
  g_assert_cmpuint(log.take().size(), >=, 1);
  error.assert_none();

  g_assert_true(fixture.script->calls().empty());
  assert_variant(read_variant(Way::blocking, fixture.stream.get(), "(su)", error),
                 "('hello', uint32 4711)");
}

static void
invalid_format_is_an_error_when_asynchronous()
{
  LogCapture log;
  for (const auto *format : {"(s", "", "xyz!", "su", "a"}) {
    const Fixture fixture(frame("payload"));
    Error error;
    g_assert_null(read_variant(Way::async, fixture.stream.get(), format, error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT);
    expect_invalid_type_string(log);
  }
  for (const auto *format : {"*", "?", "r", "a*", "(s?)"}) {
    const Fixture fixture(frame("payload"));
    Error error;
    g_assert_null(read_variant(Way::async, fixture.stream.get(), format, error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT);
    g_assert_cmpuint(log.take().size(), ==, 1);
  }
}

/* ---- Failures ---- */

/* Nothing is put back or skipped. */
static void
failure_leaves_the_stream_where_it_stopped()
{
  for (const auto way : both_ways) {
    const Fixture fixture(frame(frame("inner")));
    fixture.script->steps = {Step::move(), Step::fail(G_IO_ERROR_BUSY, "not now")};
    assert_fails(way, fixture.stream.get(), G_IO_ERROR, G_IO_ERROR_BUSY, "not now");
    assert_message(way, fixture.stream.get(), "inner");
  }
}

/* The errors of the library itself. Those of the base stream are in the contract. */
static void
errors_may_be_left_out(gconstpointer type)
{
  contract::errors_may_be_left_out(type);
  for (const auto *data : {"", "\xff\xff\xff\xff"}) {
    const Fixture fixture(data);
    g_assert_null(gvc_bytes_input_stream_read_bytes(fixture.stream.get(), nullptr, nullptr));
  }
}

/* ---- Lives and threads ---- */

/* At the end of the stream. Other outcomes are in the contract. */
static void
nothing_stays_alive_after_any_outcome(gconstpointer type)
{
  contract::nothing_stays_alive_after_any_outcome(type);
  for (const auto &operation : static_cast<const contract::Type *>(type)->operations) {
    for (const auto kind : all_stream_kinds) {
      for (const bool collect : {false, true}) {
        LifeWatch watch;
        {
          const Fixture fixture(frame("hello").substr(0, 7), kind);
          watch.add(fixture.stream.get());
          watch.add(fixture.base.get());
          Collector collector;
          operation.start(fixture.stream.get(), nullptr, 0, nullptr, Collector::ready, &collector);
          watch.add(collector.wait());
          if (collect)
            g_assert_false(operation.finish(fixture.stream.get(), collector.result(), nullptr));
        }
        watch.assert_all_gone();
      }
    }
  }
}

static void
message_outlives_its_stream()
{
  BytesRef bytes;
  VariantRef variant;
  {
    const Fixture fixture(frame("hello") + frame(serialised("'there'")));
    Error error;
    bytes = read_bytes(Way::async, fixture.stream.get(), error);
    variant.reset(g_variant_ref_sink(read_variant(Way::async, fixture.stream.get(), "s", error)));
    error.assert_none();
  }
  assert_bytes(bytes_string(bytes.get()), "hello");
  g_assert_cmpstr(g_variant_get_string(variant.get(), nullptr), ==, "there");
}

/* For an empty frame, and at the end of the stream. Other outcomes are in the contract. */
static void
completes_in_the_context_of_its_thread(gconstpointer type)
{
  contract::completes_in_the_context_of_its_thread(type);
  run_in_thread([] {
    for (const auto kind : all_stream_kinds) {
      for (const auto &data : {frame(""), std::string("\x01\x00", 2)}) {
        const Fixture fixture(data, kind, 2);
        Collector collector;
        gvc_bytes_input_stream_read_bytes_async(fixture.stream.get(), 0, nullptr, Collector::ready,
                                                &collector);
        while (g_main_context_iteration(nullptr, FALSE))
          ;
        g_assert_cmpuint(collector.calls(), ==, 0);
        Error error;
        const BytesRef bytes(gvc_bytes_input_stream_read_bytes_finish(fixture.stream.get(),
                                                                      collector.wait(), &error));
        g_assert_true((bytes != nullptr) == (data.size() != 2));
        g_assert_true(collector.thread() == g_thread_self());
      }
    }
  });
}

/* ---- Sockets ---- */

static void
frames_arrive_over_sockets()
{
  for (const auto family : {Family::tcp4, Family::tcp6, Family::unix_domain}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    for (const auto way : both_ways) {
      LogCapture log;
      RawPeer peer(family);
      const auto channel = own(gvc_connection_new(peer.connection()));
      const auto stream =
          own(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(channel.get()))));
      /* Two frames and a half in one go. */
      peer.send(frame("first") + frame("second") + frame("third").substr(0, 6));
      assert_message(way, stream.get(), "first");
      assert_message(way, stream.get(), "second");
      peer.send(frame("third").substr(6));
      assert_message(way, stream.get(), "third");
      peer.close();
      assert_disconnected(way, stream.get());
    }
  }
}

static void
peer_that_sends_bytewise_is_waited_for()
{
  for (const auto way : both_ways) {
    RawPeer peer(Family::tcp4);
    const auto stream = own(
        gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(peer.connection()))));
    const auto data = frame("one by one");
    Background sender([&] {
      for (const char byte : data) {
        peer.send({&byte, 1});
        g_usleep(500);
      }
    });
    assert_message(way, stream.get(), "one by one");
  }
}

/* The peer goes away after every possible part of a frame. */
static void
peer_that_goes_away_anywhere_ends_the_read()
{
  const auto whole = frame("hello");
  for (gsize cut = 0; cut < whole.size(); cut++) {
    for (const auto way : both_ways) {
      RawPeer peer(Family::unix_domain);
      const auto stream = own(
          gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(peer.connection()))));
      peer.send(whole.substr(0, cut));
      peer.close();
      if (way == Way::blocking && cut >= 4) {
        auto expected = whole.substr(4, cut - 4);
        expected.resize(5, '\0');
        assert_message(way, stream.get(), expected);
      } else {
        assert_disconnected(way, stream.get());
      }
    }
  }
}

/* So large that its memory comes from the system rather than from the allocator's own. */
static void
message_with_a_mapping_of_its_own_is_whole()
{
  const auto payload = pattern((gsize(32) << 20) + 4711);
  for (const auto way : both_ways) {
    const Fixture fixture(frame(payload));
    Error error;
    const auto bytes = read_bytes(way, fixture.stream.get(), error);
    error.assert_none();
    assert_bytes(bytes_string(bytes.get()), payload);
  }
}

static void
large_message_arrives_over_a_socket()
{
  const auto payload = pattern(16 << 20);
  for (const auto way : both_ways) {
    RawPeer peer(Family::tcp4);
    const auto stream = own(
        gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(peer.connection()))));
    Background sender([&] { peer.send(frame(payload)); });
    assert_message(way, stream.get(), payload);
  }
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
#define TEST(path, function) g_test_add_func("/bytes-input-stream/" path, function)
#define CONTRACT(path, function)                                                                   \
  g_test_add_data_func("/bytes-input-stream/" path, &stream_type, function)
  CONTRACT("type/is-a-plain-filter-stream", contract::is_a_plain_filter_stream);
  CONTRACT("type/overrides-no-operation", contract::overrides_no_operation);
  CONTRACT("new/holds-and-closes-its-base", contract::holds_and_closes_its_base);
  CONTRACT("new/refuses-what-is-no-input-stream", contract::new_refuses_other_objects);
  TEST("frame/hello-is-read-from-its-known-bytes", hello_is_read_from_its_known_bytes);
  TEST("frame/follow-each-other-with-nothing-between",
       frames_follow_each_other_with_nothing_between);
  TEST("frame/reads-not-a-byte-too-many", reads_not_a_byte_too_many);
  TEST("frame/any-split-gives-the-same-message", any_split_gives_the_same_message);
  TEST("frame/length-and-payload-are-two-reads", length_and_payload_are_two_reads);
  TEST("empty-frame/is-a-disconnection-when-blocking",
       empty_frame_is_a_disconnection_when_blocking);
  TEST("empty-frame/is-an-empty-message-when-asynchronous",
       empty_frame_is_an_empty_message_when_asynchronous);
  TEST("end/within-the-length-is-a-disconnection", end_within_the_length_is_a_disconnection);
  TEST("end/within-the-payload-is-a-disconnection-when-asynchronous",
       end_within_the_payload_is_a_disconnection_when_asynchronous);
  TEST("end/within-the-payload-leaves-zeros-when-blocking",
       end_within_the_payload_leaves_zeros_when_blocking);
  TEST("end/ten-announced-and-three-delivered", ten_announced_and_three_delivered);
  TEST("length/negative-is-invalid", negative_length_is_invalid);
  TEST("length/without-memory-is-no-space", length_without_memory_is_no_space);
  TEST("length/large-claim-and-little-data-is-a-disconnection",
       large_claim_and_little_data_is_a_disconnection);
  TEST("variant/comes-back", variant_comes_back);
  TEST("variant/from-known-bytes", variant_from_known_bytes);
  TEST("variant/empty-array-is-a-disconnection-when-blocking",
       empty_array_is_a_disconnection_when_blocking);
  TEST("variant/empty-array-comes-back-when-asynchronous",
       empty_array_comes_back_when_asynchronous);
  TEST("variant/malformed-reads-as-defaults", malformed_variant_reads_as_defaults);
  TEST("variant/format-is-copied", format_is_copied);
  TEST("variant/invalid-format-costs-no-message-when-blocking",
       invalid_format_costs_no_message_when_blocking);
  TEST("variant/invalid-format-is-an-error-when-asynchronous",
       invalid_format_is_an_error_when_asynchronous);
  CONTRACT("failure/at-any-read-passes-through", contract::failure_at_any_transfer_passes_through);
  TEST("failure/leaves-the-stream-where-it-stopped", failure_leaves_the_stream_where_it_stopped);
  CONTRACT("failure/of-closed-streams", contract::closed_streams_fail_as_closed);
  CONTRACT("failure/errors-may-be-left-out", errors_may_be_left_out);
  CONTRACT("priority/of-the-length-is-the-callers-of-the-payload-the-default",
           contract::requests_have_the_callers_priority);
  CONTRACT("cancelled/blocking-reads-have-the-callers-cancellable",
           contract::blocking_requests_have_the_callers_cancellable);
  CONTRACT("cancelled/before-it-starts-reads-nothing", contract::cancelled_before_it_starts);
  CONTRACT("cancelled/during-any-read-ends-there", contract::cancelled_during_any_transfer);
  CONTRACT("cancelled/after-the-call-leaves-the-payload", contract::cancelled_after_the_call);
  CONTRACT("busy-until-the-callback", contract::stream_is_busy_until_the_callback);
  CONTRACT("cancelled/blocking-read-from-another-thread", contract::cancelled_from_another_thread);
  CONTRACT("cancelled/between-the-last-read-and-finish",
           contract::cancelled_between_the_last_transfer_and_finish);
  CONTRACT("checks/blocking-readers-refuse-other-streams",
           contract::blocking_calls_refuse_other_streams);
  CONTRACT("checks/finishers-refuse-what-is-not-their-result",
           contract::finish_refuses_other_results);
  CONTRACT("checks/async-starters-do-not-check-the-stream",
           contract::start_does_not_check_the_stream);
  CONTRACT("checks/callback-may-be-left-out", contract::callback_may_be_left_out);
  CONTRACT("lives/nothing-stays-after-any-outcome", nothing_stays_alive_after_any_outcome);
  TEST("lives/message-outlives-its-stream", message_outlives_its_stream);
  CONTRACT("completes-in-the-context-of-its-thread", completes_in_the_context_of_its_thread);
  TEST("frame/with-a-mapping-of-its-own-is-whole", message_with_a_mapping_of_its_own_is_whole);
  TEST("socket/frames-arrive", frames_arrive_over_sockets);
  TEST("socket/peer-that-sends-bytewise-is-waited-for", peer_that_sends_bytewise_is_waited_for);
  TEST("socket/peer-that-goes-away-anywhere-ends-the-read",
       peer_that_goes_away_anywhere_ends_the_read);
  TEST("socket/large-message-arrives", large_message_arrives_over_a_socket);
  return g_test_run();
}
