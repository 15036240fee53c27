/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/types/streamcontract.h"

#include <zelgvc/zelgvc.h>

#include <sys/mman.h>
#include <sys/socket.h>

using namespace support;
using contract::both_ways;
using contract::Way;

/* A framing stream over a scripted base. */
struct Fixture {
  std::shared_ptr<Script> script;
  Ref<GOutputStream> base;
  Ref<GvcBytesOutputStream> stream;

  explicit Fixture(StreamKind kind = StreamKind::sync_only, gsize max_per_call = G_MAXSIZE)
      : script(new_script({}, max_per_call)), base(new_scripted_output(script, kind)),
        stream(gvc_bytes_output_stream_new(base.get()))
  {
  }
};

/* A framing stream of a derived class that shows what is asked of the stream itself. */
struct InnerFixture {
  std::shared_ptr<Script> script;
  Ref<GOutputStream> base;
  Ref<GOutputStream> owner;

  explicit InnerFixture(gsize max_per_call = G_MAXSIZE)
      : script(new_script({}, max_per_call)), base(new_scripted_output(new_script())),
        owner(new_scripted_filter_output(GVC_TYPE_BYTES_OUTPUT_STREAM, base.get(), script))
  {
  }

  GvcBytesOutputStream *
  stream() const
  {
    return GVC_BYTES_OUTPUT_STREAM(owner.get());
  }
};

static bool
put_bytes(Way way, GvcBytesOutputStream *stream, GBytes *bytes, Error &error,
          GCancellable *cancellable = nullptr)
{
  if (way == Way::blocking)
    return gvc_bytes_output_stream_put_bytes(stream, bytes, cancellable, &error);
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(stream, bytes, G_PRIORITY_DEFAULT, cancellable,
                                          Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  GAsyncResult *const result = collector.wait();
  g_assert_true(collector.source() == G_OBJECT(stream));
  return gvc_bytes_output_stream_put_bytes_finish(stream, result, &error);
}

static bool
put_variant(Way way, GvcBytesOutputStream *stream, GVariant *variant, Error &error,
            GCancellable *cancellable = nullptr)
{
  if (way == Way::blocking)
    return gvc_bytes_output_stream_put_variant(stream, variant, cancellable, &error);
  Collector collector;
  gvc_bytes_output_stream_put_variant_async(stream, variant, G_PRIORITY_DEFAULT, cancellable,
                                            Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  GAsyncResult *const result = collector.wait();
  g_assert_true(collector.source() == G_OBJECT(stream));
  return gvc_bytes_output_stream_put_variant_finish(stream, result, &error);
}

static GVariant *
new_floating(GBytes *payload)
{
  return g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, payload, TRUE);
}

/* Releases a variant that an operation was given and has to leave floating. */
static void
release_floating(GVariant *variant)
{
  g_assert_true(g_variant_is_floating(variant));
  g_variant_unref(variant);
}

static contract::Operation
put_bytes_operation(std::string payload, std::vector<gsize> sizes)
{
  return {
      .name = "gvc_bytes_output_stream_put_bytes",
      .payload = payload,
      .bytes = frame(payload),
      .sizes = std::move(sizes),
      .urgent = 4,
      .run = [](gpointer stream, GBytes *bytes, GCancellable *cancellable, GError **error) -> bool {
        return gvc_bytes_output_stream_put_bytes(static_cast<GvcBytesOutputStream *>(stream), bytes,
                                                 cancellable, error);
      },
      .start =
          [](gpointer stream, GBytes *bytes, int priority, GCancellable *cancellable,
             GAsyncReadyCallback ready, gpointer data) {
            gvc_bytes_output_stream_put_bytes_async(static_cast<GvcBytesOutputStream *>(stream),
                                                    bytes, priority, cancellable, ready, data);
          },
      .finish = [](gpointer stream, GAsyncResult *result, GError **error) -> bool {
        return gvc_bytes_output_stream_put_bytes_finish(static_cast<GvcBytesOutputStream *>(stream),
                                                        result, error);
      },
      .propagate = [](GTask *task, GError **error) -> bool {
        return g_task_propagate_boolean(task, error);
      },
  };
}

static const contract::Operation put_variant_operation = {
    .name = "gvc_bytes_output_stream_put_variant",
    .payload = "hello",
    .bytes = frame("hello"),
    .sizes = {4, 5},
    .urgent = 4,
    .run = [](gpointer stream, GBytes *payload, GCancellable *cancellable, GError **error) -> bool {
      GVariant *const variant = new_floating(payload);
      const bool ok = gvc_bytes_output_stream_put_variant(
          static_cast<GvcBytesOutputStream *>(stream), variant, cancellable, error);
      release_floating(variant);
      return ok;
    },
    .start =
        [](gpointer stream, GBytes *payload, int priority, GCancellable *cancellable,
           GAsyncReadyCallback ready, gpointer data) {
          GVariant *const variant = new_floating(payload);
          gvc_bytes_output_stream_put_variant_async(static_cast<GvcBytesOutputStream *>(stream),
                                                    variant, priority, cancellable, ready, data);
          release_floating(variant);
        },
    .finish = [](gpointer stream, GAsyncResult *result, GError **error) -> bool {
      return gvc_bytes_output_stream_put_variant_finish(static_cast<GvcBytesOutputStream *>(stream),
                                                        result, error);
    },
    .propagate = [](GTask *task, GError **error) -> bool {
      return g_task_propagate_boolean(task, error);
    },
};

static const contract::Type stream_type = {
    .reads = false,
    .check = "GVC_IS_BYTES_OUTPUT_STREAM(stream)",
    .blocking_check = "GVC_IS_BYTES_OUTPUT_STREAM (stream)",
    .operations = {put_bytes_operation("hello", {4, 5}), put_bytes_operation("", {4}),
                   put_variant_operation},
    .get_type = [] { return GVC_TYPE_BYTES_OUTPUT_STREAM; },
    .name = "GvcBytesOutputStream",
    .instance_size = sizeof(GvcBytesOutputStream),
    .class_size = sizeof(GvcBytesOutputStreamClass),
    .create = [](gpointer base) -> gpointer {
      return gvc_bytes_output_stream_new(static_cast<GOutputStream *>(base));
    },
    .create_name = "gvc_bytes_output_stream_new",
    .create_check = "G_IS_OUTPUT_STREAM (base_stream)",
};

/* A payload that no memory backs: it is never looked at. */
class HugeBytes
{
public:
  explicit HugeBytes(gsize size) : size_(size)
  {
    memory_ = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory_ != MAP_FAILED)
      bytes_.reset(g_bytes_new_static(memory_, size));
  }
  ~HugeBytes()
  {
    bytes_.reset();
    if (memory_ != MAP_FAILED)
      munmap(memory_, size_);
  }
  GBytes *
  get() const
  {
    return bytes_.get();
  }

private:
  gsize size_;
  void *memory_;
  BytesRef bytes_;
};

static std::string
serialised(GVariant *variant)
{
  const BytesRef bytes(g_variant_get_data_as_bytes(variant));
  return bytes_string(bytes.get());
}

/* ---- The frame ---- */

static void
hello_is_its_length_and_its_bytes()
{
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      const Fixture fixture(kind);
      Error error;
      g_assert_true(put_bytes(way, fixture.stream.get(), new_bytes("hello").get(), error));
      error.assert_none();
      assert_bytes(fixture.script->written(), unhex("05 00 00 00 68 65 6c 6c 6f"));
      g_assert_false(fixture.script->closed());
    }
  }
}

static void
empty_message_is_4_zero_bytes()
{
  for (const auto way : both_ways) {
    LogCapture log;
    const Fixture fixture;
    Error error;
    g_assert_true(put_bytes(way, fixture.stream.get(), new_bytes("").get(), error));
    error.assert_none();
    assert_bytes(fixture.script->written(), unhex("00 00 00 00"));
  }
}

static void
frames_follow_each_other_with_nothing_between()
{
  const Fixture fixture;
  std::string expected;
  Error error;
  for (const gsize size : {1, 0, 2, 255, 256, 65535, 65536, 0, 0, 1000003}) {
    for (const auto way : both_ways) {
      const auto payload = pattern(size, static_cast<guint32>(size));
      g_assert_true(put_bytes(way, fixture.stream.get(), new_bytes(payload).get(), error));
      error.assert_none();
      expected += frame(payload);
    }
  }
  assert_bytes(fixture.script->written(), expected);
}

/* The base stream accepts any number of bytes at a time. */
static void
any_split_gives_the_same_bytes()
{
  const auto payload = pattern(60);
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      for (gsize per_call = 1; per_call <= 8; per_call++) {
        LogCapture log;
        const Fixture fixture(kind, per_call);
        Error error;
        g_assert_true(put_bytes(way, fixture.stream.get(), new_bytes(payload).get(), error));
        error.assert_none();
        assert_bytes(fixture.script->written(), frame(payload));
      }
    }
  }
}

static void
length_and_payload_are_two_writes()
{
  for (const auto way : both_ways) {
    const InnerFixture fixture;
    Error error;
    g_assert_true(put_bytes(way, fixture.stream(), new_bytes("hello").get(), error));
    g_assert_true(fixture.script->sizes() == (std::vector<gsize>{4, 5}));
    g_assert_true(put_bytes(way, fixture.stream(), new_bytes("").get(), error));
    g_assert_true(fixture.script->sizes() == (std::vector<gsize>{4, 5, 4}));
    error.assert_none();
  }
}

/* The length is the low 32 bits of the size; the payload goes out whole all the same. */
static void
payload_of_2_gib_and_more_is_written_whole()
{
  const struct {
    gsize size;
    const char *prefix;
  } cases[] = {
      {(gsize(1) << 31) - 1, "ff ff ff 7f"},
      {gsize(1) << 31, "00 00 00 80"},
      {(gsize(1) << 32) + 3, "03 00 00 00"},
  };
  for (const auto &[size, prefix] : cases) {
    const HugeBytes huge(size);
    if (huge.get() == nullptr) {
      g_test_skip("no address space for a huge message");
      return;
    }
    for (const auto way : both_ways) {
      const InnerFixture fixture;
      fixture.script->keep = 4;
      Error error;
      g_assert_true(put_bytes(way, fixture.stream(), huge.get(), error));
      error.assert_none();
      assert_bytes(fixture.script->written(), unhex(prefix));
      g_assert_true(fixture.script->sizes() == (std::vector<gsize>{4, size}));
      g_assert_cmpuint(fixture.script->moved(), ==, 4 + size);
    }
  }
}

/* ---- Variants ---- */

static void
variant_travels_as_its_serialised_data()
{
  const VariantRef variants[] = {
      VariantRef(g_variant_ref_sink(g_variant_new("(su)", "hello", 4711u))),
      VariantRef(g_variant_ref_sink(g_variant_new_uint32(0x01020304))),
      VariantRef(g_variant_ref_sink(g_variant_new_parsed("{'a': <1>, 'b': <'two'>}"))),
      VariantRef(g_variant_ref_sink(g_variant_new_parsed("@as ['', 'x', 'yy']"))),
      VariantRef(g_variant_ref_sink(g_variant_new_parsed("@ms nothing"))),
  };
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      const Fixture fixture(kind, 7);
      std::string expected;
      Error error;
      for (const auto &variant : variants) {
        g_assert_true(put_variant(way, fixture.stream.get(), variant.get(), error));
        error.assert_none();
        expected += frame(serialised(variant.get()));
      }
      assert_bytes(fixture.script->written(), expected);
    }
  }
}

/* Independently of GVariant: a string with its NUL, padding, a number. */
static void
variant_of_known_bytes()
{
  for (const auto way : both_ways) {
    const Fixture fixture;
    const VariantRef variant(g_variant_ref_sink(g_variant_new("(su)", "hi", 0x01020304u)));
    Error error;
    g_assert_true(put_variant(way, fixture.stream.get(), variant.get(), error));
    error.assert_none();
    assert_bytes(fixture.script->written(), unhex("09 00 00 00  68 69 00 00  04 03 02 01  03"));
  }
}

static void
empty_array_is_a_frame_of_length_0()
{
  for (const auto way : both_ways) {
    const Fixture fixture;
    const VariantRef variant(g_variant_ref_sink(g_variant_new_parsed("@as []")));
    Error error;
    g_assert_true(put_variant(way, fixture.stream.get(), variant.get(), error));
    error.assert_none();
    assert_bytes(fixture.script->written(), unhex("00 00 00 00"));
  }
}

/* Neither swapped nor brought into normal form. */
static void
variant_data_is_not_touched()
{
  const VariantRef number(g_variant_ref_sink(g_variant_new_uint32(0x01020304)));
  const VariantRef swapped(g_variant_byteswap(number.get()));
  static const char odd_string[] = "no terminator";
  const VariantRef odd(g_variant_ref_sink(g_variant_new_from_data(
      G_VARIANT_TYPE_STRING, odd_string, strlen(odd_string), FALSE, nullptr, nullptr)));
  g_assert_false(g_variant_is_normal_form(odd.get()));

  for (const auto way : both_ways) {
    const Fixture fixture;
    Error error;
    g_assert_true(put_variant(way, fixture.stream.get(), swapped.get(), error));
    g_assert_true(put_variant(way, fixture.stream.get(), odd.get(), error));
    error.assert_none();
    assert_bytes(fixture.script->written(), unhex("04 00 00 00  01 02 03 04") + frame(odd_string));
  }
}

static void
floating_variant_stays_floating()
{
  for (const auto way : both_ways) {
    const Fixture fixture;
    GVariant *const variant = g_variant_new("(su)", "hello", 4711u);
    g_assert_true(g_variant_is_floating(variant));
    Error error;
    g_assert_true(put_variant(way, fixture.stream.get(), variant, error));
    error.assert_none();
    g_assert_true(g_variant_is_floating(variant));
    const VariantRef sunk(g_variant_ref_sink(variant));
    assert_bytes(fixture.script->written(), frame(serialised(sunk.get())));
  }
}

/* ---- Failures ---- */

static void
failed_length_means_no_payload()
{
  for (const auto way : both_ways) {
    const InnerFixture fixture;
    fixture.script->steps = {Step::fail(G_IO_ERROR_BROKEN_PIPE, "gone")};
    Error error;
    g_assert_false(put_bytes(way, fixture.stream(), new_bytes("hello").get(), error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE, "gone");
    g_assert_true(fixture.script->sizes() == std::vector<gsize>{4});
    assert_bytes(fixture.script->written(), "");
  }
}

static void
socket_whose_peer_has_gone_fails()
{
  for (const auto way : both_ways) {
    RawPeer peer(Family::unix_domain);
    peer.close();
    const auto stream = own(
        gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(peer.connection()))));
    Error error;
    g_assert_false(put_bytes(way, stream.get(), new_bytes("hello").get(), error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE);
  }
}

/* ---- Priority and cancellation ---- */

/* A source more urgent than the prefix runs before the payload. */
static void
payload_waits_for_its_length()
{
  const Fixture fixture(StreamKind::pollable);
  Collector collector;
  gsize moved_before = G_MAXSIZE;
  gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes("hello").get(),
                                          G_PRIORITY_LOW, nullptr, Collector::ready, &collector);
  auto idle = [&] { moved_before = fixture.script->moved(); };
  g_idle_add(
      [](gpointer function) -> gboolean {
        (*static_cast<decltype(idle) *>(function))();
        return G_SOURCE_REMOVE;
      },
      &idle);
  g_assert_true(
      gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), collector.wait(), nullptr));
  g_assert_cmpuint(moved_before, ==, 4);
  assert_bytes(fixture.script->written(), frame("hello"));
}

/* ---- Preconditions ---- */

static void
blocking_writers_refuse_to_write_no_message()
{
  LogCapture log;
  const Fixture fixture;
  Error error;
  g_assert_false(gvc_bytes_output_stream_put_bytes(fixture.stream.get(), nullptr, nullptr, &error));
  g_assert_cmpuint(log.take().size(), ==, 1);
  g_assert_false(
      gvc_bytes_output_stream_put_variant(fixture.stream.get(), nullptr, nullptr, &error));
  g_assert_cmpuint(log.take().size(), ==, 1);
  error.assert_none();
  g_assert_true(fixture.script->calls().empty());
}

/* ---- Lives and threads ---- */

static void
caller_keeps_its_reference_to_the_bytes()
{
  for (const auto way : both_ways) {
    LifeWatch watch;
    const Fixture fixture;
    auto bytes = watch.add_bytes("hello");
    Error error;
    g_assert_true(put_bytes(way, fixture.stream.get(), bytes.get(), error));
    g_assert_cmpuint(watch.alive(), ==, 1);
    assert_refcount_becomes(fixture.stream.get(), 1);
    bytes.reset();
    watch.assert_all_gone();
  }
}

static void
bytes_live_as_long_as_their_write()
{
  for (const auto kind : all_stream_kinds) {
    LifeWatch watch;
    const Fixture fixture(kind, 2);
    fixture.script->at_call[4] = Step::hold();
    Collector collector;
    auto bytes = watch.add_bytes("hello");
    gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), bytes.get(), 0, nullptr,
                                            Collector::ready, &collector);
    bytes.reset();
    spin_until([&] { return fixture.script->holding(); });
    g_assert_cmpuint(watch.alive(), ==, 1);
    fixture.script->resume();
    Error error;
    g_assert_true(
        gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), collector.wait(), &error));
    assert_bytes(fixture.script->written(), frame("hello"));
    collector.clear();
    watch.assert_all_gone();
  }
}

static void
variant_data_lives_as_long_as_its_write()
{
  LifeWatch watch;
  const Fixture fixture(StreamKind::sync_only, 2);
  fixture.script->at_call[4] = Step::hold();
  Collector collector;
  {
    const auto bytes = watch.add_bytes("hello");
    const VariantRef variant(
        g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, bytes.get(), TRUE)));
    gvc_bytes_output_stream_put_variant_async(fixture.stream.get(), variant.get(), 0, nullptr,
                                              Collector::ready, &collector);
  }
  spin_until([&] { return fixture.script->holding(); });
  g_assert_cmpuint(watch.alive(), ==, 1);
  fixture.script->resume();
  Error error;
  g_assert_true(
      gvc_bytes_output_stream_put_variant_finish(fixture.stream.get(), collector.wait(), &error));
  assert_bytes(fixture.script->written(), frame("hello"));
  collector.clear();
  watch.assert_all_gone();
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
      const auto stream = own(
          gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel.get()))));
      Error error;
      for (const gsize size : {5, 0, 1, 10000}) {
        const auto payload = pattern(size);
        g_assert_true(put_bytes(way, stream.get(), new_bytes(payload).get(), error));
        error.assert_none();
        assert_bytes(peer.receive(4 + size), frame(payload));
      }
    }
  }
}

/* Through a stage onto a socket that is full: once success is reported, every byte of the frame has
 * left. So what the peer gets when the socket is shut down in the callback is all of it. */
static void
success_means_that_no_stage_holds_bytes_back()
{
  RawPeer peer(Family::tcp4);
  GSocket *const socket = g_socket_connection_get_socket(peer.connection());
  const int size = 32768;
  g_assert_no_errno(setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
  g_assert_true(g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, size, nullptr));
  const auto channel = own(gvc_connection_new(peer.connection()));
  const auto identity = [] { return new_map_converter([](guint8 byte) { return byte; }, 4096); };
  gvc_connection_add_converters(channel.get(), identity().get(), identity().get());
  const auto stream =
      own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel.get()))));

  const auto payload = pattern(1 << 20);
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(stream.get(), new_bytes(payload).get(), 0, nullptr,
                                          Collector::ready, &collector);
  /* Nobody reads yet: the socket fills up, and the operation waits. */
  spin_until([&] {
    return (g_socket_condition_check(socket, G_IO_OUT) & G_IO_OUT) == 0 || collector.calls() != 0;
  });
  g_assert_cmpuint(collector.calls(), ==, 0);

  std::string received;
  Background reader([&] { received = peer.receive_all(); });
  Error error;
  g_assert_true(gvc_bytes_output_stream_put_bytes_finish(stream.get(), collector.wait(), &error));
  error.assert_none();
  g_assert_true(g_socket_shutdown(socket, FALSE, TRUE, nullptr));
  reader.join();
  assert_bytes(received, frame(payload));
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
#define TEST(path, function) g_test_add_func("/bytes-output-stream/" path, function)
#define CONTRACT(path, function)                                                                   \
  g_test_add_data_func("/bytes-output-stream/" path, &stream_type, function)
  CONTRACT("type/is-a-plain-filter-stream", contract::is_a_plain_filter_stream);
  CONTRACT("type/overrides-no-operation", contract::overrides_no_operation);
  CONTRACT("new/holds-and-closes-its-base", contract::holds_and_closes_its_base);
  CONTRACT("new/refuses-what-is-no-output-stream", contract::new_refuses_other_objects);
  TEST("frame/hello-is-its-length-and-its-bytes", hello_is_its_length_and_its_bytes);
  TEST("frame/empty-message-is-4-zero-bytes", empty_message_is_4_zero_bytes);
  TEST("frame/follow-each-other-with-nothing-between",
       frames_follow_each_other_with_nothing_between);
  TEST("frame/any-split-gives-the-same-bytes", any_split_gives_the_same_bytes);
  TEST("frame/length-and-payload-are-two-writes", length_and_payload_are_two_writes);
  TEST("frame/payload-of-2-gib-and-more-is-written-whole",
       payload_of_2_gib_and_more_is_written_whole);
  TEST("variant/travels-as-its-serialised-data", variant_travels_as_its_serialised_data);
  TEST("variant/of-known-bytes", variant_of_known_bytes);
  TEST("variant/empty-array-is-a-frame-of-length-0", empty_array_is_a_frame_of_length_0);
  TEST("variant/data-is-not-touched", variant_data_is_not_touched);
  TEST("variant/floating-stays-floating", floating_variant_stays_floating);
  CONTRACT("failure/at-any-write-passes-through", contract::failure_at_any_transfer_passes_through);
  TEST("failure/of-the-length-means-no-payload", failed_length_means_no_payload);
  CONTRACT("failure/of-closed-streams", contract::closed_streams_fail_as_closed);
  TEST("failure/of-a-socket-whose-peer-has-gone", socket_whose_peer_has_gone_fails);
  CONTRACT("failure/errors-may-be-left-out", contract::errors_may_be_left_out);
  CONTRACT("priority/of-the-length-is-the-callers-of-the-payload-the-default",
           contract::requests_have_the_callers_priority);
  TEST("priority/payload-waits-for-its-length", payload_waits_for_its_length);
  CONTRACT("busy-until-the-callback", contract::stream_is_busy_until_the_callback);
  CONTRACT("cancelled/blocking-writes-have-the-callers-cancellable",
           contract::blocking_requests_have_the_callers_cancellable);
  CONTRACT("cancelled/before-it-starts-writes-nothing", contract::cancelled_before_it_starts);
  CONTRACT("cancelled/during-any-write-ends-there", contract::cancelled_during_any_transfer);
  CONTRACT("cancelled/after-the-call-keeps-the-payload-back", contract::cancelled_after_the_call);
  CONTRACT("cancelled/blocking-write-from-another-thread", contract::cancelled_from_another_thread);
  CONTRACT("cancelled/between-the-last-write-and-finish",
           contract::cancelled_between_the_last_transfer_and_finish);
  CONTRACT("checks/blocking-writers-refuse-other-streams",
           contract::blocking_calls_refuse_other_streams);
  TEST("checks/blocking-writers-refuse-to-write-no-message",
       blocking_writers_refuse_to_write_no_message);
  CONTRACT("checks/finishers-refuse-what-is-not-their-result",
           contract::finish_refuses_other_results);
  CONTRACT("checks/async-starters-do-not-check-the-stream",
           contract::start_does_not_check_the_stream);
  CONTRACT("checks/callback-may-be-left-out", contract::callback_may_be_left_out);
  TEST("lives/caller-keeps-its-reference-to-the-bytes", caller_keeps_its_reference_to_the_bytes);
  TEST("lives/bytes-as-long-as-their-write", bytes_live_as_long_as_their_write);
  TEST("lives/variant-data-as-long-as-its-write", variant_data_lives_as_long_as_its_write);
  CONTRACT("lives/nothing-stays-after-any-outcome",
           contract::nothing_stays_alive_after_any_outcome);
  CONTRACT("completes-in-the-context-of-its-thread",
           contract::completes_in_the_context_of_its_thread);
  TEST("socket/frames-arrive", frames_arrive_over_sockets);
  TEST("socket/success-means-that-no-stage-holds-bytes-back",
       success_means_that_no_stage_holds_bytes_back);
  return g_test_run();
}
