// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codecs.h"
#include "corpora.h"
#include "groups.h"
#include "links.h"

namespace bench
{

namespace
{

struct Mode {
  const char *name;
  Duel (*duel)(const std::vector<Entrant> &, GBytes *);
};

constexpr Mode modes[] = {{"one way", duelOneWay}, {"round trip", duelRoundTrip}};

struct Candidate {
  std::string name;
  std::unique_ptr<Link> link;
};

std::vector<Candidate>
makeCandidates()
{
  std::vector<Candidate> all;
  for (auto stages : {Stages::none, Stages::compression, Stages::encryption, Stages::both})
    all.push_back({stagesName(stages), linkZelgvc(connectSockets(Transport::tcp), stages)});
  all.push_back({"tls", linkTls(connectSockets(Transport::tcp))});
  all.push_back({"tls+zlib", linkTlsZlib(connectSockets(Transport::tcp))});
  return all;
}

std::vector<Entrant>
checkedEntrants(const std::vector<Candidate> &candidates, GBytes *message)
{
  std::vector<Entrant> entrants;
  for (const auto &candidate : candidates) {
    checkLink(*candidate.link, message);
    entrants.push_back({candidate.name, candidate.link.get()});
  }
  return entrants;
}

} // namespace

void
measureChannels(Report &report)
{
  report.begin(
      "channels", "Whole channels beside TLS",
      "Blocking messages of C source over loopback TCP, the peer in a second thread. tls: "
      "glib-networking's GTlsConnection, one write a message so that it is one record; tls+zlib: "
      "GIO's zlib converters on top, level 1, flushed behind each message. Round trips send the "
      "message back; their rate counts the message once.");
  std::vector<std::int64_t> sizes = {16, 64, 256, 1024, 4096, 65536, 1 << 20, 16 << 20};
  if (report.effort().quick)
    sizes = {16, 65536};
  auto data = repeated(corpus("source"), static_cast<std::size_t>(sizes.back()));

  auto candidates = makeCandidates();
  for (const auto &mode : modes)
    for (auto size : sizes) {
      Parameters parameters = {{"mode", mode.name}, {"size", size}};
      if (!report.wants(parameters))
        continue;
      SharedBytes message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
      report.race(parameters, size,
                  mode.duel(checkedEntrants(candidates, message.get()), message.get()),
                  {{"plain", "tls"},
                   {"encrypted", "tls"},
                   {"encrypted", "tls+zlib"},
                   {"both", "tls"},
                   {"both", "tls+zlib"}});
    }
}

// ---- Both stages and their conversions alone ----

namespace
{

constexpr std::size_t messageSize = 64 << 10;

std::size_t
convert(GConverter *converter, const Bytes &in, std::size_t in_size, Bytes &out)
{
  gsize nread;
  gsize written;
  GError *error = nullptr;
  auto result = g_converter_convert(converter, in.data(), in_size, out.data(), out.size(),
                                    G_CONVERTER_NO_FLAGS, &nread, &written, &error);
  must(result == G_CONVERTER_CONVERTED, error, "convert");
  return written;
}

// Each converter by itself, on the messages of a corpus and on what becomes of them.
struct StagesAlone {
  explicit StagesAlone(const std::vector<SharedBytes> &messages) : scratch(2 * messageSize)
  {
    SharedBytes key(g_bytes_new_static("0123456789abcdef0123456789abcdef", 32));
    compressor.reset(gvc_compressor_new());
    decompressor.reset(gvc_decompressor_new());
    encryptor.reset(gvc_encryptor_new(key.get()));
    decryptor.reset(gvc_decryptor_new(key.get()));
    startCipher();

    for (const auto &message : messages) {
      gsize size;
      auto *data = static_cast<const std::uint8_t *>(g_bytes_get_data(message.get(), &size));
      plain.emplace_back(data, data + size);
      packed.push_back(converted(compressor.get(), plain.back()));
      sealed.push_back(converted(encryptor.get(), packed.back()));
    }
  }

  std::vector<Contender>
  contenders()
  {
    auto stage = [this](const char *name, gpointer converter, const std::vector<Bytes> &inputs) {
      auto pass = [this, converter, &inputs] {
        for (const auto &in : inputs)
          convert(G_CONVERTER(converter), in, in.size(), scratch);
      };
      return Contender{name, repeat(pass), inputs.size()};
    };
    return {stage("compress", compressor.get(), plain), stage("encrypt", encryptor.get(), packed),
            stage("decrypt", decryptor.get(), sealed),
            stage("decompress", decompressor.get(), packed)};
  }

  Bytes scratch;
  std::vector<Bytes> plain;
  std::vector<Bytes> packed;
  std::vector<Bytes> sealed;
  Object<GvcCompressor> compressor;
  Object<GvcDecompressor> decompressor;
  Object<GvcEncryptor> encryptor;
  Object<GvcDecryptor> decryptor;

private:
  Bytes
  converted(gpointer converter, const Bytes &in)
  {
    auto size = convert(G_CONVERTER(converter), in, in.size(), scratch);
    return Bytes(scratch.begin(), scratch.begin() + static_cast<std::ptrdiff_t>(size));
  }

  // Takes the record of the initial IV across.
  void
  startCipher()
  {
    Bytes nothing(1);
    auto size = convert(G_CONVERTER(encryptor.get()), nothing, 1, scratch);
    Bytes iv(scratch.begin(), scratch.begin() + static_cast<std::ptrdiff_t>(size));
    convert(G_CONVERTER(decryptor.get()), iv, size, scratch);
  }
};

// The corpus in messages; what is left over at its end is left out.
std::vector<SharedBytes>
messagesOf(const Bytes &corpus)
{
  std::vector<SharedBytes> messages;
  for (std::size_t at = 0; at + messageSize <= corpus.size(); at += messageSize)
    messages.emplace_back(g_bytes_new_static(corpus.data() + at, messageSize));
  return messages;
}

// All of them, one after the other.
Timing
sum(const std::string &name, const std::vector<Timing> &parts)
{
  Timing whole{name, parts.front().seconds};
  for (std::size_t part = 1; part < parts.size(); part++)
    for (std::size_t i = 0; i < whole.seconds.size(); i++)
      whole.seconds[i] += parts[part].seconds[i];
  return whole;
}

} // namespace

void
measureStages(Report &report)
{
  report.begin(
      "stages", "Messages of 64 KiB through both stages beside their four conversions",
      "both: each message is sent over a Unix socket and then received in one thread; compress to "
      "decompress: that converter called directly, on what the stage gets in the channel; "
      "conversions: the sum of the four.");
  auto link = linkZelgvc(connectSockets(Transport::unixSocket), Stages::both);
  for (const auto &corpus : corpora()) {
    Parameters parameters = {{"corpus", corpus.name}};
    if (!report.wants(parameters))
      continue;
    auto messages = messagesOf(corpus.bytes);
    checkLink(*link, messages.front().get());
    std::vector<GBytes *> unowned;
    for (const auto &message : messages)
      unowned.push_back(message.get());
    StagesAlone alone(messages);
    auto contenders = alone.contenders();
    contenders.push_back(inOneThread("both", *link, unowned));
    auto timings = takeTurns(contenders, report.effort());
    timings.push_back(sum("conversions", {timings.begin(), timings.begin() + 4}));
    auto ratios = ratiosOf(timings, {{"both", "conversions"}});
    report.add({parameters, messageSize, std::move(timings), std::move(ratios), {}});
  }
}

// ---- Cost per byte ----

void
measurePerByte(Report &report)
{
  report.begin(
      "perbyte", "Cost per byte by the size of a message",
      "Blocking messages of C source one way over loopback TCP, the peer in a second thread; "
      "the sizes take turns, and an operation is one byte. gio: frames by hand on the bare socket "
      "streams.");
  std::vector<std::int64_t> sizes = {1024,    4096,    16384,    65536,    262144,
                                     1 << 20, 4 << 20, 16 << 20, 64 << 20, 256 << 20};
  if (report.effort().quick)
    sizes = {1024, 65536, 1 << 20, 8 << 20};
  auto data = repeated(corpus("source"), static_cast<std::size_t>(sizes.back()));

  auto tcp = [] { return connectSockets(Transport::tcp); };
  std::pair<const char *, std::unique_ptr<Link>> links[] = {
      {stagesName(Stages::none), linkZelgvc(tcp(), Stages::none)},
      {stagesName(Stages::both), linkZelgvc(tcp(), Stages::both)},
      {"gio", linkGio(tcp())}};
  for (auto &[name, link] : links) {
    if (!report.wants({{"stages", name}}))
      continue;
    std::vector<Contender> contenders;
    std::deque<std::vector<SharedBytes>> messages;
    for (auto size : sizes) {
      auto &one = messages.emplace_back();
      one.emplace_back(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
      checkLink(*link, one.front().get());
      contenders.push_back({sizeText(size),
                            [&, on = link.get()](std::size_t times) { runOneWay(*on, one, times); },
                            static_cast<std::size_t>(size)});
    }
    auto timings = takeTurns(contenders, report.effort().withLongTurns());
    for (std::size_t i = 0; i < sizes.size(); i++)
      report.add({{{"stages", name}, {"size", sizes[i]}},
                  1,
                  {timings[i]},
                  ratiosOf(timings, {{timings[i].name, sizeText(65536)}}),
                  {}});
  }
}

} // namespace bench
