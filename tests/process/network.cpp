// SPDX-License-Identifier: LGPL-2.1-or-later
// Channels between processes, over networks that delay, lose, reorder, repeat and damage packets,
// and with peers that die: all messages arrive intact and in order, or both sides are told.
//
// Every case has a network of its own (--world), in which several pairs of peers (--peer) talk at
// the same time: without stages and with both, blocking and asynchronous. The networks spend their
// time waiting, so all of them run side by side.
#include "tests/process/networklink.h"
#include "tests/process/networkpeer.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

using namespace support;
using namespace network;
using traffic::Form;

namespace
{

constexpr int exit_skipped = 77;
/* A guard against hangs. */
constexpr gint64 longest_usec = 200 * G_USEC_PER_SEC;

/* ---- Scenarios ---- */

enum class Event {
  none,
  link_down_and_up,
  silence,
  client_killed,
  server_killed,
  client_resets,
};

struct Scenario {
  const char *name;
  Faults faults;
  Plan plan;
  Event event = Event::none;
  gsize event_after = 0; /* so many bytes have been delivered from client to server */
  /* The least that must have happened to packets in this scenario. */
  guint64 Tally::*effect = &Tally::forwarded;
};

const Scenario scenarios[] = {
    {.name = "delay", .faults = {.delay_msec = 40}, .plan = Plan::huge},
    {.name = "loss",
     .faults = {.delay_msec = 5, .loss = 50},
     .plan = Plan::many,
     .effect = &Tally::lost},
    {.name = "reordering",
     .faults = {.delay_msec = 5, .reordering = 250},
     .plan = Plan::huge,
     .effect = &Tally::reordered},
    {.name = "duplication",
     .faults = {.delay_msec = 5, .duplication = 200},
     .plan = Plan::huge,
     .effect = &Tally::duplicated},
    {.name = "damage",
     .faults = {.delay_msec = 5, .damage = 30},
     .plan = Plan::many,
     .effect = &Tally::damaged},
    {.name = "64-kilobits-a-second",
     .faults = {.delay_msec = 20, .bits_per_second = 64'000},
     .plan = Plan::few,
     .effect = &Tally::waited},
    {.name = "mtu-576", .faults = {.delay_msec = 5, .mtu = 576}, .plan = Plan::huge},
    {.name = "everything-at-once",
     .faults = {.delay_msec = 20,
                .loss = 50,
                .duplication = 50,
                .reordering = 100,
                .damage = 10,
                .bits_per_second = 8'000'000,
                .mtu = 576},
     .plan = Plan::many,
     .effect = &Tally::lost},
    {.name = "link-down-and-up",
     .faults = {.delay_msec = 10},
     .plan = Plan::many,
     .event = Event::link_down_and_up,
     .event_after = 20'000,
     .effect = &Tally::lost},
    {.name = "silence",
     .faults = {.delay_msec = 5},
     .plan = Plan::doomed,
     .event = Event::silence,
     .event_after = 100'000,
     .effect = &Tally::lost},
    {.name = "client-killed",
     .faults = {.delay_msec = 5},
     .plan = Plan::doomed,
     .event = Event::client_killed,
     .event_after = 100'000},
    {.name = "server-killed",
     .faults = {.delay_msec = 5},
     .plan = Plan::doomed,
     .event = Event::server_killed,
     .event_after = 100'000},
    {.name = "reset-within-a-record",
     .faults = {.delay_msec = 5},
     .plan = Plan::doomed,
     .event = Event::client_resets,
     .event_after = 100'000},
};

/* Without stages the string reader does not see the end of its stream. */
bool
string_reader_would_not_end(const Scenario &scenario, const Talk &talk)
{
  return scenario.event == Event::client_killed && talk.doomed_form == Form::string && !talk.staged;
}

std::vector<Talk>
talks_of(const Scenario &scenario)
{
  std::vector<Talk> talks;
  const int most_forms = scenario.plan == Plan::doomed ? traffic::forms : 1;
  for (int form = 0; form < most_forms; form++)
    for (const bool staged : {false, true})
      for (const bool asynchronous : {false, true}) {
        const Talk talk = {static_cast<guint16>(7001 + talks.size()), staged, asynchronous,
                           scenario.plan, static_cast<Form>(form)};
        if (!string_reader_would_not_end(scenario, talk))
          talks.push_back(talk);
      }
  return talks;
}

/* ---- Expected outcomes ---- */

bool
is_error(const Outcome &outcome, GQuark domain, int code)
{
  return outcome.domain == g_quark_to_string(domain) && outcome.code == code;
}

/* Empty where all is well. */
std::string
check_complete(const Talk &talk, Role role, const Outcome &outcome)
{
  const auto other = role == Role::client ? Role::server : Role::client;
  gsize sent = planned(talk, role).size(), received = planned(talk, other).size();
  (role == Role::client ? sent : received)++; /* the farewell */
  if (!outcome.domain.empty())
    return "an error";
  return outcome.sent == sent && outcome.received == received ? "" : "too few messages";
}

/* How a reader without and with stages sees a peer that has died. */
bool
is_told_of_end(const Talk &talk, const Outcome &outcome)
{
  if (is_error(outcome, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED))
    return true;
  if (talk.staged)
    return is_error(outcome, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
  return is_error(outcome, GVC_ERROR, GVC_ERROR_DISCONNECTED) &&
         (talk.asynchronous || outcome.zeros);
}

/* The writer of the doomed message. */
std::string
check_client(const Scenario &scenario, const Talk &talk, const Outcome &outcome)
{
  if (outcome.sent != doomed_messages)
    return "the large message counts as written, or small ones do not";
  bool told = is_error(outcome, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED);
  if (scenario.event == Event::silence)
    told = is_error(outcome, G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
  else if (talk.asynchronous) /* its read may see the end before its write is refused */
    told = is_told_of_end(talk, outcome);
  return told ? "" : "the wrong error, or none";
}

/* The reader of the doomed message. */
std::string
check_server(const Scenario &scenario, const Talk &talk, const Outcome &outcome)
{
  if (outcome.received != doomed_messages)
    return "not exactly the small messages";
  switch (scenario.event) {
  case Event::client_killed:
    return is_told_of_end(talk, outcome) ? "" : "the wrong error, or none";
  case Event::silence:
    return is_error(outcome, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ? "" : "the wrong error, or none";
  case Event::none:
  case Event::link_down_and_up:
  case Event::server_killed:
  case Event::client_resets:
    break;
  }
  return is_error(outcome, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED) ? ""
                                                                     : "the wrong error, or none";
}

/* ---- Worlds ---- */

class World
{
public:
  explicit World(const Scenario &scenario)
      : scenario_(scenario),
        link_(scenario.faults, 20'000 + static_cast<guint32>(&scenario - scenarios))
  {
  }

  int
  run()
  {
    const auto problem = link_.make();
    if (!problem.empty()) {
      printf("%s\n", problem.c_str());
      return exit_skipped;
    }
    /* The namespaces are made, and nothing resets this any more. */
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    link_.on_delivery = [this](guint16 port, gsize size) { delivered(port, size); };
    for (const Talk &talk : talks_of(scenario_)) {
      conversations_.push_back({talk, {}, 0, false});
      start(conversations_.back(), Role::server);
      start(conversations_.back(), Role::client);
    }
    if (!wait_for_peers())
      return EXIT_FAILURE;
    return check() ? EXIT_SUCCESS : EXIT_FAILURE;
  }

private:
  struct Process {
    pid_t id = 0;
    int output = -1;
    bool ended = false;
    int status = 0;
  };
  struct Conversation {
    Talk talk;
    Process peers[2]; /* by role */
    gsize delivered;  /* bytes from the client to the server */
    bool event_over;
  };

  void
  start(Conversation &conversation, Role role)
  {
    int ends[2];
    if (pipe(ends) != 0)
      g_error("no pipe: %s", g_strerror(errno));
    auto &process = conversation.peers[static_cast<int>(role)];
    process.output = ends[0];
    process.id = fork();
    if (process.id == 0)
      become_peer(conversation.talk, role, ends[1]);
    close(ends[1]);
  }
  [[noreturn]] void
  become_peer(const Talk &talk, Role role, int output)
  {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    link_.enter(role == Role::client ? left : right);
    dup2(output, STDOUT_FILENO);
    auto arguments = to_arguments(talk, role);
    std::vector<char *> argv = {const_cast<char *>("peer"), const_cast<char *>("--peer")};
    for (auto &argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv("/proc/self/exe", argv.data());
    g_error("no second process: %s", g_strerror(errno));
  }

  bool
  wait_for_peers()
  {
    const gint64 give_up = g_get_monotonic_time() + longest_usec;
    while (collect() > 0) {
      link_.relay(10);
      if (up_again_ != 0 && g_get_monotonic_time() >= up_again_)
        set_link(true);
      if (g_get_monotonic_time() > give_up) {
        printf("peers hang\n");
        check();
        return false;
      }
    }
    return true;
  }
  /* How many peers still run. */
  int
  collect()
  {
    int running = 0;
    for (auto &conversation : conversations_)
      for (auto &process : conversation.peers) {
        if (!process.ended)
          process.ended = waitpid(process.id, &process.status, WNOHANG) == process.id;
        running += !process.ended;
      }
    return running;
  }

  void
  delivered(guint16 port, gsize size)
  {
    const auto found =
        std::find_if(conversations_.begin(), conversations_.end(),
                     [port](const Conversation &each) { return each.talk.port == port; });
    if (found == conversations_.end())
      return;
    found->delivered += size;
    const auto client = found->peers[static_cast<int>(Role::client)].id;
    const auto server = found->peers[static_cast<int>(Role::server)].id;
    switch (scenario_.event) {
    case Event::none:
      return;
    case Event::link_down_and_up:
      return take_link_down();
    case Event::silence:
      return strike(*found, [this, port, client, server] {
        link_.silence(port);
        kill(client, signal_impatience);
        kill(server, signal_impatience);
      });
    case Event::client_killed:
      return strike(*found, [client] { kill(client, SIGKILL); });
    case Event::server_killed:
      return strike(*found, [server] { kill(server, SIGKILL); });
    case Event::client_resets:
      return strike(*found, [client] { kill(client, signal_reset); });
    }
  }
  void
  strike(Conversation &conversation, const std::function<void()> &event)
  {
    if (conversation.event_over || conversation.delivered < scenario_.event_after)
      return;
    conversation.event_over = true;
    event();
  }
  /* The link is everybody's, so everybody has to be in the middle of something. */
  void
  take_link_down()
  {
    const auto slowest = std::min_element(
        conversations_.begin(), conversations_.end(),
        [](const auto &one, const auto &other) { return one.delivered < other.delivered; });
    if (slowest->event_over || slowest->delivered < scenario_.event_after)
      return;
    for (auto &conversation : conversations_)
      conversation.event_over = true;
    set_link(false);
    up_again_ = g_get_monotonic_time() + 3 * G_USEC_PER_SEC / 2;
  }
  void
  set_link(bool up)
  {
    for (const Side side : {left, right})
      link_.set_up(side, up);
    up_again_ = 0;
  }

  bool
  check()
  {
    bool good = true;
    const auto &tally = link_.tally();
    printf("%" G_GUINT64_FORMAT " packets, %" G_GUINT64_FORMAT " lost, %" G_GUINT64_FORMAT
           " duplicated, %" G_GUINT64_FORMAT " reordered, %" G_GUINT64_FORMAT
           " damaged, %" G_GUINT64_FORMAT " waited, the largest of %zu bytes\n",
           tally.forwarded, tally.lost, tally.duplicated, tally.reordered, tally.damaged,
           tally.waited, tally.largest);
    if (tally.*scenario_.effect == 0) {
      printf("the network has been better than it should\n");
      good = false;
    }
    if (tally.largest > static_cast<gsize>(scenario_.faults.mtu)) {
      printf("packets have been too large\n");
      good = false;
    }
    for (auto &conversation : conversations_)
      for (const Role role : {Role::client, Role::server})
        good &= check_peer(conversation, role);
    return good;
  }
  bool
  is_victim(Role role) const
  {
    return role == Role::client
               ? scenario_.event == Event::client_killed || scenario_.event == Event::client_resets
               : scenario_.event == Event::server_killed;
  }
  bool
  check_peer(Conversation &conversation, Role role)
  {
    const Talk &talk = conversation.talk;
    const auto &process = conversation.peers[static_cast<int>(role)];
    char buffer[4096];
    const ssize_t size = process.ended ? read(process.output, buffer, sizeof buffer) : 0;
    std::string line(buffer, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    line.erase(std::min(line.find('\n'), line.size()));
    const auto problem = scenario_.event != Event::none && !conversation.event_over
                             ? "the event has not happened"
                             : judge(talk, role, process, line);
    if (problem.empty())
      return true;
    printf("%s, %s, %s, form %d: %s; status %d: %s\n", role == Role::client ? "client" : "server",
           talk.staged ? "both stages" : "no stages", talk.asynchronous ? "async" : "blocking",
           static_cast<int>(talk.doomed_form), problem.c_str(), process.status, line.c_str());
    return false;
  }
  std::string
  judge(const Talk &talk, Role role, const Process &process, const std::string &line) const
  {
    if (!process.ended)
      return "it hangs";
    if (is_victim(role))
      return line.empty() ? "" : "it has ended by itself";
    const auto outcome = from_line(line);
    if (!outcome || !WIFEXITED(process.status) || WEXITSTATUS(process.status) != EXIT_SUCCESS)
      return "it ended badly";
    if (scenario_.plan != Plan::doomed)
      return check_complete(talk, role, *outcome);
    return role == Role::client ? check_client(scenario_, talk, *outcome)
                                : check_server(scenario_, talk, *outcome);
  }

  const Scenario &scenario_;
  Link link_;
  std::vector<Conversation> conversations_;
  gint64 up_again_ = 0;
};

int
run_world(const char *name)
{
  for (const auto &scenario : scenarios)
    if (g_str_equal(scenario.name, name))
      return World(scenario).run();
  g_error("no scenario %s", name);
}

/* ---- Cases ---- */

bool one_case_only; /* the others need no network then */
std::map<std::string, Ref<GSubprocess>> worlds;

void
start_world(const Scenario &scenario)
{
  Error error;
  worlds[scenario.name].reset(g_subprocess_new(
      G_SUBPROCESS_FLAGS_STDOUT_PIPE, &error, "/proc/self/exe", "--world", scenario.name, nullptr));
  error.assert_none();
}

void
network_case(gconstpointer data)
{
  const auto &scenario = *static_cast<const Scenario *>(data);
  if (one_case_only)
    start_world(scenario);
  else if (worlds.empty())
    for (const auto &each : scenarios)
      start_world(each);

  Error error;
  char *text = nullptr;
  GSubprocess *const world = worlds[scenario.name].get();
  g_subprocess_communicate_utf8(world, nullptr, nullptr, &text, nullptr, &error);
  error.assert_none();
  const Mem<char> output(text);
  g_strchomp(text);
  g_assert_true(g_subprocess_get_if_exited(world));
  const int status = g_subprocess_get_exit_status(world);
  if (status == exit_skipped) {
    g_test_skip(text);
    return;
  }
  g_test_message("%s", text);
  if (status != EXIT_SUCCESS)
    g_error("%s:\n%s", scenario.name, text);
}

} // namespace

int
main(int argc, char **argv)
{
  if (argc == 3 && g_str_equal(argv[1], "--world"))
    return run_world(argv[2]);
  if (argc > 2 && g_str_equal(argv[1], "--peer"))
    return run_peer({argv + 2, argv + argc});
  for (int i = 1; i < argc; i++)
    one_case_only |= g_str_equal(argv[i], "-p") != FALSE;
  g_test_init(&argc, &argv, nullptr);
  for (const auto &scenario : scenarios)
    g_test_add_data_func((std::string("/network/") + scenario.name).c_str(), &scenario,
                         network_case);
  return g_test_run();
}
