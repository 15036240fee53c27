// SPDX-License-Identifier: LGPL-2.1-or-later
// The groups of measurements.
#pragma once

#include "report.h"

namespace bench
{

void measureBlocking(Report &report);
void measureAsync(Report &report);
void measureStrings(Report &report);
void measureChannels(Report &report);
void measureStages(Report &report);
void measureCrowd(Report &report);
void measureMemory(Report &report);
void measureCalls(Report &report);
void measureInstructions(Report &report);
// Measures only if there is another build.
void measureBuilds(Report &report);
void measurePerByte(Report &report);
void measureCiphers(Report &report);
void measureConverters(Report &report);
void measureCodec(Report &report);

// What these groups run in a process of its own: called as `zelgvc-bench --worker NAME
// ARGUMENT...`.
int memoryWorker(int argc, char **argv);
int workWorker(int argc, char **argv);

std::vector<Goal> goalsOf(const Report &report);

} // namespace bench
