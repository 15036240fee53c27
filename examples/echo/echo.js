// SPDX-License-Identifier: LGPL-2.1-or-later
// Messages there and back, over a channel that compresses and encrypts.
//
//   gjs -m echo.js serve [--async]       sends every message back; prints the port it listens on
//   gjs -m echo.js call PORT [--async]   sends three messages and checks that they come back
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';
import System from 'system';
import ZelGvc from 'gi://ZelGvc?version=1.0';

// After this the asynchronous functions can be awaited.
Gio._promisify(Gio.SocketListener.prototype, 'accept_async');
Gio._promisify(ZelGvc.BytesInputStream.prototype, 'read_bytes_async');
Gio._promisify(ZelGvc.BytesOutputStream.prototype, 'put_bytes_async');

// A demonstration key. Real peers agree on 32 random bytes by a way of their own.
const key = new GLib.Bytes(Uint8Array.from({length: 32}, (_, i) => i));

// A channel with both stages, its reader and its writer.
class EchoChannel {
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
function isEnd(error) {
    return error.matches(ZelGvc.Error, ZelGvc.Error.DISCONNECTED) ||
        error.matches(Gio.IOErrorEnum, Gio.IOErrorEnum.PARTIAL_INPUT);
}

function report(error) {
    if (!(error instanceof GLib.Error))
        throw error;
    if (!isEnd(error))
        printerr(`echo: ${error.message}`);
}

function serve(socket) {
    const channel = new EchoChannel(socket);
    try {
        for (;;)
            channel.writer.put_bytes(channel.reader.read_bytes(null), null);
    } catch (error) {
        report(error);
    }
    channel.close();
}

async function serveAsync(socket) {
    const channel = new EchoChannel(socket);
    try {
        for (;;) {
            const message = await channel.reader.read_bytes_async(GLib.PRIORITY_DEFAULT, null);
            await channel.writer.put_bytes_async(message, GLib.PRIORITY_DEFAULT, null);
        }
    } catch (error) {
        report(error);
    }
    channel.close();
}

async function acceptAll(listener) {
    for (;;) {
        try {
            const [socket] = await listener.accept_async(null);
            serveAsync(socket).catch(logError);
        } catch (error) {
            // Without descriptors every accept fails at once, so the next one waits.
            // Gio.SocketService does not.
            report(error);
            await new Promise(resolve => GLib.timeout_add_seconds(GLib.PRIORITY_DEFAULT, 1, () => {
                resolve();
                return GLib.SOURCE_REMOVE;
            }));
        }
    }
}

async function runServer(useAsync) {
    const listener = new Gio.SocketListener();
    const wanted = Gio.InetSocketAddress.new_from_string('127.0.0.1', 0);
    const [, actual] = listener.add_address(wanted, Gio.SocketType.STREAM, Gio.SocketProtocol.TCP, null);
    print(actual.get_port());

    if (useAsync)
        await acceptAll(listener);
    for (;;) {
        const [socket] = listener.accept(null);
        serve(socket);
    }
}

const messages = [
    new GLib.Bytes(new TextEncoder().encode('hello')),
    new GLib.Bytes(Uint8Array.from({length: 1000000}, (_, i) => Math.floor(i * i / 251) % 256)),
    new GLib.Variant('(su)', ['answer', 42]).get_data_as_bytes(),
];

function check(echo, message) {
    if (!echo.equal(message))
        throw new Error('The echo differs');
}

function runBlocking(channel) {
    for (const message of messages) {
        channel.writer.put_bytes(message, null);
        check(channel.reader.read_bytes(null), message);
    }
}

async function runAsync(channel) {
    for (const message of messages) {
        // The answer is awaited while the message is still on its way: one message in each
        // direction may be in progress.
        const [, echo] = await Promise.all([
            channel.writer.put_bytes_async(message, GLib.PRIORITY_DEFAULT, null),
            channel.reader.read_bytes_async(GLib.PRIORITY_DEFAULT, null),
        ]);
        check(echo, message);
    }
}

async function runClient(port, useAsync) {
    const socket = Gio.SocketClient.new().connect_to_host('127.0.0.1', port, null);
    const channel = new EchoChannel(socket);
    if (useAsync)
        await runAsync(channel);
    else
        runBlocking(channel);
    const peer = ZelGvc.io_stream_get_remote_address_string(channel.connection);
    channel.close();
    print(`${messages.length} messages echoed by ${peer}`);
}

ZelGvc.init();
const [role, port] = System.programArgs;
const useAsync = System.programArgs.includes('--async');
const loop = new GLib.MainLoop(null, false);
let status = 0;
(role === 'serve' ? runServer(useAsync) : runClient(parseInt(port), useAsync)).catch(error => {
    printerr(`echo: ${error.message}`);
    status = 1;
}).finally(() => loop.quit());
loop.run();
System.exit(status);
