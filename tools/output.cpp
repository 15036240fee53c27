// SPDX-License-Identifier: LGPL-2.1-or-later
#include "output.h"
#include "errors.h"
#include "interrupt.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

// After poll() reports room, a write of up to PIPE_BUF bytes does not block.
int
write_all(int fd, const std::string &text)
{
  for (gsize done = 0; done < text.size();) {
    if (!wait_for(fd, POLLOUT, interrupt_now()))
      return ECANCELED;
    auto written = write(fd, text.data() + done, std::min<gsize>(text.size() - done, PIPE_BUF));
    if (written < 0 && errno != EINTR && errno != EAGAIN)
      return errno;
    done += written > 0 ? static_cast<gsize>(written) : 0;
  }
  return 0;
}

void
output(const std::string &text)
{
  progress_clear();
  auto code = write_all(STDOUT_FILENO, text);
  if (code == EPIPE)
    throw OutputClosed();
  if (code == ECANCELED)
    throw Failure{Exit::interrupted, "interrupted"};
  if (code != 0)
    fail(Exit::local, "cannot write to standard output: %s", g_strerror(code));
}

void
output_line(const char *format, ...)
{
  va_list args;
  va_start(args, format);
  g_autofree char *text = g_strdup_vprintf(format, args);
  va_end(args);
  output(std::string(text) + "\n");
}

JsonLine &
JsonLine::add(const char *name, const std::string &text)
{
  bool valid = g_utf8_validate_len(text.data(), text.size(), nullptr);
  auto shown = valid ? text : printable(text);
  // A control character becomes six bytes, of which there are up to four copies.
  auto controls =
      std::count_if(shown.begin(), shown.end(), [](char c) { return g_ascii_iscntrl(c); });
  check_memory(4 * (shown.size() + 5 * static_cast<gsize>(controls)));
  json_builder_set_member_name(builder.get(), name);
  json_builder_add_string_value(builder.get(), shown.c_str());
  return *this;
}

JsonLine &
JsonLine::add(const char *name, const char *text)
{
  return add(name, std::string(text));
}

JsonLine &
JsonLine::add(const char *name, double number)
{
  json_builder_set_member_name(builder.get(), name);
  json_builder_add_double_value(builder.get(), std::isfinite(number) ? number : 0);
  return *this;
}

JsonLine &
JsonLine::add(const char *name, bool value)
{
  json_builder_set_member_name(builder.get(), name);
  json_builder_add_boolean_value(builder.get(), value);
  return *this;
}

// Escapes what could control a terminal. json-glib leaves U+001F and all beyond ASCII unescaped.
static std::string
escaped(const char *json)
{
  std::string text;
  for (auto *at = json; *at;) {
    const char *next = g_utf8_next_char(at);
    auto c = g_utf8_get_char(at);
    char escape[16] = "";
    if (is_harmless(c))
      text.append(at, next);
    else if (c < 0x10000)
      g_snprintf(escape, sizeof escape, "\\u%04x", c);
    else
      g_snprintf(escape, sizeof escape, "\\u%04x\\u%04x", 0xd7c0 + (c >> 10), 0xdc00 + (c & 0x3ff));
    text += escape;
    at = next;
  }
  return text;
}

std::string
JsonLine::text()
{
  json_builder_end_object(builder.get());
  g_autoptr(JsonNode) root = json_builder_get_root(builder.get());
  g_autofree char *text = json_to_string(root, FALSE);
  return escaped(text) + "\n";
}

std::string
human_size(guint64 bytes)
{
  g_autofree char *text = g_format_size_full(bytes, G_FORMAT_SIZE_IEC_UNITS);
  std::string plain = text;
  // GLib inserts a no-break space, which grep does not find.
  if (auto at = plain.find("\u00a0"); at != std::string::npos)
    plain = plain.substr(0, at) + " " + plain.substr(at + 2);
  return plain;
}

std::string
human_rate(double bytes_per_second)
{
  char text[32];
  g_snprintf(text, sizeof text, "%.1f MB/s", bytes_per_second / 1e6);
  return text;
}

std::string
human_time(double seconds)
{
  auto whole = static_cast<long>(std::min(seconds, 359999.0) + 0.5);
  char text[32];
  if (whole >= 3600)
    g_snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  else
    g_snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  return text;
}

std::string
human_latency(double seconds)
{
  char text[32];
  if (seconds < 1e-3)
    g_snprintf(text, sizeof text, "%.1f us", seconds * 1e6);
  else if (seconds < 1)
    g_snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
  else
    g_snprintf(text, sizeof text, "%.2f s", seconds);
  return text;
}

std::string
hex_text(const void *bytes, gsize size)
{
  static const char digits[] = "0123456789abcdef";
  auto *from = static_cast<const guint8 *>(bytes);
  std::string text;
  text.reserve(2 * size);
  for (gsize i = 0; i < size; i++) {
    text += digits[from[i] >> 4];
    text += digits[from[i] & 15];
  }
  return text;
}

static constexpr gint64 interval = G_USEC_PER_SEC / 10;
static bool shown;
static gint64 last_drawn;

bool
progress_wanted()
{
  static const bool wanted = isatty(STDERR_FILENO);
  return wanted;
}

static glong
terminal_width()
{
  winsize size;
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    return size.ws_col;
  return 80;
}

bool
progress_due()
{
  return progress_wanted() && g_get_monotonic_time() - last_drawn >= interval;
}

void
progress_draw(const std::string &line, bool force)
{
  if (!progress_wanted() || (!force && !progress_due()))
    return;
  last_drawn = g_get_monotonic_time();

  // Some terminals wrap when the last column is written.
  g_autofree char *cut = g_utf8_substring(
      line.c_str(), 0, std::min(g_utf8_strlen(line.c_str(), -1), terminal_width() - 1));
  std::fprintf(stderr, "\r%s\033[K", cut);
  std::fflush(stderr);
  shown = true;
}

void
progress_clear()
{
  if (!shown)
    return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  shown = false;
}

Progress::Progress(const std::string &name, guint64 size, guint64 start)
    : name(name), size(size), start(start), begun(g_get_monotonic_time())
{
}

static std::string
bar(double part, int width)
{
  auto full = static_cast<int>(part * width);
  std::string text(static_cast<gsize>(full), '#');
  return "[" + text + std::string(static_cast<gsize>(width - full), '.') + "]";
}

static std::string
shortened(const std::string &name, glong width)
{
  auto length = g_utf8_strlen(name.c_str(), -1);
  if (length <= width)
    return name;
  g_autofree char *end = g_utf8_substring(name.c_str(), length - width + 3, length);
  return std::string("...") + end;
}

// Fits name, bar and figures into one line. Figures that do not fit are left out from the end; name
// and bar share the remaining room.
static std::string
fit(const std::string &name, double part, const std::vector<std::string> &figures)
{
  auto width = terminal_width() - 1;
  auto name_width = std::min(g_utf8_strlen(name.c_str(), -1), glong{8});
  std::string text;
  for (auto &figure : figures) {
    if (static_cast<glong>(text.size() + figure.size()) + name_width > width)
      break;
    text += figure;
  }
  auto room = width - static_cast<glong>(text.size());
  auto shown = shortened(name, std::clamp(room - 23, name_width, glong{24}));
  auto bar_width = std::min(room - g_utf8_strlen(shown.c_str(), -1) - 3, glong{20});
  return shown + (bar_width >= 4 ? " " + bar(part, static_cast<int>(bar_width)) : "") + text;
}

void
Progress::update(guint64 done, guint64 wire, bool force)
{
  if (!progress_wanted() || (!force && !progress_due()))
    return;

  auto seconds = static_cast<double>(g_get_monotonic_time() - begun) / G_USEC_PER_SEC;
  auto moved = static_cast<double>(done - start);
  auto rate = seconds > 0 ? moved / seconds : 0;
  auto part = size > 0 ? static_cast<double>(done) / static_cast<double>(size) : 1;
  auto left = rate > 0 ? human_time(static_cast<double>(size - done) / rate) : "-:--";
  auto ratio = moved > 0 ? static_cast<double>(wire) / moved : 1;

  char percent[16];
  g_snprintf(percent, sizeof percent, " %3d%%", static_cast<int>(part * 100));
  char wire_text[32];
  g_snprintf(wire_text, sizeof wire_text, ", wire %.2f", ratio);
  progress_draw(fit(name, part,
                    {percent, " " + human_size(done) + " " + human_rate(rate),
                     ", " + left + " left", wire_text}),
                force);
}
