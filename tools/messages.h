// SPDX-License-Identifier: LGPL-2.1-or-later
// The conversion between messages and lines of text.
#pragma once

#include "output.h"

#include <optional>
#include <string>

struct MessageFormat {
  enum Kind { frames, hex, variant, strings } kind = frames;
  std::string type;    // of variants
  char terminator = 0; // of strings

  // Chooses by the options, at most one of which is set. Throws if an option is wrong.
  static MessageFormat choose(bool frames, bool hex, const char *variant, const char *strings);

  // The message that a line stands for.
  std::optional<std::string> read_line(const std::string &line, GError **error) const;

  // The line for a message. A string has no terminator here.
  std::optional<std::string> write_line(const std::string &message, GError **error) const;

  // Adds "text", "hex" or "variant".
  bool add_to(JsonLine &json, const std::string &message, GError **error) const;
};

// Throws unless a message can have this type.
void check_variant_type(const std::string &type);

// The text form of a serialised value. Nothing if the bytes are no value of the type.
std::optional<std::string> variant_text(const std::string &type, const void *bytes, gsize size);
