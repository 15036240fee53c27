// SPDX-License-Identifier: LGPL-2.1-or-later
// zelgvc-bench [--quick] GROUP [VALUE...]: prints a line of JSON for each row of a group that has
// all these values among its parameters. run.py starts it.
#include "measure.h"

#include <zelgvc/zelgvc.h>

#include <cstdio>

int
main(int argc, char **argv)
{
  const std::map<std::string, void (*)(const bench::Report &)> groups = {
      {"blocking", bench::measureBlocking},
      {"async", bench::measureAsync},
      {"strings", bench::measureStrings},
      {"channels", bench::measureChannels},
      {"stages", bench::measureStages},
      {"ciphers", bench::measureCiphers},
      {"converters", bench::measureConverters},
      {"codec", bench::measureCodec},
      {"crowd", bench::measureCrowd},
      {"memory", bench::measureMemory},
      {"work", bench::measureWork},
  };
  std::vector<std::string> words(argv + 1, argv + argc);
  bench::Effort effort;
  if (!words.empty() && words[0] == "--quick") {
    effort = {.quick = true, .rounds = 9, .slice = 0.001};
    words.erase(words.begin());
  }
  auto group = groups.find(words.empty() ? "" : words[0]);
  if (group == groups.end()) {
    std::fprintf(stderr, "usage: zelgvc-bench [--quick] GROUP [VALUE...]\n");
    return 2;
  }
  gvc_init();
  group->second({words[0], effort, {words.begin() + 1, words.end()}});
  return 0;
}
