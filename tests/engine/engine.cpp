// SPDX-License-Identifier: LGPL-2.1-or-later
// Operations on messages beside moving bytes: their turns in the main loop, how they end if the
// stream is odd or is closed below them, and the state that they leave for the next one.
#include "tests/support/faulty.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>

using namespace support;

namespace
{

using Callback = std::function<void()>;

// Adds a test case for each number of stages.
void
add(const char *name, void (*test)(int), int stages_from = 0)
{
  using Entry = std::pair<void (*)(int), int>;
  for (int stages = stages_from; stages <= faulty::most_stages; stages++)
    g_test_add_data_func_full(
        (std::string("/engine/") + name + '/' + std::to_string(stages) + "-stages").c_str(),
        new Entry(test, stages),
        [](gconstpointer data) {
          const auto entry = static_cast<const Entry *>(data);
          entry->first(entry->second);
        },
        [](gpointer data) { delete static_cast<Entry *>(data); });
}

// A channel over scripted streams that can be polled.
struct Scripted {
  std::shared_ptr<Script> input, output = new_script();
  Ref<GvcConnection> channel;
  Ref<GvcBytesInputStream> reader;
  Ref<GvcDataInputStream> string_reader;
  Ref<GvcBytesOutputStream> writer;

  explicit Scripted(int stages, std::string wire = {}) : input(new_script(std::move(wire)))
  {
    channel = own(
        gvc_connection_new(new_connection_over(new_scripted_input(input, StreamKind::pollable),
                                               new_scripted_output(output, StreamKind::pollable))
                               .get()));
    faulty::add_stages(channel.get(), stages);
    reader = own(gvc_bytes_input_stream_new(in()));
    string_reader = own(gvc_data_input_stream_new(in()));
    writer = own(gvc_bytes_output_stream_new(out()));
  }
  GInputStream *
  in() const
  {
    return g_io_stream_get_input_stream(G_IO_STREAM(channel.get()));
  }
  GOutputStream *
  out() const
  {
    return g_io_stream_get_output_stream(G_IO_STREAM(channel.get()));
  }
};

// One on sockets, with the peer in the hand of the test.
struct Connected {
  RawPeer peer;
  Ref<GvcConnection> channel;
  Ref<GvcBytesInputStream> reader;
  Ref<GvcBytesOutputStream> writer;

  Connected(Family family, int stages) : peer(family)
  {
    channel = own(gvc_connection_new(peer.connection()));
    faulty::add_stages(channel.get(), stages);
    reader = own(gvc_bytes_input_stream_new(in()));
    writer =
        own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel.get()))));
  }
  GInputStream *
  in() const
  {
    return g_io_stream_get_input_stream(G_IO_STREAM(channel.get()));
  }
};

// A frame as it travels through stages.
std::string
frame_through_stages(int stages, const std::string &payload)
{
  return faulty::through_stages(stages, {le32(static_cast<guint32>(payload.size())), payload});
}

constexpr int urgent = -100;
constexpr int between = -50; // less urgent than the length, more so than the payload

// Attaches a source of another part of the program, which is ready at once.
void
compete(Callback &ran)
{
  g_idle_add_full(
      between,
      [](gpointer callback) -> gboolean {
        (*static_cast<Callback *>(callback))();
        return G_SOURCE_REMOVE;
      },
      &ran, nullptr);
}

struct Operation {
  const char *name;
  bool reads;
  /* Whether it has reported a success. */
  bool (*run)(const Scripted &, GError **error);
};

const Operation operations[] = {
    {"read-all", true,
     [](const Scripted &scripted, GError **error) -> bool {
       char buffer[20];
       Collector collector;
       gvc_input_stream_util_read_all_async(scripted.in(), buffer, sizeof buffer,
                                            G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                            &collector);
       return gvc_input_stream_util_read_all_finish(scripted.in(), collector.wait(), nullptr,
                                                    error);
     }},
    {"read-bytes", true,
     [](const Scripted &scripted, GError **error) -> bool {
       Collector collector;
       gvc_bytes_input_stream_read_bytes_async(scripted.reader.get(), G_PRIORITY_DEFAULT, nullptr,
                                               Collector::ready, &collector);
       return faulty::take(gvc_bytes_input_stream_read_bytes_finish(scripted.reader.get(),
                                                                    collector.wait(), error))
           .has_value();
     }},
    {"read-variant", true,
     [](const Scripted &scripted, GError **error) -> bool {
       Collector collector;
       gvc_bytes_input_stream_read_variant_async(scripted.reader.get(), "ay", G_PRIORITY_DEFAULT,
                                                 nullptr, Collector::ready, &collector);
       return faulty::take(gvc_bytes_input_stream_read_variant_finish(scripted.reader.get(),
                                                                      collector.wait(), error))
           .has_value();
     }},
    {"read-string", true,
     [](const Scripted &scripted, GError **error) -> bool {
       Collector collector;
       gvc_data_input_stream_read_string_async(scripted.string_reader.get(), '\n',
                                               G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                               &collector);
       gsize length = 0;
       auto *string = gvc_data_input_stream_read_string_finish(scripted.string_reader.get(),
                                                               collector.wait(), &length, error);
       return faulty::take(string, length).has_value();
     }},
    {"write-all", false,
     [](const Scripted &scripted, GError **error) -> bool {
       Collector collector;
       gvc_output_stream_util_write_all_async(scripted.out(), "some bytes", 10, G_PRIORITY_DEFAULT,
                                              nullptr, Collector::ready, &collector);
       return gvc_output_stream_util_write_all_finish(scripted.out(), collector.wait(), nullptr,
                                                      error);
     }},
    {"put-bytes", false,
     [](const Scripted &scripted, GError **error) -> bool {
       Collector collector;
       gvc_bytes_output_stream_put_bytes_async(scripted.writer.get(), new_bytes("message").get(),
                                               G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                               &collector);
       return gvc_bytes_output_stream_put_bytes_finish(scripted.writer.get(), collector.wait(),
                                                       error);
     }},
    {"put-variant", false,
     [](const Scripted &scripted, GError **error) -> bool {
       const VariantRef variant(g_variant_ref_sink(g_variant_new_string("message")));
       Collector collector;
       gvc_bytes_output_stream_put_variant_async(scripted.writer.get(), variant.get(),
                                                 G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                                 &collector);
       return gvc_bytes_output_stream_put_variant_finish(scripted.writer.get(), collector.wait(),
                                                         error);
     }},
};

// Zeros are records that hold a new start of the chain and nothing else, or empty blocks.
std::string
flood(gsize size)
{
  return std::string(size, '\0');
}

constexpr gsize mebibyte = 1024 * 1024;
constexpr gsize most_in_a_turn = 8 * mebibyte;

// Between two ticks of a timer, a main loop that gets its turns cannot read this much.
constexpr gsize most_between_ticks = 256 * mebibyte;

// Returns the result of one read without blocking. `wire` comes in so many pieces and an error,
// through a stage or through GIO's converter stream.
std::string
read_at_once(const std::string &wire, guint pieces, const std::function<Ref<GConverter>()> &make)
{
  const auto read = [](GInputStream *in) {
    std::string text(64, '\0');
    Error error;
    const gssize count = g_pollable_input_stream_read_nonblocking(
        G_POLLABLE_INPUT_STREAM(in), text.data(), text.size(), nullptr, &error);
    error.assert_none();
    return text.substr(0, static_cast<gsize>(count));
  };
  const auto script = [&wire, pieces] {
    auto one = new_script(wire);
    one->max_per_call = (wire.size() + pieces - 1) / pieces;
    one->from_call = {pieces + 1, Step::fail()};
    return one;
  };
  const auto base = new_scripted_input(script(), StreamKind::pollable);
  const auto gio = own(g_converter_input_stream_new(base.get(), make().get()));
  const auto channel =
      own(gvc_connection_new(new_connection_over(new_scripted_input(script(), StreamKind::pollable),
                                                 new_scripted_output(new_script()))
                                 .get()));
  gvc_connection_add_converters(channel.get(), make().get(),
                                new_map_converter([](guint8 byte) { return byte; }).get());
  auto text = read(g_io_stream_get_input_stream(G_IO_STREAM(channel.get())));
  assert_bytes(text, read(gio.get()));
  return text;
}

struct SourceRemove {
  void
  operator()(GSource *source) const
  {
    g_source_destroy(source);
    g_source_unref(source);
  }
};
using SourceRef = std::unique_ptr<GSource, SourceRemove>;

SourceRef
watch(GInputStream *stream, Callback &readable)
{
  SourceRef source(g_pollable_input_stream_create_source(G_POLLABLE_INPUT_STREAM(stream), nullptr));
  const auto dispatched = [](GObject *, gpointer callback) -> gboolean {
    (*static_cast<Callback *>(callback))();
    return G_SOURCE_CONTINUE;
  };
  g_source_set_callback(source.get(), G_SOURCE_FUNC(+dispatched), &readable, nullptr);
  g_source_attach(source.get(), nullptr);
  return source;
}

constexpr int many_turns = 1000;
// Nothing is there any more: a source may look once or twice to notice.
constexpr int most_in_vain = 10;

const char *const three[] = {"first", "second", "third"};

std::string
three_through_stages(int stages)
{
  return faulty::through_stages(stages, {le32(5), three[0], le32(6), three[1], le32(5), three[2]});
}

enum class Made { before, after }; // the bytes have come

// One message is read each time; all of them lie in the buffers of the stages after the first.
void
watch_messages(int stages, bool own_stream, Made made)
{
  Connected connected(Family::unix_domain, stages);
  std::vector<std::string> messages;
  int in_vain = 0;
  Callback readable = [&] {
    if (messages.size() == G_N_ELEMENTS(three)) {
      in_vain++;
      return;
    }
    Error error;
    const BytesRef message(
        gvc_bytes_input_stream_read_bytes(connected.reader.get(), nullptr, &error));
    error.assert_none();
    messages.push_back(bytes_string(message.get()));
  };
  if (made == Made::after)
    connected.peer.send(three_through_stages(stages));
  const auto source =
      watch(own_stream ? G_INPUT_STREAM(connected.reader.get()) : connected.in(), readable);
  if (made == Made::before) {
    spin_pending();
    g_assert_cmpuint(messages.size(), ==, 0);
    connected.peer.send(three_through_stages(stages));
  }
  for (int turn = 0; turn < many_turns; turn++)
    g_main_context_iteration(nullptr, FALSE);
  g_assert_cmpuint(messages.size(), ==, G_N_ELEMENTS(three));
  for (gsize i = 0; i < G_N_ELEMENTS(three); i++)
    assert_text(messages[i], three[i]);
  g_assert_cmpint(in_vain, <=, most_in_vain);
}

enum class Closing { blocking, async };
enum class Closed { channel, channel_and_socket };

// Whether the channel says that it has closed. Programs that are done with a channel then close its
// socket too.
template <Closing closing, Closed what>
bool
close_channel(const Connected &connected)
{
  auto *channel = G_IO_STREAM(connected.channel.get());
  Error error;
  gboolean closed;
  if (closing == Closing::blocking) {
    closed = g_io_stream_close(channel, nullptr, &error);
  } else {
    Collector collector;
    g_io_stream_close_async(channel, G_PRIORITY_DEFAULT, nullptr, Collector::ready, &collector);
    closed = g_io_stream_close_finish(channel, collector.wait(), &error);
  }
  g_assert_true(closed == !error);
  if (closed && what == Closed::channel_and_socket)
    g_io_stream_close(G_IO_STREAM(connected.peer.connection()), nullptr, nullptr);
  return closed;
}

struct BadType {
  const char *type;
  const char *domain;
  const char *complaint; // a part of the critical
};

// The frame is there for the next reader, who asks for a type that it can have.
void
read_with_bad_type(int stages, const BadType &bad)
{
  LogCapture log;
  const Scripted scripted(
      stages, faulty::through_stages(stages, {le32(4), "one", std::string_view("", 1), le32(4),
                                              "two", std::string_view("", 1)}));
  Collector refused;
  gvc_bytes_input_stream_read_variant_async(scripted.reader.get(), bad.type, G_PRIORITY_DEFAULT,
                                            nullptr, Collector::ready, &refused);
  g_assert_cmpuint(refused.calls(), ==, 0);
  Error error;
  g_assert_null(
      gvc_bytes_input_stream_read_variant_finish(scripted.reader.get(), refused.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "Invalid variant type string");
  const auto messages = log.take();
  g_assert_cmpuint(messages.size(), ==, 1);
  g_assert_cmpint(messages[0].level, ==, G_LOG_LEVEL_CRITICAL);
  g_assert_cmpstr(messages[0].domain ? messages[0].domain->c_str() : nullptr, ==, bad.domain);
  g_assert_nonnull(strstr(messages[0].text.c_str(), bad.complaint));

  for (const char *expected : {"one", "two"}) {
    Collector collector;
    gvc_bytes_input_stream_read_variant_async(scripted.reader.get(), "s", G_PRIORITY_DEFAULT,
                                              nullptr, Collector::ready, &collector);
    const VariantRef variant(g_variant_ref_sink(gvc_bytes_input_stream_read_variant_finish(
        scripted.reader.get(), collector.wait(), &error)));
    error.assert_none();
    g_assert_cmpstr(g_variant_get_string(variant.get(), nullptr), ==, expected);
  }
}

/* ---- Priorities ---- */

// The length has had its turn when the other source gets its own, and the payload has not.
void
test_read_payload_waits_for_more_urgent_sources(int stages)
{
  Scripted scripted(stages, frame_through_stages(stages, "message"));
  Collector collector;
  bool competed = false;
  Callback ran = [&] {
    competed = true;
    g_assert_cmpuint(collector.calls(), ==, 0);
    if (stages == 0)
      g_assert_cmpuint(scripted.input->moved(), <=, 4);
  };
  gvc_bytes_input_stream_read_bytes_async(scripted.reader.get(), urgent, nullptr, Collector::ready,
                                          &collector);
  compete(ran);
  collector.wait();
  g_assert_true(competed);
  Error error;
  const BytesRef message(
      gvc_bytes_input_stream_read_bytes_finish(scripted.reader.get(), collector.result(), &error));
  assert_bytes(bytes_string(message.get()), "message");
}

void
test_written_payload_waits_for_more_urgent_sources(int stages)
{
  Scripted scripted(stages);
  const auto length_size = faulty::through_stages(stages, {le32(7)}).size();
  Collector collector;
  bool competed = false;
  Callback ran = [&] {
    competed = true;
    g_assert_cmpuint(collector.calls(), ==, 0);
    g_assert_cmpuint(scripted.output->moved(), <=, length_size);
  };
  gvc_bytes_output_stream_put_bytes_async(scripted.writer.get(), new_bytes("message").get(), urgent,
                                          nullptr, Collector::ready, &collector);
  compete(ran);
  collector.wait();
  g_assert_true(competed);
  assert_bytes(faulty::from_stages(stages, scripted.output->written()), frame("message"));
}

// A socket could take both parts at once.
void
test_payload_sent_after_more_urgent_sources(int stages)
{
  Connected connected(Family::unix_domain, stages);
  const auto length_size = faulty::through_stages(stages, {le32(7)}).size();
  Collector collector;
  bool competed = false;
  Callback ran = [&] {
    char buffer[1024];
    competed = true;
    g_assert_cmpint(recv(connected.peer.fd(), buffer, sizeof buffer, MSG_PEEK | MSG_DONTWAIT), <=,
                    static_cast<gssize>(length_size));
  };
  gvc_bytes_output_stream_put_bytes_async(connected.writer.get(), new_bytes("message").get(),
                                          urgent, nullptr, Collector::ready, &collector);
  compete(ran);
  collector.wait();
  g_assert_true(competed);
}

/* ---- A stream that fails without an error ---- */

template <gsize index>
void
test_failure_without_an_error(int stages)
{
  const auto &operation = operations[index];
  const auto wire = faulty::through_stages(stages, {le32(16), "fifteen letters\n"});
  for (const gssize before : {0, 3}) {
    const Scripted scripted(stages, wire);
    auto &script = operation.reads ? scripted.input : scripted.output;
    if (before > 0)
      script->steps.push_back(Step::move(before));
    script->steps.push_back(Step::report(-1));
    Error error;
    g_assert_false(operation.run(scripted, &error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED);
  }
}

template <gsize index = 0>
void
add_failures_without_an_error()
{
  if constexpr (index < G_N_ELEMENTS(operations)) {
    add((std::string("failure-without-an-error/") + operations[index].name).c_str(),
        test_failure_without_an_error<index>);
    add_failures_without_an_error<index + 1>();
  }
}

/* ---- Floods ---- */

void
test_flood_leaves_the_main_loop_its_turns(int stages)
{
  constexpr int turns = 4;
  const Scripted scripted(stages, flood((turns + 2) * most_in_a_turn));
  auto cancellable = own(g_cancellable_new());
  Collector collector;
  gsize before = 0;
  const auto assert_little_was_read = [&] {
    const gsize moved = scripted.input->moved();
    g_assert_cmpuint(moved - before, <=, most_in_a_turn);
    g_assert_cmpuint(collector.calls(), ==, 0);
    before = moved;
  };
  gvc_bytes_input_stream_read_bytes_async(scripted.reader.get(), G_PRIORITY_DEFAULT,
                                          cancellable.get(), Collector::ready, &collector);
  assert_little_was_read();
  for (int turn = 0; turn < turns; turn++) {
    g_main_context_iteration(nullptr, TRUE);
    assert_little_was_read();
  }

  g_cancellable_cancel(cancellable.get());
  for (int turn = 0; turn < 20; turn++)
    g_main_context_iteration(nullptr, FALSE);
  g_assert_cmpuint(collector.calls(), ==, 1);
  Error error;
  g_assert_null(
      gvc_bytes_input_stream_read_bytes_finish(scripted.reader.get(), collector.result(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

void
test_flood_is_cancelled_while_blocking(int stages)
{
  const Scripted scripted(stages, flood(8 * mebibyte));
  auto cancellable = own(g_cancellable_new());
  constexpr guint cancelled_at = 3;
  scripted.input->max_per_call = 1000;
  scripted.input->on_call = [&](guint number) {
    g_assert_cmpuint(number, <=, cancelled_at);
    if (number == cancelled_at)
      g_cancellable_cancel(cancellable.get());
  };
  Error error;
  g_assert_null(
      gvc_bytes_input_stream_read_bytes(scripted.reader.get(), cancellable.get(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

void
test_timers_tick_during_a_flood(int stages)
{
  Connected connected(Family::tcp4, stages);
  auto cancellable = own(g_cancellable_new());
  std::atomic<gsize> sent = 0;
  Background sender([&] {
    const auto zeros = flood(64 * 1024);
    ssize_t count;
    while ((count = send(connected.peer.fd(), zeros.data(), zeros.size(), MSG_NOSIGNAL)) > 0)
      sent += static_cast<gsize>(count);
  });
  Collector collector;
  gvc_bytes_input_stream_read_bytes_async(connected.reader.get(), G_PRIORITY_DEFAULT,
                                          cancellable.get(), Collector::ready, &collector);
  gsize last = 0, most = 0;
  int ticks = 0;
  Callback tick = [&] {
    const gsize now = sent;
    most = std::max(most, now - last);
    last = now;
    ticks++;
  };
  const guint timer = g_timeout_add(
      10,
      [](gpointer callback) -> gboolean {
        (*static_cast<Callback *>(callback))();
        return G_SOURCE_CONTINUE;
      },
      &tick);
  spin_until([&] { return ticks >= 20 || most > most_between_ticks; });
  g_source_remove(timer);
  g_cancellable_cancel(cancellable.get());
  collector.wait();
  g_socket_close(g_socket_connection_get_socket(connected.peer.connection()), nullptr);
  sender.join();

  g_assert_cmpuint(most, <=, most_between_ticks);
  Error error;
  g_assert_null(
      gvc_bytes_input_stream_read_bytes_finish(connected.reader.get(), collector.result(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

/* ---- Converters that are odd ---- */

// All input is taken in one call, and what became of it comes from the next.
void
test_output_that_a_converter_keeps()
{
  const auto keeper = [] {
    return new_converter([kept = std::make_shared<std::string>()](
                             std::string_view in, char *out, gsize, GConverterFlags, gsize *read,
                             gsize *written, GError **error) {
      if (in.empty() && kept->empty())
        return conversion_error(G_IO_ERROR_PARTIAL_INPUT, "More, please", error);
      *written = kept->copy(out, kept->size());
      *read = in.size();
      *kept = in;
      return G_CONVERTER_CONVERTED;
    });
  };
  assert_text(read_at_once("message", 1, keeper), "message");
}

// Counts of a call that failed mean nothing.
template <GIOErrorEnum code>
void
test_counts_of_a_failed_call()
{
  const auto failing_once = [] {
    return new_converter([calls = std::make_shared<int>()](std::string_view in, char *out, gsize,
                                                           GConverterFlags, gsize *read,
                                                           gsize *written, GError **error) {
      *read = 1;
      *written = 2;
      if (code == G_IO_ERROR_PARTIAL_INPUT ? in.size() < 7 : (*calls)++ == 0)
        return conversion_error(code, "Not yet", error);
      *written = in.copy(out, in.size());
      *read = in.size();
      return G_CONVERTER_CONVERTED;
    });
  };
  assert_text(read_at_once("message", code == G_IO_ERROR_PARTIAL_INPUT ? 2 : 1, failing_once),
              "message");
}

// A unit that comes in small parts. When it lies elsewhere than before, it must have been copied.
void
test_unit_in_small_parts_is_not_copied_each_time()
{
  const std::string unit = pattern(1024 * 1024);
  const char *last = nullptr;
  gsize last_size = 0, copied = 0;
  auto hoarder = new_converter([&](std::string_view in, char *out, gsize, GConverterFlags,
                                   gsize *read, gsize *written, GError **error) {
    copied += in.data() == last ? 0 : last_size;
    last = in.data();
    last_size = in.size();
    if (in.size() < unit.size())
      return conversion_error(G_IO_ERROR_PARTIAL_INPUT, "More", error);
    *out = in == unit ? 'y' : 'n';
    *read = in.size();
    *written = 1;
    return G_CONVERTER_CONVERTED;
  });
  const auto script = new_script(unit);
  script->max_per_call = 64;
  auto channel = own(gvc_connection_new(
      new_connection_over(new_scripted_input(script), own(g_memory_output_stream_new_resizable()))
          .get()));
  gvc_connection_add_converters(channel.get(), hoarder.get(), hoarder.get());
  char result = 0;
  Error error;
  g_assert_cmpint(g_input_stream_read(g_io_stream_get_input_stream(G_IO_STREAM(channel.get())),
                                      &result, 1, nullptr, &error),
                  ==, 1);
  g_assert_cmpint(result, ==, 'y');
  // A buffer that doubles copies at most twice what it holds in the end.
  g_assert_cmpuint(copied, <=, 4 * unit.size());
}

/* ---- Sources that stay ---- */

template <bool own_stream, Made made>
void
test_source_sees_all_messages(int stages)
{
  watch_messages(stages, own_stream, made);
}

// A part of a record is nothing that can be read, and nothing to wake up for again and again.
void
test_source_waits_for_the_rest_of_a_unit(int stages)
{
  Connected connected(Family::unix_domain, stages);
  const auto wire = three_through_stages(stages);
  const auto expected = faulty::from_stages(stages, wire);
  std::string plain;
  int in_vain = 0;
  Callback readable = [&] {
    char byte;
    const gssize count = g_pollable_input_stream_read_nonblocking(
        G_POLLABLE_INPUT_STREAM(connected.in()), &byte, 1, nullptr, nullptr);
    if (count == 1)
      plain += byte;
    else
      in_vain++;
  };
  const auto source = watch(connected.in(), readable);
  connected.peer.send(wire.substr(0, wire.size() - 5));
  for (int turn = 0; turn < many_turns; turn++)
    g_main_context_iteration(nullptr, FALSE);
  g_assert_cmpuint(plain.size(), <, expected.size());
  g_assert_cmpint(in_vain, <=, most_in_vain);
  connected.peer.send(wire.substr(wire.size() - 5));
  for (int turn = 0; turn < many_turns; turn++)
    g_main_context_iteration(nullptr, FALSE);
  assert_bytes(plain, expected);
  g_assert_cmpint(in_vain, <=, 2 * most_in_vain);
}

// is_readable() of the channel and of a message stream over it.
void
test_readable_while_a_stage_holds_input(int stages)
{
  Connected connected(Family::unix_domain, stages);
  const auto assert_readable = [&](bool expected) {
    for (auto *stream : {connected.in(), G_INPUT_STREAM(connected.reader.get())})
      g_assert_cmpint(g_pollable_input_stream_is_readable(G_POLLABLE_INPUT_STREAM(stream)), ==,
                      expected);
  };
  assert_readable(false);
  connected.peer.send(three_through_stages(stages));
  for (const char *expected : three) {
    assert_readable(true);
    const BytesRef message(
        gvc_bytes_input_stream_read_bytes(connected.reader.get(), nullptr, nullptr));
    assert_text(bytes_string(message.get()), expected);
  }
  char byte;
  Error error;
  g_assert_cmpint(g_pollable_input_stream_read_nonblocking(G_POLLABLE_INPUT_STREAM(connected.in()),
                                                           &byte, 1, nullptr, &error),
                  ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK);
  assert_readable(false);
}

/* ---- Streams that are busy, cancelled, or not what they derive from ---- */

// A peer may put a whole frame into one unit, which fits neither the reader's memory nor a small
// buffer.
void
test_unit_larger_than_what_is_asked_for(int stages)
{
  const std::string payload = pattern(100000);
  const auto wire = faulty::through_stages(stages, {frame(payload), frame("next")});
  for (const bool blocking : {true, false}) {
    const Scripted scripted(stages, wire);
    for (const auto &expected : {payload, std::string("next")}) {
      Error error;
      BytesRef message;
      if (blocking) {
        message.reset(gvc_bytes_input_stream_read_bytes(scripted.reader.get(), nullptr, &error));
      } else {
        Collector collector;
        gvc_bytes_input_stream_read_bytes_async(scripted.reader.get(), G_PRIORITY_DEFAULT, nullptr,
                                                Collector::ready, &collector);
        message.reset(gvc_bytes_input_stream_read_bytes_finish(scripted.reader.get(),
                                                               collector.wait(), &error));
      }
      error.assert_none();
      assert_bytes(bytes_string(message.get()), expected);
    }
  }
}

// A converter that says when it has finished, unlike the library's own: then the stream has ended.
void
test_end_behind_a_finished_converter()
{
  for (const bool blocking : {true, false}) {
    const Scripted scripted(0, "abc");
    auto converter = new_map_converter([](guint8 byte) { return byte; }, G_MAXSIZE);
    gvc_connection_add_converters(scripted.channel.get(), converter.get(), converter.get());
    auto *in = scripted.in();
    auto *pollable = G_POLLABLE_INPUT_STREAM(in);
    for (const gssize expected : {3, 0, 0}) {
      char buffer[10];
      Error error;
      const gssize count =
          blocking ? g_input_stream_read(in, buffer, sizeof buffer, nullptr, &error)
                   : g_pollable_input_stream_read_nonblocking(pollable, buffer, sizeof buffer,
                                                              nullptr, &error);
      error.assert_none();
      g_assert_cmpint(count, ==, expected);
    }
    g_assert_true(g_pollable_input_stream_is_readable(pollable));
  }
}

// A converter that misses its end is heard at once, even if the stream below has no more to say.
void
test_readable_at_an_early_end()
{
  const Scripted scripted(0);
  gvc_connection_add_converters(
      scripted.channel.get(),
      G_CONVERTER(own(g_zlib_decompressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP)).get()),
      new_map_converter([](guint8 byte) { return byte; }).get());
  auto *pollable = G_POLLABLE_INPUT_STREAM(scripted.in());
  const auto assert_early = [&] {
    char byte;
    Error error;
    g_assert_cmpint(g_pollable_input_stream_read_nonblocking(pollable, &byte, 1, nullptr, &error),
                    ==, -1);
    error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
  };
  assert_early();
  scripted.input->poll_held = true;
  g_assert_true(g_pollable_input_stream_is_readable(pollable));
  assert_early();
}

// The stage below belongs to another operation: a stage keeps what it has accepted.
void
test_busy_stage_below()
{
  const Scripted scripted(2);
  auto *pollable = G_POLLABLE_OUTPUT_STREAM(scripted.out());
  auto *below = g_filter_output_stream_get_base_stream(G_FILTER_OUTPUT_STREAM(scripted.out()));
  Error error;
  g_assert_true(g_output_stream_set_pending(below, nullptr));
  g_assert_cmpint(g_pollable_output_stream_write_nonblocking(pollable, "a", 1, nullptr, &error), ==,
                  1);
  error.assert_none();
  g_assert_cmpint(g_pollable_output_stream_write_nonblocking(pollable, "b", 1, nullptr, &error), ==,
                  -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
  error.clear();
  g_output_stream_clear_pending(below);
  g_assert_cmpuint(scripted.output->moved(), ==, 0);
  g_assert_true(g_output_stream_flush(scripted.out(), nullptr, &error));
  error.assert_none();
  assert_bytes(faulty::from_stages(2, scripted.output->written()), "a");
}

// The stream below belongs to another operation: none of its bytes are taken or added.
void
test_busy_base_stream(int stages)
{
  const Scripted scripted(stages, frame_through_stages(stages, "message"));
  auto *in = scripted.in();
  auto *out = scripted.out();
  for (int stage = 1; stage < stages; stage++) {
    in = g_filter_input_stream_get_base_stream(G_FILTER_INPUT_STREAM(in));
    out = g_filter_output_stream_get_base_stream(G_FILTER_OUTPUT_STREAM(out));
  }
  g_assert_true(g_input_stream_set_pending(in, nullptr));
  g_assert_true(g_output_stream_set_pending(out, nullptr));
  char byte;
  Error error;
  const auto assert_pending = [&](gssize count) {
    g_assert_cmpint(count, ==, -1);
    error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
    error.clear();
  };
  auto *reader = G_INPUT_STREAM(scripted.reader.get());
  auto *writer = G_OUTPUT_STREAM(scripted.writer.get());
  assert_pending(g_input_stream_read(reader, &byte, 1, nullptr, &error));
  assert_pending(g_output_stream_write(writer, "a", 1, nullptr, &error));
  if (stages <= 1) { // the stage itself
    assert_pending(g_pollable_input_stream_read_nonblocking(G_POLLABLE_INPUT_STREAM(reader), &byte,
                                                            1, nullptr, &error));
    assert_pending(g_pollable_output_stream_write_nonblocking(G_POLLABLE_OUTPUT_STREAM(writer), "a",
                                                              1, nullptr, &error));
  }
  g_input_stream_clear_pending(in);
  g_output_stream_clear_pending(out);
  g_assert_cmpuint(scripted.output->moved(), ==, 0);
  const BytesRef message(gvc_bytes_input_stream_read_bytes(scripted.reader.get(), nullptr, &error));
  error.assert_none();
  assert_bytes(bytes_string(message.get()), "message");
}

// Nothing is moved, and all streams are free again.
void
test_cancelled_before_the_start(int stages)
{
  const Scripted scripted(stages, frame_through_stages(stages, "message"));
  auto cancellable = own(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  Collector read, written;
  gvc_bytes_input_stream_read_bytes_async(scripted.reader.get(), G_PRIORITY_DEFAULT,
                                          cancellable.get(), Collector::ready, &read);
  gvc_bytes_output_stream_put_bytes_async(scripted.writer.get(), new_bytes("message").get(),
                                          G_PRIORITY_DEFAULT, cancellable.get(), Collector::ready,
                                          &written);
  Error error;
  g_assert_null(
      gvc_bytes_input_stream_read_bytes_finish(scripted.reader.get(), read.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  error.clear();
  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(scripted.writer.get(), written.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  error.clear();
  g_assert_cmpuint(scripted.input->moved(), ==, 0);
  g_assert_cmpuint(scripted.output->moved(), ==, 0);
  g_assert_true(gvc_bytes_output_stream_put_bytes(scripted.writer.get(), new_bytes("").get(),
                                                  nullptr, &error));
  error.assert_none();
}

// The payload counts from the next turn on, so that a cancellation behind the call prevents it.
void
test_cancelled_behind_the_start()
{
  const Scripted scripted(0, frame("message"));
  auto cancellable = own(g_cancellable_new());
  Collector read, written;
  gvc_bytes_input_stream_read_bytes_async(scripted.reader.get(), G_PRIORITY_DEFAULT,
                                          cancellable.get(), Collector::ready, &read);
  gvc_bytes_output_stream_put_bytes_async(scripted.writer.get(), new_bytes("message").get(),
                                          G_PRIORITY_DEFAULT, cancellable.get(), Collector::ready,
                                          &written);
  g_cancellable_cancel(cancellable.get());
  read.wait();
  written.wait();
  g_assert_cmpuint(scripted.input->moved(), ==, 4);
  g_assert_cmpuint(scripted.output->moved(), ==, 4);
  Error error;
  g_assert_null(
      gvc_bytes_input_stream_read_bytes_finish(scripted.reader.get(), read.result(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  error.clear();
  g_assert_false(
      gvc_bytes_output_stream_put_bytes_finish(scripted.writer.get(), written.result(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

// Even if all has been moved within the call: another message has to wait for the callback.
void
test_busy_until_the_callback(int stages)
{
  const Scripted scripted(stages, frame_through_stages(stages, "message"));
  auto *writer = G_OUTPUT_STREAM(scripted.writer.get());
  Collector written;
  gvc_bytes_output_stream_put_bytes_async(scripted.writer.get(), new_bytes("message").get(),
                                          G_PRIORITY_DEFAULT, nullptr, Collector::ready, &written);
  g_assert_true(g_output_stream_has_pending(writer));
  written.wait();
  g_assert_false(g_output_stream_has_pending(writer));
}

// A derived class with asynchronous operations of its own over a stream that could be polled.
void
test_derived_class_with_operations_of_its_own()
{
  const auto input = new_script(frame("message")), output = new_script();
  auto below_in = new_scripted_input(new_script("others"), StreamKind::pollable);
  auto below_out = new_scripted_output(new_script(), StreamKind::pollable);
  auto reader = new_scripted_filter_input(GVC_TYPE_BYTES_INPUT_STREAM, below_in.get(), input,
                                          StreamKind::with_async);
  auto writer = new_scripted_filter_output(GVC_TYPE_BYTES_OUTPUT_STREAM, below_out.get(), output,
                                           StreamKind::with_async);
  Collector read, written;
  gvc_bytes_input_stream_read_bytes_async(GVC_BYTES_INPUT_STREAM(reader.get()), G_PRIORITY_DEFAULT,
                                          nullptr, Collector::ready, &read);
  gvc_bytes_output_stream_put_bytes_async(GVC_BYTES_OUTPUT_STREAM(writer.get()),
                                          new_bytes("message").get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &written);
  Error error;
  const BytesRef message(gvc_bytes_input_stream_read_bytes_finish(
      GVC_BYTES_INPUT_STREAM(reader.get()), read.wait(), &error));
  error.assert_none();
  assert_bytes(bytes_string(message.get()), "message");
  g_assert_true(gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(writer.get()),
                                                         written.wait(), &error));
  assert_bytes(output->written(), frame("message"));
}

// Has the interface for polling, but over a stream that cannot be polled.
void
test_stream_that_cannot_be_polled_after_all()
{
  auto converter = new_map_converter([](guint8 byte) { return byte; }, G_MAXSIZE);
  const auto output = new_script();
  auto in = own(g_converter_input_stream_new(
      new_scripted_input(new_script("bytes"), StreamKind::sync_only).get(), converter.get()));
  auto out = own(g_converter_output_stream_new(
      new_scripted_output(output, StreamKind::sync_only).get(), converter.get()));
  char buffer[5];
  gsize count = 0;
  Error error;
  Collector read, written;
  gvc_input_stream_util_read_all_async(in.get(), buffer, sizeof buffer, G_PRIORITY_DEFAULT, nullptr,
                                       Collector::ready, &read);
  g_assert_true(gvc_input_stream_util_read_all_finish(in.get(), read.wait(), &count, &error));
  assert_bytes({buffer, count}, "bytes");
  gvc_output_stream_util_write_all_async(out.get(), "bytes", 5, G_PRIORITY_DEFAULT, nullptr,
                                         Collector::ready, &written);
  g_assert_true(gvc_output_stream_util_write_all_finish(out.get(), written.wait(), &count, &error));
  g_assert_true(g_output_stream_flush(out.get(), nullptr, &error));
  assert_bytes(output->written(), "bytes");
}

/* ---- A channel that is closed below a message ---- */

template <Closing closing, Closed what>
void
test_closed_while_reading(int stages)
{
  Connected connected(Family::unix_domain, stages);
  const auto wire = frame_through_stages(stages, "message");
  Collector collector;
  gvc_bytes_input_stream_read_bytes_async(connected.reader.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &collector);
  connected.peer.send(wire.substr(0, wire.size() / 2));
  for (int turn = 0; turn < 10; turn++)
    g_main_context_iteration(nullptr, FALSE);
  g_assert_cmpuint(collector.calls(), ==, 0);

  const bool closed = close_channel<closing, what>(connected);
  if (!closed)
    connected.peer.send(wire.substr(wire.size() / 2));
  for (int turn = 0; turn < many_turns; turn++)
    g_main_context_iteration(nullptr, FALSE);
  g_assert_cmpuint(collector.calls(), ==, 1);
  Error error;
  const auto message = faulty::take(
      gvc_bytes_input_stream_read_bytes_finish(connected.reader.get(), collector.result(), &error));
  g_assert_true(message.has_value() == !error);
  g_assert_true(message.has_value() != closed); // the rest was not there to be read
  if (message)
    assert_bytes(*message, "message");
}

// The peer reads while the channel closes, which may take what is in the stages along. Either the
// message reports an error, or all of it has been sent.
template <Closing closing, Closed what>
void
test_closed_while_writing(int stages)
{
  Connected connected(Family::unix_domain, stages);
  auto *socket = g_socket_connection_get_socket(connected.peer.connection());
  g_assert_true(g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, 4096, nullptr));
  const std::string payload = pattern(3 * mebibyte);
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(connected.writer.get(), new_bytes(payload).get(),
                                          G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                          &collector);
  for (int turn = 0; turn < 10; turn++)
    g_main_context_iteration(nullptr, FALSE);
  g_assert_cmpuint(collector.calls(), ==, 0);

  std::string wire;
  Background receiver([&] { wire = connected.peer.receive_all(); });
  const bool closed = close_channel<closing, what>(connected);
  collector.wait();
  spin_pending();
  g_assert_cmpuint(collector.calls(), ==, 1);
  g_socket_shutdown(socket, FALSE, TRUE, nullptr);
  receiver.join();

  Error error;
  const bool written =
      gvc_bytes_output_stream_put_bytes_finish(connected.writer.get(), collector.result(), &error);
  g_assert_true(written == !error);
  g_assert_true(written || closed); // what has not closed goes on
  if (written)
    assert_bytes(faulty::from_stages(stages, wire), frame(payload));
}

// The bytes have left within the call, and only the callback is still to come.
void
test_closed_after_the_bytes_have_left(int stages)
{
  Connected connected(Family::unix_domain, stages);
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(connected.writer.get(), new_bytes("message").get(),
                                          G_PRIORITY_DEFAULT, nullptr, Collector::ready,
                                          &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  const bool closed = close_channel<Closing::blocking, Closed::channel>(connected);
  g_assert_true(closed);
  Error error;
  g_assert_true(
      gvc_bytes_output_stream_put_bytes_finish(connected.writer.get(), collector.wait(), &error));
  error.assert_none();
}

template <Closing closing, Closed what>
void
add_closings(const std::string &name)
{
  add(("closed-while-reading/" + name).c_str(), test_closed_while_reading<closing, what>);
  add(("closed-while-writing/" + name).c_str(), test_closed_while_writing<closing, what>);
}

/* ---- Types that cannot be read ---- */

void
test_indefinite_type_costs_no_frame(int stages)
{
  for (const char *type : {"*", "a?", "(sr)"})
    read_with_bad_type(stages, {type, nullptr,
                                "gvc_bytes_input_stream_read_variant_async: assertion "
                                "'g_variant_type_is_definite(type)' failed"});
}

void
test_invalid_type_costs_no_frame(int stages)
{
  for (const char *type : {"", "no type", "a"})
    read_with_bad_type(stages, {type, "GLib", "g_variant_type_string_is_valid"});
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  add("payload-waits-for-more-urgent-sources/read",
      test_read_payload_waits_for_more_urgent_sources);
  add("payload-waits-for-more-urgent-sources/written",
      test_written_payload_waits_for_more_urgent_sources);
  add("payload-waits-for-more-urgent-sources/sent", test_payload_sent_after_more_urgent_sources);
  add_failures_without_an_error();
  add("flood-leaves-the-main-loop-its-turns", test_flood_leaves_the_main_loop_its_turns, 1);
  add("flood-is-cancelled-while-blocking", test_flood_is_cancelled_while_blocking, 1);
  add("timers-tick-during-a-flood", test_timers_tick_during_a_flood, 1);
  g_test_add_func("/engine/unit-in-small-parts-is-not-copied-each-time",
                  test_unit_in_small_parts_is_not_copied_each_time);
  g_test_add_func("/engine/output-that-a-converter-keeps", test_output_that_a_converter_keeps);
  g_test_add_func("/engine/counts-of-a-failed-call/no-space",
                  test_counts_of_a_failed_call<G_IO_ERROR_NO_SPACE>);
  g_test_add_func("/engine/counts-of-a-failed-call/partial-input",
                  test_counts_of_a_failed_call<G_IO_ERROR_PARTIAL_INPUT>);
  add("source-sees-all-messages/channel/made-before",
      test_source_sees_all_messages<false, Made::before>);
  add("source-sees-all-messages/channel/made-after",
      test_source_sees_all_messages<false, Made::after>);
  add("source-sees-all-messages/message-stream/made-before",
      test_source_sees_all_messages<true, Made::before>);
  add("source-sees-all-messages/message-stream/made-after",
      test_source_sees_all_messages<true, Made::after>);
  add("source-waits-for-the-rest-of-a-unit", test_source_waits_for_the_rest_of_a_unit, 1);
  add("readable-while-a-stage-holds-input", test_readable_while_a_stage_holds_input);
  add("unit-larger-than-what-is-asked-for", test_unit_larger_than_what_is_asked_for, 1);
  g_test_add_func("/engine/end-behind-a-finished-converter", test_end_behind_a_finished_converter);
  g_test_add_func("/engine/readable-at-an-early-end", test_readable_at_an_early_end);
  g_test_add_func("/engine/busy-stage-below", test_busy_stage_below);
  add("busy-base-stream", test_busy_base_stream);
  add("cancelled-before-the-start", test_cancelled_before_the_start);
  add("busy-until-the-callback", test_busy_until_the_callback);
  g_test_add_func("/engine/cancelled-behind-the-start", test_cancelled_behind_the_start);
  g_test_add_func("/engine/derived-class-with-operations-of-its-own",
                  test_derived_class_with_operations_of_its_own);
  g_test_add_func("/engine/stream-that-cannot-be-polled-after-all",
                  test_stream_that_cannot_be_polled_after_all);
  add("closed-after-the-bytes-have-left", test_closed_after_the_bytes_have_left);
  add_closings<Closing::blocking, Closed::channel>("blocking/channel");
  add_closings<Closing::async, Closed::channel>("async/channel");
  add_closings<Closing::blocking, Closed::channel_and_socket>("blocking/channel-and-socket");
  add_closings<Closing::async, Closed::channel_and_socket>("async/channel-and-socket");
  add("indefinite-type-costs-no-frame", test_indefinite_type_costs_no_frame);
  add("invalid-type-costs-no-frame", test_invalid_type_costs_no_frame);
  return g_test_run();
}
