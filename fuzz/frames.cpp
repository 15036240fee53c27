// SPDX-License-Identifier: LGPL-2.1-or-later
// Reads any bytes as frames, blocking and asynchronously, as bytes and as variants, from a stream
// that delivers pieces, blocks, fails, ends or cancels at any position. Each result follows from
// the frame format.
#include "support.h"

#include <zelgvc/gvcwire.h>

#include <algorithm>

using namespace fuzz;
namespace frame = gvc::wire::frame;

namespace
{

constexpr const char *types[] = {"ay", "s", "(su)", "a{sv}", "v", "as", "b", "(yxmsv)"};

struct Expected {
  bool is_message;
  View received;    // of a message
  std::size_t size; // of a message, with bytes that never arrived
  GQuark domain;
  int code;
};

Expected
error(GQuark domain, int code)
{
  return {false, {}, 0, domain, code};
}

// The result of reading the frame at `*at`, which moves behind the frame.
Expected
expect(const Source &source, std::size_t *at, bool blocking)
{
  const auto end = std::min({source.data.size(), source.fail_at, source.cancel_at});
  const bool breaks = end == source.fail_at || end == source.cancel_at;
  const auto broken =
      error(G_IO_ERROR, end == source.cancel_at ? int{G_IO_ERROR_CANCELLED} : source_error);
  const auto disconnected = error(GVC_ERROR, GVC_ERROR_DISCONNECTED);

  if (end - *at < frame::prefix_size)
    return breaks ? broken : disconnected;
  const auto size = frame::load_length(source.data.data() + *at);
  *at += frame::prefix_size;
  if (size < 0)
    return error(G_IO_ERROR, G_IO_ERROR_INVALID_DATA);
  if (size == 0 && blocking)
    return disconnected;
  const auto wanted = static_cast<std::size_t>(size);
  if (wanted > memory_limit)
    return error(G_IO_ERROR, G_IO_ERROR_NO_SPACE);
  const auto there = std::min(end - *at, wanted);
  if (there < wanted && breaks)
    return broken;
  if (there < wanted && !blocking)
    return disconnected;
  const auto received = source.data.subspan(*at, there);
  *at += there;
  return {true, received, wanted, 0, 0};
}

// Whether a missing part of a message reads as zeros; checks the first and last bytes.
bool
zeros(View rest)
{
  const auto some = std::min<std::size_t>(rest.size(), 4096);
  const auto is_zero = [](auto byte) { return byte == 0; };
  return std::ranges::all_of(rest.first(some), is_zero) &&
         std::ranges::all_of(rest.last(some), is_zero);
}

void
check_error(const GError *error, const Expected &expected)
{
  FUZZ_CHECK(!expected.is_message && g_error_matches(error, expected.domain, expected.code));
}

void
check_bytes(GBytes *bytes, const GError *error, const Expected &expected)
{
  FUZZ_CHECK(!bytes == !!error);
  if (!bytes) {
    check_error(error, expected);
    return;
  }
  FUZZ_CHECK(expected.is_message && g_bytes_get_size(bytes) == expected.size);
  const auto message = view(bytes);
  FUZZ_CHECK(equal(message.first(expected.received.size()), expected.received));
  FUZZ_CHECK(zeros(message.subspan(expected.received.size())));
}

void
check_variant(GVariant *variant, const char *type, const GError *error, const Expected &expected)
{
  FUZZ_CHECK(!variant == !!error);
  if (!variant) {
    check_error(error, expected);
    return;
  }
  FUZZ_CHECK(g_variant_is_floating(variant));
  g_autoptr(GVariant) value = g_variant_ref_sink(variant);
  FUZZ_CHECK(g_variant_is_of_type(value, G_VARIANT_TYPE(type)));
  FUZZ_CHECK(expected.is_message);
  if (expected.size > 256)
    return;
  Bytes payload(expected.received.begin(), expected.received.end());
  payload.resize(expected.size);
  g_autoptr(GBytes) bytes = g_bytes_new(payload.data(), payload.size());
  g_autoptr(GVariant) same =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes, FALSE));
  FUZZ_CHECK(g_variant_equal(value, same));
}

struct Read {
  GvcBytesInputStream *stream;
  GCancellable *cancellable;
  const char *type; // of a variant, or NULL
};

void
read_blocking(const Read &read, const Expected &expected)
{
  g_autoptr(GError) error = nullptr;
  if (read.type) {
    auto *variant =
        gvc_bytes_input_stream_read_variant(read.stream, read.type, read.cancellable, &error);
    check_variant(variant, read.type, error, expected);
  } else {
    g_autoptr(GBytes) bytes =
        gvc_bytes_input_stream_read_bytes(read.stream, read.cancellable, &error);
    check_bytes(bytes, error, expected);
  }
}

void
read_async(const Read &read, const Expected &expected)
{
  g_autoptr(GError) error = nullptr;
  Waiter waiter;
  if (read.type) {
    gvc_bytes_input_stream_read_variant_async(read.stream, read.type, 0, read.cancellable,
                                              Waiter::ready, &waiter);
    FUZZ_CHECK(!waiter.done());
    auto *variant = gvc_bytes_input_stream_read_variant_finish(read.stream, waiter.wait(), &error);
    check_variant(variant, read.type, error, expected);
  } else {
    gvc_bytes_input_stream_read_bytes_async(read.stream, 0, read.cancellable, Waiter::ready,
                                            &waiter);
    FUZZ_CHECK(!waiter.done());
    g_autoptr(GBytes) bytes =
        gvc_bytes_input_stream_read_bytes_finish(read.stream, waiter.wait(), &error);
    check_bytes(bytes, error, expected);
  }
  run_ready(); // no second call
}

void
read_all(Source source, unsigned form, bool blocking)
{
  auto cancellable = own(g_cancellable_new());
  source.cancellable = cancellable.get();
  auto base = new_input(&source);
  auto stream = own(gvc_bytes_input_stream_new(base.get()));
  std::size_t at = 0;

  for (bool more = true; more;) {
    auto expected = expect(source, &at, blocking);
    Read read{stream.get(), cancellable.get(), form == 0 ? nullptr : types[form - 1]};
    if (blocking)
      read_blocking(read, expected);
    else
      read_async(read, expected);
    if (expected.is_message)
      FUZZ_CHECK(source.position == at);
    more = at < source.data.size() && source.position == at &&
           (expected.is_message || expected.domain == GVC_ERROR);
  }
}

} // namespace

// The script: the form of the messages, where the stream fails, and the pieces.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, payload] = split_input(data, size);
  const auto kind = script.byte();
  const auto form = static_cast<unsigned>(kind % (1 + G_N_ELEMENTS(types)));
  const auto breaks = script.byte() % 4;
  const auto where = script.byte() | static_cast<std::size_t>(script.byte()) << 8;
  Source source{.data = payload, .pieces = script, .pollable = kind < 0xf0};
  if (breaks == 1)
    source.fail_at = std::min(where, payload.size());
  else if (breaks == 2)
    source.cancel_at = std::min(where, payload.size());

  // A large limit is slow.
  memory_limit = kind == 0xef ? 64 * 1024 * 1024 : default_memory_limit;

  read_all(source, form, true);
  read_all(source, form, false);
  return 0;
}
