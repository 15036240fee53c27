// SPDX-License-Identifier: LGPL-2.1-or-later
// Blocking messages: beside frames by hand, beside TLS, and beside the conversions alone.
#include "corpora.h"
#include "links.h"

#include <algorithm>

namespace bench
{

void
measureBlocking(const Report &report)
{
  auto data = source(1 << 16);
  for (auto transport : transports) {
    auto sockets = connectSockets(transport);
    std::map<std::string, SharedLink> links;
    for (const char *kind : {"plain", "both", "gathering", "by hand"})
      links[kind] = makeLink(sockets, kind);
    for (std::int64_t size : {64, 1024, 65536}) {
      BytesRef message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
      std::vector<Contender> contenders;
      for (const auto &[kind, link] : links)
        contenders.push_back(burst(kind, link, {message.get()}, 1));
      report.race({{"transport", transport}, {"size", size}}, contenders);
    }
  }
}

// ---- Whole channels ----

void
measureChannels(const Report &report)
{
  struct Mode {
    const char *name;
    Contender (*contender)(const std::string &, const SharedLink &, GBytes *);
    std::int64_t most; // bytes of message
  };
  constexpr Mode modes[] = {{"one way", oneWay, INT64_MAX}, {"round trip", roundTrip, 1 << 20}};
  std::vector<std::int64_t> sizes = {16, 64, 256, 1024, 4096, 65536, 1 << 20, 8 << 20, 64 << 20};
  if (report.effort.quick)
    sizes = {64, 1024, 65536, 1 << 20, 8 << 20};
  auto data = source(static_cast<std::size_t>(sizes.back()));
  std::map<std::string, SharedLink> links;
  for (const char *kind : {"by hand", "plain", "compressed", "encrypted", "both", "tls"})
    links[kind] = makeLink(connectSockets("tcp"), kind);

  for (const auto &mode : modes)
    for (auto size : sizes) {
      if (size > mode.most)
        continue;
      BytesRef message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
      std::vector<Contender> contenders;
      for (const auto &[kind, link] : links)
        contenders.push_back(mode.contender(kind, link, message.get()));
      report.race({{"mode", mode.name}, {"size", size}}, contenders);
    }
}

// ---- Both stages and their conversions alone ----

void
measureStages(const Report &report)
{
  using View = std::span<const std::uint8_t>;
  constexpr std::size_t size = 64 << 10; // of a message
  auto link = makeLink(connectSockets("unix"), "both");
  BytesRef key(g_bytes_new_static("0123456789abcdef0123456789abcdef", 32));
  // In the order of a message.
  const Ref<GConverter> converters[] = {
      support::own(G_CONVERTER(gvc_compressor_new())),
      support::own(G_CONVERTER(gvc_encryptor_new(key.get()))),
      support::own(G_CONVERTER(gvc_decryptor_new(key.get()))),
      support::own(G_CONVERTER(gvc_decompressor_new())),
  };
  std::vector<Bytes> buffers(std::size(converters), Bytes(2 * size));
  auto convertOnce = [&](std::size_t i, View in) -> View {
    return View(buffers[i]).first(convert(converters[i].get(), in, buffers[i]));
  };
  convertOnce(2, convertOnce(1, View(buffers[0]).first(1))); // the record of the initial IV
  auto convertAll = [&](View message) {
    for (std::size_t i = 0; i < std::size(converters); i++)
      message = convertOnce(i, message);
    must(message.size() == size, nullptr, "the conversions made a message of another length");
    return message;
  };

  for (const auto &corpus : corpora()) {
    if (!isTypical(corpus))
      continue;
    std::vector<View> blocks;
    std::vector<GBytes *> messages;
    for (std::size_t at = 0; at + size <= corpus.bytes.size(); at += size) {
      blocks.push_back(View(corpus.bytes).subspan(at, size));
      messages.push_back(g_bytes_new_static(blocks.back().data(), size));
    }
    must(std::ranges::equal(convertAll(blocks[0]), blocks[0]), nullptr,
         "the conversions changed a message");
    auto convertNext = [&, at = std::size_t{0}]() mutable {
      convertAll(blocks[at++ % blocks.size()]);
    };
    report.race({{"corpus", corpus.name}, {"size", std::int64_t{size}}},
                {burst("both", link, messages, 1), {"conversions", repeat(convertNext)}});
  }
}

} // namespace bench
