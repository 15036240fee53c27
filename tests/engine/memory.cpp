// SPDX-License-Identifier: LGPL-2.1-or-later
// Memory that cannot be had, and memory that a peer must not be able to take.
#include "tests/support/faulty.h"
#include "tests/support/resources.h"

#include <poll.h>

#include <atomic>
#include <cstdlib>

using namespace support;
using namespace faulty;

namespace
{

std::atomic<guint> allocations;
std::atomic<guint> failing_allocation; /* counted from 1; 0 for none */

bool
may_allocate()
{
  return ++allocations != failing_allocation;
}

} // namespace

// In place of GLib's, for this program and the library in it: every allocation that the library
// promises to survive goes through these.
extern "C" G_GNUC_MALLOC gpointer
g_try_malloc(gsize size)
{
  return may_allocate() && size > 0 ? malloc(size) : nullptr;
}

extern "C" G_GNUC_MALLOC gpointer
g_try_malloc0(gsize size)
{
  return may_allocate() && size > 0 ? calloc(1, size) : nullptr;
}

namespace
{

const std::string payload = pattern(3000, 9);

struct MemoryCase {
  Operation operation;
  int stages;
  bool cut; /* the stream ends within the payload, so that its rest needs another allocation */
};

const Operation operations[] = {
    {"bytes", Operation::Way::blocking,
     [](Rig &rig, GError **error) {
       return take(gvc_bytes_input_stream_read_bytes(rig.reader(), nullptr, error));
     }},
    {"bytes-async", Operation::Way::async,
     [](Rig &rig, GError **error) {
       return take(gvc_bytes_input_stream_read_bytes_finish(
           rig.reader(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
             gvc_bytes_input_stream_read_bytes_async(rig.reader(), G_PRIORITY_DEFAULT, nullptr,
                                                     ready, data);
           }),
           error));
     }},
    {"variant", Operation::Way::blocking,
     [](Rig &rig, GError **error) {
       return take(gvc_bytes_input_stream_read_variant(rig.reader(), "ay", nullptr, error));
     }},
    {"variant-async", Operation::Way::async,
     [](Rig &rig, GError **error) {
       return take(gvc_bytes_input_stream_read_variant_finish(
           rig.reader(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
             gvc_bytes_input_stream_read_variant_async(rig.reader(), "ay", G_PRIORITY_DEFAULT,
                                                       nullptr, ready, data);
           }),
           error));
     }},
};

constexpr gsize block = 256 * 1024;
constexpr guint attempts = 2000;

/* Whether a case that compares the heap has to be left out. */
bool
skip_unknown_heap()
{
  if (heap_is_known())
    return false;
  g_test_skip("what malloc() has given out is not known");
  return true;
}

struct Sender {
  RawPeer peer{Family::unix_domain};
  Ref<GvcConnection> channel = own(gvc_connection_new(peer.connection()));
  Ref<GvcBytesOutputStream> stream;
  BytesRef message = new_bytes(pattern(block, 11));

  explicit Sender(int stages)
  {
    add_stages(channel.get(), stages);
    stream =
        own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel.get()))));
  }
  /* Closing would wait for the peer. */
  ~Sender()
  {
    g_socket_close(g_socket_connection_get_socket(peer.connection()), nullptr);
  }
  bool
  is_full() const
  {
    return g_socket_condition_check(g_socket_connection_get_socket(peer.connection()), G_IO_OUT) ==
           0;
  }

  void
  attempt_blocking()
  {
    const auto cancellable = own(g_cancellable_new());
    Error error;
    {
      /* The message goes on until there is no room. */
      const Background canceller([&] {
        while (!is_full())
          g_thread_yield();
        g_cancellable_cancel(cancellable.get());
      });
      g_assert_false(gvc_bytes_output_stream_put_bytes(stream.get(), message.get(),
                                                       cancellable.get(), &error));
    }
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  }

  void
  attempt_async()
  {
    const auto cancellable = own(g_cancellable_new());
    Collector collector;
    gvc_bytes_output_stream_put_bytes_async(stream.get(), message.get(), G_PRIORITY_DEFAULT,
                                            cancellable.get(), Collector::ready, &collector);
    spin_pending();
    g_assert_cmpuint(collector.calls(), ==, 0);
    g_cancellable_cancel(cancellable.get());
    Error error;
    g_assert_false(
        gvc_bytes_output_stream_put_bytes_finish(stream.get(), collector.wait(), &error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  }

  /* Many at once: all but the first are refused. */
  void
  attempt_many()
  {
    const auto cancellable = own(g_cancellable_new());
    std::vector<std::unique_ptr<Collector>> collectors;
    for (int i = 0; i < 10; i++) {
      collectors.push_back(std::make_unique<Collector>());
      gvc_bytes_output_stream_put_bytes_async(stream.get(), message.get(), G_PRIORITY_DEFAULT,
                                              cancellable.get(), Collector::ready,
                                              collectors.back().get());
    }
    spin_pending();
    g_assert_cmpuint(collectors[0]->calls(), ==, 0);
    g_cancellable_cancel(cancellable.get());
    for (gsize i = 0; i < collectors.size(); i++) {
      Error error;
      g_assert_false(
          gvc_bytes_output_stream_put_bytes_finish(stream.get(), collectors[i]->wait(), &error));
      /* A cancelled task reports that, even if it had been refused. */
      g_assert_true(g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED) ||
                    (i > 0 && g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_PENDING)));
    }
  }

  void
  attempt_nonblocking()
  {
    Error error;
    gsize size;
    const auto data = g_bytes_get_data(message.get(), &size);
    while (g_pollable_output_stream_write_nonblocking(G_POLLABLE_OUTPUT_STREAM(stream.get()), data,
                                                      size, nullptr, &error) > 0)
      ;
    error.assert_is(G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK);
  }
};

struct SlowCase {
  const char *name;
  void (Sender::*attempt)();
  int stages;
  guint attempts;
};

/* A message takes a few times its size on its way through two stages; what 2,000 of them would
 * take is 500 MiB. */
constexpr gsize most_for_one = 8 * block;

/* ---- Allocations that fail ---- */

void
test_allocation(const MemoryCase &one)
{
  const std::string wire =
      one.cut ? frame(payload).substr(0, 1000)
              : through_stages(one.stages, {frame(payload).substr(0, 4), payload, frame("next")});
  const std::string expected =
      one.cut ? payload.substr(0, 996) + std::string(payload.size() - 996, '\0') : payload;
  for (guint n = 1;; n++) {
    Rig rig(Flavour::pollable, one.stages);
    rig.faults().wire = wire;
    allocations = 0;
    failing_allocation = n;
    Outcome outcome;
    outcome.value = one.operation.run(rig, &outcome.error);
    failing_allocation = 0;
    rig.assert_idle();
    if (allocations < n) {
      outcome.error.assert_none();
      assert_bytes(*outcome.value, expected);
      g_test_message("%u allocations", n - 1);
      g_assert_cmpuint(n - 1, >=, one.cut ? 2 : 1);
      return;
    }
    outcome.error.assert_is(G_IO_ERROR, G_IO_ERROR_NO_SPACE, "Not enough memory for the frame");
    /* The payload can still be read, and the stream can be closed. */
    Error error;
    if (!one.cut) {
      std::string rest(payload.size(), '\0');
      g_assert_true(g_input_stream_read_all(G_INPUT_STREAM(rig.reader()), rest.data(), rest.size(),
                                            nullptr, nullptr, &error));
      assert_bytes(rest, payload);
      outcome.value = take(gvc_bytes_input_stream_read_bytes(rig.reader(), nullptr, &error));
      assert_bytes(*outcome.value, "next");
    }
    g_assert_true(g_input_stream_close(G_INPUT_STREAM(rig.reader()), nullptr, &error));
    error.assert_none();
  }
}

/* ---- A peer that never reads ---- */

void
test_measurement()
{
  if (skip_unknown_heap())
    return;
  const gsize before = heap_in_use();
  const Mem<char> memory(static_cast<char *>(g_malloc(8 * 1024 * 1024)));
  const gsize after = heap_in_use();
  g_assert_nonnull(memory.get());
  g_assert_cmpuint(after - before, >=, 8 * 1024 * 1024);
}

void
test_slow_reader(const SlowCase &one)
{
  if (skip_unknown_heap())
    return;
  Sender sender(one.stages);
  const gsize empty = heap_in_use();
  for (int i = 0; i < 3; i++)
    (sender.*one.attempt)();
  const gsize first = heap_in_use();
  g_assert_cmpuint(first, <=, empty + most_for_one);
  for (guint i = 0; i < one.attempts; i++)
    (sender.*one.attempt)();
  const gsize last = heap_in_use();
  g_test_message("%" G_GSIZE_FORMAT " bytes after 3 attempts, %" G_GSIZE_FORMAT " after %u more",
                 first - empty, last - empty, one.attempts);
  g_assert_cmpuint(last, <=, first + 64 * 1024);
}

/* ---- A large message that has been read ---- */

void
test_given_back()
{
  if (skip_unknown_heap())
    return;
  const std::string large = pattern(4 * 1024 * 1024, 13);
  Rig rig(Flavour::pollable, most_stages);
  rig.faults().wire = through_stages(most_stages, {frame(large).substr(0, 4), large});
  const gsize before = heap_in_use();
  Error error;
  for (gsize size : {gsize{4}, large.size()}) {
    std::string bytes(size, '\0');
    g_assert_true(
        g_input_stream_read_all(rig.in(), bytes.data(), bytes.size(), nullptr, nullptr, &error));
  }
  g_assert_cmpuint(heap_in_use(), <=, before + 512 * 1024);
}

template <typename Case, void (*test)(const Case &)>
void
add(const std::string &path, const Case &one)
{
  g_test_add_data_func_full(
      path.c_str(), new Case(one),
      [](gconstpointer data) { test(*static_cast<const Case *>(data)); },
      [](gpointer data) { delete static_cast<Case *>(data); });
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  for (const auto &operation : operations) {
    const std::string path = std::string("/memory/allocation/") + operation.name + "/";
    for (int stages = 0; stages <= most_stages; stages++)
      add<MemoryCase, test_allocation>(path + std::to_string(stages) + "-stages",
                                       {operation, stages, false});
    if (operation.way == Operation::Way::blocking)
      add<MemoryCase, test_allocation>(path + "cut-short", {operation, 0, true});
  }
  g_test_add_func("/memory/measurement", test_measurement);
  g_test_add_func("/memory/large-message-is-given-back", test_given_back);
  const SlowCase slow[] = {{"blocking", &Sender::attempt_blocking, 0, attempts / 10},
                           {"async", &Sender::attempt_async, 0, attempts},
                           {"many-at-once", &Sender::attempt_many, 0, attempts / 10},
                           {"nonblocking", &Sender::attempt_nonblocking, 0, attempts}};
  for (auto one : slow)
    for (one.stages = 0; one.stages <= most_stages; one.stages++)
      add<SlowCase, test_slow_reader>(std::string("/memory/slow-reader/") + one.name + "/" +
                                          std::to_string(one.stages) + "-stages",
                                      one);
  return g_test_run();
}
