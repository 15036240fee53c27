// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "interrupt.h"
#include "talk.h"

// Goes on after a peer that fails, but not if this side has failed.
static Exit
talk_to_all(const TalkOptions &options, const Stages &stages, Listener &listener)
{
  for (;;) {
    try {
      talk(options, stages, listener.accept());
    } catch (const Failure &failure) {
      if (interrupted())
        return Exit::ok;
      if (failure.code == Exit::local)
        throw;
      complain(failure);
    }
  }
}

Exit
run_listen(CommandLine &line)
{
  TalkOptions options;
  const GOptionEntry entries[] = {
      {"keep", 0, 0, G_OPTION_ARG_NONE, &options.keep, "Serve one peer after another", nullptr},
      {"exec", 0, 0, G_OPTION_ARG_STRING, &options.exec.value,
       "Answer each message with the output of this shell command", "COMMAND"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  line.add(entries);
  options.add_to(line);
  auto arguments = line.parse(1, 1);
  options.check();

  Listener listener(Address::parse(arguments[0]));
  if (options.keep)
    return talk_to_all(options, line.stages, listener);
  return talk(options, line.stages, listener.accept_only());
}
