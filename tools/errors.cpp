// SPDX-License-Identifier: LGPL-2.1-or-later
#include "errors.h"
#include "output.h"

#include <cstdarg>
#include <new>
#include <unistd.h>

static std::string
format_message(const char *format, va_list args)
{
  g_autofree char *text = g_strdup_vprintf(format, args);
  return text;
}

void
fail(Exit code, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  auto message = format_message(format, args);
  va_end(args);
  throw Failure{code, message};
}

bool
may_double(gsize size, GError **error)
{
  if (size < 1024 * 1024)
    return true;
  g_autofree void *doubled = g_try_malloc(2 * size);
  if (doubled)
    return true;
  g_clear_error(error);
  g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_NOMEM, "not enough memory");
  return false;
}

void
check_memory(gsize size)
{
  if (!may_double(size / 2, nullptr))
    throw std::bad_alloc();
}

bool
is_out_of_memory(const GError *error)
{
  return g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOMEM) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_NO_SPACE);
}

void
complain(const Failure &failure)
{
  if (!failure.message.empty())
    inform("zelgvc: %s", printable(failure.message).c_str());
}

void
complain(const char *format, ...)
{
  va_list args;
  va_start(args, format);
  complain(Failure{Exit::ok, format_message(format, args)});
  va_end(args);
}

void
inform(const char *format, ...)
{
  va_list args;
  va_start(args, format);
  progress_clear();
  write_all(STDERR_FILENO, format_message(format, args) + "\n");
  va_end(args);
}

bool
is_harmless(gunichar c)
{
  auto type = g_unichar_type(c);
  return g_unichar_isprint(c) && type != G_UNICODE_LINE_SEPARATOR &&
         type != G_UNICODE_PARAGRAPH_SEPARATOR;
}

std::string
printable(const void *bytes, gsize size)
{
  auto *at = static_cast<const char *>(bytes);
  auto *end = at + size;
  std::string text;

  while (at < end) {
    auto c = g_utf8_get_char_validated(at, end - at);
    bool valid = c != static_cast<gunichar>(-1) && c != static_cast<gunichar>(-2) && c != 0;
    if (valid && is_harmless(c)) {
      const char *next = g_utf8_next_char(at);
      text.append(at, next);
      at = next;
    } else {
      char escaped[8];
      g_snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<guint8>(*at));
      text += escaped;
      at++;
    }
  }
  return text;
}

std::string
printable(const std::string &text)
{
  return printable(text.data(), text.size());
}
