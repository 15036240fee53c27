// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "interrupt.h"

#include <gio/gunixsocketaddress.h>

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

[[noreturn]] static void
reject(const std::string &text, const char *why)
{
  fail(Exit::usage, "%s: %s; an address is HOST:PORT, [V6]:PORT or unix:PATH",
       printable(text).c_str(), why);
}

Address
Address::parse(const std::string &text)
{
  Address address;

  if (text.starts_with("unix:")) {
    address.path = text.substr(5);
    if (address.path.empty())
      reject(text, "no path");
    if (address.path.size() >= 108)
      reject(text, "the path of a Unix socket has at most 107 bytes");
    return address;
  }

  auto colon = text.rfind(':');
  if (colon == std::string::npos)
    reject(text, "no port");
  address.host = text.substr(0, colon);
  bool bracketed = address.host.starts_with('[') && address.host.ends_with(']');
  if (bracketed)
    address.host = address.host.substr(1, address.host.size() - 2);
  else if (address.host.find(':') != std::string::npos)
    reject(text, "an IPv6 address stands in brackets");

  guint64 port;
  if (!g_ascii_string_to_unsigned(text.c_str() + colon + 1, 10, 0, 65535, &port, nullptr))
    reject(text, "a port is a number up to 65535");
  address.port = static_cast<guint16>(port);
  return address;
}

std::string
Address::text() const
{
  if (!path.empty())
    return "unix:" + printable(path);
  auto shown = host.find(':') == std::string::npos ? printable(host) : "[" + printable(host) + "]";
  return shown + ":" + std::to_string(port);
}

GSocketConnection *
connect_to(const Address &address, guint timeout)
{
  g_autoptr(GSocketConnectable) target = nullptr;
  if (!address.path.empty())
    target = G_SOCKET_CONNECTABLE(g_unix_socket_address_new(address.path.c_str()));
  else if (address.port == 0)
    fail(Exit::usage, "%s: port 0 is no port to connect to", address.text().c_str());
  else
    target = g_network_address_new(address.host.empty() ? "localhost" : address.host.c_str(),
                                   address.port);

  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_socket_client_set_enable_proxy(client, FALSE);
  g_socket_client_set_timeout(client, timeout);
  g_autoptr(GError) error = nullptr;
  auto *connection = g_socket_client_connect(client, target, interrupt_soon(), &error);
  if (connection)
    return connection;
  if (interrupted())
    throw Failure{Exit::interrupted, "interrupted"};
  fail(Exit::address, "cannot connect to %s: %s", address.text().c_str(), error->message);
}

Listener::Listener(const Address &address) : listener(g_socket_listener_new())
{
  // With the ten places of GIO's default, a rush of peers would be refused.
  g_socket_listener_set_backlog(listener.get(), 128);
  if (!address.path.empty())
    listen_unix(address);
  else
    listen_inet(address);
}

Listener::~Listener()
{
  close();
}

// Removes a socket on which nobody listens any more. Anything else at the path stays.
static void
remove_stale_socket(const std::string &path, GSocketAddress *address)
{
  struct stat status;
  if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode))
    return;

  // The type differs, so a listening socket refuses the probe without noticing it.
  g_autoptr(GSocket) probe = g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_DATAGRAM,
                                          G_SOCKET_PROTOCOL_DEFAULT, nullptr);
  g_autoptr(GError) error = nullptr;
  if (probe && !g_socket_connect(probe, address, nullptr, &error) &&
      g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED))
    unlink(path.c_str());
}

void
Listener::listen_unix(const Address &address)
{
  g_autoptr(GSocketAddress) socket_address = g_unix_socket_address_new(address.path.c_str());
  remove_stale_socket(address.path, socket_address);

  g_autoptr(GError) error = nullptr;
  if (!g_socket_listener_add_address(listener.get(), socket_address, G_SOCKET_TYPE_STREAM,
                                     G_SOCKET_PROTOCOL_DEFAULT, nullptr, nullptr, &error))
    fail(Exit::address, "cannot listen on %s: %s", address.text().c_str(), error->message);
  if (lstat(address.path.c_str(), &bound) == 0)
    path = address.path;
  inform("listening on %s", address.text().c_str());
}

static std::vector<Owned<GInetAddress>>
addresses_of(const Address &address)
{
  std::vector<Owned<GInetAddress>> addresses;
  if (address.host.empty()) {
    addresses.emplace_back(g_inet_address_new_any(G_SOCKET_FAMILY_IPV6));
    addresses.emplace_back(g_inet_address_new_any(G_SOCKET_FAMILY_IPV4));
    return addresses;
  }
  g_autoptr(GResolver) resolver = g_resolver_get_default();
  g_autoptr(GError) error = nullptr;
  Owned<GList, g_list_free> list(
      g_resolver_lookup_by_name(resolver, address.host.c_str(), interrupt_soon(), &error));
  if (!list)
    fail(Exit::address, "cannot listen on %s: %s", address.text().c_str(), error->message);
  for (auto *link = list.get(); link; link = link->next)
    addresses.emplace_back(G_INET_ADDRESS(link->data));
  return addresses;
}

// Listens on every address of the host, all with the port of the first. One success is enough: a
// machine may lack IPv6.
void
Listener::listen_inet(const Address &address)
{
  g_autoptr(GError) error = nullptr;
  bool any = false;
  auto port = address.port;

  for (auto &inet : addresses_of(address)) {
    g_autoptr(GSocketAddress) wanted = g_inet_socket_address_new(inet.get(), port);
    g_autoptr(GSocketAddress) effective = nullptr;
    g_autoptr(GError) this_error = nullptr;
    if (g_socket_listener_add_address(listener.get(), wanted, G_SOCKET_TYPE_STREAM,
                                      G_SOCKET_PROTOCOL_DEFAULT, nullptr, &effective,
                                      &this_error)) {
      any = true;
      port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(effective));
      g_autofree char *host = g_inet_address_to_string(inet.get());
      inform("listening on %s", Address{host, port, ""}.text().c_str());
    } else if (!error && !any) {
      error = static_cast<GError *>(g_steal_pointer(&this_error));
    }
  }
  if (!any)
    fail(Exit::address, "cannot listen on %s: %s", address.text().c_str(), error->message);
}

GSocketConnection *
Listener::accept()
{
  g_autoptr(GError) error = nullptr;
  auto *connection = g_socket_listener_accept(listener.get(), nullptr, interrupt_soon(), &error);
  if (connection)
    return connection;
  if (interrupted())
    throw Failure{Exit::interrupted, "interrupted"};
  fail(Exit::address, "cannot accept a connection: %s", error->message);
}

// The system may refuse a connection for a while, for example for want of descriptors. A service
// goes on, with a pause so that the complaints do not fill a log.
GSocketConnection *
Listener::accept_next()
{
  for (;;) {
    try {
      return accept();
    } catch (const Failure &failure) {
      if (interrupted())
        throw;
      complain(failure);
      wait_for(-1, 0, interrupt_soon(), 1000);
    }
  }
}

Exit
Listener::serve(bool keep, const std::function<Exit(GSocketConnection *)> &serve_peer,
                Exit ends_with)
{
  if (!keep) {
    auto *connection = accept();
    close();
    return serve_peer(connection);
  }
  for (;;) {
    try {
      serve_peer(accept_next());
    } catch (const Failure &failure) {
      if (interrupted())
        return Exit::ok;
      if (failure.code == ends_with)
        throw;
      complain(failure);
    } catch (const std::exception &) {
      // The next peer may need less.
      complain("the system refuses memory or a thread for a peer");
    }
  }
}

void
Listener::abandon()
{
  path.clear();
  close();
}

void
Listener::close()
{
  // Something else may have the path by now. While this listens, nothing else has the inode.
  struct stat status;
  if (!path.empty() && lstat(path.c_str(), &status) == 0 && status.st_dev == bound.st_dev &&
      status.st_ino == bound.st_ino)
    unlink(path.c_str());
  path.clear();
  g_socket_listener_close(listener.get());
}
