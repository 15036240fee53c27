/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Channels and messages for the programs that run many of them: what a message contains follows
 * from its number and size, so that whoever reads it knows every byte of it beforehand. */
#ifndef TESTS_TRAFFIC_H
#define TESTS_TRAFFIC_H

#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

namespace traffic
{

enum class Stage { compression, encryption_128, encryption_256 };

/* In the order in which they are added: the last one is nearest to the caller. */
using Stages = std::vector<Stage>;

/* Compressed and then encrypted. */
extern const Stages both_stages;

/* One end of a channel, as a host builds it. */
struct Channel {
  support::Ref<GvcConnection> connection;
  support::Ref<GvcBytesInputStream> in;
  support::Ref<GvcBytesOutputStream> out;
  support::Ref<GvcDataInputStream> strings;

  Channel(GSocketConnection *socket_connection, const Stages &stages);

  GSocket *socket() const;
  bool close(GError **error);
  /* Gives up on the peer: closes the socket first, so that nothing waits. */
  void abandon();
  /* The same, but the peer is sent a reset. */
  void reset();
};

/* A close of this socket, also the one at the end of its process, resets the connection. */
void linger_not(int fd);

enum class Form { bytes, variant, string };
constexpr int forms = 3;

struct Message {
  Form form;
  guint32 number;
  gsize size; /* not 0: blocking readers take an empty message for the end */
};

/* Half of it repeats, half is noise. In a string no byte has its highest bit set. */
std::string content(const Message &message);

/* The message as it is handed to the library, which wants it to live until it is written. */
class Outgoing
{
public:
  explicit Outgoing(const Message &message);

  bool put(Channel &channel, GCancellable *cancellable, GError **error) const;
  void put_async(Channel &channel, GCancellable *cancellable, GAsyncReadyCallback callback,
                 gpointer user_data) const;
  bool put_finish(Channel &channel, GAsyncResult *result, GError **error) const;

private:
  Form form_;
  support::BytesRef bytes_;
  support::VariantRef variant_;
};

/* The content of the next message, or nothing and an error. */
std::optional<std::string> get(Channel &channel, Form form, GCancellable *cancellable,
                               GError **error);
void get_async(Channel &channel, Form form, GCancellable *cancellable, GAsyncReadyCallback callback,
               gpointer user_data);
std::optional<std::string> get_finish(Channel &channel, Form form, GAsyncResult *result,
                                      GError **error);

} // namespace traffic

#endif /* TESTS_TRAFFIC_H */
