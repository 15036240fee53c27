/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/scripted.h"

#include "tests/support/mainloop.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>

namespace support
{

/* ---- Scripts ---- */

Step
Step::move(gssize count)
{
  return {What::move, count, G_IO_ERROR_FAILED, {}};
}

Step
Step::zero()
{
  return {What::zero, 0, G_IO_ERROR_FAILED, {}};
}

Step
Step::fail(GIOErrorEnum code, std::string message)
{
  return {What::fail, 0, code, std::move(message)};
}

Step
Step::report(gssize count)
{
  return {What::report, count, G_IO_ERROR_FAILED, {}};
}

Step
Step::hold()
{
  return {What::hold, G_MAXSSIZE, G_IO_ERROR_FAILED, {}};
}

Step
Step::would_block()
{
  return {What::would_block, G_MAXSSIZE, G_IO_ERROR_FAILED, {}};
}

/* A call that waits: a blocking one on the condition, an asynchronous one as its task. */
struct Script::Held {
  std::condition_variable changed;
  bool go = false;
  Ref<GTask> task;
  GSource *cancel_source = nullptr;
  std::function<void(GTask *)> complete;
};

std::vector<Call>
Script::calls() const
{
  const std::lock_guard lock(mutex);
  return record;
}

std::vector<Call>
Script::calls(Call::Kind kind) const
{
  auto result = calls();
  std::erase_if(result, [kind](const Call &call) { return call.kind != kind; });
  return result;
}

std::vector<Call>
Script::transfers() const
{
  auto result = calls();
  std::erase_if(result, [](const Call &call) {
    return call.kind != Call::Kind::sync && call.kind != Call::Kind::async &&
           call.kind != Call::Kind::nonblocking;
  });
  return result;
}

std::vector<gsize>
Script::sizes() const
{
  std::vector<gsize> result;
  for (const auto &call : transfers())
    result.push_back(call.size);
  return result;
}

gsize
Script::moved() const
{
  const std::lock_guard lock(mutex);
  return position;
}

std::string
Script::written() const
{
  const std::lock_guard lock(mutex);
  return data;
}

bool
Script::closed() const
{
  return !calls(Call::Kind::close).empty();
}

bool
Script::holding() const
{
  const std::lock_guard lock(mutex);
  return held != nullptr || poll_held;
}

void
Script::resume()
{
  std::shared_ptr<Held> waiting;
  Ref<GCancellable> waker;
  {
    const std::lock_guard lock(mutex);
    waiting = std::exchange(held, nullptr);
    waker = std::move(wake);
    poll_held = false;
    if (waiting != nullptr) {
      waiting->go = true;
      waiting->changed.notify_all();
    }
  }
  if (waker != nullptr)
    g_cancellable_cancel(waker.get());
  if (waiting != nullptr && waiting->task != nullptr) {
    g_source_destroy(waiting->cancel_source);
    g_source_unref(waiting->cancel_source);
    waiting->complete(waiting->task.get());
  }
}

std::shared_ptr<Script>
new_script(std::string data, gsize max_per_call)
{
  auto script = std::make_shared<Script>();
  script->data = std::move(data);
  script->max_per_call = max_per_call;
  return script;
}

/* ---- Streams ---- */

namespace
{

GQuark
script_quark()
{
  return g_quark_from_static_string("test-script");
}

Script &
script_of(gpointer stream)
{
  const auto shared =
      static_cast<std::shared_ptr<Script> *>(g_object_get_qdata(G_OBJECT(stream), script_quark()));
  g_assert_nonnull(shared);
  return **shared;
}

void
set_script(gpointer stream, std::shared_ptr<Script> script)
{
  g_object_set_qdata_full(
      G_OBJECT(stream), script_quark(), new std::shared_ptr<Script>(std::move(script)),
      [](gpointer shared) { delete static_cast<std::shared_ptr<Script> *>(shared); });
}

/* One read or write: `into` of a read or `from` of a write, the other is NULL. */
struct Transfer {
  char *into;
  const char *from;
  gsize size;
};

/* Moves at most `limit` bytes and returns how many. */
gsize
move_bytes(Script &script, const Transfer &transfer, gsize limit)
{
  const std::lock_guard lock(script.mutex);
  gsize count = std::min(transfer.size, limit);
  if (transfer.into != nullptr) {
    count = std::min(count, script.data.size() - script.position);
    if (count != 0)
      memcpy(transfer.into, script.data.data() + script.position, count);
  } else {
    if (const gsize room = script.keep - std::min<gsize>(script.keep, script.data.size()))
      script.data.append(transfer.from, std::min(count, room));
  }
  script.position += count;
  return count;
}

guint
next_sequence()
{
  static gint last;
  return static_cast<guint>(g_atomic_int_add(&last, 1)) + 1;
}

/* Records the call and finds what it shall do. */
Step
begin_call(Script &script, Call::Kind kind, gsize size, int priority, GCancellable *cancellable)
{
  Step step;
  guint number;
  {
    const std::lock_guard lock(script.mutex);
    script.record.push_back({kind, size, priority, cancellable, g_thread_self(), next_sequence()});
    number = ++script.transfer_count;
    if (const auto own_step = script.at_call.find(number); own_step != script.at_call.end()) {
      step = own_step->second;
    } else if (script.from_call && number >= script.from_call->first) {
      step = script.from_call->second;
    } else if (!script.steps.empty()) {
      step = script.steps.front();
      script.steps.pop_front();
    } else {
      step = Step::move(static_cast<gssize>(std::min<gsize>(script.max_per_call, G_MAXSSIZE)));
    }
  }
  if (script.on_call)
    script.on_call(number);
  return step;
}

/* Carries out a step that does not wait. -1 with the error set, or the count to report. */
gssize
carry_out(Script &script, const Step &step, const Transfer &transfer, GError **error)
{
  switch (step.what) {
  case Step::What::fail:
    g_set_error_literal(error, G_IO_ERROR, step.code, step.message.c_str());
    return -1;
  case Step::What::zero:
    return 0;
  case Step::What::report:
    move_bytes(script, transfer, G_MAXSIZE);
    return step.count;
  case Step::What::move:
  case Step::What::hold:
  case Step::What::would_block:
    break;
  }
  return static_cast<gssize>(move_bytes(script, transfer, static_cast<gsize>(step.count)));
}

/* Blocks at a hold step, until resume() or cancellation. */
void
hold_blocking(Script &script, GCancellable *cancellable)
{
  const auto held = std::make_shared<Script::Held>();
  {
    const std::lock_guard lock(script.mutex);
    g_assert_null(script.held.get());
    script.held = held;
  }
  const gint64 give_up = g_get_monotonic_time() + watchdog_usec();
  std::unique_lock lock(script.mutex);
  while (!held->go && !g_cancellable_is_cancelled(cancellable)) {
    /* Cancellation is looked for every now and then: connecting to the cancellable would have to
     * take the lock within its handlers. */
    held->changed.wait_for(lock, std::chrono::milliseconds(2));
    if (g_get_monotonic_time() > give_up)
      g_error("nobody ended a hold");
  }
  if (script.held == held)
    script.held.reset();
}

gssize
transfer_blocking(gpointer stream, const Transfer &transfer, GCancellable *cancellable,
                  GError **error)
{
  auto &script = script_of(stream);
  const auto step = begin_call(script, Call::Kind::sync, transfer.size, 0, cancellable);
  if (step.what == Step::What::hold)
    hold_blocking(script, cancellable);
  if (g_cancellable_set_error_if_cancelled(cancellable, error))
    return -1;
  return carry_out(script, step, transfer, error);
}

void
complete_task(GTask *task, const Step &step, const Transfer &transfer)
{
  if (g_task_return_error_if_cancelled(task))
    return;
  GError *error = nullptr;
  const gssize count = carry_out(script_of(g_task_get_source_object(task)), step, transfer, &error);
  if (count < 0)
    g_task_return_error(task, error);
  else
    g_task_return_int(task, count);
}

gboolean
held_task_cancelled(GCancellable *, gpointer stream)
{
  auto &script = script_of(stream);
  std::shared_ptr<Script::Held> held;
  {
    const std::lock_guard lock(script.mutex);
    held = std::exchange(script.held, nullptr);
  }
  if (held != nullptr) {
    g_source_unref(held->cancel_source);
    g_assert_true(g_task_return_error_if_cancelled(held->task.get()));
  }
  return G_SOURCE_REMOVE;
}

void
hold_task(Script &script, Ref<GTask> task, const Step &step, const Transfer &transfer)
{
  const auto held = std::make_shared<Script::Held>();
  held->complete = [step, transfer](GTask *held_task) { complete_task(held_task, step, transfer); };
  held->cancel_source = g_cancellable_source_new(g_task_get_cancellable(task.get()));
  g_source_set_callback(held->cancel_source, G_SOURCE_FUNC(held_task_cancelled),
                        g_object_ref(g_task_get_source_object(task.get())), g_object_unref);
  g_source_attach(held->cancel_source, g_task_get_context(task.get()));
  held->task = std::move(task);
  const std::lock_guard lock(script.mutex);
  g_assert_null(script.held.get());
  script.held = held;
}

void
transfer_async(gpointer stream, const Transfer &transfer, int priority, GCancellable *cancellable,
               GAsyncReadyCallback callback, gpointer user_data)
{
  auto &script = script_of(stream);
  auto task = own(g_task_new(stream, cancellable, callback, user_data));
  g_task_set_priority(task.get(), priority);
  const auto step = begin_call(script, Call::Kind::async, transfer.size, priority, cancellable);
  if (step.what == Step::What::hold)
    hold_task(script, std::move(task), step, transfer);
  else
    complete_task(task.get(), step, transfer);
}

template <typename Stream>
gssize
transfer_finish(Stream *, GAsyncResult *result, GError **error)
{
  return g_task_propagate_int(G_TASK(result), error);
}

gssize
would_block(GError **error)
{
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, "Scripted stream would block");
  return -1;
}

gssize
transfer_nonblocking(gpointer stream, const Transfer &transfer, GError **error)
{
  auto &script = script_of(stream);
  {
    const std::lock_guard lock(script.mutex);
    if (script.poll_held)
      return would_block(error);
  }
  const auto step = begin_call(script, Call::Kind::nonblocking, transfer.size, 0, nullptr);
  if (step.what == Step::What::would_block)
    return would_block(error);
  if (step.what == Step::What::hold) {
    const std::lock_guard lock(script.mutex);
    script.poll_held = true;
    script.wake.reset(g_cancellable_new());
    return would_block(error);
  }
  return carry_out(script, step, transfer, error);
}

GSource *
new_readiness_source(gpointer stream, GCancellable *cancellable)
{
  auto &script = script_of(stream);
  const std::lock_guard lock(script.mutex);
  GSource *const child =
      script.poll_held ? g_cancellable_source_new(script.wake.get()) : g_timeout_source_new(0);
  GSource *const source = g_pollable_source_new_full(stream, child, cancellable);
  g_source_unref(child);
  return source;
}

bool
is_ready(gpointer stream)
{
  auto &script = script_of(stream);
  const std::lock_guard lock(script.mutex);
  return !script.poll_held;
}

template <Call::Kind kind, typename Stream>
gboolean
end_call(Stream *stream, GCancellable *cancellable, GError **error)
{
  auto &script = script_of(stream);
  const std::lock_guard lock(script.mutex);
  script.record.push_back({kind, 0, 0, cancellable, g_thread_self(), next_sequence()});
  const auto &failure = kind == Call::Kind::close ? script.close_failure : script.flush_failure;
  if (failure.empty())
    return TRUE;
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, failure.c_str());
  return FALSE;
}

/* --- input --- */

gssize
input_read(GInputStream *stream, void *buffer, gsize size, GCancellable *cancellable,
           GError **error)
{
  return transfer_blocking(stream, {static_cast<char *>(buffer), nullptr, size}, cancellable,
                           error);
}

void
input_read_async(GInputStream *stream, void *buffer, gsize size, int priority,
                 GCancellable *cancellable, GAsyncReadyCallback callback, gpointer user_data)
{
  transfer_async(stream, {static_cast<char *>(buffer), nullptr, size}, priority, cancellable,
                 callback, user_data);
}

void
input_class_init(gpointer klass, gpointer kind)
{
  const auto input_class = G_INPUT_STREAM_CLASS(klass);
  const auto own = static_cast<StreamKind>(GPOINTER_TO_INT(kind));
  if (own != StreamKind::async_only)
    input_class->read_fn = input_read;
  if (own == StreamKind::with_async || own == StreamKind::async_only) {
    input_class->read_async = input_read_async;
    input_class->read_finish = transfer_finish;
  }
  if (g_type_parent(G_TYPE_FROM_CLASS(klass)) == G_TYPE_INPUT_STREAM)
    input_class->close_fn = end_call<Call::Kind::close>;
}

void
pollable_input_init(gpointer iface, gpointer)
{
  const auto pollable = static_cast<GPollableInputStreamInterface *>(iface);
  pollable->can_poll = [](GPollableInputStream *stream) -> gboolean {
    return script_of(stream).can_poll;
  };
  pollable->is_readable = [](GPollableInputStream *stream) -> gboolean { return is_ready(stream); };
  pollable->create_source = [](GPollableInputStream *stream, GCancellable *cancellable) {
    return new_readiness_source(stream, cancellable);
  };
  pollable->read_nonblocking = [](GPollableInputStream *stream, void *buffer, gsize size,
                                  GError **error) {
    return transfer_nonblocking(stream, {static_cast<char *>(buffer), nullptr, size}, error);
  };
}

/* --- output --- */

gssize
output_write(GOutputStream *stream, const void *buffer, gsize size, GCancellable *cancellable,
             GError **error)
{
  return transfer_blocking(stream, {nullptr, static_cast<const char *>(buffer), size}, cancellable,
                           error);
}

void
output_write_async(GOutputStream *stream, const void *buffer, gsize size, int priority,
                   GCancellable *cancellable, GAsyncReadyCallback callback, gpointer user_data)
{
  transfer_async(stream, {nullptr, static_cast<const char *>(buffer), size}, priority, cancellable,
                 callback, user_data);
}

void
output_class_init(gpointer klass, gpointer kind)
{
  const auto output_class = G_OUTPUT_STREAM_CLASS(klass);
  output_class->write_fn = output_write;
  if (GPOINTER_TO_INT(kind) == static_cast<int>(StreamKind::with_async)) {
    output_class->write_async = output_write_async;
    output_class->write_finish = transfer_finish;
  }
  if (g_type_parent(G_TYPE_FROM_CLASS(klass)) == G_TYPE_OUTPUT_STREAM) {
    output_class->flush = end_call<Call::Kind::flush>;
    output_class->close_fn = end_call<Call::Kind::close>;
  }
}

void
pollable_output_init(gpointer iface, gpointer)
{
  const auto pollable = static_cast<GPollableOutputStreamInterface *>(iface);
  pollable->can_poll = [](GPollableOutputStream *stream) -> gboolean {
    return script_of(stream).can_poll;
  };
  pollable->is_writable = [](GPollableOutputStream *stream) -> gboolean {
    return is_ready(stream);
  };
  pollable->create_source = [](GPollableOutputStream *stream, GCancellable *cancellable) {
    return new_readiness_source(stream, cancellable);
  };
  pollable->write_nonblocking = [](GPollableOutputStream *stream, const void *buffer, gsize size,
                                   GError **error) {
    return transfer_nonblocking(stream, {nullptr, static_cast<const char *>(buffer), size}, error);
  };
}

/* The class derived from `parent` for one kind, registered when first asked for. */
GType
scripted_type(GType parent, StreamKind kind)
{
  static std::mutex types_mutex;
  const std::lock_guard lock(types_mutex);
  const Mem<char> name(
      g_strdup_printf("TestScripted%d%s", static_cast<int>(kind), g_type_name(parent)));
  if (const GType known = g_type_from_name(name.get()); known != G_TYPE_INVALID)
    return known;

  const bool input = g_type_is_a(parent, G_TYPE_INPUT_STREAM);
  GTypeQuery query;
  g_type_query(parent, &query);
  GTypeInfo info = {};
  info.class_size = static_cast<guint16>(query.class_size);
  info.class_init = input ? input_class_init : output_class_init;
  info.class_data = GINT_TO_POINTER(static_cast<int>(kind));
  info.instance_size = static_cast<guint16>(query.instance_size);
  const GType type = g_type_register_static(parent, name.get(), &info, GTypeFlags(0));

  if (kind == StreamKind::pollable) {
    const GInterfaceInfo pollable = {input ? pollable_input_init : pollable_output_init, nullptr,
                                     nullptr};
    g_type_add_interface_static(
        type, input ? G_TYPE_POLLABLE_INPUT_STREAM : G_TYPE_POLLABLE_OUTPUT_STREAM, &pollable);
  }
  return type;
}

} // namespace

Ref<GInputStream>
new_scripted_input(std::shared_ptr<Script> script, StreamKind kind)
{
  Ref<GInputStream> stream(
      G_INPUT_STREAM(g_object_new(scripted_type(G_TYPE_INPUT_STREAM, kind), nullptr)));
  set_script(stream.get(), std::move(script));
  return stream;
}

Ref<GOutputStream>
new_scripted_output(std::shared_ptr<Script> script, StreamKind kind)
{
  Ref<GOutputStream> stream(
      G_OUTPUT_STREAM(g_object_new(scripted_type(G_TYPE_OUTPUT_STREAM, kind), nullptr)));
  set_script(stream.get(), std::move(script));
  return stream;
}

Ref<GInputStream>
new_scripted_filter_input(GType parent, GInputStream *base, std::shared_ptr<Script> script,
                          StreamKind kind)
{
  g_assert_true(g_type_is_a(parent, G_TYPE_FILTER_INPUT_STREAM));
  Ref<GInputStream> stream(
      G_INPUT_STREAM(g_object_new(scripted_type(parent, kind), "base-stream", base, nullptr)));
  set_script(stream.get(), std::move(script));
  return stream;
}

Ref<GOutputStream>
new_scripted_filter_output(GType parent, GOutputStream *base, std::shared_ptr<Script> script,
                           StreamKind kind)
{
  g_assert_true(g_type_is_a(parent, G_TYPE_FILTER_OUTPUT_STREAM));
  Ref<GOutputStream> stream(
      G_OUTPUT_STREAM(g_object_new(scripted_type(parent, kind), "base-stream", base, nullptr)));
  set_script(stream.get(), std::move(script));
  return stream;
}

} // namespace support
