// SPDX-License-Identifier: LGPL-2.1-or-later
// The groups of measurements.
#pragma once

#include "measure.h"

namespace bench
{

void measureBlocking(const Report &report);
void measureChannels(const Report &report);
void measureStages(const Report &report);
void measureAsync(const Report &report);
void measureStrings(const Report &report);
void measureCiphers(const Report &report);
void measureConverters(const Report &report);
void measureCodec(const Report &report);

// Rows that need a fresh process each: run.py starts them, with their parameters.
void measureCrowd(const Report &report, const std::vector<std::string> &arguments);
void measureMemory(const Report &report, const std::vector<std::string> &arguments);
void measureWork(const Report &report, const std::vector<std::string> &arguments);

} // namespace bench
