/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* One of the two processes that talk over the bad network: it sends what is planned, compares what
 * arrives with what was planned, and says on its standard output how that ended. */
#ifndef TESTS_NETWORKPEER_H
#define TESTS_NETWORKPEER_H

#include "tests/support/traffic.h"

namespace network
{

/* The planned messages: from the client to the server, and back. */
enum class Plan {
  many,  /* 60 messages each way, two of them of 100 kB */
  huge,  /* the same, and one of 1.5 MB each way */
  few,   /* 12 small ones each way */
  doomed /* 20 small ones each way and then a large one to the server, which is never to arrive */
};
constexpr guint doomed_messages = 20;
constexpr gsize doomed_size = 512 * 1024;

struct Talk {
  guint16 port;
  bool staged;
  bool asynchronous;
  Plan plan;
  traffic::Form doomed_form;
};

enum class Role { client, server };

/* The messages that the role sends. */
std::vector<traffic::Message> planned(const Talk &talk, Role sender);

/* The report of a peer. Its error is the one that ended the conversation. */
struct Outcome {
  guint received = 0;
  guint sent = 0;
  bool zeros = false; /* part of the doomed message arrived, and zeros in place of its rest */
  std::string domain; /* empty where all went to plan */
  int code = 0;
  std::string text;
};

std::string to_line(const Outcome &outcome);
std::optional<Outcome> from_line(const std::string &line);

std::vector<std::string> to_arguments(const Talk &talk, Role role);
/* Tells a peer, by a signal, to reset its connection and to exit at once. */
extern const int signal_reset;
/* Tells a peer to give up on a connection over which nothing comes any more. The system decides
 * that, so it does not matter how slowly the processes run. */
extern const int signal_impatience;

/* The whole life of a peer, from its arguments on. Gives the exit status of its process. */
int run_peer(const std::vector<std::string> &arguments);

} // namespace network

#endif /* TESTS_NETWORKPEER_H */
