// SPDX-License-Identifier: LGPL-2.1-or-later
// What the JavaScript server and the JavaScript client share.
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';
import ZelGvc from 'gi://ZelGvc?version=1.0';

// After this the asynchronous functions can be awaited.
Gio._promisify(Gio.SocketListener.prototype, 'accept_async');
Gio._promisify(ZelGvc.BytesInputStream.prototype, 'read_bytes_async');
Gio._promisify(ZelGvc.BytesOutputStream.prototype, 'put_bytes_async');

// A demonstration key. Real peers agree on 32 random bytes by a way of their own.
const key = new GLib.Bytes(Uint8Array.from({length: 32}, (_, i) => i));

// A channel with both stages, its reader and its writer.
export class EchoChannel {
    constructor(socket) {
        this.connection = ZelGvc.Connection.new(socket);
        // The stage added last is nearest to the caller: messages are compressed and then
        // encrypted. Both peers add their stages in this order.
        this.connection.add_converters(ZelGvc.Decryptor.new(key), ZelGvc.Encryptor.new(key));
        this.connection.add_converters(ZelGvc.Decompressor.new(), ZelGvc.Compressor.new());
        this.reader = ZelGvc.BytesInputStream.new(this.connection.get_input_stream());
        this.writer = ZelGvc.BytesOutputStream.new(this.connection.get_output_stream());
    }

    close() {
        // Closing the channel would also send what its stages still hold, and wait for a peer that
        // does not read.
        this.connection.get_connection().close(null);
    }
}

// The peer has closed its side. On a bare channel that reads as "Disconnected"; a stage reports
// that it could not get another block.
export function isEnd(error) {
    return error.matches(ZelGvc.Error, ZelGvc.Error.DISCONNECTED) ||
        error.matches(Gio.IOErrorEnum, Gio.IOErrorEnum.PARTIAL_INPUT);
}
