// SPDX-License-Identifier: LGPL-2.1-or-later
#include "links.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>

namespace bench
{

// ---- Sockets ----

const char *
transportName(Transport transport)
{
  return transport == Transport::tcp ? "tcp" : "unix";
}

static Ref<GSocketConnection>
wrapSocket(int fd)
{
  GError *error = nullptr;
  Ref<GSocket> socket(g_socket_new_from_fd(fd, &error));
  must(socket != nullptr, error, "socket");
  return Ref<GSocketConnection>(g_socket_connection_factory_create_connection(socket.get()));
}

static SocketPair
connectUnix()
{
  int fds[2];
  must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, nullptr, "socketpair");
  return {wrapSocket(fds[0]), wrapSocket(fds[1])};
}

// A listener's port carries this many connections: a closed connection keeps its port for a minute.
struct Listening {
  Ref<GSocketListener> listener;
  Ref<GSocketAddress> address;
  unsigned left = 4096;
};

static Listening
startListening()
{
  GError *error = nullptr;
  Listening made{Ref<GSocketListener>(g_socket_listener_new()), nullptr};
  Ref<GInetAddress> loopback(g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4));
  Ref<GSocketAddress> wanted(g_inet_socket_address_new(loopback.get(), 0));
  GSocketAddress *address = nullptr;
  must(g_socket_listener_add_address(made.listener.get(), wanted.get(), G_SOCKET_TYPE_STREAM,
                                     G_SOCKET_PROTOCOL_TCP, nullptr, &address, &error),
       error, "listen");
  made.address.reset(address);
  return made;
}

static SocketPair
connectTcp()
{
  static Listening listening = startListening();
  if (listening.left-- == 0)
    listening = startListening();

  GError *error = nullptr;
  Ref<GSocketClient> client(g_socket_client_new());
  g_socket_client_set_enable_proxy(client.get(), FALSE);
  SocketPair pair;
  pair.near.reset(g_socket_client_connect(
      client.get(), G_SOCKET_CONNECTABLE(listening.address.get()), nullptr, &error));
  must(pair.near != nullptr, error, "connect");
  pair.far.reset(g_socket_listener_accept(listening.listener.get(), nullptr, nullptr, &error));
  must(pair.far != nullptr, error, "accept");
  for (auto *connection : {pair.near.get(), pair.far.get()})
    must(g_socket_set_option(g_socket_connection_get_socket(connection), IPPROTO_TCP, TCP_NODELAY,
                             TRUE, &error),
         error, "TCP_NODELAY");
  return pair;
}

Sockets
connectSockets(Transport transport)
{
  return std::make_shared<SocketPair>(transport == Transport::tcp ? connectTcp() : connectUnix());
}

// ---- The library's channel ----

const char *
stagesName(Stages stages)
{
  const char *const names[] = {"by hand", "plain", "compressed", "encrypted", "both"};
  return names[static_cast<int>(stages)];
}

static Ref<GIOStream>
makeStream(GSocketConnection *connection, Stages stages)
{
  if (stages == Stages::bare)
    return share(G_IO_STREAM(connection));

  static const guint8 keyData[32] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
  Ref<GvcConnection> channel(gvc_connection_new(connection));
  if (stages == Stages::encryption || stages == Stages::both) {
    Ref<GBytes> key(g_bytes_new_static(keyData, sizeof keyData));
    Ref<GvcDecryptor> in(gvc_decryptor_new(key.get()));
    Ref<GvcEncryptor> out(gvc_encryptor_new(key.get()));
    gvc_connection_add_converters(channel.get(), G_CONVERTER(in.get()), G_CONVERTER(out.get()));
  }
  if (stages == Stages::compression || stages == Stages::both) {
    Ref<GvcDecompressor> in(gvc_decompressor_new());
    Ref<GvcCompressor> out(gvc_compressor_new());
    gvc_connection_add_converters(channel.get(), G_CONVERTER(in.get()), G_CONVERTER(out.get()));
  }
  return Ref<GIOStream>(G_IO_STREAM(channel.release()));
}

Streams
streamsOn(const Sockets &sockets, Stages stages)
{
  return std::make_shared<StreamPair>(
      StreamPair{makeStream(sockets->near.get(), stages), makeStream(sockets->far.get(), stages)});
}

namespace
{

class ZelgvcEnd : public End
{
public:
  explicit ZelgvcEnd(GIOStream *channel)
      : _channel(share(channel)),
        _in(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(channel))),
        _out(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(channel)))
  {
  }

  void
  send(GBytes *message) override
  {
    GError *error = nullptr;
    must(gvc_bytes_output_stream_put_bytes(_out.get(), message, nullptr, &error), error, "send");
  }

  Ref<GBytes>
  receive() override
  {
    GError *error = nullptr;
    Ref<GBytes> message(gvc_bytes_input_stream_read_bytes(_in.get(), nullptr, &error));
    must(message != nullptr, error, "receive");
    return message;
  }

private:
  Ref<GIOStream> _channel;
  Ref<GvcBytesInputStream> _in;
  Ref<GvcBytesOutputStream> _out;
};

// ---- Frames by hand, on any pair of streams ----

class HandEnd : public End
{
public:
  explicit HandEnd(GIOStream *stream)
      : _stream(share(stream)), _in(g_io_stream_get_input_stream(stream)),
        _out(g_io_stream_get_output_stream(stream))
  {
  }

  void
  send(GBytes *message) override
  {
    gsize size;
    auto *data = g_bytes_get_data(message, &size);
    auto prefix = GUINT32_TO_LE(static_cast<guint32>(size));
    sendFrame(&prefix, data, size);
  }

  Ref<GBytes>
  receive() override
  {
    guint32 prefix;
    read(&prefix, sizeof prefix);
    gsize size = GUINT32_FROM_LE(prefix);
    void *data = g_malloc(size);
    read(data, size);
    return Ref<GBytes>(g_bytes_new_take(data, size));
  }

protected:
  virtual void
  sendFrame(const guint32 *prefix, const void *data, gsize size)
  {
    write(prefix, sizeof *prefix);
    write(data, size);
  }

  void
  write(const void *data, gsize size)
  {
    GError *error = nullptr;
    must(g_output_stream_write_all(_out, data, size, nullptr, nullptr, &error), error, "write");
  }

  void
  read(void *data, gsize size)
  {
    GError *error = nullptr;
    gsize nread;
    must(g_input_stream_read_all(_in, data, size, &nread, nullptr, &error) && nread == size, error,
         "read");
  }

  Ref<GIOStream> _stream;
  GInputStream *_in;
  GOutputStream *_out;
};

class GatheringEnd : public HandEnd
{
public:
  using HandEnd::HandEnd;

protected:
  void
  sendFrame(const guint32 *prefix, const void *data, gsize size) override
  {
    GOutputVector vectors[] = {{prefix, sizeof *prefix}, {data, size}};
    GError *error = nullptr;
    must(g_output_stream_writev_all(_out, vectors, 2, nullptr, nullptr, &error), error, "writev");
  }
};

// ---- Frames over TLS ----

class TlsEnd : public HandEnd
{
public:
  using HandEnd::HandEnd;

protected:
  // For large messages, copying them would cost more than the record that it saves.
  void
  sendFrame(const guint32 *prefix, const void *data, gsize size) override
  {
    constexpr gsize mostCopied = 64 << 10;
    if (size > mostCopied) {
      HandEnd::sendFrame(prefix, data, size);
      return;
    }
    _frame.resize(sizeof *prefix + size);
    std::memcpy(_frame.data(), prefix, sizeof *prefix);
    std::memcpy(_frame.data() + sizeof *prefix, data, size);
    write(_frame.data(), _frame.size());
  }

private:
  std::vector<guint8> _frame;
};

class TlsZlibEnd : public TlsEnd
{
public:
  explicit TlsZlibEnd(GIOStream *stream) : TlsEnd(stream)
  {
    Ref<GZlibDecompressor> inflate(g_zlib_decompressor_new(G_ZLIB_COMPRESSOR_FORMAT_RAW));
    Ref<GZlibCompressor> deflate(g_zlib_compressor_new(G_ZLIB_COMPRESSOR_FORMAT_RAW, 1));
    _inflating.reset(g_converter_input_stream_new(_in, G_CONVERTER(inflate.get())));
    _deflating.reset(g_converter_output_stream_new(_out, G_CONVERTER(deflate.get())));
    _in = _inflating.get();
    _out = _deflating.get();
  }

protected:
  void
  sendFrame(const guint32 *prefix, const void *data, gsize size) override
  {
    TlsEnd::sendFrame(prefix, data, size);
    GError *error = nullptr;
    must(g_output_stream_flush(_out, nullptr, &error), error, "flush");
  }

private:
  Ref<GInputStream> _inflating;
  Ref<GOutputStream> _deflating;
};

std::string lastTls;

void
shakeHands(GIOStream *stream)
{
  GError *error = nullptr;
  must(g_tls_connection_handshake(G_TLS_CONNECTION(stream), nullptr, &error), error,
       "TLS handshake");
}

StreamPair
startTls(const SocketPair &sockets)
{
  GError *error = nullptr;
  Ref<GTlsCertificate> certificate(g_tls_certificate_new_from_file(CERTIFICATE, &error));
  must(certificate != nullptr, error, "certificate (is glib-networking installed?)");
  StreamPair pair;
  pair.near.reset(g_tls_client_connection_new(G_IO_STREAM(sockets.near.get()), nullptr, &error));
  must(pair.near != nullptr, error, "TLS");
  pair.far.reset(
      g_tls_server_connection_new(G_IO_STREAM(sockets.far.get()), certificate.get(), &error));
  must(pair.far != nullptr, error, "TLS");
  auto acceptAny = +[](GTlsConnection *, GTlsCertificate *, GTlsCertificateFlags,
                       gpointer) -> gboolean { return TRUE; };
  g_signal_connect(pair.near.get(), "accept-certificate", G_CALLBACK(acceptAny), nullptr);

  std::thread peer(shakeHands, pair.far.get());
  shakeHands(pair.near.get());
  peer.join();

  auto *tls = G_TLS_CONNECTION(pair.near.get());
  g_autofree gchar *suite = g_tls_connection_get_ciphersuite_name(tls);
  bool newest = g_tls_connection_get_protocol_version(tls) == G_TLS_PROTOCOL_VERSION_TLS_1_3;
  lastTls = std::string(newest ? "TLS 1.3" : "TLS 1.2 or older") + ", " + (suite ? suite : "?");
  return pair;
}

template <typename Kind>
SharedLink
linkOver(const Sockets &sockets, const StreamPair &streams)
{
  return std::make_shared<Link>(Link{sockets, std::make_unique<Kind>(streams.near.get()),
                                     std::make_unique<Kind>(streams.far.get())});
}

} // namespace

std::string
tlsDescription()
{
  return lastTls;
}

SharedLink
linkZelgvc(const Sockets &sockets, Stages stages)
{
  return linkOver<ZelgvcEnd>(sockets, *streamsOn(sockets, stages));
}

SharedLink
linkByHand(const Sockets &sockets)
{
  return linkOver<HandEnd>(sockets, *streamsOn(sockets, Stages::bare));
}

SharedLink
linkGathering(const Sockets &sockets)
{
  return linkOver<GatheringEnd>(sockets, *streamsOn(sockets, Stages::bare));
}

SharedLink
linkTls(const Sockets &sockets)
{
  return linkOver<TlsEnd>(sockets, startTls(*sockets));
}

SharedLink
linkTlsZlib(const Sockets &sockets)
{
  return linkOver<TlsZlibEnd>(sockets, startTls(*sockets));
}

// ---- Moving messages ----

namespace
{

void
receiveOne(End &end, gsize size)
{
  auto message = end.receive();
  must(g_bytes_get_size(message.get()) == size, nullptr, "a message of another length arrived");
}

// The far end of a link in a second thread. It answers the last of each `batch` messages: with
// `answer`, or with the message itself. A message of one byte ends it.
class Answering
{
public:
  Answering(SharedLink link, std::size_t batch, GBytes *answer)
      : _link(std::move(link)), _thread([=, this] { loop(batch, answer); })
  {
  }

  ~Answering()
  {
    Ref<GBytes> goodbye(g_bytes_new_static(".", 1));
    _link->near->send(goodbye.get());
    _thread.join();
  }

private:
  void
  loop(std::size_t batch, GBytes *answer) const
  {
    for (std::size_t received = 1;; received++) {
      auto message = _link->far->receive();
      if (g_bytes_get_size(message.get()) == 1)
        return;
      if (received % batch == 0)
        _link->far->send(answer ? answer : message.get());
    }
  }

  SharedLink _link;
  std::thread _thread;
};

Contender
answered(const std::string &name, const SharedLink &link, GBytes *message, std::size_t batch,
         GBytes *answer)
{
  auto peer = std::make_shared<Answering>(link, batch, answer);
  auto size = g_bytes_get_size(answer ? answer : message);
  auto once = [=] {
    for (std::size_t i = 0; i < batch; i++)
      link->near->send(message);
    receiveOne(*link->near, size);
    (void)peer; // its thread must live as long as this
  };
  return {name, repeat(once), batch};
}

} // namespace

void
checkLink(const SharedLink &link, GBytes *message)
{
  Answering peer(link, 1, nullptr);
  link->near->send(message);
  must(g_bytes_equal(link->near->receive().get(), message), nullptr, "a message came back changed");
}

Contender
burst(const std::string &name, const SharedLink &link, const std::vector<GBytes *> &messages,
      std::size_t count)
{
  auto once = [=, at = std::size_t{0}]() mutable {
    auto *message = messages[at++ % messages.size()];
    for (std::size_t i = 0; i < count; i++)
      link->near->send(message);
    for (std::size_t i = 0; i < count; i++)
      receiveOne(*link->far, g_bytes_get_size(message));
  };
  return {name, repeat(once), count};
}

Contender
oneWay(const std::string &name, const SharedLink &link, GBytes *message)
{
  // Enough messages that both threads are busy, and that one answer does not count for much.
  static GBytes *const answer = g_bytes_new_static("done", 4);
  std::size_t batch = CLAMP((4U << 20) / g_bytes_get_size(message), 4, 128);
  return answered(name, link, message, batch, answer);
}

Contender
roundTrip(const std::string &name, const SharedLink &link, GBytes *message)
{
  return answered(name, link, message, 1, nullptr);
}

} // namespace bench
