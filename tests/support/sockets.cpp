/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/sockets.h"

#include <glib-unix.h>

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace support
{

namespace
{

Ref<GSocketAddress>
loopback(Family family)
{
  const auto address = own(g_inet_address_new_loopback(
      family == Family::tcp6 ? G_SOCKET_FAMILY_IPV6 : G_SOCKET_FAMILY_IPV4));
  return Ref<GSocketAddress>(g_inet_socket_address_new(address.get(), 0));
}

Ref<GSocket>
new_tcp_socket(Family family, Error &error)
{
  return Ref<GSocket>(
      g_socket_new(family == Family::tcp6 ? G_SOCKET_FAMILY_IPV6 : G_SOCKET_FAMILY_IPV4,
                   G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, &error));
}

struct TwoSockets {
  Ref<GSocket> a;
  Ref<GSocket> b;
};

TwoSockets
connect_tcp(Family family)
{
  Error error;
  const auto listener = new_tcp_socket(family, error);
  error.assert_none();
  g_socket_bind(listener.get(), loopback(family).get(), TRUE, &error);
  error.assert_none();
  g_socket_listen(listener.get(), &error);
  error.assert_none();
  const Ref<GSocketAddress> address(g_socket_get_local_address(listener.get(), &error));
  error.assert_none();

  TwoSockets result;
  result.a = new_tcp_socket(family, error);
  error.assert_none();
  g_socket_connect(result.a.get(), address.get(), nullptr, &error);
  error.assert_none();
  result.b.reset(g_socket_accept(listener.get(), nullptr, &error));
  error.assert_none();
  return result;
}

TwoSockets
connect_unix()
{
  int fds[2];
  g_assert_no_errno(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
  Error error;
  TwoSockets result;
  result.a.reset(g_socket_new_from_fd(fds[0], &error));
  error.assert_none();
  result.b.reset(g_socket_new_from_fd(fds[1], &error));
  error.assert_none();
  return result;
}

TwoSockets
connect_sockets(Family family)
{
  return family == Family::unix_domain ? connect_unix() : connect_tcp(family);
}

Ref<GSocketConnection>
wrap_socket(GSocket *socket)
{
  return Ref<GSocketConnection>(g_socket_connection_factory_create_connection(socket));
}

} // namespace

bool
have_ipv6()
{
  Error error;
  const auto socket = new_tcp_socket(Family::tcp6, error);
  return socket != nullptr &&
         g_socket_bind(socket.get(), loopback(Family::tcp6).get(), TRUE, nullptr);
}

SocketPair
new_socket_pair(Family family)
{
  const auto sockets = connect_sockets(family);
  return {wrap_socket(sockets.a.get()), wrap_socket(sockets.b.get())};
}

RawPeer::RawPeer(Family family)
{
  const auto sockets = connect_sockets(family);
  connection_ = wrap_socket(sockets.a.get());
  /* The GSocket owns its descriptor and has made it non-blocking; take a copy, set it back, and let
   * the GSocket close only its own. */
  fd_ = dup(g_socket_get_fd(sockets.b.get()));
  g_assert_cmpint(fd_, >=, 0);
  Error error;
  g_unix_set_fd_nonblocking(fd_, FALSE, &error);
  error.assert_none();
}

RawPeer::~RawPeer()
{
  close();
}

void
RawPeer::send(std::string_view data)
{
  while (!data.empty()) {
    const ssize_t sent = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
    g_assert_cmpint(sent, >, 0);
    data.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string
RawPeer::receive(size_t size)
{
  std::string result(size, '\0');
  size_t received = 0;
  while (received < size) {
    const ssize_t count = ::recv(fd_, result.data() + received, size - received, 0);
    g_assert_cmpint(count, >=, 0);
    if (count == 0)
      break;
    received += static_cast<size_t>(count);
  }
  result.resize(received);
  return result;
}

std::string
RawPeer::receive_all()
{
  std::string result;
  for (;;) {
    const auto part = receive(65536);
    result += part;
    if (part.size() < 65536)
      return result;
  }
}

void
RawPeer::shutdown_write()
{
  g_assert_no_errno(::shutdown(fd_, SHUT_WR));
}

void
RawPeer::close()
{
  if (fd_ >= 0)
    ::close(std::exchange(fd_, -1));
}

namespace
{

struct StreamConnection {
  GSocketConnection parent;
  GInputStream *in;
  GOutputStream *out;
};
struct StreamConnectionClass {
  GSocketConnectionClass parent_class;
};

G_DEFINE_TYPE(StreamConnection, stream_connection, G_TYPE_SOCKET_CONNECTION)

void
stream_connection_init(StreamConnection *)
{
}

void
stream_connection_finalize(GObject *object)
{
  const auto self = reinterpret_cast<StreamConnection *>(object);
  G_OBJECT_CLASS(stream_connection_parent_class)->finalize(object);
  g_clear_object(&self->in);
  g_clear_object(&self->out);
}

void
stream_connection_class_init(StreamConnectionClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = stream_connection_finalize;
  G_IO_STREAM_CLASS(klass)->get_input_stream = [](GIOStream *stream) {
    return reinterpret_cast<StreamConnection *>(stream)->in;
  };
  G_IO_STREAM_CLASS(klass)->get_output_stream = [](GIOStream *stream) {
    return reinterpret_cast<StreamConnection *>(stream)->out;
  };
}

} // namespace

Ref<GSocketConnection>
new_connection_over(Ref<GInputStream> in, Ref<GOutputStream> out)
{
  Error error;
  const auto bare = own(
      g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_DEFAULT, &error));
  error.assert_none();
  const auto connection = static_cast<StreamConnection *>(
      g_object_new(stream_connection_get_type(), "socket", bare.get(), nullptr));
  connection->in = in.release();
  connection->out = out.release();
  return own(&connection->parent);
}

} // namespace support
