/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <fcntl.h>
#include <unistd.h>

using namespace support;

static Ref<GConverter>
identity()
{
  return new_map_converter([](guint8 byte) { return byte; });
}

static std::string
address_string(gpointer stream)
{
  const Mem<char> text(gvc_io_stream_get_remote_address_string(static_cast<GIOStream *>(stream)));
  g_assert_nonnull(text.get());
  return text.get();
}

static guint16
remote_port(GSocketConnection *connection)
{
  const auto address = own(g_socket_connection_get_remote_address(connection, nullptr));
  return g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(address.get()));
}

/* The same text from the socket connection, from a channel over it, and from a channel with
 * stages; and nothing held on to. */
static void
assert_address(GSocketConnection *connection, const std::string &expected)
{
  LogCapture log;
  const guint references = refcount(connection);
  const auto channel = own(gvc_connection_new(connection));
  assert_text(address_string(connection), expected);
  assert_text(address_string(channel.get()), expected);
  gvc_connection_add_converters(channel.get(), identity().get(), identity().get());
  assert_text(address_string(channel.get()), expected);
  assert_text(address_string(connection), expected);
  assert_refcount(channel.get(), 1);
  assert_refcount(connection, references + 1);
  log.expect_none();
}

static void
ipv4_peer_is_address_colon_port()
{
  const auto pair = new_socket_pair(Family::tcp4);
  for (auto *connection : {pair.a.get(), pair.b.get()})
    assert_address(connection, "127.0.0.1:" + std::to_string(remote_port(connection)));
}

static void
peer_is_the_far_end_not_the_near_one()
{
  const auto pair = new_socket_pair(Family::tcp4);
  const auto local = own(g_socket_connection_get_local_address(pair.b.get(), nullptr));
  const guint16 port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(local.get()));
  assert_text(address_string(pair.a.get()), "127.0.0.1:" + std::to_string(port));
}

static void
ipv6_peer_has_no_brackets()
{
  if (!have_ipv6()) {
    g_test_skip("no IPv6 on loopback");
    return;
  }
  const auto pair = new_socket_pair(Family::tcp6);
  for (auto *connection : {pair.a.get(), pair.b.get()})
    assert_address(connection, "::1:" + std::to_string(remote_port(connection)));
}

static void
unix_peer_is_unknown()
{
  const auto pair = new_socket_pair(Family::unix_domain);
  assert_address(pair.a.get(), "UNKNOWN");
}

static void
other_stream_is_unknown()
{
  const auto script = new_script();
  const auto in = new_scripted_input(script);
  const auto out = new_scripted_output(script);
  const auto stream = own(g_simple_io_stream_new(in.get(), out.get()));
  LogCapture log;
  assert_text(address_string(stream.get()), "UNKNOWN");
  assert_refcount(stream.get(), 1);
}

static void
peer_that_is_not_there_is_unknown()
{
  Error error;
  const auto socket =
      own(g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, &error));
  error.assert_none();
  const auto unconnected = own(g_socket_connection_factory_create_connection(socket.get()));
  assert_address(unconnected.get(), "UNKNOWN");

  const auto pair = new_socket_pair(Family::tcp4);
  g_socket_close(g_socket_connection_get_socket(pair.a.get()), nullptr);
  assert_address(pair.a.get(), "UNKNOWN");
}

static void
error_of_the_socket_is_dropped()
{
  const auto pair = new_socket_pair(Family::tcp4);
  /* The accepting end has not looked up its peer yet. Something that has no peer takes the place of
   * the socket behind its back. */
  const int other = open("/dev/null", O_RDWR | O_CLOEXEC);
  g_assert_cmpint(other, >=, 0);
  g_assert_cmpint(dup2(other, g_socket_get_fd(g_socket_connection_get_socket(pair.b.get()))), >=,
                  0);
  close(other);
  Error error;
  g_assert_null(g_socket_connection_get_remote_address(pair.b.get(), &error));
  g_assert_nonnull(error.get());
  assert_address(pair.b.get(), "UNKNOWN");
}

static void
channel_without_connection_is_unknown()
{
  LogCapture log;
  const auto channel = own(gvc_connection_new(nullptr));
  log.take();
  assert_text(address_string(channel.get()), "UNKNOWN");
}

static void
anything_but_a_stream_is_refused()
{
  LogCapture log;
  g_assert_null(gvc_io_stream_get_remote_address_string(nullptr));
  log.expect({failed_check("gvc_io_stream_get_remote_address_string", "G_IS_IO_STREAM(stream)")});

  const auto cancellable = own(g_cancellable_new());
  g_assert_null(
      gvc_io_stream_get_remote_address_string(reinterpret_cast<GIOStream *>(cancellable.get())));
  log.expect({failed_check("gvc_io_stream_get_remote_address_string", "G_IS_IO_STREAM(stream)")});
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/utils/remote-address/ipv4-peer-is-address-colon-port",
                  ipv4_peer_is_address_colon_port);
  g_test_add_func("/utils/remote-address/peer-is-the-far-end-not-the-near-one",
                  peer_is_the_far_end_not_the_near_one);
  g_test_add_func("/utils/remote-address/ipv6-peer-has-no-brackets", ipv6_peer_has_no_brackets);
  g_test_add_func("/utils/remote-address/unix-peer-is-unknown", unix_peer_is_unknown);
  g_test_add_func("/utils/remote-address/other-stream-is-unknown", other_stream_is_unknown);
  g_test_add_func("/utils/remote-address/peer-that-is-not-there-is-unknown",
                  peer_that_is_not_there_is_unknown);
  g_test_add_func("/utils/remote-address/error-of-the-socket-is-dropped",
                  error_of_the_socket_is_dropped);
  g_test_add_func("/utils/remote-address/channel-without-connection-is-unknown",
                  channel_without_connection_is_unknown);
  g_test_add_func("/utils/remote-address/anything-but-a-stream-is-refused",
                  anything_but_a_stream_is_refused);
  return g_test_run();
}
