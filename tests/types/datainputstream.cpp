/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/types/streamcontract.h"

#include <zelgvc/zelgvc.h>

#include <malloc.h>

using namespace support;
using contract::both_ways;
using contract::untouched;
using contract::Way;

using Fixture = contract::Reader<GvcDataInputStream, gvc_data_input_stream_new>;
using InnerFixture = contract::InnerReader<GvcDataInputStream, gvc_data_input_stream_get_type>;

static Mem<gchar>
read_string(Way way, GvcDataInputStream *stream, gchar string_end, gsize *length, Error &error,
            GCancellable *cancellable = nullptr)
{
  if (way == Way::blocking)
    return Mem<gchar>(
        gvc_data_input_stream_read_string(stream, string_end, length, cancellable, &error));
  Collector collector;
  gvc_data_input_stream_read_string_async(stream, string_end, G_PRIORITY_DEFAULT, cancellable,
                                          Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  GAsyncResult *const result = collector.wait();
  g_assert_true(collector.source() == G_OBJECT(stream));
  return Mem<gchar>(gvc_data_input_stream_read_string_finish(stream, result, length, &error));
}

static void
assert_string(Way way, GvcDataInputStream *stream, gchar string_end, std::string_view expected)
{
  Error error;
  gsize length = untouched;
  const auto string = read_string(way, stream, string_end, &length, error);
  error.assert_none();
  g_assert_nonnull(string.get());
  assert_bytes({string.get(), length}, expected);
}

/* A failure leaves the length alone. */
static bool
is_hello(gchar *taken, gsize length)
{
  const Mem<gchar> string(taken);
  if (string == nullptr)
    g_assert_cmpuint(length, ==, untouched);
  else
    assert_bytes({string.get(), length}, "hello\n");
  return string != nullptr;
}

static const contract::Operation read_string_operation = {
    .name = "gvc_data_input_stream_read_string",
    .payload = {},
    .bytes = "hello\n",
    .sizes = std::vector<gsize>(6, 1),
    .urgent = 1,
    .run =
        [](gpointer stream, GBytes *, GCancellable *cancellable, GError **error) {
          gsize length = untouched;
          gchar *const string = gvc_data_input_stream_read_string(
              static_cast<GvcDataInputStream *>(stream), '\n', &length, cancellable, error);
          return is_hello(string, length);
        },
    .start =
        [](gpointer stream, GBytes *, int priority, GCancellable *cancellable,
           GAsyncReadyCallback ready, gpointer data) {
          gvc_data_input_stream_read_string_async(static_cast<GvcDataInputStream *>(stream), '\n',
                                                  priority, cancellable, ready, data);
        },
    .finish =
        [](gpointer stream, GAsyncResult *result, GError **error) {
          gsize length = untouched;
          gchar *const string = gvc_data_input_stream_read_string_finish(
              static_cast<GvcDataInputStream *>(stream), result, &length, error);
          return is_hello(string, length);
        },
    .propagate =
        [](GTask *task, GError **error) {
          return is_hello(static_cast<gchar *>(g_task_propagate_pointer(task, error)), 6);
        },
    .after_zero = true,
};

static const contract::Type stream_type = {
    .reads = true,
    .check = "GVC_IS_DATA_INPUT_STREAM(stream)",
    .blocking_check = "GVC_IS_DATA_INPUT_STREAM(stream)",
    .operations = {read_string_operation},
    .get_type = [] { return GVC_TYPE_DATA_INPUT_STREAM; },
    .name = "GvcDataInputStream",
    .instance_size = sizeof(GvcDataInputStream),
    .class_size = sizeof(GvcDataInputStreamClass),
    .create = [](gpointer base) -> gpointer {
      return gvc_data_input_stream_new(static_cast<GInputStream *>(base));
    },
    .create_name = "gvc_data_input_stream_new",
    .create_check = "G_IS_INPUT_STREAM(base_stream)",
};

/* ---- Strings ---- */

static void
string_includes_its_terminator()
{
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      const Fixture fixture("ab\ncd\n", kind);
      assert_string(way, fixture.stream.get(), '\n', "ab\n");
      /* Nothing behind the terminator has been consumed. */
      g_assert_cmpuint(fixture.script->moved(), ==, 3);
      assert_string(way, fixture.stream.get(), '\n', "cd\n");
      assert_refcount_becomes(fixture.stream.get(), 1);
    }
  }
}

static void
terminator_alone_is_a_string()
{
  for (const auto way : both_ways) {
    const Fixture fixture("\n\n");
    assert_string(way, fixture.stream.get(), '\n', "\n");
    assert_string(way, fixture.stream.get(), '\n', "\n");
  }
}

/* Bytes with the high bit and NUL among them. Nothing but the terminator ends a string. */
static void
any_byte_can_be_the_terminator()
{
  std::string all;
  for (int byte = 0; byte < 256; byte++)
    all.push_back(static_cast<char>(byte));
  for (const auto way : both_ways) {
    for (int byte = 0; byte < 256; byte++) {
      const auto end = static_cast<gchar>(byte);
      auto others = all;
      std::erase(others, end);
      const Fixture fixture(others + end + "rest", StreamKind::pollable);
      assert_string(way, fixture.stream.get(), end, others + end);
      g_assert_cmpuint(fixture.script->moved(), ==, 256);
    }
  }
}

static void
no_nul_is_added()
{
  for (const auto way : both_ways) {
    const Fixture fixture(std::string("ab\0cd\0", 6));
    assert_string(way, fixture.stream.get(), '\0', std::string_view("ab\0", 3));
    assert_string(way, fixture.stream.get(), '\0', std::string_view("cd\0", 3));
  }
}

static void
terminator_may_change_from_string_to_string()
{
  for (const auto way : both_ways) {
    const Fixture fixture("a:b;c\n");
    assert_string(way, fixture.stream.get(), ':', "a:");
    assert_string(way, fixture.stream.get(), ';', "b;");
    assert_string(way, fixture.stream.get(), '\n', "c\n");
  }
}

/* Around the sizes at which the buffer is full. */
static void
strings_of_any_length_are_whole()
{
  for (const gsize size :
       {1, 2, 1021, 1022, 1023, 1024, 1025, 1026, 2047, 2048, 2049, 4095, 4096, 4097, 70000}) {
    auto expected = pattern(size);
    for (auto &c : expected)
      if (c == '\n')
        c = ' ';
    expected.push_back('\n');
    for (const auto way : both_ways) {
      const Fixture fixture(expected + expected, StreamKind::pollable);
      assert_string(way, fixture.stream.get(), '\n', expected);
      assert_string(way, fixture.stream.get(), '\n', expected);
    }
  }
}

/* A full buffer is doubled before the byte that needs the room: once for 1024 bytes before the
 * terminator, and once for 1025 too. */
static void
buffer_doubles_when_it_is_full()
{
  const struct {
    gsize before_terminator;
    gsize capacity;
  } cases[] = {{0, 1024},    {1023, 1024}, {1024, 2048}, {1025, 2048},
               {2047, 2048}, {2048, 4096}, {2049, 4096}, {5000, 8192}};
  for (const auto &[before, capacity] : cases) {
    for (const auto way : both_ways) {
      const Fixture fixture(std::string(before, 'x') + '\n', StreamKind::pollable);
      gsize length;
      Error error;
      const auto string = read_string(way, fixture.stream.get(), '\n', &length, error);
      g_assert_cmpuint(length, ==, before + 1);
      /* The allocator may give a little more than what it was asked for. */
      g_assert_cmpuint(malloc_usable_size(string.get()), >=, capacity);
      g_assert_cmpuint(malloc_usable_size(string.get()), <, capacity + 64);
    }
  }
}

static void
bytes_are_asked_for_one_by_one()
{
  for (const auto way : both_ways) {
    const InnerFixture fixture("hello\nrest");
    assert_string(way, fixture.stream(), '\n', "hello\n");
    g_assert_true(fixture.script->sizes() == std::vector<gsize>(6, 1));
    g_assert_cmpuint(fixture.script->moved(), ==, 6);
  }
}

static void
length_may_be_left_out()
{
  for (const auto way : both_ways) {
    LogCapture log;
    const Fixture fixture("hello\n");
    Error error;
    const auto string = read_string(way, fixture.stream.get(), '\n', nullptr, error);
    error.assert_none();
    assert_bytes({string.get(), 6}, "hello\n");
  }
}

/* ---- The end of the stream ---- */

static void
end_of_stream_does_not_end_a_string()
{
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      const Fixture fixture("ab\n", kind);
      fixture.script->steps = {Step::zero(), Step::zero(), Step::move(), Step::zero(),
                               Step::zero(), Step::zero(), Step::move(), Step::zero()};
      assert_string(way, fixture.stream.get(), '\n', "ab\n");
      g_assert_cmpuint(fixture.script->transfers().size(), ==, 9);
    }
  }
}

/* After a read of nothing there is no byte to compare: whatever stands where it would have gone, or
 * in front of the buffer, must not be taken for the terminator. */
static void
nothing_read_matches_no_terminator()
{
  for (const auto way : both_ways) {
    for (int byte = 0; byte < 256; byte++) {
      const auto end = static_cast<gchar>(byte);
      const auto other = static_cast<gchar>(byte ^ 0x55);
      const std::string expected = {other, other, end};
      /* The allocator's recycled memory is full of terminators. */
      for (int i = 0; i < 4; i++) {
        void *const dirt = g_malloc(1024);
        memset(dirt, byte, 1024);
        g_free(dirt);
      }
      const Fixture fixture(expected);
      fixture.script->steps = {Step::zero(), Step::move(), Step::zero(),
                               Step::zero(), Step::move(), Step::zero()};
      assert_string(way, fixture.stream.get(), end, expected);
    }
  }
}

static void
endless_end_of_stream_is_ended_by_cancellation()
{
  for (const auto way : both_ways) {
    const auto cancellable = own(g_cancellable_new());
    const Fixture fixture("unfinished");
    fixture.script->on_call = [&](guint number) {
      if (number == 500)
        g_cancellable_cancel(cancellable.get());
    };
    Error error;
    gsize length = untouched;
    g_assert_null(
        read_string(way, fixture.stream.get(), '\n', &length, error, cancellable.get()).get());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
    g_assert_cmpuint(length, ==, untouched);
    g_assert_cmpuint(fixture.script->transfers().size(), ==, 500);
    assert_refcount_becomes(cancellable.get(), 1);
  }
}

/* ---- Failures ---- */

/* The stream loses the part before the failure and goes on behind it. */
static void
failure_at_any_read_passes_through(gconstpointer type)
{
  contract::failure_at_any_transfer_passes_through(type);
  const std::string whole = "hello there\n";
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      for (guint failing = 1; failing <= whole.size(); failing++) {
        const Fixture fixture(whole, kind);
        fixture.script->at_call[failing] = Step::fail();
        Error error;
        g_assert_null(read_string(way, fixture.stream.get(), '\n', nullptr, error).get());
        error.clear();
        assert_string(way, fixture.stream.get(), '\n', whole.substr(failing - 1));
      }
    }
  }
}

/* After the buffer has grown as well. */
static void
failure_of_a_long_string_passes_through()
{
  for (const auto way : both_ways) {
    const Fixture fixture(std::string(3000, 'x'), StreamKind::pollable);
    fixture.script->at_call[3000] = Step::fail(G_IO_ERROR_TIMED_OUT, "too slow");
    Error error;
    g_assert_null(read_string(way, fixture.stream.get(), '\n', nullptr, error).get());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "too slow");
  }
}

/* ---- Priority ---- */

/* A long string that is all there does not keep others from their turn. */
static void
long_string_leaves_others_their_turn()
{
  const std::string text = std::string(10000, 'a') + '\n';
  const Fixture fixture(text, StreamKind::pollable);
  Collector collector;
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, nullptr, Collector::ready,
                                          &collector);
  gsize moved = 0, turns = 0;
  for (; collector.calls() == 0; turns++) {
    g_assert_cmpuint(fixture.script->moved() - moved, <=, 500);
    moved = fixture.script->moved();
    g_assert_true(g_main_context_iteration(nullptr, FALSE));
  }
  /* But not each byte is a turn. */
  g_assert_cmpuint(turns, <, text.size() / 10);
  const Mem<gchar> string(gvc_data_input_stream_read_string_finish(
      fixture.stream.get(), collector.wait(), nullptr, nullptr));
  assert_bytes({string.get(), text.size()}, text);
}

/* Also where the stream is polled: sources below G_PRIORITY_DEFAULT keep the first byte of a read
 * of low priority waiting, and none of the others. */
static void
bytes_behind_the_first_have_the_default_priority()
{
  const std::string text = std::string(1000, 'a') + '\n';
  const Fixture fixture(text, StreamKind::pollable);
  Collector collector;
  const auto run_idle = [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
  guint idle = g_idle_add(run_idle, nullptr);
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', G_PRIORITY_LOW, nullptr,
                                          Collector::ready, &collector);
  for (int turn = 0; turn < 5; turn++) {
    g_main_context_iteration(nullptr, FALSE);
    g_assert_cmpuint(fixture.script->moved(), ==, 1);
  }
  g_source_remove(idle);
  g_assert_true(g_main_context_iteration(nullptr, FALSE));
  g_assert_cmpuint(fixture.script->moved(), >, 1);
  g_assert_cmpuint(fixture.script->moved(), <, text.size());

  idle = g_idle_add(run_idle, nullptr);
  for (gsize moved = fixture.script->moved(); moved < text.size();) {
    g_assert_true(g_main_context_iteration(nullptr, FALSE));
    g_assert_cmpuint(fixture.script->moved(), >, moved);
    moved = fixture.script->moved();
  }
  const Mem<gchar> string(gvc_data_input_stream_read_string_finish(
      fixture.stream.get(), collector.wait(), nullptr, nullptr));
  g_source_remove(idle);
  assert_bytes({string.get(), text.size()}, text);
}

/* ---- Sockets ---- */

static void
strings_arrive_over_sockets()
{
  for (const auto family : {Family::tcp4, Family::tcp6, Family::unix_domain}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    for (const auto way : both_ways) {
      LogCapture log;
      RawPeer peer(family);
      const auto channel = own(gvc_connection_new(peer.connection()));
      const auto stream =
          own(gvc_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(channel.get()))));
      peer.send("first\nsecond\nthi");
      assert_string(way, stream.get(), '\n', "first\n");
      assert_string(way, stream.get(), '\n', "second\n");
      Background sender([&] { peer.send("rd\n"); });
      assert_string(way, stream.get(), '\n', "third\n");
    }
  }
}

/* The end of the connection is no terminator either: the reader goes on until it is cancelled. */
static void
socket_at_its_end_is_ended_by_cancellation()
{
  for (const auto way : both_ways) {
    RawPeer peer(Family::tcp4);
    const auto stream = own(
        gvc_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(peer.connection()))));
    peer.send("unfinished");
    peer.close();
    const auto cancellable = own(g_cancellable_new());
    Background canceller([&] {
      g_usleep(20000);
      g_cancellable_cancel(cancellable.get());
    });
    Error error;
    g_assert_null(read_string(way, stream.get(), '\n', nullptr, error, cancellable.get()).get());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  }
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
#define TEST(path, function) g_test_add_func("/data-input-stream/" path, function)
#define CONTRACT(path, function)                                                                   \
  g_test_add_data_func("/data-input-stream/" path, &stream_type, function)
  CONTRACT("type/is-a-plain-filter-stream", contract::is_a_plain_filter_stream);
  CONTRACT("type/overrides-no-operation", contract::overrides_no_operation);
  CONTRACT("new/holds-and-closes-its-base", contract::holds_and_closes_its_base);
  CONTRACT("new/refuses-what-is-no-input-stream", contract::new_refuses_other_objects);
  TEST("string/includes-its-terminator", string_includes_its_terminator);
  TEST("string/terminator-alone-is-one", terminator_alone_is_a_string);
  TEST("string/any-byte-can-be-the-terminator", any_byte_can_be_the_terminator);
  TEST("string/no-nul-is-added", no_nul_is_added);
  TEST("string/terminator-may-change", terminator_may_change_from_string_to_string);
  TEST("string/of-any-length-is-whole", strings_of_any_length_are_whole);
  TEST("string/buffer-doubles-when-it-is-full", buffer_doubles_when_it_is_full);
  TEST("string/bytes-are-asked-for-one-by-one", bytes_are_asked_for_one_by_one);
  TEST("string/long-string-leaves-others-their-turn", long_string_leaves_others_their_turn);
  TEST("string/length-may-be-left-out", length_may_be_left_out);
  TEST("end-of-stream/does-not-end-a-string", end_of_stream_does_not_end_a_string);
  TEST("end-of-stream/nothing-read-matches-no-terminator", nothing_read_matches_no_terminator);
  TEST("end-of-stream/endless-one-is-ended-by-cancellation",
       endless_end_of_stream_is_ended_by_cancellation);
  CONTRACT("failure/at-any-read-passes-through", failure_at_any_read_passes_through);
  TEST("failure/of-a-long-string-passes-through", failure_of_a_long_string_passes_through);
  CONTRACT("failure/of-closed-streams", contract::closed_streams_fail_as_closed);
  CONTRACT("failure/errors-may-be-left-out", contract::errors_may_be_left_out);
  CONTRACT("priority/first-read-has-the-callers", contract::requests_have_the_callers_priority);
  TEST("priority/bytes-behind-the-first-have-the-default",
       bytes_behind_the_first_have_the_default_priority);
  CONTRACT("cancelled/blocking-reads-have-the-callers-cancellable",
           contract::blocking_requests_have_the_callers_cancellable);
  CONTRACT("cancelled/before-it-starts-reads-nothing", contract::cancelled_before_it_starts);
  CONTRACT("cancelled/during-any-read-ends-there", contract::cancelled_during_any_transfer);
  CONTRACT("cancelled/blocking-read-from-another-thread", contract::cancelled_from_another_thread);
  CONTRACT("cancelled/between-the-last-read-and-finish",
           contract::cancelled_between_the_last_transfer_and_finish);
  CONTRACT("checks/blocking-reader-refuses-other-streams",
           contract::blocking_calls_refuse_other_streams);
  CONTRACT("checks/finish-refuses-what-is-not-its-result", contract::finish_refuses_other_results);
  CONTRACT("checks/async-starter-does-not-check-the-stream",
           contract::start_does_not_check_the_stream);
  CONTRACT("checks/callback-may-be-left-out", contract::callback_may_be_left_out);
  CONTRACT("lives/nothing-stays-after-any-outcome",
           contract::nothing_stays_alive_after_any_outcome);
  CONTRACT("completes-in-the-context-of-its-thread",
           contract::completes_in_the_context_of_its_thread);
  TEST("socket/strings-arrive", strings_arrive_over_sockets);
  TEST("socket/at-its-end-is-ended-by-cancellation", socket_at_its_end_is_ended_by_cancellation);
  return g_test_run();
}
