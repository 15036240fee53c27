// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "files.h"
#include "interrupt.h"
#include "output.h"
#include "transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

static const std::string part_suffix = ".zelgvc-part";
static constexpr gsize name_max = 255;
// Bounds the data in memory that is not on disk, and so the time of the last fsync.
static constexpr guint64 sync_interval = 256 * 1024 * 1024;

// A name that is too long for the suffix is cut and gets its checksum, which keeps it unique.
static std::string
part_name(const std::string &name)
{
  auto path = "." + name + part_suffix;
  if (path.size() <= name_max)
    return path;
  Sha256 sha;
  sha.update(name.data(), name.size());
  return "." + name.substr(0, 100) + "-" + hex_text(sha.digest().data(), 16) + part_suffix;
}

static bool
all_zero(const char *bytes, gsize size)
{
  return size > 0 && bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
}

namespace
{
struct ReceiveOptions {
  gboolean force = FALSE, resume = FALSE, keep = FALSE, json = FALSE;
  int dir = -1;
};

struct Announced {
  std::string name;
  guint64 size;
  mode_t mode;
  timespec mtime;
};

// The reason to refuse a file. The next file follows.
struct Refusal {
  std::string why;
};

// A file with a temporary name until it is complete. It stays for --resume if the transfer ends
// early.
class Part
{
public:
  Part(int dir, const std::string &name) : dir(dir), path(part_name(name))
  {
    fd = openat(dir, path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0)
      throw Refusal{"cannot create " + printable(path) + ": " + g_strerror(errno)};
    struct stat status;
    std::string why;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
      why = printable(path) + " is in the way and no regular file";
    else if (status.st_nlink > 1)
      why = printable(path) + " is in the way and has another name, too";
    else if (flock(fd, LOCK_EX | LOCK_NB) != 0)
      why = "another transfer of it is going on";
    else if (!has_name(dir, path.c_str(), fd))
      why = "another transfer of it has just ended";
    if (!why.empty()) {
      close(fd);
      throw Refusal{why};
    }
  }

  ~Part()
  {
    if (state == unfinished && size() == 0)
      unlinkat(dir, path.c_str(), 0);
    close(fd);
  }

  Part(const Part &) = delete;

  guint64
  size() const
  {
    struct stat status;
    return fstat(fd, &status) == 0 ? static_cast<guint64>(status.st_size) : 0;
  }

  void
  truncate(guint64 size)
  {
    if (retry([&] { return ftruncate(fd, static_cast<off_t>(size)); }) != 0)
      fail_to("resize");
  }

  // Makes holes of zeros, so that a sparse file stays sparse.
  void
  write(const void *bytes, gsize size, guint64 offset)
  {
    auto *from = static_cast<const char *>(bytes);
    if (size >= 4096 && all_zero(from, size)) {
      truncate(offset + size);
      return;
    }
    for (gsize done = 0; done < size;) {
      auto written = retry(
          [&] { return pwrite(fd, from + done, size - done, static_cast<off_t>(offset + done)); });
      if (written < 0)
        fail_to("write");
      done += static_cast<gsize>(written);
    }
    unsynced += size;
    if (unsynced >= sync_interval) {
      if (retry([&] { return fdatasync(fd); }) != 0)
        fail_to("write");
      unsynced = 0;
    }
  }

  void
  discard()
  {
    unlinkat(dir, path.c_str(), 0);
    state = discarded;
  }

  void
  commit(const Announced &file, bool force)
  {
    const timespec times[2] = {{0, UTIME_OMIT}, file.mtime};
    if (fchmod(fd, file.mode) != 0 || futimens(fd, times) != 0 || retry([&] { return fsync(fd); }))
      fail_to("finish");
    if (!give_name(dir, fd, path.c_str(), file.name.c_str(), force))
      fail_to(("give the name " + printable(file.name) + " to").c_str());
    state = stored;
    fsync(dir);
  }

  const int dir;
  const std::string path;
  int fd;
  enum { unfinished, stored, discarded } state = unfinished;

private:
  [[noreturn]] void
  fail_to(const char *what)
  {
    fail(Exit::local, "cannot %s %s: %s", what, printable(path).c_str(), g_strerror(errno));
  }

  guint64 unsynced = 0;
};
} // namespace

static Announced
read_announcement(const Control &control)
{
  Announced file;
  file.name = control.bytes("name");
  file.size = control.number("size");
  // A peer must not set the set-user-ID bit and its like.
  file.mode = static_cast<mode_t>(control.number("mode", 0600) & 0777);
  auto nanoseconds = std::min<guint64>(control.number("mtime-nsec"), 999999999);
  file.mtime = {control.integer("mtime"), static_cast<long>(nanoseconds)};
  return file;
}

static void
check_name(const std::string &name)
{
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos)
    throw Refusal{"its name would leave the directory or is none"};
  if (name.size() > name_max)
    throw Refusal{"its name is too long"};
  if (name.starts_with('.') && name.ends_with(part_suffix))
    throw Refusal{"its name is kept for unfinished transfers"};
}

static void
check_free(const ReceiveOptions &options, const std::string &name)
{
  struct stat status;
  if (fstatat(options.dir, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return;
  if (S_ISDIR(status.st_mode))
    throw Refusal{"there is a directory of that name"};
  if (!options.force)
    throw Refusal{"it exists already, and --force was not given"};
}

// Hashes what an earlier attempt has left, and asks the sender whether its file begins alike.
// Returns the offset at which the transfer starts.
static guint64
agree_on_offset(Channel &channel, Part &part, const Announced &file, bool resume, Sha256 &sha)
{
  auto have = resume ? part.size() : 0;
  if (have > file.size || !hash_beginning(part.fd, have, sha, channel)) {
    have = 0;
    sha.reset();
  }
  channel.put(Control().set("have", have).set("sha256", sha.digest()));

  auto answer = next_answer(channel, have);
  if (answer.has("failed"))
    throw Refusal{printable(answer.bytes("failed"))};
  auto offset = answer.number("offset", G_MAXUINT64);
  if (offset != 0 && offset != have)
    fail(Exit::protocol, "%s starts in the middle of the file", channel.peer().c_str());
  if (offset == 0)
    sha.reset();
  part.truncate(offset);
  return offset;
}

static void
receive_data(Channel &channel, Part &part, const Announced &file, guint64 offset, Sha256 &sha)
{
  Progress progress(printable(file.name), file.size, offset);
  auto wire = channel.wire_received();

  progress.update(offset, 0, true);
  while (offset < file.size) {
    auto bytes = channel.need(chunk_limit);
    gsize size;
    auto *data = g_bytes_get_data(bytes.get(), &size);
    if (size == 0) {
      auto why = next_answer(channel).bytes("failed");
      throw Refusal{"the sender gave up: " + printable(why)};
    }
    if (size > file.size - offset)
      fail(Exit::protocol, "%s sends more than it announced", channel.peer().c_str());
    part.write(data, size, offset);
    sha.update(data, size);
    offset += size;
    progress.update(offset, channel.wire_received() - wire);
  }
  progress.update(offset, channel.wire_received() - wire, true);
}

static void
check_sum(Channel &channel, Part &part, const Sha256 &sha)
{
  auto trailer = next_answer(channel);
  if (!trailer.has("sha256"))
    fail(Exit::protocol, "%s sends no checksum after the file", channel.peer().c_str());
  if (trailer.bytes("sha256") == sha.digest())
    return;
  part.discard();
  fail(Exit::protocol, "the checksum of what arrived is not the sender's; it is thrown away");
}

static void
say_what_is_kept(const Part &part, const Announced &file)
{
  auto kept = part.size();
  if (part.state == Part::stored)
    inform("%s is stored, and the sender may not know", printable(file.name).c_str());
  else if (part.state == Part::unfinished && kept > 0)
    inform("%s of %s of %s are kept in %s; --resume goes on there", human_size(kept).c_str(),
           human_size(file.size).c_str(), printable(file.name).c_str(),
           printable(part.path).c_str());
}

static Transferred
receive_into(Channel &channel, Part &part, const Announced &file, const ReceiveOptions &options,
             bool resume)
{
  Transferred result;
  Sha256 sha;
  auto begun = g_get_monotonic_time();
  auto wire = channel.wire_received();

  result.resumed_at = agree_on_offset(channel, part, file, resume, sha);
  receive_data(channel, part, file, result.resumed_at, sha);
  check_sum(channel, part, sha);
  part.commit(file, options.force);
  channel.put(Control().set("stored", guint64{1}));

  result.name = printable(file.name);
  result.size = file.size;
  result.wire = channel.wire_received() - wire;
  result.seconds = static_cast<double>(g_get_monotonic_time() - begun) / G_USEC_PER_SEC;
  result.sha256 = sha.digest();
  return result;
}

static Exit
receive_file(Channel &channel, const Announced &file, const ReceiveOptions &options, bool resume)
{
  bool answered = false;
  try {
    check_name(file.name);
    check_free(options, file.name);
    Part part(options.dir, file.name);
    answered = true;
    Transferred result;
    try {
      result = receive_into(channel, part, file, options, resume);
    } catch (...) {
      say_what_is_kept(part, file);
      throw;
    }
    return report(result, "received", options.json);
  } catch (const Refusal &refusal) {
    complain("%s %s: %s", answered ? "did not get" : "refused", printable(file.name).c_str(),
             refusal.why.c_str());
    if (!answered)
      channel.put(Control().set("refused", refusal.why));
    return Exit::partly;
  }
}

static Exit
receive_files(Channel &channel, const ReceiveOptions &options, bool resume)
{
  auto worst = Exit::ok;
  for (;;) {
    auto control = next_answer(channel);
    if (control.has("end")) {
      channel.put(Control().set("end", guint64{1}));
      channel.close();
      return worst;
    }
    if (!control.has("name") || !control.has("size"))
      fail(Exit::protocol, "%s announces what is no file", channel.peer().c_str());
    auto code = receive_file(channel, read_announcement(control), options, resume);
    if (worst == Exit::ok)
      worst = code;
  }
}

// Tells the sender, which may be busy sending, why this side ends the transfer.
static void
tell(Channel &channel, const Failure &failure)
{
  auto why = failure.code == Exit::interrupted ? "the receiver was interrupted" : failure.message;
  try {
    channel.put(Control().set("failed", why));
    channel.drain();
  } catch (const Failure &) {
    // The sender has gone too.
  }
}

static Exit
serve_sender(GSocketConnection *connection, const CommandLine &line, const ReceiveOptions &options)
{
  Channel channel(connection, line.stages, line.timeout);
  std::string service;
  auto wishes = channel.answer_greeting({files_service}, &service);
  channel.send_hello(files_service, Control());
  try {
    return receive_files(channel, options, options.resume || wishes.number("resume") != 0);
  } catch (const Failure &failure) {
    if (failure.code != Exit::peer)
      tell(channel, failure);
    throw;
  }
}

static void
open_directory(ReceiveOptions &options, const std::string &path)
{
  options.dir = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (options.dir < 0 || faccessat(options.dir, ".", W_OK | X_OK, AT_EACCESS) != 0)
    fail(Exit::local, "cannot store files in %s: %s", printable(path).c_str(), g_strerror(errno));
}

Exit
run_receive(CommandLine &line)
{
  ReceiveOptions options;
  line.add("force", G_OPTION_ARG_NONE, &options.force, "Replace existing files");
  line.add("resume", G_OPTION_ARG_NONE, &options.resume, "Continue an interrupted transfer");
  line.add("keep", G_OPTION_ARG_NONE, &options.keep, "Serve one sender after another");
  line.add("json", G_OPTION_ARG_NONE, &options.json, "Print one JSON object for each file");
  line.add_stages();
  line.add_timeout();
  auto arguments = line.parse(2, 2);

  auto address = Address::parse(arguments[0]);
  open_directory(options, arguments[1]);
  Listener listener(address);
  auto serve = [&](auto *connection) { return serve_sender(connection, line, options); };
  return listener.serve(options.keep, serve);
}
