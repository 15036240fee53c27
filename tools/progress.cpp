// SPDX-License-Identifier: LGPL-2.1-or-later
#include "progress.h"
#include "output.h"

#include <algorithm>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

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
