// SPDX-License-Identifier: LGPL-2.1-or-later
#include "asyncends.h"

#include <cstring>
#include <utility>

namespace bench
{

// ---- What all ends share ----

AsyncEnd::AsyncEnd(GIOStream *stream)
    : _in(share(g_io_stream_get_input_stream(stream))),
      _out(share(g_io_stream_get_output_stream(stream)))
{
}

void
AsyncEnd::send(GBytes *message, Sent sent, void *user_data)
{
  _sent = sent;
  _sentData = user_data;
  startSending(message);
}

void
AsyncEnd::receive(Received received, void *user_data)
{
  _received = received;
  _receivedData = user_data;
  startReceiving();
}

void
AsyncEnd::end()
{
  _ending = true;
}

void
AsyncEnd::startSending(GBytes *message)
{
  gsize size;
  auto *data = g_bytes_get_data(message, &size);
  g_output_stream_write_all_async(_out.get(), data, size, G_PRIORITY_DEFAULT, nullptr, bytesWritten,
                                  this);
}

void
AsyncEnd::checkSent(bool success, GError *error)
{
  must(success, error, "write");
  _sent(_sentData);
}

bool
AsyncEnd::checkReceived(bool success, GError *error)
{
  must(success || _ending, error, "read");
  g_clear_error(&error);
  if (!success)
    tellReceived(nullptr, 0);
  return success;
}

void
AsyncEnd::tellReceived(const void *message, gsize size)
{
  _received(message, size, _receivedData);
}

void
AsyncEnd::bytesWritten(GObject *out, GAsyncResult *result, gpointer user_data)
{
  GError *error = nullptr;
  bool success =
      g_output_stream_write_all_finish(G_OUTPUT_STREAM(out), result, nullptr, &error) != FALSE;
  static_cast<AsyncEnd *>(user_data)->checkSent(success, error);
}

namespace
{

// ---- Frames ----

class ZelgvcFrames : public AsyncEnd
{
public:
  explicit ZelgvcFrames(GIOStream *stream)
      : AsyncEnd(stream), _frames_in(keepingBaseOpen(gvc_bytes_input_stream_new(_in.get()))),
        _frames_out(keepingBaseOpen(gvc_bytes_output_stream_new(_out.get())))
  {
  }

private:
  void
  startSending(GBytes *message) override
  {
    gvc_bytes_output_stream_put_bytes_async(_frames_out.get(), message, G_PRIORITY_DEFAULT, nullptr,
                                            written, this);
  }

  void
  startReceiving() override
  {
    gvc_bytes_input_stream_read_bytes_async(_frames_in.get(), G_PRIORITY_DEFAULT, nullptr, arrived,
                                            this);
  }

  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcFrames *>(user_data);
    GError *error = nullptr;
    bool success =
        gvc_bytes_output_stream_put_bytes_finish(self->_frames_out.get(), result, &error) != FALSE;
    self->checkSent(success, error);
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcFrames *>(user_data);
    GError *error = nullptr;
    SharedBytes message(
        gvc_bytes_input_stream_read_bytes_finish(self->_frames_in.get(), result, &error));
    if (!self->checkReceived(message != nullptr, error))
      return;
    gsize size;
    auto *data = g_bytes_get_data(message.get(), &size);
    self->tellReceived(data, size);
  }

  Object<GvcBytesInputStream> _frames_in;
  Object<GvcBytesOutputStream> _frames_out;
};

class GioFrames : public AsyncEnd
{
public:
  using AsyncEnd::AsyncEnd;

private:
  void
  startSending(GBytes *message) override
  {
    _sending = message;
    _out_prefix = GUINT32_TO_LE(static_cast<guint32>(g_bytes_get_size(message)));
    g_output_stream_write_all_async(_out.get(), &_out_prefix, sizeof _out_prefix,
                                    G_PRIORITY_DEFAULT, nullptr, prefixWritten, this);
  }

  void
  startReceiving() override
  {
    g_input_stream_read_all_async(_in.get(), &_in_prefix, sizeof _in_prefix, G_PRIORITY_DEFAULT,
                                  nullptr, prefixArrived, this);
  }

  static void
  prefixWritten(GObject *out, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GioFrames *>(user_data);
    GError *error = nullptr;
    must(g_output_stream_write_all_finish(G_OUTPUT_STREAM(out), result, nullptr, &error), error,
         "write");
    self->AsyncEnd::startSending(self->_sending);
  }

  static void
  prefixArrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GioFrames *>(user_data);
    if (!self->finishRead(result, sizeof self->_in_prefix))
      return;
    self->_size = GUINT32_FROM_LE(self->_in_prefix);
    self->_message = g_malloc(self->_size);
    g_input_stream_read_all_async(self->_in.get(), self->_message, self->_size, G_PRIORITY_DEFAULT,
                                  nullptr, arrived, self);
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GioFrames *>(user_data);
    if (!self->finishRead(result, self->_size))
      return;
    SharedBytes message(g_bytes_new_take(self->_message, self->_size));
    gsize size;
    auto *data = g_bytes_get_data(message.get(), &size);
    self->tellReceived(data, size);
  }

  bool
  finishRead(GAsyncResult *result, gsize wanted)
  {
    GError *error = nullptr;
    gsize nread;
    bool success = g_input_stream_read_all_finish(_in.get(), result, &nread, &error) != FALSE;
    return checkReceived(success && nread == wanted, error);
  }

  GBytes *_sending = nullptr;
  guint32 _out_prefix = 0;
  guint32 _in_prefix = 0;
  void *_message = nullptr;
  gsize _size = 0;
};

// ---- Strings ----

class ZelgvcStrings : public AsyncEnd
{
public:
  explicit ZelgvcStrings(GIOStream *stream)
      : AsyncEnd(stream), _strings(keepingBaseOpen(gvc_data_input_stream_new(_in.get())))
  {
  }

private:
  void
  startSending(GBytes *message) override
  {
    gsize size;
    auto *data = g_bytes_get_data(message, &size);
    gvc_output_stream_util_write_all_async(_out.get(), data, size, G_PRIORITY_DEFAULT, nullptr,
                                           written, this);
  }

  void
  startReceiving() override
  {
    gvc_data_input_stream_read_string_async(_strings.get(), '\n', G_PRIORITY_DEFAULT, nullptr,
                                            arrived, this);
  }

  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcStrings *>(user_data);
    GError *error = nullptr;
    bool success =
        gvc_output_stream_util_write_all_finish(self->_out.get(), result, nullptr, &error) != FALSE;
    self->checkSent(success, error);
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcStrings *>(user_data);
    GError *error = nullptr;
    gsize length;
    g_autofree gchar *string =
        gvc_data_input_stream_read_string_finish(self->_strings.get(), result, &length, &error);
    if (self->checkReceived(string != nullptr, error))
      self->tellReceived(string, length);
  }

  Object<GvcDataInputStream> _strings;
};

class GDataInputStreamStrings : public AsyncEnd
{
public:
  explicit GDataInputStreamStrings(GIOStream *stream)
      : AsyncEnd(stream), _lines(keepingBaseOpen(g_data_input_stream_new(_in.get())))
  {
  }

private:
  void
  startReceiving() override
  {
    g_data_input_stream_read_line_async(_lines.get(), G_PRIORITY_DEFAULT, nullptr, arrived, this);
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GDataInputStreamStrings *>(user_data);
    GError *error = nullptr;
    gsize length;
    g_autofree char *line =
        g_data_input_stream_read_line_finish(self->_lines.get(), result, &length, &error);
    if (!self->checkReceived(line != nullptr, error))
      return;
    // The line has lost its end; the NUL there makes room for it.
    line[length] = '\n';
    self->tellReceived(line, length + 1);
  }

  Object<GDataInputStream> _lines;
};

} // namespace

std::unique_ptr<AsyncEnd>
framesZelgvc(GIOStream *stream)
{
  return std::make_unique<ZelgvcFrames>(stream);
}

std::unique_ptr<AsyncEnd>
framesGio(GIOStream *stream)
{
  return std::make_unique<GioFrames>(stream);
}

std::unique_ptr<AsyncEnd>
stringsZelgvc(GIOStream *stream)
{
  return std::make_unique<ZelgvcStrings>(stream);
}

std::unique_ptr<AsyncEnd>
stringsGDataInputStream(GIOStream *stream)
{
  return std::make_unique<GDataInputStreamStrings>(stream);
}

// ---- Driving a pair ----

template <typename Condition>
static void
iterateUntil(Condition done)
{
  while (!done())
    g_main_context_iteration(g_main_context_get_thread_default(), TRUE);
}

AsyncPair::AsyncPair(Streams streams, MakeAsyncEnd make)
    : _streams(std::move(streams)), _near(make(_streams->near.get())),
      _far(make(_streams->far.get()))
{
}

void
AsyncPair::checkArrived(const void *message, gsize size) const
{
  gsize wanted_size;
  auto *wanted = g_bytes_get_data(_message, &wanted_size);
  must(size == wanted_size, nullptr, "a message of another length arrived");
  if (_checkContent)
    must(std::memcmp(message, wanted, size) == 0, nullptr, "a message arrived changed");
}

// No operation may be left in flight when a run ends, so the end of a send counts as well.
void
AsyncPair::sendNext()
{
  _sending = _toSend > 0;
  if (!_sending)
    return;
  _toSend--;
  _near->send(
      _message, [](void *self) { static_cast<AsyncPair *>(self)->sendNext(); }, this);
}

void
AsyncPair::receiveNext()
{
  auto arrived = [](const void *message, gsize size, void *user_data) {
    auto *self = static_cast<AsyncPair *>(user_data);
    self->checkArrived(message, size);
    if (--self->_toReceive > 0)
      self->receiveNext();
  };
  _far->receive(arrived, this);
}

void
AsyncPair::oneWay(GBytes *message, std::size_t times)
{
  _message = message;
  _toSend = _toReceive = times;
  receiveNext();
  sendNext();
  iterateUntil([this] { return _toReceive == 0 && !_sending; });
}

void
AsyncPair::burst(GBytes *message, std::size_t times)
{
  _message = message;
  _toSend = _toReceive = times;
  sendNext();
  iterateUntil([this] { return !_sending; });
  receiveNext();
  iterateUntil([this] { return _toReceive == 0; });
}

void
AsyncPair::check(GBytes *message)
{
  _checkContent = true;
  oneWay(message, 2);
  roundTrips(message, 2);
  _checkContent = false;
}

// ---- Round trips ----

void
AsyncPair::roundTrips(GBytes *message, std::size_t times)
{
  std::size_t unfinished = 1;
  start(message, times, &unfinished);
  iterateUntil([&] { return unfinished == 0; });
}

void
AsyncPair::start(GBytes *message, std::size_t times, std::size_t *unfinished)
{
  _message = message;
  _toSend = times;
  _unfinished = unfinished;
  nextRoundTrip();
}

// A round trip is done when both sends are reported and the answer has arrived.
void
AsyncPair::nextRoundTrip()
{
  _steps = 3;
  armFar();
  armNear();
  _near->send(_message, stepDone, this);
}

void
AsyncPair::stepDone(void *user_data)
{
  auto *self = static_cast<AsyncPair *>(user_data);
  if (--self->_steps > 0)
    return;
  if (--self->_toSend > 0)
    self->nextRoundTrip();
  else
    --*self->_unfinished;
}

void
AsyncPair::armNear()
{
  if (std::exchange(_nearArmed, true))
    return;
  auto answered = [](const void *message, gsize size, void *user_data) {
    auto *self = static_cast<AsyncPair *>(user_data);
    self->_nearArmed = false;
    if (!message)
      return;
    self->checkArrived(message, size);
    if (self->_staysArmed)
      self->armNear();
    stepDone(self);
  };
  _near->receive(answered, this);
}

void
AsyncPair::armFar()
{
  if (std::exchange(_farArmed, true))
    return;
  auto requested = [](const void *message, gsize size, void *user_data) {
    auto *self = static_cast<AsyncPair *>(user_data);
    self->_farArmed = false;
    if (!message)
      return;
    self->checkArrived(message, size);
    if (self->_staysArmed)
      self->armFar();
    self->_far->send(self->_message, stepDone, self);
  };
  _far->receive(requested, this);
}

void
AsyncPair::arm()
{
  _staysArmed = true;
  armNear();
  armFar();
}

void
AsyncPair::shutDown(const SocketPair &sockets)
{
  _near->end();
  _far->end();
  // Ends both directions of both ends.
  g_socket_shutdown(g_socket_connection_get_socket(sockets.near.get()), TRUE, TRUE, nullptr);
}

} // namespace bench
