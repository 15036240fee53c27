// SPDX-License-Identifier: LGPL-2.1-or-later
// What the C++ server and the C++ client share: owners of C objects, and the channel.
#pragma once

#include <zelgvc/zelgvc.h>

#include <memory>

struct Unref {
  void
  operator()(gpointer object) const
  {
    g_object_unref(object);
  }
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};

template <typename T> using Ref = std::unique_ptr<T, Unref>;

// The peer has closed its side. On a bare channel that reads as "Disconnected"; a stage reports
// that it could not get another block.
inline bool
is_end(const GError *error)
{
  return g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
}

// A callback that calls a member function of its user data.
template <auto method> struct Forward;
template <typename T, void (T::*method)(GAsyncResult *)> struct Forward<method> {
  static void
  call(GObject *, GAsyncResult *result, gpointer self)
  {
    (static_cast<T *>(self)->*method)(result);
  }
};
template <auto method> constexpr GAsyncReadyCallback forward = Forward<method>::call;

class Channel
{
public:
  // Encryption is added first and compression second: the stage added last is nearest to the
  // caller, so messages are compressed and then encrypted. Both peers add them in this order.
  explicit Channel(GSocketConnection *socket) : connection_(gvc_connection_new(socket))
  {
    Ref<GBytes> key = demonstration_key();
    Ref<GvcDecryptor> decryptor(gvc_decryptor_new(key.get()));
    Ref<GvcEncryptor> encryptor(gvc_encryptor_new(key.get()));
    Ref<GvcDecompressor> decompressor(gvc_decompressor_new());
    Ref<GvcCompressor> compressor(gvc_compressor_new());

    gvc_connection_add_converters(connection_.get(), G_CONVERTER(decryptor.get()),
                                  G_CONVERTER(encryptor.get()));
    gvc_connection_add_converters(connection_.get(), G_CONVERTER(decompressor.get()),
                                  G_CONVERTER(compressor.get()));
    auto *io = G_IO_STREAM(connection_.get());
    reader_.reset(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io)));
    writer_.reset(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io)));
  }
  // Closes the socket. Closing the channel would also send what its stages still hold, and wait for
  // a peer that does not read.
  ~Channel()
  {
    auto *socket = gvc_connection_get_connection(connection_.get());
    g_io_stream_close(G_IO_STREAM(socket), nullptr, nullptr);
  }
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  GvcBytesInputStream *
  reader() const
  {
    return reader_.get();
  }
  GvcBytesOutputStream *
  writer() const
  {
    return writer_.get();
  }
  GIOStream *
  io() const
  {
    return G_IO_STREAM(connection_.get());
  }

private:
  // Real peers agree on 32 random bytes by a way of their own.
  static Ref<GBytes>
  demonstration_key()
  {
    guint8 key[32];
    for (guint8 i = 0; i < sizeof key; i++)
      key[i] = i;
    return Ref<GBytes>(g_bytes_new(key, sizeof key));
  }

  Ref<GvcConnection> connection_;
  Ref<GvcBytesInputStream> reader_;
  Ref<GvcBytesOutputStream> writer_;
};
