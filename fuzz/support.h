// SPDX-License-Identifier: LGPL-2.1-or-later
// What the fuzz targets of the library share. A target's input is one byte that says how many bytes
// of script follow it, the script, and the bytes that the script is about.
#pragma once

#include <gio/gio.h>

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

// Ends the process: the input has shown a defect.
[[noreturn]] void fail(const char *what, const char *file, int line);
#define FUZZ_CHECK(condition) ((condition) ? void(0) : ::fuzz::fail(#condition, __FILE__, __LINE__))

// The largest message that there is memory for.
inline constexpr std::size_t default_memory_limit = 256 * 1024;
extern std::size_t memory_limit;

// Decisions, one byte each. Once they are used up every decision is 0.
class Script
{
public:
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

bool equal(View a, View b);
View view(GBytes *bytes);
// The same bytes for the same arguments, for ever, up to `longest_pattern` of them; they compress
// well where `seed` is even.
inline constexpr std::size_t longest_pattern = 1'100'000;
View pattern(std::size_t size, std::uint8_t seed);

template <typename T> struct Unref {
  void
  operator()(T *object) const
  {
    g_object_unref(object);
  }
};
template <typename T> using Ref = std::unique_ptr<T, Unref<T>>;
// Takes over a full reference.
template <typename T>
Ref<T>
own(T *object)
{
  return Ref<T>(object);
}

struct ErrorFree {
  void
  operator()(GError *error) const
  {
    g_error_free(error);
  }
};
using ErrorRef = std::unique_ptr<GError, ErrorFree>;
bool matches(const ErrorRef &error, int code); // in G_IO_ERROR

// What a scripted stream delivers: pieces of `data` as large as `pieces` says. A read that starts
// at `fail_at` fails, and one that starts at `cancel_at` finds the operation cancelled.
struct Source {
  View data;
  Script pieces;
  bool pollable = true; // if not, GIO's threads read it when it is read asynchronously
  std::size_t fail_at = SIZE_MAX;
  std::size_t cancel_at = SIZE_MAX;
  GCancellable *cancellable = nullptr;
  std::size_t position = 0;
  bool blocked = false; // the last read said so; the next one does not
};
inline constexpr int source_error = G_IO_ERROR_HOST_UNREACHABLE; // of a read at fail_at
// `source` must outlive the stream.
Ref<GInputStream> new_input(Source *source);

// A converter that hands bytes on unchanged, as many in each call as `pieces` says; it splits what
// the stream below delivers. `pieces` must outlive it.
Ref<GConverter> new_splitter(Script *pieces);

// The stages that targets stack, by number; 0 is none.
inline constexpr unsigned stage_kinds = 4;
Ref<GConverter> new_in_stage(unsigned kind);
Ref<GConverter> new_out_stage(unsigned kind);
// All of `plain` converted, in calls of the sizes that `pieces` says.
Bytes convert_all(GConverter *converter, View plain, Script *pieces);

struct Pair {
  Ref<GSocketConnection> connection;
  int peer; // the other end, never blocking; close() it
};
Pair new_pair();
// Two connections with each other.
std::pair<Ref<GSocketConnection>, Ref<GSocketConnection>> new_connections();
// How many of the bytes the socket has taken.
std::size_t send_some(int fd, View bytes);

// Stands behind a GAsyncReadyCallback: `Waiter::ready` with the waiter as its data. It must be
// called exactly once, and never before the operation has started.
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

} // namespace fuzz
