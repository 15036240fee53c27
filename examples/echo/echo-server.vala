// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends every message back. Usage: echo-server [--async]; prints the port it listens on.
// The peer has closed its side. On a bare channel that reads as "Disconnected"; a stage reports
// that it could not get another block.
bool is_end (Error error) {
  return error is ZelGvc.Error.DISCONNECTED || error is IOError.PARTIAL_INPUT;
}

void report (Error error) {
  if (!is_end (error))
    printerr ("echo-server: %s\n", error.message);
}

void serve (SocketConnection socket) {
  var channel = new EchoChannel (socket);
  try {
    while (true)
      channel.writer.put_bytes (channel.reader.read_bytes ());
  } catch (Error error) {
    report (error);
  }
  channel.close ();
}

async void serve_async (SocketConnection socket) {
  var channel = new EchoChannel (socket);
  try {
    while (true) {
      var message = yield channel.reader.read_bytes_async (Priority.DEFAULT, null);
      yield channel.writer.put_bytes_async (message, Priority.DEFAULT, null);
    }
  } catch (Error error) {
    report (error);
  }
  channel.close ();
}

async void accept_all (SocketListener listener) {
  while (true) {
    try {
      var socket = yield listener.accept_async ();
      serve_async.begin (socket);
    } catch (Error error) {
      // Without descriptors every accept fails at once, so the next one waits. SocketService does
      // not.
      report (error);
      Timeout.add_seconds (1, () => {
        accept_all.callback ();
        return Source.REMOVE;
      });
      yield;
    }
  }
}

int main (string[] args) {
  var listener = new SocketListener ();
  SocketAddress actual;

  ZelGvc.init ();
  try {
    var wanted = new InetSocketAddress.from_string ("127.0.0.1", 0);
    listener.add_address (wanted, SocketType.STREAM, SocketProtocol.TCP, null, out actual);
    print ("%u\n", ((InetSocketAddress) actual).port);

    if (args.length > 1 && args[1] == "--async") {
      accept_all.begin (listener);
      new MainLoop ().run ();
    }
    while (true)
      serve (listener.accept (null));
  } catch (Error error) {
    report (error);
    return 1;
  }
}
