// SPDX-License-Identifier: LGPL-2.1-or-later
#include "messages.h"
#include "errors.h"
#include "link.h"

#include <cstring>

// Takes one byte, or an escape as in C.
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

static std::optional<std::string>
invalid(GError **error, const std::string &why)
{
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, why.c_str());
  return {};
}

static std::optional<std::string>
read_hex(const std::string &line, GError **error)
{
  std::string message;
  int high = -1;
  for (auto c : line) {
    if (c == ' ' || c == '\t' || c == '\r')
      continue;
    auto digit = g_ascii_xdigit_value(c);
    if (digit < 0)
      return invalid(error, "no hexadecimal digit: " + printable(&c, 1));
    if (high >= 0)
      message += static_cast<char>(high * 16 + digit);
    high = high < 0 ? digit : -1;
  }
  if (high >= 0)
    return invalid(error, "an odd number of hexadecimal digits");
  return message;
}

static std::optional<std::string>
read_variant(const std::string &type, const std::string &line, GError **error)
{
  g_autoptr(GError) why = nullptr;
  auto *end = line.data() + line.size();
  auto *parsed = g_variant_parse(G_VARIANT_TYPE(type.c_str()), line.data(), end, nullptr, &why);
  if (!parsed)
    return invalid(error, "no value of type " + type + ": " + printable(std::string(why->message)));
  auto value = wire_order(parsed);
  return std::string(static_cast<const char *>(g_variant_get_data(value.get())),
                     g_variant_get_size(value.get()));
}

std::optional<std::string>
MessageFormat::read_line(const std::string &line, GError **error) const
{
  if (kind == hex)
    return read_hex(line, error);
  if (kind == variant)
    return read_variant(type, line, error);
  if (kind == strings && line.find(terminator) != std::string::npos)
    return invalid(error, "the terminator cannot be part of a string");
  return line;
}

std::optional<std::string>
variant_text(const std::string &type, const void *bytes, gsize size)
{
  Bytes view(g_bytes_new_static(bytes, size));
  auto value =
      wire_order(g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), view.get(), FALSE));
  if (!g_variant_is_normal_form(value.get()))
    return {};
  // For each element of an array, GLib 2.74 checks those before it unless the value is trusted.
  Bytes checked(g_variant_get_data_as_bytes(value.get()));
  value.reset(g_variant_ref_sink(
      g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), checked.get(), TRUE)));
  // "0x00, " stands for a byte, and GLib doubles a full buffer.
  check_memory(16 * size);
  g_autofree char *printed = g_variant_print(value.get(), FALSE);
  return printed;
}

std::optional<std::string>
MessageFormat::write_line(const std::string &message, GError **error) const
{
  if (kind == hex)
    return hex_text(message.data(), message.size());
  if (kind != variant)
    return message;
  if (auto text = variant_text(type, message.data(), message.size()))
    return text;
  return invalid(error, "a message of " + std::to_string(message.size()) +
                            " bytes is no value of type " + type);
}

bool
MessageFormat::add_to(JsonLine &json, const std::string &message, GError **error) const
{
  auto line = write_line(message, error);
  if (!line)
    return false;
  bool text = g_utf8_validate_len(message.data(), message.size(), nullptr);
  if (kind == variant)
    json.add("variant", *line);
  else if (kind != hex && text)
    json.add("text", *line);
  else
    json.add("hex", hex_text(message.data(), message.size()));
  return true;
}
