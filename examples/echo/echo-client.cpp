// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends three messages and checks that they come back. Usage: echo-client PORT [--async]
#include "echo-channel.hpp"

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

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
  explicit Client(GSocketConnection *socket) : channel_(socket), messages_(make_messages()) {}
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;
  ~Client()
  {
    g_clear_error(&error_);
  }

  bool
  run()
  {
    while (next_ < messages_.size()) {
      if (!gvc_bytes_output_stream_put_bytes(channel_.writer(), messages_[next_].get(), nullptr,
                                             &error_))
        return report();
      if (!check(gvc_bytes_input_stream_read_bytes(channel_.reader(), nullptr, &error_)))
        return report();
    }
    return true;
  }

  bool
  run_async()
  {
    loop_ = g_main_loop_new(nullptr, FALSE);
    send();
    g_main_loop_run(loop_);
    g_main_loop_unref(loop_);
    return next_ == messages_.size() || report();
  }

  std::size_t
  count() const
  {
    return next_;
  }
  GIOStream *
  io() const
  {
    return channel_.io();
  }

private:
  // Writes and reads at the same time: one operation per direction may be in progress.
  void
  send()
  {
    if (next_ == messages_.size())
      return g_main_loop_quit(loop_);

    gvc_bytes_output_stream_put_bytes_async(channel_.writer(), messages_[next_].get(),
                                            G_PRIORITY_DEFAULT, nullptr, forward<&Client::on_sent>,
                                            this);
    gvc_bytes_input_stream_read_bytes_async(channel_.reader(), G_PRIORITY_DEFAULT, nullptr,
                                            forward<&Client::on_echo>, this);
  }

  void
  on_sent(GAsyncResult *result)
  {
    if (!gvc_bytes_output_stream_put_bytes_finish(channel_.writer(), result, &error_))
      g_main_loop_quit(loop_);
  }

  void
  on_echo(GAsyncResult *result)
  {
    if (check(gvc_bytes_input_stream_read_bytes_finish(channel_.reader(), result, &error_)))
      send();
    else
      g_main_loop_quit(loop_);
  }

  bool
  check(GBytes *received)
  {
    Ref<GBytes> echo(received);
    return echo && g_bytes_equal(echo.get(), messages_[next_].get()) && ++next_;
  }

  bool
  report()
  {
    g_printerr("echo-client: %s\n", error_ ? error_->message : "The echo differs");
    return false;
  }

  Channel channel_;
  std::vector<Ref<GBytes>> messages_;
  std::size_t next_ = 0;
  GMainLoop *loop_ = nullptr;
  GError *error_ = nullptr;
};

int
main(int argc, char **argv)
{
  auto port = static_cast<guint16>(argc > 1 ? std::atoi(argv[1]) : 0);
  bool async = argc > 2 && std::string_view(argv[2]) == "--async";
  Ref<GSocketClient> connector(g_socket_client_new());
  g_autoptr(GError) error = nullptr;

  gvc_init();
  Ref<GSocketConnection> socket(
      g_socket_client_connect_to_host(connector.get(), "127.0.0.1", port, nullptr, &error));
  if (!socket) {
    g_printerr("echo-client: %s\n", error->message);
    return 1;
  }

  Client client(socket.get());
  if (!(async ? client.run_async() : client.run()))
    return 1;
  g_autofree char *peer = gvc_io_stream_get_remote_address_string(client.io());
  g_print("%zu messages echoed by %s\n", client.count(), peer);
  return 0;
}
