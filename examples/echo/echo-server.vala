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

int main (string[] args) {
  var service = new SocketService ();
  SocketAddress actual;

  ZelGvc.init ();
  service.stop ();
  try {
    var wanted = new InetSocketAddress (new InetAddress.loopback (SocketFamily.IPV4), 0);
    service.add_address (wanted, SocketType.STREAM, SocketProtocol.TCP, null, out actual);
    print ("%u\n", ((InetSocketAddress) actual).port);

    if (args.length > 1 && args[1] == "--async") {
      service.incoming.connect ((socket) => {
        serve_async.begin (socket);
        return true;
      });
      service.start ();
      new MainLoop ().run ();
    }
    while (true)
      serve (service.accept (null));
  } catch (Error error) {
    printerr ("echo-server: %s\n", error.message);
    return 1;
  }
}
