// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends three messages and checks that they come back. Usage: gjs -m echo-client.js PORT [--async]
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';
import System from 'system';
import ZelGvc from 'gi://ZelGvc?version=1.0';

import {EchoChannel} from './echoChannel.js';

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

async function main() {
    ZelGvc.init();
    const [port, mode] = System.programArgs;
    const socket = Gio.SocketClient.new().connect_to_host('127.0.0.1', parseInt(port), null);
    const channel = new EchoChannel(socket);
    if (mode === '--async')
        await runAsync(channel);
    else
        runBlocking(channel);
    const peer = ZelGvc.io_stream_get_remote_address_string(channel.connection);
    channel.close();
    print(`${messages.length} messages echoed by ${peer}`);
}

const loop = new GLib.MainLoop(null, false);
let status = 0;
main().catch(error => {
    printerr(`echo-client: ${error.message}`);
    status = 1;
}).finally(() => loop.quit());
loop.run();
System.exit(status);
