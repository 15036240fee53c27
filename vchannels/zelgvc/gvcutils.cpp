// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcutils.h"
#include "gvcfixedtexts.h"
#include "gvcconnection.h"

static GSocketConnection *
get_socket_connection(GIOStream *stream)
{
  if (G_IS_SOCKET_CONNECTION(stream))
    return G_SOCKET_CONNECTION(stream);
  if (GVC_IS_CONNECTION(stream))
    return gvc_connection_get_connection(GVC_CONNECTION(stream));
  return nullptr;
}

/**
 * gvc_io_stream_get_remote_address_string:
 * @stream: a #GSocketConnection or a #GvcConnection
 *
 * Formats the address of the peer as address, colon, port. An IPv6 address has no brackets: port
 * 5900 of fe80::1 becomes fe80::1:5900.
 *
 * Returns: (transfer full): the address, or "UNKNOWN" if @stream has another type, is not connected
 *   or has no internet address, such as a Unix socket; free it with g_free()
 *
 * Since: 0.1
 */
gchar *
gvc_io_stream_get_remote_address_string(GIOStream *stream)
{
  g_return_val_if_fail(G_IS_IO_STREAM(stream), nullptr);

  auto *connection = get_socket_connection(stream);
  g_autoptr(GSocketAddress) address =
      connection ? g_socket_connection_get_remote_address(connection, nullptr) : nullptr;
  if (!G_IS_INET_SOCKET_ADDRESS(address))
    return g_strdup("UNKNOWN");

  auto *inet = G_INET_SOCKET_ADDRESS(address);
  g_autofree char *host = g_inet_address_to_string(g_inet_socket_address_get_address(inet));
  return g_strdup_printf("%s:%d", host, g_inet_socket_address_get_port(inet));
}
