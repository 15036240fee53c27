// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared by the fuzz targets of the library. An input starts with one byte, the size of the script.
// Then come the script, which makes the decisions, and the payload.
#pragma once

#include "tests/support/sockets.h"

#include <zelgvc/zelgvc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace fuzz
{

using View = std::span<const std::uint8_t>;
using Bytes = std::vector<std::uint8_t>;
using support::own;
using support::Ref;

// Aborts, which libFuzzer reports as a finding.
[[noreturn]] void fail(const char *what, const char *file, int line);
#define FUZZ_CHECK(condition) ((condition) ? void(0) : ::fuzz::fail(#condition, __FILE__, __LINE__))

// The largest allocation of a message that succeeds.
inline constexpr std::size_t default_memory_limit = 256 * 1024;
extern std::size_t memory_limit;

// Decisions of one byte each, and 0 after the last one.
class Script
{
public:
  Script() = default;
  explicit Script(View bytes) : rest_(bytes) {}
  std::uint8_t byte();
  // 0 to `limit` - 1
  std::size_t
  below(std::size_t limit)
  {
    return byte() % limit;
  }
  bool
  empty() const
  {
    return rest_.empty();
  }

private:
  View rest_;
};

struct Input {
  Script script;
  View payload;
};
Input split_input(const std::uint8_t *data, std::size_t size);

using std::ranges::equal;
View view(GBytes *bytes);
// Up to `longest_pattern` bytes, the same for the same arguments. They compress well if `seed` is
// even.
inline constexpr std::size_t longest_pattern = 1'100'000;
View pattern(std::size_t size, std::uint8_t seed);

// The data of a scripted stream, read in pieces of the sizes in `pieces`. A read at `fail_at`
// fails, and a read at `cancel_at` cancels the operation.
struct Source {
  View data;
  Script pieces;
  bool pollable = true; // if not, asynchronous reads use GIO's threads
  std::size_t fail_at = SIZE_MAX;
  std::size_t cancel_at = SIZE_MAX;
  GCancellable *cancellable = nullptr;
  std::size_t position = 0;
  bool blocked = false; // the last read would have blocked, so the next one does not
};
// `source` must outlive the stream.
Ref<GInputStream> new_input(Source *source);

// Kinds of stages; 0 is no stage.
inline constexpr unsigned stage_kinds = 4;
Ref<GConverter> new_in_stage(unsigned kind);
Ref<GConverter> new_out_stage(unsigned kind);

struct Stage {
  Ref<GConverter> in, out;
};
// A further kind only copies bytes, in pieces of the sizes in `pieces`, which must outlive it.
inline constexpr unsigned splitter = stage_kinds;
Stage add_stage(GvcConnection *connection, unsigned kind, Script *pieces = nullptr);
// Converts all of `plain`, in pieces of the sizes in `pieces`.
Bytes convert_all(GConverter *converter, View plain, Script *pieces);

// A channel over a socket pair, whose other end sends and receives bytes without blocking.
class Channel
{
public:
  // The first stage is next to the socket. With `split`, a splitter is below it.
  Channel(std::span<const unsigned> stages = {}, bool split = false, Script pieces = Script());
  // The peer leaves first, so that releasing the channel cannot wait for it.
  ~Channel()
  {
    peer.close();
  }
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  GInputStream *
  in() const
  {
    return g_io_stream_get_input_stream(G_IO_STREAM(connection.get()));
  }
  bool
  has_peer() const
  {
    return peer.fd() >= 0;
  }
  // Sends up to `size` of the bytes, as many as the socket takes, and removes them from `bytes`.
  void feed(View *bytes, std::size_t size);

  support::RawPeer peer{support::Family::unix_domain};
  Ref<GSocketConnection> socket = peer.take_connection();
  Ref<GvcConnection> connection = own(gvc_connection_new(socket.get()));

private:
  Script pieces_;
};

// Waits for an asynchronous operation: pass `Waiter::ready` and the waiter. Checks that the
// callback runs once.
class Waiter
{
public:
  Waiter() = default;
  Waiter(const Waiter &) = delete;
  Waiter &operator=(const Waiter &) = delete;
  static void ready(GObject *source, GAsyncResult *result, gpointer waiter);
  // Runs the main context until the callback has run.
  GAsyncResult *wait();
  bool
  done() const
  {
    return result_ != nullptr;
  }
  GAsyncResult *
  result() const
  {
    return result_.get();
  }

private:
  Ref<GAsyncResult> result_;
};

// Runs what is ready in the main context.
void run_ready();

// Messages, as bytes or as variants of the type "ay".
// Reads a variant if there is a type.
void start_read(GvcBytesInputStream *in, const char *type, int priority, GCancellable *cancellable,
                Waiter *waiter);
GBytes *finish_read(GvcBytesInputStream *in, GAsyncResult *result, bool variant, GError **error);
bool put(GvcBytesOutputStream *out, GBytes *message, bool variant, GError **error);
void start_put(GvcBytesOutputStream *out, GBytes *message, bool variant, int priority,
               GCancellable *cancellable, Waiter *waiter);
bool finish_put(GvcBytesOutputStream *out, GAsyncResult *result, bool variant, GError **error);

} // namespace fuzz
