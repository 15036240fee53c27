/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/types/streamcontract.h"

#include <zelgvc/zelgvc.h>

#include <sys/socket.h>

using namespace support;
using contract::untouched;

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

static gsize bytes_written;

static const contract::Operation write_all_operation = {
    .name = "gvc_output_stream_util_write_all",
    .payload = "0123456789",
    .bytes = "0123456789",
    .sizes = {10},
    .urgent = 10,
    .task_is_urgent = true,
    .start =
        [](gpointer stream, GBytes *payload, int priority, GCancellable *cancellable,
           GAsyncReadyCallback ready, gpointer data) {
          const auto buffer = payload != nullptr ? g_bytes_get_data(payload, nullptr) : nullptr;
          gvc_output_stream_util_write_all_async(static_cast<GOutputStream *>(stream), buffer, 10,
                                                 priority, cancellable, ready, data);
        },
    .finish = [](gpointer stream, GAsyncResult *result, GError **error) -> bool {
      bytes_written = untouched;
      return gvc_output_stream_util_write_all_finish(static_cast<GOutputStream *>(stream), result,
                                                     &bytes_written, error);
    },
    .after_zero = true,
    .count = &bytes_written,
};

static const contract::Type stream_type = {
    .reads = false,
    .check = "G_IS_OUTPUT_STREAM(stream)",
    .blocking_check = {},
    .operations = {write_all_operation},
    .claim_message = "ERROR:vchannels/zelgvc/gvcoutputstreamutils:48:write_all_callback: "
                     "assertion failed (nwritten <= data->to_write): ",
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

/* ---- Cancellation ---- */

/* Also if there is nothing to write. */
static void
cancelled_before_it_starts(gconstpointer type)
{
  contract::cancelled_before_it_starts(type);
  const auto stream = new_scripted_output(new_script());
  const auto cancellable = own(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  WriteAll write("");
  write.run(stream.get(), 0, cancellable.get());
  g_assert_false(write.ok);
  write.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_cmpuint(write.bytes_written, ==, 0);
}

/* ---- Preconditions ---- */

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

/* ---- Lives, threads, sockets ---- */

/* Also if there is nothing to write. */
static void
completes_in_the_context_of_its_thread(gconstpointer type)
{
  contract::completes_in_the_context_of_its_thread(type);
  run_in_thread([] {
    for (const auto kind : all_stream_kinds) {
      const auto stream = new_scripted_output(new_script(), kind);
      WriteAll write("");
      write.start(stream.get());
      while (g_main_context_iteration(nullptr, FALSE))
        ;
      g_assert_cmpuint(write.collector.calls(), ==, 0);
      write.finish(stream.get());
      write.assert_all_written();
      g_assert_true(write.collector.thread() == g_thread_self());
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
#define CONTRACT(path, function) g_test_add_data_func("/write-all/" path, &stream_type, function)
  TEST("whole-buffer-in-one-write", whole_buffer_in_one_write);
  TEST("count-of-0-writes-nothing-and-calls-back-later",
       count_of_0_writes_nothing_and_calls_back_later);
  TEST("each-write-offers-all-that-is-left", each_write_offers_all_that_is_left);
  CONTRACT("priority-and-cancellable-reach-every-write",
           contract::requests_have_the_callers_priority);
  CONTRACT("failure/at-any-write-tells-the-count-before-it",
           contract::failure_at_any_transfer_passes_through);
  CONTRACT("failure/of-a-closed-stream", contract::closed_streams_fail_as_closed);
  CONTRACT("failure/of-a-second-write-all-meanwhile", contract::stream_is_busy_until_the_callback);
  TEST("broken-stream/write-of-nothing-warns-and-is-tried-again",
       write_of_nothing_warns_and_is_tried_again);
  TEST("broken-stream/write-of-nothing-for-ever-ends-by-cancellation",
       write_of_nothing_for_ever_ends_by_cancellation);
  CONTRACT("broken-stream/claim-of-too-much-aborts", contract::claim_of_too_much_aborts);
  CONTRACT("broken-stream/claim-of-too-much-later-aborts",
           contract::claim_of_too_much_later_aborts);
  CONTRACT("cancelled/before-it-starts", cancelled_before_it_starts);
  CONTRACT("cancelled/during-a-write", contract::cancelled_during_any_transfer);
  CONTRACT("cancelled/between-the-last-write-and-finish",
           contract::cancelled_between_the_last_transfer_and_finish);
  CONTRACT("checks/refused-start-never-calls-back", contract::refused_start_never_calls_back);
  CONTRACT("checks/finish-refuses-what-is-not-its-result", contract::finish_refuses_other_results);
  TEST("checks/count-and-error-may-be-left-out", count_and_error_may_be_left_out);
  CONTRACT("checks/callback-may-be-left-out", contract::callback_may_be_left_out);
  CONTRACT("nothing-stays-alive-after-any-outcome",
           contract::nothing_stays_alive_after_any_outcome);
  CONTRACT("uncollected-error-is-released", contract::uncollected_error_is_released);
  CONTRACT("stream-may-be-dropped-meanwhile", contract::stream_may_be_dropped_meanwhile);
  CONTRACT("completes-in-the-context-of-its-thread", completes_in_the_context_of_its_thread);
  TEST("pollable-stream-that-blocks-is-waited-for", pollable_stream_that_blocks_is_waited_for);
  TEST("socket/that-is-full-is-waited-for", socket_that_is_full_is_waited_for);
  TEST("socket/whose-peer-has-gone-fails", socket_whose_peer_has_gone_fails);
  return g_test_run();
}
