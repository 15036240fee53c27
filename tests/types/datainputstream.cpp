/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <malloc.h>

using namespace support;

enum class Way { blocking, async };
static constexpr Way both_ways[] = {Way::blocking, Way::async};

static constexpr gsize untouched = 4711;

/* A string stream over a scripted base. */
struct Fixture {
  std::shared_ptr<Script> script;
  Ref<GInputStream> base;
  Ref<GvcDataInputStream> stream;

  explicit Fixture(std::string data = {}, StreamKind kind = StreamKind::sync_only,
                   gsize max_per_call = G_MAXSIZE)
      : script(new_script(std::move(data), max_per_call)), base(new_scripted_input(script, kind)),
        stream(gvc_data_input_stream_new(base.get()))
  {
  }
};

/* A string stream of a derived class that shows what is asked of the stream itself. */
struct InnerFixture {
  std::shared_ptr<Script> script;
  Ref<GInputStream> base;
  Ref<GInputStream> owner;

  explicit InnerFixture(std::string data)
      : script(new_script(std::move(data))), base(new_scripted_input(new_script())),
        owner(new_scripted_filter_input(GVC_TYPE_DATA_INPUT_STREAM, base.get(), script))
  {
  }

  GvcDataInputStream *
  stream() const
  {
    return GVC_DATA_INPUT_STREAM(owner.get());
  }
};

static Mem<gchar>
read_string(Way way, GvcDataInputStream *stream, gchar string_end, gsize *length, Error &error,
            GCancellable *cancellable = nullptr)
{
  if (way == Way::blocking)
    return Mem<gchar>(
        gvc_data_input_stream_read_string(stream, string_end, length, cancellable, &error));
  Collector collector;
  gvc_data_input_stream_read_string_async(stream, string_end, G_PRIORITY_DEFAULT, cancellable,
                                          Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  GAsyncResult *const result = collector.wait();
  g_assert_true(collector.source() == G_OBJECT(stream));
  return Mem<gchar>(gvc_data_input_stream_read_string_finish(stream, result, length, &error));
}

static void
assert_string(Way way, GvcDataInputStream *stream, gchar string_end, std::string_view expected)
{
  Error error;
  gsize length = untouched;
  const auto string = read_string(way, stream, string_end, &length, error);
  error.assert_none();
  g_assert_nonnull(string.get());
  assert_bytes({string.get(), length}, expected);
}

/* ---- The type ---- */

static void
type_is_a_plain_filter_stream()
{
  const GType type = gvc_data_input_stream_get_type();
  g_assert_cmpuint(type, ==, GVC_TYPE_DATA_INPUT_STREAM);
  g_assert_cmpstr(g_type_name(type), ==, "GvcDataInputStream");
  g_assert_cmpuint(g_type_parent(type), ==, G_TYPE_FILTER_INPUT_STREAM);
  g_assert_false(G_TYPE_IS_ABSTRACT(type));
  g_assert_true(G_TYPE_IS_DERIVABLE(type));
  g_assert_true(own_properties(type).empty());
  g_assert_true(own_signals(type).empty());

  GTypeQuery query;
  g_type_query(type, &query);
  g_assert_cmpuint(query.instance_size, ==, sizeof(GFilterInputStream));
  g_assert_cmpuint(query.class_size, ==, sizeof(GFilterInputStreamClass));
  g_assert_cmpuint(sizeof(GvcDataInputStream), ==, sizeof(GFilterInputStream));
  g_assert_cmpuint(sizeof(GvcDataInputStreamClass), ==, sizeof(GFilterInputStreamClass));
}

static void
type_overrides_no_operation()
{
  assert_overrides_nothing(GVC_TYPE_DATA_INPUT_STREAM);
}

static void
new_stream_holds_and_closes_its_base()
{
  LogCapture log;
  LifeWatch watch;
  {
    Fixture fixture;
    watch.add(fixture.stream.get());
    watch.add(fixture.base.get());
    assert_refcount(fixture.stream.get(), 1);
    assert_refcount(fixture.base.get(), 2);
    const auto filter = G_FILTER_INPUT_STREAM(fixture.stream.get());
    g_assert_true(g_filter_input_stream_get_base_stream(filter) == fixture.base.get());
    g_assert_true(g_filter_input_stream_get_close_base_stream(filter));
    g_assert_false(fixture.script->closed());
    fixture.stream.reset();
    g_assert_true(fixture.script->closed());
    assert_refcount(fixture.base.get(), 1);
  }
  watch.assert_all_gone();

  const Fixture fixture;
  g_assert_true(g_input_stream_close(G_INPUT_STREAM(fixture.stream.get()), nullptr, nullptr));
  g_assert_true(g_input_stream_is_closed(fixture.base.get()));
}

static void
new_refuses_what_is_no_input_stream()
{
  LogCapture log;
  const auto message = failed_check("gvc_data_input_stream_new", "G_IS_INPUT_STREAM(base_stream)");
  g_assert_null(gvc_data_input_stream_new(nullptr));
  log.expect({message});
  const auto out = new_scripted_output(new_script());
  g_assert_null(gvc_data_input_stream_new(reinterpret_cast<GInputStream *>(out.get())));
  log.expect({message});
  assert_refcount(out.get(), 1);
}

/* ---- Strings ---- */

static void
string_includes_its_terminator()
{
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      const Fixture fixture("ab\ncd\n", kind);
      assert_string(way, fixture.stream.get(), '\n', "ab\n");
      /* Nothing behind the terminator has been consumed. */
      g_assert_cmpuint(fixture.script->moved(), ==, 3);
      assert_string(way, fixture.stream.get(), '\n', "cd\n");
      assert_refcount_becomes(fixture.stream.get(), 1);
    }
  }
}

static void
terminator_alone_is_a_string()
{
  for (const auto way : both_ways) {
    const Fixture fixture("\n\n");
    assert_string(way, fixture.stream.get(), '\n', "\n");
    assert_string(way, fixture.stream.get(), '\n', "\n");
  }
}

/* Bytes with the high bit and NUL among them. Nothing but the terminator ends a string. */
static void
any_byte_can_be_the_terminator()
{
  std::string all;
  for (int byte = 0; byte < 256; byte++)
    all.push_back(static_cast<char>(byte));
  for (const auto way : both_ways) {
    for (int byte = 0; byte < 256; byte++) {
      const auto end = static_cast<gchar>(byte);
      auto others = all;
      std::erase(others, end);
      const Fixture fixture(others + end + "rest", StreamKind::pollable);
      assert_string(way, fixture.stream.get(), end, others + end);
      g_assert_cmpuint(fixture.script->moved(), ==, 256);
    }
  }
}

static void
no_nul_is_added()
{
  for (const auto way : both_ways) {
    const Fixture fixture(std::string("ab\0cd\0", 6));
    assert_string(way, fixture.stream.get(), '\0', std::string_view("ab\0", 3));
    assert_string(way, fixture.stream.get(), '\0', std::string_view("cd\0", 3));
  }
}

static void
terminator_may_change_from_string_to_string()
{
  for (const auto way : both_ways) {
    const Fixture fixture("a:b;c\n");
    assert_string(way, fixture.stream.get(), ':', "a:");
    assert_string(way, fixture.stream.get(), ';', "b;");
    assert_string(way, fixture.stream.get(), '\n', "c\n");
  }
}

/* Around the sizes at which the buffer is full. */
static void
strings_of_any_length_are_whole()
{
  for (const gsize size :
       {1, 2, 1021, 1022, 1023, 1024, 1025, 1026, 2047, 2048, 2049, 4095, 4096, 4097, 70000}) {
    auto expected = pattern(size);
    for (auto &c : expected)
      if (c == '\n')
        c = ' ';
    expected.push_back('\n');
    for (const auto way : both_ways) {
      const Fixture fixture(expected + expected, StreamKind::pollable);
      assert_string(way, fixture.stream.get(), '\n', expected);
      assert_string(way, fixture.stream.get(), '\n', expected);
    }
  }
}

/* A full buffer is doubled before the byte that needs the room: once for 1024 bytes before the
 * terminator, and once for 1025 too. */
static void
buffer_doubles_when_it_is_full()
{
  const struct {
    gsize before_terminator;
    gsize capacity;
  } cases[] = {{0, 1024},    {1023, 1024}, {1024, 2048}, {1025, 2048},
               {2047, 2048}, {2048, 4096}, {2049, 4096}, {5000, 8192}};
  for (const auto &[before, capacity] : cases) {
    for (const auto way : both_ways) {
      const Fixture fixture(std::string(before, 'x') + '\n', StreamKind::pollable);
      gsize length;
      Error error;
      const auto string = read_string(way, fixture.stream.get(), '\n', &length, error);
      g_assert_cmpuint(length, ==, before + 1);
      /* The allocator may give a little more than what it was asked for. */
      g_assert_cmpuint(malloc_usable_size(string.get()), >=, capacity);
      g_assert_cmpuint(malloc_usable_size(string.get()), <, capacity + 64);
    }
  }
}

static void
bytes_are_asked_for_one_by_one()
{
  for (const auto way : both_ways) {
    const InnerFixture fixture("hello\nrest");
    assert_string(way, fixture.stream(), '\n', "hello\n");
    g_assert_true(fixture.script->sizes() == std::vector<gsize>(6, 1));
    g_assert_cmpuint(fixture.script->moved(), ==, 6);
  }
}

static void
length_may_be_left_out()
{
  for (const auto way : both_ways) {
    LogCapture log;
    const Fixture fixture("hello\n");
    Error error;
    const auto string = read_string(way, fixture.stream.get(), '\n', nullptr, error);
    error.assert_none();
    assert_bytes({string.get(), 6}, "hello\n");
  }
}

/* ---- The end of the stream ---- */

static void
end_of_stream_does_not_end_a_string()
{
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      LogCapture log;
      const Fixture fixture("ab\n", kind);
      fixture.script->steps = {Step::zero(), Step::zero(), Step::move(), Step::zero(),
                               Step::zero(), Step::zero(), Step::move(), Step::zero()};
      assert_string(way, fixture.stream.get(), '\n', "ab\n");
      g_assert_cmpuint(fixture.script->transfers().size(), ==, 9);
    }
  }
}

/* After a read of nothing there is no byte to compare: whatever stands where it would have gone, or
 * in front of the buffer, must not be taken for the terminator. */
static void
nothing_read_matches_no_terminator()
{
  for (const auto way : both_ways) {
    for (int byte = 0; byte < 256; byte++) {
      const auto end = static_cast<gchar>(byte);
      const auto other = static_cast<gchar>(byte ^ 0x55);
      const std::string expected = {other, other, end};
      /* The allocator's recycled memory is full of terminators. */
      for (int i = 0; i < 4; i++) {
        void *const dirt = g_malloc(1024);
        memset(dirt, byte, 1024);
        g_free(dirt);
      }
      const Fixture fixture(expected);
      fixture.script->steps = {Step::zero(), Step::move(), Step::zero(),
                               Step::zero(), Step::move(), Step::zero()};
      assert_string(way, fixture.stream.get(), end, expected);
    }
  }
}

static void
endless_end_of_stream_is_ended_by_cancellation()
{
  for (const auto way : both_ways) {
    const auto cancellable = own(g_cancellable_new());
    const Fixture fixture("unfinished");
    fixture.script->on_call = [&](guint number) {
      if (number == 500)
        g_cancellable_cancel(cancellable.get());
    };
    Error error;
    gsize length = untouched;
    g_assert_null(
        read_string(way, fixture.stream.get(), '\n', &length, error, cancellable.get()).get());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
    g_assert_cmpuint(length, ==, untouched);
    g_assert_cmpuint(fixture.script->transfers().size(), ==, 500);
    assert_refcount_becomes(cancellable.get(), 1);
  }
}

/* ---- Failures ---- */

static void
failure_at_any_read_passes_through()
{
  const std::string whole = "hello there\n";
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      for (guint failing = 1; failing <= whole.size(); failing++) {
        LogCapture log;
        const Fixture fixture(whole, kind);
        const auto text = "read " + std::to_string(failing);
        fixture.script->at_call[failing] = Step::fail(G_IO_ERROR_NOT_CONNECTED, text);
        Error error;
        gsize length = untouched;
        g_assert_null(read_string(way, fixture.stream.get(), '\n', &length, error).get());
        error.assert_is(G_IO_ERROR, G_IO_ERROR_NOT_CONNECTED, text.c_str());
        g_assert_cmpuint(length, ==, untouched);
        g_assert_cmpuint(fixture.script->transfers().size(), ==, failing);
        assert_refcount_becomes(fixture.stream.get(), 1);
        /* The part before the failure is lost; the stream goes on behind it. */
        assert_string(way, fixture.stream.get(), '\n', whole.substr(failing - 1));
      }
    }
  }
}

/* After the buffer has grown as well. */
static void
failure_of_a_long_string_passes_through()
{
  for (const auto way : both_ways) {
    const Fixture fixture(std::string(3000, 'x'), StreamKind::pollable);
    fixture.script->at_call[3000] = Step::fail(G_IO_ERROR_TIMED_OUT, "too slow");
    Error error;
    g_assert_null(read_string(way, fixture.stream.get(), '\n', nullptr, error).get());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "too slow");
  }
}

static void
closed_streams_fail_as_closed()
{
  for (const auto way : both_ways) {
    for (const bool close_base : {true, false}) {
      const Fixture fixture("hello\n");
      g_assert_true(g_input_stream_close(close_base ? fixture.base.get()
                                                    : G_INPUT_STREAM(fixture.stream.get()),
                                         nullptr, nullptr));
      Error error;
      g_assert_null(read_string(way, fixture.stream.get(), '\n', nullptr, error).get());
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
    }
  }
}

static void
errors_may_be_left_out()
{
  LogCapture log;
  const Fixture fixture;
  fixture.script->from_call = {1, Step::fail()};
  g_assert_null(
      gvc_data_input_stream_read_string(fixture.stream.get(), '\n', nullptr, nullptr, nullptr));
  Collector collector;
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, nullptr, Collector::ready,
                                          &collector);
  g_assert_null(gvc_data_input_stream_read_string_finish(fixture.stream.get(), collector.wait(),
                                                         nullptr, nullptr));
}

/* ---- Priority and cancellation ---- */

/* The task's own priority is never set: only the first read has the caller's. */
static void
first_read_has_the_callers_priority()
{
  for (const int priority : {G_PRIORITY_HIGH, G_PRIORITY_DEFAULT, G_PRIORITY_LOW, 77}) {
    const InnerFixture fixture("four\n");
    const auto cancellable = own(g_cancellable_new());
    Collector collector;
    gvc_data_input_stream_read_string_async(fixture.stream(), '\n', priority, cancellable.get(),
                                            Collector::ready, &collector);
    const Mem<gchar> string(gvc_data_input_stream_read_string_finish(
        fixture.stream(), collector.wait(), nullptr, nullptr));
    g_assert_nonnull(string.get());
    const auto calls = fixture.script->calls(Call::Kind::async);
    g_assert_cmpuint(calls.size(), ==, 5);
    for (gsize i = 0; i < calls.size(); i++) {
      g_assert_cmpint(calls[i].priority, ==, i == 0 ? priority : G_PRIORITY_DEFAULT);
      g_assert_true(calls[i].cancellable == cancellable.get());
    }
    g_assert_cmpint(g_task_get_priority(G_TASK(collector.result())), ==, G_PRIORITY_DEFAULT);
  }
}

static void
blocking_reads_have_the_callers_cancellable()
{
  const InnerFixture fixture("ab\n");
  const auto cancellable = own(g_cancellable_new());
  Error error;
  g_assert_nonnull(
      read_string(Way::blocking, fixture.stream(), '\n', nullptr, error, cancellable.get()).get());
  const auto calls = fixture.script->calls(Call::Kind::sync);
  g_assert_cmpuint(calls.size(), ==, 3);
  for (const auto &call : calls)
    g_assert_true(call.cancellable == cancellable.get());
  assert_refcount(cancellable.get(), 1);
}

static void
cancelled_before_it_starts_reads_nothing()
{
  const auto cancellable = own(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  for (const auto way : both_ways) {
    for (const auto kind : all_stream_kinds) {
      const Fixture fixture("hello\n", kind);
      Error error;
      gsize length = untouched;
      g_assert_null(
          read_string(way, fixture.stream.get(), '\n', &length, error, cancellable.get()).get());
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      g_assert_cmpuint(length, ==, untouched);
      g_assert_cmpuint(fixture.script->moved(), ==, 0);
    }
  }
  assert_refcount_becomes(cancellable.get(), 1);
}

static void
cancelled_during_any_read_ends_there()
{
  const std::string whole = "hello\n";
  for (const auto kind : all_stream_kinds) {
    for (guint held = 1; held <= whole.size(); held++) {
      const auto cancellable = own(g_cancellable_new());
      const Fixture fixture(whole, kind);
      fixture.script->at_call[held] = Step::hold();
      Collector collector;
      gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, cancellable.get(),
                                              Collector::ready, &collector);
      spin_until([&] { return fixture.script->holding(); });
      g_assert_cmpuint(collector.calls(), ==, 0);
      g_cancellable_cancel(cancellable.get());
      Error error;
      gsize length = untouched;
      g_assert_null(gvc_data_input_stream_read_string_finish(fixture.stream.get(), collector.wait(),
                                                             &length, &error));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      g_assert_cmpuint(length, ==, untouched);
      g_assert_cmpuint(fixture.script->moved(), ==, held - 1);
      collector.clear();
      assert_refcount_becomes(fixture.stream.get(), 1);
      assert_refcount_becomes(cancellable.get(), 1);
    }
  }
}

static void
blocking_read_is_cancelled_from_another_thread()
{
  const Fixture fixture("hello\n");
  fixture.script->at_call[3] = Step::hold();
  const auto cancellable = own(g_cancellable_new());
  Background canceller([&] {
    while (!fixture.script->holding())
      g_usleep(1000);
    g_cancellable_cancel(cancellable.get());
  });
  Error error;
  g_assert_null(
      read_string(Way::blocking, fixture.stream.get(), '\n', nullptr, error, cancellable.get())
          .get());
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

/* The result looks at the cancellable when it is collected. */
static void
cancelled_between_the_last_read_and_finish()
{
  const Fixture fixture("hello\n");
  const auto cancellable = own(g_cancellable_new());
  Collector collector;
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, cancellable.get(),
                                          Collector::ready, &collector);
  collector.wait();
  g_cancellable_cancel(cancellable.get());
  Error error;
  gsize length = untouched;
  g_assert_null(gvc_data_input_stream_read_string_finish(fixture.stream.get(), collector.result(),
                                                         &length, &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_cmpuint(length, ==, untouched);
}

/* ---- Preconditions ---- */

static void
blocking_reader_refuses_other_streams()
{
  LogCapture log;
  const auto script = new_script("hello\n");
  const auto other = new_scripted_input(script);
  const auto message =
      failed_check("gvc_data_input_stream_read_string", "GVC_IS_DATA_INPUT_STREAM(stream)");
  Error error;
  gsize length = untouched;
  g_assert_null(gvc_data_input_stream_read_string(nullptr, '\n', &length, nullptr, &error));
  log.expect({message});
  g_assert_null(gvc_data_input_stream_read_string(
      reinterpret_cast<GvcDataInputStream *>(other.get()), '\n', &length, nullptr, &error));
  log.expect({message});
  error.assert_none();
  g_assert_cmpuint(length, ==, untouched);
  g_assert_true(script->calls().empty());
}

static void
finish_refuses_what_is_not_its_result()
{
  const Fixture fixture("hello\n");
  const Fixture other;
  Collector collector;
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, nullptr, Collector::ready,
                                          &collector);
  GAsyncResult *const result = collector.wait();
  const auto not_stream =
      failed_check("gvc_data_input_stream_read_string_finish", "GVC_IS_DATA_INPUT_STREAM(stream)");
  const auto not_result =
      failed_check("gvc_data_input_stream_read_string_finish", "g_task_is_valid(result, stream)");
  LogCapture log;
  Error error;
  gsize length = untouched;
  g_assert_null(gvc_data_input_stream_read_string_finish(nullptr, result, &length, &error));
  log.expect({not_stream});
  g_assert_null(gvc_data_input_stream_read_string_finish(
      reinterpret_cast<GvcDataInputStream *>(fixture.base.get()), result, &length, &error));
  log.expect({not_stream});
  g_assert_null(
      gvc_data_input_stream_read_string_finish(other.stream.get(), result, &length, &error));
  log.expect({not_result});
  g_assert_null(gvc_data_input_stream_read_string_finish(
      fixture.stream.get(), reinterpret_cast<GAsyncResult *>(fixture.base.get()), &length, &error));
  log.expect({not_result});
  g_assert_null(gvc_data_input_stream_read_string_finish(nullptr, nullptr, &length, &error));
  log.expect({not_stream});
  error.assert_none();
  g_assert_cmpuint(length, ==, untouched);

  const Mem<gchar> string(
      gvc_data_input_stream_read_string_finish(fixture.stream.get(), result, &length, &error));
  error.assert_none();
  assert_bytes({string.get(), length}, "hello\n");
}

/* Any input stream will do for it. */
static void
async_starter_does_not_check_the_stream()
{
  LogCapture log;
  const auto plain = new_scripted_input(new_script("hello\n"));
  Collector collector;
  gvc_data_input_stream_read_string_async(reinterpret_cast<GvcDataInputStream *>(plain.get()), '\n',
                                          0, nullptr, Collector::ready, &collector);
  Error error;
  const Mem<gchar> string(
      static_cast<gchar *>(g_task_propagate_pointer(G_TASK(collector.wait()), &error)));
  error.assert_none();
  assert_bytes({string.get(), 6}, "hello\n");
}

/* A long string that is all there does not keep others from their turn. */
static void
long_string_leaves_others_their_turn()
{
  const std::string text = std::string(10000, 'a') + '\n';
  const Fixture fixture(text, StreamKind::pollable);
  Collector collector;
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, nullptr, Collector::ready,
                                          &collector);
  gsize moved = 0, turns = 0;
  for (; collector.calls() == 0; turns++) {
    g_assert_cmpuint(fixture.script->moved() - moved, <=, 500);
    moved = fixture.script->moved();
    g_assert_true(g_main_context_iteration(nullptr, FALSE));
  }
  /* But not each byte is a turn. */
  g_assert_cmpuint(turns, <, text.size() / 10);
  const Mem<gchar> string(gvc_data_input_stream_read_string_finish(
      fixture.stream.get(), collector.wait(), nullptr, nullptr));
  assert_bytes({string.get(), text.size()}, text);
}

/* Also where the stream is polled: sources below G_PRIORITY_DEFAULT keep the first byte of a read
 * of low priority waiting, and none of the others. */
static void
bytes_behind_the_first_have_the_default_priority()
{
  const std::string text = std::string(1000, 'a') + '\n';
  const Fixture fixture(text, StreamKind::pollable);
  Collector collector;
  const auto run_idle = [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
  guint idle = g_idle_add(run_idle, nullptr);
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', G_PRIORITY_LOW, nullptr,
                                          Collector::ready, &collector);
  for (int turn = 0; turn < 5; turn++) {
    g_main_context_iteration(nullptr, FALSE);
    g_assert_cmpuint(fixture.script->moved(), ==, 1);
  }
  g_source_remove(idle);
  g_assert_true(g_main_context_iteration(nullptr, FALSE));
  g_assert_cmpuint(fixture.script->moved(), >, 1);
  g_assert_cmpuint(fixture.script->moved(), <, text.size());

  idle = g_idle_add(run_idle, nullptr);
  for (gsize moved = fixture.script->moved(); moved < text.size();) {
    g_assert_true(g_main_context_iteration(nullptr, FALSE));
    g_assert_cmpuint(fixture.script->moved(), >, moved);
    moved = fixture.script->moved();
  }
  const Mem<gchar> string(gvc_data_input_stream_read_string_finish(
      fixture.stream.get(), collector.wait(), nullptr, nullptr));
  g_source_remove(idle);
  assert_bytes({string.get(), text.size()}, text);
}

/* ---- Lives and threads ---- */

static void
nothing_stays_alive_after_any_outcome()
{
  for (const auto kind : all_stream_kinds) {
    for (const guint failing : {0, 1, 4}) { /* 0: none fails */
      for (const bool collect : {false, true}) {
        LifeWatch watch;
        {
          const Fixture fixture("hello\n", kind);
          if (failing != 0)
            fixture.script->at_call[failing] = Step::fail();
          watch.add(fixture.stream.get());
          watch.add(fixture.base.get());
          Collector collector;
          gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, nullptr,
                                                  Collector::ready, &collector);
          watch.add(collector.wait());
          if (collect) {
            const Mem<gchar> string(gvc_data_input_stream_read_string_finish(
                fixture.stream.get(), collector.result(), nullptr, nullptr));
            g_assert_true((string != nullptr) == (failing == 0));
          }
        }
        watch.assert_all_gone();
      }
    }
  }
}

static void
callback_may_be_left_out()
{
  const Fixture fixture("hello\n");
  gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, nullptr, nullptr, nullptr);
  spin_until([&] { return fixture.script->moved() == 6; });
  assert_refcount_becomes(fixture.stream.get(), 1);
}

static void
completes_in_the_context_of_its_thread()
{
  run_in_thread([] {
    for (const auto kind : all_stream_kinds) {
      for (const bool fails : {false, true}) {
        const Fixture fixture("hello\n", kind);
        if (fails)
          fixture.script->at_call[2] = Step::fail();
        Collector collector;
        gvc_data_input_stream_read_string_async(fixture.stream.get(), '\n', 0, nullptr,
                                                Collector::ready, &collector);
        while (g_main_context_iteration(nullptr, FALSE))
          ;
        g_assert_cmpuint(collector.calls(), ==, 0);
        const Mem<gchar> string(gvc_data_input_stream_read_string_finish(
            fixture.stream.get(), collector.wait(), nullptr, nullptr));
        g_assert_true((string == nullptr) == fails);
        g_assert_true(collector.thread() == g_thread_self());
      }
    }
  });
}

/* ---- Sockets ---- */

static void
strings_arrive_over_sockets()
{
  for (const auto family : {Family::tcp4, Family::tcp6, Family::unix_domain}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    for (const auto way : both_ways) {
      LogCapture log;
      RawPeer peer(family);
      const auto channel = own(gvc_connection_new(peer.connection()));
      const auto stream =
          own(gvc_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(channel.get()))));
      peer.send("first\nsecond\nthi");
      assert_string(way, stream.get(), '\n', "first\n");
      assert_string(way, stream.get(), '\n', "second\n");
      Background sender([&] { peer.send("rd\n"); });
      assert_string(way, stream.get(), '\n', "third\n");
    }
  }
}

/* The end of the connection is no terminator either: the reader goes on until it is cancelled. */
static void
socket_at_its_end_is_ended_by_cancellation()
{
  for (const auto way : both_ways) {
    RawPeer peer(Family::tcp4);
    const auto stream = own(
        gvc_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(peer.connection()))));
    peer.send("unfinished");
    peer.close();
    const auto cancellable = own(g_cancellable_new());
    Background canceller([&] {
      g_usleep(20000);
      g_cancellable_cancel(cancellable.get());
    });
    Error error;
    g_assert_null(read_string(way, stream.get(), '\n', nullptr, error, cancellable.get()).get());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  }
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
#define TEST(path, function) g_test_add_func("/data-input-stream/" path, function)
  TEST("type/is-a-plain-filter-stream", type_is_a_plain_filter_stream);
  TEST("type/overrides-no-operation", type_overrides_no_operation);
  TEST("new/holds-and-closes-its-base", new_stream_holds_and_closes_its_base);
  TEST("new/refuses-what-is-no-input-stream", new_refuses_what_is_no_input_stream);
  TEST("string/includes-its-terminator", string_includes_its_terminator);
  TEST("string/terminator-alone-is-one", terminator_alone_is_a_string);
  TEST("string/any-byte-can-be-the-terminator", any_byte_can_be_the_terminator);
  TEST("string/no-nul-is-added", no_nul_is_added);
  TEST("string/terminator-may-change", terminator_may_change_from_string_to_string);
  TEST("string/of-any-length-is-whole", strings_of_any_length_are_whole);
  TEST("string/buffer-doubles-when-it-is-full", buffer_doubles_when_it_is_full);
  TEST("string/bytes-are-asked-for-one-by-one", bytes_are_asked_for_one_by_one);
  TEST("string/long-string-leaves-others-their-turn", long_string_leaves_others_their_turn);
  TEST("string/length-may-be-left-out", length_may_be_left_out);
  TEST("end-of-stream/does-not-end-a-string", end_of_stream_does_not_end_a_string);
  TEST("end-of-stream/nothing-read-matches-no-terminator", nothing_read_matches_no_terminator);
  TEST("end-of-stream/endless-one-is-ended-by-cancellation",
       endless_end_of_stream_is_ended_by_cancellation);
  TEST("failure/at-any-read-passes-through", failure_at_any_read_passes_through);
  TEST("failure/of-a-long-string-passes-through", failure_of_a_long_string_passes_through);
  TEST("failure/of-closed-streams", closed_streams_fail_as_closed);
  TEST("failure/errors-may-be-left-out", errors_may_be_left_out);
  TEST("priority/first-read-has-the-callers", first_read_has_the_callers_priority);
  TEST("priority/bytes-behind-the-first-have-the-default",
       bytes_behind_the_first_have_the_default_priority);
  TEST("cancelled/blocking-reads-have-the-callers-cancellable",
       blocking_reads_have_the_callers_cancellable);
  TEST("cancelled/before-it-starts-reads-nothing", cancelled_before_it_starts_reads_nothing);
  TEST("cancelled/during-any-read-ends-there", cancelled_during_any_read_ends_there);
  TEST("cancelled/blocking-read-from-another-thread",
       blocking_read_is_cancelled_from_another_thread);
  TEST("cancelled/between-the-last-read-and-finish", cancelled_between_the_last_read_and_finish);
  TEST("checks/blocking-reader-refuses-other-streams", blocking_reader_refuses_other_streams);
  TEST("checks/finish-refuses-what-is-not-its-result", finish_refuses_what_is_not_its_result);
  TEST("checks/async-starter-does-not-check-the-stream", async_starter_does_not_check_the_stream);
  TEST("checks/callback-may-be-left-out", callback_may_be_left_out);
  TEST("lives/nothing-stays-after-any-outcome", nothing_stays_alive_after_any_outcome);
  TEST("completes-in-the-context-of-its-thread", completes_in_the_context_of_its_thread);
  TEST("socket/strings-arrive", strings_arrive_over_sockets);
  TEST("socket/at-its-end-is-ended-by-cancellation", socket_at_its_end_is_ended_by_cancellation);
  return g_test_run();
}
