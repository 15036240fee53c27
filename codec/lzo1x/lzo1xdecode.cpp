// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codec/lzo1x/lzo1x.h"

#include "codec/lzo1x/lzo1xformat.h"

namespace lzo1x
{

namespace
{

// Where a decoder stands. Invariants: `read` never passes readEnd, `written` never passes
// writtenEnd, and what lies between `begin` and `written` is the output so far.
struct Position {
  const std::uint8_t *read;
  const std::uint8_t *const readEnd;
  std::uint8_t *written;
  std::uint8_t *const begin;
  std::uint8_t *const writtenEnd;
  Context context;

  std::size_t
  readLeft() const
  {
    return static_cast<std::size_t>(readEnd - read);
  }

  std::size_t
  room() const
  {
    return static_cast<std::size_t>(writtenEnd - written);
  }

  std::size_t
  produced() const
  {
    return static_cast<std::size_t>(written - begin);
  }
};

Status
copyLiterals(Position &at, std::size_t length)
{
  if (length > at.readLeft())
    return Status::inputOverrun;
  if (length > at.room())
    return Status::outputOverrun;
  if (length > 0)
    std::memcpy(at.written, at.read, length);
  at.read += length;
  at.written += length;
  at.context = length == 0 ? afterMatch : length < runMin ? afterFewLiterals : afterRun;
  return Status::ok;
}

Status
copyMatch(Position &at, std::size_t distance, std::size_t length)
{
  if (distance > at.produced())
    return Status::badDistance;
  if (length > at.room())
    return Status::outputOverrun;
  // What is copied may be what this very match has written, so what can be copied at once doubles
  // from the distance on.
  const std::uint8_t *const from = at.written - distance;
  while (length > 0) {
    const auto ready = static_cast<std::size_t>(at.written - from);
    const std::size_t part = length < ready ? length : ready;
    std::memcpy(at.written, from, part);
    at.written += part;
    length -= part;
  }
  return Status::ok;
}

// Adds the length bytes to `length`.
Status
readLengthBytes(Position &at, std::size_t &length)
{
  const std::uint8_t *const first = at.read;
  while (at.read < at.readEnd && *at.read == 0)
    at.read++;
  if (at.read == at.readEnd)
    return Status::inputOverrun;
  // No length beyond the room can be meant, and where zeros is at most room / 255 the length cannot
  // wrap: it stays below room + 2 * 255, and no object is that near to the end of size_t.
  const auto zeros = static_cast<std::size_t>(at.read - first);
  if (zeros > at.room() / lengthByteStep)
    return Status::outputOverrun;
  length += zeros * lengthByteStep + *at.read++;
  return Status::ok;
}

// The opening byte of a stream may be a run of its own kind.
Status
openingRun(Position &at)
{
  if (at.readLeft() == 0 || *at.read <= openingRunMark)
    return Status::ok;
  return copyLiterals(at, *at.read++ - openingRunMark);
}

// One instruction with its literals; `done` tells that it was the end marker.
Status
step(Position &at, bool &done)
{
  if (at.readLeft() == 0)
    return Status::inputOverrun;
  const unsigned t = *at.read++;
  const Instruction &instruction = instructions[at.context][t];
  std::size_t length = instruction.length;
  if (instruction.hasLengthBytes) {
    if (const Status status = readLengthBytes(at, length); status != Status::ok)
      return status;
  }
  if (instruction.isRun())
    return copyLiterals(at, length);

  const unsigned distanceBytes = instruction.size - 1U;
  if (distanceBytes > at.readLeft())
    return Status::inputOverrun;
  std::uint32_t word = t | static_cast<std::uint32_t>(at.read[0]) << 8;
  if (distanceBytes == 2)
    word |= static_cast<std::uint32_t>(at.read[1]) << 16;
  at.read += distanceBytes;
  const std::size_t distance =
      instruction.distanceBase + ((word >> instruction.distanceShift) & instruction.distanceMask);
  if (t < middleMark && distance == middleMaxDistance) {
    done = word == endMarkerWord;
    return done ? Status::ok : Status::badDistance;
  }
  if (const Status status = copyMatch(at, distance, length); status != Status::ok)
    return status;
  return copyLiterals(at, (word >> instruction.literalShift) & matchLiteralsMax);
}

} // namespace

Result
decode(Input in, Output out) noexcept
{
  Position at{.read = in.data(),
              .readEnd = in.data() + in.size(),
              .written = out.data(),
              .begin = out.data(),
              .writtenEnd = out.data() + out.size(),
              .context = afterMatch};
  bool done = false;
  Status status = openingRun(at);
  while (status == Status::ok && !done)
    status = step(at, done);
  if (status != Status::ok)
    return {status, 0};
  if (at.readLeft() != 0)
    return {Status::trailingBytes, 0};
  return {Status::ok, at.produced()};
}

} // namespace lzo1x
