/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Captured log messages, and the last words of a process. */
#pragma once

#include <glib.h>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace support
{

struct LogMessage {
  std::optional<std::string> domain; /* none where the message has no log domain */
  GLogLevelFlags level;
  std::string text;
  bool operator==(const LogMessage &) const = default;
};

/* Messages without a log domain, as the library's own are. */
LogMessage critical(std::string text);
LogMessage warning(std::string text);
/* Messages of somebody else, "GLib-GIO" for instance. */
LogMessage critical(const char *domain, std::string text);
LogMessage warning(const char *domain, std::string text);
/* "function: assertion 'expression' failed", as a failed precondition prints it. */
LogMessage failed_check(const char *function, const char *expression);

/* Collects every message above the level "info", from g_log() and from structured logging alike and
 * from any thread, as long as it lives; criticals and warnings do not end the program meanwhile. At
 * the end of its scope, whatever was not asked for with expect() fails the test. */
class LogCapture
{
public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  /* Fails unless exactly these messages came, in this order, since the last call. */
  void expect(std::initializer_list<LogMessage> expected);
  void
  expect_none()
  {
    expect({});
  }
  std::vector<LogMessage> take();

private:
  GLogLevelFlags old_fatal_;
  GLogFunc old_handler_;
};

/* Runs a test case of this program in a process of its own and fails unless it aborts, or exits
 * with a failure, and prints exactly this line (after others) on standard error. */
void assert_dies(const char *subprocess_path, const char *stderr_line);

} // namespace support
