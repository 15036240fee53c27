// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/types/streamcontract.h"

#include <algorithm>

using namespace support;

namespace contract
{

namespace
{

Ref<GObject>
new_base(bool reads, std::shared_ptr<Script> script, StreamKind kind)
{
  if (reads)
    return own(G_OBJECT(new_scripted_input(std::move(script), kind).release()));
  return own(G_OBJECT(new_scripted_output(std::move(script), kind).release()));
}

bool
close(bool reads, gpointer stream)
{
  return reads ? g_input_stream_close(G_INPUT_STREAM(stream), nullptr, nullptr)
               : g_output_stream_close(G_OUTPUT_STREAM(stream), nullptr, nullptr);
}

bool
is_closed(bool reads, gpointer stream)
{
  return reads ? g_input_stream_is_closed(G_INPUT_STREAM(stream))
               : g_output_stream_is_closed(G_OUTPUT_STREAM(stream));
}

bool
has_pending(bool reads, gpointer stream)
{
  return reads ? g_input_stream_has_pending(G_INPUT_STREAM(stream))
               : g_output_stream_has_pending(G_OUTPUT_STREAM(stream));
}

// A stream of the type over a scripted base, which has all that an operation reads.
struct Fixture {
  const Type &type;
  const Operation &operation;
  std::shared_ptr<Script> script;
  Ref<GObject> base;
  Ref<GObject> stream;
  BytesRef payload;

  void
  start(Collector &collector, GCancellable *cancellable = nullptr,
        int priority = G_PRIORITY_DEFAULT) const
  {
    operation.start(stream.get(), payload.get(), priority, cancellable, Collector::ready,
                    &collector);
    g_assert_cmpuint(collector.calls(), ==, 0);
  }

  bool
  finish(Collector &collector, GError **error) const
  {
    GAsyncResult *const result = collector.wait();
    g_assert_true(collector.source() == stream.get());
    return operation.finish(stream.get(), result, error);
  }

  bool
  perform(Way way, Error &error, GCancellable *cancellable = nullptr) const
  {
    if (way == Way::blocking)
      return operation.run(stream.get(), payload.get(), cancellable, &error);
    Collector collector;
    start(collector, cancellable);
    return finish(collector, &error);
  }

  void
  assert_moved(gsize count) const
  {
    g_assert_cmpuint(script->moved(), ==, count);
    if (!type.reads)
      assert_bytes(script->written(), operation.bytes.substr(0, count));
  }

  // Also of what the finish function has reported.
  void
  assert_counted(gsize count) const
  {
    assert_moved(count);
    if (operation.count != nullptr)
      g_assert_cmpuint(*operation.count, ==, count);
  }

  // Nothing of a finished operation holds the stream. A stream that is its own base has two owners
  // here.
  void
  assert_released() const
  {
    assert_refcount_becomes(stream.get(), type.create != nullptr ? 1 : 2);
  }
};

Fixture
new_fixture(const Type &type, const Operation &operation, StreamKind kind = StreamKind::sync_only,
            gsize max_per_call = G_MAXSIZE)
{
  const auto script = new_script(type.reads ? operation.bytes : "", max_per_call);
  auto base = new_base(type.reads, script, kind);
  auto stream =
      own(G_OBJECT(type.create != nullptr ? type.create(base.get()) : g_object_ref(base.get())));
  return {
      type, operation, script, std::move(base), std::move(stream), new_bytes(operation.payload)};
}

// A stream of a derived class that shows what is asked of the stream itself.
Fixture
new_inner_fixture(const Type &type, const Operation &operation, gsize max_per_call = G_MAXSIZE)
{
  if (type.get_type == nullptr)
    return new_fixture(type, operation, StreamKind::with_async, max_per_call);
  const auto script = new_script(type.reads ? operation.bytes : "", max_per_call);
  auto base = new_base(type.reads, new_script(), StreamKind::with_async);
  const GType id = type.get_type();
  gpointer stream;
  if (type.reads)
    stream = new_scripted_filter_input(id, G_INPUT_STREAM(base.get()), script).release();
  else
    stream = new_scripted_filter_output(id, G_OUTPUT_STREAM(base.get()), script).release();
  return {type,
          operation,
          script,
          std::move(base),
          own(G_OBJECT(stream)),
          new_bytes(operation.payload)};
}

const Type &
type_of(gconstpointer type)
{
  return *static_cast<const Type *>(type);
}

std::vector<Way>
ways_of(const Operation &operation)
{
  if (operation.run == nullptr)
    return {Way::async};
  return {Way::blocking, Way::async};
}

Ref<GCancellable>
new_cancelled()
{
  auto cancellable = own(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  return cancellable;
}

} // namespace

// ---- Filter streams ----

void
is_a_plain_filter_stream(gconstpointer data)
{
  const Type &type = type_of(data);
  const GType id = type.get_type();
  g_assert_cmpstr(g_type_name(id), ==, type.name);
  g_assert_cmpuint(g_type_parent(id), ==,
                   type.reads ? G_TYPE_FILTER_INPUT_STREAM : G_TYPE_FILTER_OUTPUT_STREAM);
  g_assert_false(G_TYPE_IS_ABSTRACT(id));
  g_assert_true(G_TYPE_IS_DERIVABLE(id));
  g_assert_true(own_properties(id).empty());
  g_assert_true(own_signals(id).empty());

  GTypeQuery query;
  g_type_query(id, &query);
  const gsize instance_size = type.reads ? sizeof(GFilterInputStream) : sizeof(GFilterOutputStream);
  const gsize class_size =
      type.reads ? sizeof(GFilterInputStreamClass) : sizeof(GFilterOutputStreamClass);
  g_assert_cmpuint(query.instance_size, ==, instance_size);
  g_assert_cmpuint(query.class_size, ==, class_size);
  g_assert_cmpuint(type.instance_size, ==, instance_size);
  g_assert_cmpuint(type.class_size, ==, class_size);
}

void
overrides_no_operation(gconstpointer data)
{
  assert_overrides_nothing(type_of(data).get_type());
}

void
holds_and_closes_its_base(gconstpointer data)
{
  const Type &type = type_of(data);
  LogCapture log;
  LifeWatch watch;
  {
    auto fixture = new_fixture(type, type.operations[0]);
    watch.add(fixture.stream.get());
    watch.add(fixture.base.get());
    assert_refcount(fixture.stream.get(), 1);
    assert_refcount(fixture.base.get(), 2);
    GObject *base = nullptr;
    gboolean closes = FALSE;
    g_object_get(fixture.stream.get(), "base-stream", &base, "close-base-stream", &closes, nullptr);
    g_assert_true(own(base) == fixture.base);
    g_assert_true(closes);
    g_assert_false(fixture.script->closed());
    fixture.stream.reset();
    g_assert_true(fixture.script->closed());
    assert_refcount(fixture.base.get(), 1);
  }
  watch.assert_all_gone();

  const auto fixture = new_fixture(type, type.operations[0]);
  g_assert_true(close(type.reads, fixture.stream.get()));
  g_assert_true(is_closed(type.reads, fixture.base.get()));
}

void
new_refuses_other_objects(gconstpointer data)
{
  const Type &type = type_of(data);
  LogCapture log;
  const auto message = failed_check(type.create_name.c_str(), type.create_check.c_str());
  g_assert_null(type.create(nullptr));
  log.expect({message});
  const auto other = new_base(!type.reads, new_script(), StreamKind::with_async);
  g_assert_null(type.create(other.get()));
  log.expect({message});
  assert_refcount(other.get(), 1);
}

// ---- Failures ----

void
failure_at_any_transfer_passes_through(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    for (const auto way : ways_of(operation)) {
      for (const auto kind : all_stream_kinds) {
        for (guint failing = 1; failing <= operation.bytes.size(); failing++) {
          LogCapture log;
          const auto fixture = new_fixture(type, operation, kind, 1);
          const auto text = "number " + std::to_string(failing);
          fixture.script->at_call[failing] = Step::fail(G_IO_ERROR_NOT_CONNECTED, text);
          Error error;
          g_assert_false(fixture.perform(way, error));
          error.assert_is(G_IO_ERROR, G_IO_ERROR_NOT_CONNECTED, text.c_str());
          fixture.assert_counted(failing - 1);
          g_assert_cmpuint(fixture.script->transfers().size(), ==, failing);
          fixture.assert_released();
        }
      }
    }
  }
}

void
closed_streams_fail_as_closed(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    for (const auto way : ways_of(operation)) {
      for (const bool close_base : {true, false}) {
        const auto fixture = new_fixture(type, operation);
        g_assert_true(close(type.reads, (close_base ? fixture.base : fixture.stream).get()));
        Error error;
        g_assert_false(fixture.perform(way, error));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
        fixture.assert_counted(0);
      }
    }
  }
}

void
errors_may_be_left_out(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    LogCapture log;
    const auto fixture = new_fixture(type, operation);
    fixture.script->from_call = {1, Step::fail()};
    if (operation.run != nullptr)
      g_assert_false(operation.run(fixture.stream.get(), fixture.payload.get(), nullptr, nullptr));
    Collector collector;
    fixture.start(collector);
    g_assert_false(fixture.finish(collector, nullptr));
  }
}

// ---- Priority and cancellation ----

void
requests_have_the_callers_priority(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    for (const int priority : {G_PRIORITY_HIGH, G_PRIORITY_DEFAULT, G_PRIORITY_LOW, 77}) {
      const auto fixture = new_inner_fixture(type, operation, 2);
      const auto cancellable = own(g_cancellable_new());
      Collector collector;
      fixture.start(collector, cancellable.get(), priority);
      g_assert_true(fixture.finish(collector, nullptr));

      std::vector<gsize> sizes;
      std::vector<int> priorities;
      gsize moved = 0;
      for (gsize size : operation.sizes) {
        for (; size > 0; size -= std::min<gsize>(size, 2)) {
          sizes.push_back(size);
          priorities.push_back(moved < operation.urgent ? priority : G_PRIORITY_DEFAULT);
          moved += std::min<gsize>(size, 2);
        }
      }
      g_assert_true(fixture.script->sizes() == sizes);
      const auto calls = fixture.script->calls(Call::Kind::async);
      g_assert_cmpuint(calls.size(), ==, sizes.size());
      for (gsize i = 0; i < calls.size(); i++) {
        g_assert_cmpint(calls[i].priority, ==, priorities[i]);
        g_assert_true(calls[i].cancellable == cancellable.get());
      }
      g_assert_cmpint(g_task_get_priority(G_TASK(collector.result())), ==,
                      operation.task_is_urgent ? priority : G_PRIORITY_DEFAULT);
      collector.clear();
      assert_refcount_becomes(cancellable.get(), 1);
    }
  }
}

void
blocking_requests_have_the_callers_cancellable(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    const auto fixture = new_inner_fixture(type, operation);
    const auto cancellable = own(g_cancellable_new());
    Error error;
    if (operation.run == nullptr)
      continue;
    g_assert_true(fixture.perform(Way::blocking, error, cancellable.get()));
    const auto calls = fixture.script->calls(Call::Kind::sync);
    g_assert_cmpuint(calls.size(), ==, operation.sizes.size());
    for (const auto &call : calls)
      g_assert_true(call.cancellable == cancellable.get());
    assert_refcount(cancellable.get(), 1);
  }
}

void
stream_is_busy_until_the_callback(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    for (const auto kind : all_stream_kinds) {
      for (const bool may_cancel : {false, true}) {
        const auto fixture = new_fixture(type, operation, kind);
        const auto cancellable = own(may_cancel ? g_cancellable_new() : nullptr);
        Collector first, second;
        fixture.start(first, cancellable.get());
        g_assert_true(has_pending(type.reads, fixture.stream.get()));
        fixture.start(second, cancellable.get());
        Error error;
        g_assert_false(fixture.finish(second, &error));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
        if (operation.count != nullptr)
          g_assert_cmpuint(*operation.count, ==, 0);
        g_assert_true(fixture.finish(first, &error));
        g_assert_false(has_pending(type.reads, fixture.stream.get()));
        fixture.assert_counted(operation.bytes.size());
      }
    }
  }
}

void
cancelled_before_it_starts(gconstpointer data)
{
  const Type &type = type_of(data);
  const auto cancellable = new_cancelled();
  for (const auto &operation : type.operations) {
    for (const auto way : ways_of(operation)) {
      for (const auto kind : all_stream_kinds) {
        const auto fixture = new_fixture(type, operation, kind);
        Error error;
        g_assert_false(fixture.perform(way, error, cancellable.get()));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
        fixture.assert_counted(0);
      }
    }
  }
  assert_refcount_becomes(cancellable.get(), 1);
}

void
cancelled_during_any_transfer(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    for (const auto kind : all_stream_kinds) {
      for (guint held = 1; held <= operation.bytes.size(); held++) {
        const auto cancellable = own(g_cancellable_new());
        const auto fixture = new_fixture(type, operation, kind, 1);
        fixture.script->at_call[held] = Step::hold();
        Collector collector;
        fixture.start(collector, cancellable.get());
        spin_until([&] { return fixture.script->holding(); });
        g_assert_cmpuint(collector.calls(), ==, 0);
        g_cancellable_cancel(cancellable.get());
        Error error;
        g_assert_false(fixture.finish(collector, &error));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
        fixture.assert_counted(held - 1);
        collector.clear();
        fixture.assert_released();
        assert_refcount_becomes(cancellable.get(), 1);
      }
    }
  }
}

void
cancelled_from_another_thread(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    for (guint held = 1; held <= operation.bytes.size(); held++) {
      const auto fixture = new_fixture(type, operation, StreamKind::sync_only, 1);
      fixture.script->at_call[held] = Step::hold();
      const auto cancellable = own(g_cancellable_new());
      Background canceller([&] {
        while (!fixture.script->holding())
          g_usleep(1000);
        g_cancellable_cancel(cancellable.get());
      });
      Error error;
      g_assert_false(fixture.perform(Way::blocking, error, cancellable.get()));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      g_assert_cmpuint(fixture.script->transfers().size(), ==, held);
      fixture.assert_moved(held - 1);
    }
  }
}

// The base stream would have moved everything within the call.
void
cancelled_after_the_call(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    const auto fixture = new_fixture(type, operation, StreamKind::pollable);
    const auto cancellable = own(g_cancellable_new());
    Collector collector;
    fixture.start(collector, cancellable.get());
    g_cancellable_cancel(cancellable.get());
    Error error;
    g_assert_false(fixture.finish(collector, &error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
    fixture.assert_moved(operation.urgent);
  }
}

// The finish function looks at the cancellable once more.
void
cancelled_between_the_last_transfer_and_finish(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    const auto fixture = new_fixture(type, operation);
    const auto cancellable = own(g_cancellable_new());
    Collector collector;
    fixture.start(collector, cancellable.get());
    collector.wait();
    g_cancellable_cancel(cancellable.get());
    Error error;
    g_assert_false(fixture.finish(collector, &error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
    fixture.assert_counted(operation.bytes.size());
  }
}

// ---- Preconditions ----

void
blocking_calls_refuse_other_streams(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    const auto fixture = new_fixture(type, operation);
    const auto message = failed_check(operation.name.c_str(), type.blocking_check.c_str());
    LogCapture log;
    Error error;
    for (const gpointer wrong : {gpointer(nullptr), gpointer(fixture.base.get())}) {
      g_assert_false(operation.run(wrong, fixture.payload.get(), nullptr, &error));
      log.expect({message});
      error.assert_none();
    }
    g_assert_true(fixture.script->calls().empty());
  }
}

void
finish_refuses_other_results(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    const auto fixture = new_fixture(type, operation);
    const auto other = new_fixture(type, operation);
    Collector collector;
    fixture.start(collector);
    GAsyncResult *const result = collector.wait();
    const auto not_a_result = reinterpret_cast<GAsyncResult *>(fixture.base.get());
    const auto name = operation.name + "_finish";
    const auto wrong_stream = failed_check(name.c_str(), type.check.c_str());
    const auto wrong_result = failed_check(name.c_str(), "g_task_is_valid(result, stream)");
    // An object of another type: the base of a filter stream, or else the result.
    const gpointer other_type =
        type.create != nullptr ? gpointer(fixture.base.get()) : gpointer(result);
    LogCapture log;
    Error error;
    g_assert_false(operation.finish(nullptr, result, &error));
    log.expect({wrong_stream});
    g_assert_false(operation.finish(other_type, result, &error));
    log.expect({wrong_stream});
    g_assert_false(operation.finish(other.stream.get(), result, &error));
    log.expect({wrong_result});
    g_assert_false(operation.finish(fixture.stream.get(), not_a_result, &error));
    log.expect({wrong_result});
    g_assert_false(operation.finish(nullptr, nullptr, &error));
    log.expect({wrong_stream});
    error.assert_none();
    if (operation.count != nullptr)
      g_assert_cmpuint(*operation.count, ==, untouched);

    // The result is still there for its owner.
    g_assert_true(fixture.finish(collector, &error));
    error.assert_none();
    fixture.assert_counted(operation.bytes.size());
  }
}

// Any input or output stream will do.
void
start_does_not_check_the_stream(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    if (operation.propagate == nullptr)
      continue;
    LogCapture log;
    const auto fixture = new_fixture(type, operation, StreamKind::with_async, 3);
    Collector collector;
    operation.start(fixture.base.get(), fixture.payload.get(), 0, nullptr, Collector::ready,
                    &collector);
    Error error;
    g_assert_true(operation.propagate(G_TASK(collector.wait()), &error));
    error.assert_none();
    fixture.assert_moved(operation.bytes.size());
  }
}

void
refused_start_never_calls_back(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    const auto fixture = new_fixture(type, operation);
    const auto other = new_base(!type.reads, new_script(), StreamKind::with_async);
    GBytes *const payload = fixture.payload.get();
    const auto name = operation.name + "_async";
    const auto no_stream = failed_check(name.c_str(), type.check.c_str());
    const auto no_buffer = failed_check(name.c_str(), "buffer != NULL || count == 0");
    Collector collector;
    LogCapture log;
    operation.start(nullptr, payload, 0, nullptr, Collector::ready, &collector);
    log.expect({no_stream});
    operation.start(other.get(), payload, 0, nullptr, Collector::ready, &collector);
    log.expect({no_stream});
    operation.start(fixture.stream.get(), nullptr, 0, nullptr, Collector::ready, &collector);
    log.expect({no_buffer});
    operation.start(nullptr, nullptr, 0, nullptr, Collector::ready, &collector);
    log.expect({no_stream});

    spin_pending();
    g_assert_cmpuint(collector.calls(), ==, 0);
    g_assert_true(fixture.script->calls().empty());
    fixture.assert_released();
    assert_refcount(other.get(), 1);
  }
}

void
callback_may_be_left_out(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    const auto fixture = new_fixture(type, operation, StreamKind::sync_only, 3);
    operation.start(fixture.stream.get(), fixture.payload.get(), 0, nullptr, nullptr, nullptr);
    spin_until([&] { return fixture.script->moved() == operation.bytes.size(); });
    fixture.assert_released();
  }
}

// ---- Lives and threads ----

namespace
{

// Calls `code` for each way in which an operation can end.
void
for_each_outcome(const Type &type,
                 const std::function<void(Fixture &, bool succeeds, LifeWatch &)> &code)
{
  for (const auto &operation : type.operations) {
    for (const auto kind : all_stream_kinds) {
      for (guint failing = 0; failing <= operation.bytes.size() + 1; failing++) {
        const bool zero = failing > operation.bytes.size();
        if (zero && !operation.after_zero)
          continue;
        LogCapture log;
        LifeWatch watch;
        {
          auto fixture = new_fixture(type, operation, kind, 1);
          if (zero)
            fixture.script->at_call[2] = Step::zero();
          else if (failing != 0)
            fixture.script->at_call[failing] = Step::fail();
          code(fixture, zero ? *operation.after_zero : failing == 0, watch);
        }
        watch.assert_all_gone();
        log.take(); // a write of nothing logs a warning
      }
    }
  }
}

} // namespace

void
nothing_stays_alive_after_any_outcome(gconstpointer data)
{
  for (const bool collect : {false, true}) {
    for_each_outcome(type_of(data), [=](Fixture &fixture, bool succeeds, LifeWatch &watch) {
      const auto cancellable = own(g_cancellable_new());
      watch.add(cancellable.get());
      watch.add(fixture.stream.get());
      watch.add(fixture.base.get());
      fixture.payload = watch.add_bytes(fixture.operation.payload);
      Collector collector;
      fixture.start(collector, cancellable.get());
      watch.add(collector.wait());
      Error error;
      if (collect)
        g_assert_true(fixture.finish(collector, &error) == succeeds);
    });
  }
}

void
uncollected_error_is_released(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    LifeWatch watch;
    const auto fixture = new_fixture(type, operation);
    fixture.script->steps = {Step::fail()};
    Collector collector;
    fixture.start(collector);
    watch.add(collector.wait());
    collector.clear();
    watch.assert_all_gone();
    fixture.assert_released();
  }
}

// The operation keeps its stream alive.
void
stream_may_be_dropped_meanwhile(gconstpointer data)
{
  const Type &type = type_of(data);
  for (const auto &operation : type.operations) {
    LifeWatch watch;
    auto fixture = new_fixture(type, operation, StreamKind::with_async, 2);
    watch.add(fixture.stream.get());
    Collector collector;
    fixture.start(collector);
    const gpointer borrowed = fixture.stream.get();
    fixture.stream.reset();
    fixture.base.reset();
    Error error;
    g_assert_true(operation.finish(borrowed, collector.wait(), &error));
    error.assert_none();
    fixture.assert_counted(operation.bytes.size());
    collector.clear();
    watch.assert_all_gone();
  }
}

void
completes_in_the_context_of_its_thread(gconstpointer data)
{
  run_in_thread([data] {
    for_each_outcome(type_of(data), [](Fixture &fixture, bool succeeds, LifeWatch &) {
      Collector collector;
      fixture.start(collector);
      // Another context does not run it.
      while (g_main_context_iteration(nullptr, FALSE))
        ;
      g_assert_cmpuint(collector.calls(), ==, 0);
      Error error;
      g_assert_true(fixture.finish(collector, &error) == succeeds);
      g_assert_true(collector.thread() == g_thread_self());
    });
  });
}

namespace
{

void
assert_aborts(const Type &type, std::deque<Step> steps, const char *numbers)
{
  if (!g_test_subprocess()) {
    assert_dies(nullptr, (type.claim_message + std::string(numbers)).c_str());
    return;
  }
  const auto fixture = new_fixture(type, type.operations[0], StreamKind::with_async);
  fixture.script->steps = std::move(steps);
  Error error;
  fixture.perform(Way::async, error);
}

} // namespace

void
claim_of_too_much_aborts(gconstpointer data)
{
  assert_aborts(type_of(data), {Step::report(11)}, "(11 <= 10)");
}

void
claim_of_too_much_later_aborts(gconstpointer data)
{
  assert_aborts(type_of(data), {Step::move(4), Step::report(7)}, "(7 <= 6)");
}

} // namespace contract
