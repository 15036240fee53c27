// SPDX-License-Identifier: LGPL-2.1-or-later
#include "link.h"
#include "errors.h"

#include <algorithm>

// A stage passes on nothing of a unit until all of it has arrived.
static constexpr guint32 largest_unit = 1024 * 1024;

std::string
name_of_peer(GSocketConnection *connection)
{
  g_autofree char *name = gvc_io_stream_get_remote_address_string(G_IO_STREAM(connection));
  return g_str_equal(name, "UNKNOWN") ? "the peer" : std::string("the peer ") + name;
}

bool
is_gone(const GError *error)
{
  return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE);
}

Variant
wire_order(GVariant *value)
{
  Variant own(g_variant_take_ref(value));
  return G_BYTE_ORDER == G_LITTLE_ENDIAN ? std::move(own) : Variant(g_variant_byteswap(own.get()));
}

Link::Link(GSocketConnection *connection, const Stages &stages)
    : connection(connection), peer(name_of_peer(connection)),
      channel(gvc_connection_new(connection)), deadline(socket())
{
  add_stages(channel.get(), stages, &counts);
  meter.reset(meter_new(g_io_stream_get_input_stream(G_IO_STREAM(channel.get()))));
  meter->deadline = &deadline;
  for (auto &tap : counts.incoming)
    tap.deadline = &deadline;
  frames_in.reset(gvc_bytes_input_stream_new(G_INPUT_STREAM(meter.get())));
  frames_out.reset(gvc_bytes_output_stream_new(output()));
}

// Closes the socket first. Closing the streams would write the end of the stages, which may block.
Link::~Link()
{
  g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, nullptr);
}

GSocket *
Link::socket() const
{
  return g_socket_connection_get_socket(connection.get());
}

GOutputStream *
Link::output() const
{
  return g_io_stream_get_output_stream(G_IO_STREAM(channel.get()));
}

void
Link::begin_message(guint timeout, guint32 limit)
{
  if (timeout > 0)
    deadline.begin(timeout + std::min(limit, largest_unit) / Deadline::least_rate);
}

void
Link::fail_late()
{
  deadline.end();
  if (deadline.passed())
    fail(Exit::peer, "%s took too long to send a message", peer.c_str());
  fail(Exit::peer, "%s has sent nothing for %u seconds", peer.c_str(),
       g_socket_get_timeout(socket()));
}
