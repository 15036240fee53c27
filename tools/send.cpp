// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "files.h"
#include "interrupt.h"
#include "output.h"
#include "transfer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
struct File {
  Descriptor fd;
  std::string path; // printable
  std::string name; // the last part of the path, printable
  struct stat status = {};

  guint64
  size() const
  {
    return static_cast<guint64>(status.st_size);
  }
};

// Ends the transfer of one file. The next file follows.
struct FileFailure {
  Exit code;
  std::string message;
};
} // namespace

static void
open_file(File &file, const std::string &path)
{
  g_autofree char *name = g_path_get_basename(path.c_str());
  file.path = printable(path);
  file.name = printable(std::string(name));
  // Without O_NONBLOCK, a pipe to which nobody writes would hang.
  file.fd.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file.fd < 0 || fstat(file.fd, &file.status) != 0)
    throw FileFailure{Exit::local, "cannot read " + file.path + ": " + g_strerror(errno)};
  if (S_ISDIR(file.status.st_mode))
    throw FileFailure{Exit::local, file.path + " is a directory; only files are sent"};
  if (!S_ISREG(file.status.st_mode))
    throw FileFailure{Exit::local, file.path + " is no regular file"};
  // Some files, as in /proc, have contents but no size.
  char byte;
  auto got = file.size() == 0 ? pread(file.fd, &byte, 1, 0) : 0;
  if (got < 0)
    throw FileFailure{Exit::local, "cannot read " + file.path + ": " + g_strerror(errno)};
  if (got > 0)
    throw FileFailure{Exit::local, file.path + " does not tell its size"};
}

static Control
announcement(const File &file, const std::string &path)
{
  g_autofree char *name = g_path_get_basename(path.c_str());
  auto &mtime = file.status.st_mtim;
  Control control;
  control.set("name", name).set("size", file.size());
  control.set("mode", guint64{file.status.st_mode & 07777u});
  control.set("mtime", g_variant_new_int64(mtime.tv_sec));
  control.set("mtime-nsec", static_cast<guint64>(mtime.tv_nsec));
  return control;
}

[[noreturn]] static void
receiver_failed(const Channel &channel, const File &file, const Control &answer)
{
  auto why = printable(answer.bytes("failed"));
  if (why.empty())
    fail(Exit::protocol, "%s answers what is no answer", channel.peer().c_str());
  fail(Exit::partly, "%s gave up on %s: %s", channel.peer().c_str(), file.path.c_str(),
       why.c_str());
}

// If the receiver has gone, it may have sent the reason.
[[noreturn]] static void
lost(Channel &channel, const File &file, const Failure &failure)
{
  if (failure.code == Exit::peer) {
    try {
      auto answer = next_answer(channel);
      if (answer.has("failed"))
        receiver_failed(channel, file, answer);
    } catch (const Failure &second) {
      if (second.code == Exit::partly)
        throw;
    }
  }
  throw failure;
}

// Tells the receiver that no more of this file follows.
static void
break_off(Channel &channel, const std::string &why)
{
  channel.put("", 0);
  channel.put(Control().set("failed", why));
}

static bool
is_unchanged(const File &file)
{
  struct stat now;
  auto &then = file.status;
  return fstat(file.fd, &now) == 0 && now.st_size == then.st_size &&
         now.st_mtim.tv_sec == then.st_mtim.tv_sec && now.st_mtim.tv_nsec == then.st_mtim.tv_nsec;
}

static gsize
read_chunk(const File &file, char *buffer, guint64 offset)
{
  auto wanted = std::min<guint64>(chunk_size, file.size() - offset);
  auto got = retry([&] { return pread(file.fd, buffer, wanted, static_cast<off_t>(offset)); });
  if (got < 0)
    throw FileFailure{Exit::local, "cannot read " + file.path + ": " + g_strerror(errno)};
  if (got == 0)
    throw FileFailure{Exit::local, file.path + " became shorter while it was sent"};
  // The receiver must not take a mixture of two versions for the file.
  if (static_cast<guint64>(got) == file.size() - offset && !is_unchanged(file))
    throw FileFailure{Exit::local, file.path + " changed while it was sent"};
  return static_cast<gsize>(got);
}

static void
send_data(Channel &channel, const File &file, guint64 offset, Sha256 &sha)
{
  std::vector<char> buffer(chunk_size);
  Progress progress(file.name, file.size(), offset);
  auto wire = channel.wire_sent();

  progress.update(offset, 0, true);
  while (offset < file.size()) {
    if (interrupted()) {
      break_off(channel, "the sender was interrupted");
      channel.close();
      throw Failure{Exit::interrupted, "interrupted while sending " + file.path};
    }
    auto size = read_chunk(file, buffer.data(), offset);
    sha.update(buffer.data(), size);
    channel.put(buffer.data(), size);
    offset += size;
    progress.update(offset, channel.wire_sent() - wire);
    if (channel.readable()) {
      auto answer = channel.need_control();
      if (!answer.has("busy"))
        receiver_failed(channel, file, answer);
    }
  }
  progress.update(offset, channel.wire_sent() - wire, true);
}

// Compares the beginning of the file with what the receiver has, and skips it if they agree.
static guint64
agree_on_offset(Channel &channel, const File &file, const Control &answer, Sha256 &sha)
{
  auto have = answer.number("have");
  if (have == 0 || have > file.size())
    return 0;
  if (hash_beginning(file.fd, have, sha, channel) && sha.digest() == answer.bytes("sha256"))
    return have;
  inform("%s: what the receiver has of it is something else, sending all of it", file.path.c_str());
  sha.reset();
  return 0;
}

static Transferred
transfer(Channel &channel, const File &file, const std::string &path)
{
  Transferred result;
  channel.put(announcement(file, path));
  auto answer = next_answer(channel, file.size());
  if (answer.has("failed"))
    receiver_failed(channel, file, answer);
  if (answer.has("refused"))
    throw FileFailure{Exit::partly, channel.peer() + " refuses " + file.path + ": " +
                                        printable(answer.bytes("refused"))};
  if (!answer.has("have"))
    fail(Exit::protocol, "%s answers what is no answer", channel.peer().c_str());

  Sha256 sha;
  auto begun = g_get_monotonic_time();
  auto wire = channel.wire_sent();
  auto offset = agree_on_offset(channel, file, answer, sha);
  channel.put(Control().set("offset", offset));
  try {
    send_data(channel, file, offset, sha);
  } catch (const FileFailure &failure) {
    break_off(channel, failure.message);
    throw;
  }
  result.sha256 = sha.digest();
  channel.put(Control().set("sha256", result.sha256));
  result.wire = channel.wire_sent() - wire;
  answer = next_answer(channel);
  if (!answer.has("stored"))
    receiver_failed(channel, file, answer);

  result.name = file.path;
  result.size = file.size();
  result.resumed_at = offset;
  result.seconds = static_cast<double>(g_get_monotonic_time() - begun) / G_USEC_PER_SEC;
  return result;
}

static Exit
send_file(Channel &channel, const std::string &path, bool json)
{
  File file;
  try {
    open_file(file, path);
    return report(transfer(channel, file, path), "sent", json);
  } catch (const FileFailure &failure) {
    complain("%s", failure.message.c_str());
    return failure.code;
  } catch (const Failure &failure) {
    lost(channel, file, failure);
  }
}

Exit
run_send(CommandLine &line)
{
  gboolean resume = FALSE, json = FALSE;
  line.add("resume", G_OPTION_ARG_NONE, &resume,
           "Continue an interrupted transfer to this receiver");
  line.add("json", G_OPTION_ARG_NONE, &json, "Print one JSON object for each file");
  line.add_stages();
  line.add_timeout();
  auto arguments = line.parse(2, G_MAXSIZE);
  auto address = Address::parse(arguments.front());

  Channel channel(connect_to(address, line.timeout), line.stages, line.timeout);
  channel.greet(files_service, Control().set("resume", guint64{resume ? 1u : 0u}));

  auto worst = Exit::ok;
  for (gsize i = 1; i < arguments.size(); i++) {
    auto code = send_file(channel, arguments[i], json);
    if (worst == Exit::ok)
      worst = code;
  }
  channel.put(Control().set("end", guint64{1}));
  if (!next_answer(channel).has("end"))
    fail(Exit::protocol, "%s answers what is no answer", channel.peer().c_str());
  channel.close();
  return worst;
}
