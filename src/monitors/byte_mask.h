// Which of sixteen bytes equal a given one, at a few instructions for all
// sixteen: the heap text's thousands of rows are scanned with it.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace kestro::zqp::monitors {

#if defined(__SSE2__)
// Bit i set where byte i of the 16 at p is c.
inline std::uint32_t Match16(const char* p, char c) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(c))));
}
#elif defined(__ARM_NEON)
inline std::uint32_t Match16(const char* p, char c) {
  static constexpr std::uint8_t kBits[16] = {1, 2, 4, 8, 16, 32, 64, 128,
                                             1, 2, 4, 8, 16, 32, 64, 128};
  const uint8x16_t equal = vceqq_u8(vld1q_u8(reinterpret_cast<const std::uint8_t*>(p)),
                                    vdupq_n_u8(static_cast<std::uint8_t>(c)));
  const uint8x16_t bits = vandq_u8(equal, vld1q_u8(kBits));
  return vaddv_u8(vget_low_u8(bits)) | (std::uint32_t{vaddv_u8(vget_high_u8(bits))} << 8);
}
#else
constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kHighs = 0x8080808080808080ULL;

// Byte i of the text is byte i of the word, counting from the low end.
inline std::uint64_t LoadWord(const char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}

// Bit i set where byte i of the eight at p is c. The high bit of a byte of x
// is set exactly when the byte is zero (no carry leaves a byte); one
// multiplication gathers the eight high bits, and its partial products never
// meet, so nothing carries into the result.
inline std::uint32_t Match8(const char* p, char c) {
  const std::uint64_t x = LoadWord(p) ^ (kOnes * static_cast<unsigned char>(c));
  const std::uint64_t zero = ~(((x & ~kHighs) + ~kHighs) | x) & kHighs;
  return static_cast<std::uint32_t>(((zero >> 7) * 0x0102040810204080ULL) >> 56);
}

inline std::uint32_t Match16(const char* p, char c) {
  return Match8(p, c) | (Match8(p + 8, c) << 8);
}
#endif

}  // namespace kestro::zqp::monitors
