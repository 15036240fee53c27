// SPDX-License-Identifier: LGPL-2.1-or-later
// Runs this program again as a fresh process for a part of the work.
#pragma once

#include <string>
#include <vector>

namespace bench
{

struct WorkerOutput {
  bool success;
  std::string out;
  std::string errors;
};

// `launcher ... zelgvc-bench --worker arguments ...`
WorkerOutput runWorker(const std::vector<std::string> &launcher,
                       const std::vector<std::string> &arguments);

} // namespace bench
