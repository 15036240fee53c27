// SPDX-License-Identifier: LGPL-2.1-or-later
// zelgvc: talks over channels, measures them and decodes recorded streams.
#include "command.h"
#include "interrupt.h"
#include "output.h"

#include <zelgvc/zelgvc.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <unistd.h>

static const Command commands[] = {
    {"keygen", "FILE", "Makes a key file: 32 random bytes that only its owner can read.",
     run_keygen},
    {"listen", "ADDRESS", "Waits for a peer. Lines become messages, messages become lines.",
     run_listen},
    {"connect", "ADDRESS", "Connects to a peer. Lines become messages, messages become lines.",
     run_connect},
    {"send", "ADDRESS FILE...", "Sends files to a waiting zelgvc receive.", run_send},
    {"receive", "ADDRESS DIRECTORY", "Waits for a zelgvc send and stores its files.", run_receive},
    {"serve", "ADDRESS", "Answers zelgvc ping and zelgvc perf, up to 100 at once.", run_serve},
    {"ping", "ADDRESS", "Measures round trips to a zelgvc serve.", run_ping},
    {"perf", "ADDRESS", "Measures throughput to and from a zelgvc serve.", run_perf},
    {"decode", "[FILE]", "Decodes one direction of a recorded byte stream.", run_decode},
};

static std::string
help()
{
  std::string text = "Usage: zelgvc COMMAND [OPTION...] [ARGUMENT...]\n\n"
                     "Talks over framed, compressed and encrypted channels.\n\nCommands:\n";
  for (auto &command : commands) {
    char line[160];
    g_snprintf(line, sizeof line, "  %-8s %-18s %s\n", command.name, command.arguments,
               command.summary);
    text += line;
  }
  return text + "\nAn address is HOST:PORT, [V6]:PORT or unix:PATH.\n"
                "See zelgvc COMMAND --help for the options, and zelgvc(1) for details.\n";
}

static Exit
run(int argc, char **argv)
{
  if (argc < 2)
    fail(Exit::usage, "no command; see zelgvc --help");
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    output(help());
    return Exit::ok;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    output_line("zelgvc %s", ZELGVC_VERSION);
    return Exit::ok;
  }
  for (auto &command : commands)
    if (std::strcmp(argv[1], command.name) == 0) {
      CommandLine line(command, argc - 1, argv + 1);
      return command.run(line);
    }
  fail(Exit::usage, "there is no command \"%s\"; see zelgvc --help",
       printable(std::string(argv[1])).c_str());
}

static int
exit_code(Exit code)
{
  return code == Exit::interrupted ? interrupt_exit_code() : static_cast<int>(code);
}

// Otherwise the next file or socket would take the place of a closed standard descriptor, and
// poll() would wait for ever for the wrong end of a pipe. Opens /dev/null in the wrong direction,
// so that using the descriptor still fails.
static void
occupy_standard_descriptors()
{
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    auto wrong = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    auto flags = fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_ACCMODE) != wrong)
      continue;
    int null = open("/dev/null", wrong);
    if (dup2(null, fd) != fd)
      std::_Exit(static_cast<int>(Exit::local));
    if (null != fd)
      close(null);
  }
}

[[noreturn]] static void
give_up(const char *why)
{
  // More than this could need memory.
  for (auto *text : {"zelgvc: ", why, "\n"})
    if (write(STDERR_FILENO, text, std::strlen(text)) < 0)
      break;
  std::_Exit(static_cast<int>(Exit::local));
}

static void
on_log(const char *domain, GLogLevelFlags level, const char *message, gpointer)
{
  if (level & G_LOG_LEVEL_ERROR)
    give_up(message);
  g_log_default_handler(domain, level, message, nullptr);
}

// GLib and the C++ library abort if the system refuses memory, a thread or a descriptor.
static void
expect_refusals()
{
  g_log_set_default_handler(on_log, nullptr);
  std::set_terminate([] { give_up("the system refuses memory or a thread"); });
}

int
main(int argc, char **argv)
{
  occupy_standard_descriptors();
  expect_refusals();
  interrupt_start();
  std::setlocale(LC_ALL, "");
  gvc_init();

  try {
    auto code = run(argc, argv);
    progress_clear();
    return exit_code(code);
  } catch (const Failure &failure) {
    complain(failure);
    progress_clear();
    return exit_code(failure.code);
  } catch (const OutputClosed &) {
    progress_clear();
    return 0;
  }
}
