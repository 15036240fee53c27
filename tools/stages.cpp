// SPDX-License-Identifier: LGPL-2.1-or-later
#include "stages.h"
#include "errors.h"
#include "interrupt.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

static constexpr gsize key_size = 32;

// Reads at most one byte too many, so that an endless file, such as a device, does no harm.
Bytes
read_key(const char *path, GError **error)
{
  guint8 key[key_size + 1];
  gsize size = 0;
  Descriptor fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  ssize_t got = fd < 0 ? -1 : 1;

  while (got > 0 && size < sizeof key) {
    // The path may be a pipe to which nobody writes.
    if (!wait_for(fd, POLLIN, interrupt_soon()))
      break;
    got = read(fd, key + size, sizeof key - size);
    if (got > 0)
      size += static_cast<gsize>(got);
    else if (got < 0 && (errno == EINTR || errno == EAGAIN))
      got = 1;
  }
  int code = errno;

  Bytes bytes;
  auto shown = printable(std::string(path));
  if (got < 0)
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_FAILED, "cannot read the key file %s: %s",
                shown.c_str(), g_strerror(code));
  else if (size != key_size)
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL,
                "%s is no key file: it has %s than %u bytes", shown.c_str(),
                size < key_size ? "less" : "more", static_cast<guint>(key_size));
  else
    bytes.reset(g_bytes_new(key, size));
  explicit_bzero(key, sizeof key);
  return bytes;
}

static gboolean
parse_compress(const char *, const char *, gpointer data, GError **)
{
  static_cast<Stages *>(data)->list.push_back({Stage::compress, nullptr});
  return TRUE;
}

static gboolean
parse_encrypt(const char *, const char *value, gpointer data, GError **error)
{
  auto key = read_key(value, error);
  if (!key)
    return FALSE;
  static_cast<Stages *>(data)->list.push_back({Stage::encrypt, std::move(key)});
  return TRUE;
}

static gboolean
parse_key_length(const char *, const char *value, gpointer data, GError **error)
{
  bool small = g_str_equal(value, "128");
  if (!small && !g_str_equal(value, "256")) {
    g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE,
                "--key-length is 128 or 256, not %s", printable(std::string(value)).c_str());
    return FALSE;
  }
  static_cast<Stages *>(data)->key_length = small ? 128 : 256;
  return TRUE;
}

GOptionGroup *
Stages::option_group()
{
  const auto callback = [](auto function) { return reinterpret_cast<gpointer>(function); };
  const GOptionEntry entries[] = {
      {"compress", 0, G_OPTION_FLAG_NO_ARG, G_OPTION_ARG_CALLBACK, callback(parse_compress),
       "Compress", nullptr},
      {"encrypt", 0, G_OPTION_FLAG_FILENAME, G_OPTION_ARG_CALLBACK, callback(parse_encrypt),
       "Encrypt with the key in this file", "KEYFILE"},
      {"key-length", 0, 0, G_OPTION_ARG_CALLBACK, callback(parse_key_length),
       "Use 128 or 256 bits (the default) of each key", "BITS"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  auto *group = g_option_group_new(
      "stages",
      "Stages, in the order in which they work on outgoing data. The peer needs the same:",
      "Show the options for stages", this, nullptr);
  g_option_group_add_entries(group, entries);
  return group;
}

std::string
Stages::text() const
{
  std::string text;
  for (auto &stage : list) {
    if (!text.empty())
      text += "+";
    text += stage.kind == Stage::compress ? "compress" : "encrypt-" + std::to_string(key_length);
  }
  return text.empty() ? "plain" : text;
}

GConverter *
new_decoder(const Stage &stage, int key_length)
{
  if (stage.kind == Stage::compress)
    return G_CONVERTER(gvc_decompressor_new());
  auto *decryptor = gvc_decryptor_new(stage.key.get());
  gvc_decryptor_set_key_length(decryptor, static_cast<guint>(key_length));
  return G_CONVERTER(decryptor);
}

static GConverter *
new_encoder(const Stage &stage, int key_length)
{
  if (stage.kind == Stage::compress)
    return G_CONVERTER(gvc_compressor_new());
  auto *encryptor = gvc_encryptor_new(stage.key.get());
  gvc_encryptor_set_key_length(encryptor, static_cast<guint>(key_length));
  return G_CONVERTER(encryptor);
}

void
StageCounts::set_limit(guint64 limit)
{
  for (auto &tap : incoming)
    tap.limit = limit;
}

// The stage that is added last is the first to work on what is sent.
void
add_stages(GvcConnection *connection, const Stages &stages, StageCounts *counts)
{
  counts->outgoing.resize(stages.list.size());
  counts->incoming.resize(stages.list.size());
  for (auto i = stages.list.size(); i-- > 0;) {
    g_autoptr(GConverter) decoder = new_decoder(stages.list[i], stages.key_length);
    g_autoptr(GConverter) encoder = new_encoder(stages.list[i], stages.key_length);
    auto kind = stages.list[i].kind == Stage::compress ? TapKind::blocks : TapKind::records;
    g_autoptr(GConverter) in = tap_new(decoder, &counts->incoming[i], kind);
    g_autoptr(GConverter) out = tap_new(encoder, &counts->outgoing[i], TapKind::outgoing);
    gvc_connection_add_converters(connection, in, out);
  }
}
