// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/traffic.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

using namespace support;

namespace traffic
{

const Stages both_stages = {Stage::encryption_256, Stage::compression};

/* ---- Channels ---- */

namespace
{

void
add_stage(GvcConnection *connection, Stage stage)
{
  static const std::string key = pattern(32, 4711);
  if (stage == Stage::compression) {
    const auto in = own(gvc_decompressor_new());
    const auto out = own(gvc_compressor_new());
    gvc_connection_add_converters(connection, G_CONVERTER(in.get()), G_CONVERTER(out.get()));
    return;
  }
  const BytesRef bytes = new_bytes(key);
  const auto in = own(gvc_decryptor_new(bytes.get()));
  const auto out = own(gvc_encryptor_new(bytes.get()));
  const guint bits = stage == Stage::encryption_128 ? 128 : 256;
  gvc_decryptor_set_key_length(in.get(), bits);
  gvc_encryptor_set_key_length(out.get(), bits);
  gvc_connection_add_converters(connection, G_CONVERTER(in.get()), G_CONVERTER(out.get()));
}

} // namespace

Channel::Channel(GSocketConnection *socket_connection, const Stages &stages)
    : connection(gvc_connection_new(socket_connection))
{
  for (const Stage stage : stages)
    add_stage(connection.get(), stage);
  GInputStream *const input = g_io_stream_get_input_stream(G_IO_STREAM(connection.get()));
  GOutputStream *const output = g_io_stream_get_output_stream(G_IO_STREAM(connection.get()));
  in.reset(gvc_bytes_input_stream_new(input));
  strings.reset(gvc_data_input_stream_new(input));
  out.reset(gvc_bytes_output_stream_new(output));
}

GSocket *
Channel::socket() const
{
  return g_socket_connection_get_socket(gvc_connection_get_connection(connection.get()));
}

bool
Channel::close(GError **error)
{
  return g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, error);
}

void
Channel::abandon()
{
  Error error;
  g_socket_close(socket(), &error);
  error.assert_none();
}

void
Channel::reset()
{
  linger_not(g_socket_get_fd(socket()));
  abandon();
}

void
linger_not(int fd)
{
  const linger none = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

/* ---- Messages ---- */

namespace
{

constexpr char variant_type[] = "(uay)";
constexpr char string_end = '\xff';

void
fill_with_noise(std::string &data, size_t begin, size_t end, guint64 &state)
{
  while (begin < end) {
    /* splitmix64 */
    guint64 value = state += 0x9e3779b97f4a7c15u;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9u;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebu;
    value ^= value >> 31;
    const size_t count = std::min(sizeof value, end - begin);
    memcpy(&data[begin], &value, count);
    begin += count;
  }
}

} // namespace

std::string
content(const Message &message)
{
  constexpr size_t run = 512;
  std::string data = "message " + std::to_string(message.number) + ";";
  data.resize(message.size, static_cast<char>('a' + message.number % 26));
  guint64 state = (guint64{message.number} << 32) + message.size;
  for (size_t at = std::min<size_t>(24, data.size()); at < data.size(); at += 2 * run)
    fill_with_noise(data, at, std::min(at + run, data.size()), state);
  if (message.form == Form::string)
    std::for_each(data.begin(), data.end(), [](char &byte) { byte &= 0x7f; });
  return data;
}

Outgoing::Outgoing(const Message &message) : form_(message.form)
{
  std::string data = content(message);
  if (form_ == Form::string)
    data.push_back(string_end);
  bytes_ = new_bytes(data);
  if (form_ == Form::variant)
    variant_.reset(g_variant_ref_sink(
        g_variant_new("(u@ay)", static_cast<guint32>(data.size()),
                      g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, bytes_.get(), TRUE))));
}

bool
Outgoing::put(Channel &channel, GCancellable *cancellable, GError **error) const
{
  switch (form_) {
  case Form::bytes:
    return gvc_bytes_output_stream_put_bytes(channel.out.get(), bytes_.get(), cancellable, error);
  case Form::variant:
    return gvc_bytes_output_stream_put_variant(channel.out.get(), variant_.get(), cancellable,
                                               error);
  case Form::string:
    break;
  }
  gsize size = 0;
  const void *const data = g_bytes_get_data(bytes_.get(), &size);
  return g_output_stream_write_all(G_OUTPUT_STREAM(channel.out.get()), data, size, nullptr,
                                   cancellable, error);
}

void
Outgoing::put_async(Channel &channel, GCancellable *cancellable, GAsyncReadyCallback callback,
                    gpointer user_data) const
{
  gsize size = 0;
  const void *const data = g_bytes_get_data(bytes_.get(), &size);
  switch (form_) {
  case Form::bytes:
    gvc_bytes_output_stream_put_bytes_async(channel.out.get(), bytes_.get(), G_PRIORITY_DEFAULT,
                                            cancellable, callback, user_data);
    break;
  case Form::variant:
    gvc_bytes_output_stream_put_variant_async(channel.out.get(), variant_.get(), G_PRIORITY_DEFAULT,
                                              cancellable, callback, user_data);
    break;
  case Form::string:
    gvc_output_stream_util_write_all_async(G_OUTPUT_STREAM(channel.out.get()), data, size,
                                           G_PRIORITY_DEFAULT, cancellable, callback, user_data);
    break;
  }
}

bool
Outgoing::put_finish(Channel &channel, GAsyncResult *result, GError **error) const
{
  switch (form_) {
  case Form::bytes:
    return gvc_bytes_output_stream_put_bytes_finish(channel.out.get(), result, error);
  case Form::variant:
    return gvc_bytes_output_stream_put_variant_finish(channel.out.get(), result, error);
  case Form::string:
    break;
  }
  gsize written = 0;
  const bool done = gvc_output_stream_util_write_all_finish(G_OUTPUT_STREAM(channel.out.get()),
                                                            result, &written, error);
  if (done)
    g_assert_cmpuint(written, ==, g_bytes_get_size(bytes_.get()));
  return done;
}

namespace
{

std::optional<std::string>
take_bytes(GBytes *taken)
{
  const BytesRef bytes(taken);
  return bytes != nullptr ? std::optional(bytes_string(bytes.get())) : std::nullopt;
}

/* A variant whose count is wrong has a content that no message has. */
std::optional<std::string>
take_variant(GVariant *taken)
{
  if (taken == nullptr)
    return std::nullopt;
  const VariantRef variant(g_variant_ref_sink(taken));
  const VariantRef array(g_variant_get_child_value(variant.get(), 1));
  guint32 count = 0;
  g_variant_get_child(variant.get(), 0, "u", &count);
  gsize size = 0;
  const auto data = static_cast<const char *>(g_variant_get_fixed_array(array.get(), &size, 1));
  return count == size ? std::string(data, size) : "count " + std::to_string(count);
}

std::optional<std::string>
take_string(char *taken, gsize size)
{
  const Mem<char> string(taken);
  if (string == nullptr)
    return std::nullopt;
  g_assert_cmpuint(size, >, 0);
  g_assert_true(taken[size - 1] == string_end);
  return std::string(taken, size - 1);
}

} // namespace

std::optional<std::string>
get(Channel &channel, Form form, GCancellable *cancellable, GError **error)
{
  gsize size = 0;
  switch (form) {
  case Form::bytes:
    return take_bytes(gvc_bytes_input_stream_read_bytes(channel.in.get(), cancellable, error));
  case Form::variant:
    return take_variant(
        gvc_bytes_input_stream_read_variant(channel.in.get(), variant_type, cancellable, error));
  case Form::string:
    break;
  }
  char *const string = gvc_data_input_stream_read_string(channel.strings.get(), string_end, &size,
                                                         cancellable, error);
  return take_string(string, size);
}

void
get_async(Channel &channel, Form form, GCancellable *cancellable, GAsyncReadyCallback callback,
          gpointer user_data)
{
  switch (form) {
  case Form::bytes:
    gvc_bytes_input_stream_read_bytes_async(channel.in.get(), G_PRIORITY_DEFAULT, cancellable,
                                            callback, user_data);
    break;
  case Form::variant:
    gvc_bytes_input_stream_read_variant_async(channel.in.get(), variant_type, G_PRIORITY_DEFAULT,
                                              cancellable, callback, user_data);
    break;
  case Form::string:
    gvc_data_input_stream_read_string_async(channel.strings.get(), string_end, G_PRIORITY_DEFAULT,
                                            cancellable, callback, user_data);
    break;
  }
}

std::optional<std::string>
get_finish(Channel &channel, Form form, GAsyncResult *result, GError **error)
{
  gsize size = 0;
  switch (form) {
  case Form::bytes:
    return take_bytes(gvc_bytes_input_stream_read_bytes_finish(channel.in.get(), result, error));
  case Form::variant:
    return take_variant(
        gvc_bytes_input_stream_read_variant_finish(channel.in.get(), result, error));
  case Form::string:
    break;
  }
  char *const string =
      gvc_data_input_stream_read_string_finish(channel.strings.get(), result, &size, error);
  return take_string(string, size);
}

} // namespace traffic
