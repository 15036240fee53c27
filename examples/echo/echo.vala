// SPDX-License-Identifier: LGPL-2.1-or-later
// Messages there and back, over a channel that compresses and encrypts.
//
//   echo serve [--async]       sends every message back; prints the port it listens on
//   echo call PORT [--async]   sends three messages and checks that they come back

// A channel with both stages, its reader and its writer.
class EchoChannel {
  public ZelGvc.Connection connection;
  public ZelGvc.BytesInputStream reader;
  public ZelGvc.BytesOutputStream writer;

  public EchoChannel (SocketConnection socket) {
    connection = new ZelGvc.Connection (socket);
    // The stage added last is nearest to the caller: messages are compressed and then encrypted.
    // Both peers add their stages in this order.
    var key = demonstration_key ();
    connection.add_converters (new ZelGvc.Decryptor (key), new ZelGvc.Encryptor (key));
    connection.add_converters (new ZelGvc.Decompressor (), new ZelGvc.Compressor ());
    reader = new ZelGvc.BytesInputStream (connection.input_stream);
    writer = new ZelGvc.BytesOutputStream (connection.output_stream);
  }

  // Real peers agree on 32 random bytes by a way of their own.
  static Bytes demonstration_key () {
    var key = new uint8[32];
    for (uint8 i = 0; i < 32; i++)
      key[i] = i;
    return new Bytes (key);
  }

  public void close () {
    try {
      // Closing the channel would also send what its stages still hold, and wait for a peer that
      // does not read.
      connection.get_connection ().close ();
    } catch (Error error) {
      // The socket has gone all the same.
    }
  }
}

// The peer has closed its side. On a bare channel that reads as "Disconnected"; a stage reports
// that it could not get another block.
bool is_end (Error error) {
  return error is ZelGvc.Error.DISCONNECTED || error is IOError.PARTIAL_INPUT;
}

void report (Error error) {
  if (!is_end (error))
    printerr ("echo: %s\n", error.message);
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

void run_server (bool use_async) throws Error {
  var listener = new SocketListener ();
  var wanted = new InetSocketAddress.from_string ("127.0.0.1", 0);
  SocketAddress actual;
  listener.add_address (wanted, SocketType.STREAM, SocketProtocol.TCP, null, out actual);
  print ("%u\n", ((InetSocketAddress) actual).port);

  if (use_async) {
    accept_all.begin (listener);
    new MainLoop ().run ();
  }
  while (true)
    serve (listener.accept (null));
}

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

void run_client (uint16 port, bool use_async) throws Error {
  var messages = make_messages ();
  var channel = new EchoChannel (new SocketClient ().connect_to_host ("127.0.0.1", port));
  if (use_async) {
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
}

int main (string[] args) {
  var use_async = args[args.length - 1] == "--async";

  ZelGvc.init ();
  try {
    if (args[1] == "serve")
      run_server (use_async);
    else
      run_client ((uint16) int.parse (args[2]), use_async);
    return 0;
  } catch (Error error) {
    printerr ("echo: %s\n", error.message);
    return 1;
  }
}
