/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Connected sockets. */
#pragma once

#include "tests/support/values.h"

#include <gio/gio.h>

#include <string>
#include <string_view>

namespace support
{

enum class Family { tcp4, tcp6, unix_domain };

bool have_ipv6();

struct SocketPair {
  Ref<GSocketConnection> a; /* the side that connected */
  Ref<GSocketConnection> b; /* the side that accepted */
};
/* Two connected ends. For tcp6 ask have_ipv6() first. */
SocketPair new_socket_pair(Family family);

/* One end as a connection, the other a bare blocking descriptor. */
class RawPeer
{
public:
  explicit RawPeer(Family family);
  ~RawPeer();
  RawPeer(const RawPeer &) = delete;
  RawPeer &operator=(const RawPeer &) = delete;

  GSocketConnection *
  connection() const
  {
    return connection_.get();
  }
  int
  fd() const
  {
    return fd_;
  }
  /* Blocks until all has been taken; keep it below the socket buffers where one thread does both.
   */
  void send(std::string_view data);
  /* Blocks until `size` bytes or the end have come. */
  std::string receive(size_t size);
  std::string receive_all();
  void shutdown_write();
  void close();
  /* Drops the connection's reference from this helper; the caller's own keep it alive. */
  Ref<GSocketConnection>
  take_connection()
  {
    return std::move(connection_);
  }

private:
  Ref<GSocketConnection> connection_;
  int fd_ = -1;
};

/* A socket connection with these streams. Its socket is connected to nothing. */
Ref<GSocketConnection> new_connection_over(Ref<GInputStream> in, Ref<GOutputStream> out);

} // namespace support
