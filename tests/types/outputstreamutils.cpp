/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <sys/socket.h>

using namespace support;

static constexpr gsize untouched = 4711;

static const char zero_warning[] = "(vchannels/zelgvc/gvcoutputstreamutils:49):write_all_callback: "
                                   "runtime check failed: (nwritten > 0)";

/* One write-all from its start to its end. */
struct WriteAll {
  std::string data;
  Collector collector;
  bool ok = false;
  gsize bytes_written = untouched;
  Error error;

  explicit WriteAll(std::string bytes) : data(std::move(bytes)) {}

  void
  start(GOutputStream *stream, int priority = G_PRIORITY_DEFAULT,
        GCancellable *cancellable = nullptr)
  {
    gvc_output_stream_util_write_all_async(stream, data.data(), data.size(), priority, cancellable,
                                           Collector::ready, &collector);
    g_assert_cmpuint(collector.calls(), ==, 0);
  }

  void
  finish(GOutputStream *stream)
  {
    GAsyncResult *const result = collector.wait();
    g_assert_true(collector.source() == G_OBJECT(stream));
    ok = gvc_output_stream_util_write_all_finish(stream, result, &bytes_written, &error);
  }

  void
  run(GOutputStream *stream, int priority = G_PRIORITY_DEFAULT, GCancellable *cancellable = nullptr)
  {
    start(stream, priority, cancellable);
    finish(stream);
  }

  void
  assert_all_written()
  {
    error.assert_none();
    g_assert_true(ok);
    g_assert_cmpuint(bytes_written, ==, data.size());
  }
};

static void
whole_buffer_in_one_write()
{
  for (const auto kind : all_stream_kinds) {
    LogCapture log;
    const auto script = new_script();
    const auto stream = new_scripted_output(script, kind);
    WriteAll write(pattern(100));
    write.run(stream.get());
    write.assert_all_written();
    assert_bytes(script->written(), pattern(100));
    g_assert_true(script->sizes() == std::vector<gsize>{100});
    /* Neither flushed nor closed. */
    g_assert_cmpuint(script->calls().size(), ==, 1);
  }
}

static void
count_of_0_writes_nothing_and_calls_back_later()
{
  const auto script = new_script();
  const auto stream = new_scripted_output(script);
  const char byte = 'x';
  for (const void *buffer :
       {static_cast<const void *>(nullptr), static_cast<const void *>(&byte)}) {
    LogCapture log;
    Collector collector;
    gvc_output_stream_util_write_all_async(stream.get(), buffer, 0, 0, nullptr, Collector::ready,
                                           &collector);
    g_assert_cmpuint(collector.calls(), ==, 0);
    gsize bytes_written = untouched;
    Error error;
    g_assert_true(gvc_output_stream_util_write_all_finish(stream.get(), collector.wait(),
                                                          &bytes_written, &error));
    error.assert_none();
    g_assert_cmpuint(bytes_written, ==, 0);
    g_assert_true(script->calls().empty());
  }
  assert_refcount_becomes(stream.get(), 1);
}

/* Every split of a small buffer, 7 bytes a call among them: each write offers all that is left. */
static void
each_write_offers_all_that_is_left()
{
  for (const auto kind : all_stream_kinds) {
    for (gsize per_call = 1; per_call <= 64; per_call++) {
      LogCapture log;
      const auto script = new_script({}, per_call);
      const auto stream = new_scripted_output(script, kind);
      WriteAll write(pattern(64));
      write.run(stream.get());
      write.assert_all_written();
      assert_bytes(script->written(), pattern(64));
      std::vector<gsize> expected;
      for (gsize done = 0; done < 64; done += per_call)
        expected.push_back(64 - done);
      g_assert_true(script->sizes() == expected);
    }
  }
}

static void
priority_and_cancellable_reach_every_write()
{
  for (const int priority : {G_PRIORITY_HIGH, G_PRIORITY_DEFAULT, G_PRIORITY_LOW, 77}) {
    const auto script = new_script({}, 3);
    const auto stream = new_scripted_output(script);
    const auto cancellable = own(g_cancellable_new());
    WriteAll write(pattern(10));
    write.run(stream.get(), priority, cancellable.get());
    write.assert_all_written();
    const auto calls = script->calls(Call::Kind::async);
    g_assert_cmpuint(calls.size(), ==, 4);
    for (const auto &call : calls) {
      g_assert_cmpint(call.priority, ==, priority);
      g_assert_true(call.cancellable == cancellable.get());
    }
    g_assert_cmpint(g_task_get_priority(G_TASK(write.collector.result())), ==, priority);
    write.collector.clear();
    assert_refcount_becomes(cancellable.get(), 1);
  }
}

/* ---- Failures ---- */

static void
failure_at_any_write_tells_the_count_before_it()
{
  for (const auto kind : all_stream_kinds) {
    for (guint failing = 1; failing <= 20; failing++) {
      LogCapture log;
      const auto script = new_script({}, 1);
      const auto text = "number " + std::to_string(failing);
      script->at_call[failing] = Step::fail(G_IO_ERROR_BROKEN_PIPE, text);
      const auto stream = new_scripted_output(script, kind);
      WriteAll write(pattern(20));
      write.run(stream.get());
      g_assert_false(write.ok);
      write.error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE, text.c_str());
      g_assert_cmpuint(write.bytes_written, ==, failing - 1);
      assert_bytes(script->written(), pattern(20).substr(0, failing - 1));
      g_assert_cmpuint(script->transfers().size(), ==, failing);
      write.collector.clear();
      assert_refcount_becomes(stream.get(), 1);
    }
  }
}

static void
closed_stream_fails_as_closed()
{
  const auto stream = new_scripted_output(new_script());
  g_assert_true(g_output_stream_close(stream.get(), nullptr, nullptr));
  WriteAll write("x");
  write.run(stream.get());
  g_assert_false(write.ok);
  write.error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
  g_assert_cmpuint(write.bytes_written, ==, 0);
}

static void
second_write_all_meanwhile_fails_as_pending()
{
  const auto script = new_script();
  script->steps = {Step::hold()};
  const auto stream = new_scripted_output(script);
  WriteAll first("first");
  WriteAll second("second");
  first.start(stream.get());
  second.run(stream.get());
  g_assert_false(second.ok);
  second.error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
  g_assert_cmpuint(second.bytes_written, ==, 0);
  script->resume();
  first.finish(stream.get());
  first.assert_all_written();
  assert_bytes(script->written(), "first");
}

/* ---- Streams that accept nothing ---- */

static void
write_of_nothing_warns_and_is_tried_again()
{
  for (const auto kind : all_stream_kinds) {
    LogCapture log;
    const auto script = new_script();
    script->steps = {Step::zero(), Step::move(4), Step::zero(), Step::zero()};
    const auto stream = new_scripted_output(script, kind);
    WriteAll write(pattern(10));
    write.run(stream.get());
    write.assert_all_written();
    assert_bytes(script->written(), pattern(10));
    g_assert_true(script->sizes() == (std::vector<gsize>{10, 10, 6, 6, 6}));
    log.expect({warning(zero_warning), warning(zero_warning), warning(zero_warning)});
  }
}

/* It ends by cancellation alone. */
static void
write_of_nothing_for_ever_ends_by_cancellation()
{
  LogCapture log;
  const auto script = new_script();
  script->from_call = {2, Step::zero()};
  script->steps = {Step::move(3)};
  const auto cancellable = own(g_cancellable_new());
  script->on_call = [&](guint number) {
    if (number == 102)
      g_cancellable_cancel(cancellable.get());
  };
  const auto stream = new_scripted_output(script);
  WriteAll write(pattern(10));
  write.run(stream.get(), 0, cancellable.get());
  g_assert_false(write.ok);
  write.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_cmpuint(write.bytes_written, ==, 3);
  const auto messages = log.take();
  g_assert_cmpuint(messages.size(), ==, 100);
  for (const auto &message : messages)
    g_assert_true(message == warning(zero_warning));
}

static void
claim_of_too_much_aborts()
{
  if (!g_test_subprocess()) {
    assert_dies(nullptr, "ERROR:vchannels/zelgvc/gvcoutputstreamutils:48:write_all_callback: "
                         "assertion failed (nwritten <= data->to_write): (101 <= 100)");
    return;
  }
  const auto script = new_script();
  script->steps = {Step::report(101)};
  const auto stream = new_scripted_output(script);
  WriteAll write(pattern(100));
  write.run(stream.get());
}

/* What counts is what is still left, not what was offered at first. */
static void
claim_of_too_much_later_aborts()
{
  if (!g_test_subprocess()) {
    assert_dies(nullptr, "ERROR:vchannels/zelgvc/gvcoutputstreamutils:48:write_all_callback: "
                         "assertion failed (nwritten <= data->to_write): (61 <= 60)");
    return;
  }
  const auto script = new_script();
  script->steps = {Step::move(40), Step::report(61)};
  const auto stream = new_scripted_output(script);
  WriteAll write(pattern(100));
  write.run(stream.get());
}

/* ---- Cancellation ---- */

static void
cancelled_before_it_starts()
{
  for (const auto kind : all_stream_kinds) {
    const auto script = new_script();
    const auto stream = new_scripted_output(script, kind);
    const auto cancellable = own(g_cancellable_new());
    g_cancellable_cancel(cancellable.get());
    for (const auto *data : {"data", ""}) {
      WriteAll write(data);
      write.run(stream.get(), 0, cancellable.get());
      g_assert_false(write.ok);
      write.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      g_assert_cmpuint(write.bytes_written, ==, 0);
    }
    g_assert_cmpuint(script->moved(), ==, 0);
  }
}

static void
cancelled_during_a_write()
{
  for (const auto kind : all_stream_kinds) {
    const auto script = new_script();
    script->steps = {Step::move(4), Step::hold()};
    const auto stream = new_scripted_output(script, kind);
    const auto cancellable = own(g_cancellable_new());
    WriteAll write(pattern(10));
    write.start(stream.get(), 0, cancellable.get());
    spin_until([&] { return script->holding(); });
    g_assert_cmpuint(write.collector.calls(), ==, 0);
    g_cancellable_cancel(cancellable.get());
    write.finish(stream.get());
    g_assert_false(write.ok);
    write.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
    g_assert_cmpuint(write.bytes_written, ==, 4);
    assert_bytes(script->written(), pattern(10).substr(0, 4));
    write.collector.clear();
    assert_refcount_becomes(cancellable.get(), 1);
    assert_refcount_becomes(stream.get(), 1);
  }
}

/* The result looks at the cancellable when it is collected. */
static void
cancelled_between_the_last_write_and_finish()
{
  const auto script = new_script();
  const auto stream = new_scripted_output(script);
  const auto cancellable = own(g_cancellable_new());
  WriteAll write(pattern(10));
  write.start(stream.get(), 0, cancellable.get());
  write.collector.wait();
  g_cancellable_cancel(cancellable.get());
  write.finish(stream.get());
  g_assert_false(write.ok);
  write.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_cmpuint(write.bytes_written, ==, 10);
}

/* ---- Preconditions ---- */

static void
refused_start_never_calls_back()
{
  const auto script = new_script();
  const auto stream = new_scripted_output(script);
  const auto other = new_scripted_input(new_script());
  GOutputStream *const wrong = reinterpret_cast<GOutputStream *>(other.get());
  Collector collector;
  const auto not_stream =
      failed_check("gvc_output_stream_util_write_all_async", "G_IS_OUTPUT_STREAM(stream)");
  const auto no_buffer =
      failed_check("gvc_output_stream_util_write_all_async", "buffer != NULL || count == 0");
  LogCapture log;

  gvc_output_stream_util_write_all_async(nullptr, "abc", 4, 0, nullptr, Collector::ready,
                                         &collector);
  log.expect({not_stream});
  gvc_output_stream_util_write_all_async(wrong, "abc", 4, 0, nullptr, Collector::ready, &collector);
  log.expect({not_stream});
  gvc_output_stream_util_write_all_async(stream.get(), nullptr, 4, 0, nullptr, Collector::ready,
                                         &collector);
  log.expect({no_buffer});
  gvc_output_stream_util_write_all_async(nullptr, nullptr, 4, 0, nullptr, Collector::ready,
                                         &collector);
  log.expect({not_stream});

  spin_pending();
  g_assert_cmpuint(collector.calls(), ==, 0);
  g_assert_true(script->calls().empty());
  assert_refcount(stream.get(), 1);
  assert_refcount(other.get(), 1);
}

static void
finish_refuses_what_is_not_its_result()
{
  const auto script = new_script();
  const auto stream = new_scripted_output(script);
  const auto other = new_scripted_output(new_script());
  WriteAll write(pattern(10));
  write.start(stream.get());
  GAsyncResult *const result = write.collector.wait();
  const auto not_stream =
      failed_check("gvc_output_stream_util_write_all_finish", "G_IS_OUTPUT_STREAM(stream)");
  const auto not_result =
      failed_check("gvc_output_stream_util_write_all_finish", "g_task_is_valid(result, stream)");
  LogCapture log;
  Error error;
  gsize bytes_written = untouched;

  g_assert_false(gvc_output_stream_util_write_all_finish(nullptr, result, &bytes_written, &error));
  log.expect({not_stream});
  g_assert_false(gvc_output_stream_util_write_all_finish(
      reinterpret_cast<GOutputStream *>(write.collector.result()), result, &bytes_written, &error));
  log.expect({not_stream});
  g_assert_false(
      gvc_output_stream_util_write_all_finish(other.get(), result, &bytes_written, &error));
  log.expect({not_result});
  g_assert_false(gvc_output_stream_util_write_all_finish(
      stream.get(), reinterpret_cast<GAsyncResult *>(other.get()), &bytes_written, &error));
  log.expect({not_result});
  g_assert_false(gvc_output_stream_util_write_all_finish(nullptr, nullptr, &bytes_written, &error));
  log.expect({not_stream});
  error.assert_none();
  g_assert_cmpuint(bytes_written, ==, untouched);

  /* The result is still there for its owner. */
  write.finish(stream.get());
  write.assert_all_written();
}

static void
count_and_error_may_be_left_out()
{
  LogCapture log;
  const auto script = new_script();
  script->at_call[2] = Step::fail();
  const auto stream = new_scripted_output(script);
  WriteAll good("good");
  good.start(stream.get());
  g_assert_true(gvc_output_stream_util_write_all_finish(stream.get(), good.collector.wait(),
                                                        nullptr, nullptr));
  WriteAll bad("bad");
  bad.start(stream.get());
  g_assert_false(gvc_output_stream_util_write_all_finish(stream.get(), bad.collector.wait(),
                                                         nullptr, nullptr));
}

static void
callback_may_be_left_out()
{
  const auto script = new_script({}, 3);
  const auto stream = new_scripted_output(script);
  gvc_output_stream_util_write_all_async(stream.get(), "0123456789", 10, 0, nullptr, nullptr,
                                         nullptr);
  spin_until([&] { return script->moved() == 10; });
  assert_refcount_becomes(stream.get(), 1);
}

/* ---- Lives, threads, sockets ---- */

static void
nothing_stays_alive_after_any_outcome()
{
  const Step outcomes[] = {Step::move(), Step::zero(), Step::fail()};
  for (const auto kind : all_stream_kinds) {
    for (const auto &outcome : outcomes) {
      LogCapture log;
      LifeWatch watch;
      const auto cancellable = own(g_cancellable_new());
      const auto script = new_script();
      script->steps = {Step::move(1), outcome};
      auto stream = new_scripted_output(script, kind);
      watch.add(stream.get());
      WriteAll write(pattern(10));
      write.run(stream.get(), 0, cancellable.get());
      watch.add(write.collector.result());
      write.error.clear();
      write.collector.clear();
      assert_refcount_becomes(stream.get(), 1);
      assert_refcount_becomes(cancellable.get(), 1);
      stream.reset();
      watch.assert_all_gone();
      log.take();
    }
  }
}

static void
uncollected_error_is_released()
{
  LifeWatch watch;
  const auto script = new_script();
  script->steps = {Step::fail()};
  const auto stream = new_scripted_output(script);
  WriteAll write("data");
  write.start(stream.get());
  watch.add(write.collector.wait());
  write.collector.clear();
  watch.assert_all_gone();
  assert_refcount_becomes(stream.get(), 1);
}

/* The operation keeps its stream alive. */
static void
stream_may_be_dropped_meanwhile()
{
  LifeWatch watch;
  const auto script = new_script({}, 2);
  auto stream = new_scripted_output(script);
  watch.add(stream.get());
  WriteAll write(pattern(10));
  write.start(stream.get());
  GOutputStream *const borrowed = stream.get();
  stream.reset();
  write.finish(borrowed);
  write.assert_all_written();
  write.collector.clear();
  watch.assert_all_gone();
}

static void
completes_in_the_context_of_its_thread()
{
  run_in_thread([] {
    for (const auto kind : all_stream_kinds) {
      for (const gsize count : {0, 10}) {
        const auto script = new_script({}, 3);
        const auto stream = new_scripted_output(script, kind);
        WriteAll write(pattern(count));
        write.start(stream.get());
        while (g_main_context_iteration(nullptr, FALSE))
          ;
        g_assert_cmpuint(write.collector.calls(), ==, 0);
        write.finish(stream.get());
        write.assert_all_written();
        assert_bytes(script->written(), pattern(count));
        g_assert_true(write.collector.thread() == g_thread_self());
      }
    }
  });
}

static void
pollable_stream_that_blocks_is_waited_for()
{
  LogCapture log;
  const auto script = new_script();
  script->steps = {Step::would_block(), Step::move(3), Step::would_block(), Step::would_block()};
  const auto stream = new_scripted_output(script, StreamKind::pollable);
  WriteAll write(pattern(10));
  write.run(stream.get());
  write.assert_all_written();
  assert_bytes(script->written(), pattern(10));
}

/* More than the socket can hold, and nobody reads until it is stuck. */
static void
socket_that_is_full_is_waited_for()
{
  for (const auto family : {Family::tcp4, Family::tcp6, Family::unix_domain}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    LogCapture log;
    RawPeer peer(family);
    GOutputStream *const out = g_io_stream_get_output_stream(G_IO_STREAM(peer.connection()));
    GSocket *const socket = g_socket_connection_get_socket(peer.connection());
    const int size = 32768;
    g_assert_no_errno(setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
    g_assert_true(g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, size, nullptr));
    WriteAll write(pattern(8 << 20));
    write.start(out);
    spin_until([&] { return (g_socket_condition_check(socket, G_IO_OUT) & G_IO_OUT) == 0; });
    g_assert_cmpuint(write.collector.calls(), ==, 0);

    std::string received;
    Background reader([&] { received = peer.receive(8 << 20); });
    write.finish(out);
    write.assert_all_written();
    reader.join();
    assert_bytes(received, write.data);
  }
}

static void
socket_whose_peer_has_gone_fails()
{
  RawPeer peer(Family::unix_domain);
  GOutputStream *const out = g_io_stream_get_output_stream(G_IO_STREAM(peer.connection()));
  peer.close();
  WriteAll write("data");
  write.run(out);
  g_assert_false(write.ok);
  write.error.assert_is(G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE);
  g_assert_cmpuint(write.bytes_written, ==, 0);
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
#define TEST(path, function) g_test_add_func("/write-all/" path, function)
  TEST("whole-buffer-in-one-write", whole_buffer_in_one_write);
  TEST("count-of-0-writes-nothing-and-calls-back-later",
       count_of_0_writes_nothing_and_calls_back_later);
  TEST("each-write-offers-all-that-is-left", each_write_offers_all_that_is_left);
  TEST("priority-and-cancellable-reach-every-write", priority_and_cancellable_reach_every_write);
  TEST("failure/at-any-write-tells-the-count-before-it",
       failure_at_any_write_tells_the_count_before_it);
  TEST("failure/of-a-closed-stream", closed_stream_fails_as_closed);
  TEST("failure/of-a-second-write-all-meanwhile", second_write_all_meanwhile_fails_as_pending);
  TEST("broken-stream/write-of-nothing-warns-and-is-tried-again",
       write_of_nothing_warns_and_is_tried_again);
  TEST("broken-stream/write-of-nothing-for-ever-ends-by-cancellation",
       write_of_nothing_for_ever_ends_by_cancellation);
  TEST("broken-stream/claim-of-too-much-aborts", claim_of_too_much_aborts);
  TEST("broken-stream/claim-of-too-much-later-aborts", claim_of_too_much_later_aborts);
  TEST("cancelled/before-it-starts", cancelled_before_it_starts);
  TEST("cancelled/during-a-write", cancelled_during_a_write);
  TEST("cancelled/between-the-last-write-and-finish", cancelled_between_the_last_write_and_finish);
  TEST("checks/refused-start-never-calls-back", refused_start_never_calls_back);
  TEST("checks/finish-refuses-what-is-not-its-result", finish_refuses_what_is_not_its_result);
  TEST("checks/count-and-error-may-be-left-out", count_and_error_may_be_left_out);
  TEST("checks/callback-may-be-left-out", callback_may_be_left_out);
  TEST("nothing-stays-alive-after-any-outcome", nothing_stays_alive_after_any_outcome);
  TEST("uncollected-error-is-released", uncollected_error_is_released);
  TEST("stream-may-be-dropped-meanwhile", stream_may_be_dropped_meanwhile);
  TEST("completes-in-the-context-of-its-thread", completes_in_the_context_of_its_thread);
  TEST("pollable-stream-that-blocks-is-waited-for", pollable_stream_that_blocks_is_waited_for);
  TEST("socket/that-is-full-is-waited-for", socket_that_is_full_is_waited_for);
  TEST("socket/whose-peer-has-gone-fails", socket_whose_peer_has_gone_fails);
  return g_test_run();
}
