// The terminal model behind the screen checks of the reader's tests.
#include "screenmodel.h"

#include <algorithm>
#include <vector>

namespace {

// ANSI colour digit -> PC colour; the table is its own inverse.
constexpr uint8_t PC_COLOUR[8] = {0, 4, 2, 6, 1, 5, 3, 7};

std::vector<int> ParseParams(const std::string& AParams) {
  std::vector<int> Values{0};
  for (char C : AParams) {
    if (C == ';') {
      Values.push_back(0);
    } else if (C >= '0' && C <= '9') {
      Values.back() = std::min(Values.back() * 10 + (C - '0'), 9999);
    }
  }
  return Values;
}

void ScrollUp(TScreenModel& S) {
  for (int Y = 0; Y + 1 < TScreenModel::HEIGHT; ++Y) {
    std::copy(std::begin(S.Cells[Y + 1]), std::end(S.Cells[Y + 1]), std::begin(S.Cells[Y]));
  }
  for (auto& Cell : S.Cells[TScreenModel::HEIGHT - 1]) Cell = TScreenCell{' ', S.Attr};
  ++S.Scrolls;
}

void LineFeed(TScreenModel& S) {
  if (S.Y == TScreenModel::HEIGHT) {
    ScrollUp(S);
  } else {
    ++S.Y;
  }
}

void Clear(TScreenModel& S, int AX1, int AY1, int AX2, int AY2) {
  for (int Y = AY1; Y <= AY2; ++Y) {
    for (int X = (Y == AY1 ? AX1 : 1); X <= (Y == AY2 ? AX2 : TScreenModel::WIDTH); ++X) {
      S.Cells[Y - 1][X - 1] = TScreenCell{' ', static_cast<uint8_t>(S.Attr & 0x70)};
    }
  }
}

void Sgr(TScreenModel& S, const std::vector<int>& AValues) {
  for (int V : AValues) {
    if (V == 0) {
      S.Attr = 0x07;
    } else if (V == 1) {
      S.Attr |= 0x08;
    } else if (V == 22) {
      S.Attr &= static_cast<uint8_t>(~0x08);
    } else if (V == 5) {
      S.Attr |= 0x80;
    } else if (V >= 30 && V <= 37) {
      S.Attr = static_cast<uint8_t>((S.Attr & 0xF8) | PC_COLOUR[V - 30]);
    } else if (V >= 40 && V <= 47) {
      S.Attr = static_cast<uint8_t>((S.Attr & 0x8F) | (PC_COLOUR[V - 40] << 4));
    }
  }
}

void Csi(TScreenModel& S, char AFinal) {
  const std::vector<int> P = ParseParams(S.Params);
  const int N = std::max(P[0], 1);
  S.PendingWrap = false;
  switch (AFinal) {
    case 'H':
    case 'f':
      S.Y = std::clamp(P[0], 1, TScreenModel::HEIGHT);
      S.X = std::clamp(P.size() > 1 ? P[1] : 1, 1, TScreenModel::WIDTH);
      break;
    case 'A':
      S.Y = std::max(S.Y - N, 1);
      break;
    case 'B':
      S.Y = std::min(S.Y + N, TScreenModel::HEIGHT);
      break;
    case 'C':
      S.X = std::min(S.X + N, TScreenModel::WIDTH);
      break;
    case 'D':
      S.X = std::max(S.X - N, 1);
      break;
    case 'J':
      if (P[0] == 2) Clear(S, 1, 1, TScreenModel::WIDTH, TScreenModel::HEIGHT);
      if (P[0] == 0) Clear(S, S.X, S.Y, TScreenModel::WIDTH, TScreenModel::HEIGHT);
      break;
    case 'm':
      Sgr(S, P);
      break;
    default:
      break;
  }
}

void Put(TScreenModel& S, uint8_t ACh) {
  if (S.PendingWrap) {
    S.PendingWrap = false;
    S.X = 1;
    LineFeed(S);
  }
  S.Cells[S.Y - 1][S.X - 1] = TScreenCell{ACh, S.Attr};
  if (S.X == TScreenModel::WIDTH) {
    S.PendingWrap = true;
  } else {
    ++S.X;
  }
}

}  // namespace

void ScreenFeed(TScreenModel& S, std::string_view ABytes) {
  for (char C : ABytes) {
    const auto B = static_cast<uint8_t>(C);
    if (S.EscState == 1) {
      S.EscState = B == '[' ? 2 : 0;
      S.Params.clear();
      continue;
    }
    if (S.EscState == 2) {
      if (B >= 0x40 && B <= 0x7E) {
        S.EscState = 0;
        Csi(S, static_cast<char>(B));
      } else {
        S.Params += C;
      }
      continue;
    }
    switch (B) {
      case 0x1B:
        S.EscState = 1;
        break;
      case '\r':
        S.X = 1;
        S.PendingWrap = false;
        break;
      case '\n':
        S.PendingWrap = false;
        LineFeed(S);
        break;
      case '\b':
        S.PendingWrap = false;
        S.X = std::max(S.X - 1, 1);
        break;
      default:
        if (B >= 0x20) Put(S, B);
        break;
    }
  }
}

std::string ScreenText(const TScreenModel& S, int AX, int AY, int ALength) {
  std::string Text;
  for (int X = AX; X < AX + ALength && X <= TScreenModel::WIDTH; ++X) {
    Text += static_cast<char>(S.Cells[AY - 1][X - 1].Ch);
  }
  return Text;
}

std::string ScreenRow(const TScreenModel& S, int AY) {
  std::string Row = ScreenText(S, 1, AY, TScreenModel::WIDTH);
  Row.erase(Row.find_last_not_of(' ') + 1);
  return Row;
}

uint8_t ScreenAttr(const TScreenModel& S, int AX, int AY) { return S.Cells[AY - 1][AX - 1].Attr; }

std::string ScreenDump(const TScreenModel& S) {
  std::string Dump;
  for (int Y = 1; Y <= TScreenModel::HEIGHT; ++Y) {
    Dump += (Y < 10 ? " " : "") + std::to_string(Y) + "|" + ScreenText(S, 1, Y, TScreenModel::WIDTH) + "|\n";
  }
  return Dump;
}

std::string TelnetPayload(std::string_view ABytes) {
  static constexpr std::string_view Announcements("\xFF\xFB\x00\xFF\xFB\x01", 6);
  if (ABytes.substr(0, Announcements.size()) == Announcements) ABytes.remove_prefix(Announcements.size());
  std::string Payload;
  for (size_t I = 0; I < ABytes.size(); ++I) {
    Payload += ABytes[I];
    if (static_cast<uint8_t>(ABytes[I]) == 0xFF && I + 1 < ABytes.size() &&
        static_cast<uint8_t>(ABytes[I + 1]) == 0xFF) {
      ++I;
    }
  }
  return Payload;
}
