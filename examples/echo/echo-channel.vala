// SPDX-License-Identifier: LGPL-2.1-or-later
// What the Vala server and the Vala client share: a channel with both stages, its reader and its
// writer.
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
