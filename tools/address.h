// SPDX-License-Identifier: LGPL-2.1-or-later
// HOST:PORT, [V6]:PORT and unix:PATH.
#pragma once

#include <gio/gio.h>

#include <string>

struct Address {
  std::string host; // empty: this machine to connect to, every interface to listen on
  guint16 port = 0;
  std::string path; // of a Unix socket; then there is no host

  static Address parse(const std::string &text);
  std::string text() const;
};

// A connected socket, within `timeout` seconds (0: as long as it takes).
GSocketConnection *connect_to(const Address &address, guint timeout);

// A socket, or several where a host name has several addresses, that peers can connect to. The path
// of a Unix socket is removed again at the end.
class Listener
{
public:
  explicit Listener(const Address &address);
  ~Listener();
  Listener(const Listener &) = delete;

  // The next peer. Throws where the user interrupts.
  GSocketConnection *accept();

  // The next peer and no other: the sockets are closed, and the path is removed, at once.
  GSocketConnection *accept_only();

  // In a forked child: closes the sockets and leaves the path to the parent.
  void abandon();

private:
  void listen_unix(const Address &address);
  void listen_inet(const Address &address);

  GSocketListener *listener;
  std::string path;
};
