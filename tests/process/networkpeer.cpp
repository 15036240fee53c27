// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/process/networkpeer.h"
#include "tests/process/networklink.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

using namespace support;
using namespace traffic;

namespace network
{

const int signal_reset = SIGUSR1;
const int signal_impatience = SIGUSR2;

/* ---- Plans ---- */

namespace
{

guint
small_messages(Plan plan)
{
  switch (plan) {
  case Plan::few:
    return 12;
  case Plan::doomed:
    return doomed_messages;
  case Plan::many:
  case Plan::huge:
    break;
  }
  return 60;
}

} // namespace

std::vector<Message>
planned(const Talk &talk, Role sender)
{
  const guint32 base = talk.port * 1000u + (sender == Role::server ? 500u : 0);
  const bool few = talk.plan == Plan::few;
  std::vector<Message> messages;
  for (guint32 i = 0; i < small_messages(talk.plan); i++) {
    const auto form = static_cast<Form>(i % forms);
    const bool large = i % 30 == 28 && form != Form::string && !few && talk.plan != Plan::doomed;
    const gsize size = large ? 100'000 : 1 + (base + i) * 7919u % (few ? 400 : 3000);
    messages.push_back({form, base + i, size});
  }
  if (talk.plan == Plan::huge)
    messages.push_back({Form::bytes, base + 400, 1'500'000});
  if (talk.plan == Plan::doomed && sender == Role::client)
    messages.push_back({talk.doomed_form, base + 400, doomed_size});
  return messages;
}

/* ---- Lines ---- */

std::string
to_line(const Outcome &outcome)
{
  return std::to_string(outcome.received) + "\t" + std::to_string(outcome.sent) + "\t" +
         (outcome.zeros ? "zeros" : "-") + "\t" + outcome.domain + "\t" +
         std::to_string(outcome.code) + "\t" + outcome.text + "\n";
}

std::optional<Outcome>
from_line(const std::string &line)
{
  char **const fields = g_strsplit(line.substr(0, line.find('\n')).c_str(), "\t", 6);
  std::optional<Outcome> outcome;
  if (g_strv_length(fields) == 6)
    outcome = {static_cast<guint>(atoi(fields[0])),
               static_cast<guint>(atoi(fields[1])),
               g_str_equal(fields[2], "zeros") != FALSE,
               fields[3],
               atoi(fields[4]),
               fields[5]};
  g_strfreev(fields);
  return outcome;
}

std::vector<std::string>
to_arguments(const Talk &talk, Role role)
{
  return {role == Role::client ? "client" : "server",
          std::to_string(talk.port),
          std::to_string(talk.staged),
          std::to_string(talk.asynchronous),
          std::to_string(static_cast<int>(talk.plan)),
          std::to_string(static_cast<int>(talk.doomed_form))};
}

/* ---- The peer ---- */

namespace
{

/* The last message of the client: all has arrived. Then the server closes. */
constexpr Message farewell = {Form::bytes, 1, 30};

class Peer
{
public:
  Peer(const Talk &talk, Role role, GSocketConnection *connection)
      : talk_(talk), role_(role), channel_(connection, talk.staged ? both_stages : Stages{}),
        to_send_(planned(talk, role)),
        to_receive_(planned(talk, role == Role::client ? Role::server : Role::client))
  {
    (role == Role::client ? to_send_ : to_receive_).push_back(farewell);
  }
  virtual ~Peer() = default;
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  Outcome
  run()
  {
    talk();
    if (outcome_.domain.empty() && role_ == Role::server)
      close();
    else
      channel_.abandon();
    return outcome_;
  }

protected:
  virtual void talk() = 0;

  /* The first error is the one that counts. */
  void
  fail(const Error &error)
  {
    g_assert_nonnull(error.get());
    if (!outcome_.domain.empty())
      return;
    outcome_.domain = g_quark_to_string(error.get()->domain);
    outcome_.code = error.get()->code;
    outcome_.text = error.get()->message;
  }
  [[noreturn]] void
  wrong(const char *what)
  {
    g_error("%s of port %u: %s after %u messages", role_ == Role::client ? "client" : "server",
            talk_.port, what, outcome_.received);
  }
  void
  received(const std::string &data)
  {
    const Message &message = to_receive_[outcome_.received];
    const std::string expected = content(message);
    if (data == expected)
      outcome_.received++;
    else if (message.size == doomed_size && cut(data, expected))
      outcome_.zeros = true;
    else
      wrong("wrong bytes");
  }
  /* Without stages, the blocking reader reports a cut like this. */
  bool
  cut(const std::string &data, const std::string &expected)
  {
    if (talk_.staged || talk_.asynchronous || data.size() != expected.size())
      return false;
    const auto rest = data.find_last_not_of('\0') + 1;
    return data.compare(0, rest, expected, 0, rest) == 0;
  }
  /* Only the end of the stream may follow the farewell. */
  void
  expect_end(bool got, Error &error)
  {
    if (got)
      wrong("more than planned");
    if (talk_.staged)
      error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
    else
      error.assert_is(GVC_ERROR, GVC_ERROR_DISCONNECTED);
  }
  void
  close()
  {
    Error error;
    if (!channel_.close(&error))
      fail(error);
    channel_.abandon();
  }
  bool
  all_received() const
  {
    return outcome_.received == to_receive_.size();
  }
  bool
  all_sent() const
  {
    return outcome_.sent == to_send_.size();
  }
  /* The farewell of a client has to wait until it has heard everything. */
  bool
  may_send() const
  {
    const bool last = outcome_.sent + 1 == to_send_.size();
    return !all_sent() && (role_ == Role::server || !last || all_received());
  }

  const Talk talk_;
  const Role role_;
  Channel channel_;
  std::vector<Message> to_send_;
  std::vector<Message> to_receive_;
  Outcome outcome_;
};

/* The client says all it has to say, then the server does, then comes the farewell. */
class BlockingPeer : public Peer
{
  using Peer::Peer;

  bool
  send(gsize until)
  {
    while (outcome_.sent < until) {
      Error error;
      if (!Outgoing(to_send_[outcome_.sent]).put(channel_, nullptr, &error)) {
        fail(error);
        return false;
      }
      outcome_.sent++;
    }
    return true;
  }
  bool
  receive(gsize until)
  {
    while (outcome_.received < until) {
      Error error;
      const auto data = get(channel_, to_receive_[outcome_.received].form, nullptr, &error);
      if (!data) {
        fail(error);
        return false;
      }
      received(*data);
    }
    return true;
  }
  void
  talk() override
  {
    Error error;
    if (role_ == Role::server) {
      if (receive(to_receive_.size() - 1) && send(to_send_.size()))
        receive(to_receive_.size());
    } else if (send(to_send_.size() - 1) && receive(to_receive_.size()) && send(to_send_.size())) {
      expect_end(get(channel_, Form::bytes, nullptr, &error).has_value(), error);
    }
  }
};

/* Both talk at the same time, in both directions. */
class AsyncPeer : public Peer
{
  using Peer::Peer;

  void
  send_next()
  {
    if (sending_ || !outcome_.domain.empty() || !may_send())
      return;
    sending_ = std::make_unique<Outgoing>(to_send_[outcome_.sent]);
    sending_->put_async(channel_, stop_.get(), was_sent, this);
  }
  static void
  was_sent(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *const self = static_cast<AsyncPeer *>(user_data);
    Error error;
    const auto sent = std::move(self->sending_);
    if (sent->put_finish(self->channel_, result, &error))
      self->outcome_.sent++;
    else
      self->give_up(error);
    self->send_next();
  }
  void
  receive_next()
  {
    awaiting_end_ = all_received();
    if (!outcome_.domain.empty() || (awaiting_end_ && role_ == Role::server))
      return;
    receiving_ = true;
    receiving_form_ = awaiting_end_ ? Form::bytes : to_receive_[outcome_.received].form;
    get_async(channel_, receiving_form_, stop_.get(), was_received, this);
  }
  static void
  was_received(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *const self = static_cast<AsyncPeer *>(user_data);
    Error error;
    self->receiving_ = false;
    const auto data = get_finish(self->channel_, self->receiving_form_, result, &error);
    /* The farewell can have done its work before its own callback has run. */
    const bool said_all = self->outcome_.sent + 1 >= self->to_send_.size();
    if (self->awaiting_end_ && said_all && self->outcome_.domain.empty()) {
      self->expect_end(data.has_value(), error);
      return;
    }
    if (data)
      self->received(*data);
    else
      self->give_up(error);
    self->receive_next();
    self->send_next();
  }
  /* The other operations end as well. */
  void
  give_up(const Error &error)
  {
    fail(error);
    g_cancellable_cancel(stop_.get());
  }
  void
  talk() override
  {
    receive_next();
    send_next();
    while (sending_ || receiving_)
      g_main_context_iteration(nullptr, TRUE);
    if (outcome_.domain.empty() && !(all_received() && all_sent()))
      wrong("silence");
  }

  Ref<GCancellable> stop_{g_cancellable_new()};
  std::unique_ptr<Outgoing> sending_;
  bool receiving_ = false;
  bool awaiting_end_ = false;
  Form receiving_form_ = Form::bytes;
};

/* ---- Sockets ---- */

Ref<GSocketAddress>
server_address(guint16 port)
{
  return Ref<GSocketAddress>(g_inet_socket_address_new_from_string(address(right), port));
}

Ref<GSocket>
new_socket()
{
  Error error;
  Ref<GSocket> socket(
      g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, &error));
  error.assert_none();
  return socket;
}

Ref<GSocket>
accept_client(guint16 port)
{
  Error error;
  const auto listener = new_socket();
  g_socket_bind(listener.get(), server_address(port).get(), TRUE, &error);
  error.assert_none();
  g_socket_listen(listener.get(), &error);
  error.assert_none();
  Ref<GSocket> socket(g_socket_accept(listener.get(), nullptr, &error));
  error.assert_none();
  return socket;
}

/* The server may not be there yet. */
Ref<GSocket>
connect_to_server(guint16 port)
{
  for (;;) {
    Error error;
    auto socket = new_socket();
    if (g_socket_connect(socket.get(), server_address(port).get(), nullptr, &error))
      return socket;
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED);
    g_usleep(20'000);
  }
}

int socket_fd; /* for the signal handlers */

void
reset_and_exit(int)
{
  linger_not(socket_fd);
  _exit(0);
}

void
become_impatient(int)
{
  const int on = 1, seconds = 1, probes = 2, milliseconds = 3000;
  setsockopt(socket_fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(socket_fd, IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof seconds);
  setsockopt(socket_fd, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
  setsockopt(socket_fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
  setsockopt(socket_fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds, sizeof milliseconds);
}

void
prepare(const Talk &talk, GSocket *socket)
{
  Error error;
  if (talk.plan == Plan::doomed) {
    /* So that most of a large message is not on its way yet when its first part has arrived. */
    g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, 32 * 1024, &error);
    error.assert_none();
  }
  socket_fd = g_socket_get_fd(socket);
  signal(signal_reset, reset_and_exit);
  signal(signal_impatience, become_impatient);
}

} // namespace

int
run_peer(const std::vector<std::string> &arguments)
{
  g_assert_cmpuint(arguments.size(), ==, 6);
  const auto number = [&](gsize i) { return atoi(arguments[i].c_str()); };
  const Role role = arguments[0] == "client" ? Role::client : Role::server;
  const Talk talk = {static_cast<guint16>(number(1)), number(2) != 0, number(3) != 0,
                     static_cast<Plan>(number(4)), static_cast<Form>(number(5))};
  gvc_init();
  const auto socket =
      role == Role::client ? connect_to_server(talk.port) : accept_client(talk.port);
  prepare(talk, socket.get());
  const auto connection = own(g_socket_connection_factory_create_connection(socket.get()));
  std::unique_ptr<Peer> peer;
  if (talk.asynchronous)
    peer = std::make_unique<AsyncPeer>(talk, role, connection.get());
  else
    peer = std::make_unique<BlockingPeer>(talk, role, connection.get());
  const auto line = to_line(peer->run());
  g_assert_cmpint(write(STDOUT_FILENO, line.data(), line.size()), ==,
                  static_cast<ssize_t>(line.size()));
  return EXIT_SUCCESS;
}

} // namespace network
