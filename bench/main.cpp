// SPDX-License-Identifier: LGPL-2.1-or-later
// Measures the library beside what a program would use in its place.
#include "groups.h"
#include "links.h"

#include <gcrypt.h>
#include <lz4.h>
#include <lzo/lzo1x.h>
#include <openssl/crypto.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/utsname.h>
#include <unistd.h>

namespace
{

using bench::Parameters;

struct Entry {
  const char *name;
  void (*measure)(bench::Report &);
};

constexpr Entry groups[] = {
    {"blocking", bench::measureBlocking},
    {"async", bench::measureAsync},
    {"strings", bench::measureStrings},
    {"channels", bench::measureChannels},
    {"stages", bench::measureStages},
    {"crowd", bench::measureCrowd},
    {"memory", bench::measureMemory},
    {"calls", bench::measureCalls},
    {"instructions", bench::measureInstructions},
    {"builds", bench::measureBuilds},
    {"perbyte", bench::measurePerByte},
    {"ciphers", bench::measureCiphers},
    {"converters", bench::measureConverters},
    {"codec", bench::measureCodec},
};

struct Settings {
  gboolean quick = FALSE;
  gboolean list = FALSE;
  gint rounds = 0;
  gchar *json = nullptr;
  gchar *other = nullptr;
  gchar **only = nullptr;
  gchar **names = nullptr;
};

// The value of the first line of a file that begins with `name` and a colon.
std::string
lineOf(const char *path, const char *name)
{
  g_autofree gchar *content = nullptr;
  if (!g_file_get_contents(path, &content, nullptr, nullptr))
    return "unknown";
  const char *found = std::strstr(content, name);
  found = found ? std::strchr(found, ':') : nullptr;
  if (!found)
    return "unknown";
  std::string value(found + 1, std::strcspn(found + 1, "\n"));
  value.erase(0, value.find_first_not_of(" \t"));
  return value;
}

std::string
today()
{
  char text[32];
  std::time_t now = std::time(nullptr);
  std::strftime(text, sizeof text, "%Y-%m-%d", std::gmtime(&now));
  return text;
}

std::string
loadAverage()
{
  double load[1] = {0};
  char text[16];
  getloadavg(load, 1);
  g_snprintf(text, sizeof text, "%.2f", load[0]);
  return text;
}

Parameters
describeMachine(const std::string &loadBefore)
{
  utsname system;
  uname(&system);
  auto dotted = [](auto... numbers) {
    std::string text;
    ((text += (text.empty() ? "" : ".") + std::to_string(numbers)), ...);
    return text;
  };
  return {{"date", today()},
          {"processor", lineOf("/proc/cpuinfo", "model name")},
          {"processors", std::int64_t{sysconf(_SC_NPROCESSORS_ONLN)}},
          {"memory", lineOf("/proc/meminfo", "MemTotal")},
          {"kernel", std::string(system.sysname) + " " + system.release},
          {"compiler", std::string(
#ifdef __clang__
                           "clang "
#else
                           "g++ "
#endif
                           __VERSION__)},
          {"glib", dotted(glib_major_version, glib_minor_version, glib_micro_version)},
          {"libgcrypt", gcry_check_version(nullptr)},
          {"openssl", OpenSSL_version(OPENSSL_VERSION)},
          {"liblzo2", lzo_version_string()},
          {"lz4", LZ4_versionString()},
          {"tls", bench::tlsDescription()},
          {"load before", loadBefore}};
}

bool
parse(int *argc, char ***argv, Settings *settings)
{
  const GOptionEntry entries[] = {
      {"quick", 'q', 0, G_OPTION_ARG_NONE, &settings->quick,
       "Fewer sizes and shorter turns: under a minute", nullptr},
      {"list", 'l', 0, G_OPTION_ARG_NONE, &settings->list, "List the groups and stop", nullptr},
      {"rounds", 'r', 0, G_OPTION_ARG_INT, &settings->rounds, "Rounds of each comparison", "N"},
      {"json", 'j', 0, G_OPTION_ARG_FILENAME, &settings->json, "Write the results to FILE too",
       "FILE"},
      {"only", 'o', 0, G_OPTION_ARG_STRING_ARRAY, &settings->only,
       "Measure only rows with this parameter, tcp or \"64 B\" say; all of them if repeated",
       "VALUE"},
      {"other", 0, 0, G_OPTION_ARG_STRING, &settings->other,
       "Another build of the library, for the group builds", "NAME=FOLDER"},
      {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_STRING_ARRAY, &settings->names, "", "[GROUP...]"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
  g_option_context_set_summary(context, "Measures all groups, or those that are named.");
  g_option_context_add_main_entries(context, entries, nullptr);

  g_autoptr(GError) error = nullptr;
  if (!g_option_context_parse(context, argc, argv, &error)) {
    std::fprintf(stderr, "%s\n", error->message);
    return false;
  }
  for (char **name = settings->names; name && *name; name++) {
    bool known = false;
    for (const auto &group : groups)
      known = known || std::strcmp(group.name, *name) == 0;
    if (!known) {
      std::fprintf(stderr, "no group is named %s; --list names them\n", *name);
      return false;
    }
  }
  return true;
}

int
worker(int argc, char **argv)
{
  std::string name = argc > 0 ? argv[0] : "";
  if (name == "memory")
    return bench::memoryWorker(argc - 1, argv + 1);
  if (name == "work")
    return bench::workWorker(argc - 1, argv + 1);
  return 2;
}

bench::Effort
effortOf(const Settings &settings)
{
  bench::Effort effort;
  effort.quick = settings.quick;
  if (settings.quick) {
    effort.rounds = 9;
    effort.slice = 0.001;
  }
  if (settings.rounds > 0)
    effort.rounds = static_cast<unsigned>(settings.rounds);
  return effort;
}

bench::Selection
selectionOf(const Settings &settings)
{
  bench::Selection selection;
  for (char **value = settings.only; value && *value; value++)
    selection.only.push_back(*value);
  std::string other = settings.other ? settings.other : "";
  auto equals = other.find('=');
  if (equals != std::string::npos) {
    selection.otherName = other.substr(0, equals);
    selection.other = other.substr(equals + 1);
  }
  return selection;
}

} // namespace

int
main(int argc, char **argv)
{
  gvc_init();
  if (argc > 1 && std::strcmp(argv[1], "--worker") == 0)
    return worker(argc - 2, argv + 2);

  Settings settings;
  if (!parse(&argc, &argv, &settings))
    return 2;
  if (settings.list) {
    for (const auto &group : groups)
      std::printf("%s\n", group.name);
    return 0;
  }
  if (lzo_init() != LZO_E_OK)
    return 1;

  auto load = loadAverage();
  auto before = g_get_monotonic_time();
  bench::Report report(effortOf(settings), selectionOf(settings));
  for (const auto &group : groups)
    if (!settings.names || g_strv_contains(settings.names, group.name))
      group.measure(report);

  auto goals = bench::goalsOf(report);
  report.printGoals(goals);
  std::printf("\n%.0f s\n", static_cast<double>(g_get_monotonic_time() - before) * 1e-6);
  if (settings.json && !report.writeJson(settings.json, describeMachine(load), goals)) {
    std::fprintf(stderr, "%s: cannot write\n", settings.json);
    return 1;
  }
  return 0;
}
