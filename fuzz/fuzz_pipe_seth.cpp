// Text from files shown to the caller through the pipe-code translation and the
// Seth-code stripper. The first byte sets the door's current attribute (the
// colour sequences depend on it); the rest is the text. Checks what callers
// rely on: stripped text holds no backtick and never grows, text without "|"
// passes the translation untouched, and no valid pipe code survives it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ansi/ansi.h"
#include "crt2/crt2.h"
#include "stringutils/stringutils.h"

namespace {

bool IsHex(char AChar) {
  return (AChar >= '0' && AChar <= '9') || (AChar >= 'a' && AChar <= 'f') || (AChar >= 'A' && AChar <= 'F');
}

bool HoldsPipeCode(const std::string& AText) {
  for (size_t I = 0; I + 2 < AText.size(); ++I)
    if (AText[I] == '|' && IsHex(AText[I + 1]) && IsHex(AText[I + 2])) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  SetTextAttr(AData[0]);
  const std::string Text(reinterpret_cast<const char*>(AData + 1), ASize - 1);

  const std::string Ansi = PipeToAnsi(Text);
  if (Text.find('|') == std::string::npos && Ansi != Text) abort();
  if (HoldsPipeCode(Ansi)) abort();

  const std::string Stripped = SethStrip(Text);
  if (Stripped.size() > Text.size()) abort();
  if (Stripped.find('`') != std::string::npos) abort();
  if (SethStrip(Stripped) != Stripped) abort();
  return 0;
}
