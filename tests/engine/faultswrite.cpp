// SPDX-License-Identifier: LGPL-2.1-or-later
// Every way to write, to flush and to close, over streams that misbehave at every possible step.
#include "tests/support/faulty.h"

using namespace support;
using namespace faulty;

namespace
{

using Way = Operation::Way;

const std::string payload = pattern(150, 3);
const std::string message = frame(payload);

std::optional<std::string>
nothing_if(bool done)
{
  return done ? std::optional<std::string>("") : std::nullopt;
}

GOutputStream *
stream_of(Rig &rig)
{
  return G_OUTPUT_STREAM(rig.writer());
}

GVariant *
new_variant()
{
  return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(), payload.size(), 1);
}

/* ---- The library's own operations ---- */

const Operation put_bytes = {
    "bytes", Way::blocking, [](Rig &rig, GError **error) {
      return nothing_if(gvc_bytes_output_stream_put_bytes(rig.writer(), new_bytes(payload).get(),
                                                          rig.cancellable(), error));
    }};

const Operation put_bytes_async = {
    "bytes-async", Way::async, [](Rig &rig, GError **error) {
      return nothing_if(gvc_bytes_output_stream_put_bytes_finish(
          rig.writer(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            gvc_bytes_output_stream_put_bytes_async(rig.writer(), new_bytes(payload).get(),
                                                    G_PRIORITY_DEFAULT, rig.cancellable(), ready,
                                                    data);
          }),
          error));
    }};

const Operation put_variant = {"variant", Way::blocking, [](Rig &rig, GError **error) {
                                 const VariantRef variant(g_variant_ref_sink(new_variant()));
                                 return nothing_if(gvc_bytes_output_stream_put_variant(
                                     rig.writer(), variant.get(), rig.cancellable(), error));
                               }};

const Operation put_variant_async = {
    "variant-async", Way::async, [](Rig &rig, GError **error) {
      return nothing_if(gvc_bytes_output_stream_put_variant_finish(
          rig.writer(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            const VariantRef variant(g_variant_ref_sink(new_variant()));
            gvc_bytes_output_stream_put_variant_async(
                rig.writer(), variant.get(), G_PRIORITY_DEFAULT, rig.cancellable(), ready, data);
          }),
          error));
    }};

/* Straight to the channel. */
const Operation write_all_util = {
    "write-all-util", Way::async, [](Rig &rig, GError **error) {
      const gsize before = rig.faults().accepted.size();
      GAsyncResult *const result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        gvc_output_stream_util_write_all_async(rig.out(), message.data(), message.size(),
                                               G_PRIORITY_DEFAULT, rig.cancellable(), ready, data);
      });
      gsize count = G_MAXSIZE;
      const bool done = gvc_output_stream_util_write_all_finish(rig.out(), result, &count, error);
      g_assert_cmpuint(count, <=, message.size());
      if (done)
        g_assert_cmpuint(count, ==, message.size());
      else if (rig.stages() == 0 && g_error_matches(*error, fault_quark(), fault_code))
        g_assert_cmpuint(count, ==, rig.faults().accepted.size() - before);
      return nothing_if(done);
    }};

/* ---- The inherited ones, on the message stream ---- */

const Operation write_plain = {
    "write", Way::blocking, [](Rig &rig, GError **error) {
      return nothing_if(g_output_stream_write_all(stream_of(rig), message.data(), message.size(),
                                                  nullptr, rig.cancellable(), error));
    }};

/* GIO's own asynchronous write may succeed before its bytes have left. A flush sends them. */
const Operation write_plain_async = {
    "write-and-flush-async", Way::gio_async, [](Rig &rig, GError **error) {
      GAsyncResult *result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        g_output_stream_write_all_async(stream_of(rig), message.data(), message.size(),
                                        G_PRIORITY_DEFAULT, rig.cancellable(), ready, data);
      });
      if (!g_output_stream_write_all_finish(stream_of(rig), result, nullptr, error))
        return nothing_if(false);
      result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        g_output_stream_flush_async(stream_of(rig), G_PRIORITY_DEFAULT, rig.cancellable(), ready,
                                    data);
      });
      return nothing_if(g_output_stream_flush_finish(stream_of(rig), result, error));
    }};

Ref<GInputStream>
new_source()
{
  return own(g_memory_input_stream_new_from_data(message.data(),
                                                 static_cast<gssize>(message.size()), nullptr));
}

const Operation splice_plain = {"splice", Way::blocking, [](Rig &rig, GError **error) {
                                  return nothing_if(
                                      g_output_stream_splice(stream_of(rig), new_source().get(),
                                                             G_OUTPUT_STREAM_SPLICE_CLOSE_SOURCE,
                                                             rig.cancellable(), error) >= 0);
                                }};

const Operation splice_plain_async = {
    "splice-and-flush-async", Way::gio_async, [](Rig &rig, GError **error) {
      GAsyncResult *result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        g_output_stream_splice_async(stream_of(rig), new_source().get(),
                                     G_OUTPUT_STREAM_SPLICE_CLOSE_SOURCE, G_PRIORITY_DEFAULT,
                                     rig.cancellable(), ready, data);
      });
      if (g_output_stream_splice_finish(stream_of(rig), result, error) < 0)
        return nothing_if(false);
      result = rig.await([&](GAsyncReadyCallback ready, gpointer data) {
        g_output_stream_flush_async(stream_of(rig), G_PRIORITY_DEFAULT, rig.cancellable(), ready,
                                    data);
      });
      return nothing_if(g_output_stream_flush_finish(stream_of(rig), result, error));
    }};

const Operation flush_plain = {
    "flush", Way::blocking, [](Rig &rig, GError **error) {
      return nothing_if(g_output_stream_flush(stream_of(rig), rig.cancellable(), error));
    }};

const Operation flush_plain_async = {
    "flush-async", Way::gio_async, [](Rig &rig, GError **error) {
      return nothing_if(g_output_stream_flush_finish(
          stream_of(rig), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            g_output_stream_flush_async(stream_of(rig), G_PRIORITY_DEFAULT, rig.cancellable(),
                                        ready, data);
          }),
          error));
    }};

const Operation close_plain = {
    "close", Way::blocking, [](Rig &rig, GError **error) {
      return nothing_if(g_output_stream_close(stream_of(rig), rig.cancellable(), error));
    }};

const Operation close_plain_async = {
    "close-async", Way::gio_async, [](Rig &rig, GError **error) {
      return nothing_if(g_output_stream_close_finish(
          stream_of(rig), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            g_output_stream_close_async(stream_of(rig), G_PRIORITY_DEFAULT, rig.cancellable(),
                                        ready, data);
          }),
          error));
    }};

const Operation close_channel = {"close-channel", Way::blocking, [](Rig &rig, GError **error) {
                                   return nothing_if(
                                       g_io_stream_close(rig.channel(), rig.cancellable(), error));
                                 }};

const Operation close_channel_async = {
    "close-channel-async", Way::async, [](Rig &rig, GError **error) {
      return nothing_if(g_io_stream_close_finish(
          rig.channel(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            g_io_stream_close_async(rig.channel(), G_PRIORITY_DEFAULT, rig.cancellable(), ready,
                                    data);
          }),
          error));
    }};

/* ---- Expectations ---- */

void
set_chunk(Rig &rig)
{
  rig.faults().chunk = rig.stages() == 0 ? 25 : 61;
}

/* The peer gets the accepted part of the first attempt and then all of the second one: no byte is
 * lost, and none comes twice. */
void
assert_first_part_then_whole(const Rig &rig)
{
  const std::string plain = from_stages(rig.stages(), rig.faults().accepted);
  g_assert_cmpuint(plain.size(), >=, message.size());
  const gsize part = plain.size() - message.size();
  g_assert_cmpuint(part, <=, message.size());
  assert_bytes(plain.substr(0, part), message.substr(0, part));
  assert_bytes(plain.substr(part), message);
}

void
assert_closes(Rig &rig)
{
  Error error;
  rig.faults().disarm();
  const bool open = !g_output_stream_is_closed(rig.out());
  g_assert_true(g_output_stream_close(stream_of(rig), nullptr, &error) == open);
  if (open)
    error.assert_none();
  else
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
  g_assert_true(g_io_stream_close(rig.channel(), nullptr, &error));
  error.assert_none();
}

/* Leaves a message in the stages, as far as they take one: the socket is full. */
void
fill_stages(Rig &rig)
{
  set_chunk(rig);
  if (rig.flavour() == Flavour::blocking || rig.stages() == 0)
    return;
  rig.faults().jammed = true;
  Error error;
  const gssize count = g_pollable_output_stream_write_nonblocking(
      G_POLLABLE_OUTPUT_STREAM(rig.writer()), message.data(), message.size(), nullptr, &error);
  error.assert_none();
  g_assert_cmpint(count, ==, static_cast<gssize>(message.size()));
  g_assert_true(rig.faults().accepted.empty());
  rig.faults().jammed = false;
}

std::string
filled(const Rig &rig)
{
  return rig.flavour() == Flavour::blocking || rig.stages() == 0 ? "" : message;
}

void
test_write(const Case &one)
{
  at_every_step(one, set_chunk, [&](Rig &rig, Outcome &outcome) {
    const bool failed = !outcome.value;
    assert_outcome(one, rig, outcome, "");
    if (!failed) {
      assert_bytes(from_stages(one.stages, rig.faults().accepted), message);
    } else {
      rig.faults().disarm();
      rig.renew_cancellable();
      Outcome again;
      again.value = one.operation.run(rig, &again.error);
      again.error.assert_none();
      rig.assert_idle();
      assert_first_part_then_whole(rig);
    }
    const std::string before = from_stages(one.stages, rig.faults().accepted);
    assert_closes(rig);
    assert_bytes(from_stages(one.stages, rig.faults().accepted), before);
  });
}

/* A flush that failed can be made good by another one. */
void
test_flush(const Case &one)
{
  at_every_step(one, fill_stages, [&](Rig &rig, Outcome &outcome) {
    const bool failed = !outcome.value;
    assert_outcome(one, rig, outcome, "");
    if (failed) {
      rig.faults().disarm();
      rig.renew_cancellable();
      Outcome again;
      again.value = one.operation.run(rig, &again.error);
      again.error.assert_none();
      rig.assert_idle();
    }
    assert_bytes(from_stages(one.stages, rig.faults().accepted), filled(rig));
    assert_closes(rig);
    assert_bytes(from_stages(one.stages, rig.faults().accepted), filled(rig));
  });
}

/* A stream that cannot send its bytes when it closes loses them, and is closed nevertheless. */
void
test_close(const Case &one)
{
  const bool channel = one.operation.way == Way::async || strstr(one.operation.name, "channel");
  at_every_step(one, fill_stages, [&](Rig &rig, Outcome &outcome) {
    const bool failed = !outcome.value;
    assert_outcome(one, rig, outcome, "");
    if (!failed)
      assert_bytes(from_stages(one.stages, rig.faults().accepted), filled(rig));
    g_assert_true(channel ? g_io_stream_is_closed(rig.channel())
                          : g_output_stream_is_closed(stream_of(rig)));
    /* If closing the input failed, the output was left open. */
    if (!channel) {
      Error error;
      g_assert_false(gvc_bytes_output_stream_put_bytes(rig.writer(), new_bytes(payload).get(),
                                                       nullptr, &error));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
      g_assert_true(g_output_stream_close(stream_of(rig), nullptr, &error));
      error.assert_none();
    } else {
      g_assert_true(failed || g_output_stream_is_closed(rig.out()));
      assert_closes(rig);
    }
  });
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  for (const Operation *operation :
       {&put_bytes, &put_bytes_async, &put_variant, &put_variant_async, &write_all_util,
        &write_plain, &write_plain_async, &splice_plain, &splice_plain_async})
    add_cases("write", *operation,
              {Fault::fail, Fault::fail_once, Fault::stall, Fault::trickle, Fault::cancel,
               Fault::cancel_late},
              test_write);
  for (const Operation *operation : {&flush_plain, &flush_plain_async})
    add_cases("write", *operation,
              {Fault::fail, Fault::stall, Fault::trickle, Fault::cancel, Fault::cancel_late},
              test_flush, 1);
  for (const Operation *operation :
       {&close_plain, &close_plain_async, &close_channel, &close_channel_async})
    add_cases("write", *operation,
              {Fault::fail, Fault::stall, Fault::trickle, Fault::cancel, Fault::cancel_late},
              test_close);
  return g_test_run();
}
