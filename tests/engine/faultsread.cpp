// SPDX-License-Identifier: LGPL-2.1-or-later
// Every way to read, over an input stream that misbehaves at every possible step.
#include "tests/support/faulty.h"

using namespace support;
using namespace faulty;

namespace
{

using Way = Operation::Way;

/* The highest bit is set in every byte, and in that of the length, so that a reader that begins
 * within a message meets no length that would have it fetch much memory. */
const std::string payload = [] {
  std::string bytes = pattern(130);
  for (auto &byte : bytes)
    byte = static_cast<char>(byte | 0x80);
  return bytes;
}();
const std::string message = frame(payload);
const std::string line = payload.substr(0, 11) + "\n";

/* Two of each, so that there is something left to read after the first. */
std::string
wire_of(int stages, bool strings)
{
  if (strings)
    return through_stages(stages, {line, line});
  const auto prefix = std::string_view(message).substr(0, 4);
  return through_stages(stages, {prefix, payload, prefix, payload});
}

/* How many bytes of the wire yield nothing yet: what is cut off before them loses nothing. */
gsize
first_unit(int stages, bool strings)
{
  return stages == 0 ? 1
                     : through_stages(stages, {strings ? std::string_view(line)
                                                       : std::string_view(message).substr(0, 4)})
                           .size();
}

void
prepare(Rig &rig, bool strings)
{
  rig.faults().wire = wire_of(rig.stages(), strings);
  rig.faults().chunk = strings ? 9 : (rig.stages() == 0 ? 19 : 60);
}

/* ---- The library's own operations ---- */

const Operation read_bytes = {
    "bytes", Way::blocking, [](Rig &rig, GError **error) {
      return take(gvc_bytes_input_stream_read_bytes(rig.reader(), rig.cancellable(), error));
    }};

const Operation read_bytes_async = {
    "bytes-async", Way::async, [](Rig &rig, GError **error) {
      return take(gvc_bytes_input_stream_read_bytes_finish(
          rig.reader(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            gvc_bytes_input_stream_read_bytes_async(rig.reader(), G_PRIORITY_DEFAULT,
                                                    rig.cancellable(), ready, data);
          }),
          error));
    }};

const Operation read_variant = {"variant", Way::blocking, [](Rig &rig, GError **error) {
                                  return take(gvc_bytes_input_stream_read_variant(
                                      rig.reader(), "ay", rig.cancellable(), error));
                                }};

const Operation read_variant_async = {
    "variant-async", Way::async, [](Rig &rig, GError **error) {
      return take(gvc_bytes_input_stream_read_variant_finish(
          rig.reader(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            gvc_bytes_input_stream_read_variant_async(rig.reader(), "ay", G_PRIORITY_DEFAULT,
                                                      rig.cancellable(), ready, data);
          }),
          error));
    }};

const Operation read_string = {"string", Way::blocking, [](Rig &rig, GError **error) {
                                 gsize length = 0;
                                 char *const string = gvc_data_input_stream_read_string(
                                     rig.string_reader(), '\n', &length, rig.cancellable(), error);
                                 return take(string, length);
                               }};

const Operation read_string_async = {
    "string-async", Way::async, [](Rig &rig, GError **error) {
      GAsyncResult *const result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        gvc_data_input_stream_read_string_async(rig.string_reader(), '\n', G_PRIORITY_DEFAULT,
                                                rig.cancellable(), ready, data);
      });
      gsize length = 0;
      char *const string =
          gvc_data_input_stream_read_string_finish(rig.string_reader(), result, &length, error);
      return take(string, length);
    }};

/* The whole first message, straight from the channel. */
const Operation read_all_util = {
    "read-all-util", Way::async, [](Rig &rig, GError **error) -> std::optional<std::string> {
      std::string buffer(message.size(), '\0');
      const gsize before = rig.faults().delivered();
      GAsyncResult *const result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        gvc_input_stream_util_read_all_async(rig.in(), buffer.data(), buffer.size(),
                                             G_PRIORITY_DEFAULT, rig.cancellable(), ready, data);
      });
      gsize count = G_MAXSIZE;
      const bool done = gvc_input_stream_util_read_all_finish(rig.in(), result, &count, error);
      g_assert_cmpuint(count, <=, buffer.size());
      /* Without a stage in between, the count tells what the base stream has delivered, on failure
       * as well; only a read that was cancelled after it was done counts for nothing. */
      if (rig.stages() == 0 && (done || g_error_matches(*error, fault_quark(), fault_code)))
        g_assert_cmpuint(count, ==, rig.faults().delivered() - before);
      buffer.resize(count);
      return done ? std::optional(buffer) : std::nullopt;
    }};

/* ---- The inherited ones, on the message stream ---- */

const Operation read_plain = {
    "read", Way::blocking, [](Rig &rig, GError **error) -> std::optional<std::string> {
      std::string buffer(message.size(), '\0');
      gsize count = 0;
      const bool done = g_input_stream_read_all(G_INPUT_STREAM(rig.reader()), buffer.data(),
                                                buffer.size(), &count, rig.cancellable(), error);
      buffer.resize(count);
      return done ? std::optional(buffer) : std::nullopt;
    }};

const Operation read_plain_async = {
    "read-async", Way::gio_async, [](Rig &rig, GError **error) -> std::optional<std::string> {
      std::string buffer(message.size(), '\0');
      const auto stream = G_INPUT_STREAM(rig.reader());
      GAsyncResult *const result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        g_input_stream_read_all_async(stream, buffer.data(), buffer.size(), G_PRIORITY_DEFAULT,
                                      rig.cancellable(), ready, data);
      });
      gsize count = 0;
      const bool done = g_input_stream_read_all_finish(stream, result, &count, error);
      buffer.resize(count);
      return done ? std::optional(buffer) : std::nullopt;
    }};

/* Skips the first message by calls of `skip`, which returns what g_input_stream_skip() does. */
std::optional<std::string>
skip_all(const std::function<gssize(gsize)> &skip)
{
  gsize skipped = 0;
  while (skipped < message.size()) {
    const gssize count = skip(message.size() - skipped);
    if (count < 0)
      return std::nullopt;
    if (count == 0)
      break;
    skipped += static_cast<gsize>(count);
  }
  return message.substr(0, skipped);
}

const Operation skip_plain = {"skip", Way::blocking, [](Rig &rig, GError **error) {
                                return skip_all([&](gsize size) {
                                  return g_input_stream_skip(G_INPUT_STREAM(rig.reader()), size,
                                                             rig.cancellable(), error);
                                });
                              }};

const Operation skip_plain_async = {
    "skip-async", Way::gio_async, [](Rig &rig, GError **error) {
      const auto stream = G_INPUT_STREAM(rig.reader());
      return skip_all([&](gsize size) {
        return g_input_stream_skip_finish(
            stream, rig.await([&](GAsyncReadyCallback ready, gpointer data) {
              g_input_stream_skip_async(stream, size, G_PRIORITY_DEFAULT, rig.cancellable(), ready,
                                        data);
            }),
            error);
      });
    }};

/* A splice takes what there is until the end, which below stages is an error. */
std::optional<std::string>
spliced(const Rig &rig, GOutputStream *target, bool done, GError **error)
{
  const auto memory = G_MEMORY_OUTPUT_STREAM(target);
  std::string all(static_cast<const char *>(g_memory_output_stream_get_data(memory)),
                  g_memory_output_stream_get_data_size(memory));
  if (!done && rig.stages() > 0 && all == message + message &&
      g_error_matches(*error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT)) {
    g_clear_error(error);
    done = true;
  }
  return done ? std::optional(all) : std::nullopt;
}

const Operation splice_plain = {
    "splice", Way::blocking, [](Rig &rig, GError **error) {
      const auto target = own(g_memory_output_stream_new_resizable());
      const bool done =
          g_output_stream_splice(target.get(), G_INPUT_STREAM(rig.reader()),
                                 G_OUTPUT_STREAM_SPLICE_NONE, rig.cancellable(), error) >= 0;
      return spliced(rig, target.get(), done, error);
    }};

const Operation splice_plain_async = {
    "splice-async", Way::gio_async, [](Rig &rig, GError **error) {
      const auto target = own(g_memory_output_stream_new_resizable());
      const auto stream = G_INPUT_STREAM(rig.reader());
      GAsyncResult *const result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        g_output_stream_splice_async(target.get(), stream, G_OUTPUT_STREAM_SPLICE_NONE,
                                     G_PRIORITY_DEFAULT, rig.cancellable(), ready, data);
      });
      const bool done = g_output_stream_splice_finish(target.get(), result, error) >= 0;
      return spliced(rig, target.get(), done, error);
    }};

std::optional<std::string>
nothing_if(bool done)
{
  return done ? std::optional<std::string>("") : std::nullopt;
}

const Operation close_plain = {"close", Way::blocking, [](Rig &rig, GError **error) {
                                 return nothing_if(g_input_stream_close(
                                     G_INPUT_STREAM(rig.reader()), rig.cancellable(), error));
                               }};

const Operation close_plain_async = {
    "close-async", Way::gio_async, [](Rig &rig, GError **error) {
      const auto stream = G_INPUT_STREAM(rig.reader());
      return nothing_if(g_input_stream_close_finish(
          stream, rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            g_input_stream_close_async(stream, G_PRIORITY_DEFAULT, rig.cancellable(), ready, data);
          }),
          error));
    }};

/* ---- Expectations ---- */

bool
is_one_of(const Operation &operation, std::initializer_list<const Operation *> list)
{
  for (const Operation *one : list)
    if (strcmp(one->name, operation.name) == 0)
      return true;
  return false;
}

bool
reads_strings(const Operation &operation)
{
  return is_one_of(operation, {&read_string, &read_string_async});
}

std::string
expected_value(const Operation &operation)
{
  if (reads_strings(operation))
    return line;
  if (is_one_of(operation, {&read_bytes, &read_bytes_async, &read_variant, &read_variant_async}))
    return payload;
  if (is_one_of(operation, {&splice_plain, &splice_plain_async}))
    return message + message;
  if (is_one_of(operation, {&close_plain, &close_plain_async}))
    return "";
  return message;
}

void
assert_closes(Rig &rig)
{
  Error error;
  rig.faults().disarm();
  g_assert_true(g_input_stream_close(G_INPUT_STREAM(rig.reader()), nullptr, &error));
  error.assert_none();
  g_assert_true(g_io_stream_close(rig.channel(), nullptr, &error));
  error.assert_none();
}

/* After a failure the same operation comes to an end again, and where the first had not got any
 * bytes, nothing is missing. */
void
assert_goes_on(const Case &one, Rig &rig, bool untouched)
{
  rig.faults().disarm();
  rig.renew_cancellable();
  Outcome again;
  again.value = one.operation.run(rig, &again.error);
  g_assert_true(again.value.has_value() == !again.error);
  rig.assert_idle();
  if (untouched)
    assert_bytes(*again.value, expected_value(one.operation));
}

/* How an operation ends if its stream ends after `got` bytes, with no stage. */
void
assert_end(const Operation &operation, gsize got, Outcome &outcome)
{
  const bool blocking = is_one_of(operation, {&read_bytes, &read_variant});
  if (reads_strings(operation)) {
    /* It asks on, until it is cancelled. */
    outcome.error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  } else if (blocking && got >= 4) {
    outcome.error.assert_none();
    const auto arrived = payload.substr(0, got - 4);
    assert_bytes(*outcome.value, arrived + std::string(payload.size() - arrived.size(), '\0'));
  } else if (blocking || is_one_of(operation, {&read_bytes_async, &read_variant_async})) {
    outcome.error.assert_is(GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
  } else {
    outcome.error.assert_none();
    assert_bytes(*outcome.value, (message + message).substr(0, got));
  }
}

void
test_read(const Case &one)
{
  const bool strings = reads_strings(one.operation);
  const gsize unit = first_unit(one.stages, strings);
  guint untouched = 0;
  at_every_step(
      one, [&](Rig &rig) { prepare(rig, strings); },
      [&](Rig &rig, Outcome &outcome) {
        const bool failed = !outcome.value;
        assert_outcome(one, rig, outcome, expected_value(one.operation));
        if (failed) {
          const bool nothing_lost = rig.faults().delivered() < unit;
          untouched += nothing_lost;
          assert_goes_on(one, rig, nothing_lost);
        }
        assert_closes(rig);
      });
  if (one.fault == Fault::fail || one.fault == Fault::cancel)
    g_assert_cmpuint(untouched, >=, 1);
}

void
test_close(const Case &one)
{
  at_every_step(
      one, [](Rig &rig) { prepare(rig, false); },
      [&](Rig &rig, Outcome &outcome) {
        assert_outcome(one, rig, outcome, "");
        /* Closed it is in any case. */
        g_assert_true(g_input_stream_is_closed(G_INPUT_STREAM(rig.reader())));
        Error error;
        g_assert_null(gvc_bytes_input_stream_read_bytes(rig.reader(), nullptr, &error));
        error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
        assert_closes(rig);
      });
}

void
test_end(const Case &one)
{
  const bool strings = reads_strings(one.operation);
  at_every_step(
      one,
      [&](Rig &rig) {
        prepare(rig, strings);
        rig.faults().patience = 3;
      },
      [&](Rig &rig, Outcome &outcome) {
        if (!rig.faults().reached()) {
          outcome.error.assert_none();
          assert_bytes(*outcome.value, expected_value(one.operation));
        } else if (one.stages == 0) {
          assert_end(one.operation, rig.faults().delivered(), outcome);
        } else if (is_one_of(one.operation, {&splice_plain, &splice_plain_async}) &&
                   outcome.value) {
          /* It has ended as it would without the fault. */
          g_assert_cmpuint(rig.faults().delivered(), ==, rig.faults().wire.size());
        } else {
          outcome.error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
        }
        assert_closes(rig);
      });
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  for (const Operation *operation :
       {&read_bytes, &read_bytes_async, &read_variant, &read_variant_async, &read_string,
        &read_string_async, &read_all_util, &read_plain, &read_plain_async, &skip_plain,
        &skip_plain_async, &splice_plain, &splice_plain_async}) {
    add_cases("read", *operation,
              {Fault::fail, Fault::fail_once, Fault::stall, Fault::trickle, Fault::cancel,
               Fault::cancel_late},
              test_read);
    add_cases("read", *operation, {Fault::end}, test_end);
  }
  for (const Operation *operation : {&close_plain, &close_plain_async})
    add_cases("read", *operation, {Fault::fail, Fault::stall, Fault::cancel, Fault::cancel_late},
              test_close, 1);
  return g_test_run();
}
