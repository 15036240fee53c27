// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/process/networklink.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace network
{

namespace
{

constexpr char device[] = "link0";
/* The queue in front of a slow line. It drops what exceeds it, as any router does. */
constexpr gsize most_waiting = 200;

std::string
failure(const char *what)
{
  return std::string(what) + ": " + g_strerror(errno);
}

bool
write_file(const char *path, const std::string &text)
{
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  const bool done = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return done;
}

/* A user namespace makes anybody the master of a network of his own; where there are none, root
 * still is. */
std::string
become_master()
{
  const auto uid = std::to_string(getuid()), gid = std::to_string(getgid());
  if (unshare(CLONE_NEWUSER) != 0)
    return getuid() == 0 ? "" : failure("no user namespace");
  if (!write_file("/proc/self/setgroups", "deny") ||
      !write_file("/proc/self/uid_map", "0 " + uid + " 1") ||
      !write_file("/proc/self/gid_map", "0 " + gid + " 1"))
    return failure("no user in the user namespace");
  return "";
}

ifreq
request()
{
  ifreq result = {};
  static_assert(sizeof device <= sizeof result.ifr_name);
  memcpy(result.ifr_name, device, sizeof device);
  return result;
}

bool
set_address(int control, unsigned long command, const char *text)
{
  ifreq ifr = request();
  sockaddr_in inet = {};
  inet.sin_family = AF_INET;
  inet_pton(AF_INET, text, &inet.sin_addr);
  memcpy(&ifr.ifr_addr, &inet, sizeof inet);
  return ioctl(control, command, &ifr) == 0;
}

constexpr gsize ip_header = 20, least_tcp_header = 20;

bool
is_tcp(const std::string &data)
{
  return data.size() >= ip_header + least_tcp_header && data[9] == IPPROTO_TCP;
}

guint16
big_endian_16(const std::string &data, gsize at)
{
  return static_cast<guint16>(static_cast<guint8>(data[at]) << 8 |
                              static_cast<guint8>(data[at + 1]));
}

/* The one that the server listens on. */
guint16
right_port(const std::string &data, Side to)
{
  return big_endian_16(data, to == right ? ip_header + 2 : ip_header);
}

} // namespace

const char *
address(Side side)
{
  return side == left ? "10.77.0.1" : "10.77.0.2";
}

Link::Link(const Faults &faults, guint32 seed) : faults_(faults), random_(seed) {}

Link::~Link()
{
  for (const auto &fds : {namespaces_, tuns_, controls_})
    for (int side = 0; side < sides; side++)
      if (fds[side] >= 0)
        close(fds[side]);
}

std::string
Link::make()
{
  auto problem = become_master();
  for (int side = 0; side < sides && problem.empty(); side++)
    problem = make_side(static_cast<Side>(side));
  return problem;
}

std::string
Link::make_side(Side side)
{
  if (unshare(CLONE_NEWNET) != 0)
    return failure("no network namespace");
  namespaces_[side] = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  controls_[side] = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  tuns_[side] = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
  if (tuns_[side] < 0)
    return failure("no /dev/net/tun");
  if (namespaces_[side] < 0 || controls_[side] < 0)
    return failure("no hold of the network namespace");

  ifreq tun = request();
  tun.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (ioctl(tuns_[side], TUNSETIFF, &tun) != 0)
    return failure("no TUN device");
  ifreq mtu = request();
  mtu.ifr_mtu = faults_.mtu;
  if (ioctl(controls_[side], SIOCSIFMTU, &mtu) != 0 ||
      !set_address(controls_[side], SIOCSIFADDR, address(side)) ||
      !set_address(controls_[side], SIOCSIFNETMASK, "255.255.255.252"))
    return failure("no address for the TUN device");
  set_up(side, true);
  return "";
}

void
Link::enter(Side side) const
{
  if (setns(namespaces_[side], CLONE_NEWNET) != 0)
    g_error("%s", failure("no way into the namespace").c_str());
}

void
Link::set_up(Side side, bool up) const
{
  ifreq ifr = request();
  if (ioctl(controls_[side], SIOCGIFFLAGS, &ifr) != 0)
    g_error("%s", failure("no flags of the device").c_str());
  ifr.ifr_flags = static_cast<short>(up ? ifr.ifr_flags | IFF_UP : ifr.ifr_flags & ~IFF_UP);
  if (ioctl(controls_[side], SIOCSIFFLAGS, &ifr) != 0)
    g_error("%s", failure("the device does not change").c_str());
}

bool
Link::happens(guint chance)
{
  return random_() % 1000 < chance;
}

void
Link::relay(int msec)
{
  pollfd fds[sides] = {{tuns_[left], POLLIN, 0}, {tuns_[right], POLLIN, 0}};
  if (!packets_.empty()) {
    const gint64 until_due = packets_.top().due - g_get_monotonic_time();
    msec = static_cast<int>(std::clamp<gint64>((until_due + 999) / 1000, 0, msec));
  }
  poll(fds, sides, msec);
  for (int side = 0; side < sides; side++)
    take(static_cast<Side>(side));
  deliver_due();
}

bool
Link::is_silent(Side to, const std::string &data) const
{
  return is_tcp(data) && silent_ports_.contains(right_port(data, to));
}

/* Reads what the system wants to send from this side, and decides the fate of each packet. */
void
Link::take(Side from)
{
  const Side to = from == left ? right : left;
  char buffer[65536];
  for (;;) {
    const ssize_t size = read(tuns_[from], buffer, sizeof buffer);
    if (size <= 0)
      return;
    std::string data(buffer, static_cast<size_t>(size));
    tally_.largest = std::max(tally_.largest, data.size());
    if (is_silent(to, data) || happens(faults_.loss)) {
      tally_.lost++;
      continue;
    }
    if (happens(faults_.damage)) {
      data[random_() % data.size()] ^= static_cast<char>(1 << random_() % 8);
      tally_.damaged++;
    }
    const bool overtaken = happens(faults_.reordering);
    tally_.reordered += overtaken;
    enqueue(to, data, overtaken ? 5000 + random_() % 15000 : 0);
    if (happens(faults_.duplication)) {
      tally_.duplicated++;
      enqueue(to, data, random_() % 10000);
    }
  }
}

void
Link::enqueue(Side to, const std::string &data, gint64 extra_delay)
{
  const gint64 now = g_get_monotonic_time();
  gint64 sent = now;
  if (faults_.bits_per_second != 0) {
    if (packets_.size() >= most_waiting) {
      tally_.lost++;
      return;
    }
    tally_.waited += line_free_[to] > now;
    const auto bits = static_cast<gint64>(data.size()) * 8;
    sent = std::max(now, line_free_[to]) + bits * G_USEC_PER_SEC / faults_.bits_per_second;
    line_free_[to] = sent;
  }
  packets_.push({sent + faults_.delay_msec * 1000 + extra_delay, sequence_++, to, data});
}

void
Link::deliver_due()
{
  while (!packets_.empty() && packets_.top().due <= g_get_monotonic_time()) {
    const Packet packet = packets_.top();
    packets_.pop();
    deliver(packet);
  }
}

void
Link::deliver(const Packet &packet)
{
  const auto &data = packet.data;
  if (is_silent(packet.to, data) ||
      write(tuns_[packet.to], data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
    tally_.lost++; /* where the write fails, the device is down */
    return;
  }
  tally_.forwarded++;
  if (packet.to != right || !is_tcp(data) || !on_delivery)
    return;
  const gsize headers = ip_header + static_cast<gsize>(static_cast<guint8>(data[32]) >> 4) * 4;
  on_delivery(right_port(data, right), data.size() - std::min(headers, data.size()));
}

} // namespace network
