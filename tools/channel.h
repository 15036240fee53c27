// SPDX-License-Identifier: LGPL-2.1-or-later
// A channel in blocking use: frames, control messages, and the hello by which two peers find out
// that they mean the same. What goes wrong is thrown as a Failure that names the cause.
#pragma once

#include "deadline.h"
#include "errors.h"
#include "meter.h"
#include "stages.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

// No message of the protocols of this program is longer.
inline constexpr guint32 message_limit = 64 * 1024 * 1024;
inline constexpr guint32 control_limit = 64 * 1024;

struct BytesUnref {
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};
using Bytes = std::unique_ptr<GBytes, BytesUnref>;

// A dictionary of named values, an a{sv}: the control messages of the protocols of this program.
class Control
{
public:
  Control() : dict(g_variant_dict_new(nullptr)) {}
  explicit Control(GVariant *variant) : dict(g_variant_dict_new(variant)) {}
  Control(Control &&other) : dict(std::exchange(other.dict, nullptr)) {}
  Control &operator=(Control &&other);
  ~Control();

  Control &set(const char *name, GVariant *value);
  Control &set(const char *name, const std::string &text);
  Control &set_bytes(const char *name, const std::string &bytes);
  Control &set(const char *name, guint64 number);
  Control &set(const char *name, double number);

  bool has(const char *name) const;
  std::string text(const char *name) const;  // empty where there is none
  std::string bytes(const char *name) const; // empty where there are none
  guint64 number(const char *name, guint64 fallback = 0) const;
  gint64 integer(const char *name) const;
  double real(const char *name) const;

  // The value that goes into a message, in the byte order of the wire; leaves the dictionary empty.
  GVariant *end();

private:
  GVariantDict *dict;
};

class Channel
{
public:
  // Takes over the reference to the connection. A peer that keeps silent for `timeout` seconds, or
  // whose message is not complete by then and a second for each 32 KiB, is given up (0: never).
  Channel(GSocketConnection *connection, const Stages &stages, guint timeout);
  ~Channel();
  Channel(const Channel &) = delete;

  // Says hello and waits for the peer's, or the other way round. `service` is what both must want.
  Control greet(const char *service, Control options);
  Control answer_greeting(const std::vector<std::string> &services, std::string *service);
  void send_hello(const char *service, Control options);

  void put(const void *data, gsize size);
  void put(GBytes *bytes);
  void put(Control control);

  // The next message, NULL at the end of the channel, empty for an empty message.
  Bytes get(guint32 limit);
  // The next message, which has to be there.
  Bytes need(guint32 limit);
  Control need_control();
  // The same, or nothing at the end of the channel.
  std::optional<Control> get_control();

  // Whether bytes of the peer wait, or its end.
  bool readable();

  // Takes what the peer still sends and forgets it, for a short time only: what this side has sent
  // last is lost where a socket is closed with bytes unread.
  void drain();

  void close();

  guint64 wire_sent() const;
  guint64 wire_received() const;
  guint64
  payload_sent() const
  {
    return sent;
  }

  std::string
  peer() const
  {
    return peer_name;
  }
  GSocket *socket();

private:
  guint hello_timeout() const;
  [[noreturn]] void fail_read(GError *error);
  [[noreturn]] void fail_end();
  [[noreturn]] void fail_write(GError *error);
  Control check_hello(Bytes bytes, std::string *service);

  GSocketConnection *connection;
  StageCounts counts;
  bool staged;
  GvcConnection *channel;
  ToolMeter *meter;
  GvcBytesInputStream *in;
  GvcBytesOutputStream *out;
  guint timeout;
  Deadline deadline;
  guint64 sent = 0;
  bool greeted = false;
  std::string peer_name;
};

// What a peer is called in messages.
std::string name_of_peer(GSocketConnection *connection);

// Whether an error says that the peer has gone.
bool is_gone(const GError *error);
