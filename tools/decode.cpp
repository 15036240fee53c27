// SPDX-License-Identifier: LGPL-2.1-or-later
#include "command.h"
#include "interrupt.h"
#include "layers.h"
#include "messages.h"
#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>

static constexpr gsize variant_limit = 64 * 1024 * 1024;

namespace
{
struct Options {
  Stages stages;
  gboolean json = FALSE, hex = FALSE, text = FALSE;
  gboolean encrypted = FALSE;
  OptionText variant;
  int limit = 256;
};

class Printer : public Reporter
{
public:
  explicit Printer(const Options &options) : options(options) {}

  void iv_record(const Unit &unit, guint64 piece, const guint8 *iv) override;
  void record(const Unit &unit, guint64 piece, gint64 content) override;
  void block(const Unit &unit, guint64 piece, guint64 content) override;
  void frame(const Unit &unit, guint64 piece, guint64 length, const std::string &shown) override;
  void damage(const char *layer, guint64 offset, guint64 piece, const std::string &expected,
              const std::string &found) override;
  void skipped(const char *layer, guint64 offset, guint64 size) override;
  void summary();

  // The layers by name, the lowest first.
  std::vector<std::string> names;
  guint64 damages = 0;

private:
  gsize depth(const char *layer) const;
  void begin(JsonLine &json, const Unit &unit, guint64 piece);
  void line(const Unit &unit, guint64 piece, const std::string &rest);
  std::string origin(const char *layer, guint64 piece) const;
  std::string contents(guint64 length, const std::string &shown);
  void add_contents(JsonLine &json, guint64 length, const std::string &shown);
  std::string cut(const std::string &shown) const;

  const Options &options;
  std::vector<guint64> counts;
};
} // namespace

gsize
Printer::depth(const char *layer) const
{
  // Where a layer stands twice, the indentation of the lower one does for both.
  auto at = std::find(names.begin(), names.end(), layer);
  return static_cast<gsize>(at - names.begin());
}

std::string
Printer::origin(const char *layer, guint64 piece) const
{
  auto at = depth(layer);
  return at == 0 ? "" : " (" + names[at - 1] + " " + std::to_string(piece) + ")";
}

void
Printer::begin(JsonLine &json, const Unit &unit, guint64 piece)
{
  json.add("layer", unit.layer).add("index", unit.index).add("offset", unit.offset);
  json.add("size", unit.size);
  if (depth(unit.layer) > 0)
    json.add("inside", names[depth(unit.layer) - 1]).add("inside-index", piece);
}

void
Printer::line(const Unit &unit, guint64 piece, const std::string &rest)
{
  counts.resize(names.size());
  counts[depth(unit.layer)]++;
  std::string indent(2 * depth(unit.layer), ' ');
  output(indent + unit.layer + " " + std::to_string(unit.index) + ": offset " +
         std::to_string(unit.offset) + origin(unit.layer, piece) + ", " +
         std::to_string(unit.size) + " bytes, " + rest + "\n");
}

void
Printer::iv_record(const Unit &unit, guint64 piece, const guint8 *iv)
{
  if (!options.json)
    return line(unit, piece, "IV " + hex_text(iv, 16));
  JsonLine json;
  begin(json, unit, piece);
  json.add("iv", hex_text(iv, 16)).print();
}

void
Printer::record(const Unit &unit, guint64 piece, gint64 content)
{
  if (!options.json)
    return line(unit, piece,
                content < 0 ? "encrypted with a key that is not given"
                            : "holds " + std::to_string(content) + " bytes");
  JsonLine json;
  begin(json, unit, piece);
  if (content >= 0)
    json.add("content-size", content);
  json.print();
}

void
Printer::block(const Unit &unit, guint64 piece, guint64 content)
{
  if (!options.json)
    return line(unit, piece, "holds " + std::to_string(content) + " bytes");
  JsonLine json;
  begin(json, unit, piece);
  json.add("content-size", content).print();
}

std::string
Printer::cut(const std::string &shown) const
{
  auto limit = static_cast<gsize>(options.limit);
  return limit == 0 ? shown : shown.substr(0, limit);
}

static bool
is_text(const std::string &bytes)
{
  // A character may have been cut at the end of what is shown.
  const char *end;
  if (g_utf8_validate_len(bytes.data(), bytes.size(), &end))
    return printable(bytes).size() == bytes.size();
  auto valid = static_cast<gsize>(end - bytes.data());
  return valid > 0 && bytes.size() - valid < 4 && printable(bytes.data(), valid).size() == valid;
}

std::string
Printer::contents(guint64 length, const std::string &shown)
{
  std::string text;
  if (options.variant) {
    if (length <= variant_limit &&
        variant_text(options.variant.value, shown.data(), shown.size(), &text))
      return text;
    damages++;
    return std::string("no value of type ") + options.variant.value + ": " +
           hex_text(cut(shown).data(), cut(shown).size());
  }
  auto part = cut(shown);
  bool as_text = options.text || (!options.hex && is_text(part));
  text = as_text ? "\"" + printable(part) + "\"" : hex_text(part.data(), part.size());
  return part.size() < length ? text + "..." : text;
}

void
Printer::add_contents(JsonLine &json, guint64 length, const std::string &shown)
{
  std::string text;
  auto part = cut(shown);
  if (options.variant && length <= variant_limit &&
      variant_text(options.variant.value, shown.data(), shown.size(), &text)) {
    json.add("variant", text);
    return;
  }
  if (options.variant) {
    damages++;
    json.add("expected", std::string("a value of type ") + options.variant.value);
  }
  bool valid = g_utf8_validate_len(part.data(), part.size(), nullptr);
  if (!options.variant && !options.hex && (options.text || valid))
    json.add("text", part);
  else
    json.add("hex", hex_text(part.data(), part.size()));
  if (part.size() < length)
    json.add("cut", true);
}

void
Printer::frame(const Unit &unit, guint64 piece, guint64 length, const std::string &shown)
{
  if (!options.json)
    return line(unit, piece,
                "message of " + std::to_string(length) + " bytes" +
                    (length > 0 || options.variant ? ": " + contents(length, shown) : ""));
  JsonLine json;
  begin(json, unit, piece);
  json.add("length", length);
  add_contents(json, length, shown);
  json.print();
}

void
Printer::damage(const char *layer, guint64 offset, guint64 piece, const std::string &expected,
                const std::string &found)
{
  damages++;
  if (options.json) {
    JsonLine json;
    json.add("layer", layer).add("damage", true).add("offset", offset);
    if (depth(layer) > 0)
      json.add("inside", names[depth(layer) - 1]).add("inside-index", piece);
    json.add("expected", expected).add("found", found).print();
    return;
  }
  output(std::string(2 * depth(layer), ' ') + "DAMAGE at offset " + std::to_string(offset) +
         " of the " + layer + "s" + origin(layer, piece) + ": expected " + expected + ", found " +
         found + "\n");
}

void
Printer::skipped(const char *layer, guint64 offset, guint64 size)
{
  if (options.json) {
    JsonLine json;
    json.add("layer", layer).add("skipped", size).add("offset", offset).print();
    return;
  }
  output(std::string(2 * depth(layer), ' ') + "skipped " + std::to_string(size) +
         " bytes at offset " + std::to_string(offset) + " of the " + layer + "s\n");
}

void
Printer::summary()
{
  if (options.json)
    return;
  counts.resize(names.size());
  std::string text;
  for (gsize i = 0; i < names.size(); i++)
    text += std::to_string(counts[i]) + " " + names[i] + (counts[i] == 1 ? "" : "s") + ", ";
  output(text + (damages == 0 ? "no damage" : std::to_string(damages) + " damaged") + "\n");
}

namespace
{
// The layers, lowest first, with the converters that they use.
class Stack
{
public:
  Stack(const Options &options, Printer &printer);
  ~Stack();
  Stack(const Stack &) = delete;

  Layer &
  bottom()
  {
    return *layers.front();
  }

private:
  void add(std::unique_ptr<Layer> layer, const char *name, Printer &printer);

  std::vector<std::unique_ptr<Layer>> layers;
  std::vector<GConverter *> converters;
};
} // namespace

void
Stack::add(std::unique_ptr<Layer> layer, const char *name, Printer &printer)
{
  if (layers.empty())
    layer->bottom = true;
  else
    layers.back()->upper = layer.get();
  layers.push_back(std::move(layer));
  printer.names.push_back(name);
}

// What was done last to what was sent is undone first.
Stack::Stack(const Options &options, Printer &printer)
{
  if (options.encrypted) {
    add(std::make_unique<RecordLayer>(printer, nullptr), "record", printer);
    return;
  }
  auto &stages = options.stages.list;
  for (auto stage = stages.rbegin(); stage != stages.rend(); ++stage) {
    auto *converter = new_decoder(*stage, options.stages.key_length);
    converters.push_back(converter);
    if (stage->kind == Stage::encrypt)
      add(std::make_unique<RecordLayer>(printer, converter), "record", printer);
    else
      add(std::make_unique<BlockLayer>(printer, converter), "block", printer);
  }
  auto keep = options.variant ? variant_limit : static_cast<gsize>(options.limit);
  add(std::make_unique<FrameLayer>(printer, options.limit == 0 ? G_MAXSIZE : keep), "frame",
      printer);
}

Stack::~Stack()
{
  for (auto *converter : converters)
    g_object_unref(converter);
}

// Waits for input where there is none yet; a signal ends that.
static void
wait_for_input(int fd)
{
  GPollFD fds[2] = {{fd, G_IO_IN, 0}, {-1, 0, 0}};
  if (!g_cancellable_make_pollfd(interrupt_soon(), &fds[1]))
    return;
  g_poll(fds, 2, -1);
  g_cancellable_release_fd(interrupt_soon());
  if (interrupted())
    throw Failure{Exit::interrupted, ""};
}

static void
feed(int fd, const std::string &shown, Layer &bottom)
{
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    wait_for_input(fd);
    auto got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      fail(Exit::local, "cannot read %s: %s", shown.c_str(), g_strerror(errno));
    if (got == 0)
      return;
    bottom.push(buffer.data(), static_cast<gsize>(got), 0);
  }
}

Exit
run_decode(const Command &command, int argc, char **argv)
{
  Options options;
  const GOptionEntry entries[] = {
      {"encrypted", 0, 0, G_OPTION_ARG_NONE, &options.encrypted,
       "The stream is encrypted and the key is not known: show the records", nullptr},
      {"hex", 0, 0, G_OPTION_ARG_NONE, &options.hex, "Show messages in hexadecimal digits",
       nullptr},
      {"text", 0, 0, G_OPTION_ARG_NONE, &options.text, "Show messages as text", nullptr},
      {"variant", 0, 0, G_OPTION_ARG_STRING, &options.variant.value,
       "Show messages as GVariants of this type", "TYPE"},
      {"limit", 0, 0, G_OPTION_ARG_INT, &options.limit,
       "Show this many bytes of a message, 0 for all (default 256)", "BYTES"},
      {"json", 0, 0, G_OPTION_ARG_NONE, &options.json, "Print one JSON object per item", nullptr},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  CommandLine line(command);
  line.add(entries);
  line.add(&options.stages);
  auto arguments = line.parse(argc, argv, 0, 1);
  if (options.hex + options.text + (options.variant.value != nullptr) > 1)
    fail(Exit::usage, "--hex, --text and --variant exclude each other");
  if (options.encrypted && !options.stages.list.empty())
    fail(Exit::usage, "--encrypted takes no stages: what lies under an unknown key is not seen");
  if (options.limit < 0)
    fail(Exit::usage, "--limit is not negative");
  if (options.variant)
    check_variant_type(options.variant.value);

  bool standard_input = arguments.empty() || arguments[0] == "-";
  auto shown = standard_input ? "standard input" : printable(arguments[0]);
  int fd = standard_input ? STDIN_FILENO : open(arguments[0].c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    fail(Exit::local, "cannot read %s: %s", shown.c_str(), g_strerror(errno));

  Printer printer(options);
  Stack stack(options, printer);
  feed(fd, shown, stack.bottom());
  stack.bottom().end();
  printer.summary();
  return printer.damages == 0 ? Exit::ok : Exit::partly;
}
