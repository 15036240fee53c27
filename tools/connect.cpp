// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "talk.h"

Exit
run_connect(const Command &command, int argc, char **argv)
{
  TalkOptions options;
  CommandLine line(command);
  options.add_to(line);
  auto arguments = line.parse(argc, argv, 1, 1);
  options.check();
  options.tell_end = true;

  return talk(options, connect_to(Address::parse(arguments[0]), 30));
}
