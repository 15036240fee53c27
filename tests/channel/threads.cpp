// SPDX-License-Identifier: LGPL-2.1-or-later
// Many threads at once: the first use of every type, and channels that belong to one thread or two.
// .ci/run lets ThreadSanitizer watch these as well.
#include "tests/support/faulty.h"

#include <array>
#include <barrier>
#include <thread>

using namespace support;

namespace
{

constexpr gsize racers = 16;
constexpr int rounds = 25; /* each in a process of its own */

GType
quark_as_type()
{
  return gvc_error_quark();
}

constexpr GType (*firsts[])() = {
    gvc_connection_get_type,
    gvc_bytes_output_stream_get_type,
    gvc_bytes_input_stream_get_type,
    gvc_data_input_stream_get_type,
    gvc_encryptor_get_type,
    gvc_decryptor_get_type,
    gvc_compressor_get_type,
    gvc_decompressor_get_type,
    quark_as_type,
};
constexpr gsize first_count = G_N_ELEMENTS(firsts);
using Values = std::array<GType, first_count>;

/* A first time comes once a process. */
void
in_fresh_processes(const char *path)
{
  for (int i = 0; i < rounds; i++) {
    g_test_trap_subprocess(path, 0, G_TEST_SUBPROCESS_INHERIT_STDERR);
    g_test_trap_assert_passed();
  }
}

constexpr int workers = 4;
constexpr int messages = 40;

std::string
message_of(int worker, int number)
{
  return pattern(static_cast<gsize>(1 + number * 997 % 20000),
                 static_cast<guint32>(1000 * worker + number));
}

struct Ends {
  SocketPair sockets;
  Ref<GvcConnection> channels[2];
  Ref<GvcBytesInputStream> in[2];
  Ref<GvcBytesOutputStream> out[2];

  Ends(Family family, int stages) : sockets(new_socket_pair(family))
  {
    for (int i = 0; i < 2; i++) {
      channels[i] = own(gvc_connection_new(i == 0 ? sockets.a.get() : sockets.b.get()));
      faulty::add_stages(channels[i].get(), stages);
      const auto io = G_IO_STREAM(channels[i].get());
      in[i] = own(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io)));
      out[i] = own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io)));
    }
  }
};

void
send(GvcBytesOutputStream *out, const std::string &message)
{
  Error error;
  g_assert_true(gvc_bytes_output_stream_put_bytes(out, new_bytes(message).get(), nullptr, &error));
  error.assert_none();
}

void
expect(GvcBytesInputStream *in, const std::string &message)
{
  Error error;
  const BytesRef bytes(gvc_bytes_input_stream_read_bytes(in, nullptr, &error));
  error.assert_none();
  assert_bytes(bytes_string(bytes.get()), message);
}

/* Two threads share a channel, one for each direction, and so do two at the other end. */
void
echo_blocking(int worker, int stages)
{
  Ends ends(worker % 2 ? Family::unix_domain : Family::tcp4, stages);
  std::thread writer([&] {
    for (int i = 0; i < messages; i++)
      send(ends.out[0].get(), message_of(worker, i));
  });
  std::thread echo([&] {
    for (int i = 0; i < messages; i++) {
      expect(ends.in[1].get(), message_of(worker, i));
      send(ends.out[1].get(), message_of(worker, i));
    }
  });
  for (int i = 0; i < messages; i++)
    expect(ends.in[0].get(), message_of(worker, i));
  writer.join();
  echo.join();
}

/* One thread, with a main context of its own, has both ends. */
void
echo_async(int worker, int stages)
{
  GMainContext *const context = g_main_context_new();
  g_main_context_push_thread_default(context);
  {
    Ends ends(worker % 2 ? Family::unix_domain : Family::tcp4, stages);
    for (int i = 0; i < messages; i++)
      for (int from = 0; from < 2; from++) {
        const std::string message = message_of(worker, 2 * i + from);
        Collector written, read;
        gvc_bytes_input_stream_read_bytes_async(ends.in[1 - from].get(), G_PRIORITY_DEFAULT,
                                                nullptr, Collector::ready, &read);
        gvc_bytes_output_stream_put_bytes_async(ends.out[from].get(), new_bytes(message).get(),
                                                G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                                &written);
        Error error;
        const BytesRef bytes(
            gvc_bytes_input_stream_read_bytes_finish(ends.in[1 - from].get(), read.wait(), &error));
        error.assert_none();
        assert_bytes(bytes_string(bytes.get()), message);
        g_assert_true(
            gvc_bytes_output_stream_put_bytes_finish(ends.out[from].get(), written.wait(), &error));
        error.assert_none();
        g_assert_true(read.thread() == g_thread_self());
        g_assert_true(written.thread() == g_thread_self());
      }
  }
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
}

constexpr int crowd = 64;

/* A read that waits in a main context of its own, and is cancelled by another thread. */
void
cancel_from_outside(Ends &ends)
{
  const auto cancellable = own(g_cancellable_new());
  Collector read;
  gvc_bytes_input_stream_read_bytes_async(ends.in[0].get(), G_PRIORITY_DEFAULT, cancellable.get(),
                                          Collector::ready, &read);
  spin_pending();
  std::thread canceller([&] { g_cancellable_cancel(cancellable.get()); });
  Error error;
  g_assert_null(gvc_bytes_input_stream_read_bytes_finish(ends.in[0].get(), read.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  canceller.join();
}

/* All threads meet before each function, or each begins with another one. */
void
race_first_use(bool together)
{
  std::array<Values, racers> seen{};
  std::barrier barrier(racers);
  std::vector<std::thread> threads;
  for (gsize id = 0; id < racers; id++)
    threads.emplace_back([&, id] {
      if (!together)
        barrier.arrive_and_wait();
      for (gsize i = 0; i < first_count; i++) {
        const gsize which = together ? i : (i + id) % first_count;
        if (together)
          barrier.arrive_and_wait();
        seen[id][which] = firsts[which]();
      }
    });
  for (auto &thread : threads)
    thread.join();
  for (const auto &values : seen)
    g_assert_true(values == seen[0]);
  for (gsize i = 0; i < first_count; i++) {
    g_assert_cmpuint(seen[0][i], !=, 0);
    for (gsize j = 0; j < i; j++)
      g_assert_true(seen[0][i] != seen[0][j]);
  }
  g_assert_cmpstr(g_quark_to_string(static_cast<GQuark>(seen[0][first_count - 1])), ==,
                  "gvc-error-quark");
  g_assert_cmpstr(g_type_name(seen[0][0]), ==, "GvcConnection");
}

/* The first objects, and with them the classes. */
void
race_first_objects()
{
  std::barrier barrier(racers);
  std::vector<std::thread> threads;
  const BytesRef key = new_bytes(pattern(32));
  for (gsize id = 0; id < racers; id++)
    threads.emplace_back([&] {
      barrier.arrive_and_wait();
      const auto encryptor = own(gvc_encryptor_new(key.get()));
      const auto decryptor = own(gvc_decryptor_new(key.get()));
      const auto compressor = own(gvc_compressor_new());
      const auto decompressor = own(gvc_decompressor_new());
      const auto memory = own(g_memory_input_stream_new());
      const auto reader = own(gvc_bytes_input_stream_new(memory.get()));
      const auto strings = own(gvc_data_input_stream_new(memory.get()));
      const auto sink = own(g_memory_output_stream_new_resizable());
      const auto writer = own(gvc_bytes_output_stream_new(sink.get()));
      g_assert_true(GVC_IS_BYTES_OUTPUT_STREAM(writer.get()));
      Error error;
      g_assert_null(gvc_bytes_input_stream_read_bytes(reader.get(), nullptr, &error));
      error.assert_is(GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
    });
  for (auto &thread : threads)
    thread.join();
}

/* ---- First use ---- */

void
test_types_together()
{
  in_fresh_processes("/threads/first-use/together/subprocess");
}

void
test_types_apart()
{
  in_fresh_processes("/threads/first-use/apart/subprocess");
}

void
test_objects()
{
  in_fresh_processes("/threads/first-objects/subprocess");
}

/* ---- Channels ---- */

template <void (*echo)(int, int)>
void
test_channels()
{
  /* First use is raced for elsewhere. */
  echo(0, faulty::most_stages);
  for (int stages = 0; stages <= faulty::most_stages; stages++) {
    std::vector<std::thread> threads;
    for (int worker = 0; worker < workers; worker++)
      threads.emplace_back(echo, worker, stages);
    for (auto &thread : threads)
      thread.join();
  }
}

/* Channels that have waited in one context go on in another one, in another thread. */
void
test_contexts()
{
  std::vector<std::thread> threads;
  for (int worker = 0; worker < crowd; worker++)
    threads.emplace_back([worker] {
      std::unique_ptr<Ends> ends;
      for (int i = 0; i < 3; i++)
        run_in_thread([&] {
          if (!ends)
            ends = std::make_unique<Ends>(worker % 2 ? Family::unix_domain : Family::tcp4, 0);
          cancel_from_outside(*ends);
        });
      echo_async(worker, 0);
    });
  for (auto &thread : threads)
    thread.join();
}

/* Compression holds no state: one pair of converters serves any number of threads. */
void
test_shared_compressor()
{
  const auto compressor = own(gvc_compressor_new());
  const auto decompressor = own(gvc_decompressor_new());
  std::vector<std::thread> threads;
  for (int worker = 0; worker < workers; worker++)
    threads.emplace_back([&, worker] {
      for (int i = 0; i < messages; i++) {
        const std::string message = message_of(worker, i);
        std::string packed(2 * message.size() + 100, '\0'), plain(message.size(), '\0');
        gsize read, size, written;
        Error error;
        g_assert_cmpint(g_converter_convert(G_CONVERTER(compressor.get()), message.data(),
                                            message.size(), packed.data(), packed.size(),
                                            G_CONVERTER_NO_FLAGS, &read, &size, &error),
                        ==, G_CONVERTER_CONVERTED);
        g_assert_cmpint(g_converter_convert(G_CONVERTER(decompressor.get()), packed.data(), size,
                                            plain.data(), plain.size(), G_CONVERTER_NO_FLAGS, &read,
                                            &written, &error),
                        ==, G_CONVERTER_CONVERTED);
        assert_bytes(plain, message);
      }
    });
  for (auto &thread : threads)
    thread.join();
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/threads/first-use/together", test_types_together);
  g_test_add_func("/threads/first-use/together/subprocess", [] { race_first_use(true); });
  g_test_add_func("/threads/first-use/apart", test_types_apart);
  g_test_add_func("/threads/first-use/apart/subprocess", [] { race_first_use(false); });
  g_test_add_func("/threads/first-objects", test_objects);
  g_test_add_func("/threads/first-objects/subprocess", race_first_objects);
  g_test_add_func("/threads/channels/blocking", test_channels<echo_blocking>);
  g_test_add_func("/threads/channels/async", test_channels<echo_async>);
  g_test_add_func("/threads/contexts", test_contexts);
  g_test_add_func("/threads/shared-compressor", test_shared_compressor);
  return g_test_run();
}
