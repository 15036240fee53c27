// SPDX-License-Identifier: LGPL-2.1-or-later
// What a hostile peer can make a reader spend: memory and processor time for every byte that it
// sends. Each row is measured in a process of its own, against a stream that stands for the peer.
#include "owners.h"

#include <zelgvc/zelgvc.h>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

using namespace bench;

// ---- The peer ----

// Sends `head` and then `pattern` again and again, up to `total` bytes, in pieces of `piece` bytes,
// and then the end.
struct Script {
  GBytes *head;
  GBytes *pattern;
  gsize total;
  gsize piece;
};

struct Peer {
  GInputStream parent;
  Script script;
  gsize sent;
};
struct PeerClass {
  GInputStreamClass parent;
};

GType peer_get_type();
G_DEFINE_TYPE(Peer, peer, G_TYPE_INPUT_STREAM)

gssize
peer_read(GInputStream *stream, void *buffer, gsize count, GCancellable *, GError **)
{
  auto *self = reinterpret_cast<Peer *>(stream);
  gsize head_size, pattern_size;
  auto *head = static_cast<const guint8 *>(g_bytes_get_data(self->script.head, &head_size));
  auto *pattern =
      static_cast<const guint8 *>(g_bytes_get_data(self->script.pattern, &pattern_size));
  bool in_head = self->sent < head_size;
  gsize at = in_head ? self->sent : (self->sent - head_size) % pattern_size;
  gsize run = (in_head ? head_size : pattern_size) - at;
  gsize size = std::min({count, self->script.piece, self->script.total - self->sent, run});
  if (size > 0)
    std::memcpy(buffer, (in_head ? head : pattern) + at, size);
  self->sent += size;
  return static_cast<gssize>(size);
}

void
peer_finalize(GObject *object)
{
  auto *self = reinterpret_cast<Peer *>(object);
  g_bytes_unref(self->script.head);
  g_bytes_unref(self->script.pattern);
  G_OBJECT_CLASS(peer_parent_class)->finalize(object);
}

void
peer_class_init(PeerClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = peer_finalize;
  G_INPUT_STREAM_CLASS(klass)->read_fn = peer_read;
}

void
peer_init(Peer *)
{
}

// ---- What it sends ----

GBytes *
words(std::initializer_list<guint32> values, gsize zeros = 0)
{
  gsize size = values.size() * 4 + zeros;
  auto *bytes = static_cast<guint8 *>(g_malloc0(size));
  gsize at = 0;
  for (guint32 value : values) {
    value = GUINT32_TO_LE(value);
    std::memcpy(bytes + at, &value, 4);
    at += 4;
  }
  return g_bytes_new_take(bytes, size);
}

GBytes *
nothing()
{
  return g_bytes_new_static("", 0);
}

GBytes *
zeros(gsize size)
{
  return words({}, size);
}

// What a converter makes of `size` zeros in so many calls, of which the last one takes them.
GBytes *
converted(GConverter *converter, gsize size, int calls)
{
  Object<GConverter> owned(converter);
  gsize room = size + size / 8 + 1024;
  auto *in = static_cast<guint8 *>(g_malloc0(size));
  auto *out = static_cast<guint8 *>(g_malloc(room));
  gsize consumed, produced, used = 0;
  GError *error = nullptr;
  for (int i = 0; i < calls; i++, used += produced) {
    bool done =
        g_converter_convert(converter, in, size, out + used, room - used, G_CONVERTER_NO_FLAGS,
                            &consumed, &produced, &error) != G_CONVERTER_ERROR;
    must(done, error, "convert");
  }
  g_free(in);
  auto *result = g_bytes_new(out, used);
  g_free(out);
  return result;
}

GBytes *
block_of_zeros(gsize size)
{
  return converted(G_CONVERTER(gvc_compressor_new()), size, 1);
}

GBytes *
the_key()
{
  return g_bytes_new_static("0123456789abcdef0123456789abcdef", 32);
}

// With the IV record before it, so that it may be sent again and again.
GBytes *
records_of_zeros(gsize size)
{
  SharedBytes key(the_key());
  return converted(G_CONVERTER(gvc_encryptor_new(key.get())), size, 2);
}

// ---- The readers ----

GInputStream *
decompressing(GInputStream *base)
{
  Object<GConverter> converter(G_CONVERTER(gvc_decompressor_new()));
  return g_converter_input_stream_new(base, converter.get());
}

GInputStream *
decrypting(GInputStream *base)
{
  SharedBytes key(the_key());
  Object<GConverter> converter(G_CONVERTER(gvc_decryptor_new(key.get())));
  return g_converter_input_stream_new(base, converter.get());
}

// Reads until the end or an error, and keeps nothing.
void
drain(GInputStream *stream, GError **error)
{
  static guint8 buffer[65536];
  while (g_input_stream_read(stream, buffer, sizeof buffer, nullptr, error) > 0)
    continue;
}

void
read_through(GInputStream *(*wrap)(GInputStream *), GInputStream *base, GError **error)
{
  Object<GInputStream> stream(wrap(base));
  drain(stream.get(), error);
}

void
read_decompressed(GInputStream *base, GError **error)
{
  read_through(decompressing, base, error);
}

void
read_decrypted(GInputStream *base, GError **error)
{
  read_through(decrypting, base, error);
}

void
read_frames(GInputStream *base, GError **error)
{
  Object<GvcBytesInputStream> stream(gvc_bytes_input_stream_new(base));
  for (;;) {
    auto *message = gvc_bytes_input_stream_read_bytes(stream.get(), nullptr, error);
    if (!message)
      return;
    g_bytes_unref(message);
  }
}

// The end of its stream does not end a string: the peer's last byte has to.
void
read_string(GInputStream *base, GError **error)
{
  Object<GvcDataInputStream> stream(gvc_data_input_stream_new(base));
  gsize length;
  g_free(gvc_data_input_stream_read_string(stream.get(), '\n', &length, nullptr, error));
}

// ---- The cases ----

constexpr gsize mib = 1024 * 1024;

struct Case {
  const char *reader;
  const char *stream;
  void (*read)(GInputStream *base, GError **error);
  Script (*script)();
};

const Case cases[] = {
    {"frames", "announces 2 GiB, sends 64 KiB", read_frames,
     [] {
       return Script{words({0x7fffffff}), zeros(4096), 65536, 4096};
     }},
    {"frames", "64 MiB in one message", read_frames,
     [] {
       return Script{words({64 * mib}), zeros(65536), 64 * mib + 4, 65536};
     }},
    {"frames", "one message, a byte at a time", read_frames,
     [] {
       return Script{words({4 * mib}), zeros(65536), 4 * mib + 4, 1};
     }},
    {"frames", "messages of 1 byte", read_frames,
     [] {
       return Script{nothing(), words({1}, 1), 4 * mib, 5};
     }},
    {"strings", "64 MiB without a terminator", read_string,
     [] {
       return Script{zeros(64 * mib), g_bytes_new_static("\n", 1), 64 * mib + 1, 65536};
     }},
    {"strings", "the same, a byte at a time", read_string,
     [] {
       return Script{zeros(4 * mib), g_bytes_new_static("\n", 1), 4 * mib + 1, 1};
     }},
    {"decompressor", "announces 4 GiB, sends 64 MiB", read_decompressed,
     [] {
       return Script{words({0xffffffff, 0xffffffff}), zeros(65536), 64 * mib, 65536};
     }},
    {"decompressor", "the same, 4 MiB a byte at a time", read_decompressed,
     [] {
       return Script{words({0xffffffff, 0xffffffff}), zeros(65536), 4 * mib, 1};
     }},
    {"decompressor", "blocks of 1 MiB of zeros", read_decompressed,
     [] {
       return Script{nothing(), block_of_zeros(mib), 2 * mib, 65536};
     }},
    {"decompressor", "one block of 256 MiB of zeros", read_decompressed,
     [] {
       auto *block = block_of_zeros(256 * mib);
       return Script{nothing(), block, g_bytes_get_size(block), 65536};
     }},
    {"decompressor", "the same, a byte at a time", read_decompressed,
     [] {
       auto *block = block_of_zeros(256 * mib);
       return Script{nothing(), block, g_bytes_get_size(block), 1};
     }},
    {"decompressor", "announces 4 GiB, holds nothing", read_decompressed,
     [] {
       return Script{words({3, 0xffffffff}), zeros(3), 11, 11};
     }},
    {"decompressor", "empty blocks", read_decompressed,
     [] {
       return Script{nothing(), words({0, 0}), 4 * mib, 65536};
     }},
    {"decryptor", "announces 2 GiB, sends 64 MiB", read_decrypted,
     [] {
       return Script{words({0x7ffffff0, 0}), zeros(65536), 64 * mib, 65536};
     }},
    {"decryptor", "the same, 4 MiB a byte at a time", read_decrypted,
     [] {
       return Script{words({0x7ffffff0, 0}), zeros(65536), 4 * mib, 1};
     }},
    {"decryptor", "announces 2^60 bytes", read_decrypted,
     [] {
       return Script{words({0, 0x10000000}), zeros(65536), 64 * mib, 65536};
     }},
    {"decryptor", "one record of 64 MiB", read_decrypted,
     [] {
       auto *record = records_of_zeros(64 * mib);
       return Script{nothing(), record, g_bytes_get_size(record), 65536};
     }},
    {"decryptor", "records of 1 byte of text", read_decrypted,
     [] {
       return Script{nothing(), records_of_zeros(1), 4 * mib, 65536};
     }},
    {"decryptor", "records of 1 byte, a byte at a time", read_decrypted,
     [] {
       return Script{nothing(), records_of_zeros(1), 4 * mib, 1};
     }},
    {"decryptor", "IV records", read_decrypted,
     [] {
       return Script{nothing(), words({0, 0}, 16), 4 * mib, 65536};
     }},
};

// ---- Measuring ----

// A line of /proc/self/status, in bytes.
double
status_bytes(const char *name)
{
  std::FILE *file = std::fopen("/proc/self/status", "r");
  char line[256];
  double kib = 0;
  while (file && std::fgets(line, sizeof line, file))
    if (std::strncmp(line, name, std::strlen(name)) == 0)
      kib = std::strtod(line + std::strlen(name) + 1, nullptr);
  if (file)
    std::fclose(file);
  return kib * 1024;
}

void
forget_peaks()
{
  malloc_trim(0);
  std::FILE *file = std::fopen("/proc/self/clear_refs", "w");
  must(file && std::fputs("5", file) >= 0 && std::fclose(file) == 0, nullptr, "clear_refs");
}

double
processor_seconds()
{
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void
measure(const Case &what)
{
  auto *peer = static_cast<Peer *>(g_object_new(peer_get_type(), nullptr));
  Object<GInputStream> stream(&peer->parent);
  peer->script = what.script();
  GError *error = nullptr;

  forget_peaks();
  double resident = status_bytes("VmRSS:");
  double before = processor_seconds();
  what.read(stream.get(), &error);
  double seconds = processor_seconds() - before;
  double peak = std::max(0.0, status_bytes("VmHWM:") - resident);

  auto sent = static_cast<double>(peer->sent);
  std::printf("| %s | %s | %.0f | %.2f | %.1f | %.1f | %s |\n", what.reader, what.stream, sent,
              peak / static_cast<double>(mib), peak / sent, seconds * 1e9 / sent,
              error ? error->message : "the end");
  std::fflush(stdout);
}

} // namespace

int
main()
{
  gvc_init();
  std::printf("| reader | what arrives | bytes | peak MiB | memory per byte | ns per byte "
              "| ends with |\n|---|---|--:|--:|--:|--:|---|\n");
  std::fflush(stdout);
  for (const auto &each : cases) {
    pid_t child = fork();
    if (child == 0) {
      measure(each);
      _exit(0);
    }
    int status;
    must(waitpid(child, &status, 0) == child && status == 0, nullptr, each.stream);
  }
  return 0;
}
