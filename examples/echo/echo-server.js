// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends every message back. Usage: gjs -m echo-server.js [--async]; prints the port it listens on.
import Gio from 'gi://Gio';
import GLib from 'gi://GLib';
import System from 'system';
import ZelGvc from 'gi://ZelGvc?version=1.0';

import {EchoChannel, isEnd} from './echoChannel.js';

function report(error) {
    if (!(error instanceof GLib.Error))
        throw error;
    if (!isEnd(error))
        printerr(`echo-server: ${error.message}`);
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

ZelGvc.init();
const listener = new Gio.SocketListener();
const wanted = Gio.InetSocketAddress.new_from_string('127.0.0.1', 0);
const [, actual] = listener.add_address(wanted, Gio.SocketType.STREAM, Gio.SocketProtocol.TCP, null);
print(actual.get_port());

if (System.programArgs.includes('--async')) {
    acceptAll(listener).catch(logError);
    new GLib.MainLoop(null, false).run();
} else {
    for (;;) {
        const [socket] = listener.accept(null);
        serve(socket);
    }
}
