/// Texts for people: what peers have sent made safe to show, and quantities as one says them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vok::ctl {

/// How the output looks.
struct Style {
    bool bUtf8 = false;  // else ASCII only
    bool bTerminal = false;
    bool bColour = false;   // with escape sequences
    int nWidth = 0;         // of the terminal, in columns; 0: unlimited
    int nHeight = 0;        // in lines; 0: unlimited
    bool bInPlace = false;  // a screen that is drawn anew: no line may be wider than the terminal
};

/// Any bytes as text that changes nothing of a terminal but the characters it shows. What is not
/// UTF-8, controls something, is not seen, or reverses the direction is shown as \xHH, byte by
/// byte; without `bUtf8` everything beyond ASCII, too.
std::string Printable(std::string_view strBytes, bool bUtf8);

/// Any bytes as UTF-8: U+FFFD stands for each byte that is none.
std::string ValidUtf8(std::string_view strBytes);

/// What a peer has answered, and a line feed: to a terminal made safe, line by line; into a file or
/// a pipe as it is.
std::string AnswerText(const std::string& strAnswer, const Style& style);

/// How many columns a text takes that `Printable` has made.
int Width(std::string_view strText);

/// The text itself, or its beginning and a mark of the cut, in at most `nWidth` columns.
std::string Cut(std::string_view strText, int nWidth, bool bUtf8);

/// "850 ms", "12.3 s", "3 min 12 s", "2 h 5 min", "4 d 3 h".
std::string Duration(std::chrono::milliseconds duration);

/// What is measured in microseconds, with three digits: "740 us", "1.24 ms", "12.3 ms", "1.20 s".
std::string Elapsed(std::int64_t nMicroseconds);

/// "2026-11-21T00:35:03Z": the moment, the same words wherever the set is.
std::string UtcNow();

/// "1 client", "2 clients".
std::string Count(std::int64_t nNumber, const std::string& strOne, const std::string& strMany);

std::string Join(const std::vector<std::string>& texts, const std::string& strBetween);

// ---- The broker's numbers as words
// ----------------------------------------------------------------

std::string StatusText(int nStatus);                   // "opened"
std::string OptionText(const std::string& strOption);  // "singleton"
std::string LocationText(int nLocation);               // "files of its own"
std::string OutcomeText(int nOutcome);                 // "reused"

/// Where an EMP lives, as the admin service counts it.
enum eLocation {
    LOCATION_UNKNOWN = 0,
    LOCATION_FILES = 2,
    LOCATION_GROUP = 4,
    LOCATION_LAUNCHER = 5
};

/// What an EMP's option makes of a further open.
inline constexpr char kSingleton[] = "0001";
inline constexpr char kOneConnection[] = "0003";

}  // namespace vok::ctl
