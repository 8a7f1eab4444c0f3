#pragma once

// Text to the user in UTF-8: right on a Windows console whatever its code page, plain bytes with
// bare line feeds when redirected. Any thread; one call's text stays together. Printing to standard
// error never fails.

#include <string>
#include <string_view>

namespace Norvex::App::Console {

// To standard output. Throws Failure when it cannot be written (a full disk behind a redirection).
void Print(std::string_view text);
// To standard error.
void PrintError(std::string_view text);
// "norvexdx: <line>" to standard error.
void PrintMessage(std::string_view line);
// A line on standard error that takes the place of the one before, and makes room for messages;
// empty: takes it off a terminal, ends it elsewhere.
void ShowStatus(std::string line);

bool IsErrorTerminal();

} // namespace Norvex::App::Console
