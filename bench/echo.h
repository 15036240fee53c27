// SPDX-License-Identifier: LGPL-2.1-or-later
// A process that sends back every byte on every connection made to it. An echo of the bytes of a
// channel is an echo of its messages, encrypted or not.
#pragma once

#include "owners.h"

#include <sys/types.h>

namespace bench
{

class EchoProcess
{
public:
  EchoProcess();
  ~EchoProcess();
  EchoProcess(const EchoProcess &) = delete;
  EchoProcess &operator=(const EchoProcess &) = delete;

  // A connection over loopback TCP, TCP_NODELAY set.
  Object<GSocketConnection> connect() const;

private:
  pid_t _pid = -1;
  guint16 _port = 0;
};

// How many descriptors this process may have open, once it has asked for as many as it can get.
unsigned long raiseDescriptorLimit();

} // namespace bench
