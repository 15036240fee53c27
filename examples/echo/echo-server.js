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

ZelGvc.init();
const service = Gio.SocketService.new();
service.stop();
const wanted = Gio.InetSocketAddress.new(Gio.InetAddress.new_loopback(Gio.SocketFamily.IPV4), 0);
const [, actual] = service.add_address(wanted, Gio.SocketType.STREAM, Gio.SocketProtocol.TCP, null);
print(actual.get_port());

if (System.programArgs.includes('--async')) {
    service.connect('incoming', (_service, socket) => {
        serveAsync(socket).catch(logError);
        return true;
    });
    service.start();
    new GLib.MainLoop(null, false).run();
} else {
    for (;;) {
        const [socket] = service.accept(null);
        serve(socket);
    }
}
