/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/log.h"

#include "tests/support/values.h"

#include <cstring>
#include <mutex>
#include <utility>

namespace support
{

LogMessage
critical(std::string text)
{
  return {std::nullopt, G_LOG_LEVEL_CRITICAL, std::move(text)};
}

LogMessage
warning(std::string text)
{
  return {std::nullopt, G_LOG_LEVEL_WARNING, std::move(text)};
}

LogMessage
critical(const char *domain, std::string text)
{
  return {domain, G_LOG_LEVEL_CRITICAL, std::move(text)};
}

LogMessage
warning(const char *domain, std::string text)
{
  return {domain, G_LOG_LEVEL_WARNING, std::move(text)};
}

LogMessage
failed_check(const char *function, const char *expression)
{
  return critical(std::string(function) + ": assertion '" + expression + "' failed");
}

namespace
{

std::mutex log_mutex;
bool log_capturing = false;
std::vector<LogMessage> log_messages;

constexpr int quiet_levels = G_LOG_LEVEL_INFO | G_LOG_LEVEL_DEBUG;

bool
store_message(const char *domain, GLogLevelFlags level, std::string text)
{
  const std::lock_guard lock(log_mutex);
  /* A fatal message is printed. */
  if (!log_capturing || (level & (G_LOG_FLAG_FATAL | G_LOG_LEVEL_ERROR)) != 0)
    return false;
  const auto plain = static_cast<GLogLevelFlags>(level & G_LOG_LEVEL_MASK);
  if ((plain & quiet_levels) == 0)
    log_messages.push_back({domain != nullptr ? std::optional<std::string>(domain) : std::nullopt,
                            plain, std::move(text)});
  return true;
}

void
log_handler(const gchar *domain, GLogLevelFlags level, const gchar *text, gpointer)
{
  if (!store_message(domain, level, text != nullptr ? text : "(no text)"))
    g_log_default_handler(domain, level, text, nullptr);
}

/* Gets messages of g_log_structured() alone: while messages are collected, g_log() does not come
 * here.
 */
GLogWriterOutput
log_writer(GLogLevelFlags level, const GLogField *fields, gsize n_fields, gpointer)
{
  const char *domain = nullptr;
  std::string text = "(no text)";
  for (gsize i = 0; i < n_fields; i++) {
    const auto value = static_cast<const char *>(fields[i].value);
    if (strcmp(fields[i].key, "GLIB_DOMAIN") == 0)
      domain = value;
    else if (strcmp(fields[i].key, "MESSAGE") == 0)
      text = fields[i].length < 0 ? std::string(value)
                                  : std::string(value, static_cast<size_t>(fields[i].length));
  }
  if (store_message(domain, level, text))
    return G_LOG_WRITER_HANDLED;
  return g_log_writer_default(level, fields, n_fields, nullptr);
}

std::string
describe(const std::vector<LogMessage> &messages)
{
  std::string result;
  for (const auto &message : messages) {
    result += "\n    [" + message.domain.value_or("no domain") + "] level " +
              std::to_string(static_cast<int>(message.level)) + ": " + message.text;
  }
  return result.empty() ? "\n    (none)" : result;
}

} // namespace

LogCapture::LogCapture()
{
  static const bool writer_installed = [] {
    g_log_set_writer_func(log_writer, nullptr, nullptr);
    return true;
  }();
  g_assert_true(writer_installed);

  {
    const std::lock_guard lock(log_mutex);
    g_assert_false(log_capturing);
    log_capturing = true;
    log_messages.clear();
  }
  old_fatal_ = g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
  old_handler_ = g_log_set_default_handler(log_handler, nullptr);
}

LogCapture::~LogCapture()
{
  g_log_set_default_handler(old_handler_, nullptr);
  g_log_set_always_fatal(old_fatal_);
  const auto left = take();
  {
    const std::lock_guard lock(log_mutex);
    log_capturing = false;
  }
  if (!left.empty())
    g_error("log messages that nobody expected:%s", describe(left).c_str());
}

std::vector<LogMessage>
LogCapture::take()
{
  const std::lock_guard lock(log_mutex);
  return std::exchange(log_messages, {});
}

void
LogCapture::expect(std::initializer_list<LogMessage> expected)
{
  const auto actual = take();
  const std::vector<LogMessage> wanted(expected);
  if (actual != wanted)
    g_error("log messages expected:%s\n  but got:%s", describe(wanted).c_str(),
            describe(actual).c_str());
}

void
assert_dies(const char *subprocess_path, const char *stderr_line)
{
  g_test_trap_subprocess(subprocess_path, 0, GTestSubprocessFlags(0));
  g_test_trap_assert_failed();
  /* The line goes into a pattern that knows * and ?. */
  g_assert_null(strpbrk(stderr_line, "*?"));
  const Mem<char> pattern(g_strdup_printf("*\n%s\n*", stderr_line));
  g_test_trap_assert_stderr(pattern.get());
}

} // namespace support
