// SPDX-License-Identifier: LGPL-2.1-or-later
// Writes through stages, over slow peers and base streams that take little, nothing, or fail: what
// is reported as written has left, each byte once, whichever of GIO's calls has written it.
#include "tests/support/faulty.h"
#include "tests/support/resources.h"

#include <algorithm>
#include <cstring>

#include <sys/socket.h>

using namespace support;

namespace
{

constexpr int most_turns = 100; // of a main loop, in which a write gets as far as it can

void
turn_main_loop(const Collector &collector)
{
  for (int turn = 0; turn < most_turns && collector.calls() == 0; turn++)
    g_main_context_iteration(nullptr, FALSE);
}

// Each returns how many bytes the operation has reported as written.
struct AsyncWrite {
  const char *name;
  void (*start)(GOutputStream *, const std::string &, GAsyncReadyCallback, gpointer);
  gsize (*finish)(GOutputStream *, GAsyncResult *, GError **);
};

GOutputVector
vector_of(const std::string &data, gsize from, gsize to)
{
  return {data.data() + from, to - from};
}

// Its vectors are read until the operation has ended.
GOutputVector vectors[2];

const AsyncWrite async_writes[] = {
    {"write-all",
     [](GOutputStream *out, const std::string &data, GAsyncReadyCallback ready, gpointer user) {
       g_output_stream_write_all_async(out, data.data(), data.size(), G_PRIORITY_DEFAULT, nullptr,
                                       ready, user);
     },
     [](GOutputStream *out, GAsyncResult *result, GError **error) {
       gsize written;
       g_output_stream_write_all_finish(out, result, &written, error);
       return written;
     }},
    {"write",
     [](GOutputStream *out, const std::string &data, GAsyncReadyCallback ready, gpointer user) {
       g_output_stream_write_async(out, data.data(), data.size(), G_PRIORITY_DEFAULT, nullptr,
                                   ready, user);
     },
     [](GOutputStream *out, GAsyncResult *result, GError **error) {
       return static_cast<gsize>(
           std::max<gssize>(g_output_stream_write_finish(out, result, error), 0));
     }},
    {"writev-all",
     [](GOutputStream *out, const std::string &data, GAsyncReadyCallback ready, gpointer user) {
       vectors[0] = vector_of(data, 0, data.size() / 3);
       vectors[1] = vector_of(data, data.size() / 3, data.size());
       g_output_stream_writev_all_async(out, vectors, 2, G_PRIORITY_DEFAULT, nullptr, ready, user);
     },
     [](GOutputStream *out, GAsyncResult *result, GError **error) {
       gsize written;
       g_output_stream_writev_all_finish(out, result, &written, error);
       return written;
     }},
    {"splice",
     [](GOutputStream *out, const std::string &data, GAsyncReadyCallback ready, gpointer user) {
       auto bytes = new_bytes(data);
       auto source = own(g_memory_input_stream_new_from_bytes(bytes.get()));
       g_output_stream_splice_async(out, source.get(), G_OUTPUT_STREAM_SPLICE_NONE,
                                    G_PRIORITY_DEFAULT, nullptr, ready, user);
     },
     [](GOutputStream *out, GAsyncResult *result, GError **error) {
       return static_cast<gsize>(
           std::max<gssize>(g_output_stream_splice_finish(out, result, error), 0));
     }},
};

struct AsyncCase {
  const AsyncWrite &write;
  bool message_stream; // or the channel's own
  int stages;
  Family family;
};

// A channel to a peer, over small socket buffers.
struct SlowPeer {
  RawPeer peer;
  Ref<GvcConnection> channel;
  Ref<GvcBytesOutputStream> writer;

  SlowPeer(Family family, int stages) : peer(family)
  {
    auto *socket = g_socket_connection_get_socket(peer.connection());
    // TCP with a window or with less to send than a packet of the loopback device waits for timers.
    const int send = family == Family::unix_domain ? 4096 : 64 * 1024, receive = 2 * send;
    g_assert_true(g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, send, nullptr));
    g_assert_no_errno(setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &receive, sizeof receive));
    channel = own(gvc_connection_new(peer.connection()));
    faulty::add_stages(channel.get(), stages);
    writer = own(gvc_bytes_output_stream_new(out()));
  }
  GOutputStream *
  out() const
  {
    return g_io_stream_get_output_stream(G_IO_STREAM(channel.get()));
  }
  std::string
  receive_a_little()
  {
    char buffer[2048];
    const ssize_t count = recv(peer.fd(), buffer, sizeof buffer, MSG_DONTWAIT);
    return std::string(buffer, static_cast<gsize>(std::max<ssize_t>(count, 0)));
  }
  // Ends the socket and nothing else: what the stages still hold is never sent.
  void
  end()
  {
    g_socket_shutdown(g_socket_connection_get_socket(peer.connection()), FALSE, TRUE, nullptr);
  }
};

constexpr gsize much = 900000; // and far more than the socket buffers take

Ref<GConverter>
flip()
{
  return new_map_converter([](guint8 byte) { return static_cast<guint8>(byte ^ 0x55); }, G_MAXSIZE);
}

// Stages over a scripted base stream: the library's, or GIO's. Each stage flips the same bits, so
// that the wire holds what was written if there are two.
struct Stages {
  std::shared_ptr<Script> script = new_script();
  Ref<GOutputStream> out;
  Ref<GvcConnection> channel; // the library's

  Stages(bool library, int stages, StreamKind kind, Ref<GConverter> (*make)() = flip)
      : out(new_scripted_output(script, kind))
  {
    if (library) {
      channel = own(gvc_connection_new(
          new_connection_over(new_scripted_input(new_script(), kind), std::move(out)).get()));
      for (int i = 0; i < stages; i++)
        gvc_connection_add_converters(channel.get(), flip().get(), make().get());
      out = own(static_cast<GOutputStream *>(
          g_object_ref(g_io_stream_get_output_stream(G_IO_STREAM(channel.get())))));
    } else {
      for (int i = 0; i < stages; i++)
        out = own(g_converter_output_stream_new(out.get(), make().get()));
    }
  }
  GPollableOutputStream *
  pollable() const
  {
    return G_POLLABLE_OUTPUT_STREAM(out.get());
  }
};

std::string
flipped(std::string text, int stages)
{
  if (stages % 2 != 0)
    for (char &c : text)
      c ^= 0x55;
  return text;
}

// As much as it takes, but no program waits for ever.
constexpr int most_tries = 50;

void
flush_with_retries(GOutputStream *out)
{
  for (int tries = 0; !g_output_stream_flush(out, nullptr, nullptr); tries++)
    g_assert_cmpint(tries, <, most_tries);
}

// A base stream that takes nothing may be worth a warning each time, as it is to GIO.
void
allow_warnings(LogCapture &log)
{
  for (const auto &message : log.take())
    g_assert_cmpint(message.level, ==, G_LOG_LEVEL_WARNING);
}

constexpr int stage_counts[] = {1, 2};

// Counts the calls of the base stream in one turn of the main loop, or in one call from outside.
struct CallsInATurn {
  static constexpr guint most = 100;
  guint calls = 0;

  explicit CallsInATurn(Script &script)
  {
    script.on_call = [this](guint) { g_assert_cmpuint(++calls, <=, most); };
  }
};

Ref<GConverter>
no_digits()
{
  return new_converter([](std::string_view in, char *out, gsize room, GConverterFlags flags,
                          gsize *read, gsize *written, GError **error) {
    if (in.find_first_of("0123456789") != in.npos)
      return conversion_error(G_IO_ERROR_INVALID_DATA, "A digit", error);
    if (room < in.size())
      return conversion_error(G_IO_ERROR_NO_SPACE, "No room", error);
    std::copy(in.begin(), in.end(), out);
    *read = *written = in.size();
    if ((flags & G_CONVERTER_INPUT_AT_END) != 0)
      return G_CONVERTER_FINISHED;
    return (flags & G_CONVERTER_FLUSH) != 0 ? G_CONVERTER_FLUSHED : G_CONVERTER_CONVERTED;
  });
}

// Passes bytes on up to an exclamation mark, with which it has finished.
Ref<GConverter>
until_exclamation_mark()
{
  return new_converter([](std::string_view in, char *out, gsize room, GConverterFlags flags,
                          gsize *read, gsize *written, GError **error) {
    const auto mark = in.find('!');
    const auto size = mark == in.npos ? in.size() : mark + 1;
    if (room < size)
      return conversion_error(G_IO_ERROR_NO_SPACE, "No room", error);
    std::copy_n(in.data(), size, out);
    *read = *written = size;
    if (mark != in.npos || (flags & G_CONVERTER_INPUT_AT_END) != 0)
      return G_CONVERTER_FINISHED;
    return (flags & G_CONVERTER_FLUSH) != 0 ? G_CONVERTER_FLUSHED : G_CONVERTER_CONVERTED;
  });
}

// The results of the same calls over the library's stage and over the running GLib's.
std::vector<std::string>
calls_after_the_end(bool library, std::string_view last)
{
  Stages chain(library, 1, StreamKind::pollable, until_exclamation_mark);
  std::vector<std::string> outcomes;
  const auto note = [&](const char *what, gssize result, const Error &error) {
    outcomes.push_back(std::string(what) + ' ' + std::to_string(result) +
                       (error ? std::string(" ") + g_quark_to_string(error.get()->domain) + ' ' +
                                    std::to_string(error.get()->code)
                              : std::string()));
  };
  const auto write = [&](std::string_view data, bool blocking) {
    Error error;
    const gssize count =
        blocking ? g_output_stream_write(chain.out.get(), data.data(), data.size(), nullptr, &error)
                 : g_pollable_output_stream_write_nonblocking(chain.pollable(), data.data(),
                                                              data.size(), nullptr, &error);
    note(blocking ? "write" : "write-nonblocking", count, error);
  };
  write(last, true);
  for (int i = 0; i < 2; i++) {
    write("more", true);
    write("and more", false);
  }
  for (auto *end : {g_output_stream_flush, g_output_stream_close}) {
    Error error;
    const gboolean done = end(chain.out.get(), nullptr, &error);
    note(end == g_output_stream_flush ? "flush" : "close", done, error);
  }
  outcomes.push_back(chain.script->written());
  return outcomes;
}

constexpr gsize input_wanted = 8 * 1024 * 1024;
constexpr gsize write_size = 4096;

// Wants all of its input at once. When its input lies elsewhere than before, what had been there
// must have been copied.
struct Hoarder {
  const char *last = nullptr;
  gsize last_size = 0;
  gsize copied = 0;
  std::string input;

  Ref<GConverter>
  make()
  {
    return new_converter([this](std::string_view in, char *, gsize, GConverterFlags, gsize *read,
                                gsize *written, GError **error) {
      if (in.data() != last)
        copied += last_size;
      last = in.data();
      last_size = in.size();
      if (in.size() < input_wanted)
        return conversion_error(G_IO_ERROR_PARTIAL_INPUT, "More", error);
      input.assign(in);
      *read = in.size();
      *written = 0;
      return G_CONVERTER_CONVERTED;
    });
  }
};

/* ---- Asynchronous writes to a slow peer ---- */

// The peer reads late, and only as much as lets the writer go on, so that the socket buffers are
// full when the callback comes. All that the peer ever gets has been sent by then.
void
test_async_success_means_sent(const AsyncCase &one)
{
  SlowPeer slow(one.family, one.stages);
  auto *out = one.message_stream ? G_OUTPUT_STREAM(slow.writer.get()) : slow.out();
  const std::string data = pattern(much);
  own(g_task_new(out, nullptr, nullptr, nullptr)); // the first one starts a thread of GIO's
  const gsize threads = Resources::now().threads;
  Collector collector;
  one.write.start(out, data, Collector::ready, &collector);
  turn_main_loop(collector);
  g_assert_cmpuint(Resources::now().threads, ==, threads);

  std::string wire;
  const gint64 give_up = g_get_monotonic_time() + watchdog_usec();
  while (collector.calls() == 0) {
    if (!g_main_context_iteration(nullptr, FALSE))
      wire += slow.receive_a_little();
    g_assert_cmpint(g_get_monotonic_time(), <, give_up);
  }
  Error error;
  const gsize written = one.write.finish(out, collector.wait(), &error);
  slow.end();
  wire += slow.peer.receive_all();

  error.assert_none();
  g_assert_cmpuint(written, >, 0);
  assert_bytes(faulty::from_stages(one.stages, wire), data.substr(0, written));
}

// The peer has gone without reading: nothing can have been written.
void
test_async_success_needs_the_peer(const AsyncCase &one)
{
  SlowPeer slow(one.family, one.stages);
  auto *out = one.message_stream ? G_OUTPUT_STREAM(slow.writer.get()) : slow.out();
  const std::string data = pattern(much);
  Collector collector;
  one.write.start(out, data, Collector::ready, &collector);
  turn_main_loop(collector);
  slow.peer.close();
  Error error;
  const gsize written = one.write.finish(out, collector.wait(), &error);
  g_assert_cmpuint(written, <, much);
  g_assert_true(error || written > 0);
}

/* ---- Base streams that take little, nothing, or fail ---- */

void
test_base_takes_nothing_from_a_message(gconstpointer stages)
{
  const int count = GPOINTER_TO_INT(stages);
  const std::string message = pattern(100);
  for (guint zero_at = 1; zero_at <= 6; zero_at++) {
    LogCapture log;
    Stages chain(true, count, StreamKind::sync_only);
    chain.script->at_call[zero_at] = Step::zero();
    chain.script->max_per_call = 3;
    auto writer = own(gvc_bytes_output_stream_new(chain.out.get()));
    for (int i = 0; i < 2; i++) {
      Error error;
      g_assert_true(gvc_bytes_output_stream_put_bytes(writer.get(), new_bytes(message).get(),
                                                      nullptr, &error));
      error.assert_none();
    }
    assert_bytes(flipped(chain.script->written(), count), frame(message) + frame(message));
    allow_warnings(log);
  }
}

template <bool library>
void
test_base_takes_nothing(gconstpointer stages)
{
  const int count = GPOINTER_TO_INT(stages);
  const std::string data = pattern(50);
  LogCapture log;
  Stages chain(library, count, StreamKind::sync_only);
  chain.script->steps = {Step::move(3), Step::zero()};
  gsize written;
  Error error;
  g_assert_true(g_output_stream_write_all(chain.out.get(), data.data(), data.size(), &written,
                                          nullptr, &error));
  error.assert_none();
  flush_with_retries(chain.out.get());
  assert_bytes(flipped(chain.script->written(), count), data);
  allow_warnings(log);
}

// GIO counts none of a failed write, so it may be tried again in pieces of any size.
template <bool library>
void
test_retried_in_pieces(gconstpointer stages)
{
  const int count = GPOINTER_TO_INT(stages);
  const std::string data = pattern(12);
  for (gsize piece = 1; piece <= data.size(); piece++) {
    Stages chain(library, count, StreamKind::sync_only);
    chain.script->steps = {Step::fail(G_IO_ERROR_TIMED_OUT)};
    Error error;
    const gssize first =
        g_output_stream_write(chain.out.get(), data.data(), data.size(), nullptr, &error);
    gsize sent = first < 0 ? 0 : static_cast<gsize>(first);
    for (; sent < data.size(); sent += piece) {
      const GOutputVector nothing = {nullptr, 0};
      gsize written;
      g_assert_true(
          g_output_stream_writev(chain.out.get(), &nothing, 1, &written, nullptr, nullptr));
      g_assert_true(g_output_stream_write_all(chain.out.get(), data.data() + sent,
                                              std::min(piece, data.size() - sent), nullptr, nullptr,
                                              nullptr));
    }
    flush_with_retries(chain.out.get());
    assert_bytes(flipped(chain.script->written(), count), data);
  }
}

// A base stream that is ready and takes nothing is asked again in later turns only.
void
test_nothing_taken_without_blocking_does_not_spin(gconstpointer stages)
{
  LogCapture log;
  const std::string message = pattern(100);
  Stages chain(true, GPOINTER_TO_INT(stages), StreamKind::pollable);
  CallsInATurn turn(*chain.script);
  chain.script->steps = {Step::move(3)};
  chain.script->steps.insert(chain.script->steps.end(), 1000, Step::zero());
  auto writer = own(gvc_bytes_output_stream_new(chain.out.get()));
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(writer.get(), new_bytes(message).get(),
                                          G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                          &collector);
  while (collector.calls() == 0) {
    turn.calls = 0;
    g_main_context_iteration(nullptr, TRUE);
  }
  Error error;
  g_assert_true(gvc_bytes_output_stream_put_bytes_finish(writer.get(), collector.result(), &error));
  error.assert_none();
  assert_bytes(flipped(chain.script->written(), GPOINTER_TO_INT(stages)), frame(message));
  allow_warnings(log);
}

void
test_nothing_taken_by_one_nonblocking_write(gconstpointer stages)
{
  LogCapture log;
  Stages chain(true, GPOINTER_TO_INT(stages), StreamKind::pollable);
  CallsInATurn turn(*chain.script);
  chain.script->from_call = {1, Step::zero()};
  for (int i = 0; i < 3; i++) {
    turn.calls = 0;
    Error error;
    g_pollable_output_stream_write_nonblocking(chain.pollable(), "abc", 3, nullptr, &error);
  }
  // Closing the stage waits for the base stream.
  chain.script->from_call.reset();
  chain.script->on_call = nullptr;
  allow_warnings(log);
}

// The base stream fails once, or is cancelled, at one of its calls; the writer goes on with what
// `bytes_written` says has not been taken.
void
test_retried_write(int stages, bool library, bool cancel, guint at)
{
  const std::string data = pattern(60);
  Stages chain(library, stages, StreamKind::sync_only);
  auto cancellable = own(g_cancellable_new());
  chain.script->max_per_call = 7;
  if (cancel)
    chain.script->on_call = [&](guint number) {
      if (number == at)
        g_cancellable_cancel(cancellable.get());
    };
  else
    chain.script->at_call[at] = Step::fail();

  for (gsize begin = 0; begin < data.size(); begin += 20) {
    const auto part = data.substr(begin, 20);
    gsize taken = 0;
    for (int tries = 0; taken < part.size(); tries++) {
      g_assert_cmpint(tries, <, most_tries);
      Error error;
      gsize written = 0;
      if (!g_output_stream_write_all(chain.out.get(), part.data() + taken, part.size() - taken,
                                     &written, cancellable.get(), &error))
        error.assert_is(G_IO_ERROR, cancel ? G_IO_ERROR_CANCELLED : G_IO_ERROR_FAILED);
      taken += written;
      if (g_cancellable_is_cancelled(cancellable.get()))
        cancellable = own(g_cancellable_new());
    }
  }
  flush_with_retries(chain.out.get());
  assert_bytes(flipped(chain.script->written(), stages), data);
}

template <bool library, bool cancel>
void
test_retried_writes(gconstpointer stages)
{
  for (guint at = 1; at <= 12; at++)
    test_retried_write(GPOINTER_TO_INT(stages), library, cancel, at);
}

// The stage sends the bytes that a failed write left in it, and then another write. Only the same
// bytes count as a retry.
void
test_other_write_after_a_failed_one(gconstpointer stages)
{
  Stages chain(true, GPOINTER_TO_INT(stages), StreamKind::sync_only);
  chain.script->at_call[1] = Step::fail();
  Error error;
  g_assert_cmpint(g_output_stream_write(chain.out.get(), "first", 5, nullptr, &error), ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED);
  error.clear();
  for (const char *other : {"other", "first"})
    g_assert_cmpint(g_output_stream_write(chain.out.get(), other, 5, nullptr, &error), ==, 5);
  error.assert_none();
  assert_bytes(flipped(chain.script->written(), GPOINTER_TO_INT(stages)), "firstotherfirst");
}

void
test_retried_with_more(gconstpointer stages)
{
  Stages chain(true, GPOINTER_TO_INT(stages), StreamKind::sync_only);
  chain.script->at_call[1] = Step::fail();
  Error error;
  g_assert_cmpint(g_output_stream_write(chain.out.get(), "one", 3, nullptr, &error), ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED);
  error.clear();
  g_assert_true(g_output_stream_write_all(chain.out.get(), "one two", 7, nullptr, nullptr, &error));
  error.assert_none();
  flush_with_retries(chain.out.get());
  assert_bytes(flipped(chain.script->written(), GPOINTER_TO_INT(stages)), "one two");
}

void
test_retried_vectors(gconstpointer stages)
{
  Stages chain(true, GPOINTER_TO_INT(stages), StreamKind::sync_only);
  const GOutputVector both[] = {{"one", 3}, {"2", 1}};
  chain.script->at_call[1] = Step::fail();
  gsize written = 0;
  Error error;
  g_assert_false(g_output_stream_writev(chain.out.get(), both, 2, &written, nullptr, &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED);
  error.clear();
  g_assert_true(g_output_stream_writev(chain.out.get(), both, 2, &written, nullptr, &error));
  g_assert_cmpuint(written, ==, 4);
  flush_with_retries(chain.out.get());
  assert_bytes(flipped(chain.script->written(), GPOINTER_TO_INT(stages)), "one2");
}

// A failure that comes once, behind a write that has been accepted, is the next operation's.
void
test_failure_behind_an_accepted_write(gconstpointer stages)
{
  Stages chain(true, GPOINTER_TO_INT(stages), StreamKind::pollable);
  chain.script->at_call[1] = Step::fail();
  Error error;
  g_assert_cmpint(
      g_pollable_output_stream_write_nonblocking(chain.pollable(), "abc", 3, nullptr, &error), ==,
      3);
  error.assert_none();
  g_assert_false(g_output_stream_flush(chain.out.get(), nullptr, &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED);
  flush_with_retries(chain.out.get());
  assert_bytes(flipped(chain.script->written(), GPOINTER_TO_INT(stages)), "abc");
}

/* ---- Converters ---- */

// The base stream fails, and the converter has refused the second vector before: that is told
// first.
void
test_two_failures_of_one_write()
{
  Stages chain(true, 1, StreamKind::sync_only, no_digits);
  const GOutputVector both[] = {{"good", 4}, {"2", 1}};
  chain.script->at_call[1] = Step::fail();
  gsize written = 0;
  Error error;
  g_assert_false(g_output_stream_writev(chain.out.get(), both, 2, &written, nullptr, &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "A digit");
  error.clear();
  g_assert_cmpint(g_output_stream_write(chain.out.get(), "good", 4, nullptr, &error), ==, 4);
  error.assert_none();
  assert_bytes(chain.script->written(), "good");
}

// Without a failure of the base stream, the first vector is written and the next operation fails.
void
test_refused_second_vector()
{
  Stages chain(true, 1, StreamKind::sync_only, no_digits);
  const GOutputVector both[] = {{"good", 4}, {"2", 1}};
  gsize written = 0;
  Error error;
  g_assert_true(g_output_stream_writev(chain.out.get(), both, 2, &written, nullptr, &error));
  g_assert_cmpuint(written, ==, 4);
  assert_bytes(chain.script->written(), "good");
  g_assert_cmpint(g_output_stream_write(chain.out.get(), "more", 4, nullptr, &error), ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "A digit");
}

// Nothing is taken of a vector behind the end.
void
test_vector_behind_the_end()
{
  Stages chain(true, 1, StreamKind::sync_only, until_exclamation_mark);
  const GOutputVector both[] = {{"end!", 4}, {"beyond", 6}};
  gsize written = 0;
  Error error;
  g_assert_true(g_output_stream_writev(chain.out.get(), both, 2, &written, nullptr, &error));
  g_assert_cmpuint(written, ==, 4);
  assert_bytes(chain.script->written(), "end!");
}

void
test_after_the_converter_has_finished()
{
  for (const auto *last : {"!", "end!", "end!beyond"}) {
    const auto expected = calls_after_the_end(false, last);
    const auto actual = calls_after_the_end(true, last);
    g_assert_cmpuint(actual.size(), ==, expected.size());
    for (gsize i = 0; i < expected.size(); i++)
      assert_text(actual[i], expected[i]);
  }
}

void
test_kept_input_is_not_copied_each_time(gconstpointer library)
{
  Hoarder hoarder;
  auto memory = own(g_memory_output_stream_new_resizable());
  auto converter = hoarder.make();
  Ref<GvcConnection> channel;
  Ref<GOutputStream> out;
  if (library != nullptr) {
    channel = own(gvc_connection_new(
        new_connection_over(new_scripted_input(new_script()), std::move(memory)).get()));
    gvc_connection_add_converters(channel.get(), flip().get(), converter.get());
    out = own(static_cast<GOutputStream *>(
        g_object_ref(g_io_stream_get_output_stream(G_IO_STREAM(channel.get())))));
  } else {
    out = own(g_converter_output_stream_new(memory.get(), converter.get()));
  }
  const std::string data = pattern(input_wanted);
  for (gsize at = 0; at < data.size(); at += write_size) {
    Error error;
    g_assert_true(g_output_stream_write_all(out.get(), data.data() + at, write_size, nullptr,
                                            nullptr, &error));
  }
  assert_bytes(hoarder.input, data);
  // A buffer that doubles copies at most twice what it holds in the end.
  g_test_message("%" G_GSIZE_FORMAT " bytes copied", hoarder.copied);
  g_assert_cmpuint(hoarder.copied, <=, 8 * data.size());
}

void
add_async(const char *name, void (*test)(const AsyncCase &))
{
  using Entry = std::pair<void (*)(const AsyncCase &), AsyncCase>;
  for (const auto &write : async_writes)
    for (const bool message_stream : {false, true})
      for (int stages = 0; stages <= faulty::most_stages; stages++)
        for (const Family family : {Family::unix_domain, Family::tcp4}) {
          const std::string path = std::string("/truthful-writes/") + name + '/' + write.name +
                                   (message_stream ? "/message-stream/" : "/channel/") +
                                   std::to_string(stages) + "-stages/" +
                                   (family == Family::tcp4 ? "tcp" : "unix");
          g_test_add_data_func_full(
              path.c_str(), new Entry(test, {write, message_stream, stages, family}),
              [](gconstpointer data) {
                const auto entry = static_cast<const Entry *>(data);
                entry->first(entry->second);
              },
              [](gpointer data) { delete static_cast<Entry *>(data); });
        }
}

void
add_for_stages(const std::string &name, void (*test)(gconstpointer))
{
  for (const int stages : stage_counts)
    g_test_add_data_func(
        ("/truthful-writes/" + name + '/' + std::to_string(stages) + "-stages").c_str(),
        GINT_TO_POINTER(stages), test);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  add_async("async-success-means-sent", test_async_success_means_sent);
  add_async("async-success-needs-the-peer", test_async_success_needs_the_peer);
  add_for_stages("base-takes-nothing/message", test_base_takes_nothing_from_a_message);
  add_for_stages("base-takes-nothing/write-all", test_base_takes_nothing<true>);
  add_for_stages("base-takes-nothing/write-all-over-gio", test_base_takes_nothing<false>);
  add_for_stages("nothing-taken-does-not-spin/message",
                 test_nothing_taken_without_blocking_does_not_spin);
  add_for_stages("nothing-taken-does-not-spin/nonblocking-write",
                 test_nothing_taken_by_one_nonblocking_write);
  add_for_stages("retried-write-sends-each-byte-once/failed", test_retried_writes<true, false>);
  add_for_stages("retried-write-sends-each-byte-once/cancelled", test_retried_writes<true, true>);
  // GIO's own streams lose bytes if there are two.
  g_test_add_data_func("/truthful-writes/retried-write-sends-each-byte-once/failed/gio",
                       GINT_TO_POINTER(1), test_retried_writes<false, false>);
  g_test_add_data_func("/truthful-writes/retried-write-sends-each-byte-once/cancelled/gio",
                       GINT_TO_POINTER(1), test_retried_writes<false, true>);
  add_for_stages("retried-in-pieces", test_retried_in_pieces<true>);
  g_test_add_data_func("/truthful-writes/retried-in-pieces/gio", GINT_TO_POINTER(1),
                       test_retried_in_pieces<false>);
  add_for_stages("other-write-after-a-failed-one", test_other_write_after_a_failed_one);
  add_for_stages("retried-with-more", test_retried_with_more);
  add_for_stages("retried-vectors", test_retried_vectors);
  add_for_stages("failure-behind-an-accepted-write", test_failure_behind_an_accepted_write);
  g_test_add_func("/truthful-writes/two-failures-of-one-write", test_two_failures_of_one_write);
  g_test_add_func("/truthful-writes/refused-second-vector", test_refused_second_vector);
  g_test_add_func("/truthful-writes/vector-behind-the-end", test_vector_behind_the_end);
  g_test_add_func("/truthful-writes/after-the-converter-has-finished",
                  test_after_the_converter_has_finished);
  g_test_add_data_func("/truthful-writes/kept-input-is-not-copied-each-time/stage",
                       GINT_TO_POINTER(TRUE), test_kept_input_is_not_copied_each_time);
  g_test_add_data_func("/truthful-writes/kept-input-is-not-copied-each-time/gio", nullptr,
                       test_kept_input_is_not_copied_each_time);
  return g_test_run();
}
