// SPDX-License-Identifier: LGPL-2.1-or-later
#include "worker.h"

#include <glib.h>

namespace bench
{

WorkerOutput
runWorker(const std::vector<std::string> &launcher, const std::vector<std::string> &arguments)
{
  g_autofree char *self = g_file_read_link("/proc/self/exe", nullptr);
  std::vector<const char *> line;
  for (const auto &word : launcher)
    line.push_back(word.c_str());
  line.push_back(self);
  line.push_back("--worker");
  for (const auto &word : arguments)
    line.push_back(word.c_str());
  line.push_back(nullptr);

  g_autofree char *out = nullptr;
  g_autofree char *errors = nullptr;
  g_autoptr(GError) error = nullptr;
  int status = -1;
  if (!g_spawn_sync(nullptr, const_cast<char **>(line.data()), nullptr, G_SPAWN_SEARCH_PATH,
                    nullptr, nullptr, &out, &errors, &status, &error))
    return {false, "", error->message};
  return {status == 0, out, errors};
}

} // namespace bench
