// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends three messages and checks that they come back. Usage: echo-client PORT [--async]
Bytes[] make_messages () {
  var big = new uint8[1000000];
  for (uint64 i = 0; i < big.length; i++)
    big[i] = (uint8) (i * i / 251);

  return {
    new Bytes ("hello".data),
    new Bytes.take ((owned) big),
    new Variant ("(su)", "answer", 42).get_data_as_bytes ()
  };
}

void check (Bytes echo, Bytes message) throws Error {
  if (echo.compare (message) != 0)
    throw new IOError.INVALID_DATA ("The echo differs");
}

void run_blocking (EchoChannel channel, Bytes[] messages) throws Error {
  foreach (var message in messages) {
    channel.writer.put_bytes (message);
    check (channel.reader.read_bytes (), message);
  }
}

async void run_async (EchoChannel channel, Bytes[] messages) throws Error {
  foreach (var message in messages) {
    // The message is on its way while the answer is awaited: one message in each direction may be
    // in progress.
    Error? failure = null;
    channel.writer.put_bytes_async.begin (message, Priority.DEFAULT, null, (source, result) => {
      try {
        channel.writer.put_bytes_async.end (result);
      } catch (Error error) {
        failure = error;
      }
    });
    check (yield channel.reader.read_bytes_async (Priority.DEFAULT, null), message);
    if (failure != null)
      throw failure;
  }
}

int main (string[] args) {
  var messages = make_messages ();

  ZelGvc.init ();
  try {
    var port = (uint16) int.parse (args[1]);
    var channel = new EchoChannel (new SocketClient ().connect_to_host ("127.0.0.1", port));
    if (args.length > 2 && args[2] == "--async") {
      var loop = new MainLoop ();
      Error? failure = null;
      run_async.begin (channel, messages, (source, result) => {
        try {
          run_async.end (result);
        } catch (Error error) {
          failure = error;
        }
        loop.quit ();
      });
      loop.run ();
      if (failure != null)
        throw failure;
    } else {
      run_blocking (channel, messages);
    }
    var peer = ZelGvc.io_stream_get_remote_address_string (channel.connection);
    channel.close ();
    print ("%d messages echoed by %s\n", messages.length, peer);
    return 0;
  } catch (Error error) {
    printerr ("echo-client: %s\n", error.message);
    return 1;
  }
}
