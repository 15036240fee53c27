// SPDX-License-Identifier: LGPL-2.1-or-later
#include "asyncends.h"

#include <utility>

namespace bench
{

// ---- Methods ----

namespace
{

template <auto writeAllAsync = g_output_stream_write_all_async>
void
writeAll(AsyncEnd &end)
{
  gsize size;
  auto *data = g_bytes_get_data(end.sending, &size);
  writeAllAsync(end.out.get(), data, size, G_PRIORITY_DEFAULT, nullptr, AsyncEnd::whenSent, &end);
}

template <auto writeAllFinish = g_output_stream_write_all_finish>
bool
wroteAll(AsyncEnd &end, GAsyncResult *result, GError **error)
{
  return writeAllFinish(end.out.get(), result, nullptr, error);
}

// An error is reported by the caller, which finds it set.
bool
take(AsyncEnd &end, GBytes *message)
{
  end.arrived.reset(message);
  return true;
}

void
readAll(AsyncEnd &end, void *data, gsize size)
{
  g_input_stream_read_all_async(end.in.get(), data, size, G_PRIORITY_DEFAULT, nullptr,
                                AsyncEnd::whenReceived, &end);
}

void
sendPrefix(AsyncEnd &end)
{
  end.outPrefix = GUINT32_TO_LE(static_cast<guint32>(g_bytes_get_size(end.sending)));
  g_output_stream_write_all_async(end.out.get(), &end.outPrefix, sizeof end.outPrefix,
                                  G_PRIORITY_DEFAULT, nullptr, AsyncEnd::whenSent, &end);
}

bool
sentByHand(AsyncEnd &end, GAsyncResult *result, GError **error)
{
  if (!wroteAll<>(end, result, error))
    return true;
  end.prefixSent = !end.prefixSent;
  if (end.prefixSent)
    writeAll<>(end);
  return !end.prefixSent;
}

bool
receivedByHand(AsyncEnd &end, GAsyncResult *result, GError **error)
{
  gsize nread;
  if (!g_input_stream_read_all_finish(end.in.get(), result, &nread, error))
    return true;
  if (end.data)
    return take(end, g_bytes_new_take(std::exchange(end.data, nullptr), nread));
  auto size = GUINT32_FROM_LE(end.inPrefix);
  end.data = g_malloc(size);
  readAll(end, end.data, size);
  return false;
}

} // namespace

const Method framesZelgvc = {
    gvc_bytes_input_stream_get_type,
    gvc_bytes_output_stream_get_type,
    [](AsyncEnd &end) {
      gvc_bytes_output_stream_put_bytes_async(GVC_BYTES_OUTPUT_STREAM(end.out.get()), end.sending,
                                              G_PRIORITY_DEFAULT, nullptr, AsyncEnd::whenSent,
                                              &end);
    },
    [](AsyncEnd &end, GAsyncResult *result, GError **error) -> bool {
      gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(end.out.get()), result,
                                               error);
      return true;
    },
    [](AsyncEnd &end) {
      gvc_bytes_input_stream_read_bytes_async(GVC_BYTES_INPUT_STREAM(end.in.get()),
                                              G_PRIORITY_DEFAULT, nullptr, AsyncEnd::whenReceived,
                                              &end);
    },
    [](AsyncEnd &end, GAsyncResult *result, GError **error) {
      return take(end, gvc_bytes_input_stream_read_bytes_finish(
                           GVC_BYTES_INPUT_STREAM(end.in.get()), result, error));
    }};

const Method framesByHand = {
    nullptr,
    nullptr,
    sendPrefix,
    sentByHand,
    [](AsyncEnd &end) { readAll(end, &end.inPrefix, sizeof end.inPrefix); },
    receivedByHand};

const Method stringsZelgvc = {gvc_data_input_stream_get_type,
                              nullptr,
                              writeAll<gvc_output_stream_util_write_all_async>,
                              wroteAll<gvc_output_stream_util_write_all_finish>,
                              [](AsyncEnd &end) {
                                gvc_data_input_stream_read_string_async(
                                    GVC_DATA_INPUT_STREAM(end.in.get()), '\n', G_PRIORITY_DEFAULT,
                                    nullptr, AsyncEnd::whenReceived, &end);
                              },
                              [](AsyncEnd &end, GAsyncResult *result, GError **error) {
                                gsize length;
                                auto *string = gvc_data_input_stream_read_string_finish(
                                    GVC_DATA_INPUT_STREAM(end.in.get()), result, &length, error);
                                return take(end, g_bytes_new_take(string, string ? length : 0));
                              }};

const Method stringsGDataInputStream = {
    g_data_input_stream_get_type,
    nullptr,
    writeAll<>,
    wroteAll<>,
    [](AsyncEnd &end) {
      g_data_input_stream_read_line_async(G_DATA_INPUT_STREAM(end.in.get()), G_PRIORITY_DEFAULT,
                                          nullptr, AsyncEnd::whenReceived, &end);
    },
    [](AsyncEnd &end, GAsyncResult *result, GError **error) {
      gsize length;
      char *line = g_data_input_stream_read_line_finish(G_DATA_INPUT_STREAM(end.in.get()), result,
                                                        &length, error);
      // GIO removed the line feed; its place is the NUL.
      if (line)
        line[length] = '\n';
      return take(end, g_bytes_new_take(line, line ? length + 1 : 0));
    }};

// ---- Ends ----

AsyncEnd::AsyncEnd(GIOStream *stream, const Method &method)
    : in(wrap(g_io_stream_get_input_stream(stream), method.inputType)),
      out(wrap(g_io_stream_get_output_stream(stream), method.outputType)),
      _stream(G_IO_STREAM(g_object_ref(stream))), _method(method)
{
}

void
AsyncEnd::send(GBytes *message, std::size_t times)
{
  sending = message;
  _toSend += times;
  if (_toSend == times)
    _method.send(*this);
}

void
AsyncEnd::receive(std::size_t times)
{
  _toReceive = times;
  _method.receive(*this);
}

void
AsyncEnd::whenSent(GObject *, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<AsyncEnd *>(user_data);
  GError *error = nullptr;
  bool done = self->_method.sent(*self, result, &error);
  must(!error, error, "write");
  if (done && --self->_toSend > 0)
    self->_method.send(*self);
}

void
AsyncEnd::whenReceived(GObject *, GAsyncResult *result, gpointer user_data)
{
  auto *self = static_cast<AsyncEnd *>(user_data);
  GError *error = nullptr;
  bool done = self->_method.received(*self, result, &error);
  must(!error, error, "read");
  if (!done)
    return;
  auto message = std::move(self->arrived); // memory at rest must not count it
  if (--self->_toReceive > 0)
    self->_method.receive(*self);
  self->onReceived(message.get());
}

// ---- Pairs ----

AsyncPair::AsyncPair(const Streams &streams, const Method &method)
    : _near(streams.near.get(), method), _far(streams.far.get(), method)
{
  _near.onReceived = [this](GBytes *arrived) {
    checkArrived(arrived);
    if (--_trips > 0)
      _near.send(_message, 1);
    else
      --*_unfinished;
  };
  _far.onReceived = [this](GBytes *arrived) {
    checkArrived(arrived);
    if (_trips > 0)
      _far.send(_message, 1);
  };
}

void
AsyncPair::wait() const
{
  while (_near.busy() || _far.busy())
    g_main_context_iteration(g_main_context_get_thread_default(), TRUE);
}

void
AsyncPair::checkArrived(GBytes *arrived) const
{
  must(g_bytes_get_size(arrived) == g_bytes_get_size(_message), nullptr,
       "a message of another length arrived");
  if (_checkContent)
    must(g_bytes_equal(arrived, _message), nullptr, "a message arrived changed");
}

void
AsyncPair::check(GBytes *message)
{
  _checkContent = true;
  oneWay(message, 2);
  roundTrips(message, 2);
  _checkContent = false;
}

void
AsyncPair::oneWay(GBytes *message, std::size_t times)
{
  _message = message;
  _far.receive(times);
  _near.send(message, times);
  wait();
}

void
AsyncPair::burst(GBytes *message, std::size_t times)
{
  _message = message;
  _near.send(message, times);
  wait();
  _far.receive(times);
  wait();
}

void
AsyncPair::roundTrips(GBytes *message, std::size_t times)
{
  std::size_t unfinished = 1;
  _far.receive(times);
  _near.receive(times);
  start(message, times, &unfinished);
  wait();
}

void
AsyncPair::arm()
{
  _far.receive(SIZE_MAX);
  _near.receive(SIZE_MAX);
}

void
AsyncPair::start(GBytes *message, std::size_t times, std::size_t *unfinished)
{
  _message = message;
  _trips = times;
  _unfinished = unfinished;
  _near.send(message, 1);
}

} // namespace bench
