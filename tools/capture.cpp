// SPDX-License-Identifier: LGPL-2.1-or-later
#include "capture.h"
#include "errors.h"
#include "interrupt.h"
#include "owners.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

gsize
read_input(int fd, const std::string &shown, char *buffer, gsize size)
{
  ssize_t got;
  do {
    if (!wait_for(fd, POLLIN, interrupt_soon()))
      throw Failure{Exit::interrupted, ""};
    got = read(fd, buffer, size);
  } while (got < 0 && (errno == EINTR || errno == EAGAIN));
  if (got < 0)
    fail(Exit::local, "cannot read %s: %s", shown.c_str(), g_strerror(errno));
  return static_cast<gsize>(got);
}

// pcap begins with a magic number and version 2, in the byte order of the host that wrote it;
// pcapng with a section header and the order mark of its body.
bool
is_capture(const char *bytes, gsize size)
{
  if (size < 12)
    return false;
  auto has = [&](gsize at, std::string_view text) {
    return std::string_view(bytes + at, text.size()) == text;
  };
  if (has(0, "\x0a\x0d\x0d\x0a"))
    return has(8, "\x1a\x2b\x3c\x4d") || has(8, "\x4d\x3c\x2b\x1a");
  bool big = has(0, "\xa1\xb2\xc3\xd4") || has(0, "\xa1\xb2\x3c\x4d");
  bool little = has(0, "\xd4\xc3\xb2\xa1") || has(0, "\x4d\x3c\xb2\xa1");
  return (big && bytes[4] == 0 && bytes[5] == 2) || (little && bytes[4] == 2 && bytes[5] == 0);
}

bool
is_capture(int fd)
{
  char start[12];
  auto got = pread(fd, start, sizeof start, 0);
  return got > 0 && is_capture(start, static_cast<gsize>(got));
}

static int
checked(int fd, const char *what)
{
  if (fd < 0)
    fail(Exit::local, "cannot make %s: %s", what, g_strerror(errno));
  return fd;
}

// Declares that all ports carry plain data, because only TCP is of interest. A packet in a tunnel
// has several addresses; the last ones are the stream's.
static constexpr const char *command_line =
    "tshark -n -r - -d tcp.port==0-65535,data -T fields -E occurrence=l -e tcp.stream "
    "-e ip.src -e ipv6.src -e tcp.srcport -e ip.dst -e ipv6.dst -e tcp.dstport "
    "-e tcp.flags -e tcp.seq_raw -e tcp.len";

static std::string
from_hex(const char *digits)
{
  std::string bytes;
  for (; g_ascii_isxdigit(digits[0]) && g_ascii_isxdigit(digits[1]); digits += 2) {
    bytes +=
        static_cast<char>(g_ascii_xdigit_value(digits[0]) * 16 + g_ascii_xdigit_value(digits[1]));
    digits += digits[2] == ':';
  }
  return bytes;
}

namespace
{
// A packet as tshark shows it.
struct Segment {
  guint stream;
  std::string from, to;
  bool syn, ack;
  guint32 seq;
  guint32 length; // as sent; the capture can hold less of it
  std::string bytes;
};

// Runs tshark over one stream of the capture, or over all if `stream` is -1.
class Tshark
{
public:
  Tshark(int capture, const std::string &shown, int stream, bool payload)
      : shown(shown), log(checked(memfd_create("log", MFD_CLOEXEC), "a file in memory"))
  {
    // An ICMP error quotes an earlier segment.
    std::string command = command_line;
    command += payload ? " -e tcp.payload" : "";
    command += " -Y tcp&&!icmp&&!icmpv6";
    if (stream >= 0)
      command += "&&tcp.stream==" + std::to_string(stream);
    g_auto(GStrv) arguments = g_strsplit(command.c_str(), " ", -1);

    lseek(capture, 0, SEEK_SET);
    Owned<GSubprocessLauncher> launcher(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE));
    auto copy = [](int fd) { return checked(fcntl(fd, F_DUPFD_CLOEXEC, 3), "a descriptor"); };
    g_subprocess_launcher_take_stdin_fd(launcher.get(), copy(capture));
    g_subprocess_launcher_take_stderr_fd(launcher.get(), copy(log));
    g_autoptr(GError) error = nullptr;
    process.reset(g_subprocess_launcher_spawnv(launcher.get(), arguments, &error));
    if (g_error_matches(error, G_SPAWN_ERROR, G_SPAWN_ERROR_NOENT))
      fail(Exit::local, "%s is a capture of packets, which takes tshark to read: install it",
           shown.c_str());
    if (!process)
      fail(Exit::local, "cannot run tshark: %s", error->message);
    lines.reset(g_data_input_stream_new(g_subprocess_get_stdout_pipe(process.get())));
  }

  ~Tshark()
  {
    if (process)
      g_subprocess_force_exit(process.get());
  }

  Tshark(const Tshark &) = delete;

  // Skips the incomplete rows of packets that the capture has cut.
  bool
  next(Segment *segment)
  {
    auto number = [](const char *text) {
      return static_cast<guint32>(g_ascii_strtoull(text, nullptr, 0));
    };
    auto address = [](char **row) {
      std::string host = *row[1] ? "[" + std::string(row[1]) + "]" : row[0];
      return printable(host + ":" + row[2]);
    };
    std::string line;
    while (next_line(&line)) {
      g_auto(GStrv) row = g_strsplit(line.c_str(), "\t", -1);
      if (g_strv_length(row) < 10 || !*row[0] || !*row[8])
        continue;
      auto flags = number(row[7]);
      *segment = {number(row[0]),      address(row + 1), address(row + 4), (flags & 0x02) != 0,
                  (flags & 0x10) != 0, number(row[8]),   number(row[9]),   {}};
      if (row[10])
        segment->bytes = from_hex(row[10]);
      return true;
    }
    return false;
  }

  // Why tshark could not read all of the capture; empty if it could.
  std::string
  failure()
  {
    g_subprocess_wait(process.get(), nullptr, nullptr);
    if (g_subprocess_get_successful(process.get()))
      return "";
    char text[4096];
    auto got = pread(log, text, sizeof text, 0);
    std::string said(text, got > 0 ? static_cast<gsize>(got) : 0);
    while (!said.empty() && said.back() == '\n')
      said.pop_back();
    return "tshark cannot read all of " + shown + ": " +
           printable(said.substr(said.rfind('\n') + 1));
  }

private:
  bool
  next_line(std::string *line)
  {
    g_autoptr(GError) error = nullptr;
    g_autofree char *text =
        g_data_input_stream_read_line(lines.get(), nullptr, interrupt_soon(), &error);
    if (interrupted())
      throw Failure{Exit::interrupted, ""};
    if (error)
      fail(Exit::local, "cannot read what tshark prints: %s", error->message);
    *line = text ? text : "";
    return text;
  }

  const std::string &shown;
  const Descriptor log;
  Owned<GSubprocess> process;
  Owned<GDataInputStream> lines;
};
} // namespace

namespace
{
// The sides of a stream. The client is the side that opened the connection or, if the capture does
// not show that, the side that sent first.
struct Flow {
  std::string names[2];
  guint64 bytes[2] = {0, 0};
  int client = 0;
  bool certain = false;

  void
  add(const Segment &segment)
  {
    if (names[0].empty()) {
      names[0] = segment.from;
      names[1] = segment.to;
    }
    int side = segment.from == names[0] ? 0 : 1;
    bytes[side] += segment.length;
    if (segment.syn && !certain) {
      client = segment.ack ? 1 - side : side;
      certain = true;
    }
  }

  std::string
  text() const
  {
    return names[client] + " to " + names[1 - client] + ", " + std::to_string(bytes[client]) +
           " and " + std::to_string(bytes[1 - client]) + " bytes";
  }
};
} // namespace

using Flows = std::map<guint, Flow>;

static Flows
find_flows(int fd, const std::string &shown, const CaptureChoice &choice)
{
  Flows flows;
  Tshark tshark(fd, shown, choice.stream, false);
  for (Segment segment; tshark.next(&segment);)
    flows[segment.stream].add(segment);
  std::erase_if(flows, [](auto &flow) { return flow.second.bytes[0] + flow.second.bytes[1] == 0; });
  if (flows.empty())
    if (auto why = tshark.failure(); !why.empty())
      throw Failure{Exit::local, why};
  return flows;
}

static const Flows::value_type
choose_flow(const Flows &flows, const std::string &shown, const CaptureChoice &choice)
{
  if (flows.empty())
    fail(Exit::usage, "%s holds no bytes of %s", shown.c_str(),
         choice.stream < 0 ? "a TCP stream"
                           : ("TCP stream " + std::to_string(choice.stream)).c_str());
  if (flows.size() == 1)
    return *flows.begin();
  std::string list;
  int listed = 0;
  for (auto &[number, flow] : flows)
    if (listed++ < 20)
      list += (list.empty() ? "" : "; ") + std::to_string(number) + ": " + flow.text();
  fail(Exit::usage, "%s holds %u TCP streams, choose one with --stream: %s%s", shown.c_str(),
       static_cast<guint>(flows.size()), list.c_str(), listed > 20 ? "; ..." : "");
}

namespace
{
// The segments of one direction, put in order.
class Assembly
{
public:
  explicit Assembly(Layer &bottom) : bottom(bottom) {}

  void
  add(Segment segment)
  {
    auto seq = segment.seq + segment.syn;
    if (!begun) {
      begun = true;
      base = seq;
      // If the beginning is missing, decoding starts at a segment that looks like a start.
      if (!segment.syn)
        bottom.gap();
    }
    auto offset = next + static_cast<gint32>(seq - (base + static_cast<guint32>(next)));
    if (segment.length == 0) // the end of a stream counts as a byte but is none
      return;
    end = std::max(end, offset + segment.length);
    if (offset <= next) {
      push(offset, segment.bytes);
      push_waiting();
    } else if (auto &kept = waiting[offset]; kept.size() < segment.bytes.size()) {
      held += segment.bytes.size() - kept.size();
      kept = std::move(segment.bytes);
    }
    while (held + waiting.size() * 100 > most_held)
      skip_missing();
  }

  void
  finish()
  {
    while (!waiting.empty())
      skip_missing();
    if (next < end)
      bottom.missing(static_cast<guint64>(end - next));
  }

private:
  // More than a receiver has room for. A segment that is missing for so long was not captured.
  static constexpr gsize most_held = 32 * 1024 * 1024;

  void
  skip_missing()
  {
    bottom.missing(static_cast<guint64>(waiting.begin()->first - next));
    next = waiting.begin()->first;
    push_waiting();
  }

  void
  push(gint64 offset, const std::string &bytes)
  {
    auto known = static_cast<gsize>(next - offset);
    if (known >= bytes.size())
      return;
    next += static_cast<gint64>(bytes.size() - known);
    bottom.push(bytes.data() + known, bytes.size() - known, 0);
  }

  void
  push_waiting()
  {
    while (!waiting.empty() && waiting.begin()->first <= next) {
      push(waiting.begin()->first, waiting.begin()->second);
      held -= waiting.begin()->second.size();
      waiting.erase(waiting.begin());
    }
  }

  Layer &bottom;
  bool begun = false;
  guint32 base = 0; // the sequence number of offset 0
  gint64 next = 0;  // the offset up to which all bytes have been pushed
  gint64 end = 0;   // of all bytes that are known to have been sent
  std::map<gint64, std::string> waiting;
  gsize held = 0; // bytes in `waiting`
};
} // namespace

bool
read_capture(int fd, const std::string &shown, const CaptureChoice &choice, Layer &bottom)
{
  auto [number, flow] = choose_flow(find_flows(fd, shown, choice), shown, choice);
  bool from_client =
      choice.from == "client" || (choice.from.empty() && flow.bytes[flow.client] > 0);
  int side = from_client ? flow.client : 1 - flow.client;
  inform("stream %u, from the %s %s to the %s %s%s", number, from_client ? "client" : "server",
         flow.names[side].c_str(), from_client ? "server" : "client", flow.names[1 - side].c_str(),
         flow.bytes[1 - side] > 0 ? "; --from chooses the other direction" : "");

  Tshark tshark(fd, shown, static_cast<int>(number), true);
  Assembly assembly(bottom);
  for (Segment segment; tshark.next(&segment);)
    if (segment.from == flow.names[side])
      assembly.add(std::move(segment));
  assembly.finish();
  auto why = tshark.failure();
  if (!why.empty())
    complain("%s", why.c_str());
  return why.empty();
}
