// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends every message back. Usage: echo-server [--async]; prints the port it listens on.
#include "echo-channel.hpp"

#include <string_view>

static void
report(const Failure &failure)
{
  if (!failure.is_end())
    g_printerr("echo-server: %s\n", failure.message());
}

static void
serve(GSocketConnection *socket)
{
  Channel channel(socket);
  Failure failure;

  for (;;) {
    Ref<GBytes> message(
        gvc_bytes_input_stream_read_bytes(channel.reader(), nullptr, failure.slot()));
    if (!message || !gvc_bytes_output_stream_put_bytes(channel.writer(), message.get(), nullptr,
                                                       failure.slot())) {
      report(failure);
      return;
    }
  }
}

// Reads and sends in turn until the channel ends, and then goes away.
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
    gvc_bytes_input_stream_read_bytes_async(
        channel_.reader(), G_PRIORITY_DEFAULT, nullptr,
        [](GObject *, GAsyncResult *result, gpointer self) {
          static_cast<Session *>(self)->on_message(result);
        },
        this);
  }

  void
  on_message(GAsyncResult *result)
  {
    Failure failure;
    Ref<GBytes> message(
        gvc_bytes_input_stream_read_bytes_finish(channel_.reader(), result, failure.slot()));
    if (!message)
      return end(failure);
    gvc_bytes_output_stream_put_bytes_async(
        channel_.writer(), message.get(), G_PRIORITY_DEFAULT, nullptr,
        [](GObject *, GAsyncResult *sent, gpointer self) {
          static_cast<Session *>(self)->on_sent(sent);
        },
        this);
  }

  void
  on_sent(GAsyncResult *result)
  {
    Failure failure;
    if (!gvc_bytes_output_stream_put_bytes_finish(channel_.writer(), result, failure.slot()))
      return end(failure);
    read();
  }

  void
  end(const Failure &failure)
  {
    report(failure);
    delete this;
  }

  Channel channel_;
};

static gboolean
on_incoming(GSocketService *, GSocketConnection *socket, GObject *, gpointer)
{
  Session::start(socket);
  return TRUE;
}

int
main(int argc, char **argv)
{
  bool async = argc > 1 && std::string_view(argv[1]) == "--async";
  Ref<GSocketService> service(g_socket_service_new());
  Ref<GInetAddress> loopback(g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4));
  Ref<GSocketAddress> wanted(g_inet_socket_address_new(loopback.get(), 0));
  auto *listener = G_SOCKET_LISTENER(service.get());
  GSocketAddress *actual = nullptr;
  Failure failure;

  gvc_init();
  g_socket_service_stop(service.get());
  if (!g_socket_listener_add_address(listener, wanted.get(), G_SOCKET_TYPE_STREAM,
                                     G_SOCKET_PROTOCOL_TCP, nullptr, &actual, failure.slot())) {
    g_printerr("echo-server: %s\n", failure.message());
    return 1;
  }
  g_print("%d\n", g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(actual)));
  g_object_unref(actual);

  if (async) {
    g_signal_connect(service.get(), "incoming", G_CALLBACK(on_incoming), nullptr);
    g_socket_service_start(service.get());
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  }
  for (;;) {
    Ref<GSocketConnection> socket(g_socket_listener_accept(listener, nullptr, nullptr, nullptr));
    if (socket)
      serve(socket.get());
  }
}
