// SPDX-License-Identifier: LGPL-2.1-or-later
#include "command.h"
#include "interrupt.h"
#include "output.h"

CommandLine::CommandLine(const Command &command, int argc, char **argv)
    : command(command), argc(argc), argv(argv), context(g_option_context_new(command.arguments))
{
  g_set_prgname((std::string("zelgvc ") + command.name).c_str());
  g_option_context_set_summary(context.get(), command.summary);
}

void
CommandLine::add(const char *name, GOptionArg kind, gpointer variable, const char *help,
                 const char *argument, char letter)
{
  const GOptionEntry entries[] = {{name, letter, 0, kind, variable, help, argument}, {}};
  g_option_context_add_main_entries(context.get(), entries, nullptr);
}

void
CommandLine::add_stages()
{
  auto *group = stages.option_group();
  g_option_context_add_group(context.get(), group);
}

void
CommandLine::add_timeout(int usual)
{
  timeout_option = usual;
  add("timeout", G_OPTION_ARG_INT, &timeout_option,
      usual == 0 ? "Give up a peer that is silent this long, 0 for never (default)"
                 : "Give up a peer that is silent this long, 0 for never (default 30)",
      "SECONDS");
}

std::vector<std::string>
CommandLine::parse(gsize least, gsize most)
{
  gboolean help = FALSE;
  add("help", G_OPTION_ARG_NONE, &help, "Show this help", nullptr, 'h');
  // GLib's own --help leaves out the group of the stages.
  g_option_context_set_help_enabled(context.get(), FALSE);

  g_autoptr(GError) error = nullptr;
  if (!g_option_context_parse(context.get(), &argc, &argv, &error)) {
    if (interrupted())
      throw Failure{Exit::interrupted, "interrupted"};
    if (error->domain == G_FILE_ERROR)
      fail(Exit::local, "%s", error->message);
    fail(Exit::usage, "%s; see zelgvc %s --help", error->message, command.name);
  }
  if (help) {
    g_autofree char *text = g_option_context_get_help(context.get(), FALSE, nullptr);
    output(text);
    throw Failure{Exit::ok, ""};
  }
  if (timeout_option < 0 || timeout_option > 86400)
    fail(Exit::usage, "--timeout is a number of seconds up to 86400");
  timeout = static_cast<guint>(timeout_option);

  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (!arguments.empty() && arguments.front() == "--")
    arguments.erase(arguments.begin());
  if (arguments.size() < least || arguments.size() > most)
    fail(Exit::usage, "%s; usage: zelgvc %s [OPTION...] %s",
         arguments.size() < least ? "an argument is missing" : "too many arguments", command.name,
         command.arguments);
  return arguments;
}
