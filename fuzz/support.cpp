// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support.h"

#include "tests/support/converters.h"

#include <glib-unix.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace fuzz;

extern "C" const char *
__asan_default_options()
{
  return "detect_stack_use_after_return=1:strict_string_checks=1";
}

extern "C" const char *
__ubsan_default_options()
{
  return "halt_on_error=1:abort_on_error=1:print_stacktrace=1";
}

// A fixed seed of the initial IVs makes runs repeatable.
extern "C" int
gettimeofday(timeval *time, void *) noexcept
{
  *time = {1, 2};
  return 0;
}

// A peer can announce up to 2 GiB, and the sanitizer writes shadow memory for all that is freed. So
// the allocators that the library uses for messages get a limit.
std::size_t fuzz::memory_limit = fuzz::default_memory_limit;

extern "C" gpointer
g_try_malloc(gsize size)
{
  return size > 0 && size <= memory_limit ? std::malloc(size) : nullptr;
}

extern "C" gpointer
g_try_malloc0(gsize size)
{
  return size > 0 && size <= memory_limit ? std::calloc(size, 1) : nullptr;
}

extern "C" int
LLVMFuzzerInitialize(int *, char ***argv)
{
  // GLib reads these before main(). Slices hide leaks and overruns from the sanitizers. No target
  // provokes warnings, so each one is a defect.
  if (!getenv("G_SLICE")) {
    setenv("G_SLICE", "always-malloc", 1);
    setenv("G_DEBUG", "fatal-warnings", 1);
    execv("/proc/self/exe", *argv);
    abort();
  }
  gvc_init();
  return 0;
}

void
fuzz::fail(const char *what, const char *file, int line)
{
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
  abort();
}

std::uint8_t
Script::byte()
{
  if (rest_.empty())
    return 0;
  auto first = rest_.front();
  rest_ = rest_.subspan(1);
  return first;
}

Input
fuzz::split_input(const std::uint8_t *data, std::size_t size)
{
  View all(data, size);
  if (size == 0)
    return {Script(all), all};
  auto length = std::min<std::size_t>(all[0], size - 1);
  return {Script(all.subspan(1, length)), all.subspan(1 + length)};
}

View
fuzz::view(GBytes *bytes)
{
  gsize size;
  auto *data = static_cast<const std::uint8_t *>(g_bytes_get_data(bytes, &size));
  return {data, size};
}

static Bytes
noise(unsigned shift)
{
  Bytes bytes(longest_pattern + UINT8_MAX);
  std::uint32_t state = 1;
  for (auto &byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<std::uint8_t>(state >> shift);
  }
  return bytes;
}

View
fuzz::pattern(std::size_t size, std::uint8_t seed)
{
  static const Bytes compressible = noise(31), incompressible = noise(24);
  return View(seed % 2 == 0 ? compressible : incompressible).subspan(seed, size);
}

// The size of a piece: everything, a few bytes, or some more.
static std::size_t
piece(std::uint8_t decision)
{
  decision &= 0x3f;
  if (decision == 0)
    return SIZE_MAX;
  return decision < 0x30 ? decision : (decision - 0x2fU) * 61U;
}

// ---- The scripted stream

namespace
{
struct ScriptedInput {
  GInputStream parent;
  Source *source;
};
struct ScriptedInputClass {
  GInputStreamClass parent_class;
};
} // namespace

static GType scripted_input_get_type();
static void scripted_input_pollable_init(GPollableInputStreamInterface *iface);

G_DEFINE_TYPE_WITH_CODE(ScriptedInput, scripted_input, G_TYPE_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM,
                                              scripted_input_pollable_init))

static gssize
read_source(gpointer stream, void *buffer, gsize count, bool may_block, GError **error)
{
  auto *source = static_cast<ScriptedInput *>(stream)->source;
  auto decision = source->pieces.byte();
  if (source->position >= source->cancel_at) {
    g_cancellable_cancel(source->cancellable);
    g_cancellable_set_error_if_cancelled(source->cancellable, error);
    return -1;
  }
  if (source->position >= source->fail_at) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_HOST_UNREACHABLE, "Scripted failure");
    return -1;
  }
  if (!may_block && !source->blocked && (decision & 0x80)) {
    source->blocked = true;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, "Scripted wait");
    return -1;
  }

  source->blocked = false;
  auto stop = std::min({source->data.size(), source->fail_at, source->cancel_at});
  auto size = std::min({count, stop - source->position, piece(decision)});
  if (size > 0)
    std::memcpy(buffer, source->data.data() + source->position, size);
  source->position += size;
  return static_cast<gssize>(size);
}

static void
scripted_input_class_init(ScriptedInputClass *klass)
{
  G_INPUT_STREAM_CLASS(klass)->read_fn = [](GInputStream *stream, void *buffer, gsize count,
                                            GCancellable *, GError **error) {
    return read_source(stream, buffer, count, true, error);
  };
}

static void
scripted_input_init(ScriptedInput *)
{
}

static void
scripted_input_pollable_init(GPollableInputStreamInterface *iface)
{
  iface->can_poll = [](GPollableInputStream *stream) -> gboolean {
    return reinterpret_cast<ScriptedInput *>(stream)->source->pollable;
  };
  iface->is_readable = [](GPollableInputStream *) -> gboolean { return TRUE; };
  iface->create_source = [](GPollableInputStream *stream, GCancellable *cancellable) {
    g_autoptr(GSource) now = g_timeout_source_new(0);
    return g_pollable_source_new_full(stream, now, cancellable);
  };
  iface->read_nonblocking = [](GPollableInputStream *stream, void *buffer, gsize count,
                               GError **error) {
    return read_source(stream, buffer, count, false, error);
  };
}

Ref<GInputStream>
fuzz::new_input(Source *source)
{
  auto *stream = g_object_new(scripted_input_get_type(), nullptr);
  static_cast<ScriptedInput *>(stream)->source = source;
  return own(static_cast<GInputStream *>(stream));
}

static Ref<GConverter>
new_splitter(Script *pieces)
{
  return support::new_converter([pieces](std::string_view in, char *out, gsize room,
                                         GConverterFlags flags, gsize *nread, gsize *nwritten,
                                         GError **error) {
    const auto at_end = flags & G_CONVERTER_INPUT_AT_END ? G_CONVERTER_FINISHED
                        : flags & G_CONVERTER_FLUSH      ? G_CONVERTER_FLUSHED
                                                         : G_CONVERTER_CONVERTED;
    *nread = *nwritten = 0;
    if (in.empty() && at_end == G_CONVERTER_CONVERTED)
      return support::conversion_error(G_IO_ERROR_PARTIAL_INPUT, "Nothing there", error);
    if (in.empty())
      return at_end;
    if (room == 0)
      return support::conversion_error(G_IO_ERROR_NO_SPACE, "No room", error);
    *nread = *nwritten = in.copy(out, std::min(room, piece(pieces->byte())));
    return *nread < in.size() ? G_CONVERTER_CONVERTED : at_end;
  });
}

// ---- Stages

static Ref<GConverter>
new_stage(unsigned kind, GType compression, GType encryption)
{
  static GBytes *const key = g_bytes_new_static("libzelgvc: this is a fixed key.", 32);
  const guint bits = kind == 2 ? 256 : 128;
  auto *stage = kind == 1 ? g_object_new(compression, nullptr)
                          : g_object_new(encryption, "key", key, "key-length", bits, nullptr);
  return own(static_cast<GConverter *>(stage));
}

Ref<GConverter>
fuzz::new_in_stage(unsigned kind)
{
  return new_stage(kind, GVC_TYPE_DECOMPRESSOR, GVC_TYPE_DECRYPTOR);
}

Ref<GConverter>
fuzz::new_out_stage(unsigned kind)
{
  return new_stage(kind, GVC_TYPE_COMPRESSOR, GVC_TYPE_ENCRYPTOR);
}

Stage
fuzz::add_stage(GvcConnection *connection, unsigned kind, Script *pieces)
{
  const bool split = kind == splitter;
  Stage stage{split ? new_splitter(pieces) : new_in_stage(kind),
              split ? new_splitter(pieces) : new_out_stage(kind)};
  gvc_connection_add_converters(connection, stage.in.get(), stage.out.get());
  return stage;
}

Bytes
fuzz::convert_all(GConverter *converter, View plain, Script *pieces)
{
  Bytes out;
  while (!plain.empty()) {
    auto offered = std::min(plain.size(), piece(pieces->byte()));
    gsize nread = 0, nwritten = 0;
    auto used = out.size();
    out.resize(used + offered + offered / 10 + 128);
    auto result =
        g_converter_convert(converter, plain.data(), offered, out.data() + used, out.size() - used,
                            G_CONVERTER_NO_FLAGS, &nread, &nwritten, nullptr);
    FUZZ_CHECK(result == G_CONVERTER_CONVERTED);
    FUZZ_CHECK(nread <= offered && nwritten <= out.size() - used);
    out.resize(used + nwritten);
    plain = plain.subspan(nread);
  }
  return out;
}

// ---- Sockets

Channel::Channel(std::span<const unsigned> stages, bool split, Script pieces) : pieces_(pieces)
{
  FUZZ_CHECK(g_unix_set_fd_nonblocking(peer.fd(), TRUE, nullptr));
  if (split)
    add_stage(connection.get(), splitter, &pieces_);
  for (auto kind : stages)
    if (kind != 0)
      add_stage(connection.get(), kind);
}

void
Channel::feed(View *bytes, std::size_t size)
{
  const auto sent = send(peer.fd(), bytes->data(), std::min(size, bytes->size()), MSG_NOSIGNAL);
  *bytes = bytes->subspan(sent > 0 ? static_cast<std::size_t>(sent) : 0);
}

// ---- Asynchronous operations

void
Waiter::ready(GObject *, GAsyncResult *result, gpointer waiter)
{
  auto *self = static_cast<Waiter *>(waiter);
  FUZZ_CHECK(!self->done());
  self->result_ = own(static_cast<GAsyncResult *>(g_object_ref(result)));
}

GAsyncResult *
Waiter::wait()
{
  while (!done())
    g_main_context_iteration(nullptr, TRUE);
  return result();
}

void
fuzz::run_ready()
{
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

// ---- Messages

static GVariant *
as_variant(GBytes *bytes)
{
  return g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, bytes, TRUE));
}

void
fuzz::start_read(GvcBytesInputStream *in, const char *type, int priority, GCancellable *cancellable,
                 Waiter *waiter)
{
  if (type)
    gvc_bytes_input_stream_read_variant_async(in, type, priority, cancellable, Waiter::ready,
                                              waiter);
  else
    gvc_bytes_input_stream_read_bytes_async(in, priority, cancellable, Waiter::ready, waiter);
}

GBytes *
fuzz::finish_read(GvcBytesInputStream *in, GAsyncResult *result, bool variant, GError **error)
{
  GBytes *message = nullptr;
  if (variant) {
    g_autoptr(GVariant) value = gvc_bytes_input_stream_read_variant_finish(in, result, error);
    message = value ? g_variant_get_data_as_bytes(g_variant_ref_sink(value)) : nullptr;
  } else {
    message = gvc_bytes_input_stream_read_bytes_finish(in, result, error);
  }
  FUZZ_CHECK(!message == !!*error);
  return message;
}

bool
fuzz::put(GvcBytesOutputStream *out, GBytes *message, bool variant, GError **error)
{
  if (!variant)
    return gvc_bytes_output_stream_put_bytes(out, message, nullptr, error);
  g_autoptr(GVariant) value = as_variant(message);
  return gvc_bytes_output_stream_put_variant(out, value, nullptr, error);
}

void
fuzz::start_put(GvcBytesOutputStream *out, GBytes *message, bool variant, int priority,
                GCancellable *cancellable, Waiter *waiter)
{
  g_autoptr(GVariant) value = as_variant(message);
  if (variant)
    gvc_bytes_output_stream_put_variant_async(out, value, priority, cancellable, Waiter::ready,
                                              waiter);
  else
    gvc_bytes_output_stream_put_bytes_async(out, message, priority, cancellable, Waiter::ready,
                                            waiter);
}

bool
fuzz::finish_put(GvcBytesOutputStream *out, GAsyncResult *result, bool variant, GError **error)
{
  return variant ? gvc_bytes_output_stream_put_variant_finish(out, result, error)
                 : gvc_bytes_output_stream_put_bytes_finish(out, result, error);
}
