// SPDX-License-Identifier: LGPL-2.1-or-later
// How a message is written as a line, and read from one.
#pragma once

#include "output.h"

#include <glib.h>

#include <string>

struct MessageFormat {
  enum Kind { frames, hex, variant, strings } kind = frames;
  std::string type;    // of variants
  char terminator = 0; // of strings

  // Chooses by the options that were given, at most one of them. Throws where one is wrong.
  static MessageFormat choose(bool frames, bool hex, const char *variant, const char *strings);

  // What a line stands for. False, with the reason, where it stands for nothing.
  bool read_line(const std::string &line, std::string *message, std::string *why) const;

  // The line for a message; for strings the terminator is no part of it. False, with the reason,
  // where the message is no value of the type.
  bool write_line(const std::string &message, std::string *line, std::string *why) const;

  // Adds "text", "hex" or "variant".
  bool add_to(JsonLine &json, const std::string &message, std::string *why) const;
};

// Throws where it is no type that a message can have.
void check_variant_type(const std::string &type);

// The text form of a value, from its serialised form.
bool variant_text(const std::string &type, const void *bytes, gsize size, std::string *text);
