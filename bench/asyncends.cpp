// SPDX-License-Identifier: LGPL-2.1-or-later
#include "asyncends.h"

#include <cstring>
#include <vector>

// ---- Opaque streams ----

typedef GFilterInputStream BenchOpaqueInput;
typedef GFilterInputStreamClass BenchOpaqueInputClass;
typedef GFilterOutputStream BenchOpaqueOutput;
typedef GFilterOutputStreamClass BenchOpaqueOutputClass;

static GType bench_opaque_input_get_type(void);
static GType bench_opaque_output_get_type(void);

G_DEFINE_TYPE(BenchOpaqueInput, bench_opaque_input, G_TYPE_FILTER_INPUT_STREAM)
G_DEFINE_TYPE(BenchOpaqueOutput, bench_opaque_output, G_TYPE_FILTER_OUTPUT_STREAM)

static void
bench_opaque_input_class_init(BenchOpaqueInputClass *)
{
}

static void
bench_opaque_input_init(BenchOpaqueInput *)
{
}

static void
bench_opaque_output_class_init(BenchOpaqueOutputClass *)
{
}

static void
bench_opaque_output_init(BenchOpaqueOutput *)
{
}

namespace bench
{

Object<GInputStream>
makeOpaque(GInputStream *base)
{
  return Object<GInputStream>(static_cast<GInputStream *>(
      g_object_new(bench_opaque_input_get_type(), "base-stream", base, nullptr)));
}

Object<GOutputStream>
makeOpaque(GOutputStream *base)
{
  return Object<GOutputStream>(static_cast<GOutputStream *>(
      g_object_new(bench_opaque_output_get_type(), "base-stream", base, nullptr)));
}

namespace
{

// ---- What all ends share: who waits for what ----

class BaseEnd : public AsyncEnd
{
protected:
  void
  expectSent(Sent sent, void *user_data)
  {
    _sent = sent;
    _sent_data = user_data;
  }

  void
  expectReceived(Received received, void *user_data)
  {
    _received = received;
    _received_data = user_data;
  }

  void
  tellSent()
  {
    _sent(_sent_data);
  }

  void
  tellReceived(const void *message, gsize size)
  {
    _received(message, size, _received_data);
  }

private:
  Sent _sent = nullptr;
  void *_sent_data = nullptr;
  Received _received = nullptr;
  void *_received_data = nullptr;
};

// ---- Frames ----

class ZelgvcEnd : public BaseEnd
{
public:
  ZelgvcEnd(GInputStream *in, GOutputStream *out)
      : _in(gvc_bytes_input_stream_new(in)), _out(gvc_bytes_output_stream_new(out))
  {
    // What is below belongs to the caller.
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(_in.get()), FALSE);
    g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(_out.get()), FALSE);
  }

  void
  send(GBytes *message, Sent sent, void *user_data) override
  {
    expectSent(sent, user_data);
    gvc_bytes_output_stream_put_bytes_async(_out.get(), message, G_PRIORITY_DEFAULT, nullptr,
                                            written, this);
  }

  void
  receive(Received received, void *user_data) override
  {
    expectReceived(received, user_data);
    gvc_bytes_input_stream_read_bytes_async(_in.get(), G_PRIORITY_DEFAULT, nullptr, arrived, this);
  }

private:
  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcEnd *>(user_data);
    GError *error = nullptr;
    must(gvc_bytes_output_stream_put_bytes_finish(self->_out.get(), result, &error), error, "send");
    self->tellSent();
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<ZelgvcEnd *>(user_data);
    GError *error = nullptr;
    SharedBytes message(gvc_bytes_input_stream_read_bytes_finish(self->_in.get(), result, &error));
    must(message != nullptr, error, "receive");
    gsize size;
    auto *data = g_bytes_get_data(message.get(), &size);
    self->tellReceived(data, size);
  }

  Object<GvcBytesInputStream> _in;
  Object<GvcBytesOutputStream> _out;
};

class GioEnd : public BaseEnd
{
public:
  GioEnd(GInputStream *in, GOutputStream *out) : _in(share(in)), _out(share(out)) {}

  void
  send(GBytes *message, Sent sent, void *user_data) override
  {
    expectSent(sent, user_data);
    _sending = message;
    _out_prefix = GUINT32_TO_LE(static_cast<guint32>(g_bytes_get_size(message)));
    g_output_stream_write_all_async(_out.get(), &_out_prefix, sizeof _out_prefix,
                                    G_PRIORITY_DEFAULT, nullptr, prefixWritten, this);
  }

  void
  receive(Received received, void *user_data) override
  {
    expectReceived(received, user_data);
    g_input_stream_read_all_async(_in.get(), &_in_prefix, sizeof _in_prefix, G_PRIORITY_DEFAULT,
                                  nullptr, prefixArrived, this);
  }

private:
  static void
  prefixWritten(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GioEnd *>(user_data);
    GError *error = nullptr;
    must(g_output_stream_write_all_finish(self->_out.get(), result, nullptr, &error), error,
         "write");
    gsize size;
    auto *data = g_bytes_get_data(self->_sending, &size);
    g_output_stream_write_all_async(self->_out.get(), data, size, G_PRIORITY_DEFAULT, nullptr,
                                    written, self);
  }

  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GioEnd *>(user_data);
    GError *error = nullptr;
    must(g_output_stream_write_all_finish(self->_out.get(), result, nullptr, &error), error,
         "write");
    self->tellSent();
  }

  static void
  prefixArrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GioEnd *>(user_data);
    self->finishRead(result, sizeof self->_in_prefix);
    self->_size = GUINT32_FROM_LE(self->_in_prefix);
    self->_message = g_malloc(self->_size);
    g_input_stream_read_all_async(self->_in.get(), self->_message, self->_size, G_PRIORITY_DEFAULT,
                                  nullptr, arrived, self);
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<GioEnd *>(user_data);
    self->finishRead(result, self->_size);
    SharedBytes message(g_bytes_new_take(self->_message, self->_size));
    gsize size;
    auto *data = g_bytes_get_data(message.get(), &size);
    self->tellReceived(data, size);
  }

  void
  finishRead(GAsyncResult *result, gsize wanted)
  {
    GError *error = nullptr;
    gsize nread;
    must(g_input_stream_read_all_finish(_in.get(), result, &nread, &error) && nread == wanted,
         error, "read");
  }

  Object<GInputStream> _in;
  Object<GOutputStream> _out;
  GBytes *_sending = nullptr;
  guint32 _out_prefix = 0;
  guint32 _in_prefix = 0;
  void *_message = nullptr;
  gsize _size = 0;
};

// ---- Strings ----

class StringsZelgvcEnd : public BaseEnd
{
public:
  StringsZelgvcEnd(GInputStream *in, GOutputStream *out)
      : _in(gvc_data_input_stream_new(in)), _out(share(out))
  {
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(_in.get()), FALSE);
  }

  void
  send(GBytes *message, Sent sent, void *user_data) override
  {
    expectSent(sent, user_data);
    gsize size;
    auto *data = g_bytes_get_data(message, &size);
    gvc_output_stream_util_write_all_async(_out.get(), data, size, G_PRIORITY_DEFAULT, nullptr,
                                           written, this);
  }

  void
  receive(Received received, void *user_data) override
  {
    expectReceived(received, user_data);
    gvc_data_input_stream_read_string_async(_in.get(), '\n', G_PRIORITY_DEFAULT, nullptr, arrived,
                                            this);
  }

private:
  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<StringsZelgvcEnd *>(user_data);
    GError *error = nullptr;
    must(gvc_output_stream_util_write_all_finish(self->_out.get(), result, nullptr, &error), error,
         "write");
    self->tellSent();
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<StringsZelgvcEnd *>(user_data);
    GError *error = nullptr;
    gsize length;
    g_autofree gchar *string =
        gvc_data_input_stream_read_string_finish(self->_in.get(), result, &length, &error);
    must(string != nullptr, error, "read string");
    self->tellReceived(string, length);
  }

  Object<GvcDataInputStream> _in;
  Object<GOutputStream> _out;
};

// The writing half of a string end on GIO alone.
class StringsWriter : public BaseEnd
{
public:
  explicit StringsWriter(GOutputStream *out) : _out(share(out)) {}

  void
  send(GBytes *message, Sent sent, void *user_data) override
  {
    expectSent(sent, user_data);
    gsize size;
    auto *data = g_bytes_get_data(message, &size);
    g_output_stream_write_all_async(_out.get(), data, size, G_PRIORITY_DEFAULT, nullptr, written,
                                    this);
  }

private:
  static void
  written(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<StringsWriter *>(user_data);
    GError *error = nullptr;
    must(g_output_stream_write_all_finish(self->_out.get(), result, nullptr, &error), error,
         "write");
    self->tellSent();
  }

  Object<GOutputStream> _out;
};

class StringsGioEnd : public StringsWriter
{
public:
  StringsGioEnd(GInputStream *in, GOutputStream *out) : StringsWriter(out), _in(share(in)) {}

  void
  receive(Received received, void *user_data) override
  {
    expectReceived(received, user_data);
    _string = g_byte_array_sized_new(1024);
    readByte();
  }

private:
  void
  readByte()
  {
    g_input_stream_read_async(_in.get(), &_byte, 1, G_PRIORITY_DEFAULT, nullptr, arrived, this);
  }

  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<StringsGioEnd *>(user_data);
    GError *error = nullptr;
    must(g_input_stream_read_finish(self->_in.get(), result, &error) == 1, error, "read");
    g_byte_array_append(self->_string, &self->_byte, 1);
    if (self->_byte != '\n') {
      self->readByte();
      return;
    }
    g_autoptr(GByteArray) string = self->_string;
    self->tellReceived(string->data, string->len);
  }

  Object<GInputStream> _in;
  guint8 _byte = 0;
  GByteArray *_string = nullptr;
};

class StringsGDataInputStreamEnd : public StringsWriter
{
public:
  StringsGDataInputStreamEnd(GInputStream *in, GOutputStream *out)
      : StringsWriter(out), _in(g_data_input_stream_new(in))
  {
    g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(_in.get()), FALSE);
  }

  void
  receive(Received received, void *user_data) override
  {
    expectReceived(received, user_data);
    g_data_input_stream_read_line_async(_in.get(), G_PRIORITY_DEFAULT, nullptr, arrived, this);
  }

private:
  static void
  arrived(GObject *, GAsyncResult *result, gpointer user_data)
  {
    auto *self = static_cast<StringsGDataInputStreamEnd *>(user_data);
    GError *error = nullptr;
    gsize length;
    g_autofree char *line =
        g_data_input_stream_read_line_finish(self->_in.get(), result, &length, &error);
    must(line != nullptr, error, "read line");
    // The line has lost its end; a NUL stands in its place.
    line[length] = '\n';
    self->tellReceived(line, length + 1);
  }

  Object<GDataInputStream> _in;
};

// ---- Driving a pair ----

struct Drive {
  AsyncEnd &near;
  AsyncEnd &far;
  GBytes *message;
  std::size_t to_send;
  std::size_t to_receive;
  bool check_content = false;
  bool sending = false; // no operation may be left in flight when a run ends

  bool
  done() const
  {
    return to_receive == 0 && !sending;
  }
};

void
checkArrived(const Drive &drive, const void *message, gsize size)
{
  gsize wanted_size;
  auto *wanted = g_bytes_get_data(drive.message, &wanted_size);
  must(size == wanted_size, nullptr, "a message of another length arrived");
  if (drive.check_content)
    must(std::memcmp(message, wanted, size) == 0, nullptr, "a message arrived changed");
}

void
sendNext(void *user_data)
{
  auto *drive = static_cast<Drive *>(user_data);
  drive->sending = drive->to_send > 0;
  if (!drive->sending)
    return;
  drive->to_send--;
  drive->near.send(drive->message, sendNext, drive);
}

void
receiveNext(const void *message, gsize size, void *user_data)
{
  auto *drive = static_cast<Drive *>(user_data);
  checkArrived(*drive, message, size);
  if (--drive->to_receive > 0)
    drive->far.receive(receiveNext, drive);
}

void
iterateUntilDone(const Drive &drive)
{
  while (!drive.done())
    g_main_context_iteration(nullptr, TRUE);
}

// A round trip ends when its last write has been reported as well as its answer has arrived.
struct RoundTrip {
  Drive drive;
  int pending;
};

void startRoundTrip(RoundTrip *trip);

void
finishStep(RoundTrip *trip)
{
  if (--trip->pending > 0)
    return;
  trip->drive.to_receive--;
  if (trip->drive.to_receive > 0)
    startRoundTrip(trip);
}

void
stepSent(void *user_data)
{
  finishStep(static_cast<RoundTrip *>(user_data));
}

void
answerArrived(const void *message, gsize size, void *user_data)
{
  auto *trip = static_cast<RoundTrip *>(user_data);
  checkArrived(trip->drive, message, size);
  finishStep(trip);
}

void
requestArrived(const void *message, gsize size, void *user_data)
{
  auto *trip = static_cast<RoundTrip *>(user_data);
  checkArrived(trip->drive, message, size);
  trip->drive.far.send(trip->drive.message, stepSent, trip);
}

void
startRoundTrip(RoundTrip *trip)
{
  trip->pending = 3;
  trip->drive.far.receive(requestArrived, trip);
  trip->drive.near.receive(answerArrived, trip);
  trip->drive.near.send(trip->drive.message, stepSent, trip);
}

} // namespace

std::unique_ptr<AsyncEnd>
asyncZelgvc(GInputStream *in, GOutputStream *out)
{
  return std::make_unique<ZelgvcEnd>(in, out);
}

std::unique_ptr<AsyncEnd>
asyncGio(GInputStream *in, GOutputStream *out)
{
  return std::make_unique<GioEnd>(in, out);
}

std::unique_ptr<AsyncEnd>
stringsZelgvc(GInputStream *in, GOutputStream *out)
{
  return std::make_unique<StringsZelgvcEnd>(in, out);
}

std::unique_ptr<AsyncEnd>
stringsGio(GInputStream *in, GOutputStream *out)
{
  return std::make_unique<StringsGioEnd>(in, out);
}

std::unique_ptr<AsyncEnd>
stringsGDataInputStream(GInputStream *in, GOutputStream *out)
{
  return std::make_unique<StringsGDataInputStreamEnd>(in, out);
}

void
runAsyncOneWay(AsyncEnd &near, AsyncEnd &far, GBytes *message, std::size_t times)
{
  Drive drive{near, far, message, times, times};
  far.receive(receiveNext, &drive);
  sendNext(&drive);
  iterateUntilDone(drive);
}

void
runAsyncRoundTrip(AsyncEnd &near, AsyncEnd &far, GBytes *message, std::size_t times)
{
  RoundTrip trip{{near, far, message, 0, times}, 0};
  startRoundTrip(&trip);
  iterateUntilDone(trip.drive);
}

void
checkAsync(AsyncEnd &near, AsyncEnd &far, GBytes *message)
{
  Drive drive{near, far, message, 2, 2, true};
  far.receive(receiveNext, &drive);
  sendNext(&drive);
  iterateUntilDone(drive);
}

} // namespace bench
