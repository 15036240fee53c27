// SPDX-License-Identifier: LGPL-2.1-or-later
// The subcommands, and how each reads its command line.
#pragma once

#include "errors.h"
#include "stages.h"

#include <string>
#include <vector>

struct Command {
  const char *name;
  const char *arguments;
  const char *summary;
  Exit (*run)(const Command &command, int argc, char **argv);
};

Exit run_keygen(const Command &command, int argc, char **argv);
Exit run_listen(const Command &command, int argc, char **argv);
Exit run_connect(const Command &command, int argc, char **argv);
Exit run_send(const Command &command, int argc, char **argv);
Exit run_receive(const Command &command, int argc, char **argv);
Exit run_serve(const Command &command, int argc, char **argv);
Exit run_ping(const Command &command, int argc, char **argv);
Exit run_perf(const Command &command, int argc, char **argv);
Exit run_decode(const Command &command, int argc, char **argv);

// A string that an option sets.
struct OptionText {
  char *value = nullptr;

  OptionText() = default;
  OptionText(const OptionText &) = delete;
  ~OptionText()
  {
    g_free(value);
  }
  operator const char *() const
  {
    return value;
  }
};

class CommandLine
{
public:
  explicit CommandLine(const Command &command);
  ~CommandLine()
  {
    g_option_context_free(context);
  }
  CommandLine(const CommandLine &) = delete;

  void add(const GOptionEntry *entries);
  void add(Stages *stages);
  // --timeout, with its default.
  void add_timeout(int *seconds);

  // What is left when the options have been taken out: at least `least` arguments and at most
  // `most`. Throws with the usage otherwise.
  std::vector<std::string> parse(int argc, char **argv, gsize least, gsize most);

private:
  std::string name;
  std::string usage;
  GOptionContext *context;
  int *timeout = nullptr;
};
