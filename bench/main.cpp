// SPDX-License-Identifier: LGPL-2.1-or-later
// Measures groups of comparisons and prints a line of JSON for each row. run.py starts it.
#include "groups.h"
#include "links.h"

#include <gcrypt.h>
#include <lz4.h>
#include <lzo/lzo1x.h>

#include <cstdio>

namespace
{

using bench::Report;

using Arguments = std::vector<std::string>;
using Measure = std::function<void(const Report &, const Arguments &)>;

// A group that takes no arguments.
Measure
whole(void (*measure)(const Report &))
{
  return [=](const Report &report, const Arguments &) { measure(report); };
}

// What run.py cannot know of the libraries that were measured.
void
printLibraries()
{
  const char *compiler =
#ifdef __clang__
      "clang ";
#else
      "g++ ";
#endif
  std::printf("{\"group\": \"libraries\", \"compiler\": \"%s%s\", \"glib\": \"%u.%u.%u\", "
              "\"libgcrypt\": \"%s\", \"liblzo2\": \"%s\", \"lz4\": \"%s\", "
              "\"tls\": \"%s\"}\n",
              compiler, __VERSION__, glib_major_version, glib_minor_version, glib_micro_version,
              gcry_check_version(nullptr), lzo_version_string(), LZ4_versionString(),
              bench::tlsDescription().c_str());
}

} // namespace

int
main(int argc, char **argv)
{
  gboolean quick = FALSE;
  g_auto(GStrv) only = nullptr;
  g_auto(GStrv) words = nullptr;
  const GOptionEntry entries[] = {
      {"quick", 0, 0, G_OPTION_ARG_NONE, &quick, "Fewer sizes and shorter turns", nullptr},
      {"only", 0, 0, G_OPTION_ARG_STRING_ARRAY, &only,
       "Only rows with this parameter, tcp or 65536 for example; with all of them if repeated",
       "VALUE"},
      {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_STRING_ARRAY, &words, "", "GROUP [PARAMETER...]"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
  g_option_context_add_main_entries(context, entries, nullptr);
  g_autoptr(GError) error = nullptr;
  if (!g_option_context_parse(context, &argc, &argv, &error) || !words) {
    std::fprintf(stderr, "%s\n", error ? error->message : "no group");
    return 2;
  }

  gvc_init();
  bench::Effort effort;
  if (quick)
    effort = {.quick = true, .rounds = 9, .slice = 0.001};
  std::vector<std::string> wanted;
  for (char **value = only; value && *value; value++)
    wanted.emplace_back(*value);
  const std::map<std::string, Measure> groups = {{"blocking", whole(bench::measureBlocking)},
                                                 {"async", whole(bench::measureAsync)},
                                                 {"strings", whole(bench::measureStrings)},
                                                 {"channels", whole(bench::measureChannels)},
                                                 {"stages", whole(bench::measureStages)},
                                                 {"ciphers", whole(bench::measureCiphers)},
                                                 {"converters", whole(bench::measureConverters)},
                                                 {"codec", whole(bench::measureCodec)},
                                                 {"crowd", bench::measureCrowd},
                                                 {"memory", bench::measureMemory},
                                                 {"work", bench::measureWork}};
  auto group = groups.find(words[0]);
  if (group == groups.end()) {
    std::fprintf(stderr, "no group is named %s\n", words[0]);
    return 2;
  }
  group->second(Report(words[0], effort, wanted), {words + 1, words + g_strv_length(words)});
  if (group->first == "channels")
    printLibraries();
  return 0;
}
