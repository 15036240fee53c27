// SPDX-License-Identifier: LGPL-2.1-or-later
// HOST:PORT, [V6]:PORT and unix:PATH.
#pragma once

#include "errors.h"
#include "owners.h"

#include <functional>
#include <string>
#include <sys/stat.h>

struct Address {
  std::string host; // empty: this machine to connect to, every interface to listen on
  guint16 port = 0;
  std::string path; // of a Unix socket; then there is no host

  static Address parse(const std::string &text);
  std::string text() const;
};

// Connects within `timeout` seconds (0: no limit).
GSocketConnection *connect_to(const Address &address, guint timeout);

// The listening sockets of an address: one for each address of a host name. The destructor removes
// the path of a Unix socket.
class Listener
{
public:
  explicit Listener(const Address &address);
  ~Listener();
  Listener(const Listener &) = delete;

  // The next peer. Throws if the user interrupts.
  GSocketConnection *accept();
  // The same for a service, which waits as long as the system refuses.
  GSocketConnection *accept_next();

  // Serves the only peer: closes the sockets and removes the path before. With `keep`, serves one
  // peer after another until the user interrupts, and goes on after a failure of another code.
  Exit serve(bool keep, const std::function<Exit(GSocketConnection *)> &serve_peer,
             Exit ends_with = Exit::interrupted);

  // For a forked child: closes the sockets but leaves the path to the parent.
  void abandon();

private:
  void listen_unix(const Address &address);
  void listen_inet(const Address &address);

  void close();

  Owned<GSocketListener> listener;
  std::string path; // of the bound Unix socket
  struct stat bound = {};
};
