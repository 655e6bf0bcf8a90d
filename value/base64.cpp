// Table-driven base64: encoding emits two characters per 12 input bits from one lookup;
// decoding converts whole runs of valid characters and only falls back to the
// character-by-character rule around line ends, blanks, '=' and the end of the text.
#include "value/detail/base64.h"

#include <cstdint>
#include <cstring>

namespace KX {
namespace detail {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr size_t kGroupsPerLine = 18;  // 72 characters, then "\n"

struct PairTable {
  char pairs[4096][2];
};

constexpr PairTable makePairTable() {
  PairTable table{};
  for (int i = 0; i < 4096; ++i) {
    table.pairs[i][0] = kAlphabet[i >> 6];
    table.pairs[i][1] = kAlphabet[i & 63];
  }
  return table;
}

constexpr PairTable kPairs = makePairTable();

// Decoding table of the character-by-character rule: 0..63 for the alphabet, kEnd for '=',
// kSkip for everything else.
constexpr uint8_t kSkip = 0x80;
constexpr uint8_t kEnd = 0xC0;  // '='

struct DecodeTable {
  uint8_t values[256];
};

constexpr DecodeTable makeDecodeTable() {
  DecodeTable table{};
  for (int i = 0; i < 256; ++i) table.values[i] = kSkip;
  for (int i = 0; i < 64; ++i) table.values[static_cast<unsigned char>(kAlphabet[i])] = i;
  table.values[static_cast<unsigned char>('=')] = kEnd;
  return table;
}

constexpr DecodeTable kDecode = makeDecodeTable();

// The fast path's tables: the value of a character already shifted to its place in a
// 24-bit group (one table per position), so that OR-ing four lookups gives the group.
// Characters outside the alphabet (and '=') carry bit 24, which no group has.
constexpr uint32_t kNotInGroup = 1u << 24;

struct ShiftedTables {
  uint32_t shifted[4][256];
};

constexpr ShiftedTables makeShiftedTables() {
  ShiftedTables tables{};
  for (int position = 0; position < 4; ++position) {
    for (int c = 0; c < 256; ++c) {
      const uint8_t value = kDecode.values[c];
      tables.shifted[position][c] =
          (value & kSkip) ? kNotInGroup : uint32_t{value} << (18 - 6 * position);
    }
  }
  return tables;
}

constexpr ShiftedTables kShifted = makeShiftedTables();

inline uint32_t groupBits(const unsigned char* in) {
  return kShifted.shifted[0][in[0]] | kShifted.shifted[1][in[1]] | kShifted.shifted[2][in[2]] |
         kShifted.shifted[3][in[3]];
}

// Writes two 24-bit groups as six bytes with one 8-byte store; the caller leaves two
// bytes of slack after them.
inline unsigned char* putSix(unsigned char* out, uint32_t first, uint32_t second) {
  uint64_t word = (uint64_t{first} << 40) | (uint64_t{second} << 16);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  word = __builtin_bswap64(word);
#endif
  std::memcpy(out, &word, sizeof word);
  return out + 6;
}

inline void putPair(char* out, uint32_t twelveBits) {
  std::memcpy(out, kPairs.pairs[twelveBits], 2);
}

// Six bytes become eight characters.
inline void encodeSix(const unsigned char* in, char* out) {
  const uint64_t bits = (uint64_t{in[0]} << 40) | (uint64_t{in[1]} << 32) |
                        (uint64_t{in[2]} << 24) | (uint64_t{in[3]} << 16) | (uint64_t{in[4]} << 8) |
                        uint64_t{in[5]};
  putPair(out, static_cast<uint32_t>(bits >> 36) & 0xFFF);
  putPair(out + 2, static_cast<uint32_t>(bits >> 24) & 0xFFF);
  putPair(out + 4, static_cast<uint32_t>(bits >> 12) & 0xFFF);
  putPair(out + 6, static_cast<uint32_t>(bits) & 0xFFF);
}

inline void encodeThree(const unsigned char* in, char* out) {
  const uint32_t bits = (uint32_t{in[0]} << 16) | (uint32_t{in[1]} << 8) | uint32_t{in[2]};
  putPair(out, bits >> 12);
  putPair(out + 2, bits & 0xFFF);
}

inline unsigned char* putThree(unsigned char* out, uint32_t bits) {
  out[0] = static_cast<unsigned char>(bits >> 16);
  out[1] = static_cast<unsigned char>(bits >> 8);
  out[2] = static_cast<unsigned char>(bits);
  return out + 3;
}

}  // namespace

size_t base64EncodedSize(size_t size) {
  const size_t groups = size / 3;
  return groups * 4 + (size % 3 != 0 ? 4 : 0) + groups / kGroupsPerLine;
}

void base64Encode(const unsigned char* data, size_t size, std::string& out) {
  const size_t base = out.size();
  out.resize(base + base64EncodedSize(size));
  char* dst = &out[base];
  const unsigned char* src = data;

  const size_t groups = size / 3;
  for (size_t line = groups / kGroupsPerLine; line != 0; --line) {
    for (size_t k = 0; k < kGroupsPerLine / 2; ++k) {
      encodeSix(src, dst);
      src += 6;
      dst += 8;
    }
    *dst++ = '\n';
  }
  for (size_t group = groups % kGroupsPerLine; group != 0; --group) {
    encodeThree(src, dst);
    src += 3;
    dst += 4;
  }

  switch (size % 3) {
    case 1:
      dst[0] = kAlphabet[src[0] >> 2];
      dst[1] = kAlphabet[(src[0] & 0x03) << 4];
      dst[2] = '=';
      dst[3] = '=';
      break;
    case 2:
      dst[0] = kAlphabet[src[0] >> 2];
      dst[1] = kAlphabet[((src[0] & 0x03) << 4) | (src[1] >> 4)];
      dst[2] = kAlphabet[(src[1] & 0x0F) << 2];
      dst[3] = '=';
      break;
    default:
      break;
  }
}

void base64Decode(const char* text, size_t size, std::vector<unsigned char>& out) {
  const size_t base = out.size();
  // Every 4 alphabet characters give 3 bytes; skipped characters only lower the count.
  // The slack covers the two extra bytes of putSix's store.
  out.resize(base + size / 4 * 3 + 3);
  unsigned char* const begin = out.data() + base;
  unsigned char* dst = begin;
  const auto* src = reinterpret_cast<const unsigned char*>(text);
  const uint8_t* table = kDecode.values;

  size_t i = 0;
  uint32_t bits = 0;
  int pending = 0;  // characters of the current group seen so far
  bool ended = false;
  while (i < size) {
    if (pending == 0) {
      // Fast path: whole groups of clean characters.
      while (i + 8 <= size) {
        const uint32_t first = groupBits(src + i);
        const uint32_t second = groupBits(src + i + 4);
        if ((first | second) & kNotInGroup) break;
        dst = putSix(dst, first, second);
        i += 8;
      }
      if (i + 4 <= size) {
        const uint32_t group = groupBits(src + i);
        if (!(group & kNotInGroup)) {
          dst = putThree(dst, group);
          i += 4;
          continue;
        }
      }
      if (i >= size) break;
    }
    // Slow path: one character at a time until the group in progress is complete.
    const uint8_t value = table[src[i++]];
    if (value == kEnd) {
      ended = true;
      break;
    }
    if (value & kSkip) continue;
    bits = (bits << 6) | value;
    if (++pending == 4) {
      dst = putThree(dst, bits);
      bits = 0;
      pending = 0;
    }
  }

  // Only '=' completes a short group; the end of the text alone drops it.
  if (ended) {
    if (pending == 2) {
      *dst++ = static_cast<unsigned char>(bits >> 4);
    } else if (pending == 3) {
      *dst++ = static_cast<unsigned char>(bits >> 10);
      *dst++ = static_cast<unsigned char>(bits >> 2);
    }
  }
  out.resize(base + static_cast<size_t>(dst - begin));
}

}  // namespace detail
}  // namespace KX
