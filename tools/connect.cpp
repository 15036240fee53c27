// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "talk.h"

Exit
run_connect(CommandLine &line)
{
  TalkOptions options;
  options.add_to(line);
  auto arguments = line.parse(1, 1);
  options.check();
  options.tell_end = true;

  return talk(options, line.stages, connect_to(Address::parse(arguments[0]), 30));
}
