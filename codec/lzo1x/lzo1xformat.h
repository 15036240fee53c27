// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X format: its constants and the table of its instructions.
//
// A stream is a sequence of instructions. Each starts with a byte T. The two low bits of the last
// byte but one of a match instruction are the number of literals (0 to 3) that follow. The meaning
// of T below 16 depends on the literals before it, so the table has a page for each of three
// contexts.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace lzo1x
{

enum Context : unsigned {
  afterMatch,       // no literals since the last match, or nothing yet
  afterFewLiterals, // 1 to 3
  afterRun,         // 4 or more
  contexts,
};

// If the first byte of a stream is above openingRunMark, it is a run of T - openingRunMark
// literals.
constexpr unsigned openingRunMark = 17;
constexpr unsigned openingRunMax = 255 - openingRunMark;

// Every other run has at least runMin literals. Up to matchLiteralsMax belong to a match.
constexpr unsigned runMin = 4;
constexpr unsigned runBias = 3;
constexpr unsigned runShortMax = 18;
constexpr unsigned matchLiteralsMax = 3;

// A length too large for T continues in length bytes: 255 for every zero byte, plus the first other
// byte.
constexpr unsigned lengthByteStep = 255;

// T >= nearMark, two bytes: a match of 3 to 8 bytes at a distance of up to 2048.
constexpr unsigned nearMark = 64;
constexpr unsigned nearLengthShift = 5;
constexpr unsigned nearLengthBias = 1;
constexpr unsigned nearMaxLength = 8;
constexpr unsigned nearMaxDistance = 2048;
// T >= middleMark, three bytes and length bytes: a distance of up to 16384.
constexpr unsigned middleMark = 32;
constexpr unsigned middleShortMax = 33;
constexpr unsigned middleMaxDistance = 16384;
// T >= farMark, three bytes and length bytes: a distance of 16385 to 49151.
constexpr unsigned farMark = 16;
constexpr unsigned farShortMax = 9;
constexpr unsigned farHighBit = 8; // this bit of T adds farHighDistance
constexpr unsigned farHighDistance = 16384;
constexpr unsigned farMaxDistance = 49151;
// T < farMark: after 1 to 3 literals a match of two bytes, after a run a match of three bytes from
// beyond nearMaxDistance.
constexpr unsigned tinyLength = 2;
constexpr unsigned afterRunLength = 3;

// The far form with distance 16384, which the middle form can express too, is not a match.
constexpr std::uint8_t endMarker[] = {0x11, 0x00, 0x00};
constexpr std::uint32_t endMarkerWord = endMarker[0] | endMarker[1] << 8 | endMarker[2] << 16;
// A word of three bytes has this distance in the far form if these bits have that value.
constexpr std::uint32_t endDistanceMask = 0xfffcf8;
constexpr std::uint32_t endDistanceWord = farMark;

// The meaning of T in one context.
struct Instruction {
  // The part of a distance that T determines, or 0 for a run of literals. The distance bytes hold
  // the other bits.
  std::uint16_t distanceBase;
  std::uint16_t distanceMask;
  std::uint8_t distanceShift;
  std::uint8_t size; // T and the distance bytes, without length bytes
  std::uint8_t lengthAndFlag;

  static constexpr std::uint8_t lengthBytesFlag = 0x80;

  constexpr bool
  isRun() const
  {
    return distanceBase == 0;
  }

  constexpr bool
  hasLengthBytes() const
  {
    return (lengthAndFlag & lengthBytesFlag) != 0;
  }

  // Without the length bytes.
  constexpr unsigned
  length() const
  {
    return lengthAndFlag & (lengthBytesFlag - 1U);
  }

  // `word` has T in its low byte and the distance bytes above it.
  constexpr std::size_t
  distance(std::uint32_t word) const
  {
    return distanceBase + (word >> distanceShift & distanceMask);
  }
};
static_assert(sizeof(Instruction) == 8);

// A match in two bytes. T holds the lowBits of the distance, the second byte the others.
constexpr Instruction
shortMatch(unsigned t, unsigned length, unsigned lowBits, unsigned bias)
{
  const unsigned low = (t >> 2) & ((1U << lowBits) - 1);
  return {.distanceBase = static_cast<std::uint16_t>(low + bias),
          .distanceMask = static_cast<std::uint16_t>(0xffU << lowBits),
          .distanceShift = static_cast<std::uint8_t>(8 - lowBits),
          .size = 2,
          .lengthAndFlag = static_cast<std::uint8_t>(length)};
}

// The length in T, or the one to which length bytes add.
constexpr std::uint8_t
lengthAndFlag(unsigned inT, unsigned bias, unsigned shortMax)
{
  return static_cast<std::uint8_t>(inT == 0 ? shortMax | Instruction::lengthBytesFlag : inT + bias);
}

// A match in three bytes and length bytes. T alone holds lengths up to shortMax.
constexpr Instruction
longMatch(unsigned inT, unsigned shortMax, unsigned bias)
{
  return {.distanceBase = static_cast<std::uint16_t>(bias),
          .distanceMask = 0x3fff,
          .distanceShift = 8 + 2,
          .size = 3,
          .lengthAndFlag = lengthAndFlag(inT, 2, shortMax)};
}

constexpr Instruction
run(unsigned t)
{
  return {.distanceBase = 0,
          .distanceMask = 0,
          .distanceShift = 0,
          .size = 1,
          .lengthAndFlag = lengthAndFlag(t, runBias, runShortMax)};
}

constexpr Instruction
instruction(Context context, unsigned t)
{
  if (t >= nearMark)
    return shortMatch(t, (t >> nearLengthShift) + nearLengthBias, 3, 1);
  if (t >= middleMark)
    return longMatch(t & 31, middleShortMax, 1);
  if (t >= farMark)
    return longMatch(t & 7, farShortMax,
                     middleMaxDistance + ((t & farHighBit) != 0 ? farHighDistance : 0));
  if (context == afterFewLiterals)
    return shortMatch(t, tinyLength, 2, 1);
  if (context == afterRun)
    return shortMatch(t, afterRunLength, 2, nearMaxDistance + 1);
  return run(t);
}

using InstructionTable = std::array<std::array<Instruction, 256>, contexts>;

inline constexpr InstructionTable instructions = [] {
  InstructionTable table{};
  for (unsigned context = 0; context < contexts; context++)
    for (unsigned t = 0; t < 256; t++)
      table[context][t] = instruction(static_cast<Context>(context), t);
  return table;
}();

template <typename Word>
constexpr Word
littleEndian(Word word) noexcept
{
  static_assert(sizeof word == 4 || sizeof word == 8);
  if constexpr (std::endian::native == std::endian::little)
    return word;
  else if constexpr (sizeof word == 4)
    return __builtin_bswap32(word);
  else
    return __builtin_bswap64(word);
}

template <typename Word>
inline Word
loadLittleEndian(const std::uint8_t *from) noexcept
{
  Word word;
  std::memcpy(&word, from, sizeof word);
  return littleEndian(word);
}

template <typename Word>
inline void
storeLittleEndian(std::uint8_t *to, Word word) noexcept
{
  word = littleEndian(word);
  std::memcpy(to, &word, sizeof word);
}

} // namespace lzo1x
