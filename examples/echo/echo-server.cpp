// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends every message back. Usage: echo-server [--async]; prints the port it listens on.
#include "echo-channel.hpp"

#include <string_view>

static void
report(const GError *error)
{
  if (!is_end(error))
    g_printerr("echo-server: %s\n", error->message);
}

static void
serve(GSocketConnection *socket)
{
  Channel channel(socket);
  g_autoptr(GError) error = nullptr;

  for (;;) {
    Ref<GBytes> message(gvc_bytes_input_stream_read_bytes(channel.reader(), nullptr, &error));
    if (!message ||
        !gvc_bytes_output_stream_put_bytes(channel.writer(), message.get(), nullptr, &error)) {
      report(error);
      return;
    }
  }
}

// Reads and sends in turn until the channel ends. Deletes itself then.
class Session
{
public:
  static void
  start(GSocketConnection *socket)
  {
    (new Session(socket))->read();
  }

private:
  explicit Session(GSocketConnection *socket) : channel_(socket) {}

  void
  read()
  {
    gvc_bytes_input_stream_read_bytes_async(channel_.reader(), G_PRIORITY_DEFAULT, nullptr,
                                            forward<&Session::on_message>, this);
  }

  void
  on_message(GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    Ref<GBytes> message(
        gvc_bytes_input_stream_read_bytes_finish(channel_.reader(), result, &error));
    if (!message)
      return end(error);
    gvc_bytes_output_stream_put_bytes_async(channel_.writer(), message.get(), G_PRIORITY_DEFAULT,
                                            nullptr, forward<&Session::on_sent>, this);
  }

  void
  on_sent(GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    if (!gvc_bytes_output_stream_put_bytes_finish(channel_.writer(), result, &error))
      return end(error);
    read();
  }

  void
  end(const GError *error)
  {
    report(error);
    delete this;
  }

  Channel channel_;
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
    Session::start(socket.get());
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

static guint16
listen_on_loopback(GSocketListener *listener, GError **error)
{
  Ref<GSocketAddress> wanted(g_inet_socket_address_new_from_string("127.0.0.1", 0));
  GSocketAddress *actual = nullptr;

  if (!g_socket_listener_add_address(listener, wanted.get(), G_SOCKET_TYPE_STREAM,
                                     G_SOCKET_PROTOCOL_TCP, nullptr, &actual, error))
    return 0;
  Ref<GInetSocketAddress> address(G_INET_SOCKET_ADDRESS(actual));
  return g_inet_socket_address_get_port(address.get());
}

int
main(int argc, char **argv)
{
  Ref<GSocketListener> listener(g_socket_listener_new());
  g_autoptr(GError) error = nullptr;

  gvc_init();
  auto port = listen_on_loopback(listener.get(), &error);
  if (!error)
    g_print("%d\n", port);

  if (!error && argc > 1 && std::string_view(argv[1]) == "--async") {
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
