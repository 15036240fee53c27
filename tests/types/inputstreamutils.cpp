/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

using namespace support;

static constexpr gsize untouched = 4711;

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
priority_and_cancellable_reach_every_read()
{
  for (const int priority : {G_PRIORITY_HIGH, G_PRIORITY_DEFAULT, G_PRIORITY_LOW, 77}) {
    const auto script = new_script(pattern(10), 3);
    const auto stream = new_scripted_input(script);
    const auto cancellable = own(g_cancellable_new());
    ReadAll read(10);
    read.run(stream.get(), priority, cancellable.get());
    read.assert_read(pattern(10));
    const auto calls = script->calls(Call::Kind::async);
    g_assert_cmpuint(calls.size(), ==, 4);
    for (const auto &call : calls) {
      g_assert_cmpint(call.priority, ==, priority);
      g_assert_true(call.cancellable == cancellable.get());
    }
    read.collector.clear();
    assert_refcount_becomes(cancellable.get(), 1);
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

/* Whichever read fails: its error, and the count up to it. */
static void
failure_at_any_read_tells_the_count_before_it()
{
  for (const auto kind : all_stream_kinds) {
    for (guint failing = 1; failing <= 20; failing++) {
      const auto script = new_script(pattern(20), 1);
      script->at_call[failing] =
          Step::fail(G_IO_ERROR_BROKEN_PIPE, "number " + std::to_string(failing));
      const auto stream = new_scripted_input(script, kind);
      ReadAll read(20);
      read.run(stream.get());
      g_assert_false(read.ok);
      read.error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE,
                           ("number " + std::to_string(failing)).c_str());
      g_assert_cmpuint(read.bytes_read, ==, failing - 1);
      assert_bytes(std::string_view(read.buffer).substr(0, failing - 1),
                   pattern(20).substr(0, failing - 1));
      g_assert_cmpuint(script->transfers().size(), ==, failing);
      read.collector.clear();
      assert_refcount_becomes(stream.get(), 1);
    }
  }
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

static void
closed_stream_fails_as_closed()
{
  const auto stream = new_scripted_input(new_script());
  g_assert_true(g_input_stream_close(stream.get(), nullptr, nullptr));
  ReadAll read(1);
  read.run(stream.get());
  g_assert_false(read.ok);
  read.error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
  g_assert_cmpuint(read.bytes_read, ==, 0);
}

static void
second_read_all_meanwhile_fails_as_pending()
{
  const auto script = new_script(pattern(10));
  script->steps = {Step::hold()};
  const auto stream = new_scripted_input(script);
  ReadAll first(10);
  ReadAll second(10);
  first.start(stream.get());
  second.run(stream.get());
  g_assert_false(second.ok);
  second.error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
  g_assert_cmpuint(second.bytes_read, ==, 0);
  script->resume();
  first.finish(stream.get());
  first.assert_read(pattern(10));
}

/* ---- Cancellation ---- */

static void
cancelled_before_it_starts()
{
  for (const auto kind : all_stream_kinds) {
    const auto script = new_script(pattern(10));
    const auto stream = new_scripted_input(script, kind);
    const auto cancellable = own(g_cancellable_new());
    g_cancellable_cancel(cancellable.get());
    ReadAll read(10);
    read.run(stream.get(), 0, cancellable.get());
    g_assert_false(read.ok);
    read.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
    g_assert_cmpuint(read.bytes_read, ==, 0);
    g_assert_cmpuint(script->moved(), ==, 0);
  }
}

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

static void
cancelled_during_a_read()
{
  for (const auto kind : all_stream_kinds) {
    const auto script = new_script(pattern(10));
    script->steps = {Step::move(4), Step::hold()};
    const auto stream = new_scripted_input(script, kind);
    const auto cancellable = own(g_cancellable_new());
    ReadAll read(10);
    read.start(stream.get(), 0, cancellable.get());
    spin_until([&] { return script->holding(); });
    g_assert_cmpuint(read.collector.calls(), ==, 0);
    g_cancellable_cancel(cancellable.get());
    read.finish(stream.get());
    g_assert_false(read.ok);
    read.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
    g_assert_cmpuint(read.bytes_read, ==, 4);
    read.collector.clear();
    assert_refcount_becomes(cancellable.get(), 1);
    assert_refcount_becomes(stream.get(), 1);
  }
}

/* The result looks at the cancellable when it is collected. */
static void
cancelled_between_the_last_read_and_finish()
{
  const auto script = new_script(pattern(10));
  const auto stream = new_scripted_input(script);
  const auto cancellable = own(g_cancellable_new());
  ReadAll read(10);
  read.start(stream.get(), 0, cancellable.get());
  read.collector.wait();
  g_cancellable_cancel(cancellable.get());
  read.finish(stream.get());
  g_assert_false(read.ok);
  read.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_cmpuint(read.bytes_read, ==, 10);
}

/* ---- Preconditions ---- */

static void
refused_start_never_calls_back()
{
  const auto script = new_script("data");
  const auto stream = new_scripted_input(script);
  const auto other = new_scripted_output(new_script());
  GInputStream *const wrong = reinterpret_cast<GInputStream *>(other.get());
  char buffer[4] = "abc";
  Collector collector;
  const auto not_stream =
      failed_check("gvc_input_stream_util_read_all_async", "G_IS_INPUT_STREAM(stream)");
  const auto no_buffer =
      failed_check("gvc_input_stream_util_read_all_async", "buffer != NULL || count == 0");
  LogCapture log;

  gvc_input_stream_util_read_all_async(nullptr, buffer, 4, 0, nullptr, Collector::ready,
                                       &collector);
  log.expect({not_stream});
  gvc_input_stream_util_read_all_async(wrong, buffer, 4, 0, nullptr, Collector::ready, &collector);
  log.expect({not_stream});
  gvc_input_stream_util_read_all_async(stream.get(), nullptr, 4, 0, nullptr, Collector::ready,
                                       &collector);
  log.expect({no_buffer});
  gvc_input_stream_util_read_all_async(nullptr, nullptr, 4, 0, nullptr, Collector::ready,
                                       &collector);
  log.expect({not_stream});

  spin_pending();
  g_assert_cmpuint(collector.calls(), ==, 0);
  g_assert_true(script->calls().empty());
  assert_refcount(stream.get(), 1);
  assert_refcount(other.get(), 1);
  g_assert_cmpmem(buffer, 4, "abc", 4);
}

static void
finish_refuses_what_is_not_its_result()
{
  const auto script = new_script(pattern(10));
  const auto stream = new_scripted_input(script);
  const auto other = new_scripted_input(new_script());
  ReadAll read(10);
  read.start(stream.get());
  GAsyncResult *const result = read.collector.wait();
  const auto not_stream =
      failed_check("gvc_input_stream_util_read_all_finish", "G_IS_INPUT_STREAM(stream)");
  const auto not_result =
      failed_check("gvc_input_stream_util_read_all_finish", "g_task_is_valid(result, stream)");
  LogCapture log;
  Error error;
  gsize bytes_read = untouched;

  g_assert_false(gvc_input_stream_util_read_all_finish(nullptr, result, &bytes_read, &error));
  log.expect({not_stream});
  g_assert_false(gvc_input_stream_util_read_all_finish(
      reinterpret_cast<GInputStream *>(read.collector.result()), result, &bytes_read, &error));
  log.expect({not_stream});
  g_assert_false(gvc_input_stream_util_read_all_finish(other.get(), result, &bytes_read, &error));
  log.expect({not_result});
  g_assert_false(gvc_input_stream_util_read_all_finish(
      stream.get(), reinterpret_cast<GAsyncResult *>(other.get()), &bytes_read, &error));
  log.expect({not_result});
  g_assert_false(gvc_input_stream_util_read_all_finish(nullptr, nullptr, &bytes_read, &error));
  log.expect({not_stream});
  error.assert_none();
  g_assert_cmpuint(bytes_read, ==, untouched);

  /* The result is still there for its owner. */
  read.finish(stream.get());
  read.assert_read(pattern(10));
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

static void
callback_may_be_left_out()
{
  const auto script = new_script(pattern(10), 3);
  const auto stream = new_scripted_input(script);
  char buffer[10];
  gvc_input_stream_util_read_all_async(stream.get(), buffer, 10, 0, nullptr, nullptr, nullptr);
  spin_until([&] { return script->moved() == 10; });
  assert_refcount_becomes(stream.get(), 1);
}

/* ---- Broken streams ---- */

static void
claim_of_too_much_aborts()
{
  if (!g_test_subprocess()) {
    assert_dies(nullptr, "ERROR:vchannels/zelgvc/gvcinputstreamutils:49:read_all_callback: "
                         "assertion failed (nread <= data->to_read): (101 <= 100)");
    return;
  }
  const auto script = new_script(pattern(100));
  script->steps = {Step::report(101)};
  const auto stream = new_scripted_input(script);
  ReadAll read(100);
  read.run(stream.get());
}

/* What counts is what is still missing, not what was asked for at first. */
static void
claim_of_too_much_later_aborts()
{
  if (!g_test_subprocess()) {
    assert_dies(nullptr, "ERROR:vchannels/zelgvc/gvcinputstreamutils:49:read_all_callback: "
                         "assertion failed (nread <= data->to_read): (61 <= 60)");
    return;
  }
  const auto script = new_script(pattern(100));
  script->steps = {Step::move(40), Step::report(61)};
  const auto stream = new_scripted_input(script);
  ReadAll read(100);
  read.run(stream.get());
}

/* ---- Lives, threads, sockets ---- */

static void
nothing_stays_alive_after_any_outcome()
{
  const Step outcomes[] = {Step::move(), Step::zero(), Step::fail()};
  for (const auto kind : all_stream_kinds) {
    for (const auto &outcome : outcomes) {
      LifeWatch watch;
      const auto cancellable = own(g_cancellable_new());
      auto script = new_script(pattern(10));
      script->steps = {Step::move(1), outcome};
      auto stream = new_scripted_input(script, kind);
      watch.add(stream.get());
      ReadAll read(10);
      read.start(stream.get(), 0, cancellable.get());
      read.finish(stream.get());
      watch.add(read.collector.result());
      read.error.clear();
      read.collector.clear();
      assert_refcount_becomes(stream.get(), 1);
      assert_refcount_becomes(cancellable.get(), 1);
      stream.reset();
      watch.assert_all_gone();
    }
  }
}

static void
uncollected_error_is_released()
{
  LifeWatch watch;
  const auto script = new_script();
  script->steps = {Step::fail()};
  const auto stream = new_scripted_input(script);
  ReadAll read(10);
  read.start(stream.get());
  watch.add(read.collector.wait());
  read.collector.clear();
  watch.assert_all_gone();
  assert_refcount_becomes(stream.get(), 1);
}

/* The operation keeps its stream alive. */
static void
stream_may_be_dropped_meanwhile()
{
  LifeWatch watch;
  const auto script = new_script(pattern(10), 2);
  auto stream = new_scripted_input(script);
  watch.add(stream.get());
  ReadAll read(10);
  read.start(stream.get());
  GInputStream *const borrowed = stream.get();
  stream.reset();
  read.finish(borrowed);
  read.assert_read(pattern(10));
  read.collector.clear();
  watch.assert_all_gone();
}

static void
completes_in_the_context_of_its_thread()
{
  run_in_thread([] {
    for (const auto kind : all_stream_kinds) {
      for (const gsize count : {0, 10}) {
        const auto script = new_script(pattern(10), 3);
        const auto stream = new_scripted_input(script, kind);
        ReadAll read(count);
        read.start(stream.get());
        while (g_main_context_iteration(nullptr, FALSE))
          ;
        g_assert_cmpuint(read.collector.calls(), ==, 0);
        read.finish(stream.get());
        read.assert_read(pattern(10).substr(0, count));
        g_assert_true(read.collector.thread() == g_thread_self());
      }
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

    /* What is left, and the end. */
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
  TEST("whole-count-in-one-read", whole_count_in_one_read);
  TEST("end-of-stream-is-a-short-count", end_of_stream_is_a_short_count);
  TEST("empty-stream-is-a-count-of-0", empty_stream_is_a_count_of_0);
  TEST("stops-at-the-first-end-of-stream", stops_at_the_first_end_of_stream);
  TEST("count-of-0-reads-nothing-and-calls-back-later",
       count_of_0_reads_nothing_and_calls_back_later);
  TEST("each-read-asks-for-all-that-is-missing", each_read_asks_for_all_that_is_missing);
  TEST("priority-and-cancellable-reach-every-read", priority_and_cancellable_reach_every_read);
  TEST("result-carries-the-priority", result_carries_the_priority);
  TEST("failure/at-any-read-tells-the-count-before-it",
       failure_at_any_read_tells_the_count_before_it);
  TEST("failure/of-the-second-read-tells-what-the-first-brought",
       failing_second_read_tells_what_the_first_brought);
  TEST("failure/of-a-closed-stream", closed_stream_fails_as_closed);
  TEST("failure/of-a-second-read-all-meanwhile", second_read_all_meanwhile_fails_as_pending);
  TEST("cancelled/before-it-starts", cancelled_before_it_starts);
  TEST("cancelled/before-it-starts-with-a-count-of-0",
       cancelled_before_it_starts_with_a_count_of_0);
  TEST("cancelled/during-a-read", cancelled_during_a_read);
  TEST("cancelled/between-the-last-read-and-finish", cancelled_between_the_last_read_and_finish);
  TEST("checks/refused-start-never-calls-back", refused_start_never_calls_back);
  TEST("checks/finish-refuses-what-is-not-its-result", finish_refuses_what_is_not_its_result);
  TEST("checks/count-and-error-may-be-left-out", count_and_error_may_be_left_out);
  TEST("checks/callback-may-be-left-out", callback_may_be_left_out);
  TEST("broken-stream/claim-of-too-much-aborts", claim_of_too_much_aborts);
  TEST("broken-stream/claim-of-too-much-later-aborts", claim_of_too_much_later_aborts);
  TEST("nothing-stays-alive-after-any-outcome", nothing_stays_alive_after_any_outcome);
  TEST("uncollected-error-is-released", uncollected_error_is_released);
  TEST("stream-may-be-dropped-meanwhile", stream_may_be_dropped_meanwhile);
  TEST("completes-in-the-context-of-its-thread", completes_in_the_context_of_its_thread);
  TEST("pollable-stream-that-blocks-is-waited-for", pollable_stream_that_blocks_is_waited_for);
  TEST("socket/delivers-in-pieces", socket_delivers_in_pieces);
  TEST("socket/delivers-a-large-buffer", socket_delivers_a_large_buffer);
  return g_test_run();
}
