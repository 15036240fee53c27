// SPDX-License-Identifier: LGPL-2.1-or-later
#include "messages.h"
#include "errors.h"
#include "link.h"

#include <cstring>

// One byte, or how C writes it.
static char
parse_terminator(const char *text)
{
  static const char names[] = "n\nr\rt\t0\0\\\\";
  if (std::strlen(text) == 1)
    return *text;
  if (text[0] == '\\' && std::strlen(text) == 2)
    for (gsize i = 0; i + 1 < sizeof names; i += 2)
      if (names[i] == text[1])
        return names[i + 1];
  if (text[0] == '\\' && text[1] == 'x' && std::strlen(text) == 4 && g_ascii_isxdigit(text[2]) &&
      g_ascii_isxdigit(text[3]))
    return static_cast<char>(g_ascii_xdigit_value(text[2]) * 16 + g_ascii_xdigit_value(text[3]));
  fail(Exit::usage,
       "--strings takes one byte, or \\n, \\r, \\t, \\0, \\\\ or \\xNN, and not \"%s\"",
       printable(std::string(text)).c_str());
}

void
check_variant_type(const std::string &type)
{
  if (!g_variant_type_string_is_valid(type.c_str()) ||
      !g_variant_type_is_definite(G_VARIANT_TYPE(type.c_str())))
    fail(Exit::usage, "\"%s\" is no definite type of a variant", printable(type).c_str());
}

MessageFormat
MessageFormat::choose(bool frames, bool hex, const char *variant, const char *strings)
{
  if (frames + hex + (variant != nullptr) + (strings != nullptr) > 1)
    fail(Exit::usage, "--frames, --hex, --variant and --strings exclude each other");

  MessageFormat format;
  if (hex) {
    format.kind = MessageFormat::hex;
  } else if (variant) {
    check_variant_type(variant);
    format.kind = MessageFormat::variant;
    format.type = variant;
  } else if (strings) {
    format.kind = MessageFormat::strings;
    format.terminator = parse_terminator(strings);
  }
  return format;
}

static bool
read_hex(const std::string &line, std::string *message, std::string *why)
{
  int high = -1;
  for (auto c : line) {
    if (c == ' ' || c == '\t' || c == '\r')
      continue;
    auto digit = g_ascii_xdigit_value(c);
    if (digit < 0) {
      *why = "no hexadecimal digit: " + printable(&c, 1);
      return false;
    }
    if (high < 0) {
      high = digit;
    } else {
      *message += static_cast<char>(high * 16 + digit);
      high = -1;
    }
  }
  if (high >= 0)
    *why = "an odd number of hexadecimal digits";
  return high < 0;
}

static bool
read_variant(const std::string &type, const std::string &line, std::string *message,
             std::string *why)
{
  g_autoptr(GError) error = nullptr;
  auto *end = line.data() + line.size();
  auto *parsed = g_variant_parse(G_VARIANT_TYPE(type.c_str()), line.data(), end, nullptr, &error);
  if (!parsed) {
    *why = "no value of type " + type + ": " + printable(std::string(error->message));
    return false;
  }
  auto value = wire_order(parsed);
  message->assign(static_cast<const char *>(g_variant_get_data(value.get())),
                  g_variant_get_size(value.get()));
  return true;
}

bool
MessageFormat::read_line(const std::string &line, std::string *message, std::string *why) const
{
  message->clear();
  switch (kind) {
  case hex:
    return read_hex(line, message, why);
  case variant:
    return read_variant(type, line, message, why);
  case strings:
    if (line.find(terminator) != std::string::npos) {
      *why = "the terminator cannot be part of a string";
      return false;
    }
    break;
  case frames:
    break;
  }
  *message = line;
  return true;
}

bool
variant_text(const std::string &type, const void *bytes, gsize size, std::string *text)
{
  Bytes copy(g_bytes_new(bytes, size));
  auto value =
      wire_order(g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), copy.get(), FALSE));
  if (!g_variant_is_normal_form(value.get()))
    return false;
  g_autofree char *printed = g_variant_print(value.get(), FALSE);
  *text = printed;
  return true;
}

static bool
is_text(const std::string &message)
{
  return g_utf8_validate_len(message.data(), message.size(), nullptr);
}

bool
MessageFormat::write_line(const std::string &message, std::string *line, std::string *why) const
{
  if (kind == hex)
    *line = hex_text(message.data(), message.size());
  else if (kind != variant)
    *line = message;
  else if (!variant_text(type, message.data(), message.size(), line)) {
    *why = "a message of " + std::to_string(message.size()) + " bytes is no value of type " + type;
    return false;
  }
  return true;
}

bool
MessageFormat::add_to(JsonLine &json, const std::string &message, std::string *why) const
{
  std::string line;
  if (!write_line(message, &line, why))
    return false;
  if (kind == variant)
    json.add("variant", line);
  else if (kind != hex && is_text(message))
    json.add("text", line);
  else
    json.add("hex", hex_text(message.data(), message.size()));
  return true;
}
