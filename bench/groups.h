// SPDX-License-Identifier: LGPL-2.1-or-later
// The groups of measurements; each adds one group of rows, the ciphers and codecs two.
#pragma once

#include "report.h"

namespace bench
{

void measureBlocking(Report &report);
void measureAsync(Report &report);
void measureStrings(Report &report);
void measureCiphers(Report &report);
void measureConverters(Report &report);
void measureCodec(Report &report);
void measureChannels(Report &report);
void measureNoDelay(Report &report);
void measureSlowestStage(Report &report);
void measureScale(Report &report);
void measureMemory(Report &report);
void measurePerByte(Report &report);
void measureInstructions(Report &report);

// What these groups run in a process of its own: called as `zelgvc-bench --worker NAME
// ARGUMENT...`.
int memoryWorker(int argc, char **argv);
int instructionsWorker(int argc, char **argv);

std::vector<Goal> goalsOf(const Report &report);

} // namespace bench
