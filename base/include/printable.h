// Text of a peer, a directory, a file or the environment in a form that is safe to print, log, report or keep.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace lumo {

// Escapes what could act on a terminal, forge a line or hide text: control characters, line and paragraph separators,
// characters that change the direction of writing, and bytes that are not UTF-8. They become \n, \r, \t or \xHH for
// each byte. A backslash stays as it is, so that ordinary text is never changed; the result is for people, not for
// decoding. Throws std::bad_alloc only. Any thread.
std::string printable(std::string_view foreign);

// The same for at most `limit` bytes of the text, cut between characters; "..." follows where something was cut.
std::string printable(std::string_view foreign, std::size_t limit);

// The same, but line feeds stay, also those behind a carriage return: for a text whose line ends are ours, as the last
// thing before it is printed. A foreign part that may hold a line feed of its own goes through `printable` before it
// becomes part of such a text.
std::string printableLines(std::string_view ours);

}  // namespace lumo
