// SPDX-License-Identifier: LGPL-2.1-or-later
// Any bytes read as strings with any terminators, blocking and asynchronously. Nothing but a
// terminator, an error or cancellation ends a string, so the end of the bytes is one of these. Each
// string is what stands before its terminator, and nothing behind that is consumed.
#include "support.h"

#include <zelgvc/zelgvc.h>

#include <algorithm>
#include <cstring>

using namespace fuzz;

namespace
{

struct Terminators {
  std::uint8_t first, second; // in turn
  char
  of(unsigned string) const
  {
    return static_cast<char>(string % 2 == 0 ? first : second);
  }
};

void
check_string(const Source &source, std::size_t *at, char terminator, View string,
             const GError *error)
{
  const auto end = std::min({source.data.size(), source.fail_at, source.cancel_at});
  const auto rest = source.data.subspan(*at, end - *at);
  const auto found = std::ranges::find(rest, static_cast<std::uint8_t>(terminator));
  if (found == rest.end()) {
    FUZZ_CHECK(string.empty());
    FUZZ_CHECK(g_error_matches(error, G_IO_ERROR,
                               end == source.cancel_at ? int{G_IO_ERROR_CANCELLED} : source_error));
    *at = end;
    return;
  }
  const auto length = static_cast<std::size_t>(found - rest.begin()) + 1;
  FUZZ_CHECK(!error && equal(string, rest.first(length)));
  *at += length;
  FUZZ_CHECK(source.position == *at);
}

gchar *
read_async(GvcDataInputStream *stream, char terminator, gsize *length, GCancellable *cancellable,
           GError **error)
{
  Waiter waiter;
  gvc_data_input_stream_read_string_async(stream, terminator, 0, cancellable, Waiter::ready,
                                          &waiter);
  FUZZ_CHECK(!waiter.done());
  auto *string = gvc_data_input_stream_read_string_finish(stream, waiter.wait(), length, error);
  run_ready(); // no second call
  return string;
}

void
read_all(Source source, Terminators terminators, bool blocking)
{
  auto cancellable = own(g_cancellable_new());
  source.cancellable = cancellable.get();
  auto base = new_input(&source);
  auto stream = own(gvc_data_input_stream_new(base.get()));
  std::size_t at = 0;

  for (unsigned i = 0;; i++) {
    g_autoptr(GError) error = nullptr;
    gsize length = 0;
    const auto terminator = terminators.of(i);
    g_autofree gchar *string =
        blocking ? gvc_data_input_stream_read_string(stream.get(), terminator, &length,
                                                     cancellable.get(), &error)
                 : read_async(stream.get(), terminator, &length, cancellable.get(), &error);
    check_string(source, &at, terminator, {reinterpret_cast<std::uint8_t *>(string), length},
                 error);
    if (!string)
      break;
  }
}

} // namespace

// The script: what ends the stream, where it breaks, two terminators, and the waits.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, payload] = split_input(data, size);
  const auto kind = script.byte();
  const auto where = script.byte() | static_cast<std::size_t>(script.byte()) << 8;
  const Terminators terminators{script.byte(), script.byte()};
  // Long strings, in which the buffer grows, out of short inputs: each byte many times.
  constexpr std::size_t repeated_most = 28, times = 40;
  Bytes repeated;
  if ((kind & 4) && payload.size() <= repeated_most) {
    for (auto byte : payload)
      repeated.insert(repeated.end(), times, byte);
    payload = repeated;
  }
  // A thread's help for every byte takes its time.
  Source source{.data = payload, .pieces = script, .pollable = kind < 0xf8 || payload.size() > 16};
  const auto end = kind & 2 ? std::min(where, payload.size()) : payload.size();
  (kind & 1 ? source.fail_at : source.cancel_at) = end;

  read_all(source, terminators, true);
  read_all(source, terminators, false);
  return 0;
}
