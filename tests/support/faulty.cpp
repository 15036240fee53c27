// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/faulty.h"

#include <algorithm>
#include <cstring>

using namespace support;

namespace faulty
{

const char *
fault_name(Fault fault)
{
  switch (fault) {
  case Fault::fail:
    return "fail";
  case Fault::fail_once:
    return "fail-once";
  case Fault::stall:
    return "stall";
  case Fault::trickle:
    return "trickle";
  case Fault::cancel:
    return "cancel";
  case Fault::cancel_late:
    return "cancel-late";
  case Fault::end:
    return "end";
  case Fault::none:
    break;
  }
  return "none";
}

GQuark
fault_quark()
{
  return g_quark_from_static_string("test-fault-quark");
}

/* ---- The faults ---- */

void
Faults::arm(Fault fault, guint at, GCancellable *cancellable)
{
  const std::lock_guard lock(mutex_);
  fault_ = fault;
  at_ = at;
  cancellable_ = cancellable;
  steps_ = 0;
  reached_ = false;
  armed_ = true;
}

void
Faults::disarm()
{
  const std::lock_guard lock(mutex_);
  armed_ = false;
  ready_ = true;
  rounds_ = 0;
}

bool
Faults::reached() const
{
  const std::lock_guard lock(mutex_);
  return reached_;
}

guint
Faults::steps() const
{
  const std::lock_guard lock(mutex_);
  return steps_;
}

gsize
Faults::delivered() const
{
  const std::lock_guard lock(mutex_);
  return position_;
}

bool
Faults::went_on() const
{
  const std::lock_guard lock(mutex_);
  return steps_ > at_ + 1;
}

void
Faults::count_end()
{
  {
    const std::lock_guard lock(mutex_);
    if (++ends_ != patience)
      return;
  }
  cancel();
}

Faults::Act
Faults::step(Kind kind)
{
  const std::lock_guard lock(mutex_);
  if (!armed_)
    return Act::move;
  const guint number = steps_++;
  if (number < at_)
    return Act::move;
  if (number == at_ && fault_ == Fault::fail_once && kind == Kind::wait) {
    /* Waiting cannot fail: the next step does. */
    at_++;
    return Act::move;
  }
  reached_ = true;
  switch (fault_) {
  case Fault::fail:
    return Act::fail;
  case Fault::fail_once:
    return number == at_ ? Act::fail : Act::move;
  case Fault::trickle:
    return Act::one;
  case Fault::end:
    return kind == Kind::transfer ? Act::end : Act::move;
  case Fault::stall:
    return number == at_ ? Act::stall : Act::move;
  case Fault::cancel:
    return number == at_ ? Act::nothing : Act::move;
  case Fault::cancel_late:
    return number == at_ ? Act::move_and_cancel : Act::move;
  case Fault::none:
    break;
  }
  return Act::move;
}

void
Faults::cancel()
{
  g_cancellable_cancel(cancellable_);
}

/* A blocking call in a worker thread may wait for the main loop, which must not wait for it. In the
 * thread of the main loop there is nothing to wait for. */
void
Faults::wait_for_main_loop()
{
  if (g_thread_self() == home_)
    return;
  const auto turned = std::make_shared<bool>(false);
  using Wait = std::pair<Faults *, std::shared_ptr<bool>>;
  g_main_context_invoke_full(
      nullptr, G_PRIORITY_LOW,
      [](gpointer data) -> gboolean {
        const auto wait = static_cast<Wait *>(data);
        const std::lock_guard lock(wait->first->mutex_);
        *wait->second = true;
        wait->first->turned_.notify_all();
        return G_SOURCE_REMOVE;
      },
      new Wait(this, turned), [](gpointer data) { delete static_cast<Wait *>(data); });
  std::unique_lock lock(mutex_);
  turned_.wait(lock, [&] { return *turned; });
}

gsize
Faults::take(void *buffer, gsize size, gsize limit)
{
  const std::lock_guard lock(mutex_);
  const gsize count = std::min({size, limit, chunk, wire.size() - position_});
  if (buffer != nullptr && count != 0)
    memcpy(buffer, wire.data() + position_, count);
  position_ += count;
  return count;
}

gsize
Faults::give(const void *buffer, gsize size, gsize limit)
{
  const std::lock_guard lock(mutex_);
  const gsize count = std::min({size, limit, chunk});
  accepted.append(static_cast<const char *>(buffer), count);
  return count;
}

bool
Faults::is_ready() const
{
  const std::lock_guard lock(mutex_);
  return ready_ && !jammed;
}

bool
Faults::pass_readiness()
{
  const std::lock_guard lock(mutex_);
  const bool ready = ready_ && !jammed;
  if (rests)
    ready_ = false;
  return ready;
}

void
Faults::stall_readiness(guint rounds)
{
  const std::lock_guard lock(mutex_);
  ready_ = false;
  rounds_ = rounds;
}

void
Faults::become_ready()
{
  const std::lock_guard lock(mutex_);
  if (rounds_ > 0)
    rounds_--;
  else
    ready_ = true;
}

/* ---- The streams ---- */

namespace
{

GQuark
faults_quark()
{
  return g_quark_from_static_string("test-faults");
}

Faults &
faults_of(gpointer stream)
{
  return **static_cast<std::shared_ptr<Faults> *>(
      g_object_get_qdata(G_OBJECT(stream), faults_quark()));
}

void
set_faults(gpointer stream, std::shared_ptr<Faults> faults)
{
  g_object_set_qdata_full(
      G_OBJECT(stream), faults_quark(), new std::shared_ptr<Faults>(std::move(faults)),
      [](gpointer shared) { delete static_cast<std::shared_ptr<Faults> *>(shared); });
}

void
set_injected_error(GError **error)
{
  g_set_error_literal(error, fault_quark(), fault_code, fault_message);
}

gssize
would_block(GError **error)
{
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, "Would block");
  return -1;
}

/* A read (`into`), a skip (neither) or a write (`from`). */
struct Transfer {
  void *into;
  const void *from;
  gsize size;

  gssize
  carry_out(Faults &faults, gsize limit) const
  {
    return static_cast<gssize>(from != nullptr ? faults.give(from, size, limit)
                                               : faults.take(into, size, limit));
  }
};

gssize
transfer_blocking(gpointer stream, const Transfer &transfer, GCancellable *cancellable,
                  GError **error)
{
  auto &faults = faults_of(stream);
  if (g_cancellable_set_error_if_cancelled(cancellable, error))
    return -1;
  const auto act = faults.step(Faults::Kind::transfer);
  switch (act) {
  case Faults::Act::fail:
    set_injected_error(error);
    return -1;
  case Faults::Act::end:
    faults.count_end();
    return 0;
  case Faults::Act::stall:
    faults.wait_for_main_loop();
    break;
  case Faults::Act::nothing:
    faults.cancel();
    if (g_cancellable_set_error_if_cancelled(cancellable, error))
      return -1;
    break;
  case Faults::Act::move:
  case Faults::Act::one:
  case Faults::Act::move_and_cancel:
    break;
  }
  const gssize moved = transfer.carry_out(faults, act == Faults::Act::one ? 1 : G_MAXSIZE);
  if (act == Faults::Act::move_and_cancel)
    faults.cancel();
  return moved;
}

gssize
transfer_nonblocking(gpointer stream, const Transfer &transfer, GError **error)
{
  auto &faults = faults_of(stream);
  if (!faults.pass_readiness())
    return would_block(error);
  const auto act = faults.step(Faults::Kind::transfer);
  switch (act) {
  case Faults::Act::fail:
    set_injected_error(error);
    return -1;
  case Faults::Act::end:
    faults.count_end();
    return 0;
  case Faults::Act::stall:
    faults.stall_readiness(0);
    return would_block(error);
  case Faults::Act::nothing:
    faults.cancel();
    faults.stall_readiness(0);
    return would_block(error);
  case Faults::Act::move:
  case Faults::Act::one:
  case Faults::Act::move_and_cancel:
    break;
  }
  const gssize moved = transfer.carry_out(faults, act == Faults::Act::one ? 1 : G_MAXSIZE);
  if (act == Faults::Act::move_and_cancel)
    faults.cancel();
  return moved;
}

/* Fires at every turn of the main loop, which is also when a stream becomes ready. The source over
 * it keeps the stream. */
struct TurnSource {
  GSource parent;
  Faults *faults;
};

GSourceFuncs turn_source_funcs = {
    [](GSource *source, int *timeout) -> gboolean {
      reinterpret_cast<TurnSource *>(source)->faults->become_ready();
      *timeout = 0;
      return FALSE;
    },
    [](GSource *) -> gboolean { return TRUE; },
    [](GSource *, GSourceFunc, gpointer) -> gboolean { return G_SOURCE_CONTINUE; },
    nullptr,
    [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; },
    nullptr};

GSource *
new_turn_source(Faults &faults)
{
  GSource *const source = g_source_new(&turn_source_funcs, sizeof(TurnSource));
  reinterpret_cast<TurnSource *>(source)->faults = &faults;
  return source;
}

/* Waiting for readiness cannot fail, but be in vain once more, or be cancelled. */
GSource *
new_readiness_source(gpointer stream, GCancellable *cancellable)
{
  auto &faults = faults_of(stream);
  switch (faults.step(Faults::Kind::wait)) {
  case Faults::Act::stall:
    faults.stall_readiness(1);
    break;
  case Faults::Act::nothing:
  case Faults::Act::move_and_cancel:
    faults.cancel();
    break;
  default:
    break;
  }
  GSource *const child = new_turn_source(faults);
  GSource *const source = g_pollable_source_new_full(stream, child, cancellable);
  g_source_unref(child);
  return source;
}

gboolean
end_call(gpointer stream, GCancellable *cancellable, GError **error)
{
  auto &faults = faults_of(stream);
  if (g_cancellable_set_error_if_cancelled(cancellable, error))
    return FALSE;
  switch (faults.step(Faults::Kind::end)) {
  case Faults::Act::fail:
    set_injected_error(error);
    return FALSE;
  case Faults::Act::stall:
    faults.wait_for_main_loop();
    break;
  case Faults::Act::nothing:
    faults.cancel();
    return !g_cancellable_set_error_if_cancelled(cancellable, error);
  case Faults::Act::move_and_cancel:
    faults.cancel();
    break;
  default:
    break;
  }
  return TRUE;
}

void
input_class_init(gpointer klass, gpointer)
{
  const auto input_class = G_INPUT_STREAM_CLASS(klass);
  input_class->read_fn = [](GInputStream *stream, void *buffer, gsize size,
                            GCancellable *cancellable, GError **error) {
    return transfer_blocking(stream, {buffer, nullptr, size}, cancellable, error);
  };
  input_class->skip = [](GInputStream *stream, gsize size, GCancellable *cancellable,
                         GError **error) {
    return transfer_blocking(stream, {nullptr, nullptr, size}, cancellable, error);
  };
  input_class->close_fn = [](GInputStream *stream, GCancellable *cancellable, GError **error) {
    return end_call(stream, cancellable, error);
  };
}

void
output_class_init(gpointer klass, gpointer)
{
  const auto output_class = G_OUTPUT_STREAM_CLASS(klass);
  output_class->write_fn = [](GOutputStream *stream, const void *buffer, gsize size,
                              GCancellable *cancellable, GError **error) {
    return transfer_blocking(stream, {nullptr, buffer, size}, cancellable, error);
  };
  const auto end = [](GOutputStream *stream, GCancellable *cancellable, GError **error) {
    return end_call(stream, cancellable, error);
  };
  output_class->flush = end;
  output_class->close_fn = end;
}

void
pollable_input_init(gpointer iface, gpointer)
{
  const auto pollable = static_cast<GPollableInputStreamInterface *>(iface);
  pollable->is_readable = [](GPollableInputStream *stream) -> gboolean {
    return faults_of(stream).is_ready();
  };
  pollable->create_source = [](GPollableInputStream *stream, GCancellable *cancellable) {
    return new_readiness_source(stream, cancellable);
  };
  pollable->read_nonblocking = [](GPollableInputStream *stream, void *buffer, gsize size,
                                  GError **error) {
    return transfer_nonblocking(stream, {buffer, nullptr, size}, error);
  };
}

void
pollable_output_init(gpointer iface, gpointer)
{
  const auto pollable = static_cast<GPollableOutputStreamInterface *>(iface);
  pollable->is_writable = [](GPollableOutputStream *stream) -> gboolean {
    return faults_of(stream).is_ready();
  };
  pollable->create_source = [](GPollableOutputStream *stream, GCancellable *cancellable) {
    return new_readiness_source(stream, cancellable);
  };
  pollable->write_nonblocking = [](GPollableOutputStream *stream, const void *buffer, gsize size,
                                   GError **error) {
    return transfer_nonblocking(stream, {nullptr, buffer, size}, error);
  };
}

GType
register_stream(bool input, Flavour flavour)
{
  const GType parent = input ? G_TYPE_INPUT_STREAM : G_TYPE_OUTPUT_STREAM;
  const std::string name = std::string("TestFaulty") + (input ? "Input" : "Output") +
                           (flavour == Flavour::pollable ? "Pollable" : "Blocking");
  GTypeQuery query;
  g_type_query(parent, &query);
  GTypeInfo info = {};
  info.class_size = static_cast<guint16>(query.class_size);
  info.class_init = input ? input_class_init : output_class_init;
  info.instance_size = static_cast<guint16>(query.instance_size);
  const GType type = g_type_register_static(parent, name.c_str(), &info, GTypeFlags(0));
  if (flavour == Flavour::pollable) {
    const GInterfaceInfo pollable = {input ? pollable_input_init : pollable_output_init, nullptr,
                                     nullptr};
    g_type_add_interface_static(
        type, input ? G_TYPE_POLLABLE_INPUT_STREAM : G_TYPE_POLLABLE_OUTPUT_STREAM, &pollable);
  }
  return type;
}

/* The caller's reference. */
gpointer
new_stream(bool input, Flavour flavour, const std::shared_ptr<Faults> &faults)
{
  static const GType types[2][2] = {
      {register_stream(false, Flavour::blocking), register_stream(false, Flavour::pollable)},
      {register_stream(true, Flavour::blocking), register_stream(true, Flavour::pollable)}};
  const gpointer stream = g_object_new(types[input][flavour == Flavour::pollable], nullptr);
  set_faults(stream, faults);
  return stream;
}

} // namespace

void
add_stages(GvcConnection *channel, int stages, LifeWatch *lives)
{
  const BytesRef key = new_bytes(pattern(32, 7));
  for (int i = 0; i < stages; i++) {
    const Ref<GConverter> in(i == 0 ? G_CONVERTER(gvc_decryptor_new(key.get()))
                                    : G_CONVERTER(gvc_decompressor_new()));
    const Ref<GConverter> out(i == 0 ? G_CONVERTER(gvc_encryptor_new(key.get()))
                                     : G_CONVERTER(gvc_compressor_new()));
    gvc_connection_add_converters(channel, in.get(), out.get());
    for (gpointer object : {gpointer(in.get()), gpointer(out.get()),
                            gpointer(g_io_stream_get_input_stream(G_IO_STREAM(channel))),
                            gpointer(g_io_stream_get_output_stream(G_IO_STREAM(channel)))})
      if (lives != nullptr)
        lives->add(object);
  }
}

/* ---- Rig ---- */

Rig::Rig(Flavour flavour, int stages)
    : flavour_(flavour), stages_(stages), faults_(std::make_shared<Faults>()),
      cancellable_(g_cancellable_new())
{
  auto in = own(static_cast<GInputStream *>(new_stream(true, flavour, faults_)));
  auto out = own(static_cast<GOutputStream *>(new_stream(false, flavour, faults_)));
  for (gpointer object : {gpointer(in.get()), gpointer(out.get()), gpointer(cancellable_.get())})
    lives_.add(object);
  const auto connection = new_connection_over(std::move(in), std::move(out));
  lives_.add(connection.get());
  channel_ = own(gvc_connection_new(connection.get()));
  lives_.add(channel_.get());
  add_stages(channel_.get(), stages, &lives_);
}

Rig::~Rig()
{
  assert_all_gone();
}

template <typename T>
T *
Rig::watched(Ref<T> &object)
{
  lives_.add(object.get());
  return object.get();
}

template <typename T, typename Base>
T *
Rig::made(Ref<T> &object, T *(*create)(Base *), Base *base)
{
  if (object == nullptr) {
    object = own(create(base));
    watched(object);
  }
  return object.get();
}

GvcBytesInputStream *
Rig::reader()
{
  return made(reader_, gvc_bytes_input_stream_new, in());
}

GvcDataInputStream *
Rig::string_reader()
{
  return made(string_reader_, gvc_data_input_stream_new, in());
}

GvcBytesOutputStream *
Rig::writer()
{
  return made(writer_, gvc_bytes_output_stream_new, out());
}

void
Rig::renew_cancellable()
{
  cancellable_ = own(g_cancellable_new());
  watched(cancellable_);
}

GAsyncResult *
Rig::await(const std::function<void(GAsyncReadyCallback, gpointer)> &start)
{
  collector_ = std::make_unique<Collector>();
  start(Collector::ready, collector_.get());
  g_assert_cmpuint(collector_->calls(), ==, 0);
  GAsyncResult *const result = collector_->wait();
  spin_pending();
  g_assert_cmpuint(collector_->calls(), ==, 1);
  g_assert_true(collector_->thread() == g_thread_self());
  return result;
}

void
Rig::assert_idle()
{
  GInputStream *input = reader_ ? G_INPUT_STREAM(reader_.get())
                                : (string_reader_ ? G_INPUT_STREAM(string_reader_.get()) : in());
  for (; input != nullptr;
       input = G_IS_FILTER_INPUT_STREAM(input)
                   ? g_filter_input_stream_get_base_stream(G_FILTER_INPUT_STREAM(input))
                   : nullptr)
    g_assert_false(g_input_stream_has_pending(input));
  GOutputStream *output = writer_ ? G_OUTPUT_STREAM(writer_.get()) : out();
  for (; output != nullptr;
       output = G_IS_FILTER_OUTPUT_STREAM(output)
                    ? g_filter_output_stream_get_base_stream(G_FILTER_OUTPUT_STREAM(output))
                    : nullptr)
    g_assert_false(g_output_stream_has_pending(output));
}

void
Rig::assert_all_gone()
{
  faults_->disarm();
  faults_->jammed = false;
  collector_.reset();
  reader_.reset();
  string_reader_.reset();
  writer_.reset();
  channel_.reset();
  cancellable_.reset();
  /* A worker thread drops its reference a moment after the result: not worth a tick of waiting. */
  const gint64 give_up = g_get_monotonic_time() + watchdog_usec();
  while (lives_.alive() != 0 && g_get_monotonic_time() < give_up) {
    spin_pending();
    g_thread_yield();
  }
  g_assert_cmpuint(lives_.alive(), ==, 0);
}

std::string
through_stages(int stages, std::initializer_list<std::string_view> parts)
{
  Rig rig(Flavour::blocking, stages);
  for (const auto &part : parts) {
    Error error;
    g_assert_true(
        g_output_stream_write_all(rig.out(), part.data(), part.size(), nullptr, nullptr, &error));
    error.assert_none();
  }
  return rig.faults().accepted;
}

std::string
from_stages(int stages, const std::string &wire)
{
  Rig rig(Flavour::blocking, stages);
  rig.faults().wire = wire;
  std::string plain;
  for (;;) {
    char buffer[4096];
    Error error;
    const gssize count = g_input_stream_read(rig.in(), buffer, sizeof buffer, nullptr, &error);
    if (count < 0)
      error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
    if (count <= 0)
      return plain;
    plain.append(buffer, static_cast<gsize>(count));
  }
}

/* ---- The loop ---- */

void
at_every_step(const Case &one, const std::function<void(Rig &)> &prepare,
              const std::function<void(Rig &, Outcome &)> &check)
{
  for (guint n = 0;; n++) {
    Rig rig(one.flavour, one.stages);
    rig.faults().rests = one.flavour == Flavour::pollable;
    prepare(rig);
    rig.faults().arm(one.fault, n, rig.cancellable());
    Outcome outcome;
    outcome.value = one.operation.run(rig, &outcome.error);
    g_assert_true(outcome.value.has_value() == !outcome.error);
    const bool reached = rig.faults().reached();
    rig.assert_idle();
    check(rig, outcome);
    rig.assert_all_gone();
    if (!reached) {
      g_test_message("%u steps", n);
      g_assert_cmpuint(n, >=, one.least_steps);
      return;
    }
  }
}

void
assert_outcome(const Case &one, Rig &rig, Outcome &outcome, const std::string &value)
{
  if (rig.faults().reached()) {
    if (one.fault == Fault::fail || one.fault == Fault::fail_once) {
      outcome.error.assert_is(fault_quark(), fault_code, fault_message);
      return;
    }
    /* A cancellation after an operation's last step comes too late for most of them. */
    const bool too_late = one.fault == Fault::cancel_late && !rig.faults().went_on() &&
                          one.operation.way != Operation::Way::async && outcome.value;
    if ((one.fault == Fault::cancel || one.fault == Fault::cancel_late) && !too_late) {
      outcome.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
      return;
    }
  }
  outcome.error.assert_none();
  assert_bytes(*outcome.value, value);
}

void
add_cases(const char *subject, const Operation &operation, std::initializer_list<Fault> faults,
          void (*test)(const Case &), guint least_steps, int stages_up_to)
{
  using Entry = std::pair<void (*)(const Case &), Case>;
  for (const Flavour flavour : {Flavour::blocking, Flavour::pollable})
    for (int stages = 0; stages <= stages_up_to; stages++)
      for (const Fault fault : faults) {
        /* A blocking operation in the main loop's own thread has nobody to wait for. */
        if (fault == Fault::stall && operation.way == Operation::Way::blocking)
          continue;
        const std::string path = std::string("/faults/") + subject + "/" + operation.name +
                                 (flavour == Flavour::pollable ? "/pollable/" : "/blocking/") +
                                 std::to_string(stages) + "-stages/" + fault_name(fault);
        g_test_add_data_func_full(
            path.c_str(), new Entry(test, {operation, fault, flavour, stages, least_steps}),
            [](gconstpointer data) {
              const auto entry = static_cast<const Entry *>(data);
              entry->first(entry->second);
            },
            [](gpointer data) { delete static_cast<Entry *>(data); });
      }
}

std::optional<std::string>
take(GBytes *bytes)
{
  if (bytes == nullptr)
    return std::nullopt;
  return bytes_string(BytesRef(bytes).get());
}

std::optional<std::string>
take(GVariant *variant)
{
  if (variant == nullptr)
    return std::nullopt;
  const VariantRef owner(g_variant_ref_sink(variant));
  return std::string(static_cast<const char *>(g_variant_get_data(variant)),
                     g_variant_get_size(variant));
}

std::optional<std::string>
take(char *string, gsize length)
{
  if (string == nullptr)
    return std::nullopt;
  return std::string(Mem<char>(string).get(), length);
}

} // namespace faulty
