// Framework-internal: the one escaping rule of every log sink.
//
// A log record is one line and shows what it holds, whatever its text carries (a file
// name read from a directory, a module's setting): nothing in it can start a line of its
// own, move the cursor, colour a terminal or reorder what a reader sees.
#pragma once

#include <string>

namespace pwhost {

// Returns `text` with these written as escapes, everything else unchanged:
//   the backslash itself                      \\ (so that every escape reads back as one)
//   newline, carriage return, tab             \n \r \t
//   other C0 controls and DEL                 \xNN
//   C1 controls (U+0080..U+009F), the bidirectional marks, embeddings, overrides and
//   isolates (U+061C, U+200E, U+200F, U+202A..U+202E, U+2066..U+2069) and the line and
//   paragraph separators (U+2028, U+2029)     \uNNNN
//   each byte that is not part of well-formed UTF-8 (overlong forms, surrogates, code
//   points past U+10FFFF, cut or stray sequences)   \xNN
// Hex digits are lower case.
std::string EscapeLogText(const std::string& text);

}  // namespace pwhost
