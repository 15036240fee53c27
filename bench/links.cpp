// SPDX-License-Identifier: LGPL-2.1-or-later
#include "links.h"
#include "certificate.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace bench
{

// ---- Sockets ----

const char *
transportName(Transport transport)
{
  return transport == Transport::tcp ? "tcp" : "unix";
}

static Object<GSocketConnection>
wrapSocket(int fd)
{
  GError *error = nullptr;
  Object<GSocket> socket(g_socket_new_from_fd(fd, &error));
  must(socket != nullptr, error, "socket");
  return Object<GSocketConnection>(g_socket_connection_factory_create_connection(socket.get()));
}

static SocketPair
connectUnix()
{
  int fds[2];
  must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, nullptr, "socketpair");
  return {wrapSocket(fds[0]), wrapSocket(fds[1])};
}

static void
setNoDelay(GSocketConnection *connection)
{
  GError *error = nullptr;
  must(g_socket_set_option(g_socket_connection_get_socket(connection), IPPROTO_TCP, TCP_NODELAY,
                           TRUE, &error),
       error, "TCP_NODELAY");
}

// A port carries so many connections: those that are closed keep theirs for a minute.
struct Listening {
  Object<GSocketListener> listener;
  Object<GSocketAddress> address;
  unsigned left = 4096;
};

static Listening
startListening()
{
  GError *error = nullptr;
  Listening made{Object<GSocketListener>(g_socket_listener_new()), nullptr};
  Object<GInetAddress> loopback(g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4));
  Object<GSocketAddress> wanted(g_inet_socket_address_new(loopback.get(), 0));
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
  Object<GSocketClient> client(g_socket_client_new());
  g_socket_client_set_enable_proxy(client.get(), FALSE);
  SocketPair pair;
  pair.near.reset(g_socket_client_connect(
      client.get(), G_SOCKET_CONNECTABLE(listening.address.get()), nullptr, &error));
  must(pair.near != nullptr, error, "connect");
  pair.far.reset(g_socket_listener_accept(listening.listener.get(), nullptr, nullptr, &error));
  must(pair.far != nullptr, error, "accept");
  setNoDelay(pair.near.get());
  setNoDelay(pair.far.get());
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
  switch (stages) {
  case Stages::bare:
    return "gio";
  case Stages::none:
    return "plain";
  case Stages::compression:
    return "compressed";
  case Stages::encryption:
    return "encrypted";
  case Stages::both:
    return "both";
  }
  return "";
}

static Object<GIOStream>
makeStream(GSocketConnection *connection, Stages stages)
{
  if (stages == Stages::bare)
    return share(G_IO_STREAM(connection));

  static const guint8 key_data[32] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
  Object<GvcConnection> channel(gvc_connection_new(connection));

  if (stages == Stages::encryption || stages == Stages::both) {
    SharedBytes key(g_bytes_new_static(key_data, sizeof key_data));
    Object<GvcDecryptor> in(gvc_decryptor_new(key.get()));
    Object<GvcEncryptor> out(gvc_encryptor_new(key.get()));
    gvc_connection_add_converters(channel.get(), G_CONVERTER(in.get()), G_CONVERTER(out.get()));
  }
  if (stages == Stages::compression || stages == Stages::both) {
    Object<GvcDecompressor> in(gvc_decompressor_new());
    Object<GvcCompressor> out(gvc_compressor_new());
    gvc_connection_add_converters(channel.get(), G_CONVERTER(in.get()), G_CONVERTER(out.get()));
  }
  return Object<GIOStream>(G_IO_STREAM(channel.release()));
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

  SharedBytes
  receive() override
  {
    GError *error = nullptr;
    SharedBytes message(gvc_bytes_input_stream_read_bytes(_in.get(), nullptr, &error));
    must(message != nullptr, error, "receive");
    return message;
  }

private:
  Object<GIOStream> _channel;
  Object<GvcBytesInputStream> _in;
  Object<GvcBytesOutputStream> _out;
};

// ---- Frames by hand, on any pair of streams ----

class GioEnd : public End
{
public:
  explicit GioEnd(GIOStream *stream)
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
    write(&prefix, sizeof prefix);
    write(data, size);
  }

  SharedBytes
  receive() override
  {
    guint32 prefix;
    read(&prefix, sizeof prefix);
    gsize size = GUINT32_FROM_LE(prefix);
    void *data = g_malloc(size);
    read(data, size);
    return SharedBytes(g_bytes_new_take(data, size));
  }

protected:
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

  Object<GIOStream> _stream;
  GInputStream *_in;
  GOutputStream *_out;
};

class GatheringEnd : public GioEnd
{
public:
  using GioEnd::GioEnd;

  void
  send(GBytes *message) override
  {
    gsize size;
    auto *data = g_bytes_get_data(message, &size);
    auto prefix = GUINT32_TO_LE(static_cast<guint32>(size));
    GOutputVector vectors[] = {{&prefix, sizeof prefix}, {data, size}};
    GError *error = nullptr;
    must(g_output_stream_writev_all(_out, vectors, 2, nullptr, nullptr, &error), error, "writev");
  }
};

// ---- Frames over TLS ----

class TlsEnd : public GioEnd
{
public:
  using GioEnd::GioEnd;

  void
  send(GBytes *message) override
  {
    gsize size;
    auto *data = g_bytes_get_data(message, &size);
    auto prefix = GUINT32_TO_LE(static_cast<guint32>(size));
    // Beyond some records a copy costs more than a record saved.
    if (size > most_copied) {
      write(&prefix, sizeof prefix);
      write(data, size);
    } else {
      _frame.resize(sizeof prefix + size);
      std::memcpy(_frame.data(), &prefix, sizeof prefix);
      std::memcpy(_frame.data() + sizeof prefix, data, size);
      write(_frame.data(), _frame.size());
    }
    finishMessage();
  }

protected:
  virtual void
  finishMessage()
  {
  }

private:
  static constexpr gsize most_copied = 64 << 10;
  std::vector<guint8> _frame;
};

class TlsZlibEnd : public TlsEnd
{
public:
  explicit TlsZlibEnd(GIOStream *stream) : TlsEnd(stream)
  {
    Object<GZlibDecompressor> inflate(g_zlib_decompressor_new(G_ZLIB_COMPRESSOR_FORMAT_RAW));
    Object<GZlibCompressor> deflate(g_zlib_compressor_new(G_ZLIB_COMPRESSOR_FORMAT_RAW, 1));
    _inflating.reset(g_converter_input_stream_new(_in, G_CONVERTER(inflate.get())));
    _deflating.reset(g_converter_output_stream_new(_out, G_CONVERTER(deflate.get())));
    _in = _inflating.get();
    _out = _deflating.get();
  }

protected:
  void
  finishMessage() override
  {
    GError *error = nullptr;
    must(g_output_stream_flush(_out, nullptr, &error), error, "flush");
  }

private:
  Object<GInputStream> _inflating;
  Object<GOutputStream> _deflating;
};

std::string lastTls;

gboolean
acceptAny(GTlsConnection *, GTlsCertificate *, GTlsCertificateFlags, gpointer)
{
  return TRUE;
}

StreamPair
startTls(const SocketPair &sockets)
{
  PeerThread peer;
  GError *error = nullptr;
  Object<GTlsCertificate> certificate(makeCertificate());
  StreamPair pair;
  pair.near.reset(g_tls_client_connection_new(G_IO_STREAM(sockets.near.get()), nullptr, &error));
  must(pair.near != nullptr, error, "TLS (is glib-networking installed?)");
  pair.far.reset(
      g_tls_server_connection_new(G_IO_STREAM(sockets.far.get()), certificate.get(), &error));
  must(pair.far != nullptr, error, "TLS");
  g_signal_connect(pair.near.get(), "accept-certificate", G_CALLBACK(acceptAny), nullptr);

  auto shakeHands = [](GIOStream *stream) {
    GError *failure = nullptr;
    must(g_tls_connection_handshake(G_TLS_CONNECTION(stream), nullptr, &failure), failure,
         "TLS handshake");
  };
  peer.start([&] { shakeHands(pair.far.get()); });
  shakeHands(pair.near.get());
  peer.wait();

  auto *tls = G_TLS_CONNECTION(pair.near.get());
  g_autofree gchar *suite = g_tls_connection_get_ciphersuite_name(tls);
  bool newest = g_tls_connection_get_protocol_version(tls) == G_TLS_PROTOCOL_VERSION_TLS_1_3;
  lastTls = std::string(newest ? "TLS 1.3" : "TLS 1.2 or older") + ", " + (suite ? suite : "?");
  return pair;
}

template <typename Kind>
std::unique_ptr<Link>
linkOver(const Sockets &sockets, const StreamPair &streams)
{
  auto link = std::make_unique<Link>();
  link->sockets = sockets;
  link->near = std::make_unique<Kind>(streams.near.get());
  link->far = std::make_unique<Kind>(streams.far.get());
  return link;
}

} // namespace

std::string
tlsDescription()
{
  return lastTls;
}

std::unique_ptr<Link>
linkZelgvc(const Sockets &sockets, Stages stages)
{
  return linkOver<ZelgvcEnd>(sockets, *streamsOn(sockets, stages));
}

std::unique_ptr<Link>
linkGio(const Sockets &sockets)
{
  return linkOver<GioEnd>(sockets, *streamsOn(sockets, Stages::bare));
}

std::unique_ptr<Link>
linkGathering(const Sockets &sockets)
{
  return linkOver<GatheringEnd>(sockets, *streamsOn(sockets, Stages::bare));
}

std::unique_ptr<Link>
linkTls(const Sockets &sockets)
{
  return linkOver<TlsEnd>(sockets, startTls(*sockets));
}

std::unique_ptr<Link>
linkTlsZlib(const Sockets &sockets)
{
  return linkOver<TlsZlibEnd>(sockets, startTls(*sockets));
}

// ---- The second thread ----

PeerThread::PeerThread() : _thread([this] { loop(); }) {}

PeerThread::~PeerThread()
{
  {
    std::lock_guard lock(_mutex);
    _ending = true;
  }
  _changed.notify_all();
  _thread.join();
}

void
PeerThread::loop()
{
  std::unique_lock lock(_mutex);
  for (;;) {
    _changed.wait(lock, [this] { return _busy || _ending; });
    if (!_busy)
      return;
    lock.unlock();
    _task();
    lock.lock();
    _busy = false;
    _changed.notify_all();
  }
}

void
PeerThread::start(std::function<void()> task)
{
  std::lock_guard lock(_mutex);
  _task = std::move(task);
  _busy = true;
  _changed.notify_all();
}

void
PeerThread::wait()
{
  std::unique_lock lock(_mutex);
  _changed.wait(lock, [this] { return !_busy; });
}

// ---- Moving messages ----

static void
receiveOne(End &end, gsize size)
{
  auto message = end.receive();
  must(g_bytes_get_size(message.get()) == size, nullptr, "a message of another length arrived");
}

namespace
{

double
now()
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// What both threads of a duel go by: who is on when.
struct Schedule {
  const std::vector<Entrant> &entrants;
  std::size_t batches;
  std::size_t first;

  template <typename Turn>
  void
  follow(Turn turn) const
  {
    for (std::size_t batch = 0; batch < batches; batch++)
      for (std::size_t i = 0; i < entrants.size(); i++)
        turn((first + i) % entrants.size());
  }
};

// near(link) does a batch of `operations`, and is timed; far(link), its other end, runs in the
// second thread.
template <typename Near, typename Far>
Duel
makeDuel(const std::vector<Entrant> &entrants, std::size_t operations, Near near, Far far)
{
  Duel duel{{}, operations, {}};
  for (const auto &entrant : entrants)
    duel.names.push_back(entrant.name);
  duel.run = [=](std::size_t batches, std::size_t first,
                 std::vector<std::vector<double>> &seconds) {
    Schedule schedule{entrants, batches, first};
    auto &peer = entrants[0].link->peer;
    peer.start([&] { schedule.follow([&](std::size_t i) { far(*entrants[i].link); }); });
    schedule.follow([&](std::size_t i) {
      double before = now();
      near(*entrants[i].link);
      seconds[i].push_back((now() - before) / static_cast<double>(operations));
    });
    peer.wait();
  };
  return duel;
}

} // namespace

Contender
inOneThread(const std::string &name, Link &link, const std::vector<GBytes *> &messages)
{
  auto move = [&link, next = cycle(messages)]() mutable {
    auto *message = next();
    link.near->send(message);
    receiveOne(*link.far, g_bytes_get_size(message));
  };
  return {name, repeat(move)};
}

void
runBurst(Link &link, GBytes *message, std::size_t times)
{
  for (std::size_t i = 0; i < times; i++)
    link.near->send(message);
  for (std::size_t i = 0; i < times; i++)
    receiveOne(*link.far, g_bytes_get_size(message));
}

Duel
duelBurst(const std::vector<Entrant> &entrants, GBytes *message)
{
  constexpr std::size_t batch = 16;
  auto near = [=](Link &link) { runBurst(link, message, batch); };
  return makeDuel(entrants, batch, near, [](Link &) {});
}

Duel
duelOneWay(const std::vector<Entrant> &entrants, GBytes *message)
{
  // Enough that the one answer does not count for much, in messages of every size.
  static const guint8 answer_data[4] = {};
  gsize size = g_bytes_get_size(message);
  std::size_t batch = CLAMP((1U << 20) / size, 1, 128);
  auto near = [=](Link &link) {
    for (std::size_t i = 0; i < batch; i++)
      link.near->send(message);
    receiveOne(*link.near, sizeof answer_data);
  };
  auto far = [=](Link &link) {
    for (std::size_t i = 0; i < batch; i++)
      receiveOne(*link.far, size);
    SharedBytes answer(g_bytes_new_static(answer_data, sizeof answer_data));
    link.far->send(answer.get());
  };
  return makeDuel(entrants, batch, near, far);
}

Duel
duelRoundTrip(const std::vector<Entrant> &entrants, GBytes *message)
{
  auto near = [=, size = g_bytes_get_size(message)](Link &link) {
    link.near->send(message);
    receiveOne(*link.near, size);
  };
  auto far = [](Link &link) { link.far->send(link.far->receive().get()); };
  return makeDuel(entrants, 1, near, far);
}

void
runOneWay(Link &link, const std::vector<SharedBytes> &messages, std::size_t times)
{
  link.peer.start([&] {
    for (std::size_t i = 0; i < times; i++)
      for (const auto &message : messages)
        receiveOne(*link.far, g_bytes_get_size(message.get()));
  });
  for (std::size_t i = 0; i < times; i++)
    for (const auto &message : messages)
      link.near->send(message.get());
  link.peer.wait();
}

void
checkLink(Link &link, GBytes *message)
{
  link.peer.start([&] { link.far->send(link.far->receive().get()); });
  link.near->send(message);
  must(g_bytes_equal(link.near->receive().get(), message), nullptr, "a message came back changed");
  link.peer.wait();
}

} // namespace bench
