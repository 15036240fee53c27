// SPDX-License-Identifier: LGPL-2.1-or-later
#include "links.h"
#include "corpora.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cstdio>
#include <cstring>
#include <thread>

namespace bench
{

// ---- Sockets ----

support::SocketPair
connectSockets(const std::string &transport)
{
  if (transport == "unix")
    return support::new_socket_pair(support::Family::unix_domain);
  // With a listener for each pair, a crowd would run out of ports.
  static auto *listener = g_socket_listener_new();
  static auto port = g_socket_listener_add_any_inet_port(listener, nullptr, nullptr);
  GError *error = nullptr;
  auto client = support::own(g_socket_client_new());
  g_socket_client_set_enable_proxy(client.get(), FALSE);
  support::SocketPair pair;
  pair.a.reset(g_socket_client_connect_to_host(client.get(), "127.0.0.1", port, nullptr, &error));
  must(pair.a != nullptr, error, "connect");
  pair.b.reset(g_socket_listener_accept(listener, nullptr, nullptr, &error));
  must(pair.b != nullptr, error, "accept");
  for (auto *connection : {pair.a.get(), pair.b.get()})
    must(g_socket_set_option(g_socket_connection_get_socket(connection), IPPROTO_TCP, TCP_NODELAY,
                             TRUE, &error),
         error, "TCP_NODELAY");
  return pair;
}

// ---- Streams ----

static Ref<GIOStream>
streamOn(GSocketConnection *connection, const std::string &kind)
{
  if (kind == "by hand")
    return Ref<GIOStream>(G_IO_STREAM(g_object_ref(connection)));

  static const guint8 keyData[32] = {9, 8, 7, 6, 5, 4, 3, 2, 1};
  auto *channel = gvc_connection_new(connection);
  auto addStage = [&](gpointer in, gpointer out) {
    gvc_connection_add_converters(channel, G_CONVERTER(in), G_CONVERTER(out));
    g_object_unref(in);
    g_object_unref(out);
  };
  if (kind == "encrypted" || kind == "both") {
    BytesRef key(g_bytes_new_static(keyData, sizeof keyData));
    addStage(gvc_decryptor_new(key.get()), gvc_encryptor_new(key.get()));
  }
  if (kind == "compressed" || kind == "both")
    addStage(gvc_decompressor_new(), gvc_compressor_new());
  return Ref<GIOStream>(G_IO_STREAM(channel));
}

Streams
streamsOn(const support::SocketPair &sockets, const std::string &kind)
{
  return {streamOn(sockets.a.get(), kind), streamOn(sockets.b.get(), kind)};
}

static void
shakeHands(GIOStream *stream)
{
  GError *error = nullptr;
  must(g_tls_connection_handshake(G_TLS_CONNECTION(stream), nullptr, &error), error,
       "TLS handshake");
}

// Prints the facts about this build that run.py cannot know.
static void
printBuild(GTlsConnection *tls)
{
#ifdef __clang__
  const char *compiler = "clang " __VERSION__;
#else
  const char *compiler = "g++ " __VERSION__;
#endif
  g_autofree gchar *suite = g_tls_connection_get_ciphersuite_name(tls);
  bool newest = g_tls_connection_get_protocol_version(tls) == G_TLS_PROTOCOL_VERSION_TLS_1_3;
  std::printf("{\"group\": \"build\", \"compiler\": \"%s\", \"tls\": \"%s, %s\"}\n", compiler,
              newest ? "TLS 1.3" : "TLS 1.2 or older", suite ? suite : "?");
}

static Streams
tlsOn(const support::SocketPair &sockets)
{
  GError *error = nullptr;
  Ref<GTlsCertificate> certificate(g_tls_certificate_new_from_file(CERTIFICATE, &error));
  must(certificate != nullptr, error, "certificate (is glib-networking installed?)");
  Streams pair;
  pair.near.reset(g_tls_client_connection_new(G_IO_STREAM(sockets.a.get()), nullptr, &error));
  must(pair.near != nullptr, error, "TLS");
  pair.far.reset(
      g_tls_server_connection_new(G_IO_STREAM(sockets.b.get()), certificate.get(), &error));
  must(pair.far != nullptr, error, "TLS");
  auto acceptAny = +[](GTlsConnection *, GTlsCertificate *, GTlsCertificateFlags,
                       gpointer) -> gboolean { return TRUE; };
  g_signal_connect(pair.near.get(), "accept-certificate", G_CALLBACK(acceptAny), nullptr);

  std::thread peer(shakeHands, pair.far.get());
  shakeHands(pair.near.get());
  peer.join();

  printBuild(G_TLS_CONNECTION(pair.near.get()));
  return pair;
}

// ---- Ends ----

namespace
{

void
sendMessage(GOutputStream *out, GBytes *message)
{
  GError *error = nullptr;
  must(gvc_bytes_output_stream_put_bytes(GVC_BYTES_OUTPUT_STREAM(out), message, nullptr, &error),
       error, "send");
}

BytesRef
receiveMessage(GInputStream *in)
{
  GError *error = nullptr;
  BytesRef message(gvc_bytes_input_stream_read_bytes(GVC_BYTES_INPUT_STREAM(in), nullptr, &error));
  must(message != nullptr, error, "receive");
  return message;
}

using SendFrame = bool (*)(GOutputStream *out, const guint32 *prefix, const void *data, gsize size,
                           GError **error);

bool
twoWrites(GOutputStream *out, const guint32 *prefix, const void *data, gsize size, GError **error)
{
  return g_output_stream_write_all(out, prefix, sizeof *prefix, nullptr, nullptr, error) &&
         g_output_stream_write_all(out, data, size, nullptr, nullptr, error);
}

bool
gatheringWrite(GOutputStream *out, const guint32 *prefix, const void *data, gsize size,
               GError **error)
{
  GOutputVector vectors[] = {{prefix, sizeof *prefix}, {data, size}};
  return g_output_stream_writev_all(out, vectors, 2, nullptr, nullptr, error);
}

// For large messages, copying them would cost more than the TLS record that it saves.
bool
oneWrite(GOutputStream *out, const guint32 *prefix, const void *data, gsize size, GError **error)
{
  static thread_local guint8 frame[sizeof *prefix + (64 << 10)];
  if (sizeof *prefix + size > sizeof frame)
    return twoWrites(out, prefix, data, size, error);
  std::memcpy(frame, prefix, sizeof *prefix);
  std::memcpy(frame + sizeof *prefix, data, size);
  return g_output_stream_write_all(out, frame, sizeof *prefix + size, nullptr, nullptr, error);
}

// Frames by hand, on any stream.
template <SendFrame sendFrame>
void
sendByHand(GOutputStream *out, GBytes *message)
{
  gsize size;
  auto *data = g_bytes_get_data(message, &size);
  auto prefix = GUINT32_TO_LE(static_cast<guint32>(size));
  GError *error = nullptr;
  must(sendFrame(out, &prefix, data, size, &error), error, "write");
}

void
readFully(GInputStream *in, void *data, gsize size)
{
  GError *error = nullptr;
  gsize nread;
  must(g_input_stream_read_all(in, data, size, &nread, nullptr, &error) && nread == size, error,
       "read");
}

BytesRef
receiveByHand(GInputStream *in)
{
  guint32 prefix;
  readFully(in, &prefix, sizeof prefix);
  gsize size = GUINT32_FROM_LE(prefix);
  void *data = g_malloc(size);
  readFully(in, data, size);
  return BytesRef(g_bytes_new_take(data, size));
}

End
makeEnd(Ref<GIOStream> stream, const std::string &kind)
{
  auto *in = g_io_stream_get_input_stream(stream.get());
  auto *out = g_io_stream_get_output_stream(stream.get());
  auto byHand = [&](auto send) {
    return End{std::move(stream), wrap(in, nullptr), wrap(out, nullptr), send, receiveByHand};
  };
  if (kind == "by hand")
    return byHand(sendByHand<twoWrites>);
  if (kind == "gathering")
    return byHand(sendByHand<gatheringWrite>);
  if (kind == "tls")
    return byHand(sendByHand<oneWrite>);
  return {std::move(stream), wrap(in, gvc_bytes_input_stream_get_type),
          wrap(out, gvc_bytes_output_stream_get_type), sendMessage, receiveMessage};
}

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
    BytesRef goodbye(g_bytes_new_static(".", 1));
    _link->near.send(goodbye.get());
    _thread.join();
  }

private:
  void
  loop(std::size_t batch, GBytes *answer) const
  {
    for (std::size_t received = 1;; received++) {
      auto message = _link->far.receive();
      if (g_bytes_get_size(message.get()) == 1)
        return;
      if (received % batch == 0)
        _link->far.send(answer ? answer : message.get());
    }
  }

  SharedLink _link;
  std::thread _thread;
};

Contender
answered(const std::string &name, const SharedLink &link, GBytes *message, std::size_t batch,
         GBytes *answer)
{
  auto once = [=, peer = std::make_shared<Answering>(link, batch, answer),
               size = g_bytes_get_size(answer ? answer : message)] {
    for (std::size_t i = 0; i < batch; i++)
      link->near.send(message);
    receiveOne(link->near, size);
  };
  return {name, repeat(once), batch};
}

} // namespace

SharedLink
makeLink(const support::SocketPair &sockets, const std::string &kind)
{
  auto streams =
      kind == "tls" ? tlsOn(sockets) : streamsOn(sockets, kind == "gathering" ? "by hand" : kind);
  auto link = std::make_shared<Link>(
      Link{makeEnd(std::move(streams.near), kind), makeEnd(std::move(streams.far), kind)});

  Answering peer(link, 1, nullptr);
  static const auto data = source(1 << 20);
  for (gsize size : {16, 1024, 65536, 1 << 20}) {
    BytesRef message(g_bytes_new_static(data.data(), size));
    link->near.send(message.get());
    must(g_bytes_equal(link->near.receive().get(), message.get()), nullptr,
         "a message came back changed");
  }
  return link;
}

// ---- Contenders ----

Contender
burst(const std::string &name, const SharedLink &link, const std::vector<GBytes *> &messages,
      std::size_t count)
{
  auto once = [=, at = std::size_t{0}]() mutable {
    auto *message = messages[at++ % messages.size()];
    for (std::size_t i = 0; i < count; i++)
      link->near.send(message);
    for (std::size_t i = 0; i < count; i++)
      receiveOne(link->far, g_bytes_get_size(message));
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
