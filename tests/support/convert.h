// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared by the tests of converters: one call of convert over guarded buffers, whole streams
// through GIO's converter streams, generated data and the facts that all converter types have in
// common.
#pragma once

#include <gio/gio.h>

#include <initializer_list>
#include <memory>
#include <random>
#include <span>
#include <string_view>
#include <vector>

using Bytes = std::vector<guint8>;
using ByteView = std::span<const guint8>;

struct ErrorFree {
  void
  operator()(GError *error) const
  {
    g_error_free(error);
  }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

// The value of the counts before a call. A failed call does not change it.
inline constexpr gsize untouched = 0x5aa5c33c5aa5c33c;

struct Conversion {
  GConverterResult result;
  gsize read;
  gsize written;
  ErrorPtr error;
  Bytes room; // the whole output room as the call left it

  ByteView
  produced() const
  {
    return ByteView{room}.first(written);
  }
};

// Calls the convert operation of the object's class itself, so that the counts and an output room
// of size 0 reach it as they are. The input stands at the very end of its allocation, the room
// between guard bytes that are checked; both start at changing alignments. An empty input is NULL,
// as GIO's streams offer it.
Conversion convert(gpointer converter, ByteView in, gsize room, int flags = 0);

#define ASSERT_CONVERTED(conversion, want_result, want_read, want_written)                         \
  G_STMT_START                                                                                     \
  {                                                                                                \
    const Conversion &c_ = (conversion);                                                           \
    g_assert_no_error(c_.error.get());                                                             \
    g_assert_cmpint(c_.result, ==, (want_result));                                                 \
    g_assert_cmpuint(c_.read, ==, (want_read));                                                    \
    g_assert_cmpuint(c_.written, ==, (want_written));                                              \
  }                                                                                                \
  G_STMT_END

#define ASSERT_FAILED(conversion, want_code, want_message)                                         \
  G_STMT_START                                                                                     \
  {                                                                                                \
    const Conversion &c_ = (conversion);                                                           \
    g_assert_cmpint(c_.result, ==, G_CONVERTER_ERROR);                                             \
    g_assert_error(c_.error.get(), G_IO_ERROR, (want_code));                                       \
    g_assert_cmpstr(c_.error->message, ==, (want_message));                                        \
    g_assert_cmpuint(c_.read, ==, untouched);                                                      \
    g_assert_cmpuint(c_.written, ==, untouched);                                                   \
  }                                                                                                \
  G_STMT_END

#define ASSERT_BYTES(left, right)                                                                  \
  G_STMT_START                                                                                     \
  {                                                                                                \
    const auto &l_ = (left);                                                                       \
    const auto &r_ = (right);                                                                      \
    g_assert_cmpmem(l_.data(), l_.size(), r_.data(), r_.size());                                   \
  }                                                                                                \
  G_STMT_END

Bytes join(std::initializer_list<ByteView> parts);
Bytes little_endian(guint64 value, int size);
guint64 load_little_endian(ByteView bytes, gsize offset, int size);

enum class Kind { zeros, noise, text, ramp, mixture };
inline constexpr Kind all_kinds[] = {Kind::zeros, Kind::noise, Kind::text, Kind::ramp,
                                     Kind::mixture};
// The same bytes for the same arguments.
Bytes sample(Kind kind, gsize size, guint32 seed = 1);

// Address space that costs no memory until it is written to.
class Reserve
{
public:
  explicit Reserve(gsize size);
  ~Reserve();
  Reserve(const Reserve &) = delete;
  guint8 *
  data() const
  {
    return data_;
  }
  gsize
  size() const
  {
    return size_;
  }

private:
  guint8 *data_;
  gsize size_;
};

// One call of convert over the caller's own buffers, for sizes that cannot be copied.
Conversion convert_in_place(gpointer converter, const guint8 *in, gsize in_size, guint8 *out,
                            gsize room, int flags = 0);

Bytes to_bytes(std::string_view text);
std::string_view to_text(ByteView bytes);

// Writes `data` to `stream` in pieces of random sizes.
void write_in_pieces(GOutputStream *stream, ByteView data, std::mt19937 &random);
// Reads exactly `size` bytes in pieces of random sizes.
Bytes read_in_pieces(GInputStream *stream, gsize size, std::mt19937 &random);
// Reads until the end of the stream or an error; `error` is set to the latter.
Bytes read_to_end(GInputStream *stream, ErrorPtr *error);

// The class facts that all four converter types share.
void assert_converter_type(GType type, const char *name, gsize class_size, gsize instance_size);
