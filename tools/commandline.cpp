// SPDX-License-Identifier: LGPL-2.1-or-later
#include "command.h"
#include "interrupt.h"
#include "output.h"

CommandLine::CommandLine(const Command &command)
    : name(command.name), usage("zelgvc " + name + " [OPTION...] " + command.arguments),
      context(g_option_context_new(command.arguments))
{
  g_set_prgname(("zelgvc " + name).c_str());
  g_option_context_set_summary(context, command.summary);
}

void
CommandLine::add(const GOptionEntry *entries)
{
  g_option_context_add_main_entries(context, entries, nullptr);
}

void
CommandLine::add(Stages *stages)
{
  auto *group = stages->option_group();
  g_option_context_add_group(context, group);
}

void
CommandLine::add_timeout(int *seconds)
{
  const GOptionEntry entries[] = {
      {"timeout", 0, 0, G_OPTION_ARG_INT, seconds,
       "Give up a peer that keeps silent this long, 0 for never (default 30)", "SECONDS"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  timeout = seconds;
  add(entries);
}

// The help of GOption describes a group only behind an option of its own. The stages belong to the
// plain help.
static void
print_help(GOptionContext *context)
{
  g_autofree char *help = g_option_context_get_help(context, FALSE, nullptr);
  output(help);
}

std::vector<std::string>
CommandLine::parse(int argc, char **argv, gsize least, gsize most)
{
  gboolean help = FALSE;
  const GOptionEntry help_entry[] = {
      {"help", 'h', 0, G_OPTION_ARG_NONE, &help, "Show this help", nullptr},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  add(help_entry);
  g_option_context_set_help_enabled(context, FALSE);

  g_autoptr(GError) error = nullptr;
  if (!g_option_context_parse(context, &argc, &argv, &error)) {
    if (interrupted())
      throw Failure{Exit::interrupted, "interrupted"};
    if (error->domain == G_FILE_ERROR)
      fail(Exit::local, "%s", error->message);
    fail(Exit::usage, "%s; see zelgvc %s --help", error->message, name.c_str());
  }
  if (help) {
    print_help(context);
    throw Failure{Exit::ok, ""};
  }
  if (timeout && (*timeout < 0 || *timeout > 86400))
    fail(Exit::usage, "--timeout is a number of seconds up to 86400");

  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (!arguments.empty() && arguments.front() == "--")
    arguments.erase(arguments.begin());
  if (arguments.size() < least)
    fail(Exit::usage, "an argument is missing; usage: %s", usage.c_str());
  if (arguments.size() > most)
    fail(Exit::usage, "too many arguments; usage: %s", usage.c_str());
  return arguments;
}
