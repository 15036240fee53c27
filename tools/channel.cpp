// SPDX-License-Identifier: LGPL-2.1-or-later
#include "channel.h"
#include "interrupt.h"

#include <algorithm>
#include <new>

static constexpr const char *magic = "zelgvc";
static constexpr guint32 protocol_version = 1;
static constexpr guint32 hello_limit = 4096;
static constexpr const char *hello_type = "(susa{sv})";
static constexpr guint64 prefix_size = 4;

Control &
Control::set(const char *name, GVariant *value)
{
  g_variant_dict_insert_value(dict.get(), name, value);
  return *this;
}

// Strings travel as bytes, because a file name need not be UTF-8.
Control &
Control::set(const char *name, const std::string &bytes)
{
  return set(name, g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1));
}

Control &
Control::set(const char *name, guint64 number)
{
  return set(name, g_variant_new_uint64(number));
}

Control &
Control::set(const char *name, double number)
{
  return set(name, g_variant_new_double(number));
}

bool
Control::has(const char *name) const
{
  return g_variant_dict_contains(dict.get(), name);
}

std::string
Control::bytes(const char *name) const
{
  Variant value(g_variant_dict_lookup_value(dict.get(), name, G_VARIANT_TYPE_BYTESTRING));
  if (!value)
    return "";
  gsize size;
  auto *data = static_cast<const char *>(g_variant_get_fixed_array(value.get(), &size, 1));
  return std::string(data, size);
}

guint64
Control::number(const char *name, guint64 fallback) const
{
  g_variant_dict_lookup(dict.get(), name, "t", &fallback);
  return fallback;
}

gint64
Control::integer(const char *name) const
{
  gint64 number = 0;
  g_variant_dict_lookup(dict.get(), name, "x", &number);
  return number;
}

double
Control::real(const char *name) const
{
  double number = 0;
  g_variant_dict_lookup(dict.get(), name, "d", &number);
  return number;
}

GVariant *
Control::end() const
{
  return g_variant_dict_end(dict.get());
}

Channel::Channel(GSocketConnection *connection, const Stages &stages, guint timeout, guint32 limit)
    : timeout(timeout), limit(limit), link(connection, stages)
{
  g_socket_set_timeout(link.socket(), hello_timeout());
  link.deadline.begin(hello_timeout());
  link.counts.set_limit(hello_limit);
}

// A hello takes no work, so a longer wait would not help.
guint
Channel::hello_timeout() const
{
  return timeout == 0 ? 10 : std::min(timeout, 10u);
}

void
Channel::fail_read(GError *error)
{
  [[maybe_unused]] g_autoptr(GError) owned = error;
  auto *peer = link.peer.c_str();

  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
    throw Failure{Exit::interrupted, "interrupted"};
  if (is_out_of_memory(error))
    throw std::bad_alloc();
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    if (greeted)
      link.fail_late();
    fail(Exit::protocol,
         "%s has not said hello within %u seconds: it may speak something else, or use another "
         "key or other stages",
         peer, hello_timeout());
  }
  if (is_gone(error) && greeted)
    fail(Exit::peer, "%s went away in the middle: %s", peer, error->message);
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT) && greeted)
    fail(Exit::peer, "%s went away in the middle of a message (%s)", peer, error->message);
  if (is_gone(error))
    fail(Exit::protocol,
         "%s closed the connection instead of saying hello: it may speak something else, or use "
         "another key or other stages",
         peer);
  fail(Exit::protocol,
       "%s sends what cannot be understood (%s): it may speak something else, or use another key "
       "or other stages",
       peer, error->message);
}

void
Channel::fail_write(GError *error)
{
  [[maybe_unused]] g_autoptr(GError) owned = error;
  auto *peer = link.peer.c_str();

  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
    throw Failure{Exit::interrupted, "interrupted"};
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
    fail(Exit::peer, "%s has taken nothing for %u seconds", peer, timeout);
  if (!greeted && is_gone(error))
    fail_end();
  fail(Exit::peer, "%s went away in the middle: %s", peer, error->message);
}

void
Channel::put(GBytes *bytes)
{
  GError *error = nullptr;
  if (!gvc_bytes_output_stream_put_bytes(link.frames_out.get(), bytes, interrupt_now(), &error))
    fail_write(error);
  sent += prefix_size + g_bytes_get_size(bytes);
}

void
Channel::put(const void *data, gsize size)
{
  Bytes bytes(g_bytes_new_static(data, size));
  put(bytes.get());
}

void
Channel::put_variant(const Variant &variant)
{
  GError *error = nullptr;
  if (!gvc_bytes_output_stream_put_variant(link.frames_out.get(), variant.get(), interrupt_now(),
                                           &error))
    fail_write(error);
  sent += prefix_size + g_variant_get_size(variant.get());
}

void
Channel::put(const Control &control)
{
  put_variant(wire_order(control.end()));
}

// The blocking reader reports an empty message and the end alike, and fills a short message with
// zeros. The meter tells them apart.
Bytes
Channel::get(guint32 limit)
{
  GError *error = nullptr;
  auto *meter = link.meter.get();
  auto before = meter->total;

  // The hello has a deadline of its own, which began with the connection.
  if (greeted)
    link.begin_message(timeout, limit);
  meter->limit = limit;
  Bytes bytes(gvc_bytes_input_stream_read_bytes(link.frames_in.get(), interrupt_soon(), &error));
  if (greeted)
    link.deadline.end();
  auto arrived = meter->total - before;
  if (bytes && meter->between_messages())
    return bytes;
  if (!bytes && !g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED))
    fail_read(error);

  g_clear_error(&error);
  if (meter->at_end && arrived > 0 && !meter->between_messages())
    fail(greeted ? Exit::peer : Exit::protocol, "%s went away in the middle of a message",
         peer().c_str());
  return Bytes(arrived > 0 ? g_bytes_new_static("", 0) : nullptr);
}

void
Channel::fail_end()
{
  fail_read(
      g_error_new_literal(G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED, "it closed the connection"));
}

Bytes
Channel::need(guint32 limit)
{
  if (auto bytes = get(limit))
    return bytes;
  fail_end();
}

// NULL if the bytes are no such value.
static Variant
value_of(const Bytes &bytes, const char *type)
{
  auto value = wire_order(g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes.get(), FALSE));
  return g_variant_is_normal_form(value.get()) ? std::move(value) : nullptr;
}

std::optional<Control>
Channel::get_control()
{
  auto bytes = get(control_limit);
  if (!bytes)
    return {};
  auto value = value_of(bytes, "a{sv}");
  if (!value)
    fail_read(g_error_new(G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                          "no control message in %" G_GSIZE_FORMAT " bytes",
                          g_bytes_get_size(bytes.get())));
  return Control(value.get());
}

Control
Channel::need_control()
{
  if (auto control = get_control())
    return std::move(*control);
  fail_end();
}

void
Channel::send_hello(const char *service, const Control &options)
{
  put_variant(
      wire_order(g_variant_new("(sus@a{sv})", magic, protocol_version, service, options.end())));
}

Control
Channel::check_hello(const Bytes &bytes, std::string *service)
{
  auto hello = value_of(bytes, hello_type);
  const char *their_magic = "";
  const char *their_service = "";
  guint32 version = 0;
  g_autoptr(GVariant) options = nullptr;

  if (hello)
    g_variant_get(hello.get(), "(&su&s@a{sv})", &their_magic, &version, &their_service, &options);
  if (!g_str_equal(their_magic, magic))
    fail_read(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "no hello"));
  if (version != protocol_version)
    fail(Exit::protocol, "%s speaks version %u of the protocol, this program version %u",
         peer().c_str(), version, protocol_version);
  *service = their_service;
  greeted = true;
  link.deadline.end();
  link.counts.set_limit(limit);
  g_socket_set_timeout(link.socket(), timeout);

  Control control(options);
  if (control.has("refused"))
    fail(Exit::protocol, "%s refuses: %s", peer().c_str(),
         printable(control.bytes("refused")).c_str());
  return control;
}

Control
Channel::greet(const char *service, const Control &options)
{
  send_hello(service, options);
  std::string theirs;
  auto answer = check_hello(need(hello_limit), &theirs);
  if (theirs != service)
    fail(Exit::protocol, "%s offers \"%s\" and not \"%s\"", peer().c_str(),
         printable(theirs).c_str(), service);
  return answer;
}

Control
Channel::answer_greeting(const std::vector<std::string> &services, std::string *service)
{
  auto options = check_hello(need(hello_limit), service);
  if (std::find(services.begin(), services.end(), *service) != services.end())
    return options;

  auto wanted = printable(*service);
  auto offered = services.front();
  for (gsize i = 1; i < services.size(); i++)
    offered += ", " + services[i];
  auto why = "\"" + wanted + "\" is not what runs here (" + offered + ")";
  send_hello(service->c_str(), Control().set("refused", why));
  close();
  fail(Exit::protocol, "%s wants \"%s\", which is not what runs here", peer().c_str(),
       wanted.c_str());
}

bool
Channel::readable()
{
  return g_socket_condition_check(link.socket(), G_IO_IN) != 0;
}

void
Channel::drain()
{
  auto *socket = link.socket();
  auto end = g_get_monotonic_time() + 2 * G_USEC_PER_SEC;
  std::vector<char> buffer(64 * 1024);

  g_socket_shutdown(socket, FALSE, TRUE, nullptr);
  while (g_get_monotonic_time() < end) {
    auto left = end - g_get_monotonic_time();
    if (!g_socket_condition_timed_wait(socket, G_IO_IN, left, interrupt_now(), nullptr) ||
        g_socket_receive(socket, buffer.data(), buffer.size(), interrupt_now(), nullptr) <= 0)
      return;
  }
}

// Sends the end of the stages, then the end of the connection. The peer may have closed first.
void
Channel::close()
{
  GError *error = nullptr;
  if (!g_io_stream_close(G_IO_STREAM(link.channel.get()), interrupt_now(), &error)) {
    if (!is_gone(error))
      fail_write(error);
    g_clear_error(&error);
  }
  g_socket_shutdown(link.socket(), FALSE, TRUE, nullptr);
}

guint64
Channel::wire_sent() const
{
  return link.counts.outgoing.empty() ? sent : link.counts.outgoing.back().out;
}

guint64
Channel::wire_received() const
{
  auto &incoming = link.counts.incoming;
  return incoming.empty() ? link.meter->total : incoming.back().in;
}
