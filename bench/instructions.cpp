// SPDX-License-Identifier: LGPL-2.1-or-later
#include "asyncends.h"
#include "corpora.h"
#include "groups.h"
#include "worker.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench
{

namespace
{

constexpr gsize messageSize = 64;

void
blockingMessages(Link &link, GBytes *message, std::size_t times)
{
  std::vector<std::vector<double>> seconds(1);
  auto duel = duelInOneThread({{"", &link}}, message);
  duel.run(times / duel.operations, 0, seconds);
}

void
blockingZelgvc(Stages stages, GBytes *message, std::size_t times)
{
  blockingMessages(*linkZelgvc(connectSockets(Transport::unixSocket), stages), message, times);
}

void
asyncMessages(bool ours, Stages stages, GBytes *message, std::size_t times)
{
  auto sockets = connectSockets(Transport::unixSocket);
  auto near = makeChannel(sockets->near.get(), stages);
  auto far = makeChannel(sockets->far.get(), stages);
  auto make = [&](GvcConnection *channel, GSocketConnection *bare) {
    auto *stream = ours ? G_IO_STREAM(channel) : G_IO_STREAM(bare);
    return (ours ? asyncZelgvc : asyncGio)(g_io_stream_get_input_stream(stream),
                                           g_io_stream_get_output_stream(stream));
  };
  auto near_end = make(near.get(), sockets->near.get());
  auto far_end = make(far.get(), sockets->far.get());
  runAsyncRoundTrip(*near_end, *far_end, message, times);
}

void
converterCalls(GConverter *converter, GBytes *message, std::size_t times)
{
  Object<GConverter> owned(converter);
  guint8 out[4 * messageSize];
  gsize size;
  auto *data = g_bytes_get_data(message, &size);
  gsize nread;
  gsize written;
  // The encryptor's IV record comes before the first message.
  for (std::size_t i = 0; i < times + 1; i++)
    g_converter_convert(converter, data, size, out, sizeof out, G_CONVERTER_NO_FLAGS, &nread,
                        &written, nullptr);
}

GConverter *
makeEncryptor()
{
  SharedBytes key(g_bytes_new_static("0123456789abcdef0123456789abcdef", 32));
  return G_CONVERTER(gvc_encryptor_new(key.get()));
}

struct Work {
  const char *what;
  const char *who;
  void (*run)(GBytes *message, std::size_t times);
};

constexpr Work works[] = {
    {"blocking frame", "plain",
     [](GBytes *m, std::size_t n) { blockingZelgvc(Stages::none, m, n); }},
    {"blocking frame", "gio",
     [](GBytes *m, std::size_t n) {
       blockingMessages(*linkGio(connectSockets(Transport::unixSocket)), m, n);
     }},
    {"blocking frame", "both",
     [](GBytes *m, std::size_t n) { blockingZelgvc(Stages::both, m, n); }},
    {"async round trip", "plain",
     [](GBytes *m, std::size_t n) { asyncMessages(true, Stages::none, m, n); }},
    {"async round trip", "gio",
     [](GBytes *m, std::size_t n) { asyncMessages(false, Stages::none, m, n); }},
    {"async round trip", "both",
     [](GBytes *m, std::size_t n) { asyncMessages(true, Stages::both, m, n); }},
    {"converter call", "encryptor",
     [](GBytes *m, std::size_t n) { converterCalls(makeEncryptor(), m, n); }},
    {"converter call", "compressor",
     [](GBytes *m, std::size_t n) { converterCalls(G_CONVERTER(gvc_compressor_new()), m, n); }},
};

// Instructions of a whole process that does the work `times` times; negative where they could not
// be counted.
double
countInstructions(std::size_t work, std::size_t times)
{
  auto output = runWorker({"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"},
                          {"instructions", std::to_string(work), std::to_string(times)});
  auto *found = std::strstr(output.errors.c_str(), "Collected : ");
  if (!output.success || !found) {
    std::printf("callgrind: %s\n", output.errors.c_str());
    return -1;
  }
  return std::strtod(found + std::strlen("Collected : "), nullptr);
}

} // namespace

int
instructionsWorker(int argc, char **argv)
{
  must(argc == 2, nullptr, "instructions WORK TIMES");
  auto index = static_cast<std::size_t>(std::atol(argv[0]));
  must(index < std::size(works), nullptr, "no such work");
  SharedBytes message(g_bytes_new_static("int main(void) { return printf(\"%d\\n\", 42) < 0; } "
                                         "/* sixty-four */",
                                         messageSize));
  works[index].run(message.get(), static_cast<std::size_t>(std::atol(argv[1])));
  return 0;
}

void
measureInstructions(Report &report)
{
  report.begin(
      "instructions", "Instructions of a small message",
      "User-space instructions for a message of 64 bytes as callgrind counts them: the difference "
      "between two runs of different length, divided by the messages between them. Both ends in "
      "one "
      "thread, over a Unix socket; a frame is sent and received, a round trip two frames. What the "
      "kernel does is not counted, and valgrind offers the ciphers an older processor.");
  g_autofree char *valgrind = g_find_program_in_path("valgrind");
  if (!valgrind) {
    std::printf("skipped: valgrind is not installed\n");
    return;
  }

  std::size_t few = 160;
  std::size_t many = report.effort().quick ? 1120 : 4000;
  for (std::size_t i = 0; i < std::size(works); i++) {
    // The quick run leaves out the slower half.
    if (report.effort().quick && std::string(works[i].what) == "async round trip")
      continue;
    double less = countInstructions(i, few);
    double more = countInstructions(i, many);
    if (less < 0 || more < 0)
      continue;
    report.add({{{"what", works[i].what}, {"who", works[i].who}},
                0,
                {},
                {},
                {{"instructions", exactly((more - less) / static_cast<double>(many - few))}}});
  }
}

} // namespace bench
