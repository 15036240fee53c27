/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* A network of our own: two network namespaces that nobody else sees, a TUN device in each, and
 * this process as the wire between them, which treats packets as badly as it is told to. All of it
 * goes when the last process in it does, however that ends. */
#ifndef TESTS_NETWORKLINK_H
#define TESTS_NETWORKLINK_H

#include <glib.h>

#include <functional>
#include <queue>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace network
{

/* Chances are in thousandths. */
struct Faults {
  guint delay_msec = 0;
  guint loss = 0;
  guint duplication = 0;
  guint reordering = 0;
  guint damage = 0;
  guint bits_per_second = 0; /* in each direction; 0 for no limit */
  int mtu = 1500;
};

/* Counts of packets. */
struct Tally {
  guint64 forwarded = 0, lost = 0, duplicated = 0, reordered = 0, damaged = 0;
  guint64 waited = 0; /* behind others, for the rate */
  gsize largest = 0;
};

enum Side { left, right };
constexpr int sides = 2;
const char *address(Side side);

class Link
{
public:
  Link(const Faults &faults, guint32 seed);
  ~Link();
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;

  /* Gives the process its namespaces; before it has a second thread. Where that cannot be done the
   * result says why, otherwise it is empty. */
  std::string make();
  /* For a process that was forked off: from here on it lives on this side. */
  void enter(Side side) const;
  /* As "ip link set ... up" and "... down". */
  void set_up(Side side, bool up) const;
  /* From now on nothing gets through of what has this port of the right side. */
  void
  silence(guint16 port)
  {
    silent_ports_.insert(port);
  }
  /* Moves packets for at most so long. */
  void relay(int msec);

  /* Told of every TCP packet from left to right that is delivered, with its destination port and
   * the bytes it carries. */
  std::function<void(guint16 port, gsize size)> on_delivery;
  const Tally &
  tally() const
  {
    return tally_;
  }

private:
  struct Packet {
    gint64 due;
    guint64 sequence;
    Side to;
    std::string data;
    bool
    operator<(const Packet &other) const
    {
      return due != other.due ? due > other.due : sequence > other.sequence;
    }
  };

  std::string make_side(Side side);
  bool happens(guint chance);
  bool is_silent(Side to, const std::string &data) const;
  void take(Side from);
  void enqueue(Side to, const std::string &data, gint64 extra_delay);
  void deliver_due();
  void deliver(const Packet &packet);

  Faults faults_;
  std::mt19937 random_;
  int namespaces_[sides] = {-1, -1};
  int tuns_[sides] = {-1, -1};
  int controls_[sides] = {-1, -1};
  gint64 line_free_[sides] = {0, 0};
  guint64 sequence_ = 0;
  std::set<guint16> silent_ports_;
  std::priority_queue<Packet> packets_;
  Tally tally_;
};

} // namespace network

#endif /* TESTS_NETWORKLINK_H */
