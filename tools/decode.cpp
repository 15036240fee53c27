// SPDX-License-Identifier: LGPL-2.1-or-later
#include "capture.h"
#include "command.h"
#include "layers.h"
#include "messages.h"
#include "output.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>
#include <vector>

static constexpr gsize variant_limit = 64 * 1024 * 1024;

static bool
is_text(const std::string &bytes)
{
  // The last character may be cut.
  const char *end;
  if (g_utf8_validate_len(bytes.data(), bytes.size(), &end))
    return printable(bytes).size() == bytes.size();
  auto valid = static_cast<gsize>(end - bytes.data());
  return valid > 0 && bytes.size() - valid < 4 && printable(bytes.data(), valid).size() == valid;
}

// GLib ends the program if there is no memory. This throws first, so that the program can say so.
static void
ensure_memory(gsize shown)
{
  static constexpr gsize always_there = 1024 * 1024, copies = 32;
  if (shown <= always_there)
    return;
  g_autofree void *probe = g_try_malloc(copies * shown);
  if (!probe)
    throw std::bad_alloc();
}

namespace
{
struct DecodeOptions {
  gboolean json = FALSE, hex = FALSE, text = FALSE, encrypted = FALSE, strict = FALSE;
  OptionText variant, strings, from;
  int limit = 256;
  int stream = -1;
};

class Printer : public Reporter
{
public:
  explicit Printer(const DecodeOptions &options) : Reporter(options.strict), options(options) {}

  void
  iv_record(const Unit &unit, const char *iv) override
  {
    auto hex = hex_text(iv, 16);
    print(unit, "IV " + hex, [&](JsonLine &json) { json.add("iv", hex); });
  }

  void
  record(const Unit &unit, gint64 content) override
  {
    print(unit,
          content < 0 ? "encrypted with a key that is not given"
                      : "holds " + std::to_string(content) + " bytes",
          [&](JsonLine &json) {
            if (content >= 0)
              json.add("content-size", content);
          });
  }

  void
  block(const Unit &unit, guint64 content, guint chunks) override
  {
    auto layout = chunks == 0 ? ", plain" : ", in chunks: " + std::to_string(chunks);
    print(unit, "holds " + std::to_string(content) + " bytes" + (strict ? layout : ""),
          [&](JsonLine &json) {
            json.add("content-size", content);
            if (strict)
              json.add("layout", chunks == 0 ? "plain" : "chunked");
            if (chunks > 0)
              json.add("chunks", chunks);
          });
  }

  void
  message(const Unit &unit, guint64 length, const std::string &shown) override
  {
    if (!options.json)
      return line(unit, "message of " + std::to_string(length) + " bytes" +
                            (length > 0 || options.variant ? ": " + contents(length, shown) : ""));
    JsonLine json;
    begin(json, unit);
    json.add("length", length);
    add_contents(json, length, shown);
    json.print();
  }

  void
  damage(const Place &place, const std::string &expected, const std::string &found) override
  {
    damages++;
    if (!options.json)
      return line(place, "DAMAGE at offset " + std::to_string(place.offset) + " of the " +
                             place.layer + "s" + origin(place) + ": expected " + expected +
                             ", found " + found);
    JsonLine json;
    begin(json, place);
    json.add("damage", true).add("expected", expected).add("found", found).print();
  }

  void
  skipped(const Place &place, guint64 size) override
  {
    skips = true;
    if (!options.json)
      return line(place, "skipped " + std::to_string(size) + " bytes at offset " +
                             std::to_string(place.offset) + " of the " + place.layer + "s");
    JsonLine json;
    json.add("layer", place.layer).add("depth", guint64{place.depth});
    json.add("offset", place.offset).add("skipped", size).print();
  }

  void
  note(const Place &place, const std::string &text) override
  {
    if (!strict)
      return;
    notes++;
    if (!options.json)
      return line(place, "NOTE at offset " + std::to_string(place.offset) + " of the " +
                             place.layer + "s" + origin(place) + ": " + text);
    JsonLine json;
    begin(json, place);
    json.add("note", text).print();
  }

  void
  summary()
  {
    // A capture without its beginning can hold nothing that looks like a unit.
    if (skips && !units && damages == 0)
      damages = 1;
    if (options.json)
      return;
    counts.resize(names.size());
    std::string text;
    for (gsize i = 0; i < names.size(); i++)
      text += std::to_string(counts[i]) + " " + names[i] + (counts[i] == 1 ? "" : "s") + ", ";
    if (notes > 0)
      text += std::to_string(notes) + (notes == 1 ? " note, " : " notes, ");
    output(text + (damages == 0 ? "no damage" : std::to_string(damages) + " damaged") + "\n");
  }

  std::vector<const char *> names; // of the layers, the lowest first
  guint64 damages = 0, notes = 0;

private:
  void
  begin(JsonLine &json, const Place &place)
  {
    json.add("layer", place.layer).add("depth", guint64{place.depth}).add("offset", place.offset);
    if (place.depth > 0)
      json.add("inside", names[place.depth - 1]).add("inside-index", place.piece);
  }

  void
  begin(JsonLine &json, const Unit &unit)
  {
    units = true;
    begin(json, static_cast<const Place &>(unit));
    json.add("index", unit.index).add("size", unit.size);
  }

  // Prints a unit as text, or as an object to which `add` adds the same facts.
  template <typename Add>
  void
  print(const Unit &unit, const std::string &text, Add add)
  {
    if (!options.json)
      return line(unit, text);
    JsonLine json;
    begin(json, unit);
    add(json);
    json.print();
  }

  void
  line(const Unit &unit, const std::string &rest)
  {
    units = true;
    counts.resize(names.size());
    counts[unit.depth]++;
    line(static_cast<const Place &>(unit), unit.layer + (" " + std::to_string(unit.index)) +
                                               ": offset " + std::to_string(unit.offset) +
                                               origin(unit) + ", " + std::to_string(unit.size) +
                                               " bytes, " + rest);
  }

  void
  line(const Place &place, const std::string &text)
  {
    output(std::string(2 * place.depth, ' ') + text + "\n");
  }

  std::string
  origin(const Place &place) const
  {
    if (place.depth == 0)
      return "";
    return std::string(" (") + names[place.depth - 1] + " " + std::to_string(place.piece) + ")";
  }

  // Nothing, and damage, if the message is no such value.
  std::optional<std::string>
  as_variant(guint64 length, const std::string &shown)
  {
    ensure_memory(shown.size());
    std::optional<std::string> text;
    if (length <= variant_limit)
      text = variant_text(options.variant.value, shown.data(), shown.size());
    damages += !text;
    return text;
  }

  std::string
  contents(guint64 length, const std::string &shown)
  {
    auto part = cut(shown);
    auto hex = [&] { return hex_text(part.data(), part.size()); };
    if (options.variant) {
      auto text = as_variant(length, shown);
      return text ? *text : std::string("no value of type ") + options.variant.value + ": " + hex();
    }
    bool as_text = options.text || (!options.hex && is_text(part));
    return (as_text ? "\"" + printable(part) + "\"" : hex()) + (part.size() < length ? "..." : "");
  }

  void
  add_contents(JsonLine &json, guint64 length, const std::string &shown)
  {
    if (options.variant) {
      if (auto text = as_variant(length, shown)) {
        json.add("variant", *text);
        return;
      }
      json.add("expected", std::string("a value of type ") + options.variant.value);
    }
    auto part = cut(shown);
    ensure_memory(part.size());
    bool valid = g_utf8_validate_len(part.data(), part.size(), nullptr);
    if (!options.variant && !options.hex && (options.text || valid))
      json.add("text", part);
    else
      json.add("hex", hex_text(part.data(), part.size()));
    if (part.size() < length)
      json.add("cut", true);
  }

  std::string
  cut(const std::string &shown) const
  {
    auto limit = static_cast<gsize>(options.limit);
    return limit == 0 ? shown : shown.substr(0, limit);
  }

  const DecodeOptions &options;
  std::vector<guint64> counts;
  bool skips = false, units = false; // whether any were reported
};
} // namespace

namespace
{
// The layers, lowest first, and their converters.
class Stack
{
public:
  // The last stage on the way out is the first on the way in.
  Stack(const DecodeOptions &options, const Stages &stages, Printer &printer) : printer(printer)
  {
    if (options.encrypted) {
      add("record", record_layer(printer, nullptr));
      return;
    }
    for (auto stage = stages.list.rbegin(); stage != stages.list.rend(); ++stage) {
      auto *converter = new_decoder(*stage, stages.key_length);
      converters.emplace_back(converter);
      if (stage->kind == Stage::encrypt)
        add("record", record_layer(printer, converter));
      else
        add("block", block_layer(printer, converter));
    }
    auto keep = options.limit == 0 ? G_MAXSIZE
                : options.variant  ? variant_limit
                                   : static_cast<gsize>(options.limit);
    if (auto *strings = options.strings.value) {
      auto format = MessageFormat::choose(false, false, nullptr, strings);
      add("string", string_layer(printer, keep, format.terminator));
    } else {
      add("frame", frame_layer(printer, keep));
    }
  }

  Stack(const Stack &) = delete;

  Layer &
  bottom()
  {
    return *layers.front();
  }

private:
  void
  add(const char *name, std::unique_ptr<Layer> layer)
  {
    layer->depth = layers.size();
    if (!layers.empty())
      layers.back()->upper = layer.get();
    layers.push_back(std::move(layer));
    printer.names.push_back(name);
  }

  Printer &printer;
  std::vector<std::unique_ptr<Layer>> layers;
  std::vector<Owned<GConverter>> converters;
};
} // namespace

// The bytes of a file have no pieces: the borders between reads mean nothing.
static void
feed(int fd, const std::string &shown, Layer &bottom)
{
  std::vector<char> buffer(64 * 1024);
  bottom.aligned = false;
  bool first = true;
  while (auto got = read_input(fd, shown, buffer.data(), buffer.size())) {
    if (first && is_capture(buffer.data(), got))
      fail(Exit::usage, "a capture of packets is read from a file, not from a pipe");
    first = false;
    bottom.push(buffer.data(), got, 0);
  }
}

static void
check(const DecodeOptions &options, const Stages &stages)
{
  if (options.hex + options.text + (options.variant.value != nullptr) > 1)
    fail(Exit::usage, "--hex, --text and --variant exclude each other");
  if (options.encrypted && !stages.list.empty())
    fail(Exit::usage, "--encrypted takes no stages: what lies under an unknown key is not seen");
  if (options.encrypted && options.strings)
    fail(Exit::usage, "--encrypted shows no strings: what lies under an unknown key is not seen");
  if (options.from && !g_str_equal(options.from, "client") && !g_str_equal(options.from, "server"))
    fail(Exit::usage, "--from is client or server");
  if (options.limit < 0)
    fail(Exit::usage, "--limit is not negative");
  if (options.variant)
    check_variant_type(options.variant.value);
}

static Exit
decode(const DecodeOptions &options, const Stages &stages, const std::string *path)
{
  auto shown = path ? printable(*path) : "standard input";
  // Without O_NONBLOCK, a pipe to which nobody writes would keep a signal waiting.
  int fd = path ? open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : STDIN_FILENO;
  if (fd < 0)
    fail(Exit::local, "cannot read %s: %s", shown.c_str(), g_strerror(errno));

  Printer printer(options);
  Stack stack(options, stages, printer);
  bool whole = true;
  CaptureChoice choice{options.stream, options.from.value ? options.from.value : ""};
  if (is_capture(fd))
    whole = read_capture(fd, shown, choice, stack.bottom());
  else if (choice.made())
    fail(Exit::usage, "--stream and --from are for captures of packets, and %s is none",
         shown.c_str());
  else
    feed(fd, shown, stack.bottom());
  stack.bottom().end();
  printer.summary();
  return whole && printer.damages + printer.notes == 0 ? Exit::ok : Exit::partly;
}

Exit
run_decode(CommandLine &line)
{
  DecodeOptions options;
  line.add("encrypted", G_OPTION_ARG_NONE, &options.encrypted,
           "Show the records of an encrypted stream without its key");
  line.add("strings", G_OPTION_ARG_STRING, &options.strings.value,
           "Use strings that end with this byte instead of frames: a character, \\n, \\0, \\xNN",
           "TERMINATOR");
  line.add("hex", G_OPTION_ARG_NONE, &options.hex, "Show messages in hexadecimal digits");
  line.add("text", G_OPTION_ARG_NONE, &options.text, "Show messages as text");
  line.add("variant", G_OPTION_ARG_STRING, &options.variant.value,
           "Show messages as GVariants of this type", "TYPE");
  line.add("limit", G_OPTION_ARG_INT, &options.limit,
           "Show this many bytes of a message, 0 for all (default 256)", "BYTES");
  line.add("strict", G_OPTION_ARG_NONE, &options.strict,
           "Also note what a careful writer would not send");
  line.add("stream", G_OPTION_ARG_INT, &options.stream,
           "Decode this TCP stream of a pcap or pcapng file", "N");
  line.add("from", G_OPTION_ARG_STRING, &options.from.value,
           "Decode what the client or the server sent, in a pcap or pcapng file", "SIDE");
  line.add("json", G_OPTION_ARG_NONE, &options.json, "Print one JSON object per item");
  line.add_stages();
  auto arguments = line.parse(0, 1);
  check(options, line.stages);
  bool standard_input = arguments.empty() || arguments[0] == "-";
  try {
    return decode(options, line.stages, standard_input ? nullptr : &arguments[0]);
  } catch (const std::bad_alloc &) {
    fail(Exit::local, "not enough memory");
  }
}
