// SPDX-License-Identifier: LGPL-2.1-or-later
#include "corpora.h"
#include "groups.h"
#include "links.h"

#include <cstring>

namespace bench
{

namespace
{

struct Mode {
  const char *name;
  Duel (*duel)(const std::vector<Entrant> &, GBytes *);
  std::int64_t most; // bytes of message
};

constexpr Mode modes[] = {{"one way", duelOneWay, INT64_MAX},
                          {"round trip", duelRoundTrip, INT64_MAX},
                          {"burst", duelBurst, 4096}};

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
      "message back; their rate counts the message once. A burst of 16 messages is sent and then "
      "received in one thread: one way, what a message takes depends on how often the receiver "
      "goes to sleep.");
  std::vector<std::int64_t> sizes = {16, 64, 256, 1024, 4096, 65536, 1 << 20, 16 << 20};
  if (report.effort().quick)
    sizes = {16, 65536};
  auto data = repeated(corpus("source"), static_cast<std::size_t>(sizes.back()));

  auto candidates = makeCandidates();
  for (const auto &mode : modes)
    for (auto size : sizes) {
      Parameters parameters = {{"mode", mode.name}, {"size", size}};
      if (size > mode.most || !report.wants(parameters))
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

constexpr std::size_t largest = 64 << 10;

// The four conversions of a message through both stages, without a channel.
class Conversions
{
public:
  Conversions()
  {
    SharedBytes key(g_bytes_new_static("0123456789abcdef0123456789abcdef", 32));
    _converters[0].reset(G_CONVERTER(gvc_compressor_new()));
    _converters[1].reset(G_CONVERTER(gvc_encryptor_new(key.get())));
    _converters[2].reset(G_CONVERTER(gvc_decryptor_new(key.get())));
    _converters[3].reset(G_CONVERTER(gvc_decompressor_new()));
    // The record of the initial IV.
    fill(2, _buffers[1].data(), fill(1, _buffers[0].data(), 1));
  }

  void
  run(GBytes *message)
  {
    gsize size;
    auto *data = static_cast<const std::uint8_t *>(g_bytes_get_data(message, &size));
    auto left = fill(0, data, size);
    for (std::size_t i = 1; i < std::size(_converters); i++)
      left = fill(i, _buffers[i - 1].data(), left);
    must(left == size, nullptr, "the conversions made a message of another length");
  }

  // Ends the program unless the message comes out as it was.
  void
  check(GBytes *message)
  {
    run(message);
    must(std::memcmp(_buffers[3].data(), g_bytes_get_data(message, nullptr),
                     g_bytes_get_size(message)) == 0,
         nullptr, "the conversions changed a message");
  }

private:
  // Returns how much of its buffer the converter filled.
  std::size_t
  fill(std::size_t i, const std::uint8_t *in, std::size_t size)
  {
    return convert(_converters[i].get(), in, size, _buffers[i].data(), _buffers[i].size());
  }

  Object<GConverter> _converters[4];
  Bytes _buffers[4] = {Bytes(2 * largest), Bytes(2 * largest), Bytes(2 * largest),
                       Bytes(2 * largest)};
};

// The corpus in messages, but not more than are soon sent; the rest at its end is left out.
std::vector<SharedBytes>
messagesOf(const Bytes &corpus, std::size_t size)
{
  std::vector<SharedBytes> messages;
  for (std::size_t at = 0; at + size <= corpus.size() && messages.size() < 64; at += size)
    messages.emplace_back(g_bytes_new_static(corpus.data() + at, size));
  return messages;
}

void
raceStages(Report &report, const Parameters &parameters, Link &link,
           const std::vector<SharedBytes> &messages)
{
  std::vector<GBytes *> unowned;
  for (const auto &message : messages)
    unowned.push_back(message.get());
  Conversions conversions;
  conversions.check(unowned.front());
  checkLink(link, unowned.front());
  auto convert = [&, next = cycle(unowned)]() mutable { conversions.run(next()); };
  report.race(parameters, static_cast<std::int64_t>(g_bytes_get_size(unowned.front())),
              {inOneThread("both", link, unowned), {"conversions", repeat(convert)}});
}

} // namespace

void
measureStages(Report &report)
{
  report.begin(
      "stages", "Messages through both stages beside their four conversions",
      "both: each message is sent over a Unix socket and then received in one thread; "
      "conversions: it is compressed, encrypted, decrypted and decompressed by direct calls. The "
      "length of the frame, which the stages convert as well, shows in small messages.");
  auto link = linkZelgvc(connectSockets(Transport::unixSocket), Stages::both);
  for (std::size_t size : {std::size_t{64}, std::size_t{1024}, largest})
    for (const auto &corpus : corpora()) {
      Parameters parameters = {{"corpus", corpus.name}, {"size", static_cast<std::int64_t>(size)}};
      if (report.wants(parameters) && (size == largest || corpus.name == "source"))
        raceStages(report, parameters, *link, messagesOf(corpus.bytes, size));
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
