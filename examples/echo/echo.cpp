// SPDX-License-Identifier: LGPL-2.1-or-later
// Messages there and back, over a channel that compresses and encrypts.
//
//   echo serve [--async]       sends every message back; prints the port it listens on
//   echo call PORT [--async]   sends three messages and checks that they come back
#include <zelgvc/zelgvc.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct Unref {
  void
  operator()(gpointer object) const
  {
    g_object_unref(object);
  }
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};

template <typename T> using Ref = std::unique_ptr<T, Unref>;

// The peer has closed its side. On a bare channel that reads as "Disconnected"; a stage reports
// that it could not get another block.
static bool
is_end(const GError *error)
{
  return g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
}

// A callback that calls a member function of its user data.
template <auto method> struct Forward;
template <typename T, void (T::*method)(GAsyncResult *)> struct Forward<method> {
  static void
  call(GObject *, GAsyncResult *result, gpointer self)
  {
    (static_cast<T *>(self)->*method)(result);
  }
};
template <auto method> constexpr GAsyncReadyCallback forward = Forward<method>::call;

// Real peers agree on 32 random bytes by a way of their own.
static Ref<GBytes>
demonstration_key()
{
  guint8 key[32];
  for (guint8 i = 0; i < sizeof key; i++)
    key[i] = i;
  return Ref<GBytes>(g_bytes_new(key, sizeof key));
}

struct Channel {
  // Encryption is added first and compression second: the stage added last is nearest to the
  // caller, so messages are compressed and then encrypted. Both peers add them in this order.
  explicit Channel(GSocketConnection *socket) : connection(gvc_connection_new(socket))
  {
    Ref<GBytes> key = demonstration_key();
    Ref<GConverter> decryptor(G_CONVERTER(gvc_decryptor_new(key.get())));
    Ref<GConverter> encryptor(G_CONVERTER(gvc_encryptor_new(key.get())));
    Ref<GConverter> decompressor(G_CONVERTER(gvc_decompressor_new()));
    Ref<GConverter> compressor(G_CONVERTER(gvc_compressor_new()));

    gvc_connection_add_converters(connection.get(), decryptor.get(), encryptor.get());
    gvc_connection_add_converters(connection.get(), decompressor.get(), compressor.get());
    auto *io = G_IO_STREAM(connection.get());
    reader.reset(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io)));
    writer.reset(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io)));
  }
  // Closes the socket. Closing the channel would also send what its stages still hold, and wait for
  // a peer that does not read.
  ~Channel()
  {
    auto *socket = gvc_connection_get_connection(connection.get());
    g_io_stream_close(G_IO_STREAM(socket), nullptr, nullptr);
  }

  Ref<GvcConnection> connection;
  Ref<GvcBytesInputStream> reader;
  Ref<GvcBytesOutputStream> writer;
};

static void
report(const GError *error)
{
  if (!is_end(error))
    g_printerr("echo: %s\n", error->message);
}

static void
serve(GSocketConnection *socket)
{
  Channel channel(socket);
  g_autoptr(GError) error = nullptr;

  for (;;) {
    Ref<GBytes> message(gvc_bytes_input_stream_read_bytes(channel.reader.get(), nullptr, &error));
    if (!message ||
        !gvc_bytes_output_stream_put_bytes(channel.writer.get(), message.get(), nullptr, &error)) {
      report(error);
      return;
    }
  }
}

// Reads and sends in turn until the channel ends. Deletes itself then.
class Session
{
public:
  explicit Session(GSocketConnection *socket) : channel(socket)
  {
    read();
  }

private:
  void
  read()
  {
    gvc_bytes_input_stream_read_bytes_async(channel.reader.get(), G_PRIORITY_DEFAULT, nullptr,
                                            forward<&Session::on_message>, this);
  }

  void
  on_message(GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    Ref<GBytes> message(
        gvc_bytes_input_stream_read_bytes_finish(channel.reader.get(), result, &error));
    if (!message)
      return end(error);
    gvc_bytes_output_stream_put_bytes_async(channel.writer.get(), message.get(), G_PRIORITY_DEFAULT,
                                            nullptr, forward<&Session::on_sent>, this);
  }

  void
  on_sent(GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    if (!gvc_bytes_output_stream_put_bytes_finish(channel.writer.get(), result, &error))
      return end(error);
    read();
  }

  void
  end(const GError *error)
  {
    report(error);
    delete this;
  }

  Channel channel;
};

static gboolean accept_next(gpointer listener);

// Without descriptors every accept fails at once, so the next one waits. GSocketService does not.
static void
on_accepted(GObject *source, GAsyncResult *result, gpointer)
{
  auto *listener = G_SOCKET_LISTENER(source);
  g_autoptr(GError) error = nullptr;
  Ref<GSocketConnection> socket(g_socket_listener_accept_finish(listener, result, nullptr, &error));

  if (socket) {
    new Session(socket.get());
    accept_next(listener);
  } else {
    report(error);
    g_timeout_add_seconds(1, accept_next, listener);
  }
}

static gboolean
accept_next(gpointer listener)
{
  g_socket_listener_accept_async(G_SOCKET_LISTENER(listener), nullptr, on_accepted, nullptr);
  return G_SOURCE_REMOVE;
}

static int
run_server(bool async)
{
  Ref<GSocketListener> listener(g_socket_listener_new());
  Ref<GSocketAddress> wanted(g_inet_socket_address_new_from_string("127.0.0.1", 0));
  g_autoptr(GSocketAddress) actual = nullptr;
  g_autoptr(GError) error = nullptr;

  if (g_socket_listener_add_address(listener.get(), wanted.get(), G_SOCKET_TYPE_STREAM,
                                    G_SOCKET_PROTOCOL_TCP, nullptr, &actual, &error))
    g_print("%d\n", g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(actual)));
  if (!error && async) {
    accept_next(listener.get());
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  }
  while (!error) {
    Ref<GSocketConnection> socket(
        g_socket_listener_accept(listener.get(), nullptr, nullptr, &error));
    if (socket)
      serve(socket.get());
  }
  report(error);
  return 1;
}

static std::vector<Ref<GBytes>>
make_messages()
{
  std::string big(1000000, '\0');
  for (std::size_t i = 0; i < big.size(); i++)
    big[i] = static_cast<char>(i * i / 251);

  g_autoptr(GVariant) variant = g_variant_ref_sink(g_variant_new("(su)", "answer", 42));
  std::vector<Ref<GBytes>> messages;
  messages.emplace_back(g_bytes_new_static("hello", 5));
  messages.emplace_back(g_bytes_new(big.data(), big.size()));
  messages.emplace_back(g_variant_get_data_as_bytes(variant));
  return messages;
}

class Client
{
public:
  explicit Client(GSocketConnection *socket) : channel(socket) {}
  ~Client()
  {
    g_clear_error(&error);
  }

  bool
  run()
  {
    while (next < messages.size()) {
      if (!gvc_bytes_output_stream_put_bytes(channel.writer.get(), messages[next].get(), nullptr,
                                             &error))
        return report();
      if (!check(gvc_bytes_input_stream_read_bytes(channel.reader.get(), nullptr, &error)))
        return report();
    }
    return true;
  }

  bool
  run_async()
  {
    loop = g_main_loop_new(nullptr, FALSE);
    send();
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return next == messages.size() || report();
  }

  const Channel channel;
  const std::vector<Ref<GBytes>> messages = make_messages();

private:
  // Writes and reads at the same time: one operation per direction may be in progress.
  void
  send()
  {
    if (next == messages.size())
      return g_main_loop_quit(loop);

    gvc_bytes_output_stream_put_bytes_async(channel.writer.get(), messages[next].get(),
                                            G_PRIORITY_DEFAULT, nullptr, forward<&Client::on_sent>,
                                            this);
    gvc_bytes_input_stream_read_bytes_async(channel.reader.get(), G_PRIORITY_DEFAULT, nullptr,
                                            forward<&Client::on_echo>, this);
  }

  void
  on_sent(GAsyncResult *result)
  {
    if (!gvc_bytes_output_stream_put_bytes_finish(channel.writer.get(), result, &error))
      g_main_loop_quit(loop);
  }

  void
  on_echo(GAsyncResult *result)
  {
    if (check(gvc_bytes_input_stream_read_bytes_finish(channel.reader.get(), result, &error)))
      send();
    else
      g_main_loop_quit(loop);
  }

  bool
  check(GBytes *received)
  {
    Ref<GBytes> echo(received);
    return echo && g_bytes_equal(echo.get(), messages[next].get()) && ++next;
  }

  bool
  report()
  {
    g_printerr("echo: %s\n", error ? error->message : "The echo differs");
    return false;
  }

  std::size_t next = 0;
  GMainLoop *loop = nullptr;
  GError *error = nullptr;
};

static int
run_client(guint16 port, bool async)
{
  Ref<GSocketClient> connector(g_socket_client_new());
  g_autoptr(GError) error = nullptr;
  Ref<GSocketConnection> socket(
      g_socket_client_connect_to_host(connector.get(), "127.0.0.1", port, nullptr, &error));

  if (!socket) {
    report(error);
    return 1;
  }
  Client client(socket.get());
  if (!(async ? client.run_async() : client.run()))
    return 1;
  auto *io = G_IO_STREAM(client.channel.connection.get());
  g_autofree char *peer = gvc_io_stream_get_remote_address_string(io);
  g_print("%zu messages echoed by %s\n", client.messages.size(), peer);
  return 0;
}

int
main(int argc, char **argv)
{
  std::vector<std::string_view> words(argv + 1, argv + argc);
  bool async = !words.empty() && words.back() == "--async";

  gvc_init();
  if (!words.empty() && words[0] == "serve")
    return run_server(async);
  if (words.size() > 1 && words[0] == "call")
    return run_client(static_cast<guint16>(std::atoi(argv[2])), async);
  g_printerr("usage: echo serve [--async] | echo call PORT [--async]\n");
  return 2;
}
