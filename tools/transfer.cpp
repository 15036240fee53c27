// SPDX-License-Identifier: LGPL-2.1-or-later
#include "transfer.h"
#include "files.h"
#include "interrupt.h"
#include "output.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>
#include <vector>

// A peer that hashes fewer bytes per second than this is too slow.
static constexpr double least_hash_rate = 1024 * 1024;

Sha256::Sha256()
{
  if (gcry_md_open(&handle, GCRY_MD_SHA256, 0) != 0)
    fail(Exit::local, "libgcrypt offers no SHA-256");
}

std::string
Sha256::digest() const
{
  gcry_md_hd_t copy;
  if (gcry_md_copy(&copy, handle) != 0)
    fail(Exit::local, "libgcrypt cannot finish a SHA-256");
  std::string digest(reinterpret_cast<const char *>(gcry_md_read(copy, GCRY_MD_SHA256)), 32);
  gcry_md_close(copy);
  return digest;
}

Control
next_answer(Channel &channel, guint64 hashed)
{
  auto begun = g_get_monotonic_time();
  auto most = static_cast<double>(hashed) / least_hash_rate + channel.timeout;
  for (;;) {
    auto control = channel.need_control();
    if (!control.has("busy"))
      return control;
    auto seconds = static_cast<double>(g_get_monotonic_time() - begun) / G_USEC_PER_SEC;
    if (channel.timeout > 0 && seconds > most)
      fail(Exit::peer, "%s has been busy for too long", channel.peer().c_str());
  }
}

bool
hash_beginning(int fd, guint64 size, Sha256 &sha, Channel &channel)
{
  std::vector<char> buffer(chunk_size);
  auto last = g_get_monotonic_time();

  for (guint64 done = 0; done < size;) {
    auto wanted = std::min<guint64>(buffer.size(), size - done);
    auto got = retry([&] { return pread(fd, buffer.data(), wanted, static_cast<off_t>(done)); });
    if (got <= 0)
      return false;
    if (interrupted())
      throw Failure{Exit::interrupted, "interrupted"};
    sha.update(buffer.data(), static_cast<gsize>(got));
    done += static_cast<guint64>(got);
    if (g_get_monotonic_time() - last > G_USEC_PER_SEC) {
      channel.put(Control().set("busy", guint64{1}));
      last = g_get_monotonic_time();
    }
  }
  return true;
}

static void
print_report(const Transferred &file, const char *verb, bool json)
{
  auto moved = file.size - file.resumed_at;
  auto rate = file.seconds > 0 ? static_cast<double>(moved) / file.seconds : 0;
  auto ratio = moved > 0 ? static_cast<double>(file.wire) / static_cast<double>(moved) : 1;
  auto sha256 = hex_text(file.sha256.data(), file.sha256.size());

  if (json) {
    JsonLine line;
    line.add("event", verb).add("name", file.name).add("size", file.size);
    line.add("resumed-at", file.resumed_at).add("wire-bytes", file.wire);
    line.add("seconds", file.seconds).add("bytes-per-second", rate).add("sha256", sha256);
    line.print();
    return;
  }
  std::string from;
  if (file.resumed_at > 0)
    from = ", resumed at " + human_size(file.resumed_at);
  output_line("%s %s: %s in %.2f s, %s, wire %.2f%s, sha256 %.16s...", verb, file.name.c_str(),
              human_size(file.size).c_str(), file.seconds, human_rate(rate).c_str(), ratio,
              from.c_str(), sha256.c_str());
}

Exit
report(const Transferred &file, const char *verb, bool json)
{
  try {
    print_report(file, verb, json);
  } catch (const OutputClosed &) {
    // Nobody reads the report.
  } catch (const Failure &failure) {
    if (failure.code != Exit::local)
      throw;
    complain("%s %s, but %s", verb, file.name.c_str(), failure.message.c_str());
    return failure.code;
  }
  return Exit::ok;
}
