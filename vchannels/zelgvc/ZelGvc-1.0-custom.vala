// SPDX-License-Identifier: LGPL-2.1-or-later
namespace ZelGvc {
  public class BytesInputStream : GLib.FilterInputStream {
    [CCode (returns_floating_reference = true)]
    [Version (since = "0.1")]
    public async GLib.Variant read_variant_async (string format, int io_priority,
      GLib.Cancellable? cancellable) throws GLib.Error;
  }
}
