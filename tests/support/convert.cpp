// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/convert.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

namespace
{

constexpr gsize guard_size = 64;
constexpr guint8 guard_byte = 0xd7;
constexpr guint8 room_byte = 0xee;

// Runs through the alignments from one call to the next.
gsize
next_shift()
{
  static gsize shift;
  shift = (shift + 3) % 8;
  return shift;
}

void
assert_guard(const guint8 *guard)
{
  for (gsize i = 0; i < guard_size; i++)
    g_assert_cmphex(guard[i], ==, guard_byte);
}

} // namespace

Conversion
convert_in_place(gpointer converter, const guint8 *in, gsize in_size, guint8 *out, gsize room,
                 int flags)
{
  Conversion c{};
  c.read = untouched;
  c.written = untouched;
  GError *error = nullptr;
  c.result = G_CONVERTER_GET_IFACE(converter)->convert(G_CONVERTER(converter), in, in_size, out,
                                                       room, static_cast<GConverterFlags>(flags),
                                                       &c.read, &c.written, &error);
  c.error.reset(error);
  g_assert_true((c.result == G_CONVERTER_ERROR) == (error != nullptr));
  if (c.result != G_CONVERTER_ERROR) {
    g_assert_cmpuint(c.read, <=, in_size);
    g_assert_cmpuint(c.written, <=, room);
  }
  return c;
}

Conversion
convert(gpointer converter, ByteView in, gsize room, int flags)
{
  const gsize shift = next_shift();
  std::unique_ptr<guint8[]> in_memory{new guint8[in.size() + shift]};
  guint8 *const in_copy = in.empty() ? nullptr : in_memory.get() + shift;
  std::copy(in.begin(), in.end(), in_memory.get() + shift);

  Bytes out(shift + guard_size + room + guard_size, guard_byte);
  guint8 *const out_room = out.data() + shift + guard_size;
  std::fill_n(out_room, room, room_byte);

  Conversion c = convert_in_place(converter, in_copy, in.size(), out_room, room, flags);

  assert_guard(out_room - guard_size);
  assert_guard(out_room + room);
  g_assert_true(std::equal(in.begin(), in.end(), in_memory.get() + shift));
  c.room.assign(out_room, out_room + room);
  return c;
}

Bytes
join(std::initializer_list<ByteView> parts)
{
  Bytes whole;
  for (ByteView part : parts)
    whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

Bytes
little_endian(guint64 value, int size)
{
  Bytes bytes;
  for (int i = 0; i < size; i++)
    bytes.push_back(static_cast<guint8>(value >> (8 * i)));
  return bytes;
}

guint64
load_little_endian(ByteView bytes, gsize offset, int size)
{
  g_assert_cmpuint(offset + size, <=, bytes.size());
  guint64 value = 0;
  for (int i = 0; i < size; i++)
    value |= guint64{bytes[offset + i]} << (8 * i);
  return value;
}

Bytes
sample(Kind kind, gsize size, guint32 seed)
{
  static const char *const words[] = {"channel", " ",      "record", "block",
                                      "\n",      "stream", "of",     "the"};
  std::mt19937 random{seed};
  Bytes bytes;
  bytes.reserve(size + 600);
  while (bytes.size() < size) {
    const Kind now = kind == Kind::mixture ? all_kinds[random() % 4] : kind;
    const gsize run = kind == Kind::mixture ? 1 + random() % 500 : 500;
    for (gsize i = 0; i < run; i++) {
      switch (now) {
      case Kind::zeros:
        bytes.push_back(0);
        break;
      case Kind::noise:
        bytes.push_back(static_cast<guint8>(random()));
        break;
      case Kind::ramp:
        bytes.push_back(static_cast<guint8>(seed + bytes.size()));
        break;
      default:
        for (const char *c = words[random() % G_N_ELEMENTS(words)]; *c != '\0'; c++)
          bytes.push_back(static_cast<guint8>(*c));
      }
    }
  }
  bytes.resize(size);
  return bytes;
}

Reserve::Reserve(gsize size) : size_{size}
{
  void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  g_assert_true(memory != MAP_FAILED);
  data_ = static_cast<guint8 *>(memory);
}

Reserve::~Reserve()
{
  munmap(data_, size_);
}

Bytes
to_bytes(std::string_view text)
{
  return Bytes(text.begin(), text.end());
}

std::string_view
to_text(ByteView bytes)
{
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

void
write_in_pieces(GOutputStream *stream, ByteView data, std::mt19937 &random)
{
  while (!data.empty()) {
    const gsize limit = gsize{1} << (random() % 21);
    const gsize piece = std::min<gsize>(data.size(), 1 + random() % limit);
    g_autoptr(GError) error = nullptr;
    gsize written = 0;
    g_output_stream_write_all(stream, data.data(), piece, &written, nullptr, &error);
    g_assert_no_error(error);
    g_assert_cmpuint(written, ==, piece);
    data = data.subspan(piece);
  }
}

Bytes
read_in_pieces(GInputStream *stream, gsize size, std::mt19937 &random)
{
  Bytes bytes(size);
  gsize done = 0;
  while (done < size) {
    const gsize limit = gsize{1} << (random() % 18);
    const gsize piece = std::min<gsize>(size - done, 1 + random() % limit);
    g_autoptr(GError) error = nullptr;
    const gssize got = g_input_stream_read(stream, bytes.data() + done, piece, nullptr, &error);
    g_assert_no_error(error);
    g_assert_cmpint(got, >, 0);
    g_assert_cmpint(got, <=, piece);
    done += got;
  }
  return bytes;
}

Bytes
read_to_end(GInputStream *stream, ErrorPtr *error)
{
  Bytes bytes;
  guint8 piece[3000];
  for (;;) {
    GError *failure = nullptr;
    const gssize got = g_input_stream_read(stream, piece, sizeof piece, nullptr, &failure);
    g_assert_true((got < 0) == (failure != nullptr));
    if (got <= 0) {
      error->reset(failure);
      return bytes;
    }
    bytes.insert(bytes.end(), piece, piece + got);
  }
}

void
assert_converter_type(GType type, const char *name, gsize class_size, gsize instance_size)
{
  g_assert_cmpstr(g_type_name(type), ==, name);
  g_assert_cmpuint(g_type_parent(type), ==, G_TYPE_OBJECT);
  g_assert_false(G_TYPE_IS_ABSTRACT(type));
  GTypeQuery query;
  g_type_query(type, &query);
  g_assert_cmpuint(query.class_size, ==, class_size);
  g_assert_cmpuint(query.instance_size, ==, instance_size);

  guint n_interfaces = 0;
  g_autofree GType *interfaces = g_type_interfaces(type, &n_interfaces);
  g_assert_cmpuint(n_interfaces, ==, 1);
  g_assert_cmpuint(interfaces[0], ==, G_TYPE_CONVERTER);

  gpointer klass = g_type_class_ref(type);
  auto *iface = static_cast<GConverterIface *>(g_type_interface_peek(klass, G_TYPE_CONVERTER));
  g_assert_true(iface->convert != nullptr);
  g_assert_true(iface->reset != nullptr);
  g_type_class_unref(klass);
}
