// SPDX-License-Identifier: LGPL-2.1-or-later
// A channel in blocking use: frames, control messages, and the hello that tells each peer what the
// other wants. Failures are thrown with a message that names the cause.
#pragma once

#include "errors.h"
#include "link.h"

#include <optional>
#include <string>
#include <vector>

// No message of the program's protocols is longer.
inline constexpr guint32 message_limit = 64 * 1024 * 1024;
inline constexpr guint32 control_limit = 64 * 1024;

// A dictionary of named values, an a{sv}: a control message.
class Control
{
public:
  Control() : dict(g_variant_dict_new(nullptr)) {}
  explicit Control(GVariant *values) : dict(g_variant_dict_new(values)) {}

  Control &set(const char *name, GVariant *value);
  Control &set(const char *name, const std::string &bytes);
  Control &set(const char *name, guint64 number);
  Control &set(const char *name, double number);

  bool has(const char *name) const;
  std::string bytes(const char *name) const; // empty if missing
  guint64 number(const char *name, guint64 fallback = 0) const;
  gint64 integer(const char *name) const;
  double real(const char *name) const;

  // Returns the dictionary and leaves this one empty.
  GVariant *end() const;

private:
  Owned<GVariantDict, g_variant_dict_unref> dict;
};

class Channel
{
public:
  const guint timeout;
  const guint32 limit; // for the messages of the peer

  // Takes over the reference to the connection. Gives up a peer that is silent for `timeout`
  // seconds (0: never), and a message that takes longer than that and its size allow.
  Channel(GSocketConnection *connection, const Stages &stages, guint timeout,
          guint32 limit = message_limit);

  // Sends a hello, then waits for the peer's. Both must name the same service.
  Control greet(const char *service, const Control &options);
  // Waits for the peer's hello, which must name one of the services. Sends none.
  Control answer_greeting(const std::vector<std::string> &services, std::string *service);
  void send_hello(const char *service, const Control &options);

  void put(const void *data, gsize size);
  void put(GBytes *bytes);
  void put(const Control &control);

  // The next message: NULL at the end of the channel, empty for an empty message.
  Bytes get(guint32 limit);
  // The same, but the end is a failure.
  Bytes need(guint32 limit);
  Control need_control();
  // Nothing at the end of the channel.
  std::optional<Control> get_control();

  // Whether bytes of the peer wait, or the end.
  bool readable();

  // Discards what the peer still sends, for two seconds at most. Closing a socket with unread bytes
  // would destroy what was just sent.
  void drain();

  void close();

  guint64 wire_sent() const;
  guint64 wire_received() const;
  const std::string &
  peer() const
  {
    return link.peer;
  }

private:
  guint hello_timeout() const;
  void put_variant(const Variant &variant);
  [[noreturn]] void fail_read(GError *error);
  [[noreturn]] void fail_end();
  [[noreturn]] void fail_write(GError *error);
  Control check_hello(const Bytes &bytes, std::string *service);

  Link link;
  guint64 sent = 0;
  bool greeted = false;
};
