/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/types/streamcontract.h"

#include <zelgvc/zelgvc.h>

#include <array>

using namespace support;
using contract::untouched;

/* One read-all from its start to its end. */
struct ReadAll {
  std::string buffer;
  Collector collector;
  bool ok = false;
  gsize bytes_read = untouched;
  Error error;

  explicit ReadAll(gsize count) : buffer(count, '\xee') {}

  void
  start(GInputStream *stream, int priority = G_PRIORITY_DEFAULT,
        GCancellable *cancellable = nullptr)
  {
    gvc_input_stream_util_read_all_async(stream, buffer.data(), buffer.size(), priority,
                                         cancellable, Collector::ready, &collector);
    g_assert_cmpuint(collector.calls(), ==, 0);
  }

  void
  finish(GInputStream *stream)
  {
    GAsyncResult *const result = collector.wait();
    g_assert_true(collector.source() == G_OBJECT(stream));
    ok = gvc_input_stream_util_read_all_finish(stream, result, &bytes_read, &error);
  }

  void
  run(GInputStream *stream, int priority = G_PRIORITY_DEFAULT, GCancellable *cancellable = nullptr)
  {
    start(stream, priority, cancellable);
    finish(stream);
  }

  void
  assert_read(std::string_view expected)
  {
    error.assert_none();
    g_assert_true(ok);
    g_assert_cmpuint(bytes_read, ==, expected.size());
    assert_bytes(std::string_view(buffer).substr(0, expected.size()), expected);
    /* Nothing was stored past what has arrived. */
    assert_bytes(std::string_view(buffer).substr(expected.size()),
                 std::string(buffer.size() - expected.size(), '\xee'));
  }
};

static constexpr std::string_view digits = "0123456789";
static std::array<char, digits.size()> buffer;
static gsize bytes_read;

static const contract::Operation read_all_operation = {
    .name = "gvc_input_stream_util_read_all",
    .payload = {},
    .bytes = std::string(digits),
    .sizes = {digits.size()},
    .urgent = digits.size(),
    .task_is_urgent = true,
    .start =
        [](gpointer stream, GBytes *payload, int priority, GCancellable *cancellable,
           GAsyncReadyCallback ready, gpointer data) {
          gvc_input_stream_util_read_all_async(static_cast<GInputStream *>(stream),
                                               payload != nullptr ? buffer.data() : nullptr,
                                               buffer.size(), priority, cancellable, ready, data);
        },
    .finish = [](gpointer stream, GAsyncResult *result, GError **error) -> bool {
      bytes_read = untouched;
      const bool ok = gvc_input_stream_util_read_all_finish(static_cast<GInputStream *>(stream),
                                                            result, &bytes_read, error);
      if (bytes_read != untouched)
        assert_bytes({buffer.data(), bytes_read}, digits.substr(0, bytes_read));
      return ok;
    },
    .after_zero = true,
    .count = &bytes_read,
};

static const contract::Type stream_type = {
    .reads = true,
    .check = "G_IS_INPUT_STREAM(stream)",
    .blocking_check = {},
    .operations = {read_all_operation},
    .claim_message = "ERROR:vchannels/zelgvc/gvcinputstreamutils:49:read_all_callback: "
                     "assertion failed (nread <= data->to_read): ",
};

static void
whole_count_in_one_read()
{
  for (const auto kind : all_stream_kinds) {
    LogCapture log;
    const auto script = new_script(pattern(300));
    const auto stream = new_scripted_input(script, kind);
    ReadAll read(100);
    read.run(stream.get());
    read.assert_read(pattern(300).substr(0, 100));
    g_assert_true(script->sizes() == std::vector<gsize>{100});
    g_assert_cmpuint(script->moved(), ==, 100);
  }
}

static void
end_of_stream_is_a_short_count()
{
  for (const auto kind : all_stream_kinds) {
    const auto script = new_script(pattern(40));
    const auto stream = new_scripted_input(script, kind);
    ReadAll read(100);
    read.run(stream.get());
    read.assert_read(pattern(40));
    g_assert_true(script->sizes() == (std::vector<gsize>{100, 60}));
  }
}

static void
empty_stream_is_a_count_of_0()
{
  const auto script = new_script();
  const auto stream = new_scripted_input(script);
  ReadAll read(100);
  read.run(stream.get());
  read.assert_read("");
}

static void
stops_at_the_first_end_of_stream()
{
  const auto script = new_script(pattern(100));
  script->steps = {Step::move(30), Step::zero()};
  const auto stream = new_scripted_input(script);
  ReadAll read(100);
  read.run(stream.get());
  read.assert_read(pattern(100).substr(0, 30));
  g_assert_cmpuint(script->transfers().size(), ==, 2);
}

static void
count_of_0_reads_nothing_and_calls_back_later()
{
  const auto script = new_script("never asked for");
  const auto stream = new_scripted_input(script);
  char byte;
  for (void *buffer : {static_cast<void *>(nullptr), static_cast<void *>(&byte)}) {
    LogCapture log;
    Collector collector;
    gvc_input_stream_util_read_all_async(stream.get(), buffer, 0, 0, nullptr, Collector::ready,
                                         &collector);
    g_assert_cmpuint(collector.calls(), ==, 0);
    gsize bytes_read = untouched;
    Error error;
    g_assert_true(
        gvc_input_stream_util_read_all_finish(stream.get(), collector.wait(), &bytes_read, &error));
    error.assert_none();
    g_assert_cmpuint(bytes_read, ==, 0);
    g_assert_true(script->calls().empty());
  }
  assert_refcount_becomes(stream.get(), 1);
}

/* Every split of a small read: each read asks for all that is missing, and lands behind the last.
 */
static void
each_read_asks_for_all_that_is_missing()
{
  const auto data = pattern(64);
  for (const auto kind : all_stream_kinds) {
    for (gsize per_call = 1; per_call <= 64; per_call++) {
      const auto script = new_script(data, per_call);
      const auto stream = new_scripted_input(script, kind);
      ReadAll read(64);
      read.run(stream.get());
      read.assert_read(data);
      std::vector<gsize> expected;
      for (gsize done = 0; done < 64; done += per_call)
        expected.push_back(64 - done);
      g_assert_true(script->sizes() == expected);
    }
  }
}

static void
result_carries_the_priority()
{
  const auto script = new_script();
  const auto stream = new_scripted_input(script);
  ReadAll read(4);
  read.run(stream.get(), 123);
  g_assert_cmpint(g_task_get_priority(G_TASK(read.collector.result())), ==, 123);
}

static void
failing_second_read_tells_what_the_first_brought()
{
  const auto script = new_script(pattern(100));
  script->steps = {Step::move(40), Step::fail(G_IO_ERROR_TIMED_OUT, "too slow")};
  const auto stream = new_scripted_input(script);
  ReadAll read(100);
  read.run(stream.get());
  g_assert_false(read.ok);
  read.error.assert_is(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "too slow");
  g_assert_cmpuint(read.bytes_read, ==, 40);
}

/* ---- Cancellation ---- */

static void
cancelled_before_it_starts_with_a_count_of_0()
{
  const auto stream = new_scripted_input(new_script());
  const auto cancellable = own(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  ReadAll read(0);
  read.run(stream.get(), 0, cancellable.get());
  g_assert_false(read.ok);
  read.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_cmpuint(read.bytes_read, ==, 0);
}

/* ---- Preconditions ---- */

static void
refused_start_never_calls_back(gconstpointer type)
{
  buffer.fill('x');
  contract::refused_start_never_calls_back(type);
  for (const char byte : buffer)
    g_assert_cmpint(byte, ==, 'x');
}

static void
count_and_error_may_be_left_out()
{
  LogCapture log;
  const auto script = new_script(pattern(10));
  script->at_call[2] = Step::fail();
  const auto stream = new_scripted_input(script);
  ReadAll good(10);
  good.start(stream.get());
  g_assert_true(
      gvc_input_stream_util_read_all_finish(stream.get(), good.collector.wait(), nullptr, nullptr));
  ReadAll bad(10);
  bad.start(stream.get());
  g_assert_false(
      gvc_input_stream_util_read_all_finish(stream.get(), bad.collector.wait(), nullptr, nullptr));
}

/* ---- Lives, threads, sockets ---- */

/* Also if there is nothing to read. */
static void
completes_in_the_context_of_its_thread(gconstpointer type)
{
  contract::completes_in_the_context_of_its_thread(type);
  run_in_thread([] {
    for (const auto kind : all_stream_kinds) {
      const auto stream = new_scripted_input(new_script("data"), kind);
      ReadAll read(0);
      read.start(stream.get());
      while (g_main_context_iteration(nullptr, FALSE))
        ;
      g_assert_cmpuint(read.collector.calls(), ==, 0);
      read.finish(stream.get());
      read.assert_read("");
      g_assert_true(read.collector.thread() == g_thread_self());
    }
  });
}

static void
pollable_stream_that_blocks_is_waited_for()
{
  const auto script = new_script(pattern(10));
  script->steps = {Step::would_block(), Step::move(3), Step::would_block(), Step::would_block()};
  const auto stream = new_scripted_input(script, StreamKind::pollable);
  ReadAll read(10);
  read.run(stream.get());
  read.assert_read(pattern(10));
}

static void
socket_delivers_in_pieces()
{
  for (const auto family : {Family::tcp4, Family::tcp6, Family::unix_domain}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    RawPeer peer(family);
    GInputStream *const in = g_io_stream_get_input_stream(G_IO_STREAM(peer.connection()));
    const auto data = pattern(300);
    ReadAll read(200);
    peer.send(data.substr(0, 1));
    read.start(in);
    for (gsize sent = 1; sent < 200; sent += 33) {
      g_assert_cmpuint(read.collector.calls(), ==, 0);
      peer.send(data.substr(sent, 33));
      spin_pending();
    }
    read.finish(in);
    read.assert_read(data.substr(0, 200));

    /* The remaining bytes, and the end of the stream. */
    ReadAll rest(1000);
    rest.start(in);
    peer.shutdown_write();
    rest.finish(in);
    rest.assert_read(data.substr(200, 32));
  }
}

static void
socket_delivers_a_large_buffer()
{
  RawPeer peer(Family::tcp4);
  GInputStream *const in = g_io_stream_get_input_stream(G_IO_STREAM(peer.connection()));
  const auto data = pattern(8 << 20);
  Background sender([&] { peer.send(data); });
  ReadAll read(data.size());
  read.run(in);
  read.assert_read(data);
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
#define TEST(path, function) g_test_add_func("/read-all/" path, function)
#define CONTRACT(path, function) g_test_add_data_func("/read-all/" path, &stream_type, function)
  TEST("whole-count-in-one-read", whole_count_in_one_read);
  TEST("end-of-stream-is-a-short-count", end_of_stream_is_a_short_count);
  TEST("empty-stream-is-a-count-of-0", empty_stream_is_a_count_of_0);
  TEST("stops-at-the-first-end-of-stream", stops_at_the_first_end_of_stream);
  TEST("count-of-0-reads-nothing-and-calls-back-later",
       count_of_0_reads_nothing_and_calls_back_later);
  TEST("each-read-asks-for-all-that-is-missing", each_read_asks_for_all_that_is_missing);
  CONTRACT("priority-and-cancellable-reach-every-read",
           contract::requests_have_the_callers_priority);
  TEST("result-carries-the-priority", result_carries_the_priority);
  CONTRACT("failure/at-any-read-tells-the-count-before-it",
           contract::failure_at_any_transfer_passes_through);
  TEST("failure/of-the-second-read-tells-what-the-first-brought",
       failing_second_read_tells_what_the_first_brought);
  CONTRACT("failure/of-a-closed-stream", contract::closed_streams_fail_as_closed);
  CONTRACT("failure/of-a-second-read-all-meanwhile", contract::stream_is_busy_until_the_callback);
  CONTRACT("cancelled/before-it-starts", contract::cancelled_before_it_starts);
  TEST("cancelled/before-it-starts-with-a-count-of-0",
       cancelled_before_it_starts_with_a_count_of_0);
  CONTRACT("cancelled/during-a-read", contract::cancelled_during_any_transfer);
  CONTRACT("cancelled/between-the-last-read-and-finish",
           contract::cancelled_between_the_last_transfer_and_finish);
  CONTRACT("checks/refused-start-never-calls-back", refused_start_never_calls_back);
  CONTRACT("checks/finish-refuses-what-is-not-its-result", contract::finish_refuses_other_results);
  TEST("checks/count-and-error-may-be-left-out", count_and_error_may_be_left_out);
  CONTRACT("checks/callback-may-be-left-out", contract::callback_may_be_left_out);
  CONTRACT("broken-stream/claim-of-too-much-aborts", contract::claim_of_too_much_aborts);
  CONTRACT("broken-stream/claim-of-too-much-later-aborts",
           contract::claim_of_too_much_later_aborts);
  CONTRACT("nothing-stays-alive-after-any-outcome",
           contract::nothing_stays_alive_after_any_outcome);
  CONTRACT("uncollected-error-is-released", contract::uncollected_error_is_released);
  CONTRACT("stream-may-be-dropped-meanwhile", contract::stream_may_be_dropped_meanwhile);
  CONTRACT("completes-in-the-context-of-its-thread", completes_in_the_context_of_its_thread);
  TEST("pollable-stream-that-blocks-is-waited-for", pollable_stream_that_blocks_is_waited_for);
  TEST("socket/delivers-in-pieces", socket_delivers_in_pieces);
  TEST("socket/delivers-a-large-buffer", socket_delivers_a_large_buffer);
  return g_test_run();
}
