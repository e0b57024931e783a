// Caller bytes through the link's inbound line-end rule. The input is cut into receive
// blocks (the first byte picks the block length, 1..1024, as a receive could yield them);
// each block is normalised on its own and checked against a plain replace-all reading of
// the rule, and for the promises the door relies on: no LF survives, nothing grows, and
// every byte other than CR, LF and NUL arrives in order.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "comm/comm.h"

namespace {

void ReplaceAll(std::string& AText, const std::string& AFrom, const std::string& ATo) {
  for (size_t Pos = 0; (Pos = AText.find(AFrom, Pos)) != std::string::npos; Pos += ATo.size())
    AText.replace(Pos, AFrom.size(), ATo);
}

std::string Reference(std::string ABlock) {
  ReplaceAll(ABlock, std::string("\r\n"), std::string("\r"));
  ReplaceAll(ABlock, std::string("\r\0", 2), std::string("\r"));
  ReplaceAll(ABlock, std::string("\n"), std::string("\r"));
  return ABlock;
}

std::string Plain(const std::string& AText) {
  std::string Out;
  for (char C : AText)
    if (C != '\r' && C != '\n' && C != '\0') Out += C;
  return Out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  const size_t BlockLen = 1 + (AData[0] * 4 + 3) % 1024;
  const std::string Input(reinterpret_cast<const char*>(AData + 1), ASize - 1);
  for (size_t Start = 0; Start < Input.size(); Start += BlockLen) {
    const std::string Block = Input.substr(Start, BlockLen);
    const std::string Got = CommNormaliseLineEnds(Block);
    if (Got != Reference(Block)) abort();
    if (Got.find('\n') != std::string::npos) abort();
    if (Got.size() > Block.size()) abort();
    if (Plain(Got) != Plain(Block)) abort();
  }
  return 0;
}
