/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <glib-unix.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace support
{

gint64
watchdog_usec()
{
  const char *const patience = g_getenv("TEST_PATIENCE");
  const gint64 times = patience != nullptr ? g_ascii_strtoll(patience, nullptr, 10) : 1;
  return 120 * G_USEC_PER_SEC * std::max<gint64>(times, 1);
}

/* ---- Errors ---- */

void
Error::assert_is(GQuark domain, int code, const char *message)
{
  g_assert_error(error_, domain, code);
  g_assert_cmpstr(error_->message, ==, message);
  g_clear_error(&error_);
}

void
Error::assert_is(GQuark domain, int code)
{
  g_assert_error(error_, domain, code);
  g_clear_error(&error_);
}

void
Error::assert_none() const
{
  g_assert_no_error(error_);
}

/* ---- Bytes ---- */

std::string
bytes_string(GBytes *bytes)
{
  g_assert_nonnull(bytes);
  gsize size;
  const auto data = static_cast<const char *>(g_bytes_get_data(bytes, &size));
  return size != 0 ? std::string(data, size) : std::string();
}

BytesRef
new_bytes(std::string_view data)
{
  return BytesRef(g_bytes_new(data.data(), data.size()));
}

std::string
pattern(size_t size, guint32 seed)
{
  std::string result(size, '\0');
  guint32 state = seed * 2654435761u + 1;
  for (auto &byte : result) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return result;
}

std::string
le32(guint32 value)
{
  std::string result;
  for (int shift = 0; shift < 32; shift += 8)
    result.push_back(static_cast<char>(value >> shift & 0xff));
  return result;
}

std::string
frame(std::string_view payload)
{
  return le32(static_cast<guint32>(payload.size())).append(payload);
}

std::string
unhex(std::string_view digits)
{
  std::string result;
  int high = -1;
  for (const char digit : digits) {
    if (g_ascii_isspace(digit))
      continue;
    const int value = g_ascii_xdigit_value(digit);
    g_assert_cmpint(value, >=, 0);
    if (high < 0) {
      high = value;
    } else {
      result.push_back(static_cast<char>(high << 4 | value));
      high = -1;
    }
  }
  g_assert_cmpint(high, ==, -1);
  return result;
}

std::string
hex(std::string_view data)
{
  static const char digits[] = "0123456789abcdef";
  std::string result;
  for (const char c : data) {
    const auto byte = static_cast<unsigned char>(c);
    result.push_back(digits[byte >> 4]);
    result.push_back(digits[byte & 15]);
  }
  return result;
}

void
assert_text(const std::string &actual, const std::string &expected)
{
  g_assert_cmpstr(actual.c_str(), ==, expected.c_str());
}

void
assert_bytes(std::string_view actual, std::string_view expected)
{
  if (actual == expected)
    return;
  const auto differs =
      std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  const auto at = static_cast<size_t>(differs.first - actual.begin());
  const size_t from = at > 16 ? at - 16 : 0;
  g_error("bytes differ at %zu: got %zu bytes, ...%s..., expected %zu bytes, ...%s...", at,
          actual.size(), hex(actual.substr(from, 48)).c_str(), expected.size(),
          hex(expected.substr(std::min(from, expected.size()), 48)).c_str());
}

/* ---- Log messages ---- */

LogMessage
critical(std::string text)
{
  return {std::nullopt, G_LOG_LEVEL_CRITICAL, std::move(text)};
}

LogMessage
warning(std::string text)
{
  return {std::nullopt, G_LOG_LEVEL_WARNING, std::move(text)};
}

LogMessage
critical(const char *domain, std::string text)
{
  return {domain, G_LOG_LEVEL_CRITICAL, std::move(text)};
}

LogMessage
warning(const char *domain, std::string text)
{
  return {domain, G_LOG_LEVEL_WARNING, std::move(text)};
}

LogMessage
failed_check(const char *function, const char *expression)
{
  return critical(std::string(function) + ": assertion '" + expression + "' failed");
}

namespace
{

std::mutex log_mutex;
bool log_capturing = false;
std::vector<LogMessage> log_messages;

constexpr int quiet_levels = G_LOG_LEVEL_INFO | G_LOG_LEVEL_DEBUG;

bool
store_message(const char *domain, GLogLevelFlags level, std::string text)
{
  const std::lock_guard lock(log_mutex);
  /* What ends the program is printed. */
  if (!log_capturing || (level & (G_LOG_FLAG_FATAL | G_LOG_LEVEL_ERROR)) != 0)
    return false;
  const auto plain = static_cast<GLogLevelFlags>(level & G_LOG_LEVEL_MASK);
  if ((plain & quiet_levels) == 0)
    log_messages.push_back({domain != nullptr ? std::optional<std::string>(domain) : std::nullopt,
                            plain, std::move(text)});
  return true;
}

void
log_handler(const gchar *domain, GLogLevelFlags level, const gchar *text, gpointer)
{
  if (!store_message(domain, level, text != nullptr ? text : "(no text)"))
    g_log_default_handler(domain, level, text, nullptr);
}

/* What g_log_structured() sends; what comes by g_log() never gets here while messages are being
 * collected. */
GLogWriterOutput
log_writer(GLogLevelFlags level, const GLogField *fields, gsize n_fields, gpointer)
{
  const char *domain = nullptr;
  std::string text = "(no text)";
  for (gsize i = 0; i < n_fields; i++) {
    const auto value = static_cast<const char *>(fields[i].value);
    if (strcmp(fields[i].key, "GLIB_DOMAIN") == 0)
      domain = value;
    else if (strcmp(fields[i].key, "MESSAGE") == 0)
      text = fields[i].length < 0 ? std::string(value)
                                  : std::string(value, static_cast<size_t>(fields[i].length));
  }
  if (store_message(domain, level, text))
    return G_LOG_WRITER_HANDLED;
  return g_log_writer_default(level, fields, n_fields, nullptr);
}

std::string
describe(const std::vector<LogMessage> &messages)
{
  std::string result;
  for (const auto &message : messages) {
    result += "\n    [" + message.domain.value_or("no domain") + "] level " +
              std::to_string(static_cast<int>(message.level)) + ": " + message.text;
  }
  return result.empty() ? "\n    (none)" : result;
}

} // namespace

LogCapture::LogCapture()
{
  static const bool writer_installed = [] {
    g_log_set_writer_func(log_writer, nullptr, nullptr);
    return true;
  }();
  g_assert_true(writer_installed);

  {
    const std::lock_guard lock(log_mutex);
    g_assert_false(log_capturing);
    log_capturing = true;
    log_messages.clear();
  }
  old_fatal_ = g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
  old_handler_ = g_log_set_default_handler(log_handler, nullptr);
}

LogCapture::~LogCapture()
{
  g_log_set_default_handler(old_handler_, nullptr);
  g_log_set_always_fatal(old_fatal_);
  const auto left = take();
  {
    const std::lock_guard lock(log_mutex);
    log_capturing = false;
  }
  if (!left.empty())
    g_error("log messages that nobody expected:%s", describe(left).c_str());
}

std::vector<LogMessage>
LogCapture::take()
{
  const std::lock_guard lock(log_mutex);
  return std::exchange(log_messages, {});
}

void
LogCapture::expect(std::initializer_list<LogMessage> expected)
{
  const auto actual = take();
  const std::vector<LogMessage> wanted(expected);
  if (actual != wanted)
    g_error("log messages expected:%s\n  but got:%s", describe(wanted).c_str(),
            describe(actual).c_str());
}

/* ---- Sockets ---- */

namespace
{

Ref<GSocketAddress>
loopback(Family family)
{
  const auto address = own(g_inet_address_new_loopback(
      family == Family::tcp6 ? G_SOCKET_FAMILY_IPV6 : G_SOCKET_FAMILY_IPV4));
  return Ref<GSocketAddress>(g_inet_socket_address_new(address.get(), 0));
}

Ref<GSocket>
new_tcp_socket(Family family, Error &error)
{
  return Ref<GSocket>(
      g_socket_new(family == Family::tcp6 ? G_SOCKET_FAMILY_IPV6 : G_SOCKET_FAMILY_IPV4,
                   G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, &error));
}

struct TwoSockets {
  Ref<GSocket> a;
  Ref<GSocket> b;
};

TwoSockets
connect_tcp(Family family)
{
  Error error;
  const auto listener = new_tcp_socket(family, error);
  error.assert_none();
  g_socket_bind(listener.get(), loopback(family).get(), TRUE, &error);
  error.assert_none();
  g_socket_listen(listener.get(), &error);
  error.assert_none();
  const Ref<GSocketAddress> address(g_socket_get_local_address(listener.get(), &error));
  error.assert_none();

  TwoSockets result;
  result.a = new_tcp_socket(family, error);
  error.assert_none();
  g_socket_connect(result.a.get(), address.get(), nullptr, &error);
  error.assert_none();
  result.b.reset(g_socket_accept(listener.get(), nullptr, &error));
  error.assert_none();
  return result;
}

TwoSockets
connect_unix()
{
  int fds[2];
  g_assert_no_errno(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
  Error error;
  TwoSockets result;
  result.a.reset(g_socket_new_from_fd(fds[0], &error));
  error.assert_none();
  result.b.reset(g_socket_new_from_fd(fds[1], &error));
  error.assert_none();
  return result;
}

TwoSockets
connect_sockets(Family family)
{
  return family == Family::unix_domain ? connect_unix() : connect_tcp(family);
}

Ref<GSocketConnection>
wrap_socket(GSocket *socket)
{
  return Ref<GSocketConnection>(g_socket_connection_factory_create_connection(socket));
}

} // namespace

bool
have_ipv6()
{
  Error error;
  const auto socket = new_tcp_socket(Family::tcp6, error);
  return socket != nullptr &&
         g_socket_bind(socket.get(), loopback(Family::tcp6).get(), TRUE, nullptr);
}

SocketPair
new_socket_pair(Family family)
{
  const auto sockets = connect_sockets(family);
  return {wrap_socket(sockets.a.get()), wrap_socket(sockets.b.get())};
}

RawPeer::RawPeer(Family family)
{
  const auto sockets = connect_sockets(family);
  connection_ = wrap_socket(sockets.a.get());
  /* The GSocket owns its descriptor and has made it non-blocking; take a copy, set it back, and let
   * the GSocket close only its own. */
  fd_ = dup(g_socket_get_fd(sockets.b.get()));
  g_assert_cmpint(fd_, >=, 0);
  Error error;
  g_unix_set_fd_nonblocking(fd_, FALSE, &error);
  error.assert_none();
}

RawPeer::~RawPeer()
{
  close();
}

void
RawPeer::send(std::string_view data)
{
  while (!data.empty()) {
    const ssize_t sent = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
    g_assert_cmpint(sent, >, 0);
    data.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string
RawPeer::receive(size_t size)
{
  std::string result(size, '\0');
  size_t received = 0;
  while (received < size) {
    const ssize_t count = ::recv(fd_, result.data() + received, size - received, 0);
    g_assert_cmpint(count, >=, 0);
    if (count == 0)
      break;
    received += static_cast<size_t>(count);
  }
  result.resize(received);
  return result;
}

std::string
RawPeer::receive_all()
{
  std::string result;
  for (;;) {
    const auto part = receive(65536);
    result += part;
    if (part.size() < 65536)
      return result;
  }
}

void
RawPeer::shutdown_write()
{
  g_assert_no_errno(::shutdown(fd_, SHUT_WR));
}

void
RawPeer::close()
{
  if (fd_ >= 0)
    ::close(std::exchange(fd_, -1));
}

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

/* ---- Scripted streams ---- */

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

gssize
transfer_finish(GAsyncResult *result, GError **error)
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

gboolean
end_call(gpointer stream, Call::Kind kind, GCancellable *cancellable, GError **error)
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

gssize
input_read_finish(GInputStream *, GAsyncResult *result, GError **error)
{
  return transfer_finish(result, error);
}

gboolean
input_close(GInputStream *stream, GCancellable *cancellable, GError **error)
{
  return end_call(stream, Call::Kind::close, cancellable, error);
}

void
input_class_init(gpointer klass, gpointer kind)
{
  const auto input_class = G_INPUT_STREAM_CLASS(klass);
  input_class->read_fn = input_read;
  if (GPOINTER_TO_INT(kind) == static_cast<int>(StreamKind::with_async)) {
    input_class->read_async = input_read_async;
    input_class->read_finish = input_read_finish;
  }
  if (g_type_parent(G_TYPE_FROM_CLASS(klass)) == G_TYPE_INPUT_STREAM)
    input_class->close_fn = input_close;
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

gssize
output_write_finish(GOutputStream *, GAsyncResult *result, GError **error)
{
  return transfer_finish(result, error);
}

gboolean
output_flush(GOutputStream *stream, GCancellable *cancellable, GError **error)
{
  return end_call(stream, Call::Kind::flush, cancellable, error);
}

gboolean
output_close(GOutputStream *stream, GCancellable *cancellable, GError **error)
{
  return end_call(stream, Call::Kind::close, cancellable, error);
}

void
output_class_init(gpointer klass, gpointer kind)
{
  const auto output_class = G_OUTPUT_STREAM_CLASS(klass);
  output_class->write_fn = output_write;
  if (GPOINTER_TO_INT(kind) == static_cast<int>(StreamKind::with_async)) {
    output_class->write_async = output_write_async;
    output_class->write_finish = output_write_finish;
  }
  if (g_type_parent(G_TYPE_FROM_CLASS(klass)) == G_TYPE_OUTPUT_STREAM) {
    output_class->flush = output_flush;
    output_class->close_fn = output_close;
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

/* ---- Connections over streams ---- */

namespace
{

struct StreamConnection {
  GSocketConnection parent;
  GInputStream *in;
  GOutputStream *out;
};
struct StreamConnectionClass {
  GSocketConnectionClass parent_class;
};

G_DEFINE_TYPE(StreamConnection, stream_connection, G_TYPE_SOCKET_CONNECTION)

void
stream_connection_init(StreamConnection *)
{
}

void
stream_connection_finalize(GObject *object)
{
  const auto self = reinterpret_cast<StreamConnection *>(object);
  G_OBJECT_CLASS(stream_connection_parent_class)->finalize(object);
  g_clear_object(&self->in);
  g_clear_object(&self->out);
}

void
stream_connection_class_init(StreamConnectionClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = stream_connection_finalize;
  G_IO_STREAM_CLASS(klass)->get_input_stream = [](GIOStream *stream) {
    return reinterpret_cast<StreamConnection *>(stream)->in;
  };
  G_IO_STREAM_CLASS(klass)->get_output_stream = [](GIOStream *stream) {
    return reinterpret_cast<StreamConnection *>(stream)->out;
  };
}

} // namespace

Ref<GSocketConnection>
new_connection_over(Ref<GInputStream> in, Ref<GOutputStream> out)
{
  Error error;
  const auto bare = own(
      g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_DEFAULT, &error));
  error.assert_none();
  const auto connection = static_cast<StreamConnection *>(
      g_object_new(stream_connection_get_type(), "socket", bare.get(), nullptr));
  connection->in = in.release();
  connection->out = out.release();
  return own(&connection->parent);
}

/* ---- Main loop ---- */

namespace
{

gboolean
set_flag(gpointer flag)
{
  *static_cast<bool *>(flag) = true;
  return G_SOURCE_CONTINUE;
}

} // namespace

void
spin_until(const std::function<bool()> &condition)
{
  GMainContext *const context = g_main_context_ref_thread_default();
  const gint64 give_up = g_get_monotonic_time() + watchdog_usec();
  bool woken = false;
  /* Wakes the loop now and then, for conditions that other threads make true. */
  GSource *const ticks = g_timeout_source_new(5);
  g_source_set_callback(ticks, set_flag, &woken, nullptr);
  g_source_attach(ticks, context);
  while (!condition()) {
    g_main_context_iteration(context, TRUE);
    if (g_get_monotonic_time() > give_up)
      g_error("what the test waits for has not happened");
  }
  g_source_destroy(ticks);
  g_source_unref(ticks);
  g_main_context_unref(context);
}

void
spin_pending()
{
  GMainContext *const context = g_main_context_ref_thread_default();
  while (g_main_context_iteration(context, FALSE))
    ;
  g_main_context_unref(context);
}

void
Collector::ready(GObject *source, GAsyncResult *result, gpointer collector)
{
  const auto self = static_cast<Collector *>(collector);
  self->calls_++;
  self->result_.reset(G_ASYNC_RESULT(g_object_ref(result)));
  self->source_ = source;
  self->thread_ = g_thread_self();
}

GAsyncResult *
Collector::wait()
{
  spin_until([this] { return calls_ != 0; });
  g_assert_cmpuint(calls_, ==, 1);
  return result_.get();
}

void
run_in_thread(const std::function<void()> &code)
{
  GThread *const thread = g_thread_new(
      "second",
      [](gpointer data) -> gpointer {
        GMainContext *const context = g_main_context_new();
        g_main_context_push_thread_default(context);
        (*static_cast<const std::function<void()> *>(data))();
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
        return nullptr;
      },
      const_cast<std::function<void()> *>(&code));
  g_thread_join(thread);
}

Background::Background(std::function<void()> code) : code_(std::move(code))
{
  thread_ = g_thread_new(
      "background",
      [](gpointer self) -> gpointer {
        static_cast<Background *>(self)->code_();
        return nullptr;
      },
      this);
}

void
Background::join()
{
  if (thread_ != nullptr)
    g_thread_join(std::exchange(thread_, nullptr));
}

/* ---- Lives of objects ---- */

struct LifeWatch::State {
  std::mutex mutex;
  guint alive = 0;
};

namespace
{

struct CountedBytes {
  std::string data;
  std::shared_ptr<void> state;
  std::function<void()> gone;
};

} // namespace

std::shared_ptr<LifeWatch::State>
LifeWatch::state()
{
  if (state_ == nullptr)
    state_ = std::make_shared<State>();
  return state_;
}

LifeWatch::~LifeWatch()
{
  if (alive() != 0)
    g_error("%u objects are still alive", alive());
}

void
LifeWatch::object_gone(gpointer state, GObject *)
{
  const auto shared = static_cast<std::shared_ptr<State> *>(state);
  {
    const std::lock_guard lock((*shared)->mutex);
    (*shared)->alive--;
  }
  delete shared;
}

void
LifeWatch::add(gpointer object)
{
  const auto shared = state();
  {
    const std::lock_guard lock(shared->mutex);
    shared->alive++;
  }
  g_object_weak_ref(G_OBJECT(object), object_gone, new std::shared_ptr<State>(shared));
}

void
LifeWatch::bytes_gone(gpointer memory)
{
  const auto counted = static_cast<CountedBytes *>(memory);
  counted->gone();
  delete counted;
}

BytesRef
LifeWatch::add_bytes(std::string_view data)
{
  const auto shared = state();
  {
    const std::lock_guard lock(shared->mutex);
    shared->alive++;
  }
  const auto counted = new CountedBytes{std::string(data), shared, [shared] {
                                          const std::lock_guard lock(shared->mutex);
                                          shared->alive--;
                                        }};
  return BytesRef(
      g_bytes_new_with_free_func(counted->data.data(), counted->data.size(), bytes_gone, counted));
}

guint
LifeWatch::alive() const
{
  if (state_ == nullptr)
    return 0;
  const std::lock_guard lock(state_->mutex);
  return state_->alive;
}

void
LifeWatch::assert_all_gone()
{
  spin_until([this] { return alive() == 0; });
}

guint
refcount(gpointer object)
{
  return static_cast<guint>(g_atomic_int_get(&static_cast<GObject *>(object)->ref_count));
}

void
assert_refcount(gpointer object, guint expected)
{
  g_assert_cmpuint(refcount(object), ==, expected);
}

void
assert_refcount_becomes(gpointer object, guint expected)
{
  spin_until([object, expected] { return refcount(object) == expected; });
}

/* ---- Types ---- */

void
assert_property(GType owner, const char *name, GType value_type, const char *nick,
                const char *blurb, guint flags)
{
  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(owner));
  const GParamSpec *const spec = g_object_class_find_property(klass, name);
  g_assert_nonnull(spec);
  g_assert_cmpstr(spec->name, ==, name);
  g_assert_cmpstr(g_type_name(spec->owner_type), ==, g_type_name(owner));
  g_assert_cmpstr(g_type_name(spec->value_type), ==, g_type_name(value_type));
  g_assert_cmpstr(g_param_spec_get_nick(const_cast<GParamSpec *>(spec)), ==, nick);
  g_assert_cmpstr(g_param_spec_get_blurb(const_cast<GParamSpec *>(spec)), ==, blurb);
  g_assert_cmphex(spec->flags, ==, flags);
  g_type_class_unref(klass);
}

std::vector<std::string>
own_properties(GType owner)
{
  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(owner));
  guint count;
  const Mem<GParamSpec *> specs(g_object_class_list_properties(klass, &count));
  std::vector<std::string> result;
  for (guint i = 0; i < count; i++)
    if (specs.get()[i]->owner_type == owner)
      result.emplace_back(specs.get()[i]->name);
  g_type_class_unref(klass);
  return result;
}

std::vector<std::string>
own_signals(GType owner)
{
  const auto klass = g_type_class_ref(owner);
  guint count;
  const Mem<guint> ids(g_signal_list_ids(owner, &count));
  std::vector<std::string> result;
  for (guint i = 0; i < count; i++)
    result.emplace_back(g_signal_name(ids.get()[i]));
  g_type_class_unref(klass);
  return result;
}

void
assert_overrides_nothing(GType stream_type)
{
  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(stream_type));
  const auto parent = static_cast<GObjectClass *>(g_type_class_peek_parent(klass));
  GTypeQuery query;
  g_type_query(g_type_parent(stream_type), &query);

  /* GObject itself clears these two for each new class. */
  g_assert_null(reinterpret_cast<gpointer>(klass->set_property));
  g_assert_null(reinterpret_cast<gpointer>(klass->get_property));
  g_assert_true(klass->constructor == parent->constructor);
  g_assert_true(klass->dispose == parent->dispose);
  g_assert_true(klass->finalize == parent->finalize);
  g_assert_true(klass->dispatch_properties_changed == parent->dispatch_properties_changed);
  g_assert_true(klass->notify == parent->notify);
  g_assert_true(klass->constructed == parent->constructed);
  /* Behind GObject's part a class is the operations of the classes below it and nothing else. */
  const size_t start = sizeof(GObjectClass);
  g_assert_cmpmem(reinterpret_cast<const char *>(klass) + start, query.class_size - start,
                  reinterpret_cast<const char *>(parent) + start, query.class_size - start);
  g_type_class_unref(klass);
}

namespace
{

GQuark
conversion_quark()
{
  return g_quark_from_static_string("test-conversion");
}

GConverterResult
convert(GConverter *converter, const void *in, gsize in_size, void *out, gsize out_size,
        GConverterFlags flags, gsize *read, gsize *written, GError **error)
{
  const auto conversion =
      static_cast<ConvertFunction *>(g_object_get_qdata(G_OBJECT(converter), conversion_quark()));
  return (*conversion)({static_cast<const char *>(in), in_size}, static_cast<char *>(out), out_size,
                       flags, read, written, error);
}

GType
converter_type()
{
  static const GType type = [] {
    const GType registered =
        g_type_register_static_simple(G_TYPE_OBJECT, "TestConverter", sizeof(GObjectClass), nullptr,
                                      sizeof(GObject), nullptr, GTypeFlags(0));
    const GInterfaceInfo converter = {[](gpointer iface, gpointer) {
                                        const auto operations =
                                            static_cast<GConverterIface *>(iface);
                                        operations->convert = convert;
                                        operations->reset = [](GConverter *) {};
                                      },
                                      nullptr, nullptr};
    g_type_add_interface_static(registered, G_TYPE_CONVERTER, &converter);
    return registered;
  }();
  return type;
}

} // namespace

Ref<GConverter>
new_converter(ConvertFunction conversion)
{
  Ref<GConverter> converter(G_CONVERTER(g_object_new(converter_type(), nullptr)));
  g_object_set_qdata_full(G_OBJECT(converter.get()), conversion_quark(),
                          new ConvertFunction(std::move(conversion)),
                          [](gpointer data) { delete static_cast<ConvertFunction *>(data); });
  return converter;
}

GConverterResult
conversion_error(GIOErrorEnum code, const char *message, GError **error)
{
  g_set_error_literal(error, G_IO_ERROR, code, message);
  return G_CONVERTER_ERROR;
}

Ref<GConverter>
new_map_converter(std::function<guint8(guint8)> map, gsize max_per_call)
{
  return new_converter([map = std::move(map), max_per_call](
                           std::string_view in, char *out, gsize out_size, GConverterFlags flags,
                           gsize *read, gsize *written, GError **error) {
    const gsize count = std::min({in.size(), out_size, max_per_call});
    if (count == 0 && !in.empty())
      return conversion_error(G_IO_ERROR_NO_SPACE, "No room", error);
    if (count == 0 && (flags & (G_CONVERTER_INPUT_AT_END | G_CONVERTER_FLUSH)) == 0)
      return conversion_error(G_IO_ERROR_PARTIAL_INPUT, "No input", error);
    std::transform(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(count), out,
                   [&](char c) { return static_cast<char>(map(static_cast<guint8>(c))); });
    *read = *written = count;
    if (count == in.size() && (flags & G_CONVERTER_INPUT_AT_END) != 0)
      return G_CONVERTER_FINISHED;
    if (count == in.size() && (flags & G_CONVERTER_FLUSH) != 0)
      return G_CONVERTER_FLUSHED;
    return G_CONVERTER_CONVERTED;
  });
}

void
assert_dies(const char *subprocess_path, const char *stderr_line)
{
  g_test_trap_subprocess(subprocess_path, 0, GTestSubprocessFlags(0));
  g_test_trap_assert_failed();
  /* The line goes into a pattern that knows * and ?. */
  g_assert_null(strpbrk(stderr_line, "*?"));
  const Mem<char> pattern(g_strdup_printf("*\n%s\n*", stderr_line));
  g_test_trap_assert_stderr(pattern.get());
}

} // namespace support
