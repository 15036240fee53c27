/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <sys/mman.h>
#include <sys/socket.h>

using namespace support;

/* The two messages, and the two ways of writing one. */
enum class Way { blocking, async };
static constexpr Way both_ways[] = {Way::blocking, Way::async};

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

/* ---- The type ---- */

static void
type_is_a_plain_filter_stream()
{
  const GType type = gvc_bytes_output_stream_get_type();
  g_assert_cmpuint(type, ==, GVC_TYPE_BYTES_OUTPUT_STREAM);
  g_assert_cmpstr(g_type_name(type), ==, "GvcBytesOutputStream");
  g_assert_cmpuint(g_type_parent(type), ==, G_TYPE_FILTER_OUTPUT_STREAM);
  g_assert_false(G_TYPE_IS_ABSTRACT(type));
  g_assert_true(G_TYPE_IS_DERIVABLE(type));
  g_assert_true(own_properties(type).empty());
  g_assert_true(own_signals(type).empty());

  GTypeQuery query;
  g_type_query(type, &query);
  g_assert_cmpuint(query.instance_size, ==, sizeof(GFilterOutputStream));
  g_assert_cmpuint(query.class_size, ==, sizeof(GFilterOutputStreamClass));
  g_assert_cmpuint(sizeof(GvcBytesOutputStream), ==, sizeof(GFilterOutputStream));
  g_assert_cmpuint(sizeof(GvcBytesOutputStreamClass), ==, sizeof(GFilterOutputStreamClass));
}

static void
type_overrides_no_operation()
{
  assert_overrides_nothing(GVC_TYPE_BYTES_OUTPUT_STREAM);
}

static void
new_stream_holds_and_closes_its_base()
{
  LogCapture log;
  LifeWatch watch;
  {
    Fixture fixture;
    watch.add(fixture.stream.get());
    watch.add(fixture.base.get());
    assert_refcount(fixture.stream.get(), 1);
    assert_refcount(fixture.base.get(), 2);
    const auto filter = G_FILTER_OUTPUT_STREAM(fixture.stream.get());
    g_assert_true(g_filter_output_stream_get_base_stream(filter) == fixture.base.get());
    g_assert_true(g_filter_output_stream_get_close_base_stream(filter));
    g_assert_false(fixture.script->closed());
    fixture.stream.reset();
    g_assert_true(fixture.script->closed());
    assert_refcount(fixture.base.get(), 1);
  }
  watch.assert_all_gone();

  const Fixture fixture;
  g_assert_true(g_output_stream_close(G_OUTPUT_STREAM(fixture.stream.get()), nullptr, nullptr));
  g_assert_true(g_output_stream_is_closed(fixture.base.get()));
}

static void
new_refuses_what_is_no_output_stream()
{
  LogCapture log;
  const auto message =
      failed_check("gvc_bytes_output_stream_new", "G_IS_OUTPUT_STREAM (base_stream)");
  g_assert_null(gvc_bytes_output_stream_new(nullptr));
  log.expect({message});
  const auto in = new_scripted_input(new_script());
  g_assert_null(gvc_bytes_output_stream_new(reinterpret_cast<GOutputStream *>(in.get())));
  log.expect({message});
  assert_refcount(in.get(), 1);
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

/* Whatever the base accepts at a time. */
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

static std::string
serialised(GVariant *variant)
{
  const BytesRef bytes(g_variant_get_data_as_bytes(variant));
  return bytes_string(bytes.get());
}

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

/* Whichever write of whichever byte fails: what went before stays written, the error comes
 * through. */
static void
failure_at_any_write_passes_through()
{
  const auto whole = frame("hello");
  const VariantRef variant(g_variant_ref_sink(g_variant_new_parsed("@ay [104,101,108,108,111]")));
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      for (guint failing = 1; failing <= whole.size(); failing++) {
        for (const bool as_variant : {false, true}) {
          LogCapture log;
          const Fixture fixture(kind, 1);
          const auto text = "write " + std::to_string(failing);
          fixture.script->at_call[failing] = Step::fail(G_IO_ERROR_NOT_CONNECTED, text);
          Error error;
          g_assert_false(
              as_variant ? put_variant(way, fixture.stream.get(), variant.get(), error)
                         : put_bytes(way, fixture.stream.get(), new_bytes("hello").get(), error));
          error.assert_is(G_IO_ERROR, G_IO_ERROR_NOT_CONNECTED, text.c_str());
          assert_bytes(fixture.script->written(), whole.substr(0, failing - 1));
          g_assert_cmpuint(fixture.script->transfers().size(), ==, failing);
          assert_refcount_becomes(fixture.stream.get(), 1);
        }
      }
    }
  }
}

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
closed_streams_fail_as_closed()
{
  for (const auto way : both_ways) {
    for (const bool close_base : {true, false}) {
      const Fixture fixture;
      g_assert_true(g_output_stream_close(close_base ? fixture.base.get()
                                                     : G_OUTPUT_STREAM(fixture.stream.get()),
                                          nullptr, nullptr));
      Error error;
      g_assert_false(put_bytes(way, fixture.stream.get(), new_bytes("hello").get(), error));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
      const VariantRef variant(g_variant_ref_sink(g_variant_new_int32(1)));
      g_assert_false(put_variant(way, fixture.stream.get(), variant.get(), error));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
      assert_bytes(fixture.script->written(), "");
    }
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

static void
errors_may_be_left_out()
{
  LogCapture log;
  const Fixture fixture;
  const VariantRef variant(g_variant_ref_sink(g_variant_new_int32(1)));
  fixture.script->from_call = {1, Step::fail()};
  const auto hello = new_bytes("hello");
  g_assert_false(
      gvc_bytes_output_stream_put_bytes(fixture.stream.get(), hello.get(), nullptr, nullptr));
  g_assert_false(
      gvc_bytes_output_stream_put_variant(fixture.stream.get(), variant.get(), nullptr, nullptr));
  Collector bytes_done;
  gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), hello.get(), 0, nullptr,
                                          Collector::ready, &bytes_done);
  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), bytes_done.wait(), nullptr));
  Collector variant_done;
  gvc_bytes_output_stream_put_variant_async(fixture.stream.get(), variant.get(), 0, nullptr,
                                            Collector::ready, &variant_done);
  g_assert_false(gvc_bytes_output_stream_put_variant_finish(fixture.stream.get(),
                                                            variant_done.wait(), nullptr));
}

/* ---- Priority and cancellation ---- */

static void
length_has_the_callers_priority_and_payload_the_default()
{
  for (const int priority : {G_PRIORITY_HIGH, G_PRIORITY_DEFAULT, G_PRIORITY_LOW, 77}) {
    for (const bool as_variant : {false, true}) {
      const InnerFixture fixture(2);
      const auto cancellable = own(g_cancellable_new());
      Collector collector;
      if (as_variant) {
        const VariantRef variant(g_variant_ref_sink(g_variant_new_uint32(1)));
        gvc_bytes_output_stream_put_variant_async(fixture.stream(), variant.get(), priority,
                                                  cancellable.get(), Collector::ready, &collector);
        g_assert_true(gvc_bytes_output_stream_put_variant_finish(fixture.stream(), collector.wait(),
                                                                 nullptr));
      } else {
        gvc_bytes_output_stream_put_bytes_async(fixture.stream(), new_bytes("four").get(), priority,
                                                cancellable.get(), Collector::ready, &collector);
        g_assert_true(
            gvc_bytes_output_stream_put_bytes_finish(fixture.stream(), collector.wait(), nullptr));
      }
      const auto calls = fixture.script->calls(Call::Kind::async);
      g_assert_true(fixture.script->sizes() == (std::vector<gsize>{4, 2, 4, 2}));
      g_assert_cmpuint(calls.size(), ==, 4);
      g_assert_cmpint(calls[0].priority, ==, priority);
      g_assert_cmpint(calls[1].priority, ==, priority);
      g_assert_cmpint(calls[2].priority, ==, G_PRIORITY_DEFAULT);
      g_assert_cmpint(calls[3].priority, ==, G_PRIORITY_DEFAULT);
      for (const auto &call : calls)
        g_assert_true(call.cancellable == cancellable.get());
      g_assert_cmpint(g_task_get_priority(G_TASK(collector.result())), ==, G_PRIORITY_DEFAULT);
    }
  }
}

/* What is more urgent than the length comes before the payload. */
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

static void
stream_is_busy_until_the_callback()
{
  for (const auto kind : all_stream_kinds) {
    for (const auto *payload : {"hello", ""}) {
      for (const bool may_cancel : {false, true}) {
        const Fixture fixture(kind);
        auto *const out = G_OUTPUT_STREAM(fixture.stream.get());
        const auto cancellable = own(may_cancel ? g_cancellable_new() : nullptr);
        Collector first, second;
        gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes(payload).get(), 0,
                                                cancellable.get(), Collector::ready, &first);
        g_assert_true(g_output_stream_has_pending(out));
        gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes("no").get(), 0,
                                                cancellable.get(), Collector::ready, &second);
        Error error;
        g_assert_false(
            gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), second.wait(), &error));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
        g_assert_true(
            gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), first.wait(), &error));
        g_assert_false(g_output_stream_has_pending(out));
        assert_bytes(fixture.script->written(), frame(payload));
      }
    }
  }
}

static void
blocking_writes_have_the_callers_cancellable()
{
  const InnerFixture fixture;
  const auto cancellable = own(g_cancellable_new());
  Error error;
  g_assert_true(put_bytes(Way::blocking, fixture.stream(), new_bytes("hello").get(), error,
                          cancellable.get()));
  for (const auto &call : fixture.script->calls(Call::Kind::sync))
    g_assert_true(call.cancellable == cancellable.get());
  g_assert_cmpuint(fixture.script->calls(Call::Kind::sync).size(), ==, 2);
  assert_refcount(cancellable.get(), 1);
}

static void
cancelled_before_it_starts_writes_nothing()
{
  const auto cancellable = own(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  const VariantRef variant(g_variant_ref_sink(g_variant_new_int32(1)));
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      const Fixture fixture(kind);
      Error error;
      for (const auto *payload : {"hello", ""}) {
        g_assert_false(put_bytes(way, fixture.stream.get(), new_bytes(payload).get(), error,
                                 cancellable.get()));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      }
      g_assert_false(
          put_variant(way, fixture.stream.get(), variant.get(), error, cancellable.get()));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      assert_bytes(fixture.script->written(), "");
    }
  }
  assert_refcount_becomes(cancellable.get(), 1);
}

/* At every byte of the frame. */
static void
cancelled_during_any_write_ends_there()
{
  const auto whole = frame("hello");
  for (const auto kind : all_stream_kinds) {
    for (guint held = 1; held <= whole.size(); held++) {
      const auto cancellable = own(g_cancellable_new());
      const Fixture fixture(kind, 1);
      fixture.script->at_call[held] = Step::hold();
      Collector collector;
      gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes("hello").get(), 0,
                                              cancellable.get(), Collector::ready, &collector);
      spin_until([&] { return fixture.script->holding(); });
      g_assert_cmpuint(collector.calls(), ==, 0);
      g_cancellable_cancel(cancellable.get());
      Error error;
      g_assert_false(
          gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), collector.wait(), &error));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      assert_bytes(fixture.script->written(), whole.substr(0, held - 1));
      collector.clear();
      assert_refcount_becomes(fixture.stream.get(), 1);
      assert_refcount_becomes(cancellable.get(), 1);
    }
  }
}

static void
blocking_write_is_cancelled_from_another_thread()
{
  const Fixture fixture;
  fixture.script->steps = {Step::move(), Step::move(2), Step::hold()};
  const auto cancellable = own(g_cancellable_new());
  Background canceller([&] {
    while (!fixture.script->holding())
      g_usleep(1000);
    g_cancellable_cancel(cancellable.get());
  });
  Error error;
  g_assert_false(put_bytes(Way::blocking, fixture.stream.get(), new_bytes("hello").get(), error,
                           cancellable.get()));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  assert_bytes(fixture.script->written(), unhex("05 00 00 00 68 65"));
}

/* The result looks at the cancellable when it is collected. */
static void
cancelled_between_the_last_write_and_finish()
{
  const Fixture fixture;
  const auto cancellable = own(g_cancellable_new());
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes("hello").get(), 0,
                                          cancellable.get(), Collector::ready, &collector);
  collector.wait();
  g_cancellable_cancel(cancellable.get());
  Error error;
  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), collector.result(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  assert_bytes(fixture.script->written(), frame("hello"));
}

/* Although the stream would have taken all of the frame within the call. */
static void
cancelled_after_the_call_keeps_the_payload_back()
{
  const Fixture fixture(StreamKind::pollable);
  const auto cancellable = own(g_cancellable_new());
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes("hello").get(), 0,
                                          cancellable.get(), Collector::ready, &collector);
  g_cancellable_cancel(cancellable.get());
  Error error;
  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), collector.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  assert_bytes(fixture.script->written(), unhex("05 00 00 00"));
}

/* ---- Preconditions ---- */

static void
blocking_writers_refuse_other_streams()
{
  LogCapture log;
  const auto script = new_script();
  const auto other = new_scripted_output(script);
  const auto hello = new_bytes("hello");
  GVariant *const variant = g_variant_new_int32(1);
  Error error;
  for (gpointer wrong : {static_cast<gpointer>(nullptr), static_cast<gpointer>(other.get())}) {
    const auto stream = static_cast<GvcBytesOutputStream *>(wrong);
    g_assert_false(gvc_bytes_output_stream_put_bytes(stream, hello.get(), nullptr, &error));
    log.expect(
        {failed_check("gvc_bytes_output_stream_put_bytes", "GVC_IS_BYTES_OUTPUT_STREAM (stream)")});
    g_assert_false(gvc_bytes_output_stream_put_variant(stream, variant, nullptr, &error));
    log.expect({failed_check("gvc_bytes_output_stream_put_variant",
                             "GVC_IS_BYTES_OUTPUT_STREAM (stream)")});
    error.assert_none();
  }
  g_assert_true(g_variant_is_floating(variant));
  g_variant_unref(variant);
  g_assert_true(script->calls().empty());
}

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

static void
finishers_refuse_what_is_not_their_result()
{
  const Fixture fixture;
  const Fixture other;
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes("hello").get(), 0,
                                          nullptr, Collector::ready, &collector);
  GAsyncResult *const result = collector.wait();
  const struct {
    const char *name;
    gboolean (*finish)(GvcBytesOutputStream *, GAsyncResult *, GError **);
  } finishers[] = {
      {"gvc_bytes_output_stream_put_bytes_finish", gvc_bytes_output_stream_put_bytes_finish},
      {"gvc_bytes_output_stream_put_variant_finish", gvc_bytes_output_stream_put_variant_finish},
  };
  for (const auto &[name, finish] : finishers) {
    const auto not_stream = failed_check(name, "GVC_IS_BYTES_OUTPUT_STREAM(stream)");
    const auto not_result = failed_check(name, "g_task_is_valid(result, stream)");
    LogCapture log;
    Error error;
    g_assert_false(finish(nullptr, result, &error));
    log.expect({not_stream});
    g_assert_false(
        finish(reinterpret_cast<GvcBytesOutputStream *>(fixture.base.get()), result, &error));
    log.expect({not_stream});
    g_assert_false(finish(other.stream.get(), result, &error));
    log.expect({not_result});
    g_assert_false(
        finish(fixture.stream.get(), reinterpret_cast<GAsyncResult *>(fixture.base.get()), &error));
    log.expect({not_result});
    g_assert_false(finish(nullptr, nullptr, &error));
    log.expect({not_stream});
    error.assert_none();
  }
  Error error;
  g_assert_true(gvc_bytes_output_stream_put_bytes_finish(fixture.stream.get(), result, &error));
  error.assert_none();
}

/* Any output stream will do for them. */
static void
async_starters_do_not_check_the_stream()
{
  LogCapture log;
  const auto script = new_script({}, 3);
  const auto plain = new_scripted_output(script);
  const auto stream = reinterpret_cast<GvcBytesOutputStream *>(plain.get());
  Error error;

  Collector bytes_done;
  gvc_bytes_output_stream_put_bytes_async(stream, new_bytes("hello").get(), 0, nullptr,
                                          Collector::ready, &bytes_done);
  g_assert_true(g_task_propagate_boolean(G_TASK(bytes_done.wait()), &error));
  error.assert_none();
  assert_bytes(script->written(), frame("hello"));
  log.expect_none();
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

static void
nothing_stays_alive_after_any_outcome()
{
  for (const auto kind : all_stream_kinds) {
    for (guint failing = 0; failing <= 2; failing++) { /* 0: none fails */
      for (const bool as_variant : {false, true}) {
        for (const bool collect : {false, true}) {
          LifeWatch watch;
          {
            const Fixture fixture(kind);
            if (failing != 0)
              fixture.script->at_call[failing] = Step::fail();
            watch.add(fixture.stream.get());
            watch.add(fixture.base.get());
            const auto bytes = watch.add_bytes("hello");
            const VariantRef variant(g_variant_ref_sink(
                g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, bytes.get(), TRUE)));
            Collector collector;
            if (as_variant)
              gvc_bytes_output_stream_put_variant_async(fixture.stream.get(), variant.get(), 0,
                                                        nullptr, Collector::ready, &collector);
            else
              gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), bytes.get(), 0, nullptr,
                                                      Collector::ready, &collector);
            watch.add(collector.wait());
            Error error;
            if (collect)
              g_assert_true((as_variant ? gvc_bytes_output_stream_put_variant_finish(
                                              fixture.stream.get(), collector.result(), &error)
                                        : gvc_bytes_output_stream_put_bytes_finish(
                                              fixture.stream.get(), collector.result(), &error)) ==
                            (failing == 0));
          }
          watch.assert_all_gone();
        }
      }
    }
  }
}

static void
callback_may_be_left_out()
{
  const Fixture fixture;
  const VariantRef variant(g_variant_ref_sink(g_variant_new_parsed("@ay [1,2,3]")));
  gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes("hello").get(), 0,
                                          nullptr, nullptr, nullptr);
  spin_until([&] { return fixture.script->moved() == 9; });
  assert_refcount_becomes(fixture.stream.get(), 1);
  gvc_bytes_output_stream_put_variant_async(fixture.stream.get(), variant.get(), 0, nullptr,
                                            nullptr, nullptr);
  spin_until([&] { return fixture.script->moved() == 16; });
  assert_refcount_becomes(fixture.stream.get(), 1);
}

static void
completes_in_the_context_of_its_thread()
{
  run_in_thread([] {
    for (const auto kind : all_stream_kinds) {
      for (const auto *payload : {"hello", ""}) {
        for (const bool fails : {false, true}) {
          const Fixture fixture(kind, 2);
          if (fails)
            fixture.script->at_call[2] = Step::fail();
          Collector collector;
          gvc_bytes_output_stream_put_bytes_async(fixture.stream.get(), new_bytes(payload).get(), 0,
                                                  nullptr, Collector::ready, &collector);
          while (g_main_context_iteration(nullptr, FALSE))
            ;
          g_assert_cmpuint(collector.calls(), ==, 0);
          Error error;
          g_assert_true(gvc_bytes_output_stream_put_bytes_finish(
                            fixture.stream.get(), collector.wait(), &error) == !fails);
          g_assert_true(collector.thread() == g_thread_self());
        }
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
  TEST("type/is-a-plain-filter-stream", type_is_a_plain_filter_stream);
  TEST("type/overrides-no-operation", type_overrides_no_operation);
  TEST("new/holds-and-closes-its-base", new_stream_holds_and_closes_its_base);
  TEST("new/refuses-what-is-no-output-stream", new_refuses_what_is_no_output_stream);
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
  TEST("failure/at-any-write-passes-through", failure_at_any_write_passes_through);
  TEST("failure/of-the-length-means-no-payload", failed_length_means_no_payload);
  TEST("failure/of-closed-streams", closed_streams_fail_as_closed);
  TEST("failure/of-a-socket-whose-peer-has-gone", socket_whose_peer_has_gone_fails);
  TEST("failure/errors-may-be-left-out", errors_may_be_left_out);
  TEST("priority/of-the-length-is-the-callers-of-the-payload-the-default",
       length_has_the_callers_priority_and_payload_the_default);
  TEST("priority/payload-waits-for-its-length", payload_waits_for_its_length);
  TEST("busy-until-the-callback", stream_is_busy_until_the_callback);
  TEST("cancelled/blocking-writes-have-the-callers-cancellable",
       blocking_writes_have_the_callers_cancellable);
  TEST("cancelled/before-it-starts-writes-nothing", cancelled_before_it_starts_writes_nothing);
  TEST("cancelled/during-any-write-ends-there", cancelled_during_any_write_ends_there);
  TEST("cancelled/after-the-call-keeps-the-payload-back",
       cancelled_after_the_call_keeps_the_payload_back);
  TEST("cancelled/blocking-write-from-another-thread",
       blocking_write_is_cancelled_from_another_thread);
  TEST("cancelled/between-the-last-write-and-finish", cancelled_between_the_last_write_and_finish);
  TEST("checks/blocking-writers-refuse-other-streams", blocking_writers_refuse_other_streams);
  TEST("checks/blocking-writers-refuse-to-write-no-message",
       blocking_writers_refuse_to_write_no_message);
  TEST("checks/finishers-refuse-what-is-not-their-result",
       finishers_refuse_what_is_not_their_result);
  TEST("checks/async-starters-do-not-check-the-stream", async_starters_do_not_check_the_stream);
  TEST("checks/callback-may-be-left-out", callback_may_be_left_out);
  TEST("lives/caller-keeps-its-reference-to-the-bytes", caller_keeps_its_reference_to_the_bytes);
  TEST("lives/bytes-as-long-as-their-write", bytes_live_as_long_as_their_write);
  TEST("lives/variant-data-as-long-as-its-write", variant_data_lives_as_long_as_its_write);
  TEST("lives/nothing-stays-after-any-outcome", nothing_stays_alive_after_any_outcome);
  TEST("completes-in-the-context-of-its-thread", completes_in_the_context_of_its_thread);
  TEST("socket/frames-arrive", frames_arrive_over_sockets);
  TEST("socket/success-means-that-no-stage-holds-bytes-back",
       success_means_that_no_stage_holds_bytes_back);
  return g_test_run();
}
