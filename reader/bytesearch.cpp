// Byte search: memchr for single bytes; for longer needles a filter on the needle's first
// and last byte, sixteen positions at a time where SSE2 is there (every x86-64), and memchr
// on the first byte elsewhere, each candidate then compared in full.
#include "bytesearch.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

size_t FindByte(std::string_view AText, char AByte, size_t AFrom) {
  if (AFrom >= AText.size()) return std::string_view::npos;
  const void* Hit = std::memchr(AText.data() + AFrom, AByte, AText.size() - AFrom);
  return Hit ? static_cast<size_t>(static_cast<const char*>(Hit) - AText.data()) : std::string_view::npos;
}

size_t FindBytes(std::string_view AText, std::string_view ANeedle, size_t AFrom) {
  const size_t Size = AText.size();
  const size_t Length = ANeedle.size();
  if (AFrom > Size || Length > Size - AFrom) return std::string_view::npos;
  if (Length == 0) return AFrom;
  if (Length == 1) return FindByte(AText, ANeedle[0], AFrom);

  const char* const Text = AText.data();
  const char* const Middle = ANeedle.data() + 1;
  const size_t MiddleLength = Length - 2;
  const char First = ANeedle.front();
  const char Last = ANeedle.back();
  const size_t LastStart = Size - Length;  // the last position where the needle fits
  size_t Pos = AFrom;

#if defined(__SSE2__)
  // Sixteen candidate starts at once: those whose first and last byte both fit. Both loads
  // stay inside the text since the last start tested, Pos + 15, is at most LastStart.
  const __m128i FirstBytes = _mm_set1_epi8(First);
  const __m128i LastBytes = _mm_set1_epi8(Last);
  for (; Pos + 15 <= LastStart; Pos += 16) {
    const __m128i Starts = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Text + Pos));
    const __m128i Ends = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Text + Pos + Length - 1));
    auto Mask = static_cast<unsigned>(_mm_movemask_epi8(
        _mm_and_si128(_mm_cmpeq_epi8(Starts, FirstBytes), _mm_cmpeq_epi8(Ends, LastBytes))));
    while (Mask != 0) {
      const auto Bit = static_cast<size_t>(__builtin_ctz(Mask));
      if (std::memcmp(Text + Pos + Bit + 1, Middle, MiddleLength) == 0) return Pos + Bit;
      Mask &= Mask - 1;
    }
  }
#endif

  while (Pos <= LastStart) {
    const void* Hit = std::memchr(Text + Pos, First, LastStart - Pos + 1);
    if (Hit == nullptr) break;
    Pos = static_cast<size_t>(static_cast<const char*>(Hit) - Text);
    if (Text[Pos + Length - 1] == Last && std::memcmp(Text + Pos + 1, Middle, MiddleLength) == 0) return Pos;
    ++Pos;
  }
  return std::string_view::npos;
}
