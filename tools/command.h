// SPDX-License-Identifier: LGPL-2.1-or-later
// The subcommands and their command lines.
#pragma once

#include "errors.h"
#include "owners.h"
#include "stages.h"

#include <string>
#include <vector>

class CommandLine;

struct Command {
  const char *name;
  const char *arguments;
  const char *summary;
  Exit (*run)(CommandLine &line);
};

Exit run_keygen(CommandLine &line);
Exit run_listen(CommandLine &line);
Exit run_connect(CommandLine &line);
Exit run_send(CommandLine &line);
Exit run_receive(CommandLine &line);
Exit run_serve(CommandLine &line);
Exit run_ping(CommandLine &line);
Exit run_perf(CommandLine &line);
Exit run_decode(CommandLine &line);

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
  CommandLine(const Command &command, int argc, char **argv);
  CommandLine(const CommandLine &) = delete;

  // Adds an option that sets a variable. `argument` names its value in the help.
  void add(const char *name, GOptionArg kind, gpointer variable, const char *help,
           const char *argument = nullptr, char letter = 0);
  // Each fills in the member of its name.
  void add_stages();
  void add_timeout(int usual = 30);

  // Parses the options. Returns at least `least` and at most `most` arguments, or throws.
  std::vector<std::string> parse(gsize least, gsize most);

  Stages stages;
  guint timeout = 0; // seconds

private:
  const Command &command;
  int timeout_option = 0;
  int argc;
  char **argv;
  Owned<GOptionContext, g_option_context_free> context;
};
