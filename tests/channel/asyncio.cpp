// SPDX-License-Identifier: LGPL-2.1-or-later
// Asynchronous messages on channels, in the caller's main context alone: no worker threads, and no
// write reported as done before the socket has taken its last byte.
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <dirent.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

using namespace support;

namespace
{

enum Stages {
  plain = 0,
  encrypted = 1,
  compressed = 2,
  both = encrypted | compressed,
};

void
add_stages(GvcConnection *connection, int stages)
{
  if (stages & encrypted) {
    auto key = new_bytes("0123456789abcdef0123456789ABCDEF");
    auto in = own(gvc_decryptor_new(key.get()));
    auto out = own(gvc_encryptor_new(key.get()));
    gvc_connection_add_converters(connection, G_CONVERTER(in.get()), G_CONVERTER(out.get()));
  }
  if (stages & compressed) {
    auto in = own(gvc_decompressor_new());
    auto out = own(gvc_compressor_new());
    gvc_connection_add_converters(connection, G_CONVERTER(in.get()), G_CONVERTER(out.get()));
  }
}

struct End {
  Ref<GvcConnection> connection;
  Ref<GvcBytesInputStream> in;
  Ref<GvcBytesOutputStream> out;

  End(GSocketConnection *socket, int stages) : connection(own(gvc_connection_new(socket)))
  {
    add_stages(connection.get(), stages);
    auto *io = G_IO_STREAM(connection.get());
    in = own(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io)));
    out = own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io)));
  }
};

int
socket_fd(GSocketConnection *connection)
{
  return g_socket_get_fd(g_socket_connection_get_socket(connection));
}

// The kernel doubles what is asked for and has a floor of its own. A TCP receiver with a window
// below the loopback device's packet size waits for timers after each packet, so TCP gets a larger
// one.
void
shrink_buffers(GSocketConnection *connection, Family family)
{
  const int fd = socket_fd(connection);
  const int send = 4096, receive = family == Family::unix_domain ? 4096 : 128 * 1024;
  g_assert_cmpint(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send, sizeof send), ==, 0);
  g_assert_cmpint(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive, sizeof receive), ==, 0);
}

// Two channels over one pair of sockets.
struct Channel {
  SocketPair sockets;
  End a, b;

  Channel(Family family, int stages, bool small_buffers = false)
      : sockets(make_sockets(family, small_buffers)), a(sockets.a.get(), stages),
        b(sockets.b.get(), stages)
  {
  }

  static SocketPair
  make_sockets(Family family, bool small_buffers)
  {
    auto pair = new_socket_pair(family);
    if (small_buffers) {
      shrink_buffers(pair.a.get(), family);
      shrink_buffers(pair.b.get(), family);
    }
    return pair;
  }
};

unsigned
count_threads()
{
  unsigned count = 0;
  auto *directory = opendir("/proc/self/task");
  while (auto *entry = readdir(directory))
    count += entry->d_name[0] != '.';
  closedir(directory);
  return count;
}

// Neither compresses nor repeats.
std::string
noise(size_t size, guint32 seed)
{
  std::string data(size, '\0');
  auto *generator = g_rand_new_with_seed(seed);
  for (size_t at = 0; at < size; at += 4) {
    const guint32 word = g_rand_int(generator);
    std::memcpy(&data[at], &word, std::min<size_t>(4, size - at));
  }
  g_rand_free(generator);
  return data;
}

// Closing a channel sends what is pending, which a peer that does not read holds up; a host that
// wants none of it closes the socket first.
void
abandon(Channel &channel)
{
  for (auto *connection : {channel.sockets.a.get(), channel.sockets.b.get()})
    g_assert_true(g_socket_close(g_socket_connection_get_socket(connection), nullptr));
}

void
put(End &end, GBytes *message, Collector &done, GCancellable *cancellable = nullptr)
{
  gvc_bytes_output_stream_put_bytes_async(end.out.get(), message, G_PRIORITY_DEFAULT, cancellable,
                                          Collector::ready, &done);
}

void
assert_put(End &end, Collector &done)
{
  Error error;
  gboolean put = gvc_bytes_output_stream_put_bytes_finish(end.out.get(), done.wait(), &error);
  error.assert_none();
  g_assert_true(put);
}

void
get(End &end, Collector &done)
{
  gvc_bytes_input_stream_read_bytes_async(end.in.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &done);
}

BytesRef
assert_got(End &end, Collector &done)
{
  Error error;
  auto message =
      BytesRef(gvc_bytes_input_stream_read_bytes_finish(end.in.get(), done.wait(), &error));
  error.assert_none();
  return message;
}

void
assert_carries(End &from, End &to, const std::string &text)
{
  auto message = new_bytes(text);
  Collector written, read;
  put(from, message.get(), written);
  get(to, read);
  assert_put(from, written);
  g_assert_true(g_bytes_equal(assert_got(to, read).get(), message.get()));
}

// Some rounds of the main loop while the operation must stay unfinished: enough for every source
// that is ready to have run many times over.
void
assert_stays_unfinished(const Collector &done)
{
  for (int round = 0; round < 20; round++) {
    spin_pending();
    g_usleep(1000);
    g_assert_cmpuint(done.calls(), ==, 0);
  }
}

// ---- No worker threads

// A message each way at once, again and again.
struct PingPong {
  Channel &channel;
  BytesRef message;
  unsigned left_to_write, left_to_read;
  unsigned threads = 0;

  PingPong(Channel &over, size_t size, unsigned count)
      : channel(over), message(new_bytes(pattern(size))), left_to_write(2 * count),
        left_to_read(2 * count)
  {
    for (auto *end : {&channel.a, &channel.b}) {
      write(*end);
      read(*end);
    }
    spin_until([this] { return left_to_read == 0 && left_to_write == 0; });
  }

  void
  write(End &end)
  {
    gvc_bytes_output_stream_put_bytes_async(end.out.get(), message.get(), G_PRIORITY_DEFAULT,
                                            nullptr, written, this);
  }
  void
  read(End &end)
  {
    gvc_bytes_input_stream_read_bytes_async(end.in.get(), G_PRIORITY_DEFAULT, nullptr, was_read,
                                            this);
  }
  static void
  written(GObject *source, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<PingPong *>(user_data);
    auto &end = source == G_OBJECT(self->channel.a.out.get()) ? self->channel.a : self->channel.b;
    g_assert_true(gvc_bytes_output_stream_put_bytes_finish(end.out.get(), result, nullptr));
    if (--self->left_to_write >= 2)
      self->write(end);
  }
  static void
  was_read(GObject *source, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<PingPong *>(user_data);
    auto &end = source == G_OBJECT(self->channel.a.in.get()) ? self->channel.a : self->channel.b;
    auto message =
        BytesRef(gvc_bytes_input_stream_read_bytes_finish(end.in.get(), result, nullptr));
    g_assert_true(g_bytes_equal(message.get(), self->message.get()));
    if (self->left_to_read % 256 == 0)
      self->threads = std::max(self->threads, count_threads());
    if (--self->left_to_read >= 2)
      self->read(end);
  }
};

void
test_no_threads(Family family, int stages, unsigned count)
{
  if (family == Family::tcp6 && !have_ipv6()) {
    g_test_skip("no IPv6");
    return;
  }
  Channel channel(family, stages);
  // GLib starts a thread of its own with the first task of a process.
  PingPong(channel, 64, 1);
  const unsigned before = count_threads();

  PingPong messages(channel, 64, count);
  g_assert_cmpuint(messages.threads, >, 0);
  g_assert_cmpuint(messages.threads, <=, before);
  g_assert_cmpuint(count_threads(), <=, before);
}

void
test_strings_use_no_threads()
{
  Channel channel(Family::tcp4, both);
  auto in = own(gvc_data_input_stream_new(
      g_io_stream_get_input_stream(G_IO_STREAM(channel.b.connection.get()))));
  auto *out = g_io_stream_get_output_stream(G_IO_STREAM(channel.a.connection.get()));
  PingPong(channel, 64, 1);
  const unsigned before = count_threads();

  for (int i = 0; i < 200; i++) {
    Error error;
    g_assert_true(g_output_stream_write_all(out, "a string\n", 9, nullptr, nullptr, &error));
    Collector done;
    gvc_data_input_stream_read_string_async(in.get(), '\n', G_PRIORITY_DEFAULT, nullptr,
                                            Collector::ready, &done);
    gsize length;
    auto string =
        Mem<char>(gvc_data_input_stream_read_string_finish(in.get(), done.wait(), &length, &error));
    error.assert_none();
    assert_bytes({string.get(), length}, "a string\n");
  }
  g_assert_cmpuint(count_threads(), <=, before);
}

// A base that cannot be polled keeps GIO's fallback.
void
test_unpollable_base_still_works()
{
  auto script = std::make_shared<Script>();
  script->data = frame("message") + "string\n";
  auto base = new_scripted_input(script, StreamKind::sync_only);
  auto frames = own(gvc_bytes_input_stream_new(base.get()));
  auto strings = own(gvc_data_input_stream_new(base.get()));
  g_assert_false(g_pollable_input_stream_can_poll(G_POLLABLE_INPUT_STREAM(frames.get())));
  g_assert_false(g_pollable_input_stream_can_poll(G_POLLABLE_INPUT_STREAM(strings.get())));
  auto sink_script = std::make_shared<Script>();
  auto sink = new_scripted_output(sink_script, StreamKind::sync_only);
  auto out = own(gvc_bytes_output_stream_new(sink.get()));
  g_assert_false(g_pollable_output_stream_can_poll(G_POLLABLE_OUTPUT_STREAM(out.get())));

  Collector read, written;
  gvc_bytes_input_stream_read_bytes_async(frames.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &read);
  Error error;
  auto message =
      BytesRef(gvc_bytes_input_stream_read_bytes_finish(frames.get(), read.wait(), &error));
  error.assert_none();
  assert_bytes(bytes_string(message.get()), "message");
  gvc_bytes_output_stream_put_bytes_async(out.get(), message.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &written);
  g_assert_true(gvc_bytes_output_stream_put_bytes_finish(out.get(), written.wait(), &error));
  assert_bytes(sink_script->written(), frame("message"));
}

void
test_polls_as_its_base_does()
{
  for (const bool can_poll : {true, false}) {
    auto script = std::make_shared<Script>();
    script->can_poll = can_poll;
    auto in_base = new_scripted_input(script, StreamKind::pollable);
    auto out_base = new_scripted_output(script, StreamKind::pollable);
    auto frames = own(gvc_bytes_input_stream_new(in_base.get()));
    auto strings = own(gvc_data_input_stream_new(in_base.get()));
    auto out = own(gvc_bytes_output_stream_new(out_base.get()));
    g_assert_cmpint(g_pollable_input_stream_can_poll(G_POLLABLE_INPUT_STREAM(frames.get())), ==,
                    can_poll);
    g_assert_cmpint(g_pollable_input_stream_can_poll(G_POLLABLE_INPUT_STREAM(strings.get())), ==,
                    can_poll);
    g_assert_cmpint(g_pollable_output_stream_can_poll(G_POLLABLE_OUTPUT_STREAM(out.get())), ==,
                    can_poll);
  }
}

void
test_readiness_is_that_of_the_socket()
{
  Channel channel(Family::unix_domain, plain);
  auto *in = G_POLLABLE_INPUT_STREAM(channel.b.in.get());
  auto *out = G_POLLABLE_OUTPUT_STREAM(channel.a.out.get());
  char byte;

  g_assert_false(g_pollable_input_stream_is_readable(in));
  Error error;
  g_assert_cmpint(g_pollable_input_stream_read_nonblocking(in, &byte, 1, nullptr, &error), ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK);

  g_assert_true(g_pollable_output_stream_is_writable(out));
  g_assert_cmpint(g_pollable_output_stream_write_nonblocking(out, "x", 1, nullptr, &error), ==, 1);
  g_assert_true(g_pollable_input_stream_is_readable(in));
  g_assert_cmpint(g_pollable_input_stream_read_nonblocking(in, &byte, 1, nullptr, &error), ==, 1);
  g_assert_cmpint(byte, ==, 'x');
}

void
test_closed_base_is_noticed()
{
  Channel channel(Family::unix_domain, plain);
  Error error;
  auto *io = G_IO_STREAM(channel.a.connection.get());
  g_assert_true(g_output_stream_close(g_io_stream_get_output_stream(io), nullptr, &error));
  g_assert_true(g_input_stream_close(g_io_stream_get_input_stream(io), nullptr, &error));

  auto message = new_bytes("lost");
  Collector written, read;
  put(channel.a, message.get(), written);
  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(channel.a.out.get(), written.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
  get(channel.a, read);
  g_assert_null(gvc_bytes_input_stream_read_bytes_finish(channel.a.in.get(), read.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
}

// ---- A finished write is a sent write

// The peer reads nothing, so no write that is larger than all buffers on the way can be finished;
// the main loop goes on. Once the peer reads, all of it arrives without anybody writing any more.
void
test_slow_peer(Family family, int stages)
{
  Channel channel(family, stages, true);
  const unsigned before = (PingPong(channel, 8, 1), count_threads());
  auto text = noise(2'000'000, 1);
  auto message = new_bytes(text);
  Collector written, read;

  put(channel.a, message.get(), written);
  assert_stays_unfinished(written);
  get(channel.b, read);
  g_assert_true(g_bytes_equal(assert_got(channel.b, read).get(), message.get()));
  assert_put(channel.a, written);
  g_assert_cmpuint(count_threads(), <=, before);
}

// Whenever a write is reported as done, the socket has all of it: what arrives at a peer that only
// ever reads what is there already, after the writer's process would have gone, is complete.
void
test_success_means_sent(int stages)
{
  for (guint32 seed = 1; seed <= 12; seed++) {
    Channel channel(Family::unix_domain, stages, true);
    auto *generator = g_rand_new_with_seed(seed);
    const auto size = static_cast<size_t>(g_rand_int_range(generator, 1, 300'000));
    g_rand_free(generator);
    auto text = noise(size, seed);
    auto message = new_bytes(text);

    std::string wire;
    Collector written;
    put(channel.a, message.get(), written);
    // Reads the raw bytes, and stops once the write has been reported and the socket is empty.
    const int fd = socket_fd(channel.sockets.b.get());
    for (;;) {
      spin_pending();
      const bool done = written.calls() > 0;
      char buffer[5000];
      const ssize_t count = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
      if (count > 0)
        wire.append(buffer, static_cast<size_t>(count));
      else if (done)
        break;
    }
    assert_put(channel.a, written);

    // The same bytes, given to a channel whose peer has gone.
    auto replay = new_socket_pair(Family::unix_domain);
    std::thread feeder([&] {
      size_t sent = 0;
      while (sent < wire.size()) {
        Error error;
        gssize count = g_socket_send(g_socket_connection_get_socket(replay.a.get()),
                                     wire.data() + sent, wire.size() - sent, nullptr, &error);
        error.assert_none();
        sent += static_cast<size_t>(count);
      }
      g_socket_shutdown(g_socket_connection_get_socket(replay.a.get()), FALSE, TRUE, nullptr);
    });
    End end(replay.b.get(), stages);
    Error error;
    auto got = BytesRef(gvc_bytes_input_stream_read_bytes(end.in.get(), nullptr, &error));
    feeder.join();
    error.assert_none();
    g_assert_true(g_bytes_equal(got.get(), message.get()));
  }
}

void
test_random_sizes(Family family, int stages)
{
  Channel channel(family, stages, true);
  auto *generator = g_rand_new_with_seed(7);
  for (int i = 0; i < 6; i++) {
    const auto size = static_cast<size_t>(1U << g_rand_int_range(generator, 0, 20)) +
                      static_cast<size_t>(g_rand_int_range(generator, 0, 1000));
    assert_carries(channel.a, channel.b, noise(size, static_cast<guint32>(i)));
    assert_carries(channel.b, channel.a, pattern(size, static_cast<guint32>(i)));
  }
  g_rand_free(generator);
  assert_carries(channel.a, channel.b, pattern(8 * 1024 * 1024));
}

void
test_both_directions_at_once(int stages)
{
  Channel channel(Family::tcp4, stages, true);
  auto one = new_bytes(noise(700'000, 1));
  auto two = new_bytes(noise(900'000, 2));
  Collector written_a, written_b, read_a, read_b;

  put(channel.a, one.get(), written_a);
  put(channel.b, two.get(), written_b);
  get(channel.a, read_a);
  get(channel.b, read_b);
  assert_put(channel.a, written_a);
  assert_put(channel.b, written_b);
  g_assert_true(g_bytes_equal(assert_got(channel.b, read_b).get(), one.get()));
  g_assert_true(g_bytes_equal(assert_got(channel.a, read_a).get(), two.get()));
}

// A write that is cancelled while the peer is slow; with stages, these have accepted all of it.
BytesRef
write_and_cancel(Channel &channel, guint32 seed)
{
  auto message = new_bytes(noise(900'000, seed));
  auto cancellable = own(g_cancellable_new());
  Collector written;

  put(channel.a, message.get(), written, cancellable.get());
  assert_stays_unfinished(written);
  g_cancellable_cancel(cancellable.get());
  Error error;
  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(channel.a.out.get(), written.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_cmpuint(written.calls(), ==, 1);
  return message;
}

// The peer, in a thread of its own, reads these messages and nothing before them.
std::thread
expect_messages(Channel &channel, std::vector<GBytes *> expected)
{
  return std::thread([in = channel.b.in.get(), expected] {
    for (auto *message : expected) {
      Error error;
      auto got = BytesRef(gvc_bytes_input_stream_read_bytes(in, nullptr, &error));
      error.assert_none();
      g_assert_true(g_bytes_equal(got.get(), message));
    }
  });
}

void
test_cancel_while_the_peer_is_slow(int stages)
{
  Channel channel(Family::unix_domain, stages, true);
  write_and_cancel(channel, 3);
  abandon(channel);
}

// A blocking write that comes after it sends the rest first, so the peer sees both messages whole
// and in order.
void
test_blocking_write_after_a_cancelled_one(int stages)
{
  Channel channel(Family::unix_domain, stages, true);
  auto first = write_and_cancel(channel, 4);
  auto second = new_bytes("second");
  auto reader = expect_messages(channel, {first.get(), second.get()});
  Error error;
  g_assert_true(
      gvc_bytes_output_stream_put_bytes(channel.a.out.get(), second.get(), nullptr, &error));
  reader.join();
  error.assert_none();
}

void
test_blocking_write_after_an_asynchronous_one(int stages)
{
  Channel channel(Family::tcp4, stages);
  assert_carries(channel.a, channel.b, pattern(1000, 1));
  for (guint32 i = 0; i < 10; i++) {
    auto message = new_bytes(pattern(3000, i));
    Error error;
    g_assert_true(
        gvc_bytes_output_stream_put_bytes(channel.a.out.get(), message.get(), nullptr, &error));
    error.assert_none();
    Collector read;
    get(channel.b, read);
    g_assert_true(g_bytes_equal(assert_got(channel.b, read).get(), message.get()));
    assert_carries(channel.a, channel.b, pattern(2000, i));
  }
}

void
test_flush_sends_what_a_cancelled_write_left(int stages)
{
  Channel channel(Family::unix_domain, stages, true);
  auto message = write_and_cancel(channel, 5);
  auto reader = expect_messages(channel, {message.get()});
  Error error;
  g_assert_true(g_output_stream_flush(G_OUTPUT_STREAM(channel.a.out.get()), nullptr, &error));
  reader.join();
  error.assert_none();
}

void
test_close_sends_what_is_pending(int stages)
{
  Channel channel(Family::unix_domain, stages, true);
  auto message = write_and_cancel(channel, 6);
  auto reader = expect_messages(channel, {message.get()});
  Error error;
  g_assert_true(g_io_stream_close(G_IO_STREAM(channel.a.connection.get()), nullptr, &error));
  reader.join();
  error.assert_none();
}

void
test_close_can_be_cancelled_while_the_peer_is_slow(int stages)
{
  Channel channel(Family::unix_domain, stages, true);
  write_and_cancel(channel, 7);

  auto impatience = own(g_cancellable_new());
  std::thread canceller([&] {
    g_usleep(20'000);
    g_cancellable_cancel(impatience.get());
  });
  Error error;
  g_assert_false(
      g_io_stream_close(G_IO_STREAM(channel.a.connection.get()), impatience.get(), &error));
  canceller.join();
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

// The stream is busy until the last byte has left.
void
test_stream_is_busy_until_sent(int stages)
{
  Channel channel(Family::unix_domain, stages, true);
  auto message = new_bytes(noise(900'000, 8));
  Collector written, read;
  put(channel.a, message.get(), written);
  assert_stays_unfinished(written);

  Error error;
  g_assert_false(g_output_stream_write_all(G_OUTPUT_STREAM(channel.a.out.get()), "x", 1, nullptr,
                                           nullptr, &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
  get(channel.b, read);
  assert_got(channel.b, read);
  assert_put(channel.a, written);
  g_assert_true(g_output_stream_write_all(G_OUTPUT_STREAM(channel.a.out.get()), "x", 1, nullptr,
                                          nullptr, &error));
  error.assert_none();
}

enum class Gone { reset, closed };

void
test_peer_goes_in_the_middle(int stages, Gone how)
{
  Channel channel(Family::tcp4, stages, true);
  auto message = new_bytes(noise(900'000, 9));
  Collector written;
  put(channel.a, message.get(), written);
  assert_stays_unfinished(written);

  // Data that was never read makes either way of closing a reset for the writer; the difference is
  // what the kernel still had queued.
  const linger at_once = {1, 0};
  auto *socket = g_socket_connection_get_socket(channel.sockets.b.get());
  if (how == Gone::reset)
    g_assert_cmpint(
        setsockopt(g_socket_get_fd(socket), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), ==,
        0);
  Error error;
  g_assert_true(g_socket_close(socket, &error));

  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(channel.a.out.get(), written.wait(), &error));
  g_assert_true(error.get()->domain == G_IO_ERROR);
  g_assert_true(error.get()->code == G_IO_ERROR_CONNECTION_CLOSED ||
                error.get()->code == G_IO_ERROR_BROKEN_PIPE);
  g_assert_cmpuint(written.calls(), ==, 1);
}

void
test_completes_in_the_context_of_its_thread(int stages)
{
  run_in_thread([stages] {
    Channel channel(Family::tcp4, stages, true);
    auto message = new_bytes(noise(400'000, 10));
    Collector written, read;
    put(channel.a, message.get(), written);
    assert_stays_unfinished(written);
    get(channel.b, read);
    assert_got(channel.b, read);
    assert_put(channel.a, written);
    g_assert_true(written.thread() == g_thread_self());
    g_assert_true(read.thread() == g_thread_self());
  });
}

template <auto function, auto... arguments>
void
add(const char *path)
{
  g_test_add_func(path, [] { function(arguments...); });
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  add<test_no_threads, Family::tcp4, plain, 5'000u>("/async/no-threads/tcp/plain");
  add<test_no_threads, Family::tcp4, encrypted, 5'000u>("/async/no-threads/tcp/encrypted");
  add<test_no_threads, Family::tcp4, compressed, 5'000u>("/async/no-threads/tcp/compressed");
  add<test_no_threads, Family::tcp4, both, 50'000u>("/async/no-threads/tcp/both");
  add<test_no_threads, Family::tcp6, both, 5'000u>("/async/no-threads/tcp6/both");
  add<test_no_threads, Family::unix_domain, plain, 5'000u>("/async/no-threads/unix/plain");
  add<test_no_threads, Family::unix_domain, encrypted, 5'000u>("/async/no-threads/unix/encrypted");
  add<test_no_threads, Family::unix_domain, compressed, 5'000u>(
      "/async/no-threads/unix/compressed");
  add<test_no_threads, Family::unix_domain, both, 50'000u>("/async/no-threads/unix/both");
  add<test_strings_use_no_threads>("/async/no-threads/strings");
  add<test_unpollable_base_still_works>("/async/unpollable-base-still-works");
  add<test_polls_as_its_base_does>("/async/polls-as-its-base-does");
  add<test_readiness_is_that_of_the_socket>("/async/readiness-is-that-of-the-socket");
  add<test_closed_base_is_noticed>("/async/closed-base-is-noticed");

  add<test_slow_peer, Family::tcp4, plain>("/async/slow-peer/tcp/plain");
  add<test_slow_peer, Family::tcp4, encrypted>("/async/slow-peer/tcp/encrypted");
  add<test_slow_peer, Family::tcp4, both>("/async/slow-peer/tcp/both");
  add<test_slow_peer, Family::unix_domain, plain>("/async/slow-peer/unix/plain");
  add<test_slow_peer, Family::unix_domain, compressed>("/async/slow-peer/unix/compressed");
  add<test_slow_peer, Family::unix_domain, both>("/async/slow-peer/unix/both");
  add<test_success_means_sent, plain>("/async/success-means-sent/plain");
  add<test_success_means_sent, encrypted>("/async/success-means-sent/encrypted");
  add<test_success_means_sent, compressed>("/async/success-means-sent/compressed");
  add<test_success_means_sent, both>("/async/success-means-sent/both");
  add<test_random_sizes, Family::tcp4, plain>("/async/random-sizes/tcp/plain");
  add<test_random_sizes, Family::tcp4, both>("/async/random-sizes/tcp/both");
  add<test_random_sizes, Family::unix_domain, encrypted>("/async/random-sizes/unix/encrypted");
  add<test_random_sizes, Family::unix_domain, both>("/async/random-sizes/unix/both");
  add<test_both_directions_at_once, plain>("/async/both-directions-at-once/plain");
  add<test_both_directions_at_once, both>("/async/both-directions-at-once/both");
  add<test_cancel_while_the_peer_is_slow, plain>("/async/cancel-while-the-peer-is-slow/plain");
  add<test_cancel_while_the_peer_is_slow, both>("/async/cancel-while-the-peer-is-slow/both");
  add<test_blocking_write_after_a_cancelled_one, encrypted>(
      "/async/blocking-write-after-a-cancelled-one/encrypted");
  add<test_blocking_write_after_a_cancelled_one, both>(
      "/async/blocking-write-after-a-cancelled-one/both");
  add<test_blocking_write_after_an_asynchronous_one, plain>(
      "/async/blocking-write-after-an-asynchronous-one/plain");
  add<test_blocking_write_after_an_asynchronous_one, both>(
      "/async/blocking-write-after-an-asynchronous-one/both");
  add<test_flush_sends_what_a_cancelled_write_left, encrypted>(
      "/async/flush-sends-what-a-cancelled-write-left/encrypted");
  add<test_flush_sends_what_a_cancelled_write_left, both>(
      "/async/flush-sends-what-a-cancelled-write-left/both");
  add<test_close_sends_what_is_pending, encrypted>("/async/close-sends-what-is-pending/encrypted");
  add<test_close_sends_what_is_pending, both>("/async/close-sends-what-is-pending/both");
  add<test_close_can_be_cancelled_while_the_peer_is_slow, both>(
      "/async/close-can-be-cancelled-while-the-peer-is-slow");
  add<test_stream_is_busy_until_sent, encrypted>("/async/stream-is-busy-until-sent/encrypted");
  add<test_stream_is_busy_until_sent, both>("/async/stream-is-busy-until-sent/both");
  add<test_peer_goes_in_the_middle, plain, Gone::reset>("/async/peer-resets/plain");
  add<test_peer_goes_in_the_middle, both, Gone::reset>("/async/peer-resets/both");
  add<test_peer_goes_in_the_middle, plain, Gone::closed>("/async/peer-closes/plain");
  add<test_peer_goes_in_the_middle, both, Gone::closed>("/async/peer-closes/both");
  add<test_completes_in_the_context_of_its_thread, both>(
      "/async/completes-in-the-context-of-its-thread");
  return g_test_run();
}
