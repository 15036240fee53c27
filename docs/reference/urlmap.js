// SPDX-License-Identifier: LGPL-2.1-or-later
// Where the links out of this reference lead.
baseURLs = [
  ['GLib', 'https://docs.gtk.org/glib/'],
  ['GObject', 'https://docs.gtk.org/gobject/'],
  ['Gio', 'https://docs.gtk.org/gio/'],
];
