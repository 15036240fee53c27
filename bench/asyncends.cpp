// SPDX-License-Identifier: LGPL-2.1-or-later
#include "asyncends.h"

#include <cstring>
#include <utility>

namespace bench
{

// ---- Ends ----

static std::string_view
viewOf(GBytes *bytes)
{
  gsize size;
  auto *data = static_cast<const char *>(g_bytes_get_data(bytes, &size));
  return {data, size};
}

AsyncEnd::AsyncEnd(GIOStream *stream)
    : _in(share(g_io_stream_get_input_stream(stream))),
      _out(share(g_io_stream_get_output_stream(stream)))
{
}

void
AsyncEnd::send(GBytes *message)
{
  auto bytes = viewOf(message);
  g_output_stream_write_all_async(_out.get(), bytes.data(), bytes.size(), G_PRIORITY_DEFAULT,
                                  nullptr, bytesWritten, this);
}

void
AsyncEnd::bytesWritten(GObject *out, GAsyncResult *result, gpointer self)
{
  GError *error = nullptr;
  must(g_output_stream_write_all_finish(G_OUTPUT_STREAM(out), result, nullptr, &error), error,
       "write");
  static_cast<AsyncEnd *>(self)->sent();
}

namespace
{

// Streams that take turns on one base stream must not close it.
template <typename Stream>
Ref<Stream>
keepingBaseOpen(Stream *stream)
{
  gpointer filter = stream;
  if (G_IS_FILTER_INPUT_STREAM(filter))
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(filter), FALSE);
  else
    g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(filter), FALSE);
  return Ref<Stream>(stream);
}

class ZelgvcFrames : public AsyncEnd
{
public:
  explicit ZelgvcFrames(GIOStream *stream)
      : AsyncEnd(stream), _reader(keepingBaseOpen(gvc_bytes_input_stream_new(_in.get()))),
        _writer(keepingBaseOpen(gvc_bytes_output_stream_new(_out.get())))
  {
  }

  void
  send(GBytes *message) override
  {
    gvc_bytes_output_stream_put_bytes_async(_writer.get(), message, G_PRIORITY_DEFAULT, nullptr,
                                            written, this);
  }

  void
  receive() override
  {
    gvc_bytes_input_stream_read_bytes_async(_reader.get(), G_PRIORITY_DEFAULT, nullptr, arrived,
                                            this);
  }

private:
  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcFrames *>(user_data);
    GError *error = nullptr;
    must(gvc_bytes_output_stream_put_bytes_finish(self->_writer.get(), result, &error), error,
         "write");
    self->sent();
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcFrames *>(user_data);
    GError *error = nullptr;
    Ref<GBytes> message(
        gvc_bytes_input_stream_read_bytes_finish(self->_reader.get(), result, &error));
    must(message != nullptr, error, "read");
    self->received(viewOf(message.get()));
  }

  Ref<GvcBytesInputStream> _reader;
  Ref<GvcBytesOutputStream> _writer;
};

class HandFrames : public AsyncEnd
{
public:
  using AsyncEnd::AsyncEnd;

  void
  send(GBytes *message) override
  {
    _sending = message;
    _outPrefix = GUINT32_TO_LE(static_cast<guint32>(g_bytes_get_size(message)));
    g_output_stream_write_all_async(_out.get(), &_outPrefix, sizeof _outPrefix, G_PRIORITY_DEFAULT,
                                    nullptr, prefixWritten, this);
  }

  void
  receive() override
  {
    g_input_stream_read_all_async(_in.get(), &_inPrefix, sizeof _inPrefix, G_PRIORITY_DEFAULT,
                                  nullptr, prefixArrived, this);
  }

private:
  static void
  prefixWritten(GObject *out, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<HandFrames *>(user_data);
    GError *error = nullptr;
    must(g_output_stream_write_all_finish(G_OUTPUT_STREAM(out), result, nullptr, &error), error,
         "write");
    self->AsyncEnd::send(self->_sending);
  }

  static void
  prefixArrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<HandFrames *>(user_data);
    self->finishRead(result, sizeof self->_inPrefix);
    self->_size = GUINT32_FROM_LE(self->_inPrefix);
    self->_data = g_malloc(self->_size);
    g_input_stream_read_all_async(self->_in.get(), self->_data, self->_size, G_PRIORITY_DEFAULT,
                                  nullptr, arrived, self);
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<HandFrames *>(user_data);
    self->finishRead(result, self->_size);
    Ref<GBytes> message(g_bytes_new_take(self->_data, self->_size));
    self->received(viewOf(message.get()));
  }

  void
  finishRead(GAsyncResult *result, gsize wanted)
  {
    GError *error = nullptr;
    gsize nread;
    bool success = g_input_stream_read_all_finish(_in.get(), result, &nread, &error) != FALSE;
    must(success && nread == wanted, error, "read");
  }

  GBytes *_sending = nullptr;
  guint32 _outPrefix = 0;
  guint32 _inPrefix = 0;
  void *_data = nullptr;
  gsize _size = 0;
};

class ZelgvcStrings : public AsyncEnd
{
public:
  explicit ZelgvcStrings(GIOStream *stream)
      : AsyncEnd(stream), _reader(keepingBaseOpen(gvc_data_input_stream_new(_in.get())))
  {
  }

  void
  send(GBytes *message) override
  {
    auto bytes = viewOf(message);
    gvc_output_stream_util_write_all_async(_out.get(), bytes.data(), bytes.size(),
                                           G_PRIORITY_DEFAULT, nullptr, written, this);
  }

  void
  receive() override
  {
    gvc_data_input_stream_read_string_async(_reader.get(), '\n', G_PRIORITY_DEFAULT, nullptr,
                                            arrived, this);
  }

private:
  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcStrings *>(user_data);
    GError *error = nullptr;
    must(gvc_output_stream_util_write_all_finish(self->_out.get(), result, nullptr, &error), error,
         "write");
    self->sent();
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcStrings *>(user_data);
    GError *error = nullptr;
    gsize length;
    g_autofree gchar *string =
        gvc_data_input_stream_read_string_finish(self->_reader.get(), result, &length, &error);
    must(string != nullptr, error, "read");
    self->received({string, length});
  }

  Ref<GvcDataInputStream> _reader;
};

class GDataInputStreamStrings : public AsyncEnd
{
public:
  explicit GDataInputStreamStrings(GIOStream *stream)
      : AsyncEnd(stream), _reader(keepingBaseOpen(g_data_input_stream_new(_in.get())))
  {
  }

  void
  receive() override
  {
    g_data_input_stream_read_line_async(_reader.get(), G_PRIORITY_DEFAULT, nullptr, arrived, this);
  }

private:
  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GDataInputStreamStrings *>(user_data);
    GError *error = nullptr;
    gsize length;
    g_autofree char *line =
        g_data_input_stream_read_line_finish(self->_reader.get(), result, &length, &error);
    must(line != nullptr, error, "read");
    // GIO removed the line feed; its place is the NUL.
    line[length] = '\n';
    self->received({line, length + 1});
  }

  Ref<GDataInputStream> _reader;
};

template <typename Kind>
std::unique_ptr<AsyncEnd>
make(GIOStream *stream)
{
  return std::make_unique<Kind>(stream);
}

} // namespace

std::unique_ptr<AsyncEnd>
framesZelgvc(GIOStream *stream)
{
  return make<ZelgvcFrames>(stream);
}

std::unique_ptr<AsyncEnd>
framesByHand(GIOStream *stream)
{
  return make<HandFrames>(stream);
}

std::unique_ptr<AsyncEnd>
stringsZelgvc(GIOStream *stream)
{
  return make<ZelgvcStrings>(stream);
}

std::unique_ptr<AsyncEnd>
stringsGDataInputStream(GIOStream *stream)
{
  return make<GDataInputStreamStrings>(stream);
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
AsyncPair::checkArrived(std::string_view message) const
{
  must(message.size() == g_bytes_get_size(_message), nullptr,
       "a message of another length arrived");
  if (_checkContent)
    must(message == viewOf(_message), nullptr, "a message arrived changed");
}

// A run must leave no operation in flight, so the end of a send counts as well.
void
AsyncPair::sendNext()
{
  _sending = _toSend > 0;
  if (!_sending)
    return;
  _toSend--;
  _near->send(_message);
}

void
AsyncPair::prepare(GBytes *message, std::size_t times)
{
  _message = message;
  _toSend = _toReceive = times;
  _near->sent = [this] { sendNext(); };
  _far->received = [this](std::string_view arrived) {
    checkArrived(arrived);
    if (--_toReceive > 0)
      _far->receive();
  };
}

void
AsyncPair::oneWay(GBytes *message, std::size_t times)
{
  prepare(message, times);
  _far->receive();
  sendNext();
  iterateUntil([this] { return _toReceive == 0 && !_sending; });
}

void
AsyncPair::burst(GBytes *message, std::size_t times)
{
  prepare(message, times);
  sendNext();
  iterateUntil([this] { return !_sending; });
  _far->receive();
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
  _near->sent = _far->sent = [this] { stepDone(); };
  nextRoundTrip();
}

// A round trip is done when both sends are reported and the answer has arrived.
void
AsyncPair::nextRoundTrip()
{
  _steps = 3;
  armFar();
  armNear();
  _near->send(_message);
}

void
AsyncPair::stepDone()
{
  if (--_steps > 0)
    return;
  if (--_toSend > 0)
    nextRoundTrip();
  else
    --*_unfinished;
}

void
AsyncPair::armNear()
{
  if (std::exchange(_nearArmed, true))
    return;
  _near->received = [this](std::string_view message) {
    _nearArmed = false;
    checkArrived(message);
    if (_staysArmed)
      armNear();
    stepDone();
  };
  _near->receive();
}

void
AsyncPair::armFar()
{
  if (std::exchange(_farArmed, true))
    return;
  _far->received = [this](std::string_view message) {
    _farArmed = false;
    checkArrived(message);
    if (_staysArmed)
      armFar();
    _far->send(_message);
  };
  _far->receive();
}

void
AsyncPair::arm()
{
  _staysArmed = true;
  armNear();
  armFar();
}

} // namespace bench
